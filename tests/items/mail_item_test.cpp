// Mails saved the way the add-in saves them where MAPI can't be used: the
// properties come straight from the .msg storage, the .msg is a copy of it.
#include "items/mail_item.h"

#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "common/strings.h"
#include "items/file_beside.h"
#include "support/faulty_storage.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_standin.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

MsgContent sampleMail()
{
    MsgContent mail;
    mail.subject = L"Angebot \u00FCber 5\u20AC \U0001F600";
    mail.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    mail.senderName = L"Anna Sender";
    mail.senderAddress = L"anna@example.org";
    mail.senderAddrType = L"SMTP";
    mail.body = L"Hello";
    mail.recipients = {
        {1, L"Bob To", L"bob@example.org", L"SMTP", "\x01\x02"},
        {2, L"Carl Cc", L"carl@example.org", L"SMTP", ""},
        {3, L"Dora Bcc", L"dora@example.org", L"SMTP", ""},
        {1, L"Eve \"Second\" To", L"eve@example.org", L"SMTP", ""},
        {0x10000000, L"Room", L"room@example.org", L"SMTP", ""}, // a type of its own: in no list
    };
    return mail;
}

class MailItems : public testing::Test {
protected:
    void SetUp() override { setOutlookApplication(outlook.application()); }
    void TearDown() override { setOutlookApplication(nullptr); }

    std::unique_ptr<MailItem> itemFor(const MsgContent& content, const std::wstring& name = L"mail.msg")
    {
        storage = makeMsgInMemory(content);
        EXPECT_TRUE(storage);
        return std::make_unique<MailItem>(folder.file(name), storage.Get(), settings);
    }

    TestSettingsKeys keys;
    ScratchFolder folder;
    Globals settings{keys.company, keys.product()};
    OutlookStandIn outlook;
    ComPtr<IStorage> storage;
};

// Every stream and storage of `expected` is in `actual` with the same bytes.
void expectSameStorage(IStorage* expected, IStorage* actual, const std::wstring& path = L"")
{
    ComPtr<IEnumSTATSTG> elements;
    ASSERT_EQ(expected->EnumElements(0, nullptr, 0, &elements), S_OK);
    STATSTG element{};
    int count = 0;
    while (elements->Next(1, &element, nullptr) == S_OK) {
        const std::wstring name = element.pwcsName;
        CoTaskMemFree(element.pwcsName);
        ++count;
        if (element.type == STGTY_STORAGE) {
            ComPtr<IStorage> a, b;
            ASSERT_EQ(expected->OpenStorage(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &a),
                      S_OK);
            ASSERT_EQ(actual->OpenStorage(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &b),
                      S_OK)
                << testing::PrintToString(path + L"/" + name);
            expectSameStorage(a.Get(), b.Get(), path + L"/" + name);
        } else {
            ComPtr<IStream> a, b;
            ASSERT_EQ(expected->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &a), S_OK);
            ASSERT_EQ(actual->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &b), S_OK)
                << testing::PrintToString(path + L"/" + name);
            std::string bytesA, bytesB;
            char buffer[65536];
            ULONG read = 0;
            while (SUCCEEDED(a->Read(buffer, sizeof buffer, &read)) && read > 0)
                bytesA.append(buffer, read);
            while (SUCCEEDED(b->Read(buffer, sizeof buffer, &read)) && read > 0)
                bytesB.append(buffer, read);
            EXPECT_EQ(bytesA, bytesB) << testing::PrintToString(path + L"/" + name);
        }
    }
    EXPECT_GT(count, 0);
}

ComPtr<IStorage> openMsgFile(const std::wstring& path)
{
    ComPtr<IStorage> storage;
    StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr, IID_IStorage,
                     reinterpret_cast<void**>(storage.GetAddressOf()));
    return storage;
}

FILETIME lastWriteTime(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    return data.ftLastWriteTime;
}

std::wstring messageClassOf(const std::wstring& path)
{
    auto storage = openMsgFile(path);
    if (!storage)
        return L"<no storage>";
    MailProperties properties;
    readPropertiesFromStorage(storage.Get(), properties);
    return properties.messageClass;
}

} // namespace

