#include "addin/ribbon_callback_dispatch.h"

#include "core/exception_barrier.h"
#include "addin/type_library.h"
#include "common/com_variant.h"
#include "common/hresult.h"

#include <oleauto.h>
#include <wrl/client.h>

#include <iterator>

using Microsoft::WRL::ComPtr;

namespace {

// The arguments of one call in call order, converted the way automation
// converts them; a wrong count or type names the offending argument.
class CallArguments {
public:
    CallArguments(const DISPPARAMS& params, UINT* argumentError) : params_(params), argumentError_(argumentError) {}

    HRESULT expectCount(UINT count) const
    {
        return params_.cArgs == count ? S_OK : DISP_E_BADPARAMCOUNT;
    }

    HRESULT object(UINT index, ComPtr<IDispatch>& value) const
    {
        UniqueVariant converted;
        RETURN_IF_FAILED(convert(index, VT_DISPATCH, converted));
        value = converted->pdispVal;
        return S_OK;
    }

    HRESULT boolean(UINT index, VARIANT_BOOL& value) const
    {
        UniqueVariant converted;
        RETURN_IF_FAILED(convert(index, VT_BOOL, converted));
        value = converted->boolVal;
        return S_OK;
    }

    HRESULT text(UINT index, UniqueVariant& value) const { return convert(index, VT_BSTR, value); }

    HRESULT number(UINT index, int& value) const
    {
        UniqueVariant converted;
        RETURN_IF_FAILED(convert(index, VT_I4, converted));
        value = converted->lVal;
        return S_OK;
    }

private:
    HRESULT convert(UINT index, VARTYPE type, UniqueVariant& converted) const
    {
        const UINT position = params_.cArgs - 1 - index;
        VARIANT* argument = &params_.rgvarg[position];
        HRESULT hr = VariantChangeType(converted.put(), argument, 0, type);
        // An empty VARIANT passed for a control is a call without a control.
        if (hr == DISP_E_TYPEMISMATCH && type == VT_DISPATCH && argument->vt == VT_EMPTY) {
            converted.put()->vt = VT_DISPATCH;
            converted->pdispVal = nullptr;
            hr = S_OK;
        }
        if (FAILED(hr) && argumentError_)
            *argumentError_ = position;
        return hr;
    }

    const DISPPARAMS& params_;
    UINT* argumentError_;
};

// Results are handed over only after the callback has filled them.
HRESULT setBoolResult(HRESULT hr, const VARIANT_BOOL& value, VARIANT* result)
{
    if (SUCCEEDED(hr)) {
        result->vt = VT_BOOL;
        result->boolVal = value;
    }
    return hr;
}

HRESULT setTextResult(HRESULT hr, BSTR& value, VARIANT* result)
{
    if (SUCCEEDED(hr)) {
        result->vt = VT_BSTR;
        result->bstrVal = value;
    } else {
        SysFreeString(value);
    }
    value = nullptr;
    return hr;
}

} // namespace

DISPID ribbonCallbackDispId(std::wstring_view name)
{
    for (const RibbonCallbackName& callback : ribbonCallbackNames) {
        if (name == callback.name)
            return callback.id;
    }
    return 0;
}

