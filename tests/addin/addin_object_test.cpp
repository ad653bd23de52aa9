// The add-in object as COM and Outlook use it: the class factory, its
// interfaces, aggregation, unloading, the dispatch table of the callbacks,
// the connection events in Outlook's order, and the exception barriers.
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

// Aggregates the add-in: answers its own IUnknown and IPersist and hands every
// other request to the add-in's inner IUnknown.
struct AggregatingHost final : IPersist {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (iid != IID_IUnknown && iid != IID_IPersist)
            return inner->QueryInterface(iid, object);
        *object = static_cast<IPersist*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }
    HRESULT STDMETHODCALLTYPE GetClassID(CLSID*) override { return E_NOTIMPL; }

    ULONG references = 1;
    ComPtr<IUnknown> inner;
};

template <typename Interface>
ComPtr<Interface> as(IUnknown* object)
{
    ComPtr<Interface> asked;
    object->QueryInterface(IID_PPV_ARGS(&asked));
    return asked;
}

ULONG referencesOf(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

} // namespace

TEST_F(Addin, FactoryObjectsAggregationAndUnloading)
{
    ComPtr<IClassFactory> factory;
    ComPtr<IUnknown> addin, second;
    EXPECT_EQ(classObject(IID_IUnknown, IID_PPV_ARGS(&factory)), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(canUnloadNow(), S_OK);
    ASSERT_EQ(classObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory)), S_OK);
    EXPECT_EQ(canUnloadNow(), S_FALSE);
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&addin)), S_OK);
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&second)), S_OK);
    // Three interfaces of one identity; Office finds the callbacks behind the object's IDispatch.
    EXPECT_EQ(as<IUnknown>(as<IKVDragDropAddin>(addin.Get()).Get()), addin);
    EXPECT_EQ(as<IUnknown>(as<_IDTExtensibility2>(addin.Get()).Get()), addin);
    EXPECT_EQ(as<IUnknown>(as<IRibbonExtensibility>(addin.Get()).Get()), addin);
    EXPECT_EQ(as<IDispatch>(addin.Get()).Get(), static_cast<IDispatch*>(as<IKVDragDropAddin>(addin.Get()).Get()));
    EXPECT_EQ(as<IPersist>(addin.Get()), nullptr);
    ASSERT_EQ(factory->LockServer(TRUE), S_OK);
    factory.Reset();
    addin.Reset();
    EXPECT_EQ(canUnloadNow(), S_FALSE);
    second.Reset();
    EXPECT_EQ(canUnloadNow(), S_FALSE) << "locked";

    // Aggregated, the add-in answers through its host: identity, the host's
    // own interfaces, its references.
    AggregatingHost host;
    ComPtr<IDispatch> refused; // an aggregated object hands out only its inner IUnknown
    EXPECT_EQ(createInstance(&host, IID_PPV_ARGS(&refused)), CLASS_E_NOAGGREGATION);
    ASSERT_EQ(createInstance(&host, IID_PPV_ARGS(&host.inner)), S_OK);
    auto connection = as<_IDTExtensibility2>(&host);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(as<IUnknown>(connection.Get()).Get(), &host);
    EXPECT_EQ(as<IPersist>(connection.Get()).Get(), &host);
    EXPECT_EQ(connection->AddRef(), host.references);
    connection->Release();
    connection.Reset();
    EXPECT_EQ(canUnloadNow(), S_FALSE);
    host.inner.Reset();
    ASSERT_EQ(classObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory)), S_OK);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    factory.Reset();
    EXPECT_EQ(canUnloadNow(), S_OK);
}

