// Mails saved as .eml where Outlook's MIME converter doesn't exist (as under
// Wine, with mapi32 switched off): Korvane's own writer makes the file from
// the properties in the storage. The files are read back with the project's
// strict MIME decoder and an independent header and encoding reader; the
// sample mails at the end are read back, part for part, by Python's email
// package and compared with msgconvert's (tests/items/check_eml.py).
#include "items/mail_item.h"

#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "common/strings.h"
#include "eml_inspection.h"
#include "core/base64.h"
#include "items/eml_headers.h"
#include "items/mime_multipart.h"
#include "items/property_text.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_standin.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

MsgContent plainMail()
{
    MsgContent mail;
    mail.subject = L"Angebot \u00FCber 5\u20AC \U0001F600";
    mail.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    mail.submitTime = utcFileTime(2024, 3, 5, 7, 0, 0);
    mail.senderName = L"Anna Sender";
    mail.senderAddress = L"anna@example.org";
    mail.senderAddrType = L"SMTP";
    mail.body = L"Hello Bob,\nthe figures are attached.\n\nGr\u00FC\u00DFe, Anna";
    mail.internetMessageId = L"<offer-2024@example.org>";
    mail.inReplyTo = L"<request-2024@example.org>";
    mail.recipients = {
        {1, L"Bob To", L"bob@example.org", L"SMTP", ""},
        {2, L"Carl Cc", L"carl@example.org", L"SMTP", ""},
        {3, L"Dora Bcc", L"dora@example.org", L"SMTP", ""},
        {1, L"Eve \"Second\" To", L"eve@example.org", L"SMTP", ""},
    };
    return mail;
}

std::string patternBytes(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 131 + i / 4093);
    return bytes;
}

MsgContent richMail()
{
    MsgContent mail = plainMail();
    mail.html = "<html><body><p>Hello Bob,</p><p>Gr\xC3\xBC\xC3\x9F" "e</p></body></html>";
    mail.attachments = {{L"figures.bin", patternBytes(3 * 1024 * 1024 + 7), L"application/octet-stream"},
                        {L"Pr\u00E4sentation \u20AC.txt", "line one\r\nline two\r\n", L"text/plain"}};
    return mail;
}

// A written .eml taken apart.
struct ReadBack {
    std::string text;
    EmlSplit split{};
    std::vector<HeaderField> fields;
    MimeMultipart mime;
    bool multipart = false;

    explicit ReadBack(std::string bytes) : text(std::move(bytes))
    {
        split = splitEmlHeaders(text);
        fields = headerFieldsOf(split.headers);
        multipart = mime.decode(text.data(), text.size(), false);
    }

    std::string field(std::string_view name) const
    {
        const HeaderField* found = findField(fields, name);
        return found ? found->value : "<absent>";
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> list;
        for (const HeaderField& field : fields)
            list.push_back(field.name);
        return list;
    }
    // The part's body with its transfer encoding undone.
    std::string decodedBody(const MimePart& part) const
    {
        const std::string_view body = mime.body(part);
        const MimeHeader* encoding = part.header("Content-Transfer-Encoding");
        if (encoding && encoding->value == "base64") {
            const auto bytes = decodeBase64(body);
            return bytes ? *bytes : "<bad base64>";
        }
        if (encoding && encoding->value == "quoted-printable")
            return decodeQuotedPrintable(body);
        return std::string(body);
    }
};

class OwnEmlWriter : public testing::Test {
protected:
    void SetUp() override
    {
        setOutlookApplication(outlook.application());
        settings.setFormat(L"eml");
    }
    void TearDown() override { setOutlookApplication(nullptr); }

    HRESULT save(const MsgContent& content, const std::wstring& name = L"mail.msg")
    {
        storage = makeMsgInMemory(content);
        EXPECT_TRUE(storage);
        item = std::make_unique<MailItem>(folder.file(name), storage.Get(), settings);
        EXPECT_EQ(item->prepareFile(), S_OK);
        return item->save();
    }
    std::string written(const std::wstring& name = L"mail.eml") const { return readBytes(folder.file(name)); }

