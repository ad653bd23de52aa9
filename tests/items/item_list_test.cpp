// One drag's items: attachments written as Outlook's stream holds them, the
// list's operations on all items, and the JSON text that describes them.
#include "item_files.h"

#include "items/attachment_item.h"
#include "items/dd_item.h"
#include "support/faulty_storage.h"

#include <sstream>

using Microsoft::WRL::ComPtr;

namespace {

ULONGLONG positionOf(IStream* stream)
{
    ULARGE_INTEGER position{};
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &position);
    return position.QuadPart;
}

} // namespace

TEST(AttachmentFiles, TheStreamsBytesUnchangedAndOutlooksStreamRewound)
{
    const std::string bytes = patternBytes(100000, 7);
    StorageFaults halfWay, noStat;
    halfWay.failAfterBytes = 50000;
    noStat.statFailure = STG_E_ACCESSDENIED;
    const struct {
        const char* name;
        std::string bytes;
        size_t readFirst;
        const StorageFaults* faults;
        HRESULT prepared, saved;
        std::string written; // the file after the save
    } rows[] = {
        {"prepared, then saved", bytes, 0, nullptr, S_OK, S_OK, bytes},
        {"read by someone before", "0123456789", 4, nullptr, S_OK, S_OK, "0123456789"},
        {"empty", "", 0, nullptr, S_OK, S_OK, ""},
        {"failing half way", bytes, 0, &halfWay, S_OK, STG_E_READFAULT, std::string(bytes.size(), '\0')},
        {"no size", bytes, 0, &noStat, STG_E_ACCESSDENIED, S_OK, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScratchFolder folder;
        const std::wstring file = folder.file(L"offer.pdf");
        ComPtr<IStream> stream = memoryStream(row.bytes);
        char peek[16];
        stream->Read(peek, static_cast<ULONG>(row.readFirst), nullptr);
        if (row.faults)
            stream = wrapStreamWithFaults(stream.Get(), *row.faults);
        AttachmentItem item(file, stream.Get());
        EXPECT_EQ(item.prepareFile(), row.prepared);
        EXPECT_EQ(readBytes(file), std::string(SUCCEEDED(row.prepared) ? row.bytes.size() : 0, '\0')) << "the final size";
        EXPECT_FALSE(item.isSaved());
        EXPECT_EQ(item.save(), row.saved);
        EXPECT_TRUE(item.isSaved()) << "not tried again by a later save of the list";
        EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"offer.pdf"});
        EXPECT_TRUE(readBytes(file) == row.written);
        EXPECT_EQ(GetFileAttributesW(file.c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
        EXPECT_EQ(positionOf(stream.Get()), 0u) << "the drop target reads Outlook's stream from its start";
        if (!row.faults) {
            EXPECT_TRUE(restOf(stream.Get()) == row.bytes);
        }
        // Saved once: a second save or prepare touches nothing, even a deleted file.
        DeleteFileW(file.c_str());
        EXPECT_EQ(item.save(), S_OK);
        EXPECT_EQ(item.prepareFile(), S_OK);
        EXPECT_FALSE(fileExists(file));
    }
}

TEST(ItemList, AFailedSaveEndsTheListsSavingThere)
{
    ScratchFolder folder;
    StorageFaults fails;
    fails.failAfterBytes = 0;
    DDItems items;
    EXPECT_EQ(items.save(), S_OK);
    items.add(std::make_unique<AttachmentItem>(folder.file(L"a.txt"), memoryStream("first").Get()));
    items.add(std::make_unique<AttachmentItem>(folder.file(L"b.txt"),
                                               wrapStreamWithFaults(memoryStream("second").Get(), fails).Get()));
    items.add(std::make_unique<AttachmentItem>(folder.file(L"c.txt"), memoryStream("third").Get()));
    EXPECT_EQ(items.prepareFiles(), S_OK);
    EXPECT_EQ(items.save(), STG_E_READFAULT);
    EXPECT_EQ(readBytes(folder.file(L"a.txt")) + "|" + readBytes(folder.file(L"b.txt")) + "|" +
                  readBytes(folder.file(L"c.txt")),
              std::string("first|\0\0\0\0\0\0|\0\0\0\0\0", 18));
    items.release();
    EXPECT_TRUE(items.empty());
}

// Items of both kinds in one text: names and values escaped, lists empty or
// not, a comma between items and none after the last.
TEST_F(ItemFiles, JsonTextNamesEachItemsFileAndEachMailsPropertiesAndRecipients)
{
    DDItems items;
    EXPECT_EQ(items.toJson(), L"{\n  \"items\" : [\n  ]\n}\n");
    items.add(std::make_unique<AttachmentItem>(folder.file(L"Say \"hi\".txt"), memoryStream("y").Get()));
    MsgContent mail = sampleMail();
    mail.recipients = {mail.recipients[3], mail.recipients[1]};
    items.add(mailItem(mail, L"Re  offer.msg"));
    EXPECT_EQ(items.toJson(), L"{\n"
                              L"  \"items\" : [\n"
                              L"    {\n"
                              L"      \"type\" : \"class AttachmentItem\",\n"
                              L"      \"fileName\" : \"Say \\\"hi\\\".txt\"\n"
                              L"\n"
                              L"    },\n"
                              L"    {\n"
                              L"      \"type\" : \"class MailItem\",\n"
                              L"      \"fileName\" : \"Re  offer.msg\",\n"
                              L"      \"subject\" : \"Angebot \u00FCber 5\u20AC \U0001F600\",\n"
                              L"      \"receivedAtIso\" : \"2024-03-05T07:08:09Z\",\n"
                              L"      \"senderMailAddress\" : \"anna@example.org\",\n"
                              L"      \"senderName\" : \"Anna Sender\",\n"
                              L"      \"receivers\" :\n"
                              L"        [\n"
                              L"          {\n"
                              L"            \"name\" : \"Eve \\\"Second\\\" To\",\n"
                              L"            \"address\" : \"eve@example.org\"\n"
                              L"          }\n"
                              L"        ],\n"
                              L"      \"cc\" :\n"
                              L"        [\n"
                              L"          {\n"
                              L"            \"name\" : \"Carl Cc\",\n"
                              L"            \"address\" : \"carl@example.org\"\n"
                              L"          }\n"
                              L"        ],\n"
                              L"      \"bcc\" : [],\n"
                              L"\n"
                              L"    }\n"
                              L"  ]\n"
                              L"}\n");
    EXPECT_EQ(escapeJson(L"a\"b\\c\td\ne\rf\bg"), L"a\\\"b\\\\c\\td\\ne\\rf\\bg");
    EXPECT_EQ(escapeJson(L"\f\x01\u00E9\u20AC/"), L"\f\x01\u00E9\u20AC/") << "form feed, controls, non-ASCII as they are";
}

// Saved at the drag's start (for the clipboard), the storage is gone: what
// was read stays for the text. A storage that is no mail still gives its file.
TEST_F(ItemFiles, MailPropertiesAreReadBeforeTheStorageGoes)
{
    auto item = mailItem(sampleMail());
    ASSERT_EQ(item->save(), S_OK);
    std::wostringstream afterSave;
    item->writeJson(afterSave, 6);
    EXPECT_NE(afterSave.str().find(L"\"senderName\" : \"Anna Sender\""), std::wstring::npos);

    ComPtr<IStorage> notAMessage = makeStorageInMemory();
    writeRawStream(notAMessage.Get(), L"something", "else");
    auto odd = mailItem({}, L"odd.msg", notAMessage.Get());
    EXPECT_TRUE(FAILED(odd->readMessage()));
    std::wostringstream oddJson;
    odd->writeJson(oddJson, 0);
    EXPECT_NE(oddJson.str().find(L"\"subject\" : \"\""), std::wstring::npos);
    EXPECT_EQ(odd->save(), S_OK);
    EXPECT_TRUE(openStorageFile(folder.file(L"odd.msg")));
}
