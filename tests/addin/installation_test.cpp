// Installation as installers run it: regsvr32's registration, the rundll32
// commands and the Java setup program's natives of a real copy of the DLL,
// checked in the registry with the raw API, and activation the way Outlook
// finds and creates its add-ins.
#include "addin_host.h"

#include "common/strings.h"
#include "common/unique_resource.h"
#include "install/java_native.h"
#include "support/child_process.h"
#include "support/registry_snapshot.h"

#include <gtest/gtest.h>

#include <deque>

using Microsoft::WRL::ComPtr;

namespace {

constexpr const wchar_t* addinSubKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\KVDragDropAddin.class";
constexpr const wchar_t* productSubKey = L"Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook";
constexpr const wchar_t* ribbonInfoName = L"\\Ribbon.Microsoft.Outlook.Explorer";
constexpr const wchar_t* defaultName = L"Korvane Addin for Microsoft Outlook";

void setRaw(HKEY root, const std::wstring& subKey, const std::wstring& value)
{
    ASSERT_EQ(RegSetKeyValueW(root, subKey.c_str(), nullptr, REG_SZ, value.c_str(),
                              static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
}

// A JNIEnv as a JVM hands it to native methods, over strings of the test.
struct JavaStrings {
    static jsize JNICALL length(JNIEnv*, jstring string)
    {
        return static_cast<jsize>(reinterpret_cast<const std::u16string*>(string)->size());
    }
    static void JNICALL region(JNIEnv*, jstring string, jsize start, jsize count, jchar* buffer)
    {
        const auto* text = reinterpret_cast<const std::u16string*>(string);
        std::copy_n(text->data() + start, count, reinterpret_cast<char16_t*>(buffer));
    }
    JavaStrings()
    {
        table.GetStringLength = &length;
        table.GetStringRegion = &region;
    }
    jstring make(const std::u16string& text) { return reinterpret_cast<jstring>(&strings.emplace_back(text)); }

    JniFunctionTable table{};
    JNIEnv env = &table;
    std::deque<std::u16string> strings;
};

void rundll32(const AddinDll& dll, const char* name, std::wstring params)
{
    auto* function = dll.entryPoint<void CALLBACK(HWND, HINSTANCE, LPWSTR, int)>(name);
    ASSERT_NE(function, nullptr) << name;
    function(nullptr, nullptr, params.data(), SW_HIDE);
}

class Installation : public testing::Test {
protected:
    // Keys that every machine with Outlook has (a fresh Wine prefix lacks
    // them); removal leaves them where they are.
    void SetUp() override
    {
        for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
            for (const wchar_t* subKey : {L"Software\\Microsoft\\Office", L"Software\\Classes"}) {
                UniqueRegKey key;
                ASSERT_EQ(RegCreateKeyExW(root, subKey, 0, nullptr, 0, KEY_READ | KEY_WOW64_64KEY, nullptr,
                                          key.put(), nullptr),
                          ERROR_SUCCESS);
            }
        }
        before = takeRegistrySnapshot();
    }

    HRESULT callExport(const char* name) const
    {
        auto* function = dll.entryPoint<HRESULT STDAPICALLTYPE()>(name);
        return function ? function() : E_NOTIMPL;
    }
    HRESULT dllInstall(BOOL on, const wchar_t* commandLine) const
    {
        auto* function = dll.entryPoint<HRESULT STDAPICALLTYPE(BOOL, LPCWSTR)>("DllInstall");
        return function ? function(on, commandLine) : E_NOTIMPL;
    }
    void rundll32(const char* name, const std::wstring& params) const { ::rundll32(dll, name, params); }
    std::vector<std::wstring> changes() const { return registryChanges(before, takeRegistrySnapshot()); }
    void expectNothingLeft() const
    {
        const auto left = changes();
        EXPECT_TRUE(left.empty()) << describeChanges(left);
    }

    ProductSettingsKey settings;
    ScratchFolder folder;
    AddinDll dll{folder};
    RegistrySnapshot before;
};

} // namespace

TEST_F(Installation, OutlookFindsAndCreatesTheRegisteredAddin)
{
    writeBytes(folder.file(L"install.cfg"), "addinFriendlyName = Korvane under test\naddinDescription = Real files\n");
    ASSERT_EQ(callExport("DllRegisterServer"), S_OK);

    // Outlook's list of add-ins names the ProgID and how to load it.
    EXPECT_EQ(rawDword(HKEY_LOCAL_MACHINE, addinSubKey, L"LoadBehavior"), 3u);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"FriendlyName"), L"Korvane under test");
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"Description"), L"Real files");
    // A registration shows the tab with its localized title.
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, std::wstring(productSubKey) + ribbonInfoName), L"1;");

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
    expectNothingLeft();
    EXPECT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), CO_E_CLASSSTRING);
}