    TestSettingsKeys keys;
    ScratchFolder folder;
    Globals settings{keys.company, keys.product()};
    OutlookStandIn outlook;
    ComPtr<IStorage> storage;
    std::unique_ptr<MailItem> item;
};

} // namespace

TEST_F(OwnEmlWriter, WritesTheEmlWhereNoConverterExistsAndSaysSo)
{
    LogCapture log(LOG_INFO);
    ASSERT_EQ(save(plainMail()), S_OK);
    EXPECT_TRUE(item->isSaved());
    const std::string text = written();
    ASSERT_GT(text.size(), 100u);
    EXPECT_TRUE(text.starts_with("From: \"Anna Sender\" <anna@example.org>\r\n")) << text;
    EXPECT_TRUE(hasOnlyCrLf(text));
    EXPECT_LE(longestLine(text), 78u) << text;
    const std::string logText = log.contents();
    EXPECT_NE(logText.find("using Korvane's MIME writer"), std::string::npos) << logText;
    EXPECT_NE(logText.find("written by Korvane's MIME writer (properties through storage"), std::string::npos)
        << logText;
}

TEST_F(OwnEmlWriter, AddressHeadersComeFirstAndMimeHeadersLast)
{
    ASSERT_EQ(save(plainMail()), S_OK);
    const ReadBack eml(written());
    ASSERT_TRUE(eml.split.found);
    EXPECT_EQ(eml.names(), (std::vector<std::string>{"From", "To", "Cc", "Bcc", "Subject", "Date", "Message-ID",
                                                     "In-Reply-To", "MIME-Version", "Content-Type",
                                                     "Content-Transfer-Encoding"}));
    EXPECT_EQ(eml.field("To"), "\"Bob To\" <bob@example.org>, \"Eve \\\"Second\\\" To\" <eve@example.org>");
    EXPECT_EQ(eml.field("Cc"), "\"Carl Cc\" <carl@example.org>");
    EXPECT_EQ(eml.field("Bcc"), "\"Dora Bcc\" <dora@example.org>");
    EXPECT_EQ(utf8ToWide(decodeEncodedWords(eml.field("Subject"))), plainMail().subject);
    EXPECT_EQ(eml.field("Date"), "Tue, 05 Mar 2024 07:08:09 +0000"); // the delivery time
    EXPECT_EQ(eml.field("Message-ID"), "<offer-2024@example.org>");
    EXPECT_EQ(eml.field("In-Reply-To"), "<request-2024@example.org>");
    EXPECT_EQ(eml.field("MIME-Version"), "1.0");
}

TEST_F(OwnEmlWriter, SenderHeaderOnlyWhenTheMailIsSentOnSomeonesBehalf)
{
    MsgContent mail = plainMail();
    mail.extraProperties = {unicodeProperty(0x0042, L"Chef Boss"), unicodeProperty(0x0064, L"SMTP"),
                            unicodeProperty(0x0065, L"boss@example.org")};
    ASSERT_EQ(save(mail), S_OK);
    const ReadBack onBehalf(written());
    EXPECT_EQ(onBehalf.field("From"), "\"Chef Boss\" <boss@example.org>");
    EXPECT_EQ(onBehalf.field("Sender"), "\"Anna Sender\" <anna@example.org>");
    EXPECT_EQ(onBehalf.names()[1], "Sender");

    ScratchFolder other;
    MsgContent self = plainMail();
    self.extraProperties = {unicodeProperty(0x0042, L"Anna"), unicodeProperty(0x0064, L"SMTP"),
                            unicodeProperty(0x0065, L"ANNA@example.org")};
    auto selfStorage = makeMsgInMemory(self);
    MailItem selfItem(other.file(L"self.msg"), selfStorage.Get(), settings);
    ASSERT_EQ(selfItem.save(), S_OK);
    EXPECT_EQ(ReadBack(readBytes(other.file(L"self.eml"))).field("Sender"), "<absent>");
}

