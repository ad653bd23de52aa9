#include "support/registry_snapshot.h"

#include "common/strings.h"
#include "common/unique_resource.h"

#include <tuple>

namespace {

void collect(HKEY key, const std::wstring& path, RegistrySnapshot& snapshot)
{
    snapshot.insert(path);
    // The class containers hold thousands of Windows' own keys; their names
    // alone still show a key added or left behind.
    const std::wstring name = path.substr(path.rfind(L'\\') + 1);
    const bool namesOnly = path.find(L"\\Classes\\") != std::wstring::npos &&
                           (equalsIgnoreCase(name, L"CLSID") || equalsIgnoreCase(name, L"Interface") ||
                            equalsIgnoreCase(name, L"TypeLib"));
    std::wstring child(16384, L'\0');  // the longest value name
    DWORD length = 16384;
    for (DWORD i = 0; RegEnumValueW(key, i, child.data(), &length, nullptr, nullptr, nullptr, nullptr) == 0; ++i)
        snapshot.insert(path + L"|" + child.substr(0, std::exchange(length, 16384)));
    length = 16384;
    for (DWORD i = 0; RegEnumKeyExW(key, i, child.data(), &length, nullptr, nullptr, nullptr, nullptr) == 0; ++i) {
        const std::wstring childPath = path + L"\\" + child.substr(0, std::exchange(length, 16384));
        UniqueRegKey childKey;
        if (namesOnly)
            snapshot.insert(childPath);
        else if (RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, childKey.put()) == ERROR_SUCCESS)
            collect(childKey.get(), childPath, snapshot);
    }
}

} // namespace

RegistrySnapshot takeRegistrySnapshot()
{
    RegistrySnapshot snapshot;
    for (auto [root, name] : {std::pair{HKEY_LOCAL_MACHINE, L"HKLM"}, std::pair{HKEY_CURRENT_USER, L"HKCU"}}) {
        UniqueRegKey software;
        if (RegOpenKeyExW(root, L"Software", 0, KEY_READ, software.put()) == ERROR_SUCCESS)
            collect(software.get(), std::wstring(name) + L"\\Software", snapshot);
    }
    return snapshot;
}

std::vector<std::wstring> registryChanges(const RegistrySnapshot& before, const RegistrySnapshot& after)
{
    std::vector<std::wstring> changes;
    for (const auto& [from, to, sign] : {std::tuple{&after, &before, L"+ "}, std::tuple{&before, &after, L"- "}})
        for (const auto& entry : *from)
            if (!to->count(entry))
                changes.push_back(sign + entry);
    return changes;
}

std::string describeChanges(const std::vector<std::wstring>& changes)
{
    std::string text;
    for (const auto& change : changes)
        text += wideToUtf8(change) + "\n";
    return text;
}
