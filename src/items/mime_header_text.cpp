#include "items/mime_header_text.h"

#include "core/log.h"
#include "common/strings.h"
#include "core/base64.h"

#include <cstdio>

namespace {

const Logger logger("MailItem");

constexpr std::string_view wordStart = "=?utf-8?B?";
constexpr std::string_view wordEnd = "?=";
constexpr size_t maxEncodedWord = 75;
// An ASCII display name longer than this is written as encoded words, which
// fold, rather than as one quoted string, which doesn't here.
constexpr size_t maxQuotedName = 60;
// Addresses and identifiers stay on one line; anything longer is not one.
constexpr size_t maxToken = 900;

bool isPrintableAscii(wchar_t c)
{
    return c >= 0x20 && c <= 0x7E;
}

bool isPlainAscii(std::wstring_view text)
{
    for (wchar_t c : text) {
        if (!isPrintableAscii(c))
            return false;
    }
    return true;
}

std::string narrowAscii(std::wstring_view text)
{
    std::string narrow;
    narrow.reserve(text.size());
    for (wchar_t c : text)
        narrow.push_back(static_cast<char>(c));
    return narrow;
}

// The text cut into code points (a surrogate pair stays together).
std::vector<std::wstring_view> codePoints(std::wstring_view text)
{
    std::vector<std::wstring_view> points;
    for (size_t i = 0; i < text.size();) {
        const bool pair = i + 1 < text.size() && text[i] >= 0xD800 && text[i] <= 0xDBFF && text[i + 1] >= 0xDC00 &&
                          text[i + 1] <= 0xDFFF;
        const size_t length = pair ? 2 : 1;
        points.push_back(text.substr(i, length));
        i += length;
    }
    return points;
}

// How many UTF-8 bytes fit into one encoded word of at most `columns` characters.
size_t bytesPerWord(size_t columns)
{
    const size_t overhead = wordStart.size() + wordEnd.size();
    if (columns <= overhead + 4)
        return 0;
    return (columns - overhead) / 4 * 3;
}

std::string encodedWord(std::string_view utf8)
{
    std::string word(wordStart);
    word += encodeBase64(utf8);
    word += wordEnd;
    return word;
}

// Blank-separated tokens, each taken as it stands.
std::vector<std::string> tokensOf(const std::string& text)
{
    std::vector<std::string> tokens;
    size_t at = 0;
    while (at < text.size()) {
        const size_t start = text.find_first_not_of(' ', at);
        if (start == std::string::npos)
            break;
        size_t end = text.find(' ', start);
        if (end == std::string::npos)
            end = text.size();
        tokens.push_back(text.substr(start, end - start));
        at = end;
    }
    return tokens;
}

// "Name: " followed by the tokens, a blank between two, a new line begun with
// a blank before a token that would make the line longer than preferred.
std::string foldedHeader(std::string_view name, const std::vector<std::string>& tokens)
{
    std::string header(name);
    header += ':';
    size_t column = header.size();
    for (const std::string& token : tokens) {
        if (column + 1 + token.size() > MimeHeaderLimits::preferredLine && column > name.size() + 1) {
            header += "\r\n";
            column = 0;
        }
        header += ' ';
        header += token;
        column += 1 + token.size();
    }
    header += "\r\n";
    return header;
}

std::string quotedName(std::wstring_view name)
{
    std::string quoted = "\"";
    for (wchar_t c : name) {
        if (c == L'"' || c == L'\\')
            quoted += '\\';
        quoted += static_cast<char>(c);
    }
    quoted += '"';
    return quoted;
}

// The address as it goes between angle brackets: UTF-8, no blanks, brackets
// or quotes, which would end it early or break the header.
std::string cleanAddress(std::wstring_view address)
{
    std::wstring clean;
    for (wchar_t c : address) {
        if (c > 0x20 && c != 0x7F && c != L'<' && c != L'>' && c != L'"' && c != L',')
            clean.push_back(c);
    }
    return wideToUtf8(clean);
}

bool isAttributeChar(unsigned char c)
{
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))
        return true;
    return std::string_view("!#$&+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}

} // namespace

