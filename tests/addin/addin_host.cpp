#include "addin_host.h"

#include "e2e_shared/dispatch_standin.h"

OwnedVariant ribbonControl(const std::wstring& id, const std::wstring& tag)
{
    auto control = DispatchStandIn::create(L"IRibbonControl");
    control->property(L"Id", [id] { return variant(id); });
    control->property(L"Tag", [tag] { return variant(tag); });
    return variant(static_cast<IDispatch*>(control.Get()));
}

HRESULT LoadedAddin::createInstance(IUnknown* outer, REFIID iid, void** made) const
{
    ComPtr<IClassFactory> factory;
    const HRESULT hr = classObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory));
    return FAILED(hr) ? hr : factory->CreateInstance(outer, iid, made);
}

void LoadedAddin::connect()
{
    Addin::user(L"LogFile", folder.file(L"korvane.log"));
    Addin::user(L"LogLevel", L"DEBUG");
    ComPtr<_IDTExtensibility2> connection;
    object = object ? object : create<IUnknown>();
    ASSERT_EQ(object.As(&connection), S_OK);
    ASSERT_EQ(connection->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
    connected = true;
}

void LoadedAddin::shutdown()
{
    ComPtr<_IDTExtensibility2> connection;
    if (std::exchange(connected, false) && SUCCEEDED(object.As(&connection))) {
        EXPECT_EQ(connection->OnBeginShutdown(nullptr), S_OK);
        EXPECT_EQ(connection->OnDisconnection(ext_dm_HostShutdown, nullptr), S_OK);
    }
}

HRESULT LoadedAddin::invoke(DISPID id, std::vector<OwnedVariant> args, UniqueVariant& result) const
{
    ComPtr<IDispatch> dispatch;
    std::vector<VARIANT> reversed;
    for (auto it = args.rbegin(); it != args.rend(); ++it)
        reversed.push_back(it->get());
    DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
    EXPECT_EQ(object.As(&dispatch), S_OK);
    return dispatch->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), nullptr, nullptr);
}
