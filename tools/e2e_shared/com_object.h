#pragma once
// Reference counting and QueryInterface for the COM objects that tests make
// themselves (stand-ins for Outlook's objects, minimal MAPI messages).
// `Interface` is the one interface the object implements, with its bases;
// IID_IUnknown is always answered, other ids as `offers` says.
#include <windows.h>
#include <unknwn.h>

template <typename Interface>
class ComObject : public Interface {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (riid == IID_IUnknown || offers(riid)) {
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }

    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&references_); }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG remaining = InterlockedDecrement(&references_);
        if (remaining == 0)
            delete this;
        return remaining;
    }

protected:
    ComObject() = default;
    virtual ~ComObject() = default;
    // Interface ids besides IID_IUnknown that QueryInterface hands out this object for.
    virtual bool offers(REFIID) const { return false; }

private:
    LONG references_ = 1;  // the creator's reference
};
