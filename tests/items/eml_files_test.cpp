// Mails saved as .eml by Korvane's own writer from the storage (no MIME
// converter, as under Wine); the samples are also left in KORVANE_EML_SAMPLES
// for check_eml.py.
#include "item_files.h"

#include "core/log.h"
#include "common/strings.h"
#include "items/eml_headers.h"
#include "items/msg_layout.h"
#include "items/property_text.h"

#include <functional>

using Microsoft::WRL::ComPtr;

namespace {

MsgContent htmlMail()
{
    MsgContent mail = sampleMail();
    mail.subject = L"HTML " + mail.subject;
    mail.body = L"Hello Bob,\nGr\u00FC\u00DFe, {Anna}";
    mail.html = "<html><body><p>Hello Bob,</p><p>Gr\xC3\xBC\xC3\x9F" "e, {Anna}</p></body></html>";
    return mail;
}
MsgContent withAttachments(MsgContent mail)
{
    mail.attachments = {{L"figures.bin", patternBytes(3 * 1024 * 1024 + 7, 1), L"application/octet-stream"},
                        {L"Pr\u00E4sentation \u20AC.txt", "line one\r\nline two\r\n", L"text/plain"}};
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
    mail.attachments = {{L"logo.png", patternBytes(3000, 2), L"image/png", L"logo@example.org", false, nullptr},
                        {L"sign.gif", patternBytes(700, 3), L"image/gif", L"<sign>", true, nullptr},
                        {L"offer.pdf", patternBytes(5000, 4), L"application/pdf", L"", false, nullptr}};
    return mail;
}
MsgContent inCodePage(UINT codePage, StoredProperty codePageProperty, std::wstring text)
{
    MsgContent mail = sampleMail();
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
MsgContent with(MsgContent mail, std::vector<StoredProperty> extra, const wchar_t* messageClass = L"IPM.Note")
{
    mail.extraProperties = std::move(extra);
    mail.messageClass = messageClass;
    return mail;
}
MsgContent item(const wchar_t* messageClass, std::wstring subject, std::wstring body)
{
    MsgContent mail = sampleMail();
    mail.messageClass = messageClass;
    mail.subject = std::move(subject);
    mail.body = std::move(body);
    mail.recipients.clear();
    return mail;
}

// An attachment storage as no builder writes it: exactly these entries and values.
std::function<void(IStorage*)> rawAttachment(uint32_t number, std::string entries,
                                             std::vector<std::pair<uint32_t, std::string>> values, bool ole = false)
{
    return [=](IStorage* message) {
        ComPtr<IStorage> row = createChildStorage(message, MsgLayout::rowStorageName(MsgLayout::attachmentPrefix, number));
        writeRawPropertiesStream(row.Get(), MsgLayout::rowHeaderSize, entries);
        for (const auto& [tag, bytes] : values)
            writeRawSubstorageStream(row.Get(), tag, bytes);
        if (ole) {
            ComPtr<IStorage> object = createChildStorage(row.Get(), L"__substg1.0_3701000D");
            writeRawStream(object.Get(), L"CONTENTS", "bitmap bytes");
            object->Commit(STGC_DEFAULT);
        }
        row->Commit(STGC_DEFAULT);
    };
}

// ---- what a sample holds, for check_eml.py ----

std::string json(std::wstring_view text)
{
    std::string out = "\"";
    for (wchar_t c : text) {
        char escape[8] = {};
        std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
        out += c == L'"' || c == L'\\' ? std::string("\\") + static_cast<char>(c)
                                       : c >= 0x20 && c < 0x7F ? std::string(1, static_cast<char>(c)) : escape;
    }
    return out + "\"";
}

std::string addresses(const std::vector<MsgRecipient>& recipients, ULONG type)
{
    std::string list;
    for (const MsgRecipient& recipient : recipients)
        list += recipient.type == type ? (list.empty() ? "" : ", ") + json(recipient.address) : "";
    return "[" + list + "]";
}

// The bytes of attachments and pictures go into files of their own beside it.
std::string expectationOf(const std::wstring& folder, const std::wstring& name, const MsgContent& mail)
{
    bool high = false;
    for (const StoredProperty& extra : mail.extraProperties)
        high |= propertyIdOf(extra.tag) == MsgPropertyId::importance && extra.bytes[0] == 2;
    const auto date = mail.deliveryTime ? mail.deliveryTime : mail.submitTime;
    const std::string rtf = rtfBodyOf(mail);
    // The Outlook stand-in resolves no Exchange entry: such a sender has no address.
    std::string text = "{\"subject\": " + json(mail.subject) +
                       ", \"from\": " + json(mail.senderAddrType == L"EX" ? L"" : mail.senderAddress) +
                       ", \"from_name\": " + json(mail.senderName) + ", \"to\": " + addresses(mail.recipients, 1) +
                       ", \"cc\": " + addresses(mail.recipients, 2) + ", \"bcc\": " + addresses(mail.recipients, 3) +
                       ", \"reply_to\": " + addresses(mail.replyTo, 1) +
                       ", \"importance\": " + (high ? "\"high\"" : "null") +
                       ", \"date\": " + (date ? json(isoTimeOf(*date)) : "null") + ", \"body\": " + json(mail.body) +
                       ", \"html\": " + json(utf8ToWide(mail.html)) +
                       ", \"rtf_source\": " + json(utf8ToWide(rtf)) +
                       ", \"code_page\": " + std::to_string(mail.unicodeStrings ? 0 : mail.codePage);
    std::string files, pictures, attached;
    for (size_t i = 0; i < mail.attachments.size(); ++i) {
        const MsgAttachment& attachment = mail.attachments[i];
        const std::wstring file = name + L".attachment" + std::to_wstring(i);
        if (attachment.message) {
            attached += (attached.empty() ? "" : ", ") + std::string("{\"name\": ") +
                        json(attachment.fileName + L".eml") +
                        ", \"message\": " + expectationOf(folder, file, *attachment.message) + "}";
            continue;
        }
        writeBytes(folder + L"\\" + file, attachment.bytes);
        std::string& list = attachment.contentId.empty() ? files : pictures;
        list += (list.empty() ? "" : ", ") + std::string("{\"name\": ") + json(attachment.fileName) +
                ", \"file\": " + json(file) + ", \"cid\": " + json(attachment.contentId) + "}";
    }
    return text + ", \"attachments\": [" + files + "], \"related\": [" + pictures + "], \"attached\": [" + attached +
           "]}";
}

std::wstring samplesFolder()
{
    wchar_t folder[MAX_PATH] = {};
    return GetEnvironmentVariableW(L"KORVANE_EML_SAMPLES", folder, MAX_PATH) ? folder : L"";
}

} // namespace

TEST_F(ItemFiles, EveryKindOfMailBecomesAReadableEml)
{
    settings.setFormat(L"eml");
    MsgContent many = sampleMail();
    many.subject = L"Lange Betreffzeile mit Umlauten \u00E4\u00F6\u00FC und Emoji \U0001F680 " + std::wstring(80, L'\u00DF');
    many.recipients.clear();
    for (int i = 0; i < 30; ++i)
        many.recipients.push_back({static_cast<ULONG>(1 + i % 3), L"Empf\u00E4nger " + std::to_wstring(i),
                                   L"r" + std::to_wstring(i) + L"@example.org", L"SMTP", ""});
    MsgContent exchange = sampleMail();
    exchange.senderAddrType = L"EX";
    exchange.senderAddress = L"/O=EXAMPLE/OU=EXCHANGE ADMINISTRATIVE GROUP (FYDIBOHF23SPDLT)/CN=RECIPIENTS/CN=ANNA";
    exchange.senderEntryId = std::string(24, '\x11');
    MsgContent trailing = withAttachments(sampleMail());
    trailing.trailingBytes = 4;
    for (int i = 0; i < 30; ++i)
        trailing.subject += L" word" + std::to_wstring(i); // plain ASCII, folded at blanks
    MsgContent replyTo = with(sampleMail(), {longProperty(MsgPropertyId::importance, 2)});
    replyTo.replyTo = {{1, L"Team Desk", L"desk@example.org", L"SMTP", ""}};
    MsgContent hostile = sampleMail();
    hostile.subject = L"Hi\r\nBcc: everyone@example.org\r\n\r\nfake body";
    hostile.internetMessageId = L"<" + std::wstring(5000, L'x') + L"@example.org>";
    hostile.recipients.push_back({1, std::wstring(3000, L'N'), L"long@example.org", L"SMTP", ""});
    hostile.attachments = {{std::wstring(400, L'\u00E9') + L".bin", "abc", L"bad type\r\nX-Evil: 1"}};
    MsgContent contact = with(item(L"IPM.Contact", L"", L"Phone 0123 456"), {unicodeProperty(0x3001, L"Bob Builder")},
                              L"IPM.Contact");
    contact.senderName = contact.senderAddress = L"";
    MsgContent meeting = item(L"IPM.Schedule.Meeting.Request", L"Planning", L"Room 4");
    meeting.attachments = {{L"invite.ics", "BEGIN:VCALENDAR\r\nMETHOD:REQUEST\r\nEND:VCALENDAR\r\n", L"text/calendar"}};
    std::string badCrc = compressRtf(rtfBodyOf(asRtf(htmlMail())));
    badCrc[12] ^= 0x55;
    MsgContent links = sampleMail();
    links.attachments = {{L"plan.pdf", "", L"application/pdf", L"", false, nullptr, L"\\\\server\\share\\plan.pdf"},
                         {L"empty.bin", "", L"", L"", false, nullptr, L""}};
    MsgContent draft = sampleMail();
    draft.deliveryTime.reset();
    draft.submitTime.reset();
    draft.extraProperties = {timeProperty(0x3007, utcFileTime(2024, 1, 1, 9, 0, 0))}; // created, never sent
    draft.html = "<p>Gr\xFC\xDF" "e \x80</p>";                                     // Windows-1252, no code page named
    const auto onBehalf = [](const wchar_t* name, const wchar_t* type, const wchar_t* address, const wchar_t* smtp) {
        MsgContent mail = with(sampleMail(), {unicodeProperty(0x0042, name), unicodeProperty(0x0064, type),
                                              unicodeProperty(0x0065, address)});
        if (*smtp)
            mail.extraProperties.push_back(unicodeProperty(0x5D02, smtp));
        return mail;
    };
    const uint32_t byValue = 1;
    const struct {
        const wchar_t* name;
        MsgContent mail;
        std::vector<std::string> inEml = {}, notInEml = {};
        std::string inLog = {};
        bool sample = false;
        std::function<void(IStorage*)> addParts = nullptr;
    } rows[] = {
        {L"plain", sampleMail(), {"From: \"Anna Sender\" <anna@example.org>\r\nTo: \"Bob To\""}, {}, "", true},
        {L"html", htmlMail(), {}, {}, "", true},
        {L"attachments", withAttachments(sampleMail()), {}, {}, "", true},
        {L"recipients", many, {}, {}, "", true},
        {L"attached-two-deep", attaching(withAttachments(sampleMail()), attaching(htmlMail(), asRtf(sampleMail()))), {},
         {}, "", true},
        {L"rtf-html", asRtf(htmlMail()), {}, {}, "", true},
        {L"rtf-plain", asRtf(sampleMail()), {}, {}, "", true},
        {L"inline-pictures", withPictures(sampleMail()), {}, {}, "", true},
        {L"cp932", inCodePage(932, longProperty(MsgPropertyId::internetCodepage, 50220),
                              L"\u4F1A\u8B70\u306E\u8B70\u4E8B\u9332\u3068\u8CC7\u6599"),
         {}, {}, "", true},
        {L"cp1251", inCodePage(1251, longProperty(MsgPropertyId::messageCodepage, 1251),
                               L"\u041E\u0442\u0447\u0451\u0442 \u0437\u0430 \u043A\u0432\u0430\u0440\u0442\u0430\u043B"),
         {}, {}, "", true},
        {L"trailing-bytes", trailing, {}, {}, "", true},
        {L"exchange-sender", exchange, {}, {}, "", true},
        {L"reply-to", replyTo, {}, {}, "", true},
        {L"sent-on-behalf", onBehalf(L"Chef Boss", L"SMTP", L"boss@example.org", L""),
         {"From: \"Chef Boss\" <boss@example.org>\r\nSender: \"Anna Sender\" <anna@example.org>\r\n"}},
        {L"on-behalf-of-oneself", onBehalf(L"Anna", L"SMTP", L"ANNA@example.org", L""), {}, {"Sender:"}},
        {L"on-behalf-exchange-html-cp1251",
         [&] {
             MsgContent mail = onBehalf(L"Boss", L"EX", L"/O=CORP/CN=BOSS", L"boss@corp.example");
             mail.html = "<p>\xCF\xF0\xE8</p>";
             mail.extraProperties.push_back(longProperty(MsgPropertyId::internetCodepage, 1251));
             return mail;
         }(),
         {"From: \"Boss\" <boss@corp.example>\r\nSender: \"Anna Sender\"", "<p>=D0=9F=D1=80=D0=B8</p>"}},
        {L"hostile-values", hostile, {"Subject: Hi  Bcc: everyone@example.org    fake body\r\n",
                                      "Content-Type: application/octet-stream;"},
         {"\r\nBcc: everyone", "X-Evil", "Message-ID"}},
        {L"appointment", item(L"IPM.Appointment", L"Planning", L"Room 4"),
         {"From: \"Anna Sender\" <anna@example.org>", "Subject: Planning", "Room 4"}},
        {L"task", item(L"IPM.Task", L"Report", L"Due Friday"), {"Subject: Report", "Due Friday"}},
        {L"note", item(L"IPM.StickyNote", L"", L"Buy milk"), {"Buy milk"}},
        {L"contact", contact, {"From: undisclosed-sender:;", "Subject: Bob Builder", "Phone 0123 456"}},
        {L"meeting", meeting, {"Content-Type: text/calendar; charset=\"utf-8\";\r\n method=REQUEST"}, {"invite.ics"}},
        {L"bad-crc", with(item(L"IPM.Note", L"RTF", L""), {StoredProperty{0x10090102, badCrc}}),
         {"Content-Type: text/html", "Hello Bob,"}, {}, "does not match the header"},
        {L"unknown-code-page",
         [] {
             MsgContent mail = with(sampleMail(), {longProperty(MsgPropertyId::messageCodepage, 12345)});
             mail.unicodeStrings = false;
             return mail;
         }(),
         {"Hello Bob,"}, {}, "code page 12345/0 of the message's 8-bit text is not known"},
        {L"links", links, {"access-type=\"local-file\"", "name*=utf-8''%5C%5Cserver%5Cshare%5Cplan.pdf"}, {},
         "has nothing that can be written"},
        {L"draft", draft, {"Date: Mon, 01 Jan 2024 09:00:00 +0000\r\n", "<p>Gr=C3=BC=C3=9Fe =E2=82=AC</p>"}},
        {L"attachments-described-in-part", sampleMail(),
         {"Content-Type: image/png;\r\n name=\"REPORT~1.PNG\"", "Content-Type: text/csv;\r\n name=\"attachment2.csv\"",
          "Content-Type: image/svg+xml;", "filename=\"Pict\"", "0M8R4KGxGuE"},
         {"no bytes"}, "is an OLE object, written as its compound file",
         false,
         [byValue](IStorage* message) {
             rawAttachment(0, propertyEntry(0x37050003, byValue) + propertyEntry(0x3704001F, 24) +
                                  propertyEntry(0x37010102, 1),
                           {{0x3704001F, unicodeProperty(0, L"REPORT~1.PNG").bytes}, {0x37010102, "x"}})(message);
             rawAttachment(1, propertyEntry(0x37050003, byValue) + propertyEntry(0x3703001F, 8) +
                                  propertyEntry(0x37010102, 1),
                           {{0x3703001F, unicodeProperty(0, L".csv").bytes}, {0x37010102, "y"}})(message);
             rawAttachment(2, propertyEntry(0x3707001F, 10) + propertyEntry(0x370E001F, 30) + propertyEntry(0x37010102, 1),
                           {{0x3707001F, unicodeProperty(0, L"a.bin").bytes},
                            {0x370E001F, unicodeProperty(0, L" image/svg+xml ").bytes}, {0x37010102, "z"}})(message);
             rawAttachment(3, propertyEntry(0x37050003, 6) + propertyEntry(0x3701000D, 0xFFFFFFFF) +
                                  propertyEntry(0x3001001F, 10),
                           {{0x3001001F, unicodeProperty(0, L"Pict").bytes}}, true)(message);
             rawAttachment(4, propertyEntry(0x37050003, byValue) + propertyEntry(0x3707001F, 18),
                           {{0x3707001F, unicodeProperty(0, L"no bytes").bytes}})(message);
         }},
    };
    const std::wstring samples = samplesFolder();
    if (!samples.empty()) {
        deleteTree(samples); // no sample of an earlier run stays to be checked
        CreateDirectoryW(samples.c_str(), nullptr);
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(row.name)));
        ComPtr<IStorage> source = makeMsgInMemory(row.mail);
        if (row.addParts)
            row.addParts(source.Get());
        LogCapture log(LOG_INFO);
        auto saved = mailItem(row.mail, std::wstring(row.name) + L".msg", source.Get());
        ASSERT_EQ(saved->save(), S_OK);
        const std::string eml = readBytes(folder.file(std::wstring(row.name) + L".eml"));
        const EmlSplit split = splitEmlHeaders(eml);
        ASSERT_TRUE(split.found) << eml.substr(0, 2000);
        EXPECT_TRUE(eml.starts_with("From: ")) << eml.substr(0, 200);
        for (size_t at = 0, end = 0; at < split.headers.size(); at = end + 2) {
            end = std::min(split.headers.find("\r\n", at), split.headers.size());
            EXPECT_LE(end - at, 78u) << split.headers.substr(at, end - at);
        }
        for (size_t at = eml.find_first_of("\r\n"); at != std::string::npos; at = eml.find_first_of("\r\n", at + 2)) {
            ASSERT_EQ(eml.compare(at, 2, "\r\n"), 0) << "a line end that isn't CRLF at " << at;
        }
        for (const std::string& part : row.inEml)
            EXPECT_TRUE(contains(eml, part)) << part << "\n" << eml.substr(0, 3000);
        for (const std::string& part : row.notInEml)
            EXPECT_FALSE(contains(eml, part)) << part << "\n" << eml.substr(0, 3000);
        const std::string logged = log.contents();
        EXPECT_TRUE(contains(logged, "written by Korvane's MIME writer (properties through storage")) << logged;
        EXPECT_TRUE(contains(logged, row.inLog)) << logged;
        if (!row.sample)
            continue;
        EXPECT_TRUE(contains(logged, " attachments, 0 left out)")) << logged;
        EXPECT_EQ(saved->properties().subject, row.mail.subject); // the item list's text
        if (samples.empty())
            continue;
        const std::wstring base = samples + L"\\" + row.name;
        writeBytes(base + L".eml", eml);
        ASSERT_EQ(writeMsgFile(base + L".msg", row.mail), S_OK);
        writeBytes(base + L".expected.json", expectationOf(samples, row.name, row.mail) + "\n");
    }
}

