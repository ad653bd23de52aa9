// Self-registration as regsvr32 runs it, activation the way Outlook finds
// and creates its add-ins, and unregistration that leaves the registry as it
// was.
#include "addin_host.h"
#include "registry_snapshot.h"

#include "common/strings.h"
#include "common/unique_resource.h"

#include <gtest/gtest.h>

#include <sstream>

using Microsoft::WRL::ComPtr;

namespace {

constexpr const wchar_t* addinSubKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\KVDragDropAddin.class";

std::wstring guidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

// Values read with the raw API in the 64-bit view: no Outlook is registered
// here, so the add-in takes its own bitness for Outlook's.
LSTATUS rawValue(HKEY root, const std::wstring& subKey, const wchar_t* valueName, DWORD type, void* data,
                 DWORD size)
{
    UniqueRegKey key;
    const LSTATUS status = RegOpenKeyExW(root, subKey.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, key.put());
    if (status != ERROR_SUCCESS)
        return status;
    return RegGetValueW(key.get(), nullptr, valueName, type, nullptr, data, &size);
}

std::wstring rawString(HKEY root, const std::wstring& subKey, const wchar_t* valueName = nullptr)
{
    wchar_t buffer[1024] = {};
    if (rawValue(root, subKey, valueName, RRF_RT_REG_SZ, buffer, sizeof buffer) != ERROR_SUCCESS)
        return L"<missing>";
    return buffer;
}

DWORD rawDword(HKEY root, const std::wstring& subKey, const wchar_t* valueName)
{
    DWORD value = 0;
    if (rawValue(root, subKey, valueName, RRF_RT_REG_DWORD, &value, sizeof value) != ERROR_SUCCESS)
        return 0xFFFFFFFF;
    return value;
}

bool rawKeyExists(HKEY root, const std::wstring& subKey)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, subKey.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

std::string describe(const std::vector<std::wstring>& changes)
{
    std::ostringstream text;
    for (const auto& change : changes)
        text << wideToUtf8(change) << "\n";
    return text.str();
}

class Registration : public testing::Test {
protected:
    // Keys that every machine with Outlook has (a fresh Wine prefix lacks
    // them); unregistration leaves them where they are.
    void SetUp() override
    {
        const std::pair<HKEY, const wchar_t*> keys[] = {{HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Office"},
                                                        {HKEY_CURRENT_USER, L"Software\\Microsoft\\Office"},
                                                        {HKEY_CURRENT_USER, L"Software\\Classes"}};
        for (const auto& [root, subKey] : keys) {
            UniqueRegKey key;
            ASSERT_EQ(RegCreateKeyExW(root, subKey, 0, nullptr, 0, KEY_READ | KEY_WOW64_64KEY, nullptr, key.put(),
                                      nullptr),
                      ERROR_SUCCESS);
        }
    }

    HRESULT callExport(const char* name) const
    {
        auto* function = dll.entryPoint<HRESULT STDAPICALLTYPE()>(name);
        return function ? function() : E_NOTIMPL;
    }

    HRESULT install(BOOL on, const wchar_t* commandLine) const
    {
        auto* function = dll.entryPoint<HRESULT STDAPICALLTYPE(BOOL, LPCWSTR)>("DllInstall");
        return function ? function(on, commandLine) : E_NOTIMPL;
    }

    ProductSettingsKey settings;
    ScratchFolder folder;
    AddinDll dll{folder};
};

} // namespace

TEST_F(Registration, OutlookFindsAndCreatesTheRegisteredAddin)
{
    writeBytes(folder.file(L"install.cfg"), "addinFriendlyName = Korvane under test\naddinDescription = Real files\n");
    const RegistrySnapshot before = takeRegistrySnapshot();
    ASSERT_EQ(callExport("DllRegisterServer"), S_OK);

    // Outlook's list of add-ins names the ProgID and how to load it.
    EXPECT_EQ(rawDword(HKEY_LOCAL_MACHINE, addinSubKey, L"LoadBehavior"), 3u);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"FriendlyName"), L"Korvane under test");
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"Description"), L"Real files");

    // The ProgID leads to the class, the class to this file.
    CLSID clsid{};
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_CKVDragDropAddin);
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class.1", &clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_CKVDragDropAddin);
    const std::wstring classKey = L"CLSID\\" + guidText(CLSID_CKVDragDropAddin);
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, L"KVDragDropAddin.class\\CurVer"), L"KVDragDropAddin.class.1");
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey), L"KVDragDropAddin Class");
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32"), dll.path());
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", L"ThreadingModel"), L"Apartment");
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\ProgID"), L"KVDragDropAddin.class.1");
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\VersionIndependentProgID"), L"KVDragDropAddin.class");
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\TypeLib"), guidText(LIBID_korvaneLib));
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\Version"), L"1.0");
    EXPECT_TRUE(rawKeyExists(HKEY_CLASSES_ROOT, classKey + L"\\Programmable"));

    {
        // Activation as Outlook does it: by ProgID, in process.
        ComPtr<_IDTExtensibility2> addin;
        ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&addin)), S_OK);
        ComPtr<IRibbonExtensibility> ribbon;
        EXPECT_EQ(addin.As(&ribbon), S_OK);
        // COM loaded this very copy: its objects hold it.
        EXPECT_EQ(dll.canUnloadNow(), S_FALSE);

        ComPtr<ITypeLib> library;
        ASSERT_EQ(LoadRegTypeLib(LIBID_korvaneLib, 1, 0, LOCALE_NEUTRAL, &library), S_OK);
        ComPtr<ITypeInfo> callbacks;
        EXPECT_EQ(library->GetTypeInfoOfGuid(IID_IKVDragDropAddin, &callbacks), S_OK);
    }
    CoFreeUnusedLibrariesEx(0, 0);
    EXPECT_EQ(dll.canUnloadNow(), S_OK);

    ASSERT_EQ(callExport("DllUnregisterServer"), S_OK);
    const auto changes = registryChanges(before, takeRegistrySnapshot());
    EXPECT_TRUE(changes.empty()) << describe(changes);
    EXPECT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), CO_E_CLASSSTRING);
}

