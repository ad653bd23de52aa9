#include "common/strings.h"

#include <windows.h>

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

std::wstring utf8ToWide(std::string_view text)
{
    if (text.empty())
        return {};
    const int size = static_cast<int>(text.size());
    const int chars = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    if (chars <= 0)
        return {};
    std::wstring wide(static_cast<size_t>(chars), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), chars);
    return wide;
}

std::string wideToUtf8(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int size = static_cast<int>(text.size());
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return {};
    std::string narrow(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, narrow.data(), bytes, nullptr, nullptr);
    return narrow;
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

bool equalsIgnoreCase(std::wstring_view a, std::wstring_view b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
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
