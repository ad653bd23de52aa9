// How Outlook starts and stops the add-in: the _IDTExtensibility2 events.
// Each returns S_OK whatever happens inside; failures are only logged by the
// part concerned, since Outlook would disable an add-in that reports them.
#include "addin/kv_drag_drop_addin.h"

#include "addin/delayed_drag_drop_start.h"
#include "addin/globals.h"
#include "addin/log.h"
#include "addin/outlook_application.h"
#include "hook/import_hook.h"

namespace {

Logger logger("KVDragDropAddin");

} // namespace

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnConnection(IDispatch* application, ext_ConnectMode, IDispatch*,
                                                         SAFEARRAY**)
{
    // The log is configured by init, so the connection's own trace follows it.
    Globals& globals = Globals::instance();
    globals.init();
    KV_INFO(logger) << "-----------";
    setOutlookApplication(application);
    globals.setLanguage(application);
    KV_DEBUG(logger) << "OnConnection(application=" << static_cast<const void*>(application);
    KV_DEBUG(logger) << ")OnConnection=" << std::hex << S_OK;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnAddInsUpdate(SAFEARRAY**)
{
    KV_DEBUG(logger) << "OnAddInsUpdate()";
    startDragDropAfterDelay();
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnStartupComplete(SAFEARRAY**)
{
    KV_DEBUG(logger) << "OnStartupComplete(";
    KV_DEBUG(logger) << ")OnStartupComplete";
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnBeginShutdown(SAFEARRAY**)
{
    KV_DEBUG(logger) << "OnBeginShutdown()";
    LogFile::instance().close();
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnDisconnection(ext_DisconnectMode, SAFEARRAY**)
{
    KV_DEBUG(logger) << "OnDisconnection()";
    EnableDragDrop(false);
    setOutlookApplication(nullptr);
    return S_OK;
}
