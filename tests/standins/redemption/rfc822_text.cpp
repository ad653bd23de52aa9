#include "rfc822_text.h"

#include "common/strings.h"
#include "core/base64.h"
#include "items/property_text.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <optional>

namespace {

constexpr uint16_t idSubject = 0x0037;
constexpr uint16_t idClientSubmitTime = 0x0039;
constexpr uint16_t idSenderName = 0x0C1A;
constexpr uint16_t idSenderAddress = 0x0C1F;
constexpr uint16_t idDeliveryTime = 0x0E06;
constexpr uint16_t idRecipientType = 0x0C15;
constexpr uint16_t idBody = 0x1000;
constexpr uint16_t idInternetMessageId = 0x1035;
constexpr uint16_t idDisplayName = 0x3001;
constexpr uint16_t idEmailAddress = 0x3003;

std::wstring textOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    return property ? propertyText(property->tag, property->bytes) : std::wstring();
}

std::optional<FILETIME> timeOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    if (!property || propertyTypeOf(property->tag) != PropertyType::SysTime || property->bytes.size() < 8)
        return std::nullopt;
    FILETIME time{};
    std::memcpy(&time, property->bytes.data(), sizeof time);
    return time;
}

bool isAscii(std::wstring_view text)
{
    for (wchar_t c : text)
        if (c > 0x7E)
            return false;
    return true;
}

// A header value never spans lines here: line breaks in a subject or name
// would otherwise start headers of their own.
std::wstring singleLine(std::wstring text)
{
    for (wchar_t& c : text)
        if (c == L'\r' || c == L'\n' || c == L'\t')
            c = L' ';
    return text;
}

std::string encodedWord(const std::wstring& text)
{
    return "=?utf-8?B?" + encodeBase64(wideToUtf8(text)) + "?=";
}

std::string headerText(const std::wstring& text)
{
    const std::wstring line = singleLine(text);
    return isAscii(line) ? wideToUtf8(line) : encodedWord(line);
}

// "Name" <address>, or <address> alone when there is no name.
std::string mailbox(const std::wstring& name, const std::wstring& address)
{
    const std::string angle = "<" + wideToUtf8(singleLine(address)) + ">";
    const std::wstring line = singleLine(name);
    if (line.empty())
        return angle;
    if (!isAscii(line))
        return encodedWord(line) + " " + angle;
    std::string quoted = "\"";
    for (char c : wideToUtf8(line)) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "\" " + angle;
}

std::string recipientsOfType(const StoredMessage& message, uint32_t type)
{
    std::string list;
    for (const StoredProperties& row : message.recipients) {
        if (findStoredLong(row, idRecipientType) != type)
            continue;
        if (!list.empty())
            list += ", ";
        list += mailbox(textOf(row, idDisplayName), textOf(row, idEmailAddress));
    }
    return list;
}

// "Tue, 05 Mar 2024 07:08:09 +0000"
std::string dateText(const FILETIME& time)
{
    SYSTEMTIME utc{};
    if (!FileTimeToSystemTime(&time, &utc))
        return {};
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char text[64] = {};
    std::snprintf(text, sizeof text, "%s, %02u %s %04u %02u:%02u:%02u +0000", days[utc.wDayOfWeek % 7], utc.wDay,
                  months[(utc.wMonth + 11) % 12], utc.wYear, utc.wHour, utc.wMinute, utc.wSecond);
    return text;
}

// Every line break of the body as CRLF, and a final one.
std::string crlfBody(const std::wstring& body)
{
    const std::string utf8 = wideToUtf8(body);
    std::string out;
    out.reserve(utf8.size() + 2);
    for (size_t i = 0; i < utf8.size(); ++i) {
        const char c = utf8[i];
        if (c == '\r') {
            out += "\r\n";
            if (i + 1 < utf8.size() && utf8[i + 1] == '\n')
                ++i;
        } else if (c == '\n') {
            out += "\r\n";
        } else {
            out += c;
        }
    }
    if (out.size() < 2 || out.compare(out.size() - 2, 2, "\r\n") != 0)
        out += "\r\n";
    return out;
}

void addHeader(std::string& headers, const char* name, const std::string& value)
{
    if (value.empty())
        return;
    headers += name;
    headers += ": ";
    headers += value;
    headers += "\r\n";
}

} // namespace

std::string rfc822Text(const StoredMessage& message)
{
    const StoredProperties& properties = message.properties;
    std::string text;
    const std::wstring senderAddress = textOf(properties, idSenderAddress);
    if (!senderAddress.empty())
        addHeader(text, "From", mailbox(textOf(properties, idSenderName), senderAddress));
    addHeader(text, "To", recipientsOfType(message, 1));
    addHeader(text, "Cc", recipientsOfType(message, 2));
    text += "Subject: " + headerText(textOf(properties, idSubject)) + "\r\n";
    std::optional<FILETIME> sent = timeOf(properties, idClientSubmitTime);
    if (!sent)
        sent = timeOf(properties, idDeliveryTime);
    if (sent)
        addHeader(text, "Date", dateText(*sent));
    addHeader(text, "Message-ID", headerText(textOf(properties, idInternetMessageId)));
    text += "MIME-Version: 1.0\r\n";
    text += "Content-Type: text/plain; charset=\"utf-8\"\r\n";
    text += "Content-Transfer-Encoding: 8bit\r\n";
    text += "\r\n";
    text += crlfBody(textOf(properties, idBody));
    return text;
}