TEST_F(Registration, PerUserInstallWritesOnlyTheUsersKeys)
{
    const RegistrySnapshot before = takeRegistrySnapshot();
    ASSERT_EQ(install(TRUE, L"user"), S_OK);

    const auto changes = registryChanges(before, takeRegistrySnapshot());
    ASSERT_FALSE(changes.empty());
    for (const auto& change : changes)
        EXPECT_TRUE(startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change);

    const std::wstring classes = L"Software\\Classes\\";
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, classes + L"KVDragDropAddin.class\\CLSID"),
              guidText(CLSID_CKVDragDropAddin));
    EXPECT_EQ(rawString(HKEY_CURRENT_USER,
                        classes + L"CLSID\\" + guidText(CLSID_CKVDragDropAddin) + L"\\InprocServer32"),
              dll.path());
    EXPECT_EQ(rawDword(HKEY_CURRENT_USER, addinSubKey, L"LoadBehavior"), 3u);
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"Korvane Addin for Microsoft Outlook");
    // The next start of the add-in learns that it was installed for this user only.
    EXPECT_EQ(settings.get(L"InstallForUser"), L"true");

    ASSERT_EQ(install(FALSE, L"user"), S_OK);
    const auto left = registryChanges(before, takeRegistrySnapshot());
    EXPECT_TRUE(left.empty()) << describe(left);
}

TEST_F(Registration, UnregisteringWhatIsNotRegisteredChangesNothing)
{
    const RegistrySnapshot before = takeRegistrySnapshot();
    EXPECT_EQ(callExport("DllUnregisterServer"), S_OK);
    EXPECT_EQ(install(FALSE, L"user"), S_OK);
    const auto changes = registryChanges(before, takeRegistrySnapshot());
    EXPECT_TRUE(changes.empty()) << describe(changes);
}
