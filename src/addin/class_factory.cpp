#include "addin/class_factory.h"

#include "addin/com_module.h"
#include "core/exception_barrier.h"
#include "addin/kv_drag_drop_addin.h"

#include <new>

namespace {

class KVDragDropAddinFactory final : public IClassFactory {
public:
    KVDragDropAddinFactory() { CkorvaneModule::instance().lock(); }
    KVDragDropAddinFactory(const KVDragDropAddinFactory&) = delete;
    KVDragDropAddinFactory& operator=(const KVDragDropAddinFactory&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (iid == IID_IUnknown || iid == IID_IClassFactory) {
            *object = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&references_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = InterlockedDecrement(&references_);
        if (left == 0)
            delete this;
        return left;
    }

    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override
    {
        return barrier("CreateInstance", [&] { return CKVDragDropAddin::create(outer, iid, object); });
    }

    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override
    {
        if (lock)
            CkorvaneModule::instance().lock();
        else
            CkorvaneModule::instance().unlock();
        return S_OK;
    }

private:
    ~KVDragDropAddinFactory() { CkorvaneModule::instance().unlock(); }

    LONG references_ = 1;
};

} // namespace

HRESULT createKVDragDropAddinFactory(REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    auto* factory = new (std::nothrow) KVDragDropAddinFactory();
    if (!factory)
        return E_OUTOFMEMORY;
    const HRESULT hr = factory->QueryInterface(iid, object);
    factory->Release();
    return hr;
}
