#pragma once
// Small helpers for 8-bit mail header text. Header names and MIME parameter
// names are ASCII and compared without regard to case; the locale must not
// play a part, so these do not use <cctype>.
#include <string>
#include <string_view>

// Tab, line feed, carriage return and blank: the whitespace of header values.
constexpr bool isHeaderWhitespace(char c)
{
    return c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

constexpr char asciiLower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsIgnoreCaseAscii(std::string_view a, std::string_view b);
bool startsWithIgnoreCaseAscii(std::string_view text, std::string_view prefix);

// Removes header whitespace from both ends.
std::string_view trimHeaderWhitespace(std::string_view text);
