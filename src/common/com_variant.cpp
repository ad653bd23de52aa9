#include "common/com_variant.h"

#include <vector>

UniqueVariant::UniqueVariant(const std::wstring& text)
{
    VariantInit(&value_);
    value_.bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (value_.bstrVal)
        value_.vt = VT_BSTR;
}

UniqueVariant::UniqueVariant(LONG number)
{
    VariantInit(&value_);
    value_.vt = VT_I4;
    value_.lVal = number;
}

UniqueVariant::UniqueVariant(IDispatch* object)
{
    VariantInit(&value_);
    value_.vt = VT_DISPATCH;
    value_.pdispVal = object;
    if (object)
        object->AddRef();
}

std::wstring UniqueVariant::text() const
{
    if (value_.vt == VT_BSTR)
        return value_.bstrVal ? std::wstring(value_.bstrVal, SysStringLen(value_.bstrVal)) : std::wstring();
    UniqueVariant converted;
    if (FAILED(VariantChangeType(converted.put(), const_cast<VARIANT*>(&value_), 0, VT_BSTR)) || !converted->bstrVal)
        return L"";
    return std::wstring(converted->bstrVal, SysStringLen(converted->bstrVal));
}

HRESULT invokeByName(IDispatch* object, const wchar_t* name, WORD flags, std::initializer_list<const VARIANT*> args,
                     UniqueVariant* result)
{
    if (!object || !name)
        return E_POINTER;
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_SYSTEM_DEFAULT, &id);
    if (FAILED(hr))
        return hr;

    // Shallow copies: the callers' variants own the contents and outlive the call.
    std::vector<VARIANT> reversed;
    reversed.reserve(args.size());
    for (auto it = std::rbegin(args); it != std::rend(args); ++it)
        reversed.push_back(**it);

    DISPID namedPut = DISPID_PROPERTYPUT;
    DISPPARAMS params{reversed.empty() ? nullptr : reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
    if (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) {
        params.rgdispidNamedArgs = &namedPut;
        params.cNamedArgs = 1;
    }
    UniqueVariant ignored;
    return object->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, flags, &params, result ? result->put() : ignored.put(),
                          nullptr, nullptr);
}

HRESULT getDispatchProperty(IDispatch* object, const wchar_t* name, VARIANT* args, UINT argCount,
                            UniqueVariant& result)
{
    if (argCount == 0)
        return invokeByName(object, name, DISPATCH_PROPERTYGET, {}, &result);
    if (argCount == 1)
        return invokeByName(object, name, DISPATCH_PROPERTYGET, {args}, &result);
    return E_INVALIDARG;
}
