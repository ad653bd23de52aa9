#pragma once
// Every key and value name under HKLM\Software and HKCU\Software (32-bit
// views included, they live below Wow6432Node), to prove that something
// leaves the registry as it found it. Of the class containers (CLSID,
// Interface, TypeLib) only the names of their keys are taken.
#include <windows.h>

#include <set>
#include <string>
#include <vector>

using RegistrySnapshot = std::set<std::wstring>;

// Keys as "HKLM\Software\..." and values as key + "|" + value name.
RegistrySnapshot takeRegistrySnapshot();

// What `after` has that `before` hasn't, and the reverse, each entry marked "+ " or "- ".
std::vector<std::wstring> registryChanges(const RegistrySnapshot& before, const RegistrySnapshot& after);
// The changes one to a line, for a failure message.
std::string describeChanges(const std::vector<std::wstring>& changes);

// What the registry holds, read with the raw API (this program's own view
// unless `view` says otherwise), to check what the add-in wrote without
// trusting the add-in's own registry helper.
std::wstring rawString(HKEY root, const std::wstring& subKey, const wchar_t* valueName = nullptr);  // "<missing>"
DWORD rawDword(HKEY root, const std::wstring& subKey, const wchar_t* valueName);                     // 0xFFFFFFFF
bool rawKeyExists(HKEY root, const std::wstring& subKey, REGSAM view = 0);

// A GUID as the registry writes it, {XXXXXXXX-...}.
std::wstring guidText(REFGUID guid);
