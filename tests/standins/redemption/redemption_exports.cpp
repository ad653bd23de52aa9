// The entry points of the Redemption stand-in. The add-in loads the library
// from its own folder and asks DllGetClassObject for the session class
// directly, without COM registration, so that is all this file serves.
#include "redemption_objects.h"
#include "redemption_standin.h"

#include <objbase.h>

namespace {

class SessionFactory final : public IClassFactory {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IClassFactory) {
            *object = static_cast<IClassFactory*>(this);
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    // One factory for the life of the library: nothing to count.
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }

    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        Microsoft::WRL::ComPtr<IDispatch> session = createRedemptionSession();
        return session ? session->QueryInterface(riid, object) : E_OUTOFMEMORY;
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

SessionFactory sessionFactory;

} // namespace

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (clsid != standInRedemptionSessionClsid)
        return CLASS_E_CLASSNOTAVAILABLE;
    return sessionFactory.QueryInterface(riid, object);
}

// Objects handed out are not counted, and the add-in never unloads the
// library anyway: it stays.
extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return S_FALSE;
}
