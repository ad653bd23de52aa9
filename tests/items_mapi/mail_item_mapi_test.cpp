// Mails saved the Windows way: read through Extended MAPI (the stand-in
// mapi32.dll), the .eml by Outlook's MIME converter or Redemption (stand-ins),
// and Korvane's own writer taking over when the converter can't.
#include "items/item_files.h"

#include "core/log.h"
#include "items/decrypt_mail.h"
#include "items/eml_headers.h"
#include "items/mapi_library.h"
#include "standins/mapi32/mapi_standin.h"
#include "support/converter_standin.h"
#include "support/environment_switch.h"

namespace {

ULONG liveMapiAllocations()
{
    const auto counter = reinterpret_cast<ULONG(WINAPI*)()>(
        GetProcAddress(GetModuleHandleW(L"mapi32.dll"), standInLiveAllocationsExport));
    return counter ? counter() : ~0u;
}

std::wstring addressesOf(const std::vector<MailAddress>& list)
{
    std::wstring text;
    for (const MailAddress& address : list)
        text += address.name + L" <" + address.mailAddress + L"> " + address.entryId + L" " + address.addrType + L";";
    return text;
}

std::wstring summaryOf(const MailProperties& mail)
{
    return mail.subject + L"|" + mail.receivedAtIso + L"|" + mail.messageClass + L"|" + addressesOf({mail.sender}) +
           L"|" + addressesOf(mail.to) + L"|" + addressesOf(mail.cc) + L"|" + addressesOf(mail.bcc);
}

} // namespace

// The same properties as from the storage, every MAPI buffer given back; a
// failing OpenIMsgOnIStg leaves the storage reader to do it.
TEST_F(ItemFiles, ReadsThroughMapiAsTheStorageReaderDoesOrFallsBackToIt)
{
    ASSERT_NE(mapiFunctions(), nullptr) << "mapi32.dll bound by ordinal";
    const ULONG live = liveMapiAllocations();
    {
        auto item = mailItem(sampleMail());
        ASSERT_EQ(item->readMessage(), S_OK);
        EXPECT_STREQ(item->readWay(), L"MAPI");
        MailProperties fromStorage;
        ASSERT_EQ(readPropertiesFromStorage(storage.Get(), fromStorage), S_OK);
        EXPECT_EQ(addressesOf(item->properties().to),
                  L"Bob To <bob@example.org> 0102 SMTP;Eve \"Second\" To <eve@example.org>  SMTP;");
        EXPECT_EQ(summaryOf(item->properties()), summaryOf(fromStorage));
    }
    EXPECT_EQ(liveMapiAllocations(), live);

    EnvironmentSwitch fail(standInMapiOpenSwitch, L"fail");
    auto item = mailItem(sampleMail());
    EXPECT_EQ(item->readMessage(), S_OK);
    EXPECT_STREQ(item->readWay(), L"storage");
    EXPECT_EQ(item->properties().subject, sampleMail().subject);
}

