#pragma once
// What a test needs to drive the Redemption stand-in (built as
// bin/standins/Redemption64.dll, Redemption.dll on i686): the class it
// serves, its switches and the errors it answers with. A failing call reaches
// the caller as DISP_E_EXCEPTION with the code below in EXCEPINFO::scode, the
// way automation objects report errors.
#include <windows.h>

// The session class, created through the library's own DllGetClassObject.
// {29AB7A12-B531-450E-8F7A-EA94C2F3C05F}
inline constexpr CLSID standInRedemptionSessionClsid = {
    0x29ab7a12, 0xb531, 0x450e, {0x8f, 0x7a, 0xea, 0x94, 0xc2, 0xf3, 0xc0, 0x5f}};

// The file name the add-in looks for beside itself.
#ifdef _WIN64
inline constexpr const wchar_t* standInRedemptionFileName = L"Redemption64.dll";
#else
inline constexpr const wchar_t* standInRedemptionFileName = L"Redemption.dll";
#endif

// Read at every call: "fail-decrypt" makes GetDecryptedMessage fail,
// "fail-saveas" makes SaveAs fail.
inline constexpr const wchar_t* standInRedemptionSwitch = L"KORVANE_STANDIN_REDEMPTION";
inline constexpr const wchar_t* standInRedemptionFailDecrypt = L"fail-decrypt";
inline constexpr const wchar_t* standInRedemptionFailSaveAs = L"fail-saveas";

// What the switches make the calls fail with.
inline constexpr HRESULT standInRedemptionDecryptError = E_ACCESSDENIED;
inline constexpr HRESULT standInRedemptionSaveAsError = STG_E_CANTSAVE;
