#pragma once
// The add-in tests' one fixture: a copy of the real DLL (with its own statics,
// texts and install.cfg beside it) whose objects come from its class factory
// and connect to the Outlook stand-in, its log, and the add-in's own settings
// key (the DLL reads no other), empty before and after each test.
#include "korvane_h.h"
#include "addin/globals.h"
#include "common/com_variant.h"
#include "common/strings.h"
#include "e2e_shared/outlook_standin.h"
#include "install/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <memory>
#include <vector>

using Microsoft::WRL::ComPtr;

template <typename Function>
Function* exportOf(HMODULE module, const char* name)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// A ribbon control as Office passes it to the callbacks: "Id" and "Tag".
OwnedVariant ribbonControl(const std::wstring& id, const std::wstring& tag = L"");

// The add-in as Outlook loads it.
struct LoadedAddin {
    ~LoadedAddin() { shutdown(); }
    HRESULT classObject(REFCLSID clsid, REFIID iid, void** made) const
    {
        return exportOf<HRESULT STDAPICALLTYPE(REFCLSID, REFIID, void**)>(dll.module(), "DllGetClassObject")(clsid, iid,
                                                                                                           made);
    }
    HRESULT canUnloadNow() const { return exportOf<HRESULT STDAPICALLTYPE()>(dll.module(), "DllCanUnloadNow")(); }
    HRESULT createInstance(IUnknown* outer, REFIID iid, void** made) const;
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
    // The log at DEBUG in the scratch folder, a new object unless there is one, OnConnection.
    void connect();
    void shutdown(); // OnBeginShutdown and OnDisconnection, when connected
    // A callback called as Office calls it: by dispatch id, the arguments in call order.
    HRESULT invoke(DISPID id, std::vector<OwnedVariant> args, UniqueVariant& result) const;
    std::string log() const { return readBytes(folder.file(L"korvane.log")); }

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
    // HKCU\Software\QUEMBROOK\Korvane Addin for Microsoft Outlook[\name], and HKLM's.
    static std::wstring userPlace(const std::wstring& name)
    {
        return L"HKCU\\Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook" + (name.empty() ? L"" : L"\\" + name);
    }
    static void user(const std::wstring& name, const std::wstring& value) { setValue(userPlace(name), value); }
    static void machine(const std::wstring& name, const std::wstring& value) { setValue(L"HKLM" + userPlace(name).substr(4), value); }
    static std::wstring userValue(const std::wstring& name) { return RegUtil::readString(userPlace(name)); }
    static void setValue(const std::wstring& path, const std::wstring& value) { ASSERT_TRUE(RegUtil::setRegValue(path, L"", value)); }
    // A settings object of this program on that key, with the DLL copy's folder for texts and install.cfg.
    std::unique_ptr<Globals> globals() const
    {
        auto made = std::make_unique<Globals>(Globals::defaultCompanyName, Globals::defaultProductName);
        made->setModule(dll.module());
        return made;
    }
};
