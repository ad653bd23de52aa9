// Installation as installers run it: regsvr32's registration, the rundll32
// commands and the Java setup program's natives of a real copy of the DLL,
// checked in the registry with the raw API, and activation the way Outlook
// finds and creates its add-ins.
#include "addin_host.h"

#include "common/unique_resource.h"
#include "install/java_native.h"
#include "support/child_process.h"
#include "support/registry_snapshot.h"

#include <deque>

namespace {

constexpr const wchar_t* addinSubKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\KVDragDropAddin.class";
constexpr const wchar_t* defaultName = L"Korvane Addin for Microsoft Outlook";
const std::wstring productSubKey = L"Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook";
const std::wstring ribbonInfoSubKey = productSubKey + L"\\Ribbon.Microsoft.Outlook.Explorer";

// The registry before the installation: with the keys that every machine
// with Outlook has (a fresh Wine prefix lacks them; removal leaves them).
RegistrySnapshot registryBefore()
{
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
        for (const wchar_t* subKey : {L"Software\\Microsoft\\Office", L"Software\\Classes"}) {
            UniqueRegKey key;
            EXPECT_EQ(RegCreateKeyExW(root, subKey, 0, nullptr, 0, KEY_READ, nullptr, key.put(), nullptr), 0);
        }
    }
    return takeRegistrySnapshot();
}

void expectNothingLeft(const RegistrySnapshot& before)
{
    const auto left = registryChanges(before, takeRegistrySnapshot());
    EXPECT_TRUE(left.empty()) << describeChanges(left);
}

HRESULT callExport(HMODULE dll, const char* name) { return exportOf<HRESULT STDAPICALLTYPE()>(dll, name)(); }

void rundll32(HMODULE dll, const char* name, std::wstring params)
{
    exportOf<void CALLBACK(HWND, HINSTANCE, LPWSTR, int)>(dll, name)(nullptr, nullptr, params.data(), SW_HIDE);
}

// A JNIEnv as a JVM hands it to native methods, over strings of the test.
struct JavaStrings {
    static const std::u16string& of(jstring string) { return *reinterpret_cast<const std::u16string*>(string); }
    static jsize JNICALL length(JNIEnv*, jstring string) { return static_cast<jsize>(of(string).size()); }
    static void JNICALL region(JNIEnv*, jstring string, jsize start, jsize count, jchar* buffer)
    {
        std::copy_n(of(string).data() + start, count, reinterpret_cast<char16_t*>(buffer));
    }
    JavaStrings() { table.GetStringLength = &length; table.GetStringRegion = &region; }
    jstring make(const std::u16string& text) { return reinterpret_cast<jstring>(&strings.emplace_back(text)); }

    JniFunctionTable table{};
    JNIEnv env = &table;
    std::deque<std::u16string> strings;
};

} // namespace

