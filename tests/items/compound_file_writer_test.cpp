// Storages made with the system's structured storage, written as compound
// files of our own, must read back through the system's StgOpenStorageEx
// exactly as they were: every name, every byte, every class id and state bit.
#include "items/compound_file_writer.h"

#include "compound_file_check.h"
#include "generated_storage.h"
#include "items/mail_properties.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

const CLSID messageClass = {0x00020D0B, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const CLSID folderClass = {0x8F3A5B21, 0x4C1D, 0x4E77, {0x9A, 0x10, 0x5E, 0x21, 0x33, 0x7B, 0xC4, 0x02}};
const CLSID innerClass = {0x11223344, 0x5566, 0x7788, {0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01}};

std::string patternBytes(size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 7 + seed * 13 + i / 251) & 0xFF);
    return bytes;
}

void addStream(IStorage* parent, const std::wstring& name, const std::string& bytes)
{
    ASSERT_HRESULT_SUCCEEDED(writeRawStream(parent, name, bytes)) << "creating a test stream";
}

ULONGLONG fileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// Written, well-formed byte for byte, every storage's entry holding the
// source's class id and state bits, and equal to the source through the
// system's reader, both ways.
void expectFaithfulFile(IStorage* source, const std::wstring& path)
{
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(source, path));
    const std::string bytes = readBytes(path);
    EXPECT_EQ(compoundFileProblems(bytes), "");
    expectStorageEntriesMatch(source, bytes);
    ComPtr<IStorage> written = openCompoundFile(path);
    ASSERT_TRUE(written) << "StgOpenStorageEx refused the written file";
    expectSameTree(source, written.Get());
}

class CompoundFileWriterTest : public ::testing::Test {
protected:
    ScratchFolder folder;
    ComPtr<IStorage> source = makeStorageInMemory();
    std::wstring target = folder.file(L"mail.msg");
};

TEST_F(CompoundFileWriterTest, EmptyStorageKeepsItsClassAndStateBits)
{
    ASSERT_TRUE(source);
    ASSERT_HRESULT_SUCCEEDED(source->SetClass(messageClass));
    ASSERT_HRESULT_SUCCEEDED(source->SetStateBits(0x00000005, 0xFFFFFFFF));

    expectFaithfulFile(source.Get(), target);
    // Header, one directory sector, one FAT sector.
    EXPECT_EQ(fileSize(target), 3u * 512);
}

TEST_F(CompoundFileWriterTest, SmallStreamsShareTheMiniStream)
{
    ASSERT_TRUE(source);
    const std::vector<size_t> sizes = {1, 63, 64, 65, 100, 511, 512, 1000, 4000};
    for (size_t i = 0; i < sizes.size(); ++i)
        addStream(source.Get(), L"small" + std::to_wstring(i), patternBytes(sizes[i], static_cast<unsigned>(i)));

    expectFaithfulFile(source.Get(), target);
    // Rounded up to 64 bytes each they fit in 17 sectors of mini stream; the
    // file holds little more.
    EXPECT_LT(fileSize(target), 24u * 512);
}

TEST_F(CompoundFileWriterTest, StreamsAroundTheCutoffLandOnTheRightSide)
{
    ASSERT_TRUE(source);
    addStream(source.Get(), L"empty", "");
    addStream(source.Get(), L"below", patternBytes(4095, 1));
    addStream(source.Get(), L"at", patternBytes(4096, 2));
    addStream(source.Get(), L"above", patternBytes(4097, 3));

    // The layout check proves which of the two places each stream went to.
    expectFaithfulFile(source.Get(), target);
}

TEST_F(CompoundFileWriterTest, LargeStreamIsCopiedWhole)
{
    ASSERT_TRUE(source);
    const size_t size = 20 * 1024 * 1024 + 123;
    addStream(source.Get(), L"__substg1.0_37010102", patternBytes(size, 9));
    addStream(source.Get(), L"__substg1.0_0037001F", patternBytes(200, 4));

    expectFaithfulFile(source.Get(), target);
    // The stream's sectors, its FAT (four bytes a sector) and little else.
    EXPECT_LT(fileSize(target), size + size / 128 + 8 * 1024);
}

