#include "hook/drop_source.h"

#include "core/exception_barrier.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "common/com_variant.h"
#include "dataobject/drop_target_tracker.h"

#include <shellapi.h>

#include <new>

namespace {

Logger logger("MyDropSource");

constexpr UINT balloonTimeoutMs = 3000;

// The arrow comes back whatever way the save ends.
class WaitCursor {
public:
    WaitCursor() : previous_(SetCursor(LoadCursorW(nullptr, IDC_WAIT))) {}
    ~WaitCursor() { SetCursor(previous_); }
    WaitCursor(const WaitCursor&) = delete;
    WaitCursor& operator=(const WaitCursor&) = delete;

private:
    HCURSOR previous_;
};

// What the system's default drop source does, for a wrapper made without one.
HRESULT defaultQueryContinueDrag(BOOL escapePressed, DWORD keyState)
{
    if (escapePressed)
        return DRAGDROP_S_CANCEL;
    if (!(keyState & (MK_LBUTTON | MK_RBUTTON)))
        return DRAGDROP_S_DROP;
    return S_OK;
}

// The icon that carried a balloon, taken away after the balloon's time.
struct BalloonRemoval {
    NOTIFYICONDATAW icon;
    HMODULE module;
};

DWORD WINAPI removeBalloonLater(void* parameter)
{
    auto* removal = static_cast<BalloonRemoval*>(parameter);
    barrier("removeBalloonLater", [removal] {
        Sleep(balloonTimeoutMs);
        Shell_NotifyIconW(NIM_DELETE, &removal->icon);
        return S_OK;
    });
    const HMODULE module = removal->module;
    delete removal;
    // The thread holds a reference on this module, so the add-in can't be
    // unloaded under it; this call drops it without returning into the DLL.
    FreeLibraryAndExitThread(module, 0);
    return 0;
}

void scheduleRemoval(const NOTIFYICONDATAW& icon)
{
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&removeBalloonLater),
                            &module)) {
        KV_WARN(logger) << "GetModuleHandleEx failed, err=" << GetLastError();
        return;
    }
    auto* removal = new (std::nothrow) BalloonRemoval{icon, module};
    HANDLE thread = removal ? CreateThread(nullptr, 0, removeBalloonLater, removal, 0, nullptr) : nullptr;
    if (!thread) {
        // The shell drops the icon when its window goes; nothing else to do.
        KV_WARN(logger) << "cannot schedule the balloon's removal, err=" << GetLastError();
        delete removal;
        FreeLibrary(module);
        return;
    }
    CloseHandle(thread);
}

// The window of Outlook's explorer, which owns the balloon's icon; the
// active window of this thread when Outlook doesn't give one.
HWND balloonOwner()
{
    HWND owner = nullptr;
    const Microsoft::WRL::ComPtr<IDispatch> application = outlookApplication();
    if (application) {
        UniqueVariant explorer;
        const HRESULT hr =
            invokeByName(application.Get(), L"ActiveExplorer", DISPATCH_METHOD | DISPATCH_PROPERTYGET, {}, &explorer);
        KV_DEBUG(logger) << "ActiveExplorer hr=" << hr;
        Microsoft::WRL::ComPtr<IOleWindow> window;
        if (SUCCEEDED(hr) && explorer->vt == VT_DISPATCH && explorer->pdispVal &&
            SUCCEEDED(explorer->pdispVal->QueryInterface(IID_PPV_ARGS(&window))))
            window->GetWindow(&owner);
    }
    if (!owner)
        owner = GetActiveWindow();
    KV_DEBUG(logger) << "balloon owner=" << owner;
    return owner;
}

} // namespace

MyDropSource::MyDropSource(IDropSource* inner, std::shared_ptr<DDItems> items)
    : inner_(inner), items_(std::move(items))
{
    KV_DEBUG(logger) << "MyDropSource(inner=" << inner << ", #items=" << (items_ ? items_->size() : 0) << ")";
}