TEST_F(Installation, RegistrationKeepsAnAdministratorsRibbonInfo)
{
    const std::wstring ribbonInfo = std::wstring(productSubKey) + ribbonInfoName;
    setRaw(HKEY_LOCAL_MACHINE, ribbonInfo, L"0;");
    ASSERT_EQ(callExport("DllRegisterServer"), S_OK);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, ribbonInfo), L"0;");
    ASSERT_EQ(callExport("DllUnregisterServer"), S_OK);
}

// Parameter strings as installers hand them over, well-formed or not: the
// scope, names and ribbon info they give, and nothing left after the
// uninstallation with the same string.
TEST_F(Installation, ParameterStringsGiveScopeNamesAndRibbonInfo)
{
    const std::wstring longName(3000, L'n');
    struct Row {
        std::wstring params;
        bool forUser;
        std::wstring friendlyName, description, ribbonInfo;
    } rows[] = {
        {L"\"x\\My Name\\\\user\\2;Mail tools\"", true, L"My Name", defaultName, L"2;Mail tools"},
        {L"", false, defaultName, defaultName, L"1;"},
        {L"x\\Only a name", false, L"Only a name", defaultName, L"1;"},
        {L"x\\A\\B\\machine\\0;\\removeSettings\\extra\\fields", false, L"A", L"B", L"0;"},
        {L"\"\"", false, defaultName, defaultName, L"1;"},
        {L"x\\" + longName + L"\\\\user", true, longName, defaultName, L"1;"},
        {L"x\\K\u00f8rvane \u2603 \u540d\u524d\\D\u00e9j\u00e0 vu\\user\\2;\u00dcbersicht", true,
         L"K\u00f8rvane \u2603 \u540d\u524d", L"D\u00e9j\u00e0 vu", L"2;\u00dcbersicht"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(wideToUtf8(row.params.substr(0, 60)));
        // Each installer run is a process of its own.
        const ScratchFolder runFolder;
        const AddinDll run(runFolder);
        ::rundll32(run, "RunInstallW", row.params);
        const HKEY root = row.forUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
        EXPECT_EQ(rawDword(root, addinSubKey, L"LoadBehavior"), 3u);
        EXPECT_EQ(rawString(root, addinSubKey, L"FriendlyName"), row.friendlyName);
        EXPECT_EQ(rawString(root, addinSubKey, L"Description"), row.description);
        EXPECT_EQ(rawString(root, std::wstring(productSubKey) + ribbonInfoName), row.ribbonInfo);
        EXPECT_EQ(rawString(HKEY_CURRENT_USER, std::wstring(productSubKey) + L"\\InstallForUser"),
                  row.forUser ? L"true" : L"<missing>");
        for (const auto& change : changes()) {
            // A per-user installation never writes the machine's registry.
            EXPECT_TRUE(!row.forUser || startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change);
        }
        ::rundll32(run, "RunUninstallW", row.params);
        expectNothingLeft();
    }
}

TEST_F(Installation, UninstallKeepsTheUsersSettingsUnlessAskedTo)
{
    settings.set(L"Format", L"eml");
    rundll32("RunInstallW", L"x\\\\\\user");
    rundll32("RunInstallW", L"x\\\\\\user"); // twice is the same as once
    rundll32("RunUninstallW", L"x");          // the recorded scope: the user's
    EXPECT_EQ(rawDword(HKEY_CURRENT_USER, addinSubKey, L"LoadBehavior"), 0xFFFFFFFFu);
    EXPECT_EQ(settings.get(L"Format"), L"eml");

    rundll32("RunUninstallW", L"x");  // what isn't there any more
    rundll32("RunUninstallW", L"x\\\\\\user\\\\removeSettings");
    EXPECT_EQ(settings.get(L"Format"), L"");
    expectNothingLeft();
}

TEST_F(Installation, PerUserRegistrationWritesOnlyTheUsersKeys)
{
    ASSERT_EQ(dllInstall(TRUE, L"user"), S_OK);
    const auto written = changes();
    ASSERT_FALSE(written.empty());
    for (const auto& change : written)
        EXPECT_TRUE(startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change);
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, L"Software\\Classes\\KVDragDropAddin.class\\CLSID"),
              guidText(CLSID_CKVDragDropAddin));
    EXPECT_EQ(rawString(HKEY_CURRENT_USER,
                        L"Software\\Classes\\CLSID\\" + guidText(CLSID_CKVDragDropAddin) + L"\\InprocServer32"),
              dll.path());
    ASSERT_EQ(dllInstall(FALSE, L"user"), S_OK);
    expectNothingLeft();
}

