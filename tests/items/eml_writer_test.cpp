// Mails saved as .eml where Outlook's MIME converter doesn't exist (as under
// Wine, with mapi32 switched off): Korvane's own writer makes the file from
// the properties in the storage. The files are read back with the project's
// strict MIME decoder and an independent header and encoding reader.
#include "items/mail_item.h"

#include "addin/globals.h"
#include "addin/log.h"
#include "addin/outlook_application.h"
#include "common/strings.h"
#include "eml_inspection.h"
#include "install/base64.h"
#include "items/eml_headers.h"
#include "items/mime_multipart.h"
#include "support/msg_builder.h"
#include "support/outlook_standin.h"
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
    // The single-part mail's text: everything behind the blank line.
    std::string singlePartText() const { return decodeQuotedPrintable(text.substr(split.bodyOffset + 4)); }
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
    EXPECT_EQ(eml.field("Date"), "Tue, 05 Mar 2024 07:00:00 +0000"); // the submit time
    EXPECT_EQ(eml.field("Message-ID"), "<offer-2024@example.org>");
    EXPECT_EQ(eml.field("In-Reply-To"), "<request-2024@example.org>");
    EXPECT_EQ(eml.field("MIME-Version"), "1.0");
}

TEST_F(OwnEmlWriter, PlainTextBodyIsQuotedPrintableUtf8WithCrLf)
{
    ASSERT_EQ(save(plainMail()), S_OK);
    const ReadBack eml(written());
    EXPECT_FALSE(eml.multipart);
    EXPECT_EQ(eml.field("Content-Type"), "text/plain; charset=\"utf-8\"");
    EXPECT_EQ(eml.field("Content-Transfer-Encoding"), "quoted-printable");
    EXPECT_EQ(utf8ToWide(eml.singlePartText()),
              L"Hello Bob,\r\nthe figures are attached.\r\n\r\nGr\u00FC\u00DFe, Anna\r\n");
}

