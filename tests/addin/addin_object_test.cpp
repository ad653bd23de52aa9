// The add-in object as COM serves it: class factory, interfaces and identity,
// aggregation, the lock count that decides unloading, and the IDispatch of
// each dual interface.
#include "addin_host.h"

#include "addin/class_factory.h"
#include "addin/delayed_drag_drop_start.h"
#include "core/log.h"
#include "addin/kv_drag_drop_addin.h"
#include "common/com_variant.h"
#include "install/base64_files.h"
#include "install/installer_entry_points.h"
#include "support/injected_fault.h"

#include <gtest/gtest.h>
#include <olectl.h>
#include <shlwapi.h>

#include <functional>

using Microsoft::WRL::ComPtr;

namespace {

// An object that aggregates the add-in: it answers its own IUnknown and
// IPersist (class id IID_NULL) and hands every other request to the add-in's
// inner IUnknown, as an aggregating host does.
class AggregatingHost final : public IPersist {
public:
    explicit AggregatingHost(const AddinDll& dll)
    {
        createResult = dll.createInstance(this, IID_IUnknown, reinterpret_cast<void**>(inner_.GetAddressOf()));
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (iid == IID_IUnknown || iid == IID_IPersist) {
            *object = static_cast<IPersist*>(this);
            AddRef();
            return S_OK;
        }
        if (!inner_) {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        return inner_->QueryInterface(iid, object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }
    HRESULT STDMETHODCALLTYPE GetClassID(CLSID* id) override
    {
        *id = IID_NULL;
        return S_OK;
    }

    // The host lives on the stack; the inner object goes when the host says so.
    void releaseInner() { inner_.Reset(); }

    HRESULT createResult = E_UNEXPECTED;
    ULONG references = 1;

private:
    ComPtr<IUnknown> inner_;
};

class AddinObject : public testing::Test {
protected:
    ProductSettingsKey settings;
    ScratchFolder folder;
    AddinDll dll{folder};
};

ComPtr<IUnknown> identityOf(IUnknown* object)
{
    ComPtr<IUnknown> identity;
    EXPECT_EQ(object->QueryInterface(IID_PPV_ARGS(&identity)), S_OK);
    return identity;
}

} // namespace

TEST_F(AddinObject, FactoryServesOnlyTheAddinClass)
{
    ComPtr<IClassFactory> factory;
    EXPECT_EQ(dll.getClassObject(IID_IUnknown, IID_PPV_ARGS(&factory)), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(factory, nullptr);
    ASSERT_EQ(dll.getClassObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory)), S_OK);
    ComPtr<IUnknown> object;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&object)), S_OK);
    EXPECT_NE(object, nullptr);
}

TEST_F(AddinObject, OffersItsThreeInterfacesUnderOneIdentity)
{
    auto addin = dll.create<IUnknown>();
    ASSERT_NE(addin, nullptr);
    ComPtr<IKVDragDropAddin> callbacks;
    ComPtr<_IDTExtensibility2> connection;
    ComPtr<IRibbonExtensibility> ribbon;
    ComPtr<IDispatch> dispatch;
    ASSERT_EQ(addin.As(&callbacks), S_OK);
    ASSERT_EQ(addin.As(&connection), S_OK);
    ASSERT_EQ(addin.As(&ribbon), S_OK);
    ASSERT_EQ(addin.As(&dispatch), S_OK);
    // Office finds the callbacks behind the object's IDispatch.
    EXPECT_EQ(static_cast<IUnknown*>(dispatch.Get()), static_cast<IUnknown*>(callbacks.Get()));
    EXPECT_EQ(identityOf(connection.Get()), addin);
    EXPECT_EQ(identityOf(ribbon.Get()), addin);
    EXPECT_EQ(identityOf(callbacks.Get()), addin);

    ComPtr<IPersist> notOffered;
    EXPECT_EQ(addin.As(&notOffered), E_NOINTERFACE);
    EXPECT_EQ(notOffered, nullptr);
}

