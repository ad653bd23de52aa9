#pragma once
// MAPI property values as the text the item list and the logs show, the same
// whether the value came through MAPI or straight from a .msg storage.
#include <windows.h>

#include "items/code_page.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace PropertyType {
constexpr uint16_t Long = 0x0003;
constexpr uint16_t Error = 0x000A;
constexpr uint16_t Boolean = 0x000B;
constexpr uint16_t LongLong = 0x0014;
constexpr uint16_t String8 = 0x001E;
constexpr uint16_t Unicode = 0x001F;
constexpr uint16_t SysTime = 0x0040;
constexpr uint16_t Binary = 0x0102;
} // namespace PropertyType

constexpr uint16_t propertyTypeOf(uint32_t tag) { return static_cast<uint16_t>(tag & 0xFFFF); }
constexpr uint16_t propertyIdOf(uint32_t tag) { return static_cast<uint16_t>(tag >> 16); }

// The text of a value given as its raw bytes:
// - PT_UNICODE: UTF-16LE code units (a trailing NUL is dropped);
// - PT_STRING8: 8-bit text in `codePage` (a trailing NUL is dropped);
// - PT_SYSTIME: the 8-byte FILETIME as "YYYY-MM-DDTHH:MM:SSZ" (UTC);
// - PT_BINARY: two upper-case hex digits a byte;
// - PT_ERROR: the 4-byte code; empty for MAPI_E_NOT_FOUND, else the number in hex;
// - anything else: empty.
std::wstring propertyText(uint32_t tag, std::string_view bytes, uint32_t codePage = CodePage::machine);

// 8-bit text in a code page; the machine's ANSI code page stands in for 0
// and for a code page this machine can't convert.
std::wstring textInCodePage(std::string_view bytes, uint32_t codePage);

// textInCodePage for the units that take their conversion as a function.
const CodePageDecoder& codePageDecoder();

// FILETIME as "YYYY-MM-DDTHH:MM:SSZ", UTC as it stands.
std::wstring isoTimeOf(const FILETIME& time);

// Bytes as upper-case hex, two digits a byte.
std::wstring hexOf(std::string_view bytes);