TEST_F(Addin, OutlookFindsAndCreatesTheRegisteredAddin)
{
    const RegistrySnapshot before = registryBefore();
    writeBytes(folder.file(L"install.cfg"), "addinFriendlyName = Korvane under test\naddinDescription = Real files\n");
    ASSERT_EQ(callExport(dll.module(), "DllRegisterServer"), S_OK);

    // Outlook's list of add-ins names the ProgID and how to load it.
    EXPECT_EQ(rawDword(HKEY_LOCAL_MACHINE, addinSubKey, L"LoadBehavior"), 3u);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"FriendlyName"), L"Korvane under test");
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"Description"), L"Real files");
    // A registration shows the tab with its localized title.
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, ribbonInfoSubKey), L"1;");

    // The ProgID leads to the class, the class to this file.
    CLSID clsid{};
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_CKVDragDropAddin);
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class.1", &clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_CKVDragDropAddin);
    const std::wstring classKey = L"CLSID\\" + guidText(CLSID_CKVDragDropAddin);
    const std::pair<std::wstring, std::wstring> values[] = {
        {L"KVDragDropAddin.class\\CurVer", L"KVDragDropAddin.class.1"},
        {classKey, L"KVDragDropAddin Class"},
        {classKey + L"\\InprocServer32", folder.file(L"addin-copy.dll")},
        {classKey + L"\\ProgID", L"KVDragDropAddin.class.1"},
        {classKey + L"\\VersionIndependentProgID", L"KVDragDropAddin.class"},
        {classKey + L"\\TypeLib", guidText(LIBID_korvaneLib)},
        {classKey + L"\\Version", L"1.0"},
    };
    for (const auto& [key, value] : values)
        EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, key), value);
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", L"ThreadingModel"), L"Apartment");
    {
        // Activation as Outlook does it: by ProgID, in process.
        ComPtr<_IDTExtensibility2> addin;
        ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&addin)), S_OK);
        ComPtr<IRibbonExtensibility> ribbon;
        EXPECT_EQ(addin.As(&ribbon), S_OK);
        EXPECT_EQ(canUnloadNow(), S_FALSE) << "COM loaded this very copy: its objects hold it";
        ComPtr<ITypeLib> library;
        ComPtr<ITypeInfo> callbacks;
        ASSERT_EQ(LoadRegTypeLib(LIBID_korvaneLib, 1, 0, LOCALE_NEUTRAL, &library), S_OK);
        EXPECT_EQ(library->GetTypeInfoOfGuid(IID_IKVDragDropAddin, &callbacks), S_OK);
    }
    CoFreeUnusedLibrariesEx(0, 0);
    EXPECT_EQ(canUnloadNow(), S_OK);

    ASSERT_EQ(callExport(dll.module(), "DllUnregisterServer"), S_OK);
    expectNothingLeft(before);
    EXPECT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), CO_E_CLASSSTRING);

    // An administrator's ribbon info stays.
    machine(L"Ribbon.Microsoft.Outlook.Explorer", L"0;");
    ASSERT_EQ(callExport(dll.module(), "DllRegisterServer"), S_OK);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, ribbonInfoSubKey), L"0;");
    ASSERT_EQ(callExport(dll.module(), "DllUnregisterServer"), S_OK);
}

// Parameter strings as installers hand them over, well-formed or not: the
// scope, names and ribbon info they give, and nothing left after the
// uninstallation with the same string.
TEST_F(Addin, ParameterStringsGiveScopeNamesAndRibbonInfo)
{
    const RegistrySnapshot before = registryBefore();
    const std::wstring longName(3000, L'n');
    const struct Row {
        std::wstring params;
        bool forUser;
        std::wstring friendlyName, description, ribbonInfo;
    } rows[] = {
        {L"\"x\\My Name\\\\user\\2;Mail tools\"", true, L"My Name", defaultName, L"2;Mail tools"},
        {L"", false, defaultName, defaultName, L"1;"},
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
        const AddinCopy run(runFolder);
        rundll32(run.module(), "RunInstallW", row.params);
        const HKEY root = row.forUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
        EXPECT_EQ(rawDword(root, addinSubKey, L"LoadBehavior"), 3u);
        EXPECT_EQ(rawString(root, addinSubKey, L"FriendlyName"), row.friendlyName);
        EXPECT_EQ(rawString(root, addinSubKey, L"Description"), row.description);
        EXPECT_EQ(rawString(root, ribbonInfoSubKey), row.ribbonInfo);
        EXPECT_EQ(rawString(HKEY_CURRENT_USER, productSubKey + L"\\InstallForUser"),
                  row.forUser ? L"true" : L"<missing>");
        // A per-user installation never writes the machine's registry.
        if (row.forUser) {
            for (const auto& change : registryChanges(before, takeRegistrySnapshot()))
                EXPECT_TRUE(startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change);
        }
        rundll32(run.module(), "RunUninstallW", row.params);
        expectNothingLeft(before);
    }
}

