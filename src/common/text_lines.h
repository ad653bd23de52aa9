#pragma once
// The lines of the add-in's small UTF-8 text files and their "key = text"
// entries: plain text in and out, whatever bytes the file holds.
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Splits UTF-8 bytes into lines: a leading byte-order mark is skipped, CR LF
// and LF both end a line, invalid UTF-8 becomes U+FFFD, and a line longer than
// maxLineChars is cut there (the rest of it is dropped).
std::vector<std::wstring> splitUtf8Lines(std::string_view bytes, size_t maxLineChars);

// "key = text" split at the first "=", both sides trimmed of blanks, tabs,
// CR and LF; nullopt for a line without "=".
std::optional<std::pair<std::wstring, std::wstring>> splitKeyValue(std::wstring_view line);
