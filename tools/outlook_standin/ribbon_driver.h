#pragma once
// Plays Office's ribbon for an add-in: asks for the explorer's ribbon XML,
// hands over the ribbon object (onLoad) and presses the controls by calling
// the callbacks that the XML names through IDispatch, by name.
#include "addin_loader.h"

#include "e2e_shared/dispatch_standin.h"

#include <string>
#include <vector>

class RibbonDriver {
public:
    explicit RibbonDriver(LoadedAddin& addin);

    // GetCustomUI("Microsoft.Outlook.Explorer"), then the XML's onLoad callback.
    HRESULT load();
    const std::wstring& xml() const { return xml_; }
    // The ids of the controls in the XML, in document order.
    // The title of the add-in's tab, as Outlook would show it.
    std::wstring tabLabel() const;
    std::vector<std::wstring> controlIds() const;

    // Presses a control as the user would: a toggle or check box with
    // "true"/"false", a drop-down with the id of an item.
    HRESULT press(const std::wstring& controlId, const std::wstring& value);
    // The state the ribbon would show: getPressed of a toggle, the selected
    // id of a drop-down; empty on failure.
    std::wstring state(const std::wstring& controlId);

    // Times InvalidateControl was called back for a control.
    size_t invalidations(const std::wstring& controlId) const;

private:
    // The callback attribute of the control's element, e.g. "onAction".
    std::wstring callbackOf(const std::wstring& controlId, const std::wstring& attribute) const;
    std::wstring elementOf(const std::wstring& controlId) const;
    HRESULT invoke(const std::wstring& callback, std::vector<VARIANT> argumentsInOrder, VARIANT* result);
    Microsoft::WRL::ComPtr<DispatchStandIn> control(const std::wstring& controlId) const;

    LoadedAddin& addin_;
    std::wstring xml_;
    Microsoft::WRL::ComPtr<DispatchStandIn> ribbonUi_;
};