TEST_F(Addin, CallbacksAreFoundByTheirFixedDispatchIds)
{
    object = create<IUnknown>();
    const auto dispatch = as<IDispatch>(object.Get());
    const auto idOf = [](IDispatch* target, const wchar_t* name, HRESULT expected = S_OK) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = -1;
        EXPECT_EQ(target->GetIDsOfNames(IID_NULL, names, 1, 0, &id), expected) << wideToUtf8(name);
        return id;
    };
    const wchar_t* callbacks[] = {L"Ribbon_onAction", L"Ribbon_getPressed", L"Ribbon_getImage", L"Ribbon_getLabel",
                                  L"Ribbon_onLoad", L"Ribbon_getSelectedFormatID", L"Ribbon_onFormatChanged",
                                  L"Ribbon_getFormatLabel", L"Ribbon_getFormatId", L"Ribbon_getFormatCount",
                                  L"Ribbon_getSelectedTextFormatID", L"Ribbon_onTextFormatChanged"};
    for (DISPID id = 40; id <= 51; ++id)
        EXPECT_EQ(idOf(dispatch.Get(), callbacks[id - 40]), id);
    EXPECT_EQ(idOf(dispatch.Get(), L"ribbon_onaction"), 0);
    EXPECT_EQ(idOf(dispatch.Get(), L"NoSuchCallback"), 0);
    // Office's own interfaces by their own descriptions.
    EXPECT_EQ(idOf(as<_IDTExtensibility2>(object.Get()).Get(), L"OnStartupComplete"), 4);
    idOf(as<_IDTExtensibility2>(object.Get()).Get(), L"Ribbon_onAction", DISP_E_UNKNOWNNAME);
    // With parameter names: the type library's lookup, parameters numbered by position.
    LPOLESTR withParameters[] = {const_cast<LPOLESTR>(L"Ribbon_onFormatChanged"),
                                 const_cast<LPOLESTR>(L"selectedIndex"), const_cast<LPOLESTR>(L"control")};
    DISPID ids[3] = {-1, -1, -1};
    ASSERT_EQ(dispatch->GetIDsOfNames(IID_NULL, withParameters, 3, 0, ids), S_OK);
    EXPECT_EQ(std::vector<DISPID>(ids, ids + 3), (std::vector<DISPID>{46, 2, 0}));
    withParameters[1] = const_cast<LPOLESTR>(L"nope");
    EXPECT_EQ(dispatch->GetIDsOfNames(IID_NULL, withParameters, 2, 0, ids), DISP_E_UNKNOWNNAME);
    UINT count = 0;
    ComPtr<ITypeInfo> typeInfo;
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(dispatch->GetTypeInfo(0, 0, &typeInfo), S_OK);
    ASSERT_EQ(typeInfo->GetTypeAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->guid, IID_IKVDragDropAddin);
    EXPECT_TRUE(attributes->wTypeFlags & TYPEFLAG_FDUAL);
    typeInfo->ReleaseTypeAttr(attributes);
    // Invoke: the callbacks only, each with its own arguments.
    UniqueVariant result;
    EXPECT_EQ(invoke(39, {}, result), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(invoke(52, {}, result), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(invoke(43, {}, result), DISP_E_BADPARAMCOUNT);
    EXPECT_EQ(invoke(47, {ribbonControl(L"cbFormat"), variant(L"not a number")}, result), DISP_E_TYPEMISMATCH);
}

// Outlook's connection events in its order, as Outlook and the log see them.
TEST_F(Addin, ConnectionsFromStartToDisablingAndClosing)
{
    writeTexts(L"de", "buttonActive = Echte Dateien: an\n");
    user(L"LogAppend", L"true"); // both connections in one log
    outlook.setLanguageId(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN));
    IDispatch* application = outlook.application();
    const ULONG unconnected = referencesOf(application);
    object = create<IUnknown>();
    EXPECT_EQ(userValue(L"TextFormat"), L"");
    connect();
    // The version, the marker of a new connection, the connection's trace.
    const std::string text = log();
    const size_t version = text.find(" Version " + std::to_string(KORVANE_VERSION_MAJOR) + "." +
                                     std::to_string(KORVANE_VERSION_MINOR) + "." +
                                     std::to_string(KORVANE_VERSION_PATCH) + "." +
                                     std::to_string(KORVANE_VERSION_TWEAK) + "\r\n");
    ASSERT_NE(version, std::string::npos) << text;
    const size_t lineStart = text.rfind('\n', version) + 1;
    EXPECT_NE(text.substr(lineStart, version - lineStart).find(" INFO Globals:"), std::string::npos);
    EXPECT_LT(version, text.find(" INFO KVDragDropAddin:", version));
    EXPECT_LT(text.find(" -----------\r\n", version), text.find("OnConnection(application="));
    EXPECT_EQ(userValue(L"TextFormat"), L"none") << "the first start sets the text format";
    EXPECT_GT(referencesOf(application), unconnected);
    UniqueVariant label;
    EXPECT_EQ(invoke(43, {ribbonControl(L"bnOnOff")}, label), S_OK);
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
    EXPECT_NE(log().find("EnableDragDrop(enable=0"), std::string::npos);
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
    ASSERT_EQ(addin.As(&connection), S_OK);
    ASSERT_EQ(addin.As(&ribbon), S_OK);
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