std::wstring cleanHeaderText(std::wstring_view text)
{
    std::wstring clean(text);
    for (wchar_t& c : clean) {
        if (c < 0x20 || c == 0x7F)
            c = L' ';
    }
    return trimBlanks(clean);
}

std::vector<std::string> encodedWords(std::wstring_view text, size_t firstColumn)
{
    std::vector<std::string> words;
    size_t budget = firstColumn + 1 < MimeHeaderLimits::encodedWordLine
                        ? bytesPerWord(std::min(maxEncodedWord, MimeHeaderLimits::encodedWordLine - firstColumn - 1))
                        : 0;
    const size_t fullBudget = bytesPerWord(std::min(maxEncodedWord, MimeHeaderLimits::encodedWordLine - 1));
    if (budget < 4) {
        // Not even one character fits behind the header name: the first word
        // starts on a line of its own, which an empty first word stands for.
        words.emplace_back();
        budget = fullBudget;
    }
    std::string pending;
    for (std::wstring_view point : codePoints(text)) {
        const std::string bytes = wideToUtf8(point);
        if (!pending.empty() && pending.size() + bytes.size() > budget) {
            words.push_back(encodedWord(pending));
            pending.clear();
            budget = fullBudget;
        }
        pending += bytes;
    }
    if (!pending.empty())
        words.push_back(encodedWord(pending));
    return words;
}

std::string unstructuredHeader(std::string_view name, std::wstring_view value)
{
    const std::wstring clean = cleanHeaderText(value);
    if (clean.empty())
        return std::string(name) + ":\r\n";
    bool plain = isPlainAscii(clean) && clean.find(L"=?") == std::wstring::npos;
    std::vector<std::string> tokens;
    if (plain) {
        tokens = tokensOf(narrowAscii(clean));
        for (const std::string& token : tokens) {
            if (token.size() + 1 > MimeHeaderLimits::preferredLine - name.size() - 1)
                plain = false;
        }
        // Runs of blanks are kept only when the text is written as it stands.
        if (plain && clean.find(L"  ") == std::wstring::npos)
            return foldedHeader(name, tokens);
        if (plain && clean.size() + name.size() + 2 <= MimeHeaderLimits::preferredLine)
            return std::string(name) + ": " + narrowAscii(clean) + "\r\n";
    }
    std::string header(name);
    header += ':';
    bool first = true;
    for (const std::string& word : encodedWords(clean, name.size() + 1)) {
        if (!first)
            header += "\r\n";
        if (!word.empty())
            header += ' ' + word;
        first = false;
    }
    header += "\r\n";
    return header;
}

std::string mailboxText(const MailAddress& address, size_t firstColumn)
{
    const std::string addr = cleanAddress(address.mailAddress);
    if (addr.empty())
        return {};
    if (addr.size() > maxToken) {
        KV_WARN(logger) << "an address of " << addr.size() << " bytes is too long for a header, left out";
        return {};
    }
    const std::wstring name = cleanHeaderText(address.name);
    const std::string angle = "<" + addr + ">";
    if (name.empty() || name == address.mailAddress)
        return angle;
    if (isPlainAscii(name) && name.size() <= maxQuotedName && name.find(L"=?") == std::wstring::npos) {
        const std::string quoted = quotedName(name);
        if (firstColumn + quoted.size() + 1 + angle.size() <= MimeHeaderLimits::preferredLine)
            return quoted + " " + angle;
        return quoted + "\r\n " + angle;
    }
    std::string text;
    bool first = true;
    for (const std::string& word : encodedWords(name, firstColumn)) {
        if (!first)
            text += "\r\n ";
        text += word;
        first = false;
    }
    // The words end a line that may be full: the address gets a line of its own.
    text += "\r\n " + angle;
    if (text.rfind("\r\n ", 0) == 0) // an empty first word: the fold is the header's
        text.erase(0, 3);
    return text;
}

