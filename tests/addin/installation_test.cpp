// Installation as installers run it: regsvr32's registration, the rundll32
// commands and the Java setup program's natives of a real copy of the DLL,
// checked in the registry with the raw API, and activation the way Outlook
// finds and creates its add-ins.
#include "addin_host.h"

#include "common/unique_resource.h"
#include "install/java_native.h"
#include "support/child_process.h"

#include <deque>

namespace {

constexpr const wchar_t* addinSubKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\KVDragDropAddin.class";
constexpr const wchar_t* defaultName = L"Korvane Addin for Microsoft Outlook";

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

// Nothing but new keys and values of the user's own (a per-user installation); nothing at all.
void expectOnlyTheUsersKeys(const RegistrySnapshot& before)
{
    for (const auto& change : registryChanges(before, takeRegistrySnapshot()))
        EXPECT_TRUE(startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change);
}
void expectNothingLeft(const RegistrySnapshot& before)
{
    const auto left = registryChanges(before, takeRegistrySnapshot());
    EXPECT_TRUE(left.empty()) << describeChanges(left);
}

// Outlook's list of add-ins and the settings after an installation for the machine or the user.
void expectInstalled(HKEY root, const std::wstring& name, const std::wstring& description,
                     const std::wstring& ribbonInfo, const std::wstring& product = productKey)
{
    EXPECT_EQ(rawDword(root, addinSubKey, L"LoadBehavior"), 3u) << "loaded at Outlook's start";
    EXPECT_EQ(rawString(root, addinSubKey, L"FriendlyName"), name);
    EXPECT_EQ(rawString(root, addinSubKey, L"Description"), description);
    EXPECT_EQ(rawString(root, product + L"\\Ribbon.Microsoft.Outlook.Explorer"), ribbonInfo);
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + L"\\InstallForUser"),
              root == HKEY_CURRENT_USER ? L"true" : L"<missing>");
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
    jstring operator()(const std::u16string& text) { return reinterpret_cast<jstring>(&strings.emplace_back(text)); }

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
    expectInstalled(HKEY_LOCAL_MACHINE, L"Korvane under test", L"Real files", L"1;"); // the tab, its localized title

    // The ProgID leads to the class, the class to this file.
    CLSID clsid{}, versioned{};
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), S_OK);
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class.1", &versioned), S_OK);
    EXPECT_TRUE(clsid == CLSID_CKVDragDropAddin && versioned == CLSID_CKVDragDropAddin);
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
    const auto canUnloadNow = exportOf<HRESULT STDAPICALLTYPE()>(dll.module(), "DllCanUnloadNow");
    {
        // Activation as Outlook does it: by ProgID, in process.
        ComPtr<_IDTExtensibility2> addin;
        ComPtr<IRibbonExtensibility> ribbon;
        ComPtr<ITypeLib> library;
        ComPtr<ITypeInfo> callbacks;
        ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&addin)), S_OK);
        EXPECT_EQ(addin.As(&ribbon), S_OK);
        EXPECT_EQ(canUnloadNow(), S_FALSE) << "COM loaded this very copy: its objects hold it";
        ASSERT_EQ(LoadRegTypeLib(LIBID_korvaneLib, 1, 0, LOCALE_NEUTRAL, &library), S_OK);
        EXPECT_EQ(library->GetTypeInfoOfGuid(IID_IKVDragDropAddin, &callbacks), S_OK);
    }
    CoFreeUnusedLibrariesEx(0, 0);
    EXPECT_EQ(canUnloadNow(), S_OK);
    ASSERT_EQ(callExport(dll.module(), "DllUnregisterServer"), S_OK);
    expectNothingLeft(before);

    // An administrator's ribbon info (a policy's named value) stays.
    machine(L"Ribbon.Microsoft.Outlook.Explorer", L"0;");
    ASSERT_EQ(callExport(dll.module(), "DllRegisterServer"), S_OK);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, productKey + L"\\Ribbon.Microsoft.Outlook.Explorer"), L"<missing>");
    ASSERT_EQ(callExport(dll.module(), "DllUnregisterServer"), S_OK);
}

