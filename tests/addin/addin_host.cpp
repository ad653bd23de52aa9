#include "addin_host.h"

#include "core/globals.h"
#include "common/com_variant.h"
#include "common/module_path.h"
#include "core/reg_util.h"

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

std::wstring productSubKey()
{
    return std::wstring(L"Software\\") + Globals::defaultCompanyName + L"\\" + Globals::defaultProductName;
}

} // namespace

ProductSettingsKey::ProductSettingsKey()
{
    removeAll();
}

ProductSettingsKey::~ProductSettingsKey()
{
    removeAll();
}

void ProductSettingsKey::removeAll()
{
    const REGSAM view = RegUtil::registryView();
    for (REGSAM each : {REGSAM(0), REGSAM(KEY_WOW64_32KEY)}) {
        RegUtil::setRegistryView(each);
        RegUtil::deleteKeyIfExists(L"HKCU\\" + productSubKey());
        RegUtil::deleteKeyIfExists(L"HKLM\\" + productSubKey());
        const std::wstring company = std::wstring(L"Software\\") + Globals::defaultCompanyName;
        RegDeleteKeyExW(HKEY_CURRENT_USER, company.c_str(), each, 0);
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, company.c_str(), each, 0);
    }
    RegUtil::setRegistryView(view);
}

std::wstring ProductSettingsKey::userPath(const std::wstring& name)
{
    return L"HKCU\\" + productSubKey() + L"\\" + name;
}

void ProductSettingsKey::set(const std::wstring& name, const std::wstring& value) const
{
    ASSERT_TRUE(RegUtil::setRegValue(userPath(name), L"", value));
}

std::wstring ProductSettingsKey::get(const std::wstring& name) const
{
    return RegUtil::readString(userPath(name));
}

AddinDll::AddinDll(const ScratchFolder& folder) : copy_(folder) {}

std::wstring AddinDll::path() const
{
    return modulePath(module(), 1000);
}

HRESULT AddinDll::getClassObject(REFCLSID clsid, REFIID iid, void** object) const
{
    auto* function = entryPoint<HRESULT STDAPICALLTYPE(REFCLSID, REFIID, void**)>("DllGetClassObject");
    return function ? function(clsid, iid, object) : E_NOTIMPL;
}

HRESULT AddinDll::canUnloadNow() const
{
    auto* function = entryPoint<HRESULT STDAPICALLTYPE()>("DllCanUnloadNow");
    return function ? function() : E_NOTIMPL;
}

HRESULT AddinDll::createInstance(IUnknown* outer, REFIID iid, void** object) const
{
    ComPtr<IClassFactory> factory;
    const HRESULT hr = getClassObject(CLSID_CKVDragDropAddin, IID_PPV_ARGS(&factory));
    if (FAILED(hr))
        return hr;
    return factory->CreateInstance(outer, iid, object);
}

AddinLog::AddinLog(const ScratchFolder& folder, const ProductSettingsKey& settings)
    : path_(folder.file(L"korvane.log"))
{
    settings.set(L"LogFile", path_);
    settings.set(L"LogLevel", L"DEBUG");
    settings.set(L"LogAppend", L"false");
}

std::vector<std::string> AddinLog::messages() const
{
    std::vector<std::string> result;
    const std::string text = contents();
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find("\r\n", start);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 2;
        // date, time, thread, level, then "logger:line " and the message
        size_t at = 0;
        for (int field = 0; field < 5 && at != std::string::npos; ++field)
            at = line.find(' ', at + (field ? 1 : 0));
        result.push_back(at == std::string::npos ? line : line.substr(at + 1));
    }
    return result;
}

int AddinLog::find(const std::string& text, int from) const
{
    const auto lines = messages();
    for (int index = from; index < static_cast<int>(lines.size()); ++index) {
        if (lines[index].find(text) != std::string::npos)
            return index;
    }
    return -1;
}

ComPtr<DispatchStandIn> ribbonControl(const std::wstring& id, const std::wstring& tag)
{
    auto control = DispatchStandIn::create(L"IRibbonControl");
    control->property(L"Id", [id] { return variant(id); });
    control->property(L"Tag", [tag] { return variant(tag); });
    return control;
}

ComPtr<DispatchStandIn> ribbonUi()
{
    auto ribbon = DispatchStandIn::create(L"IRibbonUI");
    ribbon->method(L"InvalidateControl", [](const std::vector<VARIANT>&, VARIANT*) { return S_OK; });
    return ribbon;
}

void writeTexts(const ScratchFolder& folder, const std::string& language, const std::string& lines)
{
    writeBytes(folder.file(L"resource_" + std::wstring(language.begin(), language.end()) + L".txt"), lines);
}
