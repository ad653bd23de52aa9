#pragma once
// COM plumbing shared by the MAPI objects served here.
#include <windows.h>

// Interface ids, written out rather than taken from mapi32's import library:
// this DLL *is* mapi32 for the tests.

// {00020303-0000-0000-C000-000000000046}
inline constexpr IID standInIidMapiProp = {0x00020303, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
// {00020307-0000-0000-C000-000000000046}
inline constexpr IID standInIidMessage = {0x00020307, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
// {00020301-0000-0000-C000-000000000046}
inline constexpr IID standInIidMapiTable = {0x00020301, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// Unsupported methods still leave their out parameters empty, so a caller that
// ignores the error does not free garbage.
template <typename T>
void clearOut(T* out)
{
    if (out)
        *out = T{};
}
