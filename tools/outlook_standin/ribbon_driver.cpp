#include "ribbon_driver.h"

#include <oleauto.h>

#include <algorithm>

namespace {

std::wstring attributeValue(const std::wstring& element, const std::wstring& attribute)
{
    const std::wstring key = L" " + attribute + L"=\"";
    size_t at = element.find(key);
    if (at == std::wstring::npos) {
        // Attributes may also stand at the start of a line.
        const std::wstring lineKey = L"\n" + attribute + L"=\"";
        at = element.find(lineKey);
        if (at == std::wstring::npos)
            return {};
    }
    const size_t start = element.find(L'"', at) + 1;
    const size_t end = element.find(L'"', start);
    return end == std::wstring::npos ? std::wstring() : element.substr(start, end - start);
}

} // namespace

RibbonDriver::RibbonDriver(LoadedAddin& addin) : addin_(addin)
{
    ribbonUi_ = DispatchStandIn::create(L"IRibbonUI");
    ribbonUi_->method(L"InvalidateControl", [](const std::vector<VARIANT>&, VARIANT*) { return S_OK; });
    ribbonUi_->method(L"Invalidate", [](const std::vector<VARIANT>&, VARIANT*) { return S_OK; });
}

HRESULT RibbonDriver::load()
{
    if (!addin_.ribbon || !addin_.callbacks)
        return E_NOINTERFACE;
    BSTR xml = nullptr;
    BSTR ribbonId = SysAllocString(L"Microsoft.Outlook.Explorer");
    const HRESULT hr = addin_.ribbon->GetCustomUI(ribbonId, &xml);
    SysFreeString(ribbonId);
    if (FAILED(hr))
        return hr;
    xml_ = xml ? std::wstring(xml, SysStringLen(xml)) : std::wstring();
    SysFreeString(xml);
    if (xml_.empty())
        return S_FALSE;  // the add-in shows no tab

    const size_t root = xml_.find(L"<customUI");
    const std::wstring onLoad = root == std::wstring::npos ? L"" : attributeValue(xml_.substr(root, xml_.find(L'>', root) - root), L"onLoad");
    if (onLoad.empty())
        return S_OK;
    VARIANT ribbon;
    VariantInit(&ribbon);
    ribbon.vt = VT_DISPATCH;
    ribbon.pdispVal = ribbonUi_.Get();
    return invoke(onLoad, {ribbon}, nullptr);
}

std::wstring RibbonDriver::tabLabel() const
{
    // "<tab" and a blank or line break, not "<tabs>".
    size_t tab = xml_.find(L"<tab");
    while (tab != std::wstring::npos && !iswspace(xml_[tab + 4]))
        tab = xml_.find(L"<tab", tab + 4);
    return tab == std::wstring::npos ? std::wstring()
                                     : attributeValue(xml_.substr(tab, xml_.find(L'>', tab) - tab), L"label");
}

std::vector<std::wstring> RibbonDriver::controlIds() const
{
    std::vector<std::wstring> ids;
    for (const wchar_t* kind : {L"<toggleButton", L"<button", L"<checkBox", L"<dropDown"}) {
        for (size_t at = xml_.find(kind); at != std::wstring::npos; at = xml_.find(kind, at + 1)) {
            const std::wstring element = xml_.substr(at, xml_.find(L'>', at) - at);
            const std::wstring id = attributeValue(element, L"id");
            if (!id.empty())
                ids.push_back(id);
        }
    }
    return ids;
}

std::wstring RibbonDriver::elementOf(const std::wstring& controlId) const
{
    const std::wstring key = L"id=\"" + controlId + L"\"";
    const size_t at = xml_.find(key);
    if (at == std::wstring::npos)
        return {};
    const size_t start = xml_.rfind(L'<', at);
    const size_t end = xml_.find(L'>', at);
    return start == std::wstring::npos || end == std::wstring::npos ? std::wstring() : xml_.substr(start, end - start);
}

std::wstring RibbonDriver::callbackOf(const std::wstring& controlId, const std::wstring& attribute) const
{
    return attributeValue(elementOf(controlId), attribute);
}

