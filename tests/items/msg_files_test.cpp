// Mails saved as .msg: the file is every stream of Outlook's storage, in a
// compound file sound byte for byte, dated with the delivery time; hostile
// sources fail clearly, and no failure leaves a partial file under the name
// the drop target was given.
#include "item_files.h"

#include "core/log.h"
#include "common/strings.h"
#include "items/compound_file_writer.h"
#include "items/file_beside.h"
#include "support/faulty_storage.h"

#include <cstdlib>

using Microsoft::WRL::ComPtr;

namespace {

// A storage of streams by name; "a/b" makes stream b in storage a.
ComPtr<IStorage> storageOf(const std::vector<std::pair<std::wstring, std::string>>& streams, const CLSID& clsid = {})
{
    ComPtr<IStorage> root = makeStorageInMemory();
    root->SetClass(clsid);
    for (const auto& [path, bytes] : streams) {
        const size_t slash = path.find(L'/');
        if (slash == std::wstring::npos) {
            EXPECT_HRESULT_SUCCEEDED(writeRawStream(root.Get(), path, bytes));
            continue;
        }
        ComPtr<IStorage> child;
        if (FAILED(root->OpenStorage(path.substr(0, slash).c_str(), nullptr, STGM_READWRITE | STGM_SHARE_EXCLUSIVE,
                                     nullptr, 0, &child)))
            child = createChildStorage(root.Get(), path.substr(0, slash));
        child->SetClass({clsid.Data1 + 1, 0, 0, {}});
        EXPECT_HRESULT_SUCCEEDED(writeRawStream(child.Get(), path.substr(slash + 1), bytes));
        child->Commit(STGC_DEFAULT);
    }
    return root;
}

const CLSID messageClass = {0x00020D0B, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

} // namespace

TEST_F(ItemFiles, MsgFileHoldsEveryStreamOfTheSourceInASoundFile)
{
    MsgContent attachments = sampleMail();
    attachments.attachments = {{L"report.pdf", patternBytes(3 * 1024 * 1024 + 17, 1), L"application/pdf"},
                               {L"empty.txt", "", L"text/plain"},
                               {L"Pr\u00E4sentation \u20AC.txt", "line one\r\n", L"text/plain"}};
    MsgContent nested = sampleMail();
    nested.attachments = {{L"inner", "", L"", L"", false, std::make_shared<MsgContent>(attachments)}};
    MsgContent crowded = sampleMail();
    for (int i = 0; i < 40; ++i) {
        crowded.recipients.push_back({1, L"R" + std::to_wstring(i), L"r@x.org", L"SMTP", ""});
        crowded.attachments.push_back({L"a" + std::to_wstring(i) + L".txt", patternBytes(i * 150, i), L"text/plain"});
    }
    std::vector<std::pair<std::wstring, std::string>> oddNames;
    for (const wchar_t* name : {L"\x0001" L"CompObj", L"Gr\x00FC\x00DF" L"e", L"\x041F\x0440\x0438", L"\xD834\xDD1E clef",
                                L"A_B", L"AaB", L"A[B", L"A^B", L"AzB", L"A`B", L"abcdefghijklmnopqrstuvwxyz01234",
                                L"\x00C9t\x00E9/ABCDEFGHIJKLMNOPQRSTUVWXYZ_____"})
        oddNames.push_back({name, patternBytes(10 + oddNames.size() * 700, 3)});
    StorageFaults lying;
    lying.statExtraBytes = 5000; // Stat claims more than the streams hold, Read gives a few bytes a call
    lying.maxBytesPerRead = 7;
    const struct {
        const char* name;
        ComPtr<IStorage> source;
        const MsgContent* mail;
    } rows[] = {
        {"attachments of every size", makeMsgInMemory(attachments), &attachments},
        {"attached message", makeMsgInMemory(nested), &nested},
        {"hundred siblings", makeMsgInMemory(crowded), &crowded},
        {"names sorted by length then upper case", storageOf(oddNames, messageClass), nullptr},
        {"streams around the mini stream cutoff",
         storageOf({{L"empty", ""}, {L"below", patternBytes(4095, 1)}, {L"at", patternBytes(4096, 2)},
                    {L"above", patternBytes(4097, 3)}, {L"s/64", patternBytes(64, 4)}}),
         nullptr},
        {"stream beyond what the header's FAT slots reach", storageOf({{L"big", patternBytes(8 << 20, 5)}}), nullptr},
        {"empty storage", storageOf({}, messageClass), nullptr},
        {"sizes that lie and dribbling reads",
         wrapWithFaults(storageOf({{L"small", patternBytes(100, 6)}, {L"edge", patternBytes(4100, 7)}}).Get(), lying),
         nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto item = mailItem({}, L"mail.msg", row.source.Get());
        LogCapture log(LOG_WARN);
        ASSERT_EQ(item->prepareFile(), S_OK);
        ASSERT_EQ(item->save(), S_OK);
        EXPECT_FALSE(contains(log.contents(), "compound file writer failed")) << log.contents();
        const std::string bytes = readBytes(folder.file(L"mail.msg"));
        EXPECT_EQ(compoundFileProblems(bytes), "");
        EXPECT_EQ(treeOf(openStorageFile(folder.file(L"mail.msg")).Get()), treeOf(row.source.Get()));
        if (row.mail) {
            EXPECT_EQ(lastWriteTime(folder.file(L"mail.msg")), timeNumber(*row.mail->deliveryTime));
            EXPECT_EQ(item->properties().subject, row.mail->subject);
        }
        EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"mail.msg"});
        EXPECT_EQ(GetFileAttributesW(folder.file(L"mail.msg").c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
        DeleteFileW(folder.file(L"mail.msg").c_str());
    }
}

TEST(CompoundFileWriter, HostileSourcesFailClearlyAndLeaveTheTargetAsItWas)
{
    const ComPtr<IStorage> real =
        storageOf({{L"big", patternBytes(3 << 20, 1)}, {L"small", patternBytes(100, 2)}, {L"deep/inner", "x"}});
    const auto faulty = [&real](auto change) {
        StorageFaults faults;
        change(faults);
        return wrapWithFaults(real.Get(), faults);
    };
    const auto renamed = [&faulty](const wchar_t* name) {
        return faulty([name](StorageFaults& f) { f.renamedFrom = L"small", f.renamedTo = name; });
    };
    const struct {
        const char* name;
        ComPtr<IStorage> source;
        CompoundFileLimits limits;
        HRESULT hr;
        const char* logged;
    } rows[] = {
        {"stream failing half way", faulty([](StorageFaults& f) { f.onlyStream = L"big", f.failAfterBytes = 1 << 20; }),
         {}, STG_E_READFAULT, "copying stream \"big\" failed"},
        {"enumeration failing", faulty([](StorageFaults& f) { f.enumFailure = E_ACCESSDENIED; }), {}, E_ACCESSDENIED,
         "EnumElements"},
        {"read claiming more than asked", faulty([](StorageFaults& f) { f.readOverclaim = 4096; }), {},
         STG_E_DOCFILECORRUPT, "asked"},
        {"name too long", renamed(L"abcdefghijklmnopqrstuvwxyz012345"), {}, STG_E_INVALIDNAME, "can't be stored"},
        {"name with a slash", renamed(L"a/b"), {}, STG_E_INVALIDNAME, "a/b"},
        {"two siblings of one name", renamed(L"BIG"), {}, STG_E_DOCFILECORRUPT, "two elements named"},
        {"nested too deep", real, {.maxDepth = 0}, STG_E_DOCFILECORRUPT, "nested deeper than 0"},
        {"too many elements", real, {.maxElements = 3}, STG_E_DOCFILECORRUPT, "more than 3 elements"},
        {"stream too large", real, {.maxStreamBytes = 1 << 20}, HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE),
         "stream larger than 1048576"},
        {"file too large", real, {.maxFileBytes = 2 << 20}, HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE),
         "beyond 2097152 bytes"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScratchFolder folder;
        writeBytes(folder.file(L"mail.msg"), "the file saved before");
        LogCapture log(LOG_ERROR);
        EXPECT_EQ(writeCompoundFile(row.source.Get(), folder.file(L"mail.msg"), row.limits), row.hr);
        EXPECT_EQ(readBytes(folder.file(L"mail.msg")), "the file saved before");
        EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"mail.msg"});
        EXPECT_TRUE(contains(log.contents(), row.logged)) << log.contents();
        EXPECT_TRUE(contains(log.contents(), "writeCompoundFile \"" + wideToUtf8(folder.file(L"mail.msg"))));
    }
    ScratchFolder empty;
    EXPECT_EQ(writeCompoundFile(real.Get(), empty.file(L"missing\\mail.msg")), HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(filesIn(empty.path()).empty());
}

