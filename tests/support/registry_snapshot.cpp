#include "support/registry_snapshot.h"

#include "common/strings.h"
#include "common/unique_resource.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <iterator>

namespace {

// The class containers hold thousands of Windows' own keys; they are listed
// by name only, which still shows a key added or left behind.
bool classContainer(const std::wstring& path)
{
    const std::wstring name = path.substr(path.rfind(L'\\') + 1);
    return path.find(L"\\Classes\\") != std::wstring::npos &&
           (equalsIgnoreCase(name, L"CLSID") || equalsIgnoreCase(name, L"Interface") ||
            equalsIgnoreCase(name, L"TypeLib"));
}

void collect(HKEY key, const std::wstring& path, RegistrySnapshot& snapshot)
{
    snapshot.insert(path);
    const bool namesOnly = classContainer(path);
    DWORD subKeys = 0, longestSubKey = 0, values = 0, longestValue = 0;
    if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, &longestSubKey, nullptr, &values, &longestValue,
                         nullptr, nullptr, nullptr) != ERROR_SUCCESS)
        return;
    std::wstring name(std::max(longestValue, longestSubKey) + 2, L'\0');
    for (DWORD index = 0; index < values; ++index) {
        DWORD length = static_cast<DWORD>(name.size());
        if (RegEnumValueW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS)
            snapshot.insert(path + L"|" + name.substr(0, length));
    }
    for (DWORD index = 0; index < subKeys; ++index) {
        DWORD length = static_cast<DWORD>(name.size());
        if (RegEnumKeyExW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            continue;
        const std::wstring child = name.substr(0, length);
        if (namesOnly) {
            snapshot.insert(path + L"\\" + child);
            continue;
        }
        UniqueRegKey childKey;
        if (RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, childKey.put()) == ERROR_SUCCESS)
            collect(childKey.get(), path + L"\\" + child, snapshot);
    }
}

} // namespace

RegistrySnapshot takeRegistrySnapshot()
{
    RegistrySnapshot snapshot;
    const struct {
        HKEY root;
        const wchar_t* name;
    } roots[] = {{HKEY_LOCAL_MACHINE, L"HKLM"}, {HKEY_CURRENT_USER, L"HKCU"}};
    for (const auto& root : roots) {
        UniqueRegKey software;
        if (RegOpenKeyExW(root.root, L"Software", 0, KEY_READ, software.put()) == ERROR_SUCCESS)
            collect(software.get(), std::wstring(root.name) + L"\\Software", snapshot);
    }
    return snapshot;
}

std::vector<std::wstring> registryChanges(const RegistrySnapshot& before, const RegistrySnapshot& after)
{
    std::vector<std::wstring> added, removed, changes;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(added));
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(removed));
    for (const auto& entry : added)
        changes.push_back(L"+ " + entry);
    for (const auto& entry : removed)
        changes.push_back(L"- " + entry);
    return changes;
}

std::wstring rawString(HKEY root, const std::wstring& subKey, const wchar_t* valueName)
{
    wchar_t buffer[4096] = {};
    DWORD size = sizeof buffer;
    if (RegGetValueW(root, subKey.c_str(), valueName, RRF_RT_REG_SZ, nullptr, buffer, &size) != ERROR_SUCCESS)
        return L"<missing>";
    return buffer;
}

DWORD rawDword(HKEY root, const std::wstring& subKey, const wchar_t* valueName)
{
    DWORD value = 0xFFFFFFFF;
    DWORD size = sizeof value;
    RegGetValueW(root, subKey.c_str(), valueName, RRF_RT_REG_DWORD, nullptr, &value, &size);
    return value;
}

bool rawKeyExists(HKEY root, const std::wstring& subKey, REGSAM view)
{
    UniqueRegKey key;
    return RegOpenKeyExW(root, subKey.c_str(), 0, KEY_READ | view, key.put()) == ERROR_SUCCESS;
}

std::wstring guidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::string describeChanges(const std::vector<std::wstring>& changes)
{
    std::string text;
    for (const auto& change : changes)
        text += wideToUtf8(change) + "\n";
    return text;
}
