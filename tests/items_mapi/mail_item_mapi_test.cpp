// Mails saved the Windows way: the message opened through Extended MAPI
// (the stand-in mapi32.dll beside this program, bound by ordinal), the .eml
// made by Outlook's MIME converter (a stand-in registered with COM) or,
// without one, by Korvane's own writer.
#include "items/mail_item.h"

#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "items/eml_headers.h"
#include "items/mapi_library.h"
#include "items/msg_storage.h"
#include "items/property_text.h"
#include "standins/redemption/redemption_standin.h"
#include "support/converter_standin.h"
#include "support/environment_switch.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_standin.h"
#include "support/scratch.h"
#include "standin_mapi.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

MsgContent richMail()
{
    MsgContent mail;
    mail.subject = L"Quartalszahlen \u20AC";
    mail.deliveryTime = utcFileTime(2024, 11, 30, 23, 59, 1);
    mail.submitTime = utcFileTime(2024, 11, 30, 23, 58, 0);
    mail.senderName = L"Anna Sender";
    mail.senderAddress = L"anna@example.org";
    mail.senderAddrType = L"SMTP";
    mail.senderEntryId = "\x11\x22";
    mail.body = L"The figures.";
    mail.recipients = {{1, L"Bob", L"bob@example.org", L"SMTP", "\x01"},
                       {1, L"Eve", L"eve@example.org", L"SMTP", ""},
                       {2, L"Carl", L"carl@example.org", L"SMTP", ""},
                       {3, L"Dora", L"dora@example.org", L"SMTP", ""},
                       {7, L"Other", L"other@example.org", L"SMTP", ""}};
    return mail;
}

class MapiMail : public testing::Test {
protected:
    void SetUp() override { setOutlookApplication(outlook.application()); }
    void TearDown() override { setOutlookApplication(nullptr); }

    std::unique_ptr<MailItem> itemFor(const MsgContent& content, const std::wstring& name = L"mail.msg")
    {
        storage = makeMsgInMemory(content);
        return std::make_unique<MailItem>(folder.file(name), storage.Get(), settings);
    }

    TestSettingsKeys keys;
    ScratchFolder folder;
    Globals settings{keys.company, keys.product()};
    OutlookStandIn outlook;
    ComPtr<IStorage> storage;
};

bool sameAddresses(const std::vector<MailAddress>& a, const std::vector<MailAddress>& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].name != b[i].name || a[i].mailAddress != b[i].mailAddress || a[i].entryId != b[i].entryId ||
            a[i].addrType != b[i].addrType)
            return false;
    }
    return true;
}

} // namespace

TEST_F(MapiMail, AddinBindsTheStandInByOrdinal)
{
    ASSERT_NE(mapiFunctions(), nullptr);
    ASSERT_TRUE(standInMapi().complete());
    const ULONG opensBefore = standInMapi().openCount();
    auto item = itemFor(richMail());
    EXPECT_EQ(item->readMessage(), S_OK);
    EXPECT_STREQ(item->readWay(), L"MAPI");
    EXPECT_EQ(standInMapi().openCount(), opensBefore + 1);
}

TEST_F(MapiMail, MapiAndStorageReadTheSameMail)
{
    auto item = itemFor(richMail());
    ASSERT_EQ(item->readMessage(), S_OK);
    MailProperties fromStorage;
    ASSERT_EQ(readPropertiesFromStorage(storage.Get(), fromStorage), S_OK);
    const MailProperties& fromMapi = item->properties();
    EXPECT_EQ(fromMapi.subject, L"Quartalszahlen \u20AC");
    EXPECT_EQ(fromMapi.subject, fromStorage.subject);
    EXPECT_EQ(fromMapi.receivedAtIso, L"2024-11-30T23:59:01Z");
    EXPECT_EQ(fromMapi.receivedAtIso, fromStorage.receivedAtIso);
    EXPECT_EQ(fromMapi.messageClass, fromStorage.messageClass);
    EXPECT_EQ(fromMapi.sender.entryId, L"1122");
    EXPECT_TRUE(sameAddresses({fromMapi.sender}, {fromStorage.sender}));
    EXPECT_EQ(fromMapi.to.size(), 2u);
    EXPECT_TRUE(sameAddresses(fromMapi.to, fromStorage.to));
    EXPECT_TRUE(sameAddresses(fromMapi.cc, fromStorage.cc));
    EXPECT_TRUE(sameAddresses(fromMapi.bcc, fromStorage.bcc));
}

TEST_F(MapiMail, MapiBuffersAreAllGivenBack)
{
    const ULONG liveBefore = standInMapi().liveAllocations();
    {
        auto item = itemFor(richMail());
        item->readMessage();
        item->readMessage();
    }
    EXPECT_EQ(standInMapi().liveAllocations(), liveBefore);
}

