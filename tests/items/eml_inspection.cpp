#include "eml_inspection.h"

#include "items/ascii_text.h"
#include "core/base64.h"

#include <map>

std::vector<HeaderField> headerFieldsOf(std::string_view headers)
{
    std::vector<HeaderField> fields;
    size_t at = 0;
    while (at < headers.size()) {
        size_t end = headers.find("\r\n", at);
        if (end == std::string_view::npos)
            end = headers.size();
        const std::string_view line = headers.substr(at, end - at);
        if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) {
            if (!fields.empty())
                fields.back().value += std::string(line);
        } else {
            const size_t colon = line.find(':');
            HeaderField field;
            field.name = std::string(line.substr(0, colon));
            if (colon != std::string_view::npos)
                field.value = std::string(trimHeaderWhitespace(line.substr(colon + 1)));
            fields.push_back(std::move(field));
        }
        at = end + 2;
    }
    return fields;
}

const HeaderField* findField(const std::vector<HeaderField>& fields, std::string_view name)
{
    for (const HeaderField& field : fields) {
        if (equalsIgnoreCaseAscii(field.name, name))
            return &field;
    }
    return nullptr;
}

bool hasOnlyCrLf(std::string_view text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && (i + 1 >= text.size() || text[i + 1] != '\n'))
            return false;
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r'))
            return false;
    }
    return true;
}

size_t longestLine(std::string_view text)
{
    size_t longest = 0;
    size_t at = 0;
    while (at <= text.size()) {
        size_t end = text.find("\r\n", at);
        if (end == std::string_view::npos)
            end = text.size();
        longest = std::max(longest, end - at);
        at = end + 2;
    }
    return longest;
}

std::string decodeEncodedWords(std::string_view text)
{
    std::string out;
    std::string pendingBlanks;
    bool afterWord = false;
    size_t at = 0;
    while (at < text.size()) {
        if (text.compare(at, 10, "=?utf-8?B?") == 0) {
            const size_t end = text.find("?=", at + 10);
            if (end == std::string_view::npos)
                break;
            const auto decoded = decodeBase64(text.substr(at + 10, end - at - 10));
            if (!afterWord)
                out += pendingBlanks;
            pendingBlanks.clear();
            out += decoded ? *decoded : std::string("<bad base64>");
            afterWord = true;
            at = end + 2;
        } else if (text[at] == ' ' || text[at] == '\t') {
            pendingBlanks += text[at++];
        } else {
            out += pendingBlanks;
            pendingBlanks.clear();
            out += text[at++];
            afterWord = false;
        }
    }
    out += pendingBlanks;
    return out;
}

std::string decodeQuotedPrintable(std::string_view text)
{
    auto hexValue = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '=') {
            out += text[i];
        } else if (text.compare(i, 3, "=\r\n") == 0) {
            i += 2;
        } else if (i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += "<bad escape>";
        }
    }
    return out;
}

std::string rfc2231Parameter(std::string_view headerValue, std::string_view name)
{
    std::map<int, std::string> sections;
    std::string plain;
    size_t at = 0;
    while ((at = headerValue.find(';', at)) != std::string_view::npos) {
        ++at;
        while (at < headerValue.size() && isHeaderWhitespace(headerValue[at]))
            ++at;
        const size_t equals = headerValue.find('=', at);
        if (equals == std::string_view::npos)
            break;
        const std::string_view key = headerValue.substr(at, equals - at);
        size_t end = headerValue.find(';', equals);
        if (end == std::string_view::npos)
            end = headerValue.size();
        std::string value(trimHeaderWhitespace(headerValue.substr(equals + 1, end - equals - 1)));
        if (equalsIgnoreCaseAscii(key, name)) {
            if (value.size() >= 2 && value.front() == '"')
                value = value.substr(1, value.size() - 2);
            plain = value;
        } else if (startsWithIgnoreCaseAscii(key, std::string(name) + "*")) {
            std::string_view rest = key.substr(name.size() + 1);
            int number = 0;
            if (!rest.empty() && rest != "*")
                number = std::stoi(std::string(rest));
            sections[number] = value;
        }
    }
    if (sections.empty())
        return plain;
    std::string joined;
    for (const auto& [number, value] : sections)
        joined += value;
    const size_t quote = joined.find("''");
    if (quote != std::string::npos)
        joined = joined.substr(quote + 2);
    std::string decoded;
    for (size_t i = 0; i < joined.size(); ++i) {
        if (joined[i] == '%' && i + 2 < joined.size()) {
            decoded += static_cast<char>(std::stoi(joined.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            decoded += joined[i];
        }
    }
    return decoded;
}
