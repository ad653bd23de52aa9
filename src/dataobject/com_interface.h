#pragma once
// QueryInterface of the add-in's own small COM objects, which each offer one
// interface besides IUnknown.
#include <unknwn.h>

template <typename Interface>
HRESULT queryOwnInterface(Interface* self, REFIID ownIid, REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    if (iid == IID_IUnknown || iid == ownIid) {
        *object = self;
        self->AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}