TEST_F(MapiMail, FailingOpenFallsBackToTheStorage)
{
    EnvironmentSwitch fail(standInMapiOpenSwitch, L"fail");
    LogCapture log(LOG_INFO);
    auto item = itemFor(richMail());
    EXPECT_EQ(item->readMessage(), S_OK);
    EXPECT_STREQ(item->readWay(), L"storage");
    EXPECT_EQ(item->properties().subject, L"Quartalszahlen \u20AC");
    EXPECT_NE(log.contents().find("read message from its storage"), std::string::npos);
    EXPECT_EQ(item->save(), S_OK); // the .msg never needs MAPI
}

TEST_F(MapiMail, SecurityFlagIsClearedInTheStorage)
{
    MsgContent mail = richMail();
    mail.extraProperties = {longProperty(0x0034, 3)};
    auto item = itemFor(mail);
    EXPECT_EQ(item->setSecurityFlagDecrypted(), S_OK);
    StoredMessage stored;
    ASSERT_EQ(readStoredMessage(storage.Get(), stored), S_OK);
    const StoredProperty* security = findStoredProperty(stored.properties, 0x0034);
    ASSERT_NE(security, nullptr);
    EXPECT_EQ(security->bytes.substr(0, 4), std::string(4, '\0'));
}

class ConverterMail : public MapiMail {
protected:
    void SetUp() override
    {
        MapiMail::SetUp();
        settings.setFormat(L"eml");
    }
    ConverterRegistration converter{mapiFunctions() ? mapiFunctions()->freeBuffer : nullptr};
};

TEST_F(ConverterMail, EmlIsTheConvertersOutputUnchanged)
{
    auto item = itemFor(richMail());
    ASSERT_EQ(item->prepareFile(), S_OK);
    ASSERT_EQ(item->save(), S_OK);
    ASSERT_EQ(converter.activity().conversionFlags.size(), 1u);
    EXPECT_EQ(converter.activity().conversionFlags[0], CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_USE_RTF);
    const std::string eml = readBytes(folder.file(L"mail.eml"));
    EXPECT_EQ(eml, converter.activity().lastMime);
    EXPECT_NE(eml.find("Bcc: \"Dora\" <dora@example.org>"), std::string::npos) << eml;
    const FILETIME expected = utcFileTime(2024, 11, 30, 23, 59, 1);
    WIN32_FILE_ATTRIBUTE_DATA data{};
    GetFileAttributesExW(folder.file(L"mail.eml").c_str(), GetFileExInfoStandard, &data);
    EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, expected.dwLowDateTime);
}

