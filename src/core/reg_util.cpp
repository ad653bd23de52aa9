#include "core/reg_util.h"

#include "core/log.h"
#include "common/unique_resource.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace RegUtil {

namespace {

Logger logger("RegUtil");

REGSAM currentView = 0;

constexpr bool addinIs64 = sizeof(void*) == 8;

std::optional<std::wstring> valueAsText(DWORD type, const std::vector<BYTE>& data, DWORD size)
{
    switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
    case REG_MULTI_SZ: {
        // The buffer is two bytes longer than the data and zeroed, so a value
        // stored without its terminating NUL still ends here.
        const auto* chars = reinterpret_cast<const wchar_t*>(data.data());
        std::wstring text(chars, wcsnlen(chars, size / sizeof(wchar_t)));
        if (type != REG_EXPAND_SZ || text.empty())
            return text;
        const DWORD needed = ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
        std::vector<wchar_t> expanded(needed + 1, L'\0');
        if (needed == 0 || ExpandEnvironmentStringsW(text.c_str(), expanded.data(), needed) == 0)
            return text;
        return std::wstring(expanded.data());
    }
    case REG_DWORD:
        if (size < sizeof(DWORD))
            return std::nullopt;
        return std::to_wstring(*reinterpret_cast<const DWORD*>(data.data()));
    case REG_QWORD:
        if (size < sizeof(ULONGLONG))
            return std::nullopt;
        return std::to_wstring(*reinterpret_cast<const ULONGLONG*>(data.data()));
    default:
        KV_DEBUG(logger) << "value of type " << type << " is not read as text";
        return std::nullopt;
    }
}

std::optional<std::wstring> readValue(const KeyPath& keyPath, const std::wstring& subKey, const wchar_t* valueName)
{
    UniqueRegKey key;
    LSTATUS status = RegOpenKeyExW(keyPath.root, subKey.c_str(), 0, KEY_READ | keyPath.view, key.put());
    if (status != ERROR_SUCCESS)
        return std::nullopt;

    // The value may grow between asking its size and reading it; ask again then.
    for (int attempt = 0; attempt < 4; ++attempt) {
        DWORD type = REG_NONE;
        DWORD size = 0;
        status = RegQueryValueExW(key.get(), valueName, nullptr, &type, nullptr, &size);
        if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA)
            return std::nullopt;
        std::vector<BYTE> data(size + 2 * sizeof(wchar_t), 0);
        DWORD readSize = size;
        status = RegQueryValueExW(key.get(), valueName, nullptr, &type, data.data(), &readSize);
        if (status == ERROR_MORE_DATA)
            continue;
        if (status != ERROR_SUCCESS)
            return std::nullopt;
        return valueAsText(type, data, readSize);
    }
    return std::nullopt;
}

bool onWindows64()
{
    if (addinIs64)
        return true;
    BOOL wow64 = FALSE;
    return IsWow64Process(GetCurrentProcess(), &wow64) && wow64;
}

// Rewrites the "(Wow6432Node)" components of a subkey path; true when the
// path now names the 32-bit place explicitly.
bool expandWow6432Token(std::wstring& subKey)
{
    static constexpr std::wstring_view token = L"(Wow6432Node)";
    if (subKey.find(token) == std::wstring::npos)
        return false;
    const bool thirtyTwoBitPlace =
        onWindows64() && (currentView == KEY_WOW64_32KEY || (currentView == 0 && !addinIs64));
    std::wstring rewritten;
    size_t start = 0;
    while (start <= subKey.size()) {
        const size_t end = std::min(subKey.find(L'\\', start), subKey.size());
        std::wstring_view component = std::wstring_view(subKey).substr(start, end - start);
        start = end + 1;
        if (component == token) {
            if (!thirtyTwoBitPlace)
                continue;
            component = L"Wow6432Node";
        }
        if (!rewritten.empty())
            rewritten += L'\\';
        rewritten += component;
    }
    subKey = std::move(rewritten);
    return thirtyTwoBitPlace;
}