TEST_F(OwnEmlWriter, ExtractMailAddressRewritesTheOwnOutputAsTheConverters)
{
    ASSERT_EQ(save(plainMail(), L"plain.msg"), S_OK);
    const ReadBack plain(written(L"plain.eml"));
    settings.setExtractMailAddress(true);
    ASSERT_EQ(save(plainMail(), L"bare.msg"), S_OK);
    const ReadBack bare(written(L"bare.eml"));
    ASSERT_TRUE(bare.split.found);
    EXPECT_NE(bare.split.headers.find("From: <anna@example.org>\r\n"), std::string::npos) << bare.text;
    EXPECT_NE(bare.split.headers.find("To: <bob@example.org>,\r\n <eve@example.org>\r\n"), std::string::npos)
        << bare.text;
    EXPECT_NE(bare.split.headers.find("Cc: <carl@example.org>\r\n"), std::string::npos) << bare.text;
    EXPECT_NE(bare.split.headers.find("Bcc: <dora@example.org>\r\n"), std::string::npos) << bare.text;
    EXPECT_EQ(bare.split.headers.find("\"Bob To\""), std::string::npos);
    // Only the address headers changed; the rest of the block and the body are the writer's.
    EXPECT_EQ(bare.text.substr(bare.split.bodyOffset), plain.text.substr(plain.split.bodyOffset));
    const std::string tail = plain.split.headers.substr(plain.split.headers.find("Subject:"));
    EXPECT_TRUE(bare.split.headers.ends_with(tail));
}

