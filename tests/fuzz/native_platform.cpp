// What the fuzzed units get from Windows in the add-in, for the native build:
// the log's level and sink (log.cpp), and the system's text conversions
// (common/strings_system.cpp). Lines at KORVANE_FUZZ_LOG_LEVEL and above
// (1 = DEBUG, the default) are built and then dropped, so the log statements
// on the paths fuzzed run too.
#include "core/log_line.h"
#include "common/strings.h"

#include <clocale>
#include <cstdlib>
#include <cwctype>

int activeLogLevel()
{
    static const int level = [] {
        const char* setting = std::getenv("KORVANE_FUZZ_LOG_LEVEL");
        return setting ? std::atoi(setting) : LOG_DEBUG;
    }();
    return level;
}

LogLine::~LogLine()
{
    if (active_)
        static_cast<void>(text_.str());
}

// UTF-16 units, U+FFFD for each byte that starts no valid sequence.
std::wstring utf8ToWide(std::string_view text)
{
    std::wstring wide;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t length = lead < 0x80                   ? 1
                              : lead >= 0xF0 && lead < 0xF5 ? 4
                              : lead >= 0xE0 && lead < 0xF0 ? 3
                              : lead >= 0xC2 && lead < 0xE0 ? 2
                                                            : 0;
        char32_t code = length == 1 ? lead : lead & (0x3F >> length);
        size_t used = 1;
        while (length > 1 && used < length && i + used < text.size() && (text[i + used] & 0xC0) == 0x80)
            code = code << 6 | (text[i + used++] & 0x3F);
        const bool valid = length != 0 && used == length && code >= (length == 3 ? 0x800 : length == 4 ? 0x10000 : 0) &&
                           code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
        if (!valid)
            wide.push_back(0xFFFD);
        else if (code >= 0x10000)
            wide.append({static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10)),
                         static_cast<wchar_t>(0xDC00 + (code & 0x3FF))});
        else
            wide.push_back(static_cast<wchar_t>(code));
        i += valid ? used : 1;
    }
    return wide;
}

// Windows-1252 and Latin-1 agree on everything a test of the parsing needs.
std::wstring ansiToWide(std::string_view text)
{
    return widen(text);
}

wchar_t upperCaseInvariant(wchar_t unit)
{
    static const bool unicodeCase = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    static_cast<void>(unicodeCase);
    return static_cast<wchar_t>(std::towupper(static_cast<wint_t>(unit)) & 0xFFFF);
}