TEST_F(CompoundFileWriterTest, NestedStoragesKeepClassIdsAndStateBits)
{
    ASSERT_TRUE(source);
    ASSERT_HRESULT_SUCCEEDED(source->SetClass(messageClass));
    ComPtr<IStorage> outer = createChildStorage(source.Get(), L"__attach_version1.0_#00000000");
    ASSERT_TRUE(outer);
    ASSERT_HRESULT_SUCCEEDED(outer->SetClass(folderClass));
    ASSERT_HRESULT_SUCCEEDED(outer->SetStateBits(0x80000001, 0xFFFFFFFF));
    addStream(outer.Get(), L"__properties_version1.0", patternBytes(300, 5));
    ComPtr<IStorage> inner = createChildStorage(outer.Get(), L"__substg1.0_3701000D");
    ASSERT_TRUE(inner);
    ASSERT_HRESULT_SUCCEEDED(inner->SetClass(innerClass));
    ASSERT_HRESULT_SUCCEEDED(inner->SetStateBits(0x00000002, 0xFFFFFFFF));
    addStream(inner.Get(), L"__substg1.0_1000001F", patternBytes(9000, 6));
    addStream(inner.Get(), L"__substg1.0_0037001F", patternBytes(40, 7));
    ASSERT_TRUE(createChildStorage(inner.Get(), L"empty storage"));
    ASSERT_HRESULT_SUCCEEDED(inner->Commit(STGC_DEFAULT));
    inner.Reset();
    ASSERT_HRESULT_SUCCEEDED(outer->Commit(STGC_DEFAULT));
    outer.Reset();
    addStream(source.Get(), L"__properties_version1.0", patternBytes(32, 8));

    expectFaithfulFile(source.Get(), target);
}

TEST_F(CompoundFileWriterTest, EveryStorageKeepsItsStateBits)
{
    // The system's storages here keep state bits only on an open root, so a
    // generated tree reports them for every level.
    GeneratedStorageLayout layout;
    layout.count = 2;
    layout.levels = 3;
    layout.clsid = folderClass;
    layout.stateBits = 0x40000010;
    layout.element = [](ULONGLONG index) {
        return index == 0 ? GeneratedElement{L"inner", true, 0} : GeneratedElement{L"data", false, 5000};
    };
    ComPtr<IStorage> generated = makeGeneratedStorage(layout);
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(generated.Get(), target));

    const std::string bytes = readBytes(target);
    EXPECT_EQ(compoundFileProblems(bytes), "");
    const std::vector<RawStorageEntry> storages = storageEntriesOf(bytes);
    ASSERT_EQ(storages.size(), 4u);
    EXPECT_EQ(storages[3].path, L"inner/inner/inner");
    EXPECT_EQ(storages[3].stateBits, 0x40000013u);
    expectStorageEntriesMatch(generated.Get(), bytes);
}

TEST_F(CompoundFileWriterTest, ThreeHundredChildrenFormOneTreeThatFindsEachName)
{
    ASSERT_TRUE(source);
    // Mixed lengths and cases, in creation order unrelated to the sibling order.
    for (int i = 299; i >= 0; --i) {
        std::wstring name = (i % 3 == 0) ? L"__substg1.0_" : (i % 3 == 1 ? L"Item" : L"x");
        name += std::to_wstring(i * 7919 % 1000);
        if (i % 5 == 0)
            name += L"_Tail";
        if (i % 10 == 1) {
            ASSERT_TRUE(createChildStorage(source.Get(), name + L"_storage"));
            continue;
        }
        addStream(source.Get(), name, patternBytes(static_cast<size_t>(i * 37), static_cast<unsigned>(i)));
    }

    // The comparison opens every name through the written tree.
    expectFaithfulFile(source.Get(), target);
}

TEST_F(CompoundFileWriterTest, NamesAreKeptExactly)
{
    ASSERT_TRUE(source);
    const std::vector<std::wstring> names = {
        L"\x0001" L"CompObj",
        L"\x0005" L"SummaryInformation",
        L"Gr\x00FC\x00DF" L"e",                       // Grüße
        L"\x00C4\x00D6\x00DC",                         // ÄÖÜ
        L"\x03A9\x03BC\x03AD\x03B3\x03B1",             // Ωμέγα
        L"\x041F\x0440\x0438\x0432\x0435\x0442",       // Привет
        L"\x65E5\x672C\x8A9E",                         // 日本語
        L"\xD834\xDD1E clef",                          // a character beyond the basic plane
        L"MixedCase",
        // Between 'Z' and 'a': ordered differently by upper and by lower case.
        L"A_B", L"AaB", L"A[B", L"A^B", L"AzB", L"A`B",
        L"abcdefghijklmnopqrstuvwxyz01234",            // 31 characters, the longest allowed
    };
    for (size_t i = 0; i < names.size(); ++i)
        addStream(source.Get(), names[i], patternBytes(10 + i, static_cast<unsigned>(i)));
    ComPtr<IStorage> child = createChildStorage(source.Get(), L"\x00C9t\x00E9 storage");
    ASSERT_TRUE(child);
    addStream(child.Get(), L"ABCDEFGHIJKLMNOPQRSTUVWXYZ_____", patternBytes(5000, 3));
    child.Reset();

    expectFaithfulFile(source.Get(), target);
}

