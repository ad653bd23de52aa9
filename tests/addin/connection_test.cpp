// The add-in object as Outlook uses it: the connection events in Outlook's
// order, and the exception barriers at every edge Outlook, COM or a setup
// program calls.
#include "addin_host.h"

#include "addin/class_factory.h"
#include "addin/delayed_drag_drop_start.h"
#include "addin/kv_drag_drop_addin.h"
#include "install/base64_files.h"
#include "install/installer_entry_points.h"
#include "support/injected_fault.h"

#include <olectl.h>
#include <shlwapi.h>

#include <chrono>
#include <functional>

namespace {

ULONG referencesOf(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

} // namespace

// Outlook's connection events in its order, as Outlook and the log see them.
TEST_F(Addin, ConnectionsFromStartToDisablingAndClosing)
{
    writeTexts(L"de", "buttonActive = Echte Dateien: an\n");
    user(L"LogAppend", L"true"); // both connections in one log
    outlook.setLanguageId(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN));
    IDispatch* application = outlook.application();
    const ULONG unconnected = referencesOf(application);
    object = create();
    EXPECT_EQ(userValue(L"TextFormat"), L"");
    connect();
    // The version on an INFO line, then the marker of a new connection, then its trace.
    const std::string text = log();
    const size_t version = text.find(" Version " + std::to_string(KORVANE_VERSION_MAJOR) + "." +
                                     std::to_string(KORVANE_VERSION_MINOR) + "." +
                                     std::to_string(KORVANE_VERSION_PATCH) + "." +
                                     std::to_string(KORVANE_VERSION_TWEAK) + "\r\n");
    ASSERT_NE(version, std::string::npos) << text;
    const size_t lineStart = text.rfind('\n', version) + 1;
    EXPECT_NE(text.substr(lineStart, version - lineStart).find(" INFO Globals:"), std::string::npos);
    EXPECT_LT(text.find(" -----------\r\n", version), text.find("OnConnection(application="));
    EXPECT_EQ(userValue(L"TextFormat"), L"none") << "the first start sets the text format";
    EXPECT_GT(referencesOf(application), unconnected);
    UniqueVariant label;
    EXPECT_EQ(invoke(L"Ribbon_getLabel", {ribbonControl(L"bnOnOff")}, label), S_OK);
    EXPECT_EQ(label.text(), L"Echte Dateien: an") << "Office's user-interface language";
    EXPECT_EQ(outlook.languageSettingsObject().lastCall(L"LanguageID")->args.at(0).number(), 2);

    // Interception a few seconds after the add-ins update, off when the user disables the add-in.
    ComPtr<_IDTExtensibility2> connection;
    ASSERT_EQ(object.As(&connection), S_OK);
    const auto updated = std::chrono::steady_clock::now();
    ASSERT_EQ(connection->OnAddInsUpdate(nullptr), S_OK);
    EXPECT_EQ(log().find("EnableDragDrop("), std::string::npos) << "switched on at once";
    while (log().find("EnableDragDrop(enable=1") == std::string::npos &&
           std::chrono::steady_clock::now() - updated < std::chrono::seconds(10))
        Sleep(50);
    EXPECT_GE(std::chrono::steady_clock::now() - updated, std::chrono::milliseconds(2900));
    ASSERT_NE(log().find("EnableDragDrop(enable=1"), std::string::npos) << "never switched on";
    ASSERT_EQ(connection->OnStartupComplete(nullptr), S_OK);
    ASSERT_EQ(connection->OnDisconnection(ext_dm_UserClosed, nullptr), S_OK);
    EXPECT_LT(log().find("OnDisconnection()"), log().find("EnableDragDrop(enable=0"));
    EXPECT_NE(log().find("EnableDragDrop(enable=0"), std::string::npos) << "interception still on";
    EXPECT_EQ(referencesOf(application), unconnected);

    // Outlook closing: nothing is logged after the beginning of the shutdown.
    connect();
    shutdown();
    EXPECT_TRUE(log().ends_with(" OnBeginShutdown()\r\n")) << log().substr(log().size() - 300);
    EXPECT_EQ(referencesOf(application), unconnected);
}