// Outlook's storage failing half way through a read, or the disk filling up
// half way through the write: the save fails, the placeholder stays as it
// was, nothing else is left, and the log names the file.
TEST_F(ItemFiles, AFailedSaveLeavesThePlaceholderAndNothingElse)
{
    static StorageFaults readFails, diskFull;
    readFails.failAfterBytes = 100000;
    diskFull.failWritesAfterBytes = 200000;
    const struct {
        const wchar_t* format;
        bool extractMailAddress;
        const StorageFaults* fault;
    } rows[] = {
        {L"msg", false, &readFails}, // both .msg writers read it
        {L"eml", true, &readFails},  // Korvane's MIME writer, into memory for the header rewrite
        {L"eml", false, &diskFull}, // ... and straight into the file
        {L"eml", true, &diskFull},
    };
    MsgContent mail = sampleMail();
    mail.attachments = {{L"big.bin", std::string(1 << 20, 'b'), L"application/octet-stream"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << wideToUtf8(row.format) << row.extractMailAddress << (row.fault == &diskFull));
        settings.setFormat(row.format);
        settings.setExtractMailAddress(row.extractMailAddress);
        ScratchFolder place;
        const ComPtr<IStorage> real = makeMsgInMemory(mail);
        const ComPtr<IStorage> source = row.fault == &readFails ? wrapWithFaults(real.Get(), readFails) : real;
        MailItem item(place.file(L"mail.msg"), source.Get(), settings);
        ASSERT_EQ(item.prepareFile(), S_OK);
        if (row.fault == &diskFull)
            filterWriteStreams([](IStream* file) { return wrapStreamWithFaults(file, diskFull); });
        LogCapture log(LOG_ERROR);
        EXPECT_TRUE(FAILED(item.save()));
        filterWriteStreams(nullptr);
        EXPECT_TRUE(item.isSaved()) << "not tried again by a later save of the list";
        EXPECT_EQ(readBytes(item.fileName()), std::string(1, '\0')) << "the placeholder as it was";
        EXPECT_EQ(filesIn(place.path()), std::vector<std::wstring>{fileNameOfPath(item.fileName())});
        EXPECT_TRUE(contains(log.contents(), "save \"" + wideToUtf8(item.fileName()) + "\" failed")) << log.contents();
    }
}

