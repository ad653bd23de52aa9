// What Outlook reaches through its rewritten DoDragDrop and OleSetClipboard
// slots. Each replacement decides whether the add-in takes part; when it does
// it lets the file-drop unit build a data object that carries real files and
// calls the true function with it. When it doesn't, or anything on the way
// fails, the true function gets Outlook's own arguments: a drag or a copy out
// of Outlook always happens, at worst without files.
#include "hook/drag_entry.h"
#include "common/com_ptr.h"

#include "core/exception_barrier.h"
#include "core/log.h"
#include "filedrop/file_drop.h"
#include "hook/drop_source.h"
#include "dataobject/drop_target_tracker.h"

#include <wrl/client.h>

#include <memory>
#include <new>

using Microsoft::WRL::ComPtr;

namespace {

Logger logger("HookDD");

Globals* settingsOverride = nullptr;

// Set by the file-drop unit, held while the true DoDragDrop runs.
ComPtr<IDataObject> g_dataObject;

// A drop target inside Outlook may start a drag of its own from within the
// modal loop of ours; that inner drag goes through untouched, since the
// module-wide drag state belongs to the outer one.
bool dragInProgress = false;

class DragInProgress {
public:
    DragInProgress() { dragInProgress = true; }
    ~DragInProgress()
    {
        dragInProgress = false;
        g_dataObject.Reset();
    }
    DragInProgress(const DragInProgress&) = delete;
    DragInProgress& operator=(const DragInProgress&) = delete;
};

// After the drag, the effect Outlook sees decides whether it deletes the
// mail: a drop into another program counts as a copy ("always copy"), or,
// without that rule, a drop that reports nothing while Shift was held is the
// move the user asked for. Only a drop is corrected: a cancelled or failed
// drag reports what ole32 reported, so Outlook never moves a mail that went
// nowhere.
void correctEffect(Globals& settings, const MyDropSource& dropSource, HRESULT dragResult, DWORD* effect)
{
    const DWORD reported = effect ? *effect : DROPEFFECT_NONE;
    const char* rule = "none, no drop";
    if (dragResult != DRAGDROP_S_DROP) {
        // left as ole32 reported it
    } else if (settings.getIgnoreTargetEffectIfDroppedIntoOtherApplication()) {
        rule = "always copy";
        applyAlwaysCopyRule(effect);
    } else {
        rule = "Shift means move";
        if (effect && *effect == DROPEFFECT_NONE && dropSource.shiftHeld()) {
            *effect = DROPEFFECT_MOVE;
            KV_INFO(logger) << "correct drop effect to DROPEFFECT_MOVE";
        }
    }
    KV_INFO(logger) << "drop effect rule: " << rule << ", ret=" << dragResult << ", effect "
                    << dropEffectName(reported) << " -> " << dropEffectName(effect ? *effect : DROPEFFECT_NONE);
}

// The add-in's part of a drag. `tookPart` is set just before the true
// DoDragDrop runs; while it is false, Outlook's own drag has to run instead.
void takePartInDrag(Globals& settings, IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects,
                    DWORD* effect, HRESULT& result, bool& tookPart)
{
    const bool saveOnBeginDrag = settings.getSaveOnBeginDrag() || isFirefoxRunning(settings);
    KV_DEBUG(logger) << "saveOnBeginDrag=" << saveOnBeginDrag << ", format=" << settings.getFormat();
    const auto items = std::make_shared<DDItems>();

    const DragInProgress drag;
    const HRESULT hr =
        FileDrop::handleDataObject(dataObject, dataObject, items, saveOnBeginDrag, g_dataObject, settings);
    if (FAILED(hr) || !g_dataObject) {
        KV_DEBUG(logger) << "handleDataObject hr=" << hr;
        return;
    }

    ComPtr<MyDropSource> myDropSource;
    myDropSource = adoptCom(new (std::nothrow) MyDropSource(dropSource, items));
    if (!myDropSource)
        return;

    KV_INFO(logger) << "g_DoDragDrop " << g_dataObject.Get();
    tookPart = true;
    result = g_DoDragDrop(g_dataObject.Get(), myDropSource.Get(), okEffects, effect);
    KV_INFO(logger) << "g_DoDragDrop, ret=" << result;
    g_dataObject.Reset();

    faultPoint("MyDoDragDrop after the drag");
    correctEffect(settings, *myDropSource.Get(), result, effect);
}

// The add-in's part of a clipboard copy; false when Outlook's own object has
// to go onto the clipboard instead.
bool takePartInCopy(Globals& settings, IDataObject* dataObject, HRESULT& result)
{
    // The paste may come long after the copy, when Outlook's object can no
    // longer give the contents: the files are written now.
    const auto items = std::make_shared<DDItems>();
    ComPtr<IDataObject> newDataObject;
    const HRESULT hr = FileDrop::handleDataObject(dataObject, dataObject, items, true, newDataObject, settings);
    if (FAILED(hr) || !newDataObject) {
        KV_DEBUG(logger) << "handleDataObject hr=" << hr;
        return false;
    }
    const HRESULT set = g_OleSetClipboard(newDataObject.Get());
    if (FAILED(set)) {
        KV_ERROR(logger) << "OleSetClipboard with the new data object failed, hr=" << set;
        return false;
    }
    result = hr;
    return true;
}

} // namespace