TEST_F(ItemFiles, AStorageThatIsNoMailFailsClearlyAndAnAttachedMessageHoldingItselfEnds)
{
    settings.setFormat(L"eml");
    ComPtr<IStorage> notAMessage = makeStorageInMemory();
    writeRawStream(notAMessage.Get(), L"something", "else");
    LogCapture log(LOG_WARN);
    auto odd = mailItem({}, L"odd.msg", notAMessage.Get());
    EXPECT_TRUE(FAILED(odd->save()));
    EXPECT_TRUE(odd->isSaved());
    EXPECT_TRUE(contains(log.contents(), "odd.eml can't be read, hr=-2147287038: the storage has no properties "
                                         "stream, it is not a mail"))
        << log.contents();

    // In the directory (128-byte entries in the sectors of its chain), the
    // attached message's storage gets the root's children as its own; entries
    // of that name left over from the builder's work are patched too, unseen.
    // The file is small: one FAT sector.
    ASSERT_EQ(writeMsgFile(folder.file(L"loop.msg"), attaching(sampleMail(), htmlMail())), S_OK);
    std::string bytes = readBytes(folder.file(L"loop.msg"));
    ASSERT_LT(bytes.size(), 128u * 512);
    const auto le32 = [&bytes](size_t at) { return *reinterpret_cast<const uint32_t*>(bytes.data() + at); };
    const std::wstring_view name = L"__substg1.0_3701000D";
    size_t root = 0, patched = 0;
    for (uint32_t sector = le32(48); sector < 0xFFFFFFFA; sector = le32(512 + le32(76) * 512 + sector * 4)) {
        for (size_t at = 512 + sector * 512; at < 1024 + sector * 512; at += 128) {
            root = root ? root : at;
            if (bytes.compare(at, name.size() * 2, reinterpret_cast<const char*>(name.data()), name.size() * 2) == 0) {
                bytes.replace(at + 76, 4, bytes.substr(root + 76, 4));
                ++patched;
            }
        }
    }
    ASSERT_GT(patched, 0u);
    writeBytes(folder.file(L"loop.msg"), bytes);
    ASSERT_EQ(mailItem({}, L"loop-saved.msg", openStorageFile(folder.file(L"loop.msg")).Get())->save(), S_OK);
    const std::string eml = readBytes(folder.file(L"loop-saved.eml"));
    EXPECT_TRUE(eml.starts_with("From: \"Anna Sender\" <anna@example.org>\r\n"));
    size_t nested = 0;
    for (size_t at = eml.find("Content-Type: message/rfc822"); at != std::string::npos;
         at = eml.find("Content-Type: message/rfc822", at + 1))
        ++nested;
    EXPECT_EQ(nested, 16u);
    EXPECT_TRUE(contains(log.contents(), "lies deeper than 16 messages, left out"));
}