TEST_F(CompoundFileWriterTest, MailFromTheBuilderReadsBackAsTheSameMail)
{
    MsgContent mail;
    mail.subject = L"Quarterly figures \x20AC";
    mail.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    mail.senderName = L"Anna";
    mail.senderAddress = L"anna@example.org";
    mail.senderAddrType = L"SMTP";
    mail.body = L"See attached.";
    mail.recipients = {{1, L"Bob", L"bob@example.org", L"SMTP", "\x01\x02"},
                       {2, L"Carla", L"carla@example.org", L"SMTP", ""},
                       {3, L"Dan", L"dan@example.org", L"SMTP", ""}};
    mail.attachments = {{L"figures.bin", patternBytes(300 * 1024, 1), L"application/octet-stream"},
                        {L"note.txt", "short note", L"text/plain"}};
    ComPtr<IStorage> message = makeMsgInMemory(mail);
    ASSERT_TRUE(message);

    expectFaithfulFile(message.Get(), target);

    ComPtr<IStorage> written = openCompoundFile(target);
    ASSERT_TRUE(written);
    MailProperties properties;
    ASSERT_HRESULT_SUCCEEDED(readPropertiesFromStorage(written.Get(), properties));
    EXPECT_EQ(properties.subject, mail.subject);
    EXPECT_EQ(properties.receivedAtIso, L"2024-03-05T07:08:09Z");
    ASSERT_EQ(properties.to.size(), 1u);
    EXPECT_EQ(properties.to[0].mailAddress, L"bob@example.org");
    EXPECT_EQ(properties.cc.size(), 1u);
    EXPECT_EQ(properties.bcc.size(), 1u);
}

TEST_F(CompoundFileWriterTest, ReplacesAnExistingFileAndLeavesNothingElse)
{
    ASSERT_TRUE(source);
    addStream(source.Get(), L"data", patternBytes(10000, 2));
    writeBytes(target, "an older file");

    expectFaithfulFile(source.Get(), target);

    EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"mail.msg"});
}

// The layout check above is what proves the trees and chains; here it must
// notice each kind of damage in a file that was fine.
TEST_F(CompoundFileWriterTest, LayoutCheckNoticesDamage)
{
    ASSERT_TRUE(source);
    for (int i = 0; i < 20; ++i)
        addStream(source.Get(), L"s" + std::to_wstring(10 + i), patternBytes(100, static_cast<unsigned>(i)));
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(source.Get(), target));
    const std::string good = readBytes(target);
    ASSERT_EQ(compoundFileProblems(good), "");

    uint32_t directorySector = 0;
    std::memcpy(&directorySector, good.data() + 48, 4);
    const size_t directory = 512 + size_t(directorySector) * 512;
    auto entryAt = [&](std::string& bytes, size_t index) { return bytes.data() + directory + 128 * index; };

    // Twenty siblings can't be a perfect tree: all black breaks the black heights.
    std::string allBlack = good;
    for (size_t i = 1; i <= 20; ++i)
        entryAt(allBlack, i)[67] = 1;
    EXPECT_NE(compoundFileProblems(allBlack).find("black heights differ"), std::string::npos);

    // Two names swapped put the siblings out of order.
    std::string swapped = good;
    std::swap_ranges(entryAt(swapped, 1), entryAt(swapped, 1) + 64, entryAt(swapped, 2));
    EXPECT_NE(compoundFileProblems(swapped).find("out of order"), std::string::npos);

    // The directory chain cut short leaves its next sector to nobody.
    std::string cut = good;
    uint32_t fatSector = 0;
    std::memcpy(&fatSector, good.data() + 76, 4);
    const uint32_t endOfChain = 0xFFFFFFFE;
    std::memcpy(cut.data() + 512 + size_t(fatSector) * 512 + 4 * directorySector, &endOfChain, 4);
    EXPECT_NE(compoundFileProblems(cut).find("belongs to nothing"), std::string::npos);
}

} // namespace
