// What setup programs call besides the packages' custom actions: rundll32's
// commands and the Java setup program's natives on a real copy of the DLL;
// and every edge into the add-in answering an exception inside as its failure.
#include "addin_host.h"

#include "addin/class_factory.h"
#include "addin/delayed_drag_drop_start.h"
#include "addin/kv_drag_drop_addin.h"
#include "install/base64_files.h"
#include "install/installer_entry_points.h"
#include "install/java_native.h"
#include "support/child_process.h"
#include "support/injected_fault.h"

#include <olectl.h>
#include <shlwapi.h>

#include <deque>
#include <functional>

namespace {

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

// A per-user installation writes the user's registry only; uninstalling in the
// recorded scope keeps the user's settings unless asked to remove them.
TEST_F(Addin, Rundll32AndJavaInstallForTheUser)
{
    const RegistrySnapshot before = registryBeforeInstalling();
    const auto expectInstalled = [&before](const std::wstring& name, const std::wstring& ribbonInfo,
                                           const std::wstring& product) {
        EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), name);
        EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + L"\\Ribbon.Microsoft.Outlook.Explorer"), ribbonInfo);
        EXPECT_EQ(rawString(HKEY_CURRENT_USER, product + L"\\InstallForUser"), L"true");
        for (const auto& change : registryChanges(before, takeRegistrySnapshot()))
            EXPECT_TRUE(startsWith(change, L"+ HKCU\\Software\\")) << wideToUtf8(change) << ": the user's keys only";
    };
    const auto expectNothingLeft = [&before] {
        const auto left = registryChanges(before, takeRegistrySnapshot());
        EXPECT_TRUE(left.empty()) << describeChanges(left);
    };
    user(L"Format", L"eml");
    user(L"LogFile", folder.file(L"korvane.log"));
    writeBytes(folder.file(L"install.cfg"), "addinFriendlyName = never read\n");
    {
        const std::wstring config = folder.file(L"install.cfg"), dllPath = folder.file(L"addin-copy.dll");
        const HANDLE locked = CreateFileW(config.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_EQ(runProgram(L"rundll32.exe " + quoted(dllPath) + L",RunInstall x\\\\\\user"), 0u);
        CloseHandle(locked);
    }
    expectInstalled(Globals::defaultProductName, L"1;", productKey);
    EXPECT_NE(log().find("install.cfg could not be read"), std::string::npos) << log();
    EXPECT_NE(log().find("INFO MsiInstall:"), std::string::npos) << log();
    DeleteFileW(folder.file(L"install.cfg").c_str());
    const auto rundll32 = [this](const char* name, std::wstring params) {
        exportOf<void CALLBACK(HWND, HINSTANCE, LPWSTR, int)>(dll.module(), name)(nullptr, nullptr, params.data(), 0);
    };
    rundll32("RunInstallW", L"\"x\\K\u00f8rvane \u2603 \u540d\\D\u00e9j\u00e0 vu\\user\\2;\u00dc\"");
    expectInstalled(L"K\u00f8rvane \u2603 \u540d", L"2;\u00dc", productKey);
    rundll32("RunUninstallW", L"x"); // the recorded scope: the user's
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"<missing>");
    EXPECT_EQ(userValue(L"Format"), L"eml");
    rundll32("RunUninstallW", L"x\\\\\\user\\\\removeSettings");
    expectNothingLeft();

    // The Java setup program (a process of its own: a fresh copy) names the
    // product and closes the log it opened.
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
    expectInstalled(L"Korvane Java Test", L"2;Java", L"Software\\QUEMBROOK\\Korvane Java Test");
    EXPECT_EQ(uninstall(&text.env, nullptr, nullptr), 0); // a null string: the recorded scope
    closeLog(&text.env, nullptr);
    expectNothingLeft();
    EXPECT_TRUE(DeleteFileW(logPath.c_str())) << "closed: the setup program may delete its log";
}