HRESULT STDMETHODCALLTYPE MyDropSource::QueryInterface(REFIID iid, void** object)
{
    if (!object)
        return E_POINTER;
    if (iid == IID_IUnknown || iid == IID_IDropSource) {
        *object = static_cast<IDropSource*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE MyDropSource::AddRef()
{
    return InterlockedIncrement(&references_);
}

ULONG STDMETHODCALLTYPE MyDropSource::Release()
{
    const LONG remaining = InterlockedDecrement(&references_);
    if (remaining == 0)
        delete this;
    return remaining;
}

HRESULT STDMETHODCALLTYPE MyDropSource::QueryContinueDrag(BOOL escapePressed, DWORD keyState)
{
    // Where the cursor is matters only to the rules after the drag; a
    // failure to find out must not stop the drag itself.
    barrier("MyDropSource::QueryContinueDrag", [] {
        updateDropTarget();
        return S_OK;
    });
    lastKeyState_ = keyState;
    HRESULT hr = inner_ ? inner_->QueryContinueDrag(escapePressed, keyState)
                        : defaultQueryContinueDrag(escapePressed, keyState);

    if (hr == DRAGDROP_S_DROP) {
        KV_DEBUG(logger) << "DRAGDROP_S_DROP";
        if (items_ && !items_->empty()) {
            // The target reads the files as soon as this returns: they must
            // be complete by then. Saving runs inside ole32's modal loop, in
            // Outlook's stack: whatever goes wrong is a failed save.
            WaitCursor waitCursor;
            const HRESULT saved = barrier("ddItems->save", [this] { return items_->save(); });
            KV_DEBUG(logger) << "ddItems saved, hr=" << saved;
            if (FAILED(saved) && dropTargetState().droppedIntoOtherApplication) {
                // Better no drop at all than half-written files in another program.
                barrier("notifySaveFailed", [] {
                    notifySaveFailed();
                    return S_OK;
                });
                hr = E_FAIL;
            }
        }
    } else if (hr == DRAGDROP_S_CANCEL) {
        KV_DEBUG(logger) << "DRAGDROP_S_CANCEL";
    }
    return hr;
}

HRESULT STDMETHODCALLTYPE MyDropSource::GiveFeedback(DWORD effect)
{
    barrier("MyDropSource::GiveFeedback", [] {
        updateDropTarget();
        return S_OK;
    });
    const HRESULT hr = inner_ ? inner_->GiveFeedback(effect) : DRAGDROP_S_USEDEFAULTCURSORS;
    if (hr == DRAGDROP_S_USEDEFAULTCURSORS)
        KV_DEBUG(logger) << "DRAGDROP_S_USEDEFAULTCURSORS";
    return hr;
}

void notifySaveFailed()
{
    const Globals& settings = Globals::instance();
    const bool shown =
        showErrorBalloon(balloonOwner(), settings.getText(L"notifyErrorTitle"), settings.getText(L"notifySaveFailed"));
    KV_INFO(logger) << "notifySaveFailed shown=" << shown;
}

bool showErrorBalloon(HWND owner, const std::wstring& title, const std::wstring& text)
{
    NOTIFYICONDATAW icon{};
    icon.cbSize = sizeof(icon);
    icon.hWnd = owner;
    icon.uID = errorBalloonIconId;
    icon.uFlags = NIF_ICON | NIF_TIP | NIF_INFO;
    icon.hIcon = LoadIconW(nullptr, IDI_ERROR);
    icon.dwInfoFlags = NIIF_ERROR;
    icon.uTimeout = balloonTimeoutMs;
    // The shell's fields are fixed arrays: longer texts are cut, never overrun.
    lstrcpynW(icon.szTip, title.c_str(), ARRAYSIZE(icon.szTip));
    lstrcpynW(icon.szInfoTitle, title.c_str(), ARRAYSIZE(icon.szInfoTitle));
    lstrcpynW(icon.szInfo, text.c_str(), ARRAYSIZE(icon.szInfo));

    // A balloon of a moment ago may still have its icon: show this one on it.
    BOOL shown = Shell_NotifyIconW(NIM_ADD, &icon);
    if (!shown)
        shown = Shell_NotifyIconW(NIM_MODIFY, &icon);
    KV_DEBUG(logger) << "Shell_NotifyIcon succ=" << shown << ", err=" << (shown ? 0 : GetLastError());
    if (shown)
        scheduleRemoval(icon);
    return shown != FALSE;
}
