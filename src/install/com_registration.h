#pragma once
// Self-registration: the COM class CKVDragDropAddin with its ProgIDs and type
// library, and Outlook's add-in key that makes Outlook load it.
#include <windows.h>

#include <string>

enum class RegistrationScope {
    Machine,     // HKCR and the add-in key under HKLM (administrator rights)
    CurrentUser, // HKCU\Software\Classes and the add-in key under HKCU
};

inline constexpr const wchar_t* addinProgId = L"KVDragDropAddin.class";
inline constexpr const wchar_t* addinVersionedProgId = L"KVDragDropAddin.class.1";
inline constexpr const wchar_t* outlookAddinsKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\";

// The class, its ProgIDs, its type library and interface for `module` (the
// add-in file), in the registry view of the module's own bitness: that is
// where the Outlook that can load the file looks. Nothing is left of it when
// it fails. SELFREG_E_CLASS or SELFREG_E_TYPELIB on failure.
HRESULT registerComClass(RegistrationScope scope, HMODULE module);
// Takes the class away again; true when none of it is left.
bool removeComClass(RegistrationScope scope);

// Outlook's add-in key (LoadBehavior 3, the friendly name and description of
// the settings object) in the view of Outlook's bitness.
HRESULT registerOutlookAddin(RegistrationScope scope);
bool removeOutlookAddin(RegistrationScope scope);

// The add-in's settings: the current user's and, for the machine scope, the
// machine's. Only an explicit choice removes them; an upgrade keeps them.
bool removeProductSettings(RegistrationScope scope);

// Deletes the key, then each key above it that is left empty, up to (not
// including) `stopAt`: the containers made on the way to the add-in's own
// keys go with them, never the ones Windows or Office own.
bool deleteKeyAndEmptyParents(const std::wstring& path, const std::wstring& stopAt);
// The key when it has neither subkeys nor values, and so on upwards.
void deleteEmptyKeys(const std::wstring& path, const std::wstring& stopAt);
