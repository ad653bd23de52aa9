#pragma once
// Interface ids of the MAPI interfaces served here. Written out rather than
// taken from mapi32's import library: this DLL *is* mapi32 for the tests.
#include <windows.h>

// {00020303-0000-0000-C000-000000000046}
inline constexpr IID standInIidMapiProp = {0x00020303, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
// {00020307-0000-0000-C000-000000000046}
inline constexpr IID standInIidMessage = {0x00020307, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
// {00020301-0000-0000-C000-000000000046}
inline constexpr IID standInIidMapiTable = {0x00020301, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
