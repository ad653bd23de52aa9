#pragma once
// What a test needs to drive the Redemption stand-in, built in bin/standins/
// under the file name the add-in looks for (redemptionFileName()): the class
// it serves and its switches. A failing call reaches the caller as
// DISP_E_EXCEPTION, the way automation objects report errors.
#include <windows.h>

// The session class, created through the library's own DllGetClassObject.
// {29AB7A12-B531-450E-8F7A-EA94C2F3C05F}
inline constexpr CLSID standInRedemptionSessionClsid = {
    0x29ab7a12, 0xb531, 0x450e, {0x8f, 0x7a, 0xea, 0x94, 0xc2, 0xf3, 0xc0, 0x5f}};

// Read at every call: "fail-decrypt" makes GetDecryptedMessage fail,
// "fail-saveas" makes SaveAs fail.
inline constexpr const wchar_t* standInRedemptionSwitch = L"KORVANE_STANDIN_REDEMPTION";
inline constexpr const wchar_t* standInRedemptionFailDecrypt = L"fail-decrypt";
inline constexpr const wchar_t* standInRedemptionFailSaveAs = L"fail-saveas";