TEST_F(OwnEmlWriter, FileTimeAndReadOnlyAsWithTheConverter)
{
    settings.setTempFileReadOnly(true);
    ASSERT_EQ(save(plainMail()), S_OK);
    WIN32_FILE_ATTRIBUTE_DATA data{};
    ASSERT_TRUE(GetFileAttributesExW(folder.file(L"mail.eml").c_str(), GetFileExInfoStandard, &data));
    const FILETIME expected = utcFileTime(2024, 3, 5, 7, 8, 9);
    EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, expected.dwLowDateTime);
    EXPECT_EQ(data.ftLastWriteTime.dwHighDateTime, expected.dwHighDateTime);
    EXPECT_NE(data.dwFileAttributes & FILE_ATTRIBUTE_READONLY, 0u);
    SetFileAttributesW(folder.file(L"mail.eml").c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(OwnEmlWriter, EncryptedMailIsWrittenFromItsDecryptedCopy)
{
    MsgContent mail = plainMail();
    mail.messageClass = L"IPM.Note.SMIME";
    LogCapture log(LOG_INFO);
    ASSERT_EQ(save(mail, L"a.msg"), S_OK);
    ASSERT_NE(outlook.lastSharedItem(), nullptr);
    EXPECT_EQ(outlook.lastSharedItem()->path, folder.file(L"a.eml.encrypted.msg"));
    EXPECT_FALSE(fileExists(folder.file(L"a.eml.encrypted.msg")));
    EXPECT_FALSE(fileExists(folder.file(L"a.eml.decrypted.msg")));
    EXPECT_EQ(item->properties().messageClass, L"IPM.Note"); // read again from the decrypted copy
    const ReadBack eml(written(L"a.eml"));
    EXPECT_EQ(eml.field("Bcc"), "\"Dora Bcc\" <dora@example.org>");
    EXPECT_NE(log.contents().find("written by Korvane's MIME writer"), std::string::npos);
}

TEST_F(OwnEmlWriter, HostileValuesCannotAddHeadersOrLongLines)
{
    MsgContent mail = plainMail();
    mail.subject = L"Hi\r\nBcc: everyone@example.org\r\n\r\nfake body";
    mail.internetMessageId = L"<" + std::wstring(5000, L'x') + L"@example.org>";
    mail.recipients.push_back({1, std::wstring(3000, L'N'), L"long@example.org", L"SMTP", ""});
    mail.attachments = {{std::wstring(400, L'\u00E9') + L".bin", "abc", L"bad type\r\nX-Evil: 1"}};
    ASSERT_EQ(save(mail), S_OK);
    const ReadBack eml(written());
    EXPECT_TRUE(hasOnlyCrLf(eml.text));
    EXPECT_LE(longestLine(eml.text), 78u);
    EXPECT_EQ(eml.field("Bcc"), "\"Dora Bcc\" <dora@example.org>");
    EXPECT_EQ(eml.field("Message-ID"), "<absent>");
    EXPECT_EQ(eml.text.find("X-Evil"), std::string::npos);
    ASSERT_TRUE(eml.multipart);
    const MimePart& attachment = *eml.mime.root().children.back();
    EXPECT_TRUE(attachment.header("Content-Type")->value.starts_with("application/octet-stream;"));
    EXPECT_EQ(eml.decodedBody(attachment), "abc");
}

TEST_F(OwnEmlWriter, StorageThatIsNoMessageFailsClearly)
{
    auto notAMessage = makeStorageInMemory();
    ASSERT_EQ(writeRawStream(notAMessage.Get(), L"something", "else"), S_OK);
    LogCapture log(LOG_WARN);
    MailItem odd(folder.file(L"odd.msg"), notAMessage.Get(), settings);
    EXPECT_TRUE(FAILED(odd.save()));
    EXPECT_TRUE(odd.isSaved());
    EXPECT_NE(log.contents().find("odd.eml can't be read, hr=-2147287038: the storage has no properties stream, it "
                                  "is not a mail"),
              std::string::npos)
        << log.contents();
}

// ---- samples for the independent check (tests/items/check_eml.py) ----

namespace {

constexpr const wchar_t* samplesVariable = L"KORVANE_EML_SAMPLES";

std::string jsonString(std::wstring_view text)
{
    std::string json = "\"";
    for (wchar_t c : text) {
        if (c == L'"' || c == L'\\') {
            json += '\\';
            json += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            json += static_cast<char>(c);
        } else {
            char escape[8] = {};
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            json += escape;
        }
    }
    return json + "\"";
}

std::string jsonAddresses(const std::vector<MsgRecipient>& recipients, ULONG type)
{
    std::string json = "[";
    for (const MsgRecipient& recipient : recipients) {
        if (recipient.type != type)
            continue;
        if (json.size() > 1)
            json += ", ";
        json += jsonString(recipient.address);
    }
    return json + "]";
}

std::string jsonTime(const std::optional<FILETIME>& time)
{
    return time ? jsonString(isoTimeOf(*time)) : "null";
}

// What the mail holds, for the check to compare the parsed .eml with; the
// bytes of attachments and pictures go into files of their own beside it.
std::string expectationOf(const std::wstring& folder, const std::wstring& name, const MsgContent& mail)
{
    // The Outlook stand-in resolves no Exchange entry: such a sender has no address.
    const std::wstring from = mail.senderAddrType == L"EX" ? L"" : mail.senderAddress;
    const StoredProperty* importance = nullptr;
    for (const StoredProperty& extra : mail.extraProperties)
        importance = propertyIdOf(extra.tag) == MsgPropertyId::importance ? &extra : importance;
    std::string json = "{\"subject\": " + jsonString(mail.subject) + ", \"from\": " + jsonString(from) +
                       ", \"from_name\": " + jsonString(mail.senderName);
    for (const auto& [key, type] : {std::pair{"to", 1}, std::pair{"cc", 2}, std::pair{"bcc", 3}})
        json += ", \"" + std::string(key) + "\": " + jsonAddresses(mail.recipients, type);
    json += ", \"reply_to\": " + jsonAddresses(mail.replyTo, 1);
    json += ", \"importance\": " + std::string(importance && importance->bytes[0] == 2 ? "\"high\"" : "null");
    json += ", \"date\": " + jsonTime(mail.deliveryTime ? mail.deliveryTime : mail.submitTime);
    json += ", \"body\": " + jsonString(mail.body) + ", \"html\": " + jsonString(utf8ToWide(mail.html));
    const std::string rtf = rtfBodyOf(mail);
    json += ", \"rtf\": " + jsonString(mail.html.empty() ? utf8ToWide(rtf) : L"");
    json += ", \"rtf_source\": " + jsonString(utf8ToWide(rtf));
    json += ", \"code_page\": " + std::to_string(mail.unicodeStrings ? 0 : mail.codePage);
    std::string files, pictures, attached;
    for (size_t i = 0; i < mail.attachments.size(); ++i) {
        const MsgAttachment& attachment = mail.attachments[i];
        const std::wstring file = name + L".attachment" + std::to_wstring(i);
        if (attachment.message) {
            attached += std::string(attached.empty() ? "" : ", ") + "{\"name\": " +
                        jsonString(attachment.fileName + L".eml") +
                        ", \"message\": " + expectationOf(folder, file, *attachment.message) + "}";
            continue;
        }
        writeBytes(folder + L"\\" + file, attachment.bytes);
        std::string& list = attachment.contentId.empty() ? files : pictures;
        list += std::string(list.empty() ? "" : ", ") + "{\"name\": " + jsonString(attachment.fileName) +
                ", \"file\": " + jsonString(file) + ", \"cid\": " + jsonString(attachment.contentId) + "}";
    }
    return json + ", \"attachments\": [" + files + "], \"related\": [" + pictures + "], \"attached\": [" + attached +
           "]}";
}

void writeExpectation(const std::wstring& folder, const std::wstring& name, const MsgContent& mail)
{
    writeBytes(folder + L"\\" + name + L".expected.json", expectationOf(folder, name, mail) + "\n");
}

// The mails, each described in one line.
MsgContent htmlMail()
{
    MsgContent mail = plainMail();
    mail.subject = L"HTML " + mail.subject;
    mail.body = L"Hello Bob,\nGr\u00FC\u00DFe, {Anna}";
    mail.html = "<html><body><p>Hello Bob,</p><p>Gr\xC3\xBC\xC3\x9F" "e, {Anna}</p></body></html>";
    return mail;
}
MsgContent attaching(MsgContent mail, const MsgContent& attached)
{
    mail.attachments.push_back({attached.subject, "", L"", L"", false, std::make_shared<MsgContent>(attached)});
    return mail;
}
MsgContent asRtf(MsgContent mail)
{
    mail.rtfBody = true;
    return mail;
}
MsgContent withPictures(MsgContent mail)
{
    mail.html = "<html><body><p>Logo <img src=\"cid:logo@example.org\"> and <img src=\"cid:sign\"></p></body></html>";
    mail.attachments = {{L"logo.png", patternBytes(3000), L"image/png", L"logo@example.org", false, nullptr},
                        {L"sign.gif", patternBytes(700), L"image/gif", L"<sign>", true, nullptr},
                        {L"offer.pdf", patternBytes(5000), L"application/pdf", L"", false, nullptr}};
    return mail;
}
MsgContent inCodePage(MsgContent mail, UINT codePage, StoredProperty codePageProperty, std::wstring text)
{
    mail.unicodeStrings = false;
    mail.codePage = codePage;
    mail.subject = text;
    mail.senderName = text.substr(0, 4);
    mail.body = text + L"\n" + text;
    mail.recipients[0].name = text.substr(2);
    mail.attachments = {{text.substr(0, 3) + L".txt", "abc", L"text/plain", L"", false, nullptr}};
    mail.extraProperties.push_back(std::move(codePageProperty));
    return mail;
}
MsgContent exchangeSender(MsgContent mail)
{
    mail.senderAddrType = L"EX";
    mail.senderAddress = L"/O=EXAMPLE/OU=EXCHANGE ADMINISTRATIVE GROUP (FYDIBOHF23SPDLT)/CN=RECIPIENTS/CN=ANNA";
    mail.senderEntryId = std::string(24, '\x11');
    return mail;
}
MsgContent trailing(MsgContent mail, size_t bytes)
{
    mail.trailingBytes = bytes;
    return mail;
}
MsgContent replyToAndImportance(MsgContent mail)
{
    mail.replyTo = {{1, L"Team Desk", L"desk@example.org", L"SMTP", ""}};
    mail.extraProperties.push_back(longProperty(MsgPropertyId::importance, 2));
    return mail;
}

struct Sample {
    std::wstring name;
    MsgContent mail;
};

std::vector<Sample> sampleMails()
{
    MsgContent many = plainMail();
    many.subject = L"Lange Betreffzeile mit Umlauten \u00E4\u00F6\u00FC und Emoji \U0001F680 " +
                   std::wstring(80, L'\u00DF');
    many.recipients.clear();
    for (int i = 0; i < 30; ++i)
        many.recipients.push_back({static_cast<ULONG>(1 + i % 3), L"Empf\u00E4nger " + std::to_wstring(i),
                                   L"r" + std::to_wstring(i) + L"@example.org", L"SMTP", ""});
    const std::wstring japanese = L"\u4F1A\u8B70\u306E\u8B70\u4E8B\u9332\u3068\u8CC7\u6599";
    const std::wstring russian = L"\u041E\u0442\u0447\u0451\u0442 \u0437\u0430 \u043A\u0432\u0430\u0440\u0442\u0430\u043B";
    return {
        {L"plain", plainMail()},
        {L"html", htmlMail()},
        {L"attachments", richMail()},
        {L"recipients", many},
        {L"attached-two-deep", attaching(richMail(), attaching(htmlMail(), asRtf(plainMail())))},
        {L"rtf-html", asRtf(htmlMail())},
        {L"rtf-plain", asRtf(plainMail())},
        {L"inline-pictures", withPictures(plainMail())},
        {L"cp932", inCodePage(plainMail(), 932, longProperty(MsgPropertyId::internetCodepage, 50220), japanese)},
        {L"cp1251", inCodePage(plainMail(), 1251, longProperty(MsgPropertyId::messageCodepage, 1251), russian)},
        {L"trailing-bytes", trailing(richMail(), 4)},
        {L"exchange-sender", exchangeSender(plainMail())},
        {L"reply-to", replyToAndImportance(plainMail())},
    };
}

} // namespace

TEST_F(OwnEmlWriter, SamplesForAnIndependentParser)
{
    wchar_t target[MAX_PATH] = {};
    if (GetEnvironmentVariableW(samplesVariable, target, MAX_PATH) == 0)
        GTEST_SKIP() << "set KORVANE_EML_SAMPLES to a folder to write the samples";
    CreateDirectoryW(target, nullptr);
    for (const auto& [name, mail] : sampleMails()) {
        SCOPED_TRACE(testing::PrintToString(name));
        LogCapture log(LOG_INFO);
        ASSERT_EQ(save(mail, name + L".msg"), S_OK);
        EXPECT_NE(log.contents().find(" attachments, 0 left out)"), std::string::npos) << log.contents();
        EXPECT_EQ(log.contents().find("can't be opened"), std::string::npos) << log.contents();
        EXPECT_EQ(item->properties().subject, mail.subject); // the item list's text
        EXPECT_EQ(item->properties().sender.name, mail.senderName);
        ASSERT_TRUE(CopyFileW(folder.file(name + L".eml").c_str(), (std::wstring(target) + L"\\" + name + L".eml").c_str(),
                              FALSE));
        ASSERT_EQ(writeMsgFile(std::wstring(target) + L"\\" + name + L".msg", mail), S_OK);
        writeExpectation(target, name, mail);
    }
}

// Items that are no mails, and mails with parts that are damaged or can't be
// carried: each becomes a readable .eml, and what was wrong is named at WARN.
TEST_F(OwnEmlWriter, OtherItemsAndDamagedPartsStillGiveAReadableEml)
{
    const auto item = [](const wchar_t* messageClass, std::wstring subject, std::wstring body) {
        MsgContent mail = plainMail();
        mail.messageClass = messageClass;
        mail.subject = std::move(subject);
        mail.body = std::move(body);
        mail.recipients.clear();
        return mail;
    };
    MsgContent contact = item(L"IPM.Contact", L"", L"Phone 0123 456");
    contact.senderName = contact.senderAddress = L"";
    contact.extraProperties = {unicodeProperty(0x3001, L"Bob Builder")};
    MsgContent meeting = item(L"IPM.Schedule.Meeting.Request", L"Planning", L"Room 4");
    meeting.attachments = {{L"invite.ics", "BEGIN:VCALENDAR\r\nMETHOD:REQUEST\r\nEND:VCALENDAR\r\n", L"text/calendar"}};
    const auto withRtf = [&](std::string rtf) {
        MsgContent mail = item(L"IPM.Note", L"RTF", L"");
        mail.extraProperties = {StoredProperty{0x10090102, std::move(rtf)}}; // PR_RTF_COMPRESSED
        return mail;
    };
    const std::string rtf = compressRtf(rtfBodyOf(asRtf(htmlMail())));
    std::string badCrc = rtf;
    badCrc[12] ^= 0x55;
    MsgContent unknownCodePage = plainMail();
    unknownCodePage.unicodeStrings = false;
    unknownCodePage.extraProperties = {longProperty(MsgPropertyId::messageCodepage, 12345)};
    MsgContent links = plainMail();
    links.attachments = {{L"plan.pdf", "", L"application/pdf", L"", false, nullptr, L"\\\\server\\share\\plan.pdf"},
                         {L"empty.bin", "", L"", L"", false, nullptr, L""}};
    const struct {
        const wchar_t* name;
        MsgContent mail;
        std::vector<std::string> inEml;
        std::string inLog;
    } rows[] = {
        {L"appointment", item(L"IPM.Appointment", L"Planning", L"Room 4"),
         {"From: \"Anna Sender\" <anna@example.org>", "Subject: Planning", "Room 4"}, ""},
        {L"task", item(L"IPM.Task", L"Report", L"Due Friday"), {"Subject: Report", "Due Friday"}, ""},
        {L"note", item(L"IPM.StickyNote", L"", L"Buy milk"), {"Buy milk"}, ""},
        {L"contact", contact, {"From: undisclosed-sender:;", "Subject: Bob Builder", "Phone 0123 456"}, ""},
        {L"meeting", meeting, {"Content-Type: text/calendar; charset=\"utf-8\";\r\n method=REQUEST"}, ""},
        {L"bad-crc", withRtf(badCrc), {"Content-Type: text/html", "Hello Bob,"}, "does not match the header"},
        {L"cut-rtf", withRtf(rtf.substr(0, rtf.size() - 3)), {"Content-Type: text/html"}, "ends without its end mark"},
        {L"code-page", unknownCodePage, {"Hello Bob,"}, "code page 12345/0 of the message's 8-bit text is not known"},
        {L"links", links, {"access-type=\"local-file\"", "name*=utf-8''%5C%5Cserver%5Cshare%5Cplan.pdf"},
         "has nothing that can be written"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(row.name)));
        LogCapture log(LOG_WARN);
        ASSERT_EQ(save(row.mail, std::wstring(row.name) + L".msg"), S_OK);
        const std::string text = written(std::wstring(row.name) + L".eml");
        for (const std::string& part : row.inEml)
            EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
        EXPECT_EQ(ReadBack(text).fields.front().name, "From");
        EXPECT_EQ(text.find("invite.ics"), std::string::npos); // the calendar is no attachment
        if (!row.inLog.empty()) {
            EXPECT_NE(log.contents().find(row.inLog), std::string::npos) << log.contents();
        }
    }
}