TEST_F(MailItems, PropertiesComeFromTheStorageWithoutMapi)
{
    LogCapture log(LOG_INFO);
    auto item = itemFor(sampleMail());
    EXPECT_EQ(item->readMessage(), S_OK);
    EXPECT_STREQ(item->readWay(), L"storage");
    const MailProperties& mail = item->properties();
    EXPECT_EQ(mail.subject, L"Angebot \u00FCber 5\u20AC \U0001F600");
    EXPECT_EQ(mail.receivedAtIso, L"2024-03-05T07:08:09Z");
    EXPECT_EQ(mail.sender.name, L"Anna Sender");
    EXPECT_EQ(mail.sender.mailAddress, L"anna@example.org");
    EXPECT_EQ(mail.messageClass, L"IPM.Note");
    ASSERT_EQ(mail.to.size(), 2u);
    EXPECT_EQ(mail.to[0].mailAddress, L"bob@example.org");
    EXPECT_EQ(mail.to[0].entryId, L"0102");
    EXPECT_EQ(mail.to[1].name, L"Eve \"Second\" To");
    ASSERT_EQ(mail.cc.size(), 1u);
    EXPECT_EQ(mail.cc[0].name, L"Carl Cc");
    ASSERT_EQ(mail.bcc.size(), 1u);
    EXPECT_EQ(mail.bcc[0].mailAddress, L"dora@example.org");
    EXPECT_NE(log.contents().find("read message from its storage"), std::string::npos);
}

TEST_F(MailItems, ReadingAgainDoesNotRepeatRecipients)
{
    auto item = itemFor(sampleMail());
    item->readMessage();
    item->readMessage();
    EXPECT_EQ(item->properties().to.size(), 2u);
}

TEST_F(MailItems, ExchangeAddressesAreResolvedThroughOutlook)
{
    MsgContent mail = sampleMail();
    mail.senderAddrType = L"EX";
    mail.senderAddress = L"/O=CORP/OU=EXCHANGE/CN=RECIPIENTS/CN=BOSS";
    mail.senderEntryId = std::string("\x00\x00\x00\x00\xDC\xA7", 6);
    mail.recipients = {{1, L"Remote", L"/O=CORP/CN=REMOTE", L"EX", "\xAB"},
                       {2, L"Contact", L"/O=CORP/CN=CONTACT", L"EX", "\xCD"},
                       {3, L"Gone", L"/O=CORP/CN=GONE", L"EX", "\xEF"}};
    outlook.addExchangeUser(L"00000000DCA7", kOlExchangeUserAddressEntry, L"boss@corp.example");
    outlook.addExchangeUser(L"AB", kOlExchangeRemoteUserAddressEntry, L"remote@corp.example");
    outlook.addExchangeUser(L"CD", kOlSmtpAddressEntry, L"contact@corp.example");
    auto item = itemFor(mail);
    item->readMessage();
    EXPECT_EQ(item->properties().sender.mailAddress, L"boss@corp.example");
    EXPECT_EQ(item->properties().to[0].mailAddress, L"remote@corp.example");
    EXPECT_EQ(item->properties().cc[0].mailAddress, L"contact@corp.example");
    // Outlook doesn't know this one: the address stays empty, never the X.500 path.
    EXPECT_EQ(item->properties().bcc[0].mailAddress, L"");
    EXPECT_TRUE(outlook.addressPropertyAccessor(L"CD")->wasCalled(L"GetProperty"));
}

TEST_F(MailItems, SmtpSenderKeepsItsAddressWithoutAskingOutlook)
{
    auto item = itemFor(sampleMail());
    item->readMessage();
    EXPECT_EQ(item->properties().sender.mailAddress, L"anna@example.org");
    EXPECT_FALSE(outlook.namespaceObject().wasCalled(L"GetAddressEntryFromID"));
}

TEST_F(MailItems, MsgFileIsACopyOfEveryStream)
{
    MsgContent mail = sampleMail();
    mail.attachments = {{L"report.pdf", std::string(3 * 1024 * 1024 + 17, 'r'), L"application/pdf"},
                        {L"empty.txt", "", L"text/plain"}};
    auto item = itemFor(mail);
    ASSERT_EQ(item->prepareFile(), S_OK);
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_TRUE(item->isSaved());
    auto written = openMsgFile(folder.file(L"mail.msg"));
    ASSERT_TRUE(written);
    auto original = makeMsgInMemory(mail);
    expectSameStorage(original.Get(), written.Get());
    expectSameStorage(written.Get(), original.Get());
}

