#include "sample_mailbox.h"

#include "common/strings.h"

#include <sstream>

const wchar_t* const sampleExchangeEntryIdHex =
    L"00000000DCA740C8C042101AB4B908002B2FE1820100000000000000"
    L"2F4F3D4B4F5256414E452F434E3D42455254";
const wchar_t* const sampleExchangeSmtpAddress = L"bert.krause@korvane.example";

namespace {

std::string bytesOfHex(const std::wstring& hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(wideToUtf8(hex.substr(i, 2)), nullptr, 16));
    return bytes;
}

MsgRecipient recipient(ULONG type, const wchar_t* name, const wchar_t* address, const wchar_t* addrType = L"SMTP")
{
    MsgRecipient r;
    r.type = type;
    r.name = name;
    r.address = address;
    r.addrType = addrType;
    return r;
}

MsgContent baseMail(const wchar_t* subject, WORD day, WORD hour)
{
    MsgContent mail;
    mail.subject = subject;
    mail.senderName = L"Ann Lee";
    mail.senderAddress = L"ann.lee@korvane.example";
    mail.senderAddrType = L"SMTP";
    mail.deliveryTime = utcFileTime(2024, 3, day, hour, 15, 30);
    mail.submitTime = utcFileTime(2024, 3, day, hour, 14, 0);
    mail.body = std::wstring(L"Hello,\r\n\r\nthis is \"") + subject + L"\".\r\n\r\nAnn\r\n";
    mail.recipients = {recipient(1, L"Carl Berg", L"carl.berg@korvane.example")};
    mail.internetMessageId = L"<" + std::to_wstring(day) + L"." + std::to_wstring(hour) + L"@korvane.example>";
    return mail;
}

std::vector<OutlookEntry> mails()
{
    std::vector<OutlookEntry> entries;

    MsgContent report = baseMail(L"Quarterly report", 4, 8);
    report.recipients = {recipient(1, L"Carl Berg", L"carl.berg@korvane.example"),
                         recipient(1, L"Dora Falk", L"dora.falk@korvane.example"),
                         recipient(2, L"Emil Gross", L"emil.gross@korvane.example"),
                         recipient(3, L"Frida Holm", L"frida.holm@korvane.example"),
                         recipient(0, L"Room 4.12", L"room412@korvane.example")};
    report.attachments = {{L"figures.csv", "quarter;revenue\r\nQ1;1200\r\nQ2;1350\r\n", L"text/csv"},
                          {L"empty.txt", "", L"text/plain"}};
    entries.push_back(OutlookEntry::mailItem(L"Quarterly report.msg", report));

    MsgContent greetings = baseMail(L"Grüße aus Köln – 日本語の件名 ✓", 5, 9);
    greetings.html = "<html><body><p>Gr\xC3\xBC\xC3\x9F" "e aus <b>K\xC3\xB6ln</b></p></body></html>";
    greetings.body = L"Grüße aus Köln\r\n";
    entries.push_back(OutlookEntry::mailItem(L"Grüße aus Köln – 日本語の件名 ✓.msg", greetings));

    entries.push_back(OutlookEntry::mailItem(L"Re: offer? <draft> *final*.msg",
                                             baseMail(L"Re: offer? <draft> *final*", 6, 10)));
    entries.push_back(OutlookEntry::mailItem(L"Status.msg", baseMail(L"Status", 7, 11)));
    MsgContent secondStatus = baseMail(L"Status", 8, 12);
    secondStatus.body = L"Second mail with the same subject.\r\n";
    entries.push_back(OutlookEntry::mailItem(L"Status.msg", secondStatus));

    MsgContent exchange = baseMail(L"Meeting notes from Exchange", 11, 14);
    exchange.senderName = L"Bert Krause";
    exchange.senderAddrType = L"EX";
    exchange.senderAddress = L"/O=KORVANE/OU=EXCHANGE ADMINISTRATIVE GROUP/CN=RECIPIENTS/CN=BERT";
    exchange.senderEntryId = bytesOfHex(sampleExchangeEntryIdHex);
    entries.push_back(OutlookEntry::mailItem(L"Meeting notes from Exchange.msg", exchange));

    MsgContent smime = baseMail(L"Signed and sealed", 12, 15);
    smime.messageClass = L"IPM.Note.SMIME";
    smime.attachments = {{L"smime.p7m", patternBytes(4096, 7), L"application/pkcs7-mime"}};
    entries.push_back(OutlookEntry::mailItem(L"Signed and sealed.msg", smime));

    MsgContent large = baseMail(L"Photos of the site", 13, 16);
    large.attachments = {{L"site-1.jpg", patternBytes(1 << 20, 11), L"image/jpeg"},
                         {L"site-2.jpg", patternBytes(700 * 1024, 12), L"image/jpeg"}};
    entries.push_back(OutlookEntry::mailItem(L"Photos of the site.msg", large));
    return entries;
}

