#include "drag_driver.h"

#include "e2e_shared/drop_report.h"

// The program's own import-address-table slots, by the names the import
// library gives them.
#if defined(_WIN64)
extern "C" void* standInDoDragDropSlot asm("__imp_DoDragDrop");
extern "C" void* standInOleSetClipboardSlot asm("__imp_OleSetClipboard");
#else
extern "C" void* standInDoDragDropSlot asm("__imp__DoDragDrop@16");
extern "C" void* standInOleSetClipboardSlot asm("__imp__OleSetClipboard@4");
#endif

namespace {

// Outlook's drop source, with a scripted user behind it.
class UserDropSource final : public IDropSource {
public:
    UserDropSource(const DragRequest& request, DragOutcome& outcome) : request_(request), outcome_(outcome) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IDropSource) {
            *object = static_cast<IDropSource*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&references_); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&references_); }

    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL escapePressed, DWORD keyState) override
    {
        ++outcome_.polls;
        // A target that never shows up ends the drag as a cancel.
        if (escapePressed || outcome_.polls > 600)
            return DRAGDROP_S_CANCEL;
        if (request_.holdShift && !(keyState & MK_SHIFT)) {
            setShift(true);
            return S_OK;
        }
        POINT cursor{};
        GetCursorPos(&cursor);
        HWND under = WindowFromPoint(cursor);
        if (under)
            under = GetAncestor(under, GA_ROOT);
        if (under != request_.target) {
            moveOntoTarget();
            overTarget_ = 0;
            return S_OK;
        }
        // A few polls over the target, so that it has seen the drag enter.
        if (++overTarget_ < 3)
            return S_OK;
        outcome_.releaseTicks = performanceTicks();
        return DRAGDROP_S_DROP;
    }
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD) override { return DRAGDROP_S_USEDEFAULTCURSORS; }

    void moveOntoTarget() const
    {
        RECT rect{};
        GetWindowRect(request_.target, &rect);
        SetCursorPos((rect.left + rect.right) / 2, (rect.top + rect.bottom) / 2);
    }

    // The drag loop reads the keys from this thread's keyboard state.
    static void setShift(bool down)
    {
        BYTE keys[256] = {};
        GetKeyboardState(keys);
        keys[VK_SHIFT] = keys[VK_LSHIFT] = down ? 0x80 : 0;
        SetKeyboardState(keys);
    }

private:
    const DragRequest& request_;
    DragOutcome& outcome_;
    LONG references_ = 1;
    int overTarget_ = 0;
};

} // namespace

DragOutcome dragInto(IDataObject* dataObject, const DragRequest& request)
{
    DragOutcome outcome;
    UserDropSource source(request, outcome);
    source.moveOntoTarget();
    outcome.startTicks = performanceTicks();
    outcome.result = DoDragDrop(dataObject, &source, request.allowedEffects, &outcome.effect);
    outcome.endTicks = performanceTicks();
    if (request.holdShift)
        UserDropSource::setShift(false);
    return outcome;
}

HRESULT copyToClipboard(IDataObject* dataObject)
{
    return OleSetClipboard(dataObject);
}

// Read through a volatile pointer: another thread of the add-in rewrites them.
void* importedDoDragDrop()
{
    return *static_cast<void* volatile*>(&standInDoDragDropSlot);
}

void* importedOleSetClipboard()
{
    return *static_cast<void* volatile*>(&standInOleSetClipboardSlot);
}