TEST_F(AddinObject, AggregatedObjectAnswersThroughItsHost)
{
    AggregatingHost host(dll);
    ASSERT_EQ(host.createResult, S_OK);

    // The host finds the add-in's interfaces through itself...
    ComPtr<_IDTExtensibility2> connection;
    ASSERT_EQ(host.QueryInterface(IID_PPV_ARGS(&connection)), S_OK);
    // ...and from them everything leads back to the host: identity, the
    // host's own interfaces and its reference count.
    EXPECT_EQ(identityOf(connection.Get()).Get(), static_cast<IUnknown*>(&host));
    ComPtr<IPersist> persist;
    EXPECT_EQ(connection.As(&persist), S_OK);
    EXPECT_EQ(persist.Get(), &host);
    persist.Reset();
    const ULONG before = host.references;
    connection->AddRef();
    EXPECT_EQ(host.references, before + 1);
    connection->Release();
    EXPECT_EQ(host.references, before);

    connection.Reset();
    EXPECT_EQ(dll.canUnloadNow(), S_FALSE);
    host.releaseInner();
    EXPECT_EQ(dll.canUnloadNow(), S_OK);
}

TEST_F(AddinObject, AggregationMustAskForTheInnerUnknown)
{
    AggregatingHost host(dll);
    ComPtr<IDispatch> dispatch;
    EXPECT_EQ(dll.createInstance(&host, IID_PPV_ARGS(&dispatch)), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(dispatch, nullptr);
}

TEST_F(AddinObject, ContainedObjectKeepsItsOwnIdentity)
{
    // A host that holds the add-in as a plain object and calls it: the add-in
    // neither knows nor reaches the host.
    AggregatingHost container(dll);
    auto contained = dll.create<IRibbonExtensibility>();
    ASSERT_NE(contained, nullptr);
    ComPtr<IPersist> persist;
    EXPECT_EQ(contained.As(&persist), E_NOINTERFACE);
    EXPECT_NE(identityOf(contained.Get()).Get(), static_cast<IUnknown*>(&container));
    BSTR xml = nullptr;
    BSTR id = SysAllocString(L"Microsoft.Outlook.Explorer");
    EXPECT_EQ(contained->GetCustomUI(id, &xml), S_OK);
    SysFreeString(id);
    SysFreeString(xml);
}

TEST_F(AddinObject, DllCanBeUnloadedOnlyWhenNothingHoldsIt)
{
    EXPECT_EQ(dll.canUnloadNow(), S_OK);
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(dll.getClassObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory)), S_OK);
    EXPECT_EQ(dll.canUnloadNow(), S_FALSE);

    ComPtr<IUnknown> first;
    ComPtr<IUnknown> second;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&first)), S_OK);
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&second)), S_OK);
    ASSERT_EQ(factory->LockServer(TRUE), S_OK);
    factory.Reset();
    first.Reset();
    EXPECT_EQ(dll.canUnloadNow(), S_FALSE);
    second.Reset();
    // Only LockServer holds it now.
    EXPECT_EQ(dll.canUnloadNow(), S_FALSE);

    ASSERT_EQ(dll.getClassObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory)), S_OK);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    factory.Reset();
    EXPECT_EQ(dll.canUnloadNow(), S_OK);
}

TEST_F(AddinObject, CallbackNamesResolveByTheFixedTable)
{
    auto dispatch = dll.create<IDispatch>();
    ASSERT_NE(dispatch, nullptr);
    const struct {
        const wchar_t* name;
        DISPID id;
    } expected[] = {{L"Ribbon_onAction", 40},       {L"Ribbon_getImage", 42},
                    {L"Ribbon_onLoad", 44},         {L"Ribbon_onTextFormatChanged", 51},
                    {L"ribbon_onaction", 0},        {L"GetCustomUI", 0},
                    {L"NoSuchCallback", 0}};
    for (const auto& entry : expected) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(entry.name)};
        DISPID id = -1;
        EXPECT_EQ(dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_SYSTEM_DEFAULT, &id), S_OK) << entry.name;
        EXPECT_EQ(id, entry.id) << entry.name;
    }
}