TEST_F(MailItems, FileTimeIsTheDeliveryTimeInUtcWhateverTheSettings)
{
    const FILETIME expected = utcFileTime(2024, 3, 5, 7, 8, 9);
    for (const wchar_t* format : {L"msg", L"eml"}) {
        for (const bool decrypt : {true, false}) {
            settings.setFormat(format);
            settings.setDecryptEnabled(decrypt);
            auto item = itemFor(sampleMail(), decrypt ? L"decrypt on.msg" : L"decrypt off.msg");
            ASSERT_EQ(item->save(), S_OK);
            const FILETIME actual = lastWriteTime(item->fileName());
            EXPECT_EQ(actual.dwHighDateTime, expected.dwHighDateTime) << testing::PrintToString(item->fileName());
            EXPECT_EQ(actual.dwLowDateTime, expected.dwLowDateTime) << testing::PrintToString(item->fileName());
            EXPECT_EQ(GetFileAttributesW(item->fileName().c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
        }
    }
}

// Outlook's storage failing half way through a read, or the disk filling up
// half way through the write: the save fails, the placeholder stays as it
// was, nothing else is left, and the log names the file.
TEST_F(MailItems, AFailedSaveLeavesThePlaceholderAndNothingElse)
{
    static StorageFaults readFails, diskFull;
    readFails.failAfterBytes = 100000;
    diskFull.failWritesAfterBytes = 200000;
    const struct {
        const wchar_t* format;
        bool extractMailAddress;
        const StorageFaults* fault;
    } cases[] = {
        {L"msg", false, &readFails}, // both .msg writers read it
        {L"eml", false, &readFails}, // Korvane's MIME writer, straight into the file
        {L"eml", true, &readFails},  // ... and into memory for the header rewrite
        {L"eml", false, &diskFull},
        {L"eml", true, &diskFull},
    };
    MsgContent mail = sampleMail();
    mail.attachments = {{L"big.bin", std::string(1 << 20, 'b'), L"application/octet-stream"}};
    for (const auto& c : cases) {
        settings.setFormat(c.format);
        settings.setExtractMailAddress(c.extractMailAddress);
        ScratchFolder place;
        auto real = makeMsgInMemory(mail);
        auto source = c.fault == &readFails ? wrapWithFaults(real.Get(), readFails) : real;
        MailItem item(place.file(L"mail.msg"), source.Get(), settings);
        ASSERT_EQ(item.prepareFile(), S_OK);
        if (c.fault == &diskFull)
            filterWriteStreams([](IStream* file) { return wrapStreamWithFaults(file, diskFull); });
        LogCapture log(LOG_ERROR);

        EXPECT_TRUE(FAILED(item.save()));

        filterWriteStreams(nullptr);
        EXPECT_EQ(readBytes(item.fileName()), std::string(1, '\0')) << "the placeholder as it was";
        EXPECT_EQ(filesIn(place.path()), std::vector<std::wstring>{fileNameOfPath(item.fileName())});
        EXPECT_NE(log.contents().find("save \"" + wideToUtf8(item.fileName()) + "\" failed"), std::string::npos)
            << log.contents();
    }
}

TEST_F(MailItems, MailWithoutDeliveryTimeKeepsTheCurrentTime)
{
    MsgContent mail = sampleMail();
    mail.deliveryTime.reset();
    auto item = itemFor(mail);
    ASSERT_EQ(item->save(), S_OK);
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const FILETIME written = lastWriteTime(folder.file(L"mail.msg"));
    const ULONGLONG age = ((ULONGLONG(now.dwHighDateTime) << 32) | now.dwLowDateTime) -
                          ((ULONGLONG(written.dwHighDateTime) << 32) | written.dwLowDateTime);
    EXPECT_LT(age, 600ULL * 10000000); // within ten minutes
}

TEST_F(MailItems, ReadOnlyOption)
{
    settings.setTempFileReadOnly(true);
    auto item = itemFor(sampleMail());
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_NE(GetFileAttributesW(folder.file(L"mail.msg").c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
}

TEST_F(MailItems, PlaceholderIsOneByte)
{
    auto item = itemFor(sampleMail());
    EXPECT_EQ(item->prepareFile(), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"mail.msg")), std::string(1, '\0'));
    EXPECT_FALSE(item->isSaved());
}

TEST_F(MailItems, SecondSaveWritesNothing)
{
    auto item = itemFor(sampleMail());
    ASSERT_EQ(item->save(), S_OK);
    DeleteFileW(folder.file(L"mail.msg").c_str());
    EXPECT_EQ(item->save(), S_OK);
    EXPECT_EQ(item->prepareFile(), S_OK);
    EXPECT_FALSE(fileExists(folder.file(L"mail.msg")));
}

TEST_F(MailItems, EmlFormatNamesTheFileEml)
{
    settings.setFormat(L"eml");
    auto item = itemFor(sampleMail(), L"Re offer.msg");
    EXPECT_EQ(item->fileName(), folder.file(L"Re offer.eml"));
    settings.setFormat(L"msg");
    auto plain = itemFor(sampleMail(), L"noext");
    EXPECT_EQ(plain->fileName(), folder.file(L"noext"));
}

TEST_F(MailItems, JsonTextOfAMail)
{
    auto item = itemFor(sampleMail(), L"Re  offer.msg");
    std::wostringstream out;
    item->writeJson(out, 6);
    EXPECT_EQ(out.str(),
              L"      \"type\" : \"class MailItem\",\n"
              L"      \"fileName\" : \"Re  offer.msg\",\n"
              L"      \"subject\" : \"Angebot \u00FCber 5\u20AC \U0001F600\",\n"
              L"      \"receivedAtIso\" : \"2024-03-05T07:08:09Z\",\n"
              L"      \"senderMailAddress\" : \"anna@example.org\",\n"
              L"      \"senderName\" : \"Anna Sender\",\n"
              L"      \"receivers\" :\n"
              L"        [\n"
              L"          {\n"
              L"            \"name\" : \"Bob To\",\n"
              L"            \"address\" : \"bob@example.org\"\n"
              L"          },\n"
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
              L"      \"bcc\" :\n"
              L"        [\n"
              L"          {\n"
              L"            \"name\" : \"Dora Bcc\",\n"
              L"            \"address\" : \"dora@example.org\"\n"
              L"          }\n"
              L"        ],\n");
}

TEST_F(MailItems, JsonOfAMailWithoutRecipientsEndsInACommaAfterBcc)
{
    MsgContent mail = sampleMail();
    mail.recipients.clear();
    DDItems items;
    items.add(itemFor(mail));
    const std::wstring json = items.toJson();
    EXPECT_NE(json.find(L"      \"receivers\" : [],\n      \"cc\" : [],\n      \"bcc\" : [],\n\n    }\n"),
              std::wstring::npos)
        << testing::PrintToString(json);
}

TEST_F(MailItems, EmptySubjectIsReadAgainAtEachUseWhileTheStorageIsThere)
{
    MsgContent mail = sampleMail();
    mail.subject.clear();
    LogCapture log(LOG_INFO);
    auto item = itemFor(mail);
    std::wostringstream out;
    item->writeJson(out, 6);
    item->writeJson(out, 6);
    const std::string text = log.contents();
    size_t reads = 0;
    for (size_t at = text.find("read message from its storage"); at != std::string::npos;
         at = text.find("read message from its storage", at + 1))
        ++reads;
    EXPECT_EQ(reads, 2u);

    // Saved (at drag start, for the clipboard), the storage is gone: what
    // was read stays for the item list's text.
    ASSERT_EQ(item->save(), S_OK);
    std::wostringstream afterSave;
    item->writeJson(afterSave, 6);
    EXPECT_NE(afterSave.str().find(L"\"senderName\" : \"Anna Sender\""), std::wstring::npos)
        << testing::PrintToString(afterSave.str());
}

TEST_F(MailItems, StorageThatIsNoMessageStillGivesAFileAndNoCrash)
{
    auto notAMessage = makeStorageInMemory();
    ASSERT_EQ(writeRawStream(notAMessage.Get(), L"something", "else"), S_OK);
    MailItem item(folder.file(L"odd.msg"), notAMessage.Get(), settings);
    EXPECT_TRUE(FAILED(item.readMessage()));
    std::wostringstream out;
    item.writeJson(out, 0);
    EXPECT_NE(out.str().find(L"\"subject\" : \"\""), std::wstring::npos);
    EXPECT_EQ(item.save(), S_OK); // the storage is copied as it is
    EXPECT_TRUE(openMsgFile(folder.file(L"odd.msg")));
}

// ---- encrypted mail ----

class EncryptedMail : public MailItems {
protected:
    MsgContent encryptedMail()
    {
        MsgContent mail = sampleMail();
        mail.messageClass = L"IPM.Note.SMIME";
        return mail;
    }
};

TEST_F(EncryptedMail, DecryptedThroughOutlookIntoTheTarget)
{
    auto item = itemFor(encryptedMail());
    ASSERT_EQ(item->prepareFile(), S_OK);
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_EQ(messageClassOf(folder.file(L"mail.msg")), L"IPM.Note");
    EXPECT_FALSE(fileExists(folder.file(L"mail.msg.encrypted.msg")));

    const SharedMailItem* shared = outlook.lastSharedItem();
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->path, folder.file(L"mail.msg.encrypted.msg"));
    // Moved into the Deleted Items folder, flags cleared before the save.
    EXPECT_EQ(outlook.lastMoveTarget(), static_cast<IDispatch*>(&outlook.defaultFolder(kOlFolderDeletedItems)));
    ASSERT_EQ(shared->securityFlagsWhenSaved.size(), 1u);
    EXPECT_EQ(shared->securityFlagsWhenSaved[0], 0);
    const FILETIME expected = utcFileTime(2024, 3, 5, 7, 8, 9);
    EXPECT_EQ(lastWriteTime(folder.file(L"mail.msg")).dwLowDateTime, expected.dwLowDateTime);
}

TEST_F(EncryptedMail, FlagsAlreadyClearAreNotSetAgain)
{
    outlook.setNextSecurityFlags(0);
    auto item = itemFor(encryptedMail());
    ASSERT_EQ(item->save(), S_OK);
    ASSERT_NE(outlook.lastSharedItem(), nullptr);
    EXPECT_FALSE(outlook.lastSharedItem()->propertyAccessor->wasCalled(L"SetProperty"));
}

TEST_F(EncryptedMail, FailedDecryptionLeavesNoFileUnderTheTargetName)
{
    outlook.setSaveAsFails(true);
    auto item = itemFor(encryptedMail());
    ASSERT_EQ(item->prepareFile(), S_OK);
    EXPECT_TRUE(FAILED(item->save()));
    EXPECT_FALSE(fileExists(folder.file(L"mail.msg")));
    EXPECT_FALSE(fileExists(folder.file(L"mail.msg.encrypted.msg")));
    EXPECT_TRUE(item->isSaved());
}

TEST_F(EncryptedMail, WithoutOutlookDecryptionFailsCleanly)
{
    setOutlookApplication(nullptr);
    auto item = itemFor(encryptedMail());
    EXPECT_TRUE(FAILED(item->save()));
    EXPECT_FALSE(fileExists(folder.file(L"mail.msg")));
    EXPECT_FALSE(fileExists(folder.file(L"mail.msg.encrypted.msg")));
}

TEST_F(EncryptedMail, DecryptionSwitchedOffSavesItAsItIs)
{
    settings.setDecryptEnabled(false);
    auto item = itemFor(encryptedMail());
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_EQ(messageClassOf(folder.file(L"mail.msg")), L"IPM.Note.SMIME");
    EXPECT_TRUE(outlook.sharedItems().empty());
}

TEST_F(EncryptedMail, EmlTargetNamesTheIntermediateFiles)
{
    settings.setFormat(L"eml");
    auto item = itemFor(encryptedMail(), L"a.msg");
    EXPECT_EQ(item->save(), S_OK); // no converter here: Korvane's writer made a.eml from the decrypted copy
    EXPECT_TRUE(fileExists(folder.file(L"a.eml")));
    ASSERT_NE(outlook.lastSharedItem(), nullptr);
    EXPECT_EQ(outlook.lastSharedItem()->path, folder.file(L"a.eml.encrypted.msg"));
    ASSERT_EQ(outlook.lastSharedItem()->savedAs.size(), 1u);
    // Decrypted beside a.eml.decrypted.msg and moved there once complete.
    EXPECT_EQ(outlook.lastSharedItem()->savedAs[0].substr(0, folder.path().size() + 4), folder.path() + L"\\~kv");
    EXPECT_FALSE(fileExists(folder.file(L"a.eml.encrypted.msg")));
    EXPECT_FALSE(fileExists(folder.file(L"a.eml.decrypted.msg")));
}
