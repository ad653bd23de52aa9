#pragma once
// MAPI property values as the text the item list and the logs show, the same
// whether the value came through MAPI or straight from a .msg storage.
#include <windows.h>

#include "items/code_page.h"
#include "items/stored_properties.h"

#include <cstdint>
#include <string>
#include <string_view>

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