// A one-byte placeholder first; undated, the file keeps the time it was
// written; TempFileReadOnly protects it; saved once, it is left alone.
TEST_F(ItemFiles, SavedMailIsDatedAndProtectedAsTheSettingsSay)
{
    MsgContent undated = sampleMail();
    undated.deliveryTime.reset();
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    settings.setTempFileReadOnly(true);
    auto item = mailItem(undated, L"protected.msg");
    ASSERT_EQ(item->prepareFile(), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"protected.msg")), std::string(1, '\0'));
    EXPECT_FALSE(item->isSaved());
    ASSERT_EQ(item->save(), S_OK);
    const LONGLONG age = LONGLONG(timeNumber(now)) - LONGLONG(lastWriteTime(folder.file(L"protected.msg")));
    EXPECT_LT(std::llabs(age), 600LL * 10000000);
    EXPECT_NE(GetFileAttributesW(folder.file(L"protected.msg").c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
    SetFileAttributesW(folder.file(L"protected.msg").c_str(), FILE_ATTRIBUTE_NORMAL);

    DeleteFileW(folder.file(L"protected.msg").c_str());
    EXPECT_EQ(item->save(), S_OK);
    EXPECT_EQ(item->prepareFile(), S_OK);
    EXPECT_FALSE(fileExists(folder.file(L"protected.msg")));
}
