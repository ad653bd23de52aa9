#include "install/com_registration.h"

#include "core/globals.h"
#include "core/log.h"
#include "common/module_path.h"
#include "common/unique_resource.h"
#include "core/reg_util.h"
#include "korvane_h.h"

#include <olectl.h>

#include <string>

namespace {

Logger logger("korvane");

constexpr const wchar_t* className = L"KVDragDropAddin Class";
constexpr const wchar_t* interfaceName = L"IKVDragDropAddin";
constexpr const wchar_t* typeLibraryName = L"korvane 1.0 Type Library";
constexpr const wchar_t* typeLibraryVersion = L"1.0";
// The automation marshaler (PSOAInterface) for a dual interface.
constexpr const wchar_t* automationProxyStub = L"{00020424-0000-0000-C000-000000000046}";
constexpr const wchar_t* platformKey = sizeof(void*) == 8 ? L"win64" : L"win32";
constexpr DWORD loadAtStartup = 3;

// Sets a registry view for a scope and puts the previous one back.
class ScopedRegistryView {
public:
    explicit ScopedRegistryView(REGSAM view) : previous_(RegUtil::registryView()) { RegUtil::setRegistryView(view); }
    ~ScopedRegistryView() { RegUtil::setRegistryView(previous_); }
    ScopedRegistryView(const ScopedRegistryView&) = delete;
    ScopedRegistryView& operator=(const ScopedRegistryView&) = delete;

private:
    REGSAM previous_;
};

std::wstring guidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::wstring classesRoot(RegistrationScope scope)
{
    return scope == RegistrationScope::Machine ? L"HKCR\\" : L"HKCU\\Software\\Classes\\";
}

std::wstring addinKey(RegistrationScope scope)
{
    return std::wstring(scope == RegistrationScope::Machine ? L"HKLM\\" : L"HKCU\\") + outlookAddinsKey + addinProgId;
}

std::wstring classKey(RegistrationScope scope)
{
    return classesRoot(scope) + L"CLSID\\" + guidText(CLSID_CKVDragDropAddin);
}

std::wstring typeLibraryKey(RegistrationScope scope)
{
    return classesRoot(scope) + L"TypeLib\\" + guidText(LIBID_korvaneLib);
}

std::wstring interfaceKey(RegistrationScope scope)
{
    return classesRoot(scope) + L"Interface\\" + guidText(IID_IKVDragDropAddin);
}

// A key without values, as COM's "Programmable" marker is.
bool createKey(const std::wstring& path)
{
    const RegUtil::KeyPath keyPath = RegUtil::parseKeyPath(path);
    UniqueRegKey key;
    const LSTATUS status = RegCreateKeyExW(keyPath.root, keyPath.subKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                           KEY_WRITE | keyPath.view, nullptr, key.put(), nullptr);
    KV_DEBUG(logger) << "RegCreateKeyEx " << path << " =" << status;
    return status == ERROR_SUCCESS;
}

// Deletes a key that has neither subkeys nor values; true when it did.
bool deleteKeyIfEmpty(const std::wstring& path)
{
    const RegUtil::KeyPath keyPath = RegUtil::parseKeyPath(path);
    UniqueRegKey key;
    if (RegOpenKeyExW(keyPath.root, keyPath.subKey.c_str(), 0, KEY_READ | keyPath.view, key.put()) !=
        ERROR_SUCCESS)
        return false;
    DWORD subKeys = 0;
    DWORD values = 0;
    const bool empty = RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values,
                                        nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS &&
                       subKeys == 0 && values == 0;
    key.reset();
    return empty && RegUtil::deleteKey(path);
}

bool registerClass(RegistrationScope scope, const std::wstring& modulePathText)
{
    const std::wstring root = classesRoot(scope);
    const std::wstring clsid = guidText(CLSID_CKVDragDropAddin);
    const std::wstring versioned = root + addinVersionedProgId;
    const std::wstring independent = root + addinProgId;
    const std::wstring key = classKey(scope);
    // Outlook activates the add-in by the version-independent ProgID; its
    // CLSID subkey serves lookups that don't follow CurVer (Wine's among them).
    return RegUtil::setRegValue(versioned, L"", className) &&
           RegUtil::setRegValue(versioned + L"\\CLSID", L"", clsid) &&
           RegUtil::setRegValue(independent, L"", className) &&
           RegUtil::setRegValue(independent + L"\\CurVer", L"", addinVersionedProgId) &&
           RegUtil::setRegValue(independent + L"\\CLSID", L"", clsid) &&
           RegUtil::setRegValue(key, L"", className) &&
           RegUtil::setRegValue(key + L"\\ProgID", L"", addinVersionedProgId) &&
           RegUtil::setRegValue(key + L"\\VersionIndependentProgID", L"", addinProgId) &&
           createKey(key + L"\\Programmable") &&
           RegUtil::setRegValue(key + L"\\InprocServer32", L"", modulePathText) &&
           RegUtil::setRegValue(key + L"\\InprocServer32", L"ThreadingModel", L"Apartment") &&
           RegUtil::setRegValue(key + L"\\TypeLib", L"", guidText(LIBID_korvaneLib)) &&
           RegUtil::setRegValue(key + L"\\Version", L"", typeLibraryVersion);
}

// The type library is registered by hand rather than with RegisterTypeLib:
// it also describes Office's _IDTExtensibility2 and IRibbonExtensibility, and
// RegisterTypeLib would claim their Interface keys for this library (and
// UnRegisterTypeLib would take them away from Office).
bool registerTypeLibrary(RegistrationScope scope, const std::wstring& modulePathText)
{
    const std::wstring library = typeLibraryKey(scope) + L"\\" + typeLibraryVersion;
    const std::wstring folder = replaceFileName(modulePathText, L"");
    const std::wstring libraryId = guidText(LIBID_korvaneLib);
    const std::wstring iface = interfaceKey(scope);
    return RegUtil::setRegValue(library, L"", typeLibraryName) &&
           RegUtil::setRegValue(library + L"\\0\\" + platformKey, L"", modulePathText) &&
           RegUtil::setRegValue(library + L"\\FLAGS", L"", L"0") &&
           RegUtil::setRegValue(library + L"\\HELPDIR", L"", folder) &&
           RegUtil::setRegValue(iface, L"", interfaceName) &&
           RegUtil::setRegValue(iface + L"\\ProxyStubClsid", L"", automationProxyStub) &&
           RegUtil::setRegValue(iface + L"\\ProxyStubClsid32", L"", automationProxyStub) &&
           RegUtil::setRegValue(iface + L"\\TypeLib", L"", libraryId) &&
           RegUtil::setRegValue(iface + L"\\TypeLib", L"Version", typeLibraryVersion);
}

bool writeOutlookAddinKey(RegistrationScope scope)
{
    const Globals& globals = Globals::instance();
    const std::wstring key = addinKey(scope);
    return RegUtil::setRegDwordValue(key, L"LoadBehavior", loadAtStartup) &&
           RegUtil::setRegValue(key, L"FriendlyName", globals.addinFriendlyName()) &&
           RegUtil::setRegValue(key, L"Description", globals.addinDescription());
}

} // namespace