TEST_F(ConverterMail, ExtractMailAddressLeavesBareAddresses)
{
    settings.setExtractMailAddress(true);
    auto item = itemFor(richMail());
    ASSERT_EQ(item->save(), S_OK);
    const std::string eml = readBytes(folder.file(L"mail.eml"));
    const std::string original = converter.activity().lastMime;
    const EmlSplit before = splitEmlHeaders(original);
    const EmlSplit after = splitEmlHeaders(eml);
    ASSERT_TRUE(before.found && after.found);
    EXPECT_NE(after.headers.find("From: <anna@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_NE(after.headers.find("To: <bob@example.org>,\r\n <eve@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_NE(after.headers.find("Cc: <carl@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_NE(after.headers.find("Bcc: <dora@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_EQ(after.headers.find("\"Bob\""), std::string::npos) << eml;
    // The body is the converter's, byte for byte.
    EXPECT_EQ(eml.substr(after.bodyOffset), original.substr(before.bodyOffset));
}

// Without a usable converter, Korvane's own writer makes the .eml from the
// properties it reads through MAPI (the attachments, which this MAPI has no
// table for, from the storage the message was opened on).
TEST_F(ConverterMail, ConverterMissingLeavesTheEmlToTheOwnWriter)
{
    converter.setCreationFailure(ConverterCreationFailure::ClassNotRegistered);
    LogCapture log(LOG_INFO);
    MsgContent mail = richMail();
    mail.html = "<p>The figures.</p>";
    mail.internetMessageId = L"<figures@example.org>";
    MsgContent attached = mail;
    attached.subject = L"Earlier figures";
    mail.attachments = {{L"figures.csv", "a;b\r\n1;2\r\n", L"text/csv"},
                        {L"Earlier figures", "", L"", L"", false, std::make_shared<MsgContent>(attached)}};
    auto item = itemFor(mail);
    ASSERT_EQ(item->prepareFile(), S_OK);
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_STREQ(item->readWay(), L"MAPI");
    const std::string text = log.contents();
    EXPECT_NE(text.find("CoCreateInstance failed for CLSID_IConverterSession"), std::string::npos);
    EXPECT_NE(text.find("written by Korvane's MIME writer (properties through MAPI, 2 attachments"),
              std::string::npos)
        << text;
    const std::string eml = readBytes(folder.file(L"mail.eml"));
    const EmlSplit split = splitEmlHeaders(eml);
    ASSERT_TRUE(split.found) << eml;
    EXPECT_TRUE(split.headers.starts_with("From: \"Anna Sender\" <anna@example.org>\r\n")) << eml;
    EXPECT_NE(split.headers.find("Bcc: \"Dora\" <dora@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_NE(split.headers.find("Date: Sat, 30 Nov 2024 23:59:01 +0000\r\n"), std::string::npos) << eml;
    EXPECT_NE(split.headers.find("Message-ID: <figures@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_NE(eml.find("Content-Type: text/html; charset=\"utf-8\""), std::string::npos) << eml;
    EXPECT_NE(eml.find("filename=\"figures.csv\""), std::string::npos) << eml;
    EXPECT_NE(eml.find("YTtiDQoxOzINCg=="), std::string::npos) << eml; // base64 of the attachment
    EXPECT_NE(eml.find("Content-Type: message/rfc822\r\nContent-Disposition: attachment;\r\n "
                       "filename=\"Earlier figures.eml\"\r\n\r\nFrom: \"Anna Sender\""),
              std::string::npos)
        << eml;
    const FILETIME expected = utcFileTime(2024, 11, 30, 23, 59, 1);
    WIN32_FILE_ATTRIBUTE_DATA data{};
    GetFileAttributesExW(folder.file(L"mail.eml").c_str(), GetFileExInfoStandard, &data);
    EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, expected.dwLowDateTime);
}

TEST_F(ConverterMail, ConverterWithoutItsInterfaceIsReported)
{
    converter.setCreationFailure(ConverterCreationFailure::NoConverterInterface);
    LogCapture log(LOG_WARN);
    auto item = itemFor(richMail());
    EXPECT_EQ(item->save(), S_OK);
    EXPECT_NE(log.contents().find("converterUnk->QueryInterface failed"), std::string::npos);
}

TEST_F(ConverterMail, FailedConversionIsReportedAndTheOwnWriterTakesOver)
{
    converter.setConversionFails(true);
    settings.setExtractMailAddress(true);
    LogCapture log(LOG_INFO);
    auto item = itemFor(richMail());
    EXPECT_EQ(item->save(), S_OK);
    EXPECT_NE(log.contents().find("converter->MAPIToMIMEStm failed for"), std::string::npos);
    EXPECT_NE(log.contents().find("written by Korvane's MIME writer"), std::string::npos);
    // Nothing of the converter's half-written mail is left; the rewrite ran on the own output.
    const std::string eml = readBytes(folder.file(L"mail.eml"));
    EXPECT_NE(eml.find("To: <bob@example.org>,\r\n <eve@example.org>\r\n"), std::string::npos) << eml;
    EXPECT_TRUE(eml.starts_with("From: <anna@example.org>\r\n")) << eml;
}

TEST_F(ConverterMail, EncryptedMailIsConvertedFromItsDecryptedCopy)
{
    MsgContent mail = richMail();
    mail.messageClass = L"IPM.Note.SMIME";
    auto item = itemFor(mail, L"a.msg");
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_EQ(item->properties().messageClass, L"IPM.Note"); // read again from the decrypted copy
    EXPECT_TRUE(fileExists(folder.file(L"a.eml")));
    EXPECT_FALSE(fileExists(folder.file(L"a.eml.encrypted.msg")));
    EXPECT_FALSE(fileExists(folder.file(L"a.eml.decrypted.msg")));
    EXPECT_EQ(readBytes(folder.file(L"a.eml")), converter.activity().lastMime);
}

TEST_F(ConverterMail, RedemptionWritesTheEmlWhenAFormatIsSet)
{
    AddinCopy addin(folder);
    settings.setModule(addin.module());
    ASSERT_TRUE(CopyFileW((testProgramFolder() + L"\\..\\standins\\" + standInRedemptionFileName).c_str(),
                          folder.file(standInRedemptionFileName).c_str(), FALSE));
    settings.setSaveWithRedemptionFormat(1024);
    auto item = itemFor(richMail());
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_EQ(converter.activity().conversionCalls, 0u);
    const std::string eml = readBytes(folder.file(L"mail.eml"));
    EXPECT_NE(eml.find("Subject:"), std::string::npos) << eml;
    EXPECT_FALSE(fileExists(folder.file(L"mail.eml.msg"))); // Redemption's temporary .msg is gone
}

TEST_F(ConverterMail, NegativeRedemptionFormatNeverTriesRedemption)
{
    AddinCopy addin(folder);
    settings.setModule(addin.module());
    const std::wstring redemption = folder.file(standInRedemptionFileName);
    ASSERT_TRUE(CopyFileW((testProgramFolder() + L"\\..\\standins\\" + standInRedemptionFileName).c_str(),
                          redemption.c_str(), FALSE));
    auto item = itemFor(richMail());
    ASSERT_EQ(item->save(), S_OK);
    EXPECT_EQ(GetModuleHandleW(redemption.c_str()), nullptr);
    EXPECT_EQ(converter.activity().conversionCalls, 1u);
}
