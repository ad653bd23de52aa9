#pragma once
// The JSON text of the item list, piece by piece: names and values are the
// user's file names and mail texts, escaped here whatever they hold.
#include <ostream>
#include <string>

// `count` blanks (none for a negative count), for indenting.
std::wstring jsonIndent(int count);

// The JSON escaping of the item list: \b \t \n \r \" \\ and nothing else.
std::wstring escapeJson(const std::wstring& value);

// indent blanks, "key" : "escaped value" (the caller adds what follows).
void writeJsonValue(std::wostream& out, const std::wstring& key, const std::wstring& value, int indent);

// The last component of a path.
std::wstring fileNameOfPath(const std::wstring& path);
