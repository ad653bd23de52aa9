#pragma once
// Reading the add-in's small UTF-8 text files (install.cfg, resource_<language>.txt).
#include "common/text_lines.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The bytes of a file, at most maxBytes of them; nullopt when the file can't
// be opened. Others may go on writing it while it is read.
std::optional<std::string> readFileBytes(const std::wstring& path, size_t maxBytes = SIZE_MAX);

// Reads a whole UTF-8 file into lines as splitUtf8Lines does; nullopt when the
// file can't be opened or read.
std::optional<std::vector<std::wstring>> readUtf8Lines(const std::wstring& path, size_t maxLineChars);
