// How Outlook starts and stops the add-in: the _IDTExtensibility2 events.
// Each returns S_OK whatever happens inside, an exception included; failures
// are only logged, since Outlook would disable an add-in that reports them.
#include "addin/kv_drag_drop_addin.h"

#include "addin/delayed_drag_drop_start.h"
#include "core/exception_barrier.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "hook/import_hook.h"

namespace {

Logger logger("KVDragDropAddin");

} // namespace

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnConnection(IDispatch* application, ext_ConnectMode, IDispatch*,
                                                         SAFEARRAY**)
{
    return barrier("OnConnection", S_OK, [application] {
        // The log is configured by init, so the connection's own trace follows it.
        Globals& globals = Globals::instance();
        globals.init();
        KV_INFO(logger) << "-----------";
        setOutlookApplication(application);
        globals.setLanguage(application);
        KV_DEBUG(logger) << "OnConnection(application=" << static_cast<const void*>(application);
        KV_DEBUG(logger) << ")OnConnection=" << std::hex << S_OK;
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnAddInsUpdate(SAFEARRAY**)
{
    return barrier("OnAddInsUpdate", S_OK, [] {
        KV_DEBUG(logger) << "OnAddInsUpdate()";
        startDragDropAfterDelay();
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnStartupComplete(SAFEARRAY**)
{
    KV_DEBUG(logger) << "OnStartupComplete(";
    KV_DEBUG(logger) << ")OnStartupComplete";
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnBeginShutdown(SAFEARRAY**)
{
    return barrier("OnBeginShutdown", S_OK, [] {
        KV_DEBUG(logger) << "OnBeginShutdown()";
        LogFile::instance().close();
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::OnDisconnection(ext_DisconnectMode, SAFEARRAY**)
{
    barrier("OnDisconnection", S_OK, [] {
        KV_DEBUG(logger) << "OnDisconnection()";
        EnableDragDrop(false);
        return S_OK;
    });
    // Outlook's application object is let go whatever happened above.
    return barrier("OnDisconnection: release the application", S_OK, [] {
        setOutlookApplication(nullptr);
        return S_OK;
    });
}