// The .eml by format setting: the converter's output, rewritten or not, or
// Korvane's writer when the converter can't be had or fails.
TEST_F(ItemFiles, EmlThroughTheConverterOrTheOwnWriter)
{
    MsgContent attached = sampleMail();
    attached.subject = L"Earlier figures";
    MsgContent withAttachments = sampleMail();
    withAttachments.attachments = {{L"figures.csv", "a;b\r\n1;2\r\n", L"text/csv"},
                                   {L"Earlier figures", "", L"", L"", false, std::make_shared<MsgContent>(attached)}};
    MsgContent encrypted = sampleMail();
    encrypted.messageClass = L"IPM.Note.SMIME";
    const std::string bareHeaders = "From: <anna@example.org>\r\nTo: <bob@example.org>,\r\n <eve@example.org>\r\n"
                                    "Cc: <carl@example.org>\r\nBcc: <dora@example.org>\r\n";
    const struct {
        const char* name;
        MsgContent mail;
        bool registered, conversionFails, extract;
        std::vector<std::string> inEml, inLog;
    } rows[] = {
        {"converted", sampleMail(), true, false, false, {"Bcc: \"Dora Bcc\" <dora@example.org>"},
         {"written by Outlook's MIME converter"}},
        {"converted, bare addresses", sampleMail(), true, false, true, {bareHeaders + "Subject: "}, {}},
        {"decrypted copy converted", encrypted, true, false, false, {}, {}},
        {"no converter", withAttachments, false, false, false,
         {"From: \"Anna Sender\" <anna@example.org>\r\n", "Bcc: \"Dora Bcc\" <dora@example.org>\r\n",
          "Date: Tue, 05 Mar 2024 07:08:09 +0000\r\n", "Message-ID: <offer-2024@example.org>\r\n",
          "filename=\"figures.csv\"", "YTtiDQoxOzINCg==",
          "Content-Type: message/rfc822\r\nContent-Disposition: attachment;\r\n filename=\"Earlier figures.eml\"\r\n\r\n"
          "From: \"Anna Sender\""},
         {"CoCreateInstance failed for CLSID_IConverterSession",
          "written by Korvane's MIME writer (properties through MAPI, 2 attachments"}},
        {"conversion fails", sampleMail(), true, true, true, {bareHeaders},
         {"converter->MAPIToMIMEStm failed for", "written by Korvane's MIME writer"}},
    };
    settings.setFormat(L"eml");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ConverterRegistration converter(mapiFunctions() ? mapiFunctions()->freeBuffer : nullptr);
        converter.setRegistered(row.registered);
        converter.setConversionFails(row.conversionFails);
        settings.setExtractMailAddress(row.extract);
        LogCapture log(LOG_INFO);
        auto item = mailItem(row.mail, L"a.msg");
        ASSERT_EQ(item->prepareFile(), S_OK);
        ASSERT_EQ(item->save(), S_OK);
        const std::string eml = readBytes(folder.file(L"a.eml"));
        const std::string& theirs = converter.activity().lastMime;
        ASSERT_EQ(converter.activity().conversionFlags,
                  row.registered ? std::vector<ULONG>{CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_USE_RTF} : std::vector<ULONG>{});
        if (row.registered && !row.conversionFails) {
            // Only the address headers may change: the body is the converter's, byte for byte.
            const EmlSplit ours = splitEmlHeaders(eml), split = splitEmlHeaders(theirs);
            ASSERT_TRUE(ours.found && split.found);
            EXPECT_EQ(eml.substr(ours.bodyOffset), theirs.substr(split.bodyOffset));
            EXPECT_EQ(eml == theirs, !row.extract);
        }
        for (const std::string& part : row.inEml)
            EXPECT_TRUE(contains(eml, part)) << part << "\n" << eml;
        for (const std::string& part : row.inLog)
            EXPECT_TRUE(contains(log.contents(), part)) << part;
        EXPECT_EQ(item->properties().messageClass, L"IPM.Note") << "read again from the decrypted copy";
        EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"a.eml"}) << "nothing half-made beside it";
        EXPECT_EQ(lastWriteTime(folder.file(L"a.eml")), timeNumber(*sampleMail().deliveryTime));
        DeleteFileW(folder.file(L"a.eml").c_str());
    }
}

TEST_F(ItemFiles, RedemptionWritesTheEmlOnlyWhenAFormatIsSet)
{
    ConverterRegistration converter(mapiFunctions() ? mapiFunctions()->freeBuffer : nullptr);
    ScratchFolder addinFolder;
    AddinCopy addin(addinFolder);
    settings.setModule(addin.module());
    settings.setFormat(L"eml");
    const std::wstring redemption = addinFolder.file(redemptionFileName());
    ASSERT_TRUE(CopyFileW((testProgramFolder() + L"\\..\\standins\\" + redemptionFileName()).c_str(),
                          redemption.c_str(), FALSE));

    ASSERT_EQ(mailItem(sampleMail(), L"converted.msg")->save(), S_OK); // the default format is negative
    EXPECT_EQ(GetModuleHandleW(redemption.c_str()), nullptr);
    EXPECT_EQ(converter.activity().conversionFlags.size(), 1u);

    settings.setSaveWithRedemptionFormat(1024);
    ASSERT_EQ(mailItem(sampleMail(), L"redemption.msg")->save(), S_OK);
    EXPECT_EQ(converter.activity().conversionFlags.size(), 1u);
    EXPECT_TRUE(contains(readBytes(folder.file(L"redemption.eml")), "Subject: Angebot \xC3\xBC"));
    EXPECT_EQ(filesIn(folder.path()), (std::vector<std::wstring>{L"converted.eml", L"redemption.eml"}))
        << "Redemption's temporary .msg is gone";
}