TEST_F(Installation, AnUnreadableInstallCfgIsLoggedAndTheDefaultsApply)
{
    const AddinLog log(folder, settings);
    before = takeRegistrySnapshot();
    const std::wstring config = folder.file(L"install.cfg");
    writeBytes(config, "addinFriendlyName = never read\n");
    UniqueFile locked(CreateFileW(config.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(locked);
    rundll32("RunInstallW", L"x\\\\\\user");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), defaultName);
    EXPECT_GE(log.find("install.cfg could not be read"), 0) << log.contents();
    EXPECT_NE(log.contents().find("INFO MsiInstall:"), std::string::npos) << log.contents();
    rundll32("RunUninstallW", L"x\\\\\\user");
}

TEST_F(Installation, Rundll32RunsTheCommandsOfTheFile)
{
    const std::wstring command = L"rundll32.exe " + quoted(dll.path()) + L",RunInstall x\\Via rundll32\\\\user";
    ASSERT_EQ(runProgram(command), 0u);
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"Via rundll32");
    ASSERT_EQ(runProgram(L"rundll32.exe " + quoted(dll.path()) + L",RunUninstall x\\\\\\user"), 0u);
    expectNothingLeft();
}

TEST_F(Installation, JavaSetupProgramInstallsThroughItsNatives)
{
    using Install = jint JNICALL(JNIEnv*, jclass, jstring);
    using SetName = void JNICALL(JNIEnv*, jclass, jstring);
    using OpenLog = void JNICALL(JNIEnv*, jclass, jstring, jint, jboolean);
    using CloseLog = void JNICALL(JNIEnv*, jclass);
    auto* install = dll.entryPoint<Install>("Java_com_quembrook_com_KorvaneDll_nativeInstall");
    auto* uninstall = dll.entryPoint<Install>("Java_com_quembrook_com_KorvaneDll_nativeUninstall");
    auto* setName = dll.entryPoint<SetName>("Java_com_quembrook_com_KorvaneDll_nativeSetProductName");
    auto* openLog = dll.entryPoint<OpenLog>("Java_com_quembrook_com_KorvaneDll_nativeOpenLogFile");
    auto* closeLog = dll.entryPoint<CloseLog>("Java_com_quembrook_com_KorvaneDll_nativeCloseLogFile");
    ASSERT_TRUE(install && uninstall && setName && openLog && closeLog);

    JavaStrings java;
    const std::wstring logPath = folder.file(L"setup.log");
    openLog(&java.env, nullptr, java.make(std::u16string(logPath.begin(), logPath.end())), 1, 0);
    setName(&java.env, nullptr, java.make(u"Korvane Java Test"));
    EXPECT_EQ(install(&java.env, nullptr, java.make(u"setup\\\\Installed by Java\\user\\2;Java")), 0);

    const std::wstring product = L"Software\\QUEMBROOK\\Korvane Java Test";
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"Korvane Java Test");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"Description"), L"Installed by Java");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + ribbonInfoName), L"2;Java");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + L"\\InstallForUser"), L"true");

    EXPECT_EQ(uninstall(&java.env, nullptr, nullptr), 0);  // a null string: the recorded scope
    closeLog(&java.env, nullptr);
    expectNothingLeft();
    // Closed: the setup program may delete its log.
    EXPECT_TRUE(DeleteFileW(logPath.c_str()));
}