TEST_F(OwnEmlWriter, DeliveryTimeIsTheDateWithoutSubmitTime)
{
    MsgContent mail = plainMail();
    mail.submitTime.reset();
    ASSERT_EQ(save(mail), S_OK);
    EXPECT_EQ(ReadBack(written()).field("Date"), "Tue, 05 Mar 2024 07:08:09 +0000");
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

TEST_F(OwnEmlWriter, HtmlMailIsMultipartAlternative)
{
    MsgContent mail = plainMail();
    mail.html = "<html><body><p>Gr\xC3\xBC\xC3\x9F" "e " + std::string(200, 'x') + "</p></body></html>";
    ASSERT_EQ(save(mail), S_OK);
    const ReadBack eml(written());
    ASSERT_TRUE(eml.multipart);
    const MimePart& root = eml.mime.root();
    ASSERT_NE(root.header("Content-Type"), nullptr);
    EXPECT_TRUE(root.header("Content-Type")->value.starts_with("multipart/alternative;"));
    ASSERT_EQ(root.children.size(), 2u);
    EXPECT_EQ(root.children[0]->header("Content-Type")->value, "text/plain; charset=\"utf-8\"");
    EXPECT_EQ(root.children[1]->header("Content-Type")->value, "text/html; charset=\"utf-8\"");
    EXPECT_EQ(eml.decodedBody(*root.children[1]), mail.html);
    EXPECT_EQ(utf8ToWide(eml.decodedBody(*root.children[0])),
              L"Hello Bob,\r\nthe figures are attached.\r\n\r\nGr\u00FC\u00DFe, Anna");
    EXPECT_EQ(eml.mime.plainText().substr(0, 10), L"Hello Bob,");
    EXPECT_LE(longestLine(eml.text), 78u);
}

TEST_F(OwnEmlWriter, AttachmentsDecodeBackToTheirBytesAndNames)
{
    const MsgContent mail = richMail();
    ASSERT_EQ(save(mail), S_OK);
    const ReadBack eml(written());
    EXPECT_TRUE(hasOnlyCrLf(eml.text));
    EXPECT_LE(longestLine(eml.text), 78u);
    ASSERT_TRUE(eml.multipart);
    const MimePart& root = eml.mime.root();
    EXPECT_TRUE(root.header("Content-Type")->value.starts_with("multipart/mixed;"));
    // The last header of the block is a MIME header.
    EXPECT_EQ(eml.fields.back().name, "Content-Type");
    ASSERT_EQ(root.children.size(), 3u);
    EXPECT_TRUE(root.children[0]->header("Content-Type")->value.starts_with("multipart/alternative;"));
    for (size_t i = 0; i < 2; ++i) {
        const MimePart& part = *root.children[i + 1];
        const MsgAttachment& source = mail.attachments[i];
        ASSERT_NE(part.header("Content-Disposition"), nullptr);
        EXPECT_EQ(part.header("Content-Transfer-Encoding")->value, "base64");
        EXPECT_EQ(utf8ToWide(rfc2231Parameter(part.header("Content-Disposition")->value, "filename")),
                  source.fileName);
        EXPECT_EQ(utf8ToWide(rfc2231Parameter(part.header("Content-Type")->value, "name")), source.fileName);
        EXPECT_TRUE(part.header("Content-Type")->value.starts_with(wideToUtf8(source.mimeType) + ";"));
        EXPECT_LE(longestLine(eml.mime.body(part)), 76u);
        EXPECT_EQ(eml.decodedBody(part), source.bytes) << i;
    }
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
    EXPECT_NE(log.contents().find("properties for the EML of"), std::string::npos) << log.contents();
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

std::string jsonAddresses(const MsgContent& mail, ULONG type)
{
    std::string json = "[";
    for (const MsgRecipient& recipient : mail.recipients) {
        if (recipient.type != type)
            continue;
        if (json.size() > 1)
            json += ", ";
        json += jsonString(recipient.address);
    }
    return json + "]";
}

// What the mail holds, for the check to compare the parsed .eml with; the
// attachments' bytes go into files of their own beside it.
void writeExpectation(const std::wstring& folder, const std::wstring& name, const MsgContent& mail)
{
    std::string json = "{\n";
    json += "  \"subject\": " + jsonString(mail.subject) + ",\n";
    json += "  \"from\": " + jsonString(mail.senderAddress) + ",\n";
    json += "  \"to\": " + jsonAddresses(mail, 1) + ",\n";
    json += "  \"cc\": " + jsonAddresses(mail, 2) + ",\n";
    json += "  \"bcc\": " + jsonAddresses(mail, 3) + ",\n";
    json += "  \"body\": " + jsonString(mail.body) + ",\n";
    json += "  \"html\": " + jsonString(utf8ToWide(mail.html)) + ",\n";
    json += "  \"attachments\": [";
    for (size_t i = 0; i < mail.attachments.size(); ++i) {
        const std::wstring file = name + L".attachment" + std::to_wstring(i);
        writeBytes(folder + L"\\" + file, mail.attachments[i].bytes);
        json += std::string(i ? ", " : "") + "{\"name\": " + jsonString(mail.attachments[i].fileName) +
                ", \"file\": " + jsonString(file) + "}";
    }
    json += "]\n}\n";
    writeBytes(folder + L"\\" + name + L".expected.json", json);
}

std::vector<std::pair<std::wstring, MsgContent>> sampleMails()
{
    MsgContent html = plainMail();
    html.html = "<html><body><p>Gr\xC3\xBC\xC3\x9F" "e</p></body></html>";
    MsgContent many = plainMail();
    many.subject = L"Lange Betreffzeile mit Umlauten \u00E4\u00F6\u00FC und Emoji \U0001F680 " +
                   std::wstring(80, L'\u00DF');
    many.recipients.clear();
    for (int i = 0; i < 30; ++i)
        many.recipients.push_back({static_cast<ULONG>(1 + i % 3), L"Empf\u00E4nger " + std::to_wstring(i),
                                   L"r" + std::to_wstring(i) + L"@example.org", L"SMTP", ""});
    return {{L"plain", plainMail()}, {L"html", html}, {L"attachments", richMail()}, {L"recipients", many}};
}

} // namespace

TEST_F(OwnEmlWriter, SamplesForAnIndependentParser)
{
    wchar_t target[MAX_PATH] = {};
    if (GetEnvironmentVariableW(samplesVariable, target, MAX_PATH) == 0)
        GTEST_SKIP() << "set KORVANE_EML_SAMPLES to a folder to write the samples";
    CreateDirectoryW(target, nullptr);
    for (const auto& [name, mail] : sampleMails()) {
        ASSERT_EQ(save(mail, name + L".msg"), S_OK);
        ASSERT_TRUE(CopyFileW(folder.file(name + L".eml").c_str(), (std::wstring(target) + L"\\" + name + L".eml").c_str(),
                              FALSE));
        ASSERT_EQ(writeMsgFile(std::wstring(target) + L"\\" + name + L".msg", mail), S_OK);
        writeExpectation(target, name, mail);
    }
}