TEST_F(AddinObject, MemberWithParameterNamesResolvesThroughTheTypeLibrary)
{
    auto dispatch = dll.create<IDispatch>();
    ASSERT_NE(dispatch, nullptr);
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"Ribbon_onFormatChanged"), const_cast<LPOLESTR>(L"selectedIndex"),
                        const_cast<LPOLESTR>(L"control")};
    DISPID ids[3] = {-1, -1, -1};
    ASSERT_EQ(dispatch->GetIDsOfNames(IID_NULL, names, 3, LOCALE_SYSTEM_DEFAULT, ids), S_OK);
    EXPECT_EQ(ids[0], 46);
    EXPECT_EQ(ids[1], 2); // parameters are numbered by position
    EXPECT_EQ(ids[2], 0);

    LPOLESTR unknown[] = {const_cast<LPOLESTR>(L"Ribbon_onFormatChanged"), const_cast<LPOLESTR>(L"nope")};
    EXPECT_EQ(dispatch->GetIDsOfNames(IID_NULL, unknown, 2, LOCALE_SYSTEM_DEFAULT, ids), DISP_E_UNKNOWNNAME);
}

TEST_F(AddinObject, TypeInfoDescribesTheCallbacks)
{
    auto dispatch = dll.create<IDispatch>();
    ASSERT_NE(dispatch, nullptr);
    UINT count = 0;
    ASSERT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    ComPtr<ITypeInfo> typeInfo;
    ASSERT_EQ(dispatch->GetTypeInfo(0, LOCALE_SYSTEM_DEFAULT, &typeInfo), S_OK);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(typeInfo->GetTypeAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->guid, IID_IKVDragDropAddin);
    EXPECT_TRUE(attributes->wTypeFlags & TYPEFLAG_FDUAL);
    typeInfo->ReleaseTypeAttr(attributes);
    BSTR name = nullptr;
    UINT names = 0;
    ASSERT_EQ(typeInfo->GetNames(42, &name, 1, &names), S_OK);
    EXPECT_STREQ(name, L"Ribbon_getImage");
    SysFreeString(name);
    EXPECT_EQ(dispatch->GetTypeInfo(1, LOCALE_SYSTEM_DEFAULT, &typeInfo), DISP_E_BADINDEX);
}

