#pragma once
// IDispatch of a dual interface, answered from its description in the
// add-in's type library: names through DispGetIDsOfNames, calls through
// DispInvoke into the interface's own methods. The ribbon interface and the
// connection interface are dispatched this way.
#include "addin/type_library.h"
#include "common/hresult.h"

#include <oleauto.h>
#include <wrl/client.h>

template <typename Interface>
class TypeInfoDispatch : public Interface {
public:
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override
    {
        if (!count)
            return E_POINTER;
        *count = 1;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** typeInfo) override
    {
        if (!typeInfo)
            return E_POINTER;
        *typeInfo = nullptr;
        if (index != 0)
            return DISP_E_BADINDEX;
        return loadAddinTypeInfo(__uuidof(Interface), TypeInfoKind::Dispatch, typeInfo);
    }

    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        if (iid != IID_NULL)
            return DISP_E_UNKNOWNINTERFACE;
        RETURN_IF_FAILED(loadVtableTypeInfo());
        return DispGetIDsOfNames(vtableTypeInfo_.Get(), names, count, ids);
    }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO* exception, UINT* argumentError) override
    {
        if (iid != IID_NULL)
            return DISP_E_UNKNOWNINTERFACE;
        RETURN_IF_FAILED(loadVtableTypeInfo());
        return DispInvoke(static_cast<Interface*>(this), vtableTypeInfo_.Get(), id, flags, params, result, exception,
                          argumentError);
    }

private:
    HRESULT loadVtableTypeInfo()
    {
        if (vtableTypeInfo_)
            return S_OK;
        return loadAddinTypeInfo(__uuidof(Interface), TypeInfoKind::Vtable, &vtableTypeInfo_);
    }

    Microsoft::WRL::ComPtr<ITypeInfo> vtableTypeInfo_;
};