HRESULT STDMETHODCALLTYPE RibbonCallbackDispatch::GetTypeInfoCount(UINT* count)
{
    if (!count)
        return E_POINTER;
    *count = 1;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE RibbonCallbackDispatch::GetTypeInfo(UINT index, LCID, ITypeInfo** typeInfo)
{
    if (!typeInfo)
        return E_POINTER;
    *typeInfo = nullptr;
    if (index != 0)
        return DISP_E_BADINDEX;
    return loadAddinTypeInfo(IID_IKVDragDropAddin, TypeInfoKind::Dispatch, typeInfo);
}

HRESULT STDMETHODCALLTYPE RibbonCallbackDispatch::GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID,
                                                                DISPID* ids)
{
    if (iid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    if (!names || !ids)
        return E_POINTER;
    if (count == 1) {
        ids[0] = names[0] ? ribbonCallbackDispId(names[0]) : 0;
        return S_OK;
    }
    ComPtr<ITypeInfo> typeInfo;
    RETURN_IF_FAILED(loadAddinTypeInfo(IID_IKVDragDropAddin, TypeInfoKind::Dispatch, &typeInfo));
    return DispGetIDsOfNames(typeInfo.Get(), names, count, ids);
}

HRESULT STDMETHODCALLTYPE RibbonCallbackDispatch::Invoke(DISPID id, REFIID iid, LCID, WORD, DISPPARAMS* params,
                                                         VARIANT* result, EXCEPINFO*, UINT* argumentError)
{
    if (iid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    if (id < 40 || id > 51)
        return DISP_E_MEMBERNOTFOUND;
    DISPPARAMS noArguments{};
    if (!params)
        params = &noArguments;
    if (params->cNamedArgs != 0)
        return DISP_E_NONAMEDARGS;
    if (params->cArgs != 0 && !params->rgvarg)
        return E_INVALIDARG;
    // A caller that wants no result still gets the callback run.
    UniqueVariant ignored;
    if (!result)
        result = ignored.get();
    else
        VariantInit(result);
    return barrier("IKVDragDropAddin::Invoke", [&] { return invokeCallback(id, *params, result, argumentError); });
}

HRESULT RibbonCallbackDispatch::invokeCallback(DISPID id, const DISPPARAMS& params, VARIANT* result,
                                               UINT* argumentError)
{
    const CallArguments args(params, argumentError);
    RETURN_IF_FAILED(args.expectCount(ribbonCallbackNames[id - 40].argumentCount));
    ComPtr<IDispatch> control;
    RETURN_IF_FAILED(args.object(0, control));

    switch (id) {
    case 40: {
        VARIANT_BOOL pressed = VARIANT_FALSE;
        RETURN_IF_FAILED(args.boolean(1, pressed));
        return Ribbon_onAction(control.Get(), pressed);
    }
    case 41: {
        VARIANT_BOOL pressed = VARIANT_FALSE;
        const HRESULT hr = Ribbon_getPressed(control.Get(), &pressed);
        return setBoolResult(hr, pressed, result);
    }
    case 42: {
        IPictureDisp* picture = nullptr;
        const HRESULT hr = Ribbon_getImage(control.Get(), &picture);
        if (SUCCEEDED(hr)) {
            result->vt = VT_DISPATCH;
            result->pdispVal = picture;
        }
        return hr;
    }
    case 43: {
        BSTR label = nullptr;
        const HRESULT hr = Ribbon_getLabel(control.Get(), &label);
        return setTextResult(hr, label, result);
    }
    case 44:
        return Ribbon_onLoad(control.Get());
    case 45:
    case 50: {
        BSTR selected = nullptr;
        const HRESULT hr = id == 45 ? Ribbon_getSelectedFormatID(control.Get(), &selected)
                                    : Ribbon_getSelectedTextFormatID(control.Get(), &selected);
        return setTextResult(hr, selected, result);
    }
    case 46:
    case 51: {
        UniqueVariant selectedId;
        int selectedIndex = 0;
        RETURN_IF_FAILED(args.text(1, selectedId));
        RETURN_IF_FAILED(args.number(2, selectedIndex));
        return id == 46 ? Ribbon_onFormatChanged(control.Get(), selectedId->bstrVal, selectedIndex)
                        : Ribbon_onTextFormatChanged(control.Get(), selectedId->bstrVal, selectedIndex);
    }
    case 47:
    case 48: {
        int index = 0;
        RETURN_IF_FAILED(args.number(1, index));
        BSTR text = nullptr;
        const HRESULT hr = id == 47 ? Ribbon_getFormatLabel(control.Get(), index, &text)
                                    : Ribbon_getFormatId(control.Get(), index, &text);
        return setTextResult(hr, text, result);
    }
    case 49: {
        int count = 0;
        const HRESULT hr = Ribbon_getFormatCount(control.Get(), &count);
        if (SUCCEEDED(hr)) {
            result->vt = VT_I4;
            result->lVal = count;
        }
        return hr;
    }
    default:
        return DISP_E_MEMBERNOTFOUND;
    }
}

// Invoke finds a callback's entry by its id.
static_assert([] {
    for (size_t index = 0; index < std::size(ribbonCallbackNames); ++index) {
        if (ribbonCallbackNames[index].id != DISPID(40 + index))
            return false;
    }
    return true;
}());