// Views probed for the Office keys, in order.
constexpr REGSAM probedViews[] = {KEY_WOW64_32KEY, KEY_WOW64_64KEY};

} // namespace

KeyPath parseKeyPath(std::wstring_view path)
{
    struct RootName {
        const wchar_t* name;
        HKEY key;
    };
    static const RootName roots[] = {
        {L"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE}, {L"HKLM", HKEY_LOCAL_MACHINE},
        {L"HKEY_CURRENT_USER", HKEY_CURRENT_USER},   {L"HKCU", HKEY_CURRENT_USER},
        {L"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},   {L"HKCR", HKEY_CLASSES_ROOT},
    };
    KeyPath keyPath{HKEY_CURRENT_USER, std::wstring(path), currentView};
    const size_t separator = path.find(L'\\');
    if (separator != std::wstring_view::npos) {
        const std::wstring_view rootName = path.substr(0, separator);
        for (const RootName& root : roots) {
            if (rootName == root.name) {
                keyPath.root = root.key;
                keyPath.subKey = path.substr(separator + 1);
                break;
            }
        }
    }
    if (expandWow6432Token(keyPath.subKey))
        keyPath.view = KEY_WOW64_64KEY;
    return keyPath;
}

REGSAM registryView()
{
    return currentView;
}

void setRegistryView(REGSAM view)
{
    currentView = view;
}

void getRegistryViewForOutlooksBitness()
{
    const bool outl64 = isOutlook64();
    KV_INFO(logger) << "Korvane is " << (addinIs64 ? "64bit" : "32bit");
    currentView = outl64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY;
    KV_DEBUG(logger) << "me64=" << addinIs64 << ", outl64=" << outl64 << ", samflags=" << currentView;
}

bool isOutlook64()
{
    const REGSAM viewBefore = currentView;
    std::wstring bitness;
    for (REGSAM view : probedViews) {
        currentView = view;
        KV_DEBUG(logger) << "set registry view=" << view;
        for (int version = 20; version >= 14 && bitness.empty(); --version) {
            bitness = readString(L"HKLM\\Software\\Microsoft\\Office\\" + std::to_wstring(version) +
                                 L".0\\Outlook\\Bitness");
        }
        if (!bitness.empty())
            break;
    }
    currentView = viewBefore;

    bool outlook64 = addinIs64;
    if (bitness.empty()) {
        KV_WARN(logger) << "Could not detect Outlook bitness, assume Windows bitness=" << addinIs64;
    } else {
        outlook64 = bitness == L"x64";
    }
    KV_INFO(logger) << "Outlook is " << (outlook64 ? "64bit" : "32bit");
    return outlook64;
}

std::wstring readString(const std::wstring& path)
{
    const KeyPath keyPath = parseKeyPath(path);
    std::optional<std::wstring> value = readValue(keyPath, keyPath.subKey, nullptr);
    if (!value || value->empty()) {
        const size_t separator = keyPath.subKey.rfind(L'\\');
        const std::wstring parent = separator == std::wstring::npos ? L"" : keyPath.subKey.substr(0, separator);
        const std::wstring name = keyPath.subKey.substr(separator == std::wstring::npos ? 0 : separator + 1);
        value = readValue(keyPath, parent, name.c_str());
    }
    return value.value_or(L"");
}

bool setRegValue(const std::wstring& keyName, const std::wstring& valueName, const std::wstring& value)
{
    KV_DEBUG(logger) << "setRegValue(keyName=" << keyName << ", valueName=" << valueName << ", value=" << value;
    const KeyPath keyPath = parseKeyPath(keyName);

    UniqueRegKey current;
    HKEY parent = keyPath.root;
    bool ok = true;
    size_t start = 0;
    while (ok && start <= keyPath.subKey.size()) {
        size_t end = keyPath.subKey.find(L'\\', start);
        if (end == std::wstring::npos)
            end = keyPath.subKey.size();
        const std::wstring component = keyPath.subKey.substr(start, end - start);
        start = end + 1;
        if (component.empty())
            continue;
        UniqueRegKey child;
        const LSTATUS status = RegCreateKeyExW(parent, component.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                               KEY_ALL_ACCESS | keyPath.view, nullptr, child.put(), nullptr);
        KV_DEBUG(logger) << "RegCreateKeyEx " << component << " =" << status;
        ok = status == ERROR_SUCCESS;
        if (ok) {
            current = std::move(child);
            parent = current.get();
        }
    }

    if (ok) {
        const DWORD bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
        const LSTATUS status = RegSetValueExW(parent, valueName.empty() ? nullptr : valueName.c_str(), 0, REG_SZ,
                                              reinterpret_cast<const BYTE*>(value.c_str()), bytes);
        KV_DEBUG(logger) << "RegSetValueEx(" << valueName << " =" << status;
        ok = status == ERROR_SUCCESS;
    }
    KV_DEBUG(logger) << ")setRegValue=" << ok;
    return ok;
}

bool setRegDwordValue(const std::wstring& keyName, const std::wstring& valueName, DWORD value)
{
    KV_DEBUG(logger) << "setRegDwordValue(keyName=" << keyName << ", valueName=" << valueName << ", value=" << value;
    const KeyPath keyPath = parseKeyPath(keyName);
    UniqueRegKey key;
    LSTATUS status = RegCreateKeyExW(keyPath.root, keyPath.subKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_ALL_ACCESS | keyPath.view, nullptr, key.put(), nullptr);
    if (status == ERROR_SUCCESS) {
        status = RegSetValueExW(key.get(), valueName.empty() ? nullptr : valueName.c_str(), 0, REG_DWORD,
                                reinterpret_cast<const BYTE*>(&value), sizeof value);
    }
    KV_DEBUG(logger) << ")setRegDwordValue=" << status;
    return status == ERROR_SUCCESS;
}

bool deleteKey(const std::wstring& path)
{
    const KeyPath keyPath = parseKeyPath(path);
    // Never let a malformed path turn into "delete everything under a root".
    if (keyPath.subKey.find_first_not_of(L'\\') == std::wstring::npos) {
        KV_WARN(logger) << "deleteKey refused for " << path;
        return false;
    }
    for (;;) {
        const LSTATUS status = RegDeleteKeyExW(keyPath.root, keyPath.subKey.c_str(), keyPath.view, 0);
        if (status == ERROR_SUCCESS)
            return true;

        // A key with subkeys can't be deleted; take them away one by one.
        UniqueRegKey key;
        if (RegOpenKeyExW(keyPath.root, keyPath.subKey.c_str(), 0, KEY_READ | keyPath.view, key.put()) !=
            ERROR_SUCCESS) {
            KV_DEBUG(logger) << "deleteKey " << path << " err=" << status;
            return false;
        }
        wchar_t name[256] = {};
        DWORD nameLength = 256;
        if (RegEnumKeyExW(key.get(), 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            KV_DEBUG(logger) << "deleteKey " << path << " err=" << status;
            return false;
        }
        key.reset();
        if (!deleteKey(path + L"\\" + name))
            return false;
    }
}

bool deleteKeyIfExists(const std::wstring& path)
{
    const KeyPath keyPath = parseKeyPath(path);
    UniqueRegKey key;
    if (RegOpenKeyExW(keyPath.root, keyPath.subKey.c_str(), 0, KEY_READ | keyPath.view, key.put()) != ERROR_SUCCESS)
        return true;
    key.reset();
    return deleteKey(path);
}

bool deleteValueIfExists(const std::wstring& keyName, const std::wstring& valueName)
{
    const KeyPath keyPath = parseKeyPath(keyName);
    UniqueRegKey key;
    if (RegOpenKeyExW(keyPath.root, keyPath.subKey.c_str(), 0, KEY_SET_VALUE | keyPath.view, key.put()) !=
        ERROR_SUCCESS)
        return true;
    const LSTATUS status = RegDeleteValueW(key.get(), valueName.c_str());
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        KV_DEBUG(logger) << "RegDeleteValue " << valueName << " err=" << status;
        return false;
    }
    return true;
}

} // namespace RegUtil
