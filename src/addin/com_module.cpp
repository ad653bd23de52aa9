#include "addin/com_module.h"

#include "addin/class_factory.h"
#include "addin/gdiplus_session.h"
#include "core/log.h"
#include "korvane_h.h"

namespace {

Logger logger("korvane");

} // namespace

CkorvaneModule& CkorvaneModule::instance()
{
    static CkorvaneModule module;
    return module;
}

HRESULT CkorvaneModule::getClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (clsid != CLSID_CKVDragDropAddin) {
        KV_DEBUG(logger) << "DllGetClassObject: class not served here";
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    return createKVDragDropAddinFactory(iid, object);
}

HRESULT CkorvaneModule::canUnloadNow()
{
    if (locks_ != 0)
        return S_FALSE;
    // COM frees the library right after this answer; GDI+ must be shut down
    // before that and never from DllMain.
    GdiplusSession::instance().shutdown();
    return S_OK;
}
