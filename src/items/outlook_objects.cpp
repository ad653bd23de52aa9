#include "items/outlook_objects.h"

#include "common/com_variant.h"

Microsoft::WRL::ComPtr<IDispatch> getPropertyObjectByName(IDispatch* object, const wchar_t* name)
{
    Microsoft::WRL::ComPtr<IDispatch> result;
    UniqueVariant value;
    if (SUCCEEDED(invokeByName(object, name, DISPATCH_PROPERTYGET, {}, &value)) && value->vt == VT_DISPATCH)
        result = value->pdispVal;
    return result;
}

Microsoft::WRL::ComPtr<IUnknown> getPropertyUnknownByName(IDispatch* object, const wchar_t* name)
{
    Microsoft::WRL::ComPtr<IUnknown> result;
    UniqueVariant value;
    if (FAILED(invokeByName(object, name, DISPATCH_PROPERTYGET, {}, &value)))
        return result;
    if (value->vt == VT_UNKNOWN)
        result = value->punkVal;
    else if (value->vt == VT_DISPATCH)
        result = value->pdispVal;
    return result;
}

Microsoft::WRL::ComPtr<IDispatch> callForObject(IDispatch* object, const wchar_t* name,
                                                std::initializer_list<const VARIANT*> args, HRESULT& hr)
{
    Microsoft::WRL::ComPtr<IDispatch> result;
    UniqueVariant value;
    hr = invokeByName(object, name, DISPATCH_METHOD, args, &value);
    if (SUCCEEDED(hr)) {
        if (value->vt == VT_DISPATCH && value->pdispVal)
            result = value->pdispVal;
        else
            hr = E_NOINTERFACE;
    }
    return result;
}
