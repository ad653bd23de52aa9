#pragma once
// Every key and value name under HKLM\Software and HKCU\Software (32-bit views
// included: below Wow6432Node), to prove that something leaves the registry as
// it found it; and raw reads, to check what was written without the add-in's helper.
#include <windows.h>
#include <objbase.h>

#include <set>
#include <string>
#include <vector>

// Keys as "HKLM\Software\..." and values as key + "|" + value name; of the
// class containers (CLSID, Interface, TypeLib) only the names of their keys.
using RegistrySnapshot = std::set<std::wstring>;
RegistrySnapshot takeRegistrySnapshot();
// What `after` has that `before` hasn't ("+ " entry), and the reverse ("- ").
std::vector<std::wstring> registryChanges(const RegistrySnapshot& before, const RegistrySnapshot& after);
std::string describeChanges(const std::vector<std::wstring>& changes);  // one to a line

// A raw read in this program's own view.
inline std::wstring rawString(HKEY root, const std::wstring& subKey, const wchar_t* valueName = nullptr)
{
    wchar_t buffer[4096] = {};
    DWORD size = sizeof buffer;
    const LSTATUS status = RegGetValueW(root, subKey.c_str(), valueName, RRF_RT_REG_SZ, nullptr, buffer, &size);
    return status == ERROR_SUCCESS ? buffer : L"<missing>";
}
inline std::wstring guidText(REFGUID guid)  // {XXXXXXXX-...}, as the registry writes it
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}
