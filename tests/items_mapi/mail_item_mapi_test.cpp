// Mails saved the Windows way, where only that differs from reading the
// storage: the message opened through Extended MAPI (the stand-in mapi32.dll
// beside this program, bound by ordinal), the .eml made by Outlook's MIME
// converter (a stand-in registered with COM) or Redemption, and Korvane's own
// writer taking over when the converter can't.
#include "items/mail_item.h"

#include "addin/globals.h"
#include "addin/log.h"
#include "addin/outlook_application.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_standin.h"
#include "items/eml_headers.h"
#include "items/mapi_library.h"
#include "standins/mapi32/mapi_standin.h"
#include "standins/redemption/redemption_standin.h"
#include "support/converter_standin.h"
#include "support/environment_switch.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

MsgContent richMail()
{
    MsgContent mail;
    mail.subject = L"Quartalszahlen \u20AC";
    mail.deliveryTime = utcFileTime(2024, 11, 30, 23, 59, 1);
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

ULONG standInCounter(const char* name)
{
    const auto counter = reinterpret_cast<StandInCounter>(GetProcAddress(GetModuleHandleW(L"mapi32.dll"), name));
    return counter ? counter() : ~0u;
}

std::wstring addressesOf(const std::vector<MailAddress>& list)
{
    std::wstring text;
    for (const MailAddress& address : list)
        text += address.name + L" <" + address.mailAddress + L"> " + address.entryId + L" " + address.addrType + L";";
    return text;
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

} // namespace

TEST_F(MapiMail, ReadsThroughTheStandInAsTheStorageReaderDoesAndGivesEveryBufferBack)
{
    ASSERT_NE(mapiFunctions(), nullptr) << "mapi32.dll bound by ordinal";
    const ULONG opens = standInCounter(standInOpenCountExport);
    const ULONG live = standInCounter(standInLiveAllocationsExport);
    {
        auto item = itemFor(richMail());
        ASSERT_EQ(item->readMessage(), S_OK);
        EXPECT_STREQ(item->readWay(), L"MAPI");
        EXPECT_EQ(standInCounter(standInOpenCountExport), opens + 1);
        item->readMessage();
        MailProperties fromStorage;
        ASSERT_EQ(readPropertiesFromStorage(storage.Get(), fromStorage), S_OK);
        const MailProperties& fromMapi = item->properties();
        EXPECT_EQ(fromMapi.subject, L"Quartalszahlen \u20AC");
        EXPECT_EQ(fromMapi.receivedAtIso, L"2024-11-30T23:59:01Z");
        EXPECT_EQ(fromMapi.sender.entryId, L"1122");
        EXPECT_EQ(addressesOf(fromMapi.to), L"Bob <bob@example.org> 01 SMTP;Eve <eve@example.org>  SMTP;");
        EXPECT_EQ(fromMapi.subject, fromStorage.subject);
        EXPECT_EQ(fromMapi.receivedAtIso, fromStorage.receivedAtIso);
        EXPECT_EQ(fromMapi.messageClass, fromStorage.messageClass);
        EXPECT_EQ(addressesOf({fromMapi.sender}), addressesOf({fromStorage.sender}));
        EXPECT_EQ(addressesOf(fromMapi.cc), addressesOf(fromStorage.cc));
        EXPECT_EQ(addressesOf(fromMapi.bcc), addressesOf(fromStorage.bcc));
        EXPECT_EQ(addressesOf(fromMapi.to), addressesOf(fromStorage.to));
    }
    EXPECT_EQ(standInCounter(standInLiveAllocationsExport), live);
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

// The .eml by format setting: the converter's output, rewritten or not, or
// Korvane's writer when the converter can't be had or fails.
TEST_F(MapiMail, EmlThroughTheConverterOrTheOwnWriter)
{
    MsgContent attached = richMail();
    attached.subject = L"Earlier figures";
    MsgContent withAttachments = richMail();
    withAttachments.internetMessageId = L"<figures@example.org>";
    withAttachments.attachments = {{L"figures.csv", "a;b\r\n1;2\r\n", L"text/csv"},
                                   {L"Earlier figures", "", L"", L"", false, std::make_shared<MsgContent>(attached)}};
    MsgContent encrypted = richMail();
    encrypted.messageClass = L"IPM.Note.SMIME";
    const std::string bareHeaders = "From: <anna@example.org>\r\nTo: <bob@example.org>,\r\n <eve@example.org>\r\n"
                                    "Cc: <carl@example.org>\r\nBcc: <dora@example.org>\r\n";
    const struct {
        const char* name;
        MsgContent mail;
        ConverterCreationFailure failure;
        bool conversionFails, extract, convertersOutput;
        std::vector<std::string> inEml, inLog;
    } rows[] = {
        {"converted", richMail(), ConverterCreationFailure::None, false, false, true,
         {"Bcc: \"Dora\" <dora@example.org>", "To: \"Bob\" <bob@example.org>,\r\n\t\"Eve\""},
         {"written by Outlook's MIME converter"}},
        {"converted, bare addresses", richMail(), ConverterCreationFailure::None, false, true, false,
         {bareHeaders + "Subject: "}, {}},
        {"decrypted copy converted", encrypted, ConverterCreationFailure::None, false, false, true, {}, {}},
        {"no converter", withAttachments, ConverterCreationFailure::ClassNotRegistered, false, false, false,
         {"From: \"Anna Sender\" <anna@example.org>\r\n", "Bcc: \"Dora\" <dora@example.org>\r\n",
          "Date: Sat, 30 Nov 2024 23:59:01 +0000\r\n", "Message-ID: <figures@example.org>\r\n",
          "filename=\"figures.csv\"", "YTtiDQoxOzINCg==",
          "Content-Type: message/rfc822\r\nContent-Disposition: attachment;\r\n filename=\"Earlier figures.eml\"\r\n\r\n"
          "From: \"Anna Sender\""},
         {"CoCreateInstance failed for CLSID_IConverterSession",
          "written by Korvane's MIME writer (properties through MAPI, 2 attachments"}},
        {"converter without its interface", richMail(), ConverterCreationFailure::NoConverterInterface, false, false,
         false, {"From: \"Anna Sender\""}, {"converterUnk->QueryInterface failed"}},
        {"conversion fails", richMail(), ConverterCreationFailure::None, true, true, false, {bareHeaders},
         {"converter->MAPIToMIMEStm failed for", "written by Korvane's MIME writer"}},
    };
    settings.setFormat(L"eml");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ConverterRegistration converter(mapiFunctions() ? mapiFunctions()->freeBuffer : nullptr);
        converter.setCreationFailure(row.failure);
        converter.setConversionFails(row.conversionFails);
        settings.setExtractMailAddress(row.extract);
        LogCapture log(LOG_INFO);
        auto item = itemFor(row.mail, L"a.msg");
        ASSERT_EQ(item->prepareFile(), S_OK);
        ASSERT_EQ(item->save(), S_OK);
        const std::string eml = readBytes(folder.file(L"a.eml"));
        const bool converted = row.failure == ConverterCreationFailure::None;
        ASSERT_EQ(converter.activity().conversionFlags.size(), converted ? 1u : 0u);
        if (converted) {
            EXPECT_EQ(converter.activity().conversionFlags[0], CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_USE_RTF);
        }
        if (row.convertersOutput) {
            EXPECT_EQ(eml, converter.activity().lastMime);
        }
        if (row.extract && !row.conversionFails) {
            // Only the address headers changed: the body is the converter's, byte for byte.
            const EmlSplit ours = splitEmlHeaders(eml), theirs = splitEmlHeaders(converter.activity().lastMime);
            ASSERT_TRUE(ours.found && theirs.found);
            EXPECT_EQ(eml.substr(ours.bodyOffset), converter.activity().lastMime.substr(theirs.bodyOffset));
        }
        for (const std::string& part : row.inEml)
            EXPECT_NE(eml.find(part), std::string::npos) << part << "\n" << eml;
        for (const std::string& part : row.inLog)
            EXPECT_NE(log.contents().find(part), std::string::npos) << part;
        EXPECT_EQ(item->properties().messageClass, L"IPM.Note") << "read again from the decrypted copy";
        EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"a.eml"}) << "nothing half-made beside it";
        WIN32_FILE_ATTRIBUTE_DATA data{};
        GetFileAttributesExW(folder.file(L"a.eml").c_str(), GetFileExInfoStandard, &data);
        const FILETIME expected = utcFileTime(2024, 11, 30, 23, 59, 1);
        EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, expected.dwLowDateTime);
        DeleteFileW(folder.file(L"a.eml").c_str());
    }
}