Microsoft::WRL::ComPtr<DispatchStandIn> RibbonDriver::control(const std::wstring& controlId) const
{
    auto object = DispatchStandIn::create(L"IRibbonControl");
    const std::wstring tag = attributeValue(elementOf(controlId), L"tag");
    object->property(L"Id", [controlId] { return variant(controlId); });
    object->property(L"Tag", [tag] { return variant(tag); });
    return object;
}

HRESULT RibbonDriver::invoke(const std::wstring& callback, std::vector<VARIANT> argumentsInOrder, VARIANT* result)
{
    LPOLESTR name = const_cast<LPOLESTR>(callback.c_str());
    DISPID id = DISPID_UNKNOWN;
    HRESULT hr = addin_.callbacks->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id);
    if (FAILED(hr))
        return hr;
    // Dispatch arguments travel last first.
    std::reverse(argumentsInOrder.begin(), argumentsInOrder.end());
    DISPPARAMS parameters{argumentsInOrder.data(), nullptr, static_cast<UINT>(argumentsInOrder.size()), 0};
    EXCEPINFO exception{};
    UINT argumentError = 0;
    return addin_.callbacks->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &parameters, result,
                                    &exception, &argumentError);
}

HRESULT RibbonDriver::press(const std::wstring& controlId, const std::wstring& value)
{
    const std::wstring element = elementOf(controlId);
    if (element.empty())
        return DISP_E_MEMBERNOTFOUND;
    const std::wstring onAction = attributeValue(element, L"onAction");
    if (onAction.empty())
        return DISP_E_MEMBERNOTFOUND;
    auto object = control(controlId);
    VARIANT controlArgument;
    VariantInit(&controlArgument);
    controlArgument.vt = VT_DISPATCH;
    controlArgument.pdispVal = object.Get();

    if (element.rfind(L"<dropDown", 0) == 0) {
        // The item's index in the drop-down, as Office passes it along with the id.
        int index = 0;
        const size_t end = xml_.find(L"</dropDown>", xml_.find(element));
        const std::wstring items = xml_.substr(xml_.find(element), end - xml_.find(element));
        int position = 0;
        bool found = false;
        for (size_t at = items.find(L"<item"); at != std::wstring::npos; at = items.find(L"<item", at + 1), ++position) {
            if (attributeValue(items.substr(at, items.find(L'>', at) - at), L"id") == value) {
                index = position;
                found = true;
                break;
            }
        }
        if (!found)
            return E_INVALIDARG;
        VARIANT selectedId;
        VariantInit(&selectedId);
        selectedId.vt = VT_BSTR;
        selectedId.bstrVal = SysAllocString(value.c_str());
        VARIANT selectedIndex;
        VariantInit(&selectedIndex);
        selectedIndex.vt = VT_I4;
        selectedIndex.lVal = index;
        const HRESULT hr = invoke(onAction, {controlArgument, selectedId, selectedIndex}, nullptr);
        VariantClear(&selectedId);
        return hr;
    }
    VARIANT pressed;
    VariantInit(&pressed);
    pressed.vt = VT_BOOL;
    pressed.boolVal = value == L"true" ? VARIANT_TRUE : VARIANT_FALSE;
    return invoke(onAction, {controlArgument, pressed}, nullptr);
}

std::wstring RibbonDriver::state(const std::wstring& controlId)
{
    const std::wstring element = elementOf(controlId);
    const bool dropDown = element.rfind(L"<dropDown", 0) == 0;
    const std::wstring callback = attributeValue(element, dropDown ? L"getSelectedItemID" : L"getPressed");
    if (callback.empty())
        return {};
    auto object = control(controlId);
    VARIANT controlArgument;
    VariantInit(&controlArgument);
    controlArgument.vt = VT_DISPATCH;
    controlArgument.pdispVal = object.Get();
    VARIANT result;
    VariantInit(&result);
    if (FAILED(invoke(callback, {controlArgument}, &result)))
        return {};
    std::wstring text;
    if (result.vt == VT_BSTR && result.bstrVal)
        text = result.bstrVal;
    else if (result.vt == VT_BOOL)
        text = result.boolVal ? L"true" : L"false";
    VariantClear(&result);
    return text;
}

size_t RibbonDriver::invalidations(const std::wstring& controlId) const
{
    size_t count = 0;
    for (const DispatchCall& call : ribbonUi_->calls()) {
        if (call.member == L"InvalidateControl" && !call.args.empty() && call.args[0].text() == controlId)
            ++count;
    }
    return count;
}
