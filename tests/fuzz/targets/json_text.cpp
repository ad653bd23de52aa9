// File names and mail texts in the item list's JSON: the escaped value must
// read back as the value and leave no quote or line break unescaped.
#include "items/json_text.h"

#include <cstdlib>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::wstring value;
    for (size_t i = 0; i + 1 < size; i += 2)
        value.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
    const std::wstring escaped = escapeJson(value);
    std::wstring unescaped;
    for (size_t i = 0; i < escaped.size(); ++i) {
        wchar_t c = escaped[i];
        if (c == L'"' || c == L'\n' || c == L'\r' || (c == L'\\' && i + 1 == escaped.size()))
            std::abort();
        if (c == L'\\') {
            const wchar_t code = escaped[++i];
            c = code == L'b' ? L'\b' : code == L't' ? L'\t' : code == L'n' ? L'\n' : code == L'r' ? L'\r' : code;
        }
        unescaped.push_back(c);
    }
    if (unescaped != value)
        std::abort();
    std::wostringstream out;
    writeJsonValue(out, L"fileName", fileNameOfPath(value), static_cast<int>(size % 9) - 1);
    return 0;
}