// rundll32 finds the commands of the file; an unreadable install.cfg is
// logged and the defaults apply; uninstalling keeps the user's settings
// unless asked to remove them.
TEST_F(Addin, Rundll32CommandsAndTheUsersSettings)
{
    const RegistrySnapshot before = registryBefore();
    user(L"Format", L"eml");
    user(L"LogFile", folder.file(L"korvane.log"));
    writeBytes(folder.file(L"install.cfg"), "addinFriendlyName = never read\n");
    {
        const std::wstring config = folder.file(L"install.cfg"), dllPath = folder.file(L"addin-copy.dll");
        UniqueFile locked(CreateFileW(config.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_EQ(runProgram(L"rundll32.exe " + quoted(dllPath) + L",RunInstall x\\\\\\user"), 0u);
    }
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), defaultName);
    EXPECT_NE(log().find("install.cfg could not be read"), std::string::npos) << log();
    EXPECT_NE(log().find("INFO MsiInstall:"), std::string::npos) << log();
    rundll32(dll.module(), "RunInstallW", L"x\\\\\\user"); // twice is the same as once
    rundll32(dll.module(), "RunUninstallW", L"x");          // the recorded scope: the user's
    EXPECT_EQ(rawDword(HKEY_CURRENT_USER, addinSubKey, L"LoadBehavior"), 0xFFFFFFFFu);
    EXPECT_EQ(userValue(L"Format"), L"eml");
    rundll32(dll.module(), "RunUninstallW", L"x"); // what isn't there any more
    rundll32(dll.module(), "RunUninstallW", L"x\\\\\\user\\\\removeSettings");
    EXPECT_EQ(userValue(L"Format"), L"");
    expectNothingLeft(before);

    // regsvr32 /i:user: the classes in the user's own place only.
    ASSERT_EQ(exportOf<HRESULT STDAPICALLTYPE(BOOL, LPCWSTR)>(dll.module(), "DllInstall")(TRUE, L"user"), S_OK);
    for (const auto& change : registryChanges(before, takeRegistrySnapshot()))
        EXPECT_TRUE(startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change);
    const std::wstring server = L"Software\\Classes\\CLSID\\" + guidText(CLSID_CKVDragDropAddin) + L"\\InprocServer32";
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, server), folder.file(L"addin-copy.dll"));
    ASSERT_EQ(exportOf<HRESULT STDAPICALLTYPE(BOOL, LPCWSTR)>(dll.module(), "DllInstall")(FALSE, L"user"), S_OK);
    expectNothingLeft(before);
}

TEST_F(Addin, JavaSetupProgramInstallsThroughItsNatives)
{
    const RegistrySnapshot before = registryBefore();
    using Install = jint JNICALL(JNIEnv*, jclass, jstring);
    using SetName = void JNICALL(JNIEnv*, jclass, jstring);
    using OpenLog = void JNICALL(JNIEnv*, jclass, jstring, jint, jboolean);
    const auto java = [this](const char* name) {
        return GetProcAddress(dll.module(), ("Java_com_quembrook_com_KorvaneDll_" + std::string(name)).c_str());
    };
    auto* install = reinterpret_cast<Install*>(java("nativeInstall"));
    auto* uninstall = reinterpret_cast<Install*>(java("nativeUninstall"));
    auto* setName = reinterpret_cast<SetName*>(java("nativeSetProductName"));
    auto* openLog = reinterpret_cast<OpenLog*>(java("nativeOpenLogFile"));
    auto* closeLog = reinterpret_cast<void JNICALL (*)(JNIEnv*, jclass)>(java("nativeCloseLogFile"));
    ASSERT_TRUE(install && uninstall && setName && openLog && closeLog);

    JavaStrings strings;
    const std::wstring logPath = folder.file(L"setup.log");
    openLog(&strings.env, nullptr, strings.make(std::u16string(logPath.begin(), logPath.end())), 1, 0);
    setName(&strings.env, nullptr, strings.make(u"Korvane Java Test"));
    EXPECT_EQ(install(&strings.env, nullptr, strings.make(u"setup\\\\Installed by Java\\user\\2;Java")), 0);

    const std::wstring product = L"Software\\QUEMBROOK\\Korvane Java Test";
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"Korvane Java Test");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"Description"), L"Installed by Java");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + L"\\Ribbon.Microsoft.Outlook.Explorer"), L"2;Java");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + L"\\InstallForUser"), L"true");

    EXPECT_EQ(uninstall(&strings.env, nullptr, nullptr), 0); // a null string: the recorded scope
    closeLog(&strings.env, nullptr);
    expectNothingLeft(before);
    EXPECT_TRUE(DeleteFileW(logPath.c_str())) << "closed: the setup program may delete its log";
}