// A damaged storage whose attached message holds the mail itself again: the
// nesting ends at its limit, logged, and the mail is written.
TEST_F(OwnEmlWriter, AttachedMessageHoldingItselfEndsAtTheDepthLimit)
{
    const std::wstring path = folder.file(L"loop.msg");
    ASSERT_EQ(writeMsgFile(path, attaching(plainMail(), htmlMail())), S_OK);
    // In the directory (entries of 128 bytes, at multiples of 128), the
    // attached message's storage gets the root's children as its own.
    std::string bytes = readBytes(path);
    const auto entryNamed = [&bytes](std::wstring_view name) {
        const std::string utf16(reinterpret_cast<const char*>(name.data()), name.size() * 2);
        for (size_t at = 512; at + 128 <= bytes.size(); at += 128) {
            if (bytes.compare(at, utf16.size(), utf16) == 0 && bytes[at + utf16.size()] == 0)
                return at;
        }
        return std::string::npos;
    };
    const size_t root = entryNamed(L"Root Entry");
    const size_t object = entryNamed(L"__substg1.0_3701000D");
    ASSERT_NE(root, std::string::npos);
    ASSERT_NE(object, std::string::npos);
    bytes.replace(object + 76, 4, bytes.substr(root + 76, 4));
    writeBytes(path, bytes);

    ComPtr<IStorage> loop;
    ASSERT_EQ(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                               IID_IStorage, reinterpret_cast<void**>(loop.GetAddressOf())),
              S_OK);
    LogCapture log(LOG_WARN);
    MailItem mail(folder.file(L"loop-saved.msg"), loop.Get(), settings);
    ASSERT_EQ(mail.save(), S_OK);
    const std::string text = readBytes(folder.file(L"loop-saved.eml"));
    EXPECT_TRUE(text.starts_with("From: \"Anna Sender\" <anna@example.org>\r\n"));
    size_t nested = 0;
    for (size_t at = text.find("Content-Type: message/rfc822"); at != std::string::npos;
         at = text.find("Content-Type: message/rfc822", at + 1))
        ++nested;
    EXPECT_EQ(nested, 16u);
    EXPECT_NE(log.contents().find("lies deeper than 16 messages, left out"), std::string::npos) << log.contents();
}

