// The parts of strings.h that the system does for us: code page conversions
// and case mapping, exactly as Windows performs them.
#include "common/strings.h"

#include <windows.h>

namespace {

std::wstring multiByteToWide(UINT codePage, std::string_view text)
{
    if (text.empty())
        return {};
    const int size = static_cast<int>(text.size());
    const int chars = MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
    if (chars <= 0)
        return {};
    std::wstring wide(static_cast<size_t>(chars), L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), chars);
    return wide;
}

} // namespace

std::wstring utf8ToWide(std::string_view text)
{
    return multiByteToWide(CP_UTF8, text);
}

std::wstring ansiToWide(std::string_view text)
{
    return multiByteToWide(CP_ACP, text);
}

std::string wideToUtf8(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int size = static_cast<int>(text.size());
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return {};
    std::string narrow(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, narrow.data(), bytes, nullptr, nullptr);
    return narrow;
}

bool equalsIgnoreCase(std::wstring_view a, std::wstring_view b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

wchar_t upperCaseInvariant(wchar_t unit)
{
    wchar_t upper = unit;
    if (LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, &unit, 1, &upper, 1) != 1)
        return unit;
    return upper;
}
