#pragma once
// What a test needs to drive the stand-in mapi32.dll (bin/mapi/mapi32.dll).
// A program in bin/mapi/ run with WINEDLLOVERRIDES=mapi32=n loads it for
// "mapi32.dll", in place of Wine's own, whose OpenIMsgOnIStg aborts.
#include <windows.h>

// Read at every call: "fail" makes OpenIMsgOnIStg return MAPI_E_CORRUPT_DATA.
inline constexpr const wchar_t* standInMapiOpenSwitch = L"KORVANE_STANDIN_MAPI_OPEN";

// Exported by name only the stand-in has, ULONG WINAPI f(void): blocks from
// MAPIAllocateBuffer/MAPIAllocateMore not yet freed.
inline constexpr const char* standInLiveAllocationsExport = "StandInLiveAllocations";
