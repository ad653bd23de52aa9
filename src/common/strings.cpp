#include "common/strings.h"

#include <climits>
#include <cwctype>

std::wstring widen(std::string_view text)
{
    std::wstring wide;
    wide.reserve(text.size());
    for (char c : text)
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return wide;
}

std::wstring trimBlanks(std::wstring_view text)
{
    constexpr std::wstring_view blanks = L" \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::wstring_view::npos)
        return {};
    const size_t last = text.find_last_not_of(blanks);
    return std::wstring(text.substr(first, last - first + 1));
}

bool startsWith(std::wstring_view text, std::wstring_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

int parseLeadingInt(std::wstring_view text)
{
    size_t i = 0;
    while (i < text.size() && std::iswspace(text[i]))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == L'+' || text[i] == L'-'))
        negative = text[i++] == L'-';
    long long value = 0;
    for (; i < text.size() && text[i] >= L'0' && text[i] <= L'9'; ++i) {
        value = value * 10 + (text[i] - L'0');
        if (value > static_cast<long long>(INT_MAX) + 1)
            break; // out of range: clamp like the C library does
    }
    if (negative)
        value = -value;
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}
