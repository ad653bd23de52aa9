#pragma once
// The one place where the add-in touches the registry. Places are named by
// key paths such as "HKCU\Software\Company\Product\Format"; every access uses
// the registry view that matches Outlook's bitness.
#include <windows.h>

#include <string>
#include <string_view>

namespace RegUtil {

struct KeyPath {
    HKEY root;
    std::wstring subKey;
    // The view flag to open it with: the current view, or the 64-bit view when
    // the path names the 32-bit place itself (see parseKeyPath).
    REGSAM view;
};

// Root name before the first backslash (HKLM, HKEY_LOCAL_MACHINE, HKCU,
// HKEY_CURRENT_USER, HKCR, HKEY_CLASSES_ROOT, case-sensitive); anything else
// is a subkey path under HKEY_CURRENT_USER.
// A component "(Wow6432Node)" stands for the 32-bit place of a key on 64-bit
// Windows: when the 32-bit view is in use there it becomes "Wow6432Node" and
// the key is opened in the 64-bit view, so the path names that place whatever
// the redirector would do; otherwise (64-bit view, 32-bit Windows) it is
// dropped. One path thus serves both bitnesses of Outlook.
KeyPath parseKeyPath(std::wstring_view path);

// The view flag ORed into every access: 0, KEY_WOW64_32KEY or KEY_WOW64_64KEY.
REGSAM registryView();
void setRegistryView(REGSAM view);

// Chooses the view of Outlook's bitness for all later accesses.
void getRegistryViewForOutlooksBitness();

// Whether Outlook is 64-bit, from the Office keys; the add-in's own bitness
// when no Outlook is registered.
bool isOutlook64();

// The unnamed value of the key at path, else the value named by the last
// component in the key above it; empty when neither is there. DWORD and
// QWORD values read as decimal text, expandable strings are expanded, a
// multi-string gives its first string.
std::wstring readString(const std::wstring& path);

// Writes a REG_SZ value, creating the keys on the way.
bool setRegValue(const std::wstring& keyName, const std::wstring& valueName, const std::wstring& value);

// Writes a REG_DWORD value (Outlook's LoadBehavior), creating the keys on the way.
bool setRegDwordValue(const std::wstring& keyName, const std::wstring& valueName, DWORD value);

// Deletes the key and everything below it.
bool deleteKey(const std::wstring& path);
// deleteKey when the key can be opened; true when it is gone afterwards.
bool deleteKeyIfExists(const std::wstring& path);
// Deletes one named value of a key; true when it is gone afterwards.
bool deleteValueIfExists(const std::wstring& keyName, const std::wstring& valueName);

} // namespace RegUtil
