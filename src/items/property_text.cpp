#include "items/property_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t mapiErrorNotFound = 0x8004010F;

} // namespace

std::wstring isoTimeOf(const FILETIME& time)
{
    SYSTEMTIME utc{};
    if (!FileTimeToSystemTime(&time, &utc))
        return L"";
    wchar_t text[32] = {};
    swprintf(text, 32, L"%04u-%02u-%02uT%02u:%02u:%02uZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute,
             utc.wSecond);
    return text;
}

std::wstring textInCodePage(std::string_view bytes, uint32_t codePage)
{
    if (bytes.empty())
        return L"";
    if (codePage == CodePage::machine || !IsValidCodePage(codePage))
        codePage = CP_ACP;
    // Text beyond 2 GiB is no property value; it is cut there.
    const int size = static_cast<int>(std::min<size_t>(bytes.size(), 0x7FFFFFFF));
    const int chars = MultiByteToWideChar(codePage, 0, bytes.data(), size, nullptr, 0);
    std::wstring text(chars > 0 ? chars : 0, L'\0');
    if (chars > 0)
        MultiByteToWideChar(codePage, 0, bytes.data(), size, text.data(), chars);
    return text;
}

const CodePageDecoder& codePageDecoder()
{
    static const CodePageDecoder decoder = [](std::string_view bytes, uint32_t codePage) {
        const std::wstring text = textInCodePage(bytes, codePage);
        return std::u16string(text.begin(), text.end());
    };
    return decoder;
}

std::wstring hexOf(std::string_view bytes)
{
    static const wchar_t digits[] = L"0123456789ABCDEF";
    std::wstring hex;
    hex.reserve(bytes.size() * 2);
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

std::wstring propertyText(uint32_t tag, std::string_view bytes, uint32_t codePage)
{
    switch (propertyTypeOf(tag)) {
    case PropertyType::Unicode: {
        std::wstring text(bytes.size() / 2, L'\0');
        std::memcpy(text.data(), bytes.data(), text.size() * 2);
        const size_t end = text.find(L'\0');
        if (end != std::wstring::npos)
            text.resize(end);
        return text;
    }
    case PropertyType::String8:
        return textInCodePage(bytes.substr(0, bytes.find('\0')), codePage);
    case PropertyType::SysTime: {
        if (bytes.size() < sizeof(FILETIME))
            return L"";
        FILETIME time{};
        std::memcpy(&time, bytes.data(), sizeof time);
        return isoTimeOf(time);
    }
    case PropertyType::Binary:
        return hexOf(bytes);
    case PropertyType::Error: {
        if (bytes.size() < 4)
            return L"";
        uint32_t code = 0;
        std::memcpy(&code, bytes.data(), 4);
        if (code == mapiErrorNotFound)
            return L"";
        wchar_t text[16] = {};
        swprintf(text, 16, L"0x%08X", code);
        return text;
    }
    default:
        return L"";
    }
}