HRESULT registerComClass(RegistrationScope scope, HMODULE module)
{
    const std::wstring path = modulePath(module, 1000);
    KV_DEBUG(logger) << "registerComClass(forUser=" << (scope == RegistrationScope::CurrentUser) << ", path=" << path;
    HRESULT hr = S_OK;
    if (path.empty()) {
        hr = HRESULT_FROM_WIN32(GetLastError());
    } else {
        ScopedRegistryView view(0);
        if (!registerClass(scope, path))
            hr = SELFREG_E_CLASS;
        else if (!registerTypeLibrary(scope, path))
            hr = SELFREG_E_TYPELIB;
    }
    if (FAILED(hr))
        removeComClass(scope);
    KV_DEBUG(logger) << ")registerComClass=" << hr;
    return hr;
}

bool removeComClass(RegistrationScope scope)
{
    ScopedRegistryView view(0);
    const std::wstring root = classesRoot(scope);
    bool gone = true;
    for (const std::wstring& key : {root + addinVersionedProgId, root + addinProgId, classKey(scope),
                                    typeLibraryKey(scope), interfaceKey(scope)}) {
        // The machine's class containers (CLSID, TypeLib, Interface) are
        // Windows' own; a user's may have been made for this add-in.
        gone = (scope == RegistrationScope::Machine ? RegUtil::deleteKeyIfExists(key)
                                                    : deleteKeyAndEmptyParents(key, L"HKCU\\Software\\Classes")) &&
               gone;
    }
    return gone;
}

HRESULT registerOutlookAddin(RegistrationScope scope)
{
    ScopedRegistryView view(RegUtil::registryView());
    RegUtil::getRegistryViewForOutlooksBitness();
    if (writeOutlookAddinKey(scope))
        return S_OK;
    removeOutlookAddin(scope);
    return SELFREG_E_CLASS;
}

bool removeOutlookAddin(RegistrationScope scope)
{
    ScopedRegistryView view(RegUtil::registryView());
    RegUtil::getRegistryViewForOutlooksBitness();
    // Office's own key stays, even when the add-in's was all that was in it.
    const std::wstring office = scope == RegistrationScope::Machine ? L"HKLM\\Software\\Microsoft\\Office"
                                                                    : L"HKCU\\Software\\Microsoft\\Office";
    return deleteKeyAndEmptyParents(addinKey(scope), office);
}

bool removeProductSettings(RegistrationScope scope)
{
    const Globals& globals = Globals::instance();
    const std::wstring product = L"\\Software\\" + globals.companyName() + L"\\" + globals.productName();
    bool gone = deleteKeyAndEmptyParents(L"HKCU" + product, L"HKCU\\Software");
    if (scope == RegistrationScope::Machine)
        gone = deleteKeyAndEmptyParents(L"HKLM" + product, L"HKLM\\Software") && gone;
    return gone;
}

bool deleteKeyAndEmptyParents(const std::wstring& path, const std::wstring& stopAt)
{
    const bool gone = RegUtil::deleteKeyIfExists(path);
    deleteEmptyKeys(path.substr(0, path.rfind(L'\\')), stopAt);
    return gone;
}

void deleteEmptyKeys(const std::wstring& path, const std::wstring& stopAt)
{
    std::wstring key = path;
    while (key.size() > stopAt.size() && key.compare(0, stopAt.size(), stopAt) == 0 && key[stopAt.size()] == L'\\' &&
           deleteKeyIfEmpty(key))
        key.resize(key.rfind(L'\\'));
}
