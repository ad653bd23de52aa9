#pragma once
// Reading the add-in's small UTF-8 text files (install.cfg, resource_<language>.txt).
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Splits UTF-8 bytes into lines: a leading byte-order mark is skipped, CR LF
// and LF both end a line, invalid UTF-8 becomes U+FFFD, and a line longer than
// maxLineChars is cut there (the rest of it is dropped).
std::vector<std::wstring> splitUtf8Lines(std::string_view bytes, size_t maxLineChars);

// The bytes of a file, at most maxBytes of them; nullopt when the file can't
// be opened. Others may go on writing it while it is read.
std::optional<std::string> readFileBytes(const std::wstring& path, size_t maxBytes = SIZE_MAX);

// Reads a whole UTF-8 file into lines as splitUtf8Lines does; nullopt when the
// file can't be opened or read.
std::optional<std::vector<std::wstring>> readUtf8Lines(const std::wstring& path, size_t maxLineChars);

// "key = text" split at the first "=", both sides trimmed of blanks, tabs,
// CR and LF; nullopt for a line without "=".
std::optional<std::pair<std::wstring, std::wstring>> splitKeyValue(std::wstring_view line);
