#include "common/com_variant.h"

#include <vector>

HRESULT getDispatchProperty(IDispatch* object, const wchar_t* name, VARIANT* args, UINT argCount,
                            UniqueVariant& result)
{
    if (!object || !name)
        return E_POINTER;
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_SYSTEM_DEFAULT, &id);
    if (FAILED(hr))
        return hr;

    // IDispatch takes its arguments last to first.
    std::vector<VARIANT> reversed(args, args + argCount);
    std::vector<VARIANT>(reversed.rbegin(), reversed.rend()).swap(reversed);
    DISPPARAMS params{reversed.empty() ? nullptr : reversed.data(), nullptr, argCount, 0};
    return object->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_PROPERTYGET, &params, result.put(), nullptr,
                          nullptr);
}