// Objects and exports of this program itself (the DLL's entry sources are
// built into it), so that the barriers' test seam reaches them: every edge
// that Outlook, COM or a setup program calls answers an exception inside as
// its failure, and nothing escapes.
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
    BSTR explorer = SysAllocString(L"Microsoft.Outlook.Explorer");

    const struct {
        const char* edge;
        HRESULT answer;
        std::function<HRESULT()> call;
    } edges[] = {
        {"OnConnection", S_OK, [&] { return connection->OnConnection(nullptr, ext_cm_Startup, nullptr, nullptr); }},
        {"OnAddInsUpdate", S_OK, [&] { return connection->OnAddInsUpdate(nullptr); }},
        {"OnBeginShutdown", S_OK, [&] { return connection->OnBeginShutdown(nullptr); }},
        {"OnDisconnection", S_OK, [&] { return connection->OnDisconnection(ext_dm_HostShutdown, nullptr); }},
        {"GetCustomUI", S_OK, [&] { return ribbon->GetCustomUI(explorer, &text); }},
        {"Ribbon_onAction", S_OK, [&] { return addin->Ribbon_onAction(button, VARIANT_TRUE); }},
        {"Ribbon_getLabel", E_OUTOFMEMORY, [&] { return addin->Ribbon_getLabel(button, &text); }},
        {"IKVDragDropAddin::Invoke", E_OUTOFMEMORY,
         [&] { return addin->Invoke(43, IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), nullptr, nullptr); }},
        {"CreateInstance", E_OUTOFMEMORY, [&] { return factory->CreateInstance(nullptr, IID_IUnknown, &made); }},
        {"DllGetClassObject", E_OUTOFMEMORY,
         [&] { return DllGetClassObject(CLSID_CKVDragDropAddin, IID_IClassFactory, &made); }},
        {"DllCanUnloadNow", E_OUTOFMEMORY, [] { return DllCanUnloadNow(); }},
        {"DllRegisterServer", E_OUTOFMEMORY, [] { return DllRegisterServer(); }},
        {"DllUnregisterServer", E_OUTOFMEMORY, [] { return DllUnregisterServer(); }},
        {"DllInstall", E_OUTOFMEMORY, [] { return DllInstall(TRUE, L"user"); }},
        {"EncodeBase64", E_OUTOFMEMORY, [] { return EncodeBase64(L"C:\\in.png", L"C:\\out.txt"); }},
        {"DecodeBase64", E_OUTOFMEMORY, [] { return DecodeBase64(L"C:\\in.txt", L"C:\\out.png"); }},
        {"Install", HRESULT(ERROR_INSTALL_FAILURE), [] { return HRESULT(Install(0)); }},
        {"nativeUninstall", E_OUTOFMEMORY,
         [] { return HRESULT(Java_com_quembrook_com_KorvaneDll_nativeUninstall(nullptr, nullptr, nullptr)); }},
    };
    const LogCapture log(LOG_ERROR);
    for (const auto& edge : edges) {
        const InjectedFault fault(edge.edge);
        EXPECT_EQ(edge.call(), edge.answer) << edge.edge;
        EXPECT_EQ(text, nullptr) << edge.edge;
        EXPECT_EQ(made, nullptr) << edge.edge;
        EXPECT_NE(log.contents().find(std::string(edge.edge) + " failed with an exception"), std::string::npos)
            << edge.edge;
    }
    EXPECT_EQ(userValue(L"Locked"), L"") << "the toggle that failed changed nothing";
    SysFreeString(explorer);

    // The thread that switches interception on after the delay.
    const InjectedFault fault("delayed EnableDragDrop");
    startDragDropAfterDelay();
    for (int i = 0; i < 250 && log.contents().find("delayed EnableDragDrop failed") == std::string::npos; ++i)
        Sleep(20);
    EXPECT_NE(log.contents().find("delayed EnableDragDrop failed with an exception"), std::string::npos);
}