std::string addressHeader(std::string_view name, const std::vector<MailAddress>& addresses)
{
    std::string header;
    for (const MailAddress& address : addresses) {
        const size_t column = header.empty() ? name.size() + 2 : 1;
        const std::string mailbox = mailboxText(address, column);
        if (mailbox.empty())
            continue;
        if (header.empty())
            header = std::string(name) + ": " + mailbox;
        else
            header += ",\r\n " + mailbox;
    }
    if (!header.empty())
        header += "\r\n";
    return header;
}

std::string groupHeader(std::string_view name, std::wstring_view displayName)
{
    const std::wstring clean = cleanHeaderText(displayName);
    std::string phrase;
    if (clean.empty()) {
        phrase = "undisclosed-sender";
    } else if (isPlainAscii(clean) && clean.size() <= maxQuotedName && clean.find(L"=?") == std::wstring::npos) {
        phrase = quotedName(clean);
    } else {
        for (const std::string& word : encodedWords(clean, name.size() + 2)) {
            if (!phrase.empty())
                phrase += "\r\n ";
            phrase += word;
        }
    }
    return std::string(name) + ": " + phrase + ":;\r\n";
}

std::string identifierHeader(std::string_view name, std::wstring_view value)
{
    const std::wstring clean = cleanHeaderText(value);
    if (clean.empty())
        return {};
    if (!isPlainAscii(clean)) {
        KV_WARN(logger) << name << " is not ASCII, left out: " << clean;
        return {};
    }
    const std::vector<std::string> tokens = tokensOf(narrowAscii(clean));
    for (const std::string& token : tokens) {
        if (token.size() > maxToken) {
            KV_WARN(logger) << "a token of " << token.size() << " bytes is too long for " << name
                            << ", header left out";
            return {};
        }
    }
    return foldedHeader(name, tokens);
}

std::string mimeParameter(std::string_view name, std::wstring_view value)
{
    const std::wstring clean = cleanHeaderText(value);
    if (isPlainAscii(clean) && clean.size() <= maxQuotedName && clean.find_first_of(L"\"\\") == std::wstring::npos)
        return ";\r\n " + std::string(name) + "=\"" + narrowAscii(clean) + "\"";

    // Percent-encoded UTF-8, cut into sections between whole escapes, each
    // short enough for its line: " name*NNN*=utf-8''" before it, ";" after.
    const size_t overhead = 1 + name.size() + 1 + 3 + 2 + 7 + 1;
    const size_t sectionSize =
        overhead + 12 < MimeHeaderLimits::preferredLine ? MimeHeaderLimits::preferredLine - overhead : 12;
    static const char hex[] = "0123456789ABCDEF";
    std::vector<std::string> sections(1);
    for (unsigned char c : wideToUtf8(clean)) {
        std::string piece;
        if (isAttributeChar(c)) {
            piece.push_back(static_cast<char>(c));
        } else {
            piece = {'%', hex[c >> 4], hex[c & 15]};
        }
        if (sections.back().size() + piece.size() > sectionSize)
            sections.emplace_back();
        sections.back() += piece;
    }
    std::string text;
    for (size_t i = 0; i < sections.size(); ++i) {
        text += ";\r\n " + std::string(name);
        if (sections.size() > 1)
            text += "*" + std::to_string(i);
        text += "*=";
        if (i == 0)
            text += "utf-8''";
        text += sections[i];
    }
    return text;
}

std::string mimeDate(const FILETIME& time)
{
    SYSTEMTIME utc{};
    if (!FileTimeToSystemTime(&time, &utc))
        return {};
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (utc.wDayOfWeek > 6 || utc.wMonth < 1 || utc.wMonth > 12)
        return {};
    char text[40] = {};
    std::snprintf(text, sizeof text, "%s, %02u %s %04u %02u:%02u:%02u +0000", days[utc.wDayOfWeek], utc.wDay,
                  months[utc.wMonth - 1], utc.wYear, utc.wHour, utc.wMinute, utc.wSecond);
    return text;
}