// An OLE object (attach method 6) is carried as the compound file of its storage.
TEST_F(OwnEmlWriter, OleObjectIsCarriedAsItsCompoundFile)
{
    MsgContent mail = plainMail();
    mail.attachments = {{L"replaced below", "", L""}};
    ComPtr<IStorage> ole = makeMsgInMemory(mail);
    ASSERT_TRUE(ole);
    ComPtr<IStorage> row = createChildStorage(ole.Get(), L"__attach_version1.0_#00000000");
    ASSERT_EQ(writeRawPropertiesStream(row.Get(), 8,
                                       propertyEntry(0x37050003, 6) + propertyEntry(0x3701000D, 0xFFFFFFFF) +
                                           propertyEntry(0x3001001F, 10)),
              S_OK);
    ASSERT_EQ(writeRawSubstorageStream(row.Get(), 0x3001001F, std::string("P\0i\0c\0t\0", 8)), S_OK);
    ComPtr<IStorage> object = createChildStorage(row.Get(), L"__substg1.0_3701000D");
    ASSERT_EQ(writeRawStream(object.Get(), L"CONTENTS", "bitmap bytes"), S_OK);
    ASSERT_EQ(object->Commit(STGC_DEFAULT), S_OK);
    ASSERT_EQ(row->Commit(STGC_DEFAULT), S_OK);
    object.Reset(); // children open only one at a time
    row.Reset();

    LogCapture log(LOG_WARN);
    MailItem item(folder.file(L"ole.msg"), ole.Get(), settings);
    ASSERT_EQ(item.save(), S_OK);
    const ReadBack eml(readBytes(folder.file(L"ole.eml")));
    ASSERT_TRUE(eml.multipart) << log.contents();
    EXPECT_NE(log.contents().find("is an OLE object, written as its compound file"), std::string::npos);
    const MimePart& part = *eml.mime.root().children.back();
    EXPECT_EQ(rfc2231Parameter(part.header("Content-Disposition")->value, "filename"), "Pict");
    const std::string file = eml.decodedBody(part);
    writeBytes(folder.file(L"object.bin"), file);
    ComPtr<IStorage> copy;
    ASSERT_EQ(StgOpenStorageEx(folder.file(L"object.bin").c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0,
                               nullptr, nullptr, IID_IStorage, reinterpret_cast<void**>(copy.GetAddressOf())),
              S_OK);
    ComPtr<IStream> contents;
    ASSERT_EQ(copy->OpenStream(L"CONTENTS", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &contents), S_OK);
    char bytes[32] = {};
    ULONG read = 0;
    contents->Read(bytes, sizeof bytes, &read);
    EXPECT_EQ(std::string(bytes, read), "bitmap bytes");
}
