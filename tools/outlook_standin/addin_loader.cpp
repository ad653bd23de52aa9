#include "addin_loader.h"

#include "e2e_shared/drop_report.h"

#include "common/unique_resource.h"

#include <oleauto.h>

#include <set>

namespace {

using Microsoft::WRL::ComPtr;

constexpr const wchar_t* addinsKey = L"Software\\Microsoft\\Office\\Outlook\\Addins";
constexpr DWORD loadAtStartup = 1;  // bit 0: loaded; 3 is "load at start" as installers write it

// An empty SAFEARRAY of variants, as Office passes for "custom".
class CustomArray {
public:
    CustomArray() : array_(SafeArrayCreateVector(VT_VARIANT, 0, 0)) {}
    ~CustomArray()
    {
        if (array_)
            SafeArrayDestroy(array_);
    }
    CustomArray(const CustomArray&) = delete;
    CustomArray& operator=(const CustomArray&) = delete;
    SAFEARRAY** get() { return &array_; }

private:
    SAFEARRAY* array_;
};

void collect(HKEY root, const wchar_t* rootName, REGSAM view, std::set<std::wstring>& seen,
             std::vector<AddinKey>& keys)
{
    UniqueRegKey addins;
    if (RegOpenKeyExW(root, addinsKey, 0, KEY_READ | view, addins.put()) != ERROR_SUCCESS)
        return;
    for (DWORD index = 0;; ++index) {
        wchar_t name[256] = {};
        DWORD length = 256;
        if (RegEnumKeyExW(addins.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        UniqueRegKey addin;
        DWORD behavior = 0;
        DWORD size = sizeof(behavior);
        if (RegOpenKeyExW(addins.get(), name, 0, KEY_READ | view, addin.put()) != ERROR_SUCCESS ||
            RegQueryValueExW(addin.get(), L"LoadBehavior", nullptr, nullptr, reinterpret_cast<BYTE*>(&behavior),
                             &size) != ERROR_SUCCESS)
            continue;
        if (!(behavior & loadAtStartup) || !seen.insert(name).second)
            continue;
        keys.push_back({name, std::wstring(rootName) + L"\\" + addinsKey + L"\\" + name, behavior});
    }
}

double since(int64_t start)
{
    return ticksToMilliseconds(performanceTicks() - start);
}

} // namespace

std::vector<AddinKey> findAddinKeys()
{
    std::vector<AddinKey> keys;
    std::set<std::wstring> seen;
    for (REGSAM view : {KEY_WOW64_64KEY, KEY_WOW64_32KEY}) {
        collect(HKEY_CURRENT_USER, L"HKCU", view, seen, keys);
        collect(HKEY_LOCAL_MACHINE, L"HKLM", view, seen, keys);
    }
    return keys;
}

HRESULT createAddin(const AddinKey& key, LoadedAddin& addin)
{
    addin.progId = key.progId;
    addin.keyPath = key.keyPath;
    CLSID clsid{};
    HRESULT hr = CLSIDFromProgID(key.progId.c_str(), &clsid);
    if (FAILED(hr))
        return hr;
    ComPtr<IUnknown> object;
    hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object);
    if (FAILED(hr))
        return hr;
    hr = object.As(&addin.connection);
    if (FAILED(hr))
        return hr;
    // Both are optional for an add-in; Outlook asks and does without.
    object.As(&addin.ribbon);
    object.As(&addin.callbacks);
    return S_OK;
}

HRESULT connectAddin(LoadedAddin& addin, IDispatch* application, ConnectionTimes& times)
{
    CustomArray custom;
    int64_t start = performanceTicks();
    // Outlook hands the add-in its COMAddIn object; the application stands in for it here.
    HRESULT hr = addin.connection->OnConnection(application, ext_cm_Startup, application, custom.get());
    times.onConnection = since(start);
    if (FAILED(hr))
        return hr;
    start = performanceTicks();
    hr = addin.connection->OnAddInsUpdate(custom.get());
    times.onAddInsUpdate = since(start);
    if (FAILED(hr))
        return hr;
    start = performanceTicks();
    hr = addin.connection->OnStartupComplete(custom.get());
    times.onStartupComplete = since(start);
    return hr;
}

HRESULT disconnectAddin(LoadedAddin& addin, ConnectionTimes& times)
{
    if (!addin.connection)
        return E_POINTER;
    CustomArray custom;
    int64_t start = performanceTicks();
    const HRESULT shutdown = addin.connection->OnBeginShutdown(custom.get());
    times.onBeginShutdown = since(start);
    start = performanceTicks();
    const HRESULT disconnect = addin.connection->OnDisconnection(ext_dm_HostShutdown, custom.get());
    times.onDisconnection = since(start);
    return FAILED(shutdown) ? shutdown : disconnect;
}
