#pragma once
// Self-registration: the COM class CKVDragDropAddin with its ProgIDs and type
// library, and Outlook's add-in key that makes Outlook load it.
#include <windows.h>

enum class RegistrationScope {
    Machine,     // HKCR and the add-in key under HKLM (administrator rights)
    CurrentUser, // HKCU\Software\Classes and the add-in key under HKCU
};

inline constexpr const wchar_t* addinProgId = L"KVDragDropAddin.class";
inline constexpr const wchar_t* addinVersionedProgId = L"KVDragDropAddin.class.1";
inline constexpr const wchar_t* outlookAddinsKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\";

// Registers `module` (the add-in file) in the scope. The class keys go into
// the registry view of the module's own bitness, the add-in key into the view
// of Outlook's bitness. On failure what was written is taken away again.
HRESULT registerAddin(RegistrationScope scope, HMODULE module);

// Removes the class, its type library and interface, the add-in key, and the
// add-in's settings: the current user's, and for the machine scope also the
// machine's. An unregistered add-in leaves nothing of itself in the registry,
// not even the keys that were made on the way to its own. S_OK when all of it
// is gone. (A failed registerAddin takes back only what it wrote, never settings.)
HRESULT unregisterAddin(RegistrationScope scope);