std::vector<OutlookEntry> attachments()
{
    return {OutlookEntry::attachment(L"empty.txt", ""),
            OutlookEntry::attachment(L"notes.txt", "Notes of the meeting\r\n- budget\r\n- dates\r\n"),
            OutlookEntry::attachment(L"contract: draft*.pdf", "%PDF-1.4\n" + patternBytes(64 * 1024, 3)),
            OutlookEntry::attachment(L"archive.zip", patternBytes(24u << 20, 5))};
}

std::vector<size_t> parseIndexes(const std::wstring& text)
{
    std::vector<size_t> indexes;
    std::wstringstream stream(text);
    std::wstring part;
    while (std::getline(stream, part, L',')) {
        if (part.empty() || part.find_first_not_of(L"0123456789") != std::wstring::npos)
            return {};
        indexes.push_back(std::stoul(part));
    }
    return indexes;
}

} // namespace

std::string patternBytes(size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    uint32_t state = 2463534242u ^ (seed * 2654435761u);
    for (size_t i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state);
    }
    return bytes;
}

std::vector<OutlookEntry> sampleMailbox()
{
    std::vector<OutlookEntry> entries = mails();
    for (OutlookEntry& attachment : attachments())
        entries.push_back(std::move(attachment));
    return entries;
}

std::vector<OutlookEntry> selectSample(const std::wstring& selection)
{
    if (selection == L"all")
        return sampleMailbox();
    if (selection == L"mails")
        return mails();
    if (selection == L"attachments")
        return attachments();
    std::vector<OutlookEntry> everything = sampleMailbox();
    std::vector<OutlookEntry> chosen;
    if (selection == L"small") {
        for (OutlookEntry& entry : everything) {
            if (entry.bytes.size() < (1u << 20))
                chosen.push_back(std::move(entry));
        }
        return chosen;
    }
    if (selection.rfind(L"mail:", 0) == 0) {
        const std::vector<size_t> index = parseIndexes(selection.substr(5));
        std::vector<OutlookEntry> all = mails();
        if (index.size() == 1 && index[0] < all.size())
            chosen.push_back(all[index[0]]);
        return chosen;
    }
    for (size_t index : parseIndexes(selection)) {
        if (index < everything.size())
            chosen.push_back(everything[index]);
    }
    return chosen;
}

std::vector<OutlookEntry> benchmarkEntries(size_t count)
{
    std::vector<OutlookEntry> entries;
    entries.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const std::wstring number = std::to_wstring(i + 1);
        if (i % 4 == 0) {
            MsgContent mail = baseMail((L"Benchmark mail " + number).c_str(), 1 + i % 28, 8);
            entries.push_back(OutlookEntry::mailItem(L"Benchmark mail " + number + L".msg", mail));
        } else {
            entries.push_back(OutlookEntry::attachment(L"file " + number + L".bin",
                                                       patternBytes(16 * 1024, static_cast<unsigned>(i))));
        }
    }
    return entries;
}
