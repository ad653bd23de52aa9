// The add-in object's identity: creation, reference counting and the
// interfaces it answers, plain or aggregated.
#include "addin/kv_drag_drop_addin.h"

#include "addin/com_module.h"
#include "core/log.h"

#include <new>

namespace {

Logger logger("KVDragDropAddin");

} // namespace

HRESULT CKVDragDropAddin::create(IUnknown* outer, REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    // An aggregating object must hold the inner object's own IUnknown, or it
    // could never reach the inner object's interfaces behind its own.
    if (outer && iid != IID_IUnknown)
        return CLASS_E_NOAGGREGATION;
    auto* addin = new (std::nothrow) CKVDragDropAddin(outer);
    if (!addin)
        return E_OUTOFMEMORY;
    addin->ownUnknown_.AddRef();
    addin->finalConstruct();
    const HRESULT hr = addin->ownUnknown_.QueryInterface(iid, object);
    addin->ownUnknown_.Release();
    return hr;
}

CKVDragDropAddin::CKVDragDropAddin(IUnknown* outer) : controllingUnknown_(outer ? outer : &ownUnknown_)
{
    CkorvaneModule::instance().lock();
}

CKVDragDropAddin::~CKVDragDropAddin()
{
    CkorvaneModule::instance().unlock();
}

void CKVDragDropAddin::finalConstruct()
{
    KV_DEBUG(logger) << "FinalConstruct(";
    KV_DEBUG(logger) << ")FinalConstruct";
}

HRESULT CKVDragDropAddin::ownQueryInterface(REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    if (iid == IID_IUnknown) {
        *object = static_cast<IUnknown*>(&ownUnknown_);
    } else if (iid == IID_IDispatch || iid == IID_IKVDragDropAddin) {
        *object = static_cast<IKVDragDropAddin*>(this);
    } else if (iid == IID__IDTExtensibility2) {
        *object = static_cast<_IDTExtensibility2*>(this);
    } else if (iid == IID_IRibbonExtensibility) {
        *object = static_cast<IRibbonExtensibility*>(this);
    } else {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    static_cast<IUnknown*>(*object)->AddRef();
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::QueryInterface(REFIID iid, void** object)
{
    return controllingUnknown_->QueryInterface(iid, object);
}

ULONG STDMETHODCALLTYPE CKVDragDropAddin::AddRef()
{
    return controllingUnknown_->AddRef();
}

ULONG STDMETHODCALLTYPE CKVDragDropAddin::Release()
{
    return controllingUnknown_->Release();
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OwnUnknown::QueryInterface(REFIID iid, void** object)
{
    return addin_.ownQueryInterface(iid, object);
}

ULONG STDMETHODCALLTYPE CKVDragDropAddin::OwnUnknown::AddRef()
{
    return InterlockedIncrement(&addin_.references_);
}

ULONG STDMETHODCALLTYPE CKVDragDropAddin::OwnUnknown::Release()
{
    const LONG left = InterlockedDecrement(&addin_.references_);
    if (left == 0)
        delete &addin_;
    return left;
}