TEST_F(MapiMail, RedemptionWritesTheEmlOnlyWhenAFormatIsSet)
{
    ConverterRegistration converter(mapiFunctions() ? mapiFunctions()->freeBuffer : nullptr);
    ScratchFolder addinFolder;
    AddinCopy addin(addinFolder);
    settings.setModule(addin.module());
    settings.setFormat(L"eml");
    const std::wstring redemption = addinFolder.file(standInRedemptionFileName);
    ASSERT_TRUE(CopyFileW((testProgramFolder() + L"\\..\\standins\\" + standInRedemptionFileName).c_str(),
                          redemption.c_str(), FALSE));

    auto converted = itemFor(richMail(), L"converted.msg"); // the default format is negative
    ASSERT_EQ(converted->save(), S_OK);
    EXPECT_EQ(GetModuleHandleW(redemption.c_str()), nullptr);
    EXPECT_EQ(converter.activity().conversionCalls, 1u);

    settings.setSaveWithRedemptionFormat(1024);
    auto saved = itemFor(richMail(), L"redemption.msg");
    ASSERT_EQ(saved->save(), S_OK);
    EXPECT_EQ(converter.activity().conversionCalls, 1u);
    EXPECT_NE(readBytes(folder.file(L"redemption.eml")).find("Subject: Quartalszahlen \xE2\x82\xAC"), std::string::npos);
    EXPECT_EQ(filesIn(folder.path()), (std::vector<std::wstring>{L"converted.eml", L"redemption.eml"}))
        << "Redemption's temporary .msg is gone";
}