// rundll32's commands and the Java setup program's natives with installer
// parameter strings: an unreadable install.cfg is logged and the defaults
// apply; a per-user installation writes the user's registry only;
// uninstalling in the recorded scope keeps the user's settings unless asked
// to remove them, and leaves nothing else.
TEST_F(Addin, Rundll32AndJavaInstallForTheUser)
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
    DeleteFileW(folder.file(L"install.cfg").c_str());
    expectInstalled(HKEY_CURRENT_USER, defaultName, defaultName, L"1;");
    EXPECT_NE(log().find("install.cfg could not be read"), std::string::npos) << log();
    EXPECT_NE(log().find("INFO MsiInstall:"), std::string::npos) << log();
    // Again, with names in any script.
    rundll32(dll.module(), "RunInstallW", L"\"x\\K\u00f8rvane \u2603 \u540d\\D\u00e9j\u00e0 vu\\user\\2;\u00dc\"");
    expectInstalled(HKEY_CURRENT_USER, L"K\u00f8rvane \u2603 \u540d", L"D\u00e9j\u00e0 vu", L"2;\u00dc");
    expectOnlyTheUsersKeys(before);
    rundll32(dll.module(), "RunUninstallW", L"x"); // the recorded scope: the user's
    EXPECT_EQ(rawDword(HKEY_CURRENT_USER, addinSubKey, L"LoadBehavior"), 0xFFFFFFFFu);
    EXPECT_EQ(userValue(L"Format"), L"eml");
    rundll32(dll.module(), "RunUninstallW", L"x"); // what isn't there any more
    rundll32(dll.module(), "RunUninstallW", L"x\\\\\\user\\\\removeSettings");
    EXPECT_EQ(userValue(L"Format"), L"");
    expectNothingLeft(before);

    // regsvr32 /i:user: the classes in the user's own place only.
    const auto dllInstall = exportOf<HRESULT STDAPICALLTYPE(BOOL, LPCWSTR)>(dll.module(), "DllInstall");
    ASSERT_EQ(dllInstall(TRUE, L"user"), S_OK);
    expectOnlyTheUsersKeys(before);
    const std::wstring server = L"Software\\Classes\\CLSID\\" + guidText(CLSID_CKVDragDropAddin) + L"\\InprocServer32";
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, server), folder.file(L"addin-copy.dll"));
    ASSERT_EQ(dllInstall(FALSE, L"user"), S_OK);
    expectNothingLeft(before);

    // The Java setup program (a process of its own) names the product, and has the log it opened closed again.
    const ScratchFolder javaFolder;
    const AddinCopy javaDll(javaFolder);
    const auto java = [&javaDll](const char* name) {
        return GetProcAddress(javaDll.module(), (std::string("Java_com_quembrook_com_KorvaneDll_native") + name).c_str());
    };
    auto* install = reinterpret_cast<jint JNICALL (*)(JNIEnv*, jclass, jstring)>(java("Install"));
    auto* uninstall = reinterpret_cast<jint JNICALL (*)(JNIEnv*, jclass, jstring)>(java("Uninstall"));
    auto* setName = reinterpret_cast<void JNICALL (*)(JNIEnv*, jclass, jstring)>(java("SetProductName"));
    auto* openLog = reinterpret_cast<void JNICALL (*)(JNIEnv*, jclass, jstring, jint, jboolean)>(java("OpenLogFile"));
    auto* closeLog = reinterpret_cast<void JNICALL (*)(JNIEnv*, jclass)>(java("CloseLogFile"));
    ASSERT_TRUE(install && uninstall && setName && openLog && closeLog);
    JavaStrings text;
    const std::wstring logPath = folder.file(L"setup.log");
    openLog(&text.env, nullptr, text(std::u16string(logPath.begin(), logPath.end())), 1, 0);
    setName(&text.env, nullptr, text(u"Korvane Java Test"));
    EXPECT_EQ(install(&text.env, nullptr, text(u"setup\\\\Installed by Java\\user\\2;Java")), 0);
    expectInstalled(HKEY_CURRENT_USER, L"Korvane Java Test", L"Installed by Java", L"2;Java",
                    L"Software\\QUEMBROOK\\Korvane Java Test");
    EXPECT_EQ(uninstall(&text.env, nullptr, nullptr), 0); // a null string: the recorded scope
    closeLog(&text.env, nullptr);
    expectNothingLeft(before);
    EXPECT_TRUE(DeleteFileW(logPath.c_str())) << "closed: the setup program may delete its log";
}