// Objects and exports of this program itself (the DLL's entry sources are
// built into it), so that the test seam reaches them.
TEST_F(Addin, AnExceptionAtAnyEdgeIsAnsweredAsItsFailure)
{
    ComPtr<IKVDragDropAddin> addin;
    ComPtr<_IDTExtensibility2> connection;
    ComPtr<IRibbonExtensibility> ribbon;
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(CKVDragDropAddin::create(nullptr, IID_PPV_ARGS(&addin)), S_OK);
    ASSERT_TRUE(SUCCEEDED(addin.As(&connection)) && SUCCEEDED(addin.As(&ribbon)));
    ASSERT_EQ(createKVDragDropAddinFactory(IID_PPV_ARGS(&factory)), S_OK);
    const OwnedVariant control = ribbonControl(L"bnOnOff");
    IDispatch* button = control.get().pdispVal;
    VARIANT argument = control.get();
    DISPPARAMS params{&argument, nullptr, 1, 0};
    UniqueVariant result;
    BSTR text = nullptr;
    void* made = nullptr;
    const OwnedVariant explorer = variant(std::wstring(L"Microsoft.Outlook.Explorer"));

    const struct {
        const char* edge;
        HRESULT answer;
        std::function<HRESULT()> call;
    } edges[] = {
        {"OnConnection", S_OK, [&] { return connection->OnConnection(nullptr, ext_cm_Startup, nullptr, nullptr); }},
        {"OnAddInsUpdate", S_OK, [&] { return connection->OnAddInsUpdate(nullptr); }},
        {"OnBeginShutdown", S_OK, [&] { return connection->OnBeginShutdown(nullptr); }},
        {"OnDisconnection", S_OK, [&] { return connection->OnDisconnection(ext_dm_HostShutdown, nullptr); }},
        {"GetCustomUI", S_OK, [&] { return ribbon->GetCustomUI(explorer.get().bstrVal, &text); }},
        {"Ribbon_onAction", S_OK, [&] { return addin->Ribbon_onAction(button, VARIANT_TRUE); }},
        {"Ribbon_getLabel", E_OUTOFMEMORY, [&] { return addin->Ribbon_getLabel(button, &text); }},
        {"IKVDragDropAddin::Invoke", E_OUTOFMEMORY,
         [&] { return addin->Invoke(43, IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), nullptr, nullptr); }},
        {"CreateInstance", E_OUTOFMEMORY, [&] { return factory->CreateInstance(nullptr, IID_IUnknown, &made); }},
        {"DllGetClassObject", E_OUTOFMEMORY,
         [&] { return DllGetClassObject(CLSID_CKVDragDropAddin, IID_IClassFactory, &made); }},
        {"DllCanUnloadNow", E_OUTOFMEMORY, [] { return DllCanUnloadNow(); }},
        {"DllRegisterServer", E_OUTOFMEMORY, [] { return DllRegisterServer(); }},
        {"DllInstall", E_OUTOFMEMORY, [] { return DllInstall(TRUE, L"user"); }},
        {"EncodeBase64", E_OUTOFMEMORY, [] { return EncodeBase64(L"C:\\in.png", L"C:\\out.txt"); }},
        {"Install", HRESULT(ERROR_INSTALL_FAILURE), [] { return HRESULT(Install(0)); }},
        {"nativeUninstall", E_OUTOFMEMORY,
         [] { return HRESULT(Java_com_quembrook_com_KorvaneDll_nativeUninstall(nullptr, nullptr, nullptr)); }},
    };
    const LogCapture log(LOG_ERROR);
    for (const auto& edge : edges) {
        const InjectedFault fault(edge.edge);
        EXPECT_EQ(edge.call(), edge.answer) << edge.edge;
        EXPECT_TRUE(text == nullptr && made == nullptr) << edge.edge;
        EXPECT_NE(log.contents().find(std::string(edge.edge) + " failed with an exception"), std::string::npos)
            << edge.edge;
    }
    EXPECT_EQ(userValue(L"Locked"), L"") << "the toggle that failed changed nothing";

    // The thread that switches interception on after the delay.
    const InjectedFault fault("delayed EnableDragDrop");
    startDragDropAfterDelay();
    for (int i = 0; i < 250 && log.contents().find("delayed EnableDragDrop failed") == std::string::npos; ++i)
        Sleep(20);
    EXPECT_NE(log.contents().find("delayed EnableDragDrop failed with an exception"), std::string::npos);
}