TEST_F(AddinObject, InvokeRefusesWhatNoCallbackTakes)
{
    auto dispatch = dll.create<IDispatch>();
    ASSERT_NE(dispatch, nullptr);
    DISPPARAMS none{};
    UniqueVariant result;
    EXPECT_EQ(dispatch->Invoke(39, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &none, result.put(), nullptr,
                               nullptr),
              DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(dispatch->Invoke(52, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &none, result.put(), nullptr,
                               nullptr),
              DISP_E_MEMBERNOTFOUND);
    // Ribbon_getLabel wants its control.
    EXPECT_EQ(dispatch->Invoke(43, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &none, result.put(), nullptr,
                               nullptr),
              DISP_E_BADPARAMCOUNT);
    // Ribbon_getFormatLabel(control, index) with a text where the index goes.
    auto control = ribbonControl(L"cbFormat");
    VARIANT args[2];
    args[0].vt = VT_BSTR; // last argument first
    args[0].bstrVal = SysAllocString(L"not a number");
    args[1].vt = VT_DISPATCH;
    args[1].pdispVal = control.Get();
    DISPPARAMS params{args, nullptr, 2, 0};
    UINT argumentError = 99;
    EXPECT_EQ(dispatch->Invoke(47, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params, result.put(), nullptr,
                               &argumentError),
              DISP_E_TYPEMISMATCH);
    EXPECT_EQ(argumentError, 0u);
    SysFreeString(args[0].bstrVal);
}

TEST_F(AddinObject, OfficeInterfacesDispatchThroughTheirOwnDescriptions)
{
    auto addin = dll.create<IUnknown>();
    ComPtr<_IDTExtensibility2> connection;
    ComPtr<IRibbonExtensibility> ribbon;
    ASSERT_EQ(addin.As(&connection), S_OK);
    ASSERT_EQ(addin.As(&ribbon), S_OK);

    LPOLESTR startup[] = {const_cast<LPOLESTR>(L"OnStartupComplete")};
    DISPID id = -1;
    ASSERT_EQ(connection->GetIDsOfNames(IID_NULL, startup, 1, LOCALE_SYSTEM_DEFAULT, &id), S_OK);
    EXPECT_EQ(id, 4);
    LPOLESTR callback[] = {const_cast<LPOLESTR>(L"Ribbon_onAction")};
    EXPECT_EQ(connection->GetIDsOfNames(IID_NULL, callback, 1, LOCALE_SYSTEM_DEFAULT, &id), DISP_E_UNKNOWNNAME);

    // GetCustomUI called by dispatch id 1, as Office may call it. Without
    // ribbon info the add-in answers with no XML.
    VARIANT ribbonId;
    ribbonId.vt = VT_BSTR;
    ribbonId.bstrVal = SysAllocString(L"Microsoft.Outlook.Explorer");
    DISPPARAMS params{&ribbonId, nullptr, 1, 0};
    UniqueVariant result;
    ASSERT_EQ(ribbon->Invoke(1, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params, result.put(), nullptr,
                             nullptr),
              S_OK);
    EXPECT_EQ(result->vt, VT_BSTR);
    EXPECT_EQ(SysStringLen(result->bstrVal), 0u);
    SysFreeString(ribbonId.bstrVal);
}

// Objects and exports of this program itself (the DLL's entry sources are
// built into it), so that the barriers' test seam reaches them: every edge
// that Outlook, COM or a setup program calls answers an exception inside as
// its failure, and nothing escapes.
TEST(AddinEdges, AnExceptionInsideIsAnsweredAsItsFailure)
{
    ProductSettingsKey settings;
    ComPtr<IKVDragDropAddin> addin;
    ASSERT_EQ(CKVDragDropAddin::create(nullptr, IID_PPV_ARGS(&addin)), S_OK);
    ComPtr<_IDTExtensibility2> connection;
    ComPtr<IRibbonExtensibility> ribbon;
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(addin.As(&connection), S_OK);
    ASSERT_EQ(addin.As(&ribbon), S_OK);
    ASSERT_EQ(createKVDragDropAddinFactory(IID_PPV_ARGS(&factory)), S_OK);
    auto control = ribbonControl(L"bnOnOff");
    VARIANT controlArgument;
    controlArgument.vt = VT_DISPATCH;
    controlArgument.pdispVal = control.Get();
    DISPPARAMS params{&controlArgument, nullptr, 1, 0};
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
        {"Ribbon_onAction", S_OK, [&] { return addin->Ribbon_onAction(control.Get(), VARIANT_TRUE); }},
        {"Ribbon_getLabel", E_OUTOFMEMORY, [&] { return addin->Ribbon_getLabel(control.Get(), &text); }},
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
    LogCapture log(LOG_ERROR);
    for (const auto& edge : edges) {
        const InjectedFault fault(edge.edge);
        EXPECT_EQ(edge.call(), edge.answer) << edge.edge;
        EXPECT_EQ(text, nullptr) << edge.edge;
        EXPECT_EQ(made, nullptr) << edge.edge;
        EXPECT_NE(log.contents().find(std::string(edge.edge) + " failed with an exception"), std::string::npos)
            << edge.edge;
    }
    EXPECT_EQ(settings.get(L"Locked"), L"") << "the toggle that failed changed nothing";
    SysFreeString(explorer);

    // The thread that switches interception on after the delay.
    const InjectedFault fault("delayed EnableDragDrop");
    startDragDropAfterDelay();
    for (int i = 0; i < 250 && log.contents().find("delayed EnableDragDrop failed") == std::string::npos; ++i)
        Sleep(20);
    EXPECT_NE(log.contents().find("delayed EnableDragDrop failed with an exception"), std::string::npos);
}
