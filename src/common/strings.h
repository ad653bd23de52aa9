#pragma once
// String conversions and small text helpers shared by all subsystems.
#include <string>
#include <string_view>

// Widens each narrow character as it stands (for ASCII names and literals).
std::wstring widen(std::string_view text);

// Removes blanks, tabs, CR and LF from both ends.
std::wstring trimBlanks(std::wstring_view text);

bool startsWith(std::wstring_view text, std::wstring_view prefix);

// Leading decimal integer as the C library's _wtoi reads it: optional blanks
// and sign, digits up to the first non-digit, 0 when there are none.
int parseLeadingInt(std::wstring_view text);

// What the system converts and compares for us (strings_system.cpp):

// UTF-8 to UTF-16; invalid sequences become U+FFFD.
std::wstring utf8ToWide(std::string_view text);

// UTF-16 to UTF-8; unpaired surrogates become U+FFFD.
std::string wideToUtf8(std::wstring_view text);

// 8-bit text in the ANSI code page to UTF-16.
std::wstring ansiToWide(std::string_view text);

// Ordinal comparison, each unit upper-cased on its own.
bool equalsIgnoreCase(std::wstring_view a, std::wstring_view b);

// One UTF-16 unit upper-cased by the invariant locale's simple mapping; a unit
// without an upper case comes back as it is.
wchar_t upperCaseInvariant(wchar_t unit);
