// install.cfg and resource_<language>.txt: UTF-8 lines of "key = text".
#include "common/strings.h"
#include "common/text_lines.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const size_t maxLineChars = 999;
    const auto lines = splitUtf8Lines(std::string_view(reinterpret_cast<const char*>(data), size), maxLineChars);
    for (const std::wstring& line : lines) {
        if (line.size() > maxLineChars)
            std::abort();
        if (const auto entry = splitKeyValue(line))
            static_cast<void>(parseLeadingInt(entry->second));
    }
    return 0;
}
