#pragma once
// What the add-in tests need to play Outlook: a copy of the real DLL with its
// own statics, the add-in objects made through the DLL's class factory, the
// add-in's own settings key (the DLL reads no other) and the DLL's log file,
// and ribbon controls as Office hands them to callbacks.
#include "korvane_h.h"
#include "e2e_shared/dispatch_standin.h"
#include "support/scratch.h"

#include <windows.h>
#include <wrl/client.h>

#include <string>
#include <vector>

// HKCU\Software\QUEMBROOK\Korvane Addin for Microsoft Outlook (and the same
// under HKLM), emptied before and after the test in the private Wine prefix.
class ProductSettingsKey {
public:
    ProductSettingsKey();
    ~ProductSettingsKey();
    ProductSettingsKey(const ProductSettingsKey&) = delete;
    ProductSettingsKey& operator=(const ProductSettingsKey&) = delete;

    static std::wstring userPath(const std::wstring& name);
    void set(const std::wstring& name, const std::wstring& value) const;
    std::wstring get(const std::wstring& name) const;

private:
    static void removeAll();
};

// A copy of the add-in DLL in `folder` and its COM entry points.
class AddinDll {
public:
    explicit AddinDll(const ScratchFolder& folder);

    HMODULE module() const { return copy_.module(); }
    std::wstring path() const;
    HRESULT getClassObject(REFCLSID clsid, REFIID iid, void** object) const;
    HRESULT canUnloadNow() const;
    // A new add-in object, not aggregated, asked for iid.
    template <typename Interface>
    Microsoft::WRL::ComPtr<Interface> create() const
    {
        Microsoft::WRL::ComPtr<Interface> object;
        createInstance(nullptr, __uuidof(Interface), reinterpret_cast<void**>(object.GetAddressOf()));
        return object;
    }
    HRESULT createInstance(IUnknown* outer, REFIID iid, void** object) const;

    template <typename Function>
    Function* entryPoint(const char* name) const
    {
        return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module(), name)));
    }

private:
    AddinCopy copy_;
};

// Points the DLL's log at a scratch file at DEBUG level; the DLL opens it
// when the add-in connects.
class AddinLog {
public:
    AddinLog(const ScratchFolder& folder, const ProductSettingsKey& settings);
    std::string contents() const { return readBytes(path_); }
    // The messages of the log's lines: what follows "<level> <logger>:<line> ".
    std::vector<std::string> messages() const;
    // Index of the first message containing `text` at or after `from`; -1 if none.
    int find(const std::string& text, int from = 0) const;

private:
    std::wstring path_;
};

// A ribbon control as Office passes it to the callbacks: "Id" and "Tag".
Microsoft::WRL::ComPtr<DispatchStandIn> ribbonControl(const std::wstring& id, const std::wstring& tag = L"");

// Office's IRibbonUI: records InvalidateControl calls.
Microsoft::WRL::ComPtr<DispatchStandIn> ribbonUi();

// Texts of a language beside the DLL copy, so that the test knows them.
void writeTexts(const ScratchFolder& folder, const std::string& language, const std::string& lines);
