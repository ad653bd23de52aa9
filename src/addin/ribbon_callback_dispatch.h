#pragma once
// IDispatch of IKVDragDropAddin: Office calls the ribbon callbacks that the
// ribbon XML names through GetIDsOfNames and Invoke, so their dispatch ids
// come from a fixed table rather than from the type library.
#include "korvane_h.h"

#include <string_view>

struct RibbonCallbackName {
    const wchar_t* name;
    DISPID id;
    UINT argumentCount;
};

inline constexpr RibbonCallbackName ribbonCallbackNames[] = {
    {L"Ribbon_onAction", 40, 2},
    {L"Ribbon_getPressed", 41, 1},
    {L"Ribbon_getImage", 42, 1},
    {L"Ribbon_getLabel", 43, 1},
    {L"Ribbon_onLoad", 44, 1},
    {L"Ribbon_getSelectedFormatID", 45, 1},
    {L"Ribbon_onFormatChanged", 46, 3},
    {L"Ribbon_getFormatLabel", 47, 2},
    {L"Ribbon_getFormatId", 48, 2},
    {L"Ribbon_getFormatCount", 49, 1},
    {L"Ribbon_getSelectedTextFormatID", 50, 1},
    {L"Ribbon_onTextFormatChanged", 51, 3},
};

// The dispatch id of a callback name (exact, case-sensitive); 0 for any other name.
DISPID ribbonCallbackDispId(std::wstring_view name);

class RibbonCallbackDispatch : public IKVDragDropAddin {
public:
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** typeInfo) override;
    // One name: the table (an unknown name gives 0 and S_OK). More names (a
    // member and its parameters): the type library.
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale,
                                            DISPID* ids) override;
    // Dispatch ids 40 to 51 call the callbacks with the arguments in call
    // order (DISPPARAMS holds them last to first); others are DISP_E_MEMBERNOTFOUND.
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* params,
                                     VARIANT* result, EXCEPINFO* exception, UINT* argumentError) override;

private:
    HRESULT invokeCallback(DISPID id, const DISPPARAMS& params, VARIANT* result, UINT* argumentError);
};
