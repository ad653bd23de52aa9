#include "support/converter_mime.h"

#include "common/strings.h"
#include "core/base64.h"
#include "items/converter_session.h"

#include <cstdio>

namespace {

bool isAscii(const std::wstring& text)
{
    for (wchar_t c : text)
        if (c > 0x7E)
            return false;
    return true;
}

// Header text never carries a line break of its own: a stray CR or LF in a
// subject or name would otherwise start a header the mail never had.
std::string headerText(const std::wstring& text)
{
    std::wstring flat = text;
    for (wchar_t& c : flat)
        if (c == L'\r' || c == L'\n')
            c = L' ';
    return wideToUtf8(flat);
}

std::string encodedWord(const std::wstring& text)
{
    return "=?utf-8?B?" + encodeBase64(headerText(text)) + "?=";
}

std::string quoted(const std::wstring& text)
{
    std::string result = "\"";
    for (char c : headerText(text)) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result + "\"";
}

std::string unstructured(const std::wstring& text, ULONG flags)
{
    return isAscii(text) || (flags & CCSF_8BITHEADERS) ? headerText(text) : encodedWord(text);
}

// One mailbox; an entry with neither name nor address is left out.
std::string mailbox(const MimeAddress& address, ULONG flags)
{
    std::string name;
    if (!address.name.empty())
        name = isAscii(address.name) || (flags & CCSF_8BITHEADERS) ? quoted(address.name) : encodedWord(address.name);
    if (address.address.empty())
        return name;
    const std::string angle = "<" + headerText(address.address) + ">";
    return name.empty() ? angle : name + " " + angle;
}

void addAddressHeader(std::string& out, const char* header, const std::vector<MimeAddress>& list, ULONG flags)
{
    std::string value;
    for (const MimeAddress& address : list) {
        const std::string entry = mailbox(address, flags);
        if (entry.empty())
            continue;
        if (!value.empty())
            value += ",\r\n\t";
        value += entry;
    }
    if (!value.empty())
        out += std::string(header) + ": " + value + "\r\n";
}

// Every line break of the body becomes CRLF, whatever the message held.
std::string bodyText(const std::wstring& body)
{
    std::wstring normalized;
    normalized.reserve(body.size());
    for (std::size_t i = 0; i < body.size(); ++i) {
        if (body[i] == L'\r') {
            normalized += L"\r\n";
            if (i + 1 < body.size() && body[i + 1] == L'\n')
                ++i;
        } else if (body[i] == L'\n') {
            normalized += L"\r\n";
        } else {
            normalized += body[i];
        }
    }
    return wideToUtf8(normalized);
}

}  // namespace

std::string formatMimeDate(const FILETIME& time)
{
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    SYSTEMTIME utc{};
    if (!FileTimeToSystemTime(&time, &utc) || utc.wMonth < 1 || utc.wMonth > 12 || utc.wDayOfWeek > 6)
        return std::string();
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02u %s %04u %02u:%02u:%02u +0000", days[utc.wDayOfWeek], utc.wDay,
                  months[utc.wMonth - 1], utc.wYear, utc.wHour, utc.wMinute, utc.wSecond);
    return text;
}

std::string composeMime(const MimeMail& mail, ULONG flags)
{
    std::string out;
    const std::string sender = mailbox(mail.sender, flags);
    if (!sender.empty()) {
        out += "From: " + sender + "\r\n";
        out += "Sender: " + sender + "\r\n";
    }
    addAddressHeader(out, "To", mail.to, flags);
    addAddressHeader(out, "Cc", mail.cc, flags);
    if (flags & CCSF_INCLUDE_BCC)
        addAddressHeader(out, "Bcc", mail.bcc, flags);
    out += "Subject: " + unstructured(mail.subject, flags) + "\r\n";
    if (mail.submitTime) {
        const std::string date = formatMimeDate(*mail.submitTime);
        if (!date.empty())
            out += "Date: " + date + "\r\n";
    }
    out += "MIME-Version: 1.0\r\n";
    out += "Content-Type: text/plain; charset=\"utf-8\"\r\n";
    out += "Content-Transfer-Encoding: 8bit\r\n";
    out += "\r\n";
    out += bodyText(mail.body);
    return out;
}
