#pragma once
// The add-in tests' one fixture: a copy of the real DLL (its own statics, with
// texts and install.cfg beside it) whose objects connect to the Outlook
// stand-in, its log, and the add-in's settings key, empty before and after.
#include "korvane_h.h"
#include "core/globals.h"
#include "common/com_variant.h"
#include "common/strings.h"
#include "e2e_shared/dispatch_standin.h"
#include "e2e_shared/outlook_standin.h"
#include "core/reg_util.h"
#include "support/registry_snapshot.h"
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

// The settings below HKCU (written with the add-in's helper, read raw) and
// HKLM (written raw as named values of the key, the way Group Policy does).
const std::wstring productKey = L"Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook";
inline std::wstring userPlace(const std::wstring& name) { return L"HKCU\\" + productKey + L"\\" + name; }
inline void user(const std::wstring& name, const std::wstring& value)
{
    ASSERT_TRUE(RegUtil::setRegValue(userPlace(name), L"", value));
}
inline void machine(const std::wstring& name, const std::wstring& value)
{
    const DWORD bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, productKey.c_str(), name.c_str(), REG_SZ, value.c_str(), bytes), 0);
}
inline std::wstring userValue(const std::wstring& name)
{
    const std::wstring value = rawString(HKEY_CURRENT_USER, productKey + L"\\" + name);
    return value == L"<missing>" ? L"" : value;
}

constexpr const wchar_t* addinSubKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\KVDragDropAddin.class";

// The registry before an installation, with the keys that every machine with
// Outlook has (a fresh Wine prefix lacks them; removal leaves them).
inline RegistrySnapshot registryBeforeInstalling()
{
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
        for (const wchar_t* subKey : {L"Software\\Microsoft\\Office", L"Software\\Classes"}) {
            HKEY key = nullptr;
            EXPECT_EQ(RegCreateKeyExW(root, subKey, 0, nullptr, 0, KEY_READ, nullptr, &key, nullptr), 0);
            RegCloseKey(key);
        }
    }
    return takeRegistrySnapshot();
}

// The add-in as Outlook loads it.
struct LoadedAddin {
    ~LoadedAddin() { shutdown(); }
    template <typename Interface = IUnknown>
    ComPtr<Interface> create() const
    {
        ComPtr<IClassFactory> factory;
        ComPtr<Interface> made;
        if (SUCCEEDED(exportOf<HRESULT STDAPICALLTYPE(REFCLSID, REFIID, void**)>(dll.module(), "DllGetClassObject")(
                CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory))))
            factory->CreateInstance(nullptr, IID_PPV_ARGS(&made));
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
        object = object ? object : create();
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
    // A callback called as Office calls it: its dispatch id asked by name, the arguments in call order.
    HRESULT invoke(const wchar_t* name, std::vector<OwnedVariant> args, UniqueVariant& result) const
    {
        ComPtr<IDispatch> dispatch;
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = -1;
        std::vector<VARIANT> reversed;
        for (auto it = args.rbegin(); it != args.rend(); ++it)
            reversed.push_back(it->get());
        DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        EXPECT_EQ(object.As(&dispatch), S_OK);
        EXPECT_EQ(dispatch->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK);
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