Globals& hookSettings()
{
    return settingsOverride ? *settingsOverride : Globals::instance();
}

void setHookSettings(Globals* settings)
{
    settingsOverride = settings;
}

IDataObject* currentDragDataObject()
{
    return g_dataObject.Get();
}

// The replacements run in Outlook's stack: behind their barriers nothing of
// ours escapes, and whatever fails before the true function ran leaves
// Outlook's own call to happen as if the add-in weren't there.
HRESULT WINAPI MyDoDragDrop(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect)
{
    KV_DEBUG(logger) << "MyDoDragDrop(dwOKEffects=" << okEffects << ", pDataObject=" << dataObject
                     << ", pDropSource=" << dropSource;
    HRESULT result = E_UNEXPECTED;
    bool tookPart = false;
    barrier("MyDoDragDrop", [&] {
        Globals& settings = hookSettings();
        const bool locked = settings.getLocked();
        KV_INFO(logger) << "Start DoDragDrop, locked=" << locked << " ------------";
        if (!locked && dataObject && !dragInProgress)
            takePartInDrag(settings, dataObject, dropSource, okEffects, effect, result, tookPart);
        return S_OK;
    });
    if (!tookPart) {
        KV_INFO(logger) << "process default DoDragDrop";
        result = g_DoDragDrop(dataObject, dropSource, okEffects, effect);
    }
    KV_INFO(logger) << "End DoDragDrop, success=" << (result == DRAGDROP_S_DROP)
                    << ", cancel=" << (result == DRAGDROP_S_CANCEL) << " ------------";
    KV_DEBUG(logger) << ")MyDoDragDrop=" << result << ", *pdwEffect=" << (effect ? *effect : 0);
    return result;
}

HRESULT WINAPI MyDoDragDropOnlyCopyAllowed(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects,
                                           DWORD* effect)
{
    KV_DEBUG(logger) << "MyDoDragDropOnlyCopyAllowed(dwOKEffects=" << okEffects;
    return MyDoDragDrop(dataObject, dropSource, DROPEFFECT_COPY, effect);
}

HRESULT WINAPI MyOleSetClipboard(IDataObject* dataObject)
{
    KV_DEBUG(logger) << "MyOleSetClipboard(pDataObject=" << dataObject;
    HRESULT result = E_UNEXPECTED;
    bool tookPart = false;
    barrier("MyOleSetClipboard", [&] {
        Globals& settings = hookSettings();
        const bool locked = settings.getLocked();
        KV_INFO(logger) << "Start DoDragDrop, locked=" << locked << " ------------";
        // A null object is Outlook emptying the clipboard.
        if (!locked && dataObject)
            tookPart = takePartInCopy(settings, dataObject, result);
        return S_OK;
    });
    if (!tookPart) {
        KV_INFO(logger) << "process default OleSetClipboard";
        result = g_OleSetClipboard(dataObject);
    }
    KV_DEBUG(logger) << ")MyOleSetClipboard=" << result;
    return result;
}
