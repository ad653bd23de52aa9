#pragma once
// String conversions and small text helpers shared by all subsystems.
#include <string>
#include <string_view>

// Widens each narrow character as it stands (for ASCII names and literals).
std::wstring widen(std::string_view text);

// UTF-8 to UTF-16; invalid sequences become U+FFFD.
std::wstring utf8ToWide(std::string_view text);

// UTF-16 to UTF-8; unpaired surrogates become U+FFFD.
std::string wideToUtf8(std::wstring_view text);

// Removes blanks, tabs, CR and LF from both ends.
std::wstring trimBlanks(std::wstring_view text);

bool equalsIgnoreCase(std::wstring_view a, std::wstring_view b);

bool startsWith(std::wstring_view text, std::wstring_view prefix);

// Leading decimal integer as the C library's _wtoi reads it: optional blanks
// and sign, digits up to the first non-digit, 0 when there are none.
int parseLeadingInt(std::wstring_view text);
