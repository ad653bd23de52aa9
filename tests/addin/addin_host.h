#pragma once
// The add-in tests' one fixture: a copy of the real DLL (with its own statics,
// texts and install.cfg beside it) whose objects come from its class factory
// and connect to the Outlook stand-in, its log, and the add-in's own settings
// key (the DLL reads no other), empty before and after each test.
#include "korvane_h.h"
#include "addin/globals.h"
#include "common/com_variant.h"
#include "common/strings.h"
#include "e2e_shared/dispatch_standin.h"
#include "e2e_shared/outlook_standin.h"
#include "install/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using Microsoft::WRL::ComPtr;

template <typename Function>
Function* exportOf(HMODULE module, const char* name)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// A ribbon control as Office passes it to the callbacks: "Id" and "Tag".
inline OwnedVariant ribbonControl(const std::wstring& id, const std::wstring& tag = L"")
{
    auto control = DispatchStandIn::create(L"IRibbonControl");
    control->property(L"Id", [id] { return variant(id); });
    control->property(L"Tag", [tag] { return variant(tag); });
    return variant(static_cast<IDispatch*>(control.Get()));
}

// HKCU\Software\QUEMBROOK\Korvane Addin for Microsoft Outlook[\name]; HKLM's is the same below HKLM.
inline std::wstring userPlace(const std::wstring& name)
{
    return L"HKCU\\Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook" + (name.empty() ? L"" : L"\\" + name);
}
inline void user(const std::wstring& name, const std::wstring& value)
{
    ASSERT_TRUE(RegUtil::setRegValue(userPlace(name), L"", value));
}
inline void machine(const std::wstring& name, const std::wstring& value)
{
    ASSERT_TRUE(RegUtil::setRegValue(L"HKLM" + userPlace(name).substr(4), L"", value));
}
inline std::wstring userValue(const std::wstring& name) { return RegUtil::readString(userPlace(name)); }

// The add-in as Outlook loads it.
struct LoadedAddin {
    ~LoadedAddin() { shutdown(); }
    HRESULT classObject(REFCLSID clsid, REFIID iid, void** made) const
    {
        using GetClassObject = HRESULT STDAPICALLTYPE(REFCLSID, REFIID, void**);
        return exportOf<GetClassObject>(dll.module(), "DllGetClassObject")(clsid, iid, made);
    }
    HRESULT canUnloadNow() const { return exportOf<HRESULT STDAPICALLTYPE()>(dll.module(), "DllCanUnloadNow")(); }
    HRESULT createInstance(IUnknown* outer, REFIID iid, void** made) const
    {
        ComPtr<IClassFactory> factory;
        const HRESULT hr = classObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory));
        return FAILED(hr) ? hr : factory->CreateInstance(outer, iid, made);
    }
    template <typename Interface>
    ComPtr<Interface> create() const
    {
        ComPtr<Interface> made;
        createInstance(nullptr, __uuidof(Interface), reinterpret_cast<void**>(made.GetAddressOf()));
        return made;
    }
    void writeTexts(const std::wstring& language, const std::string& lines) const
    {
        writeBytes(folder.file(L"resource_" + language + L".txt"), lines);
    }
    std::string log() const { return readBytes(folder.file(L"korvane.log")); }

    // The log at DEBUG in the scratch folder, a new object unless there is one, OnConnection.
    void connect()
    {
        user(L"LogFile", folder.file(L"korvane.log"));
        user(L"LogLevel", L"DEBUG");
        ComPtr<_IDTExtensibility2> connection;
        object = object ? object : create<IUnknown>();
        ASSERT_EQ(object.As(&connection), S_OK);
        ASSERT_EQ(connection->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
        connected = true;
    }
    void shutdown()
    {
        ComPtr<_IDTExtensibility2> connection;
        if (std::exchange(connected, false) && SUCCEEDED(object.As(&connection))) {
            EXPECT_EQ(connection->OnBeginShutdown(nullptr), S_OK);
            EXPECT_EQ(connection->OnDisconnection(ext_dm_HostShutdown, nullptr), S_OK);
        }
    }
    // A callback called as Office calls it: by dispatch id, the arguments in call order.
    HRESULT invoke(DISPID id, std::vector<OwnedVariant> args, UniqueVariant& result) const
    {
        ComPtr<IDispatch> dispatch;
        std::vector<VARIANT> reversed;
        for (auto it = args.rbegin(); it != args.rend(); ++it)
            reversed.push_back(it->get());
        DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        EXPECT_EQ(object.As(&dispatch), S_OK);
        return dispatch->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), nullptr, nullptr);
    }

    ScratchFolder folder;
    AddinCopy dll{folder};
    OutlookStandIn outlook;
    ComPtr<IUnknown> object;
    bool connected = false;
};

struct Addin : testing::Test, LoadedAddin {
    Addin() { removeSettingsKeys(Globals::defaultCompanyName, Globals::defaultProductName); }
    ~Addin() override
    {
        shutdown();
        removeSettingsKeys(Globals::defaultCompanyName, Globals::defaultProductName);
    }
    // A settings object of this program on that key, with the DLL copy's folder for texts and install.cfg.
    std::unique_ptr<Globals> globals() const
    {
        auto made = std::make_unique<Globals>(Globals::defaultCompanyName, Globals::defaultProductName);
        made->setModule(dll.module());
        return made;
    }
};
