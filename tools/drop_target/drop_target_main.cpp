// A drop target in a process of its own, as a user's program would be: a
// window registered for drag and drop that takes drops and pastes and writes
// what it received into a report file (see e2e_shared/drop_report.h).
//
//   drop_target.exe --report <file> [--title <text>] [--effect copy|move|none] [--die-on-drop]
//
// --effect: what Drop answers (a program that moves files answers move).
// --die-on-drop: the process ends inside Drop while it reads what it got, as
// a crashing target would.
#include "drop_target_window.h"
#include "received_data.h"

#include "common/com_ptr.h"
#include "e2e_shared/com_object.h"

#include <ole2.h>
#include <shellapi.h>
#include <wrl/client.h>

#include <cstdio>
#include <string>

namespace {

using Microsoft::WRL::ComPtr;

struct Options {
    std::wstring report;
    std::wstring title = dropTargetDefaultTitle;
    DWORD effect = DROPEFFECT_COPY;
    bool dieOnDrop = false;
};

Options options;

// A crashing target: the file list taken, the first file opened and read a
// little, and the process gone with the file still open.
[[noreturn]] void dieWhileReading(IDataObject* dataObject)
{
    FORMATETC request{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    wchar_t path[MAX_PATH] = {};
    if (SUCCEEDED(dataObject->GetData(&request, &medium)) &&
        DragQueryFileW(static_cast<HDROP>(medium.hGlobal), 0, path, MAX_PATH) > 0) {
        HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        char bytes[512];
        DWORD read = 0;
        ReadFile(file, bytes, sizeof bytes, &read, nullptr);
    }
    ExitProcess(3);
}

class ReportingDropTarget final : public ComObject<IDropTarget> {
public:
    // Everything is accepted: the report says what came, whatever it was.
    HRESULT STDMETHODCALLTYPE DragEnter(IDataObject*, DWORD, POINTL, DWORD* effect) override
    {
        *effect = answer(*effect);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE DragOver(DWORD, POINTL, DWORD* effect) override
    {
        *effect = answer(*effect);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE DragLeave() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Drop(IDataObject* dataObject, DWORD, POINTL, DWORD* effect) override
    {
        const int64_t start = performanceTicks();
        if (options.dieOnDrop)
            dieWhileReading(dataObject);
        DropEvent event = readReceivedData(dataObject, "drop", start);
        event.effect = options.effect;
        *effect = options.effect;
        appendDropEvent(options.report, event);
        return S_OK;
    }

private:
    // While hovering, a target that will answer "none" still shows the copy
    // cursor: the drop has to happen for the source to see the "none".
    static DWORD answer(DWORD allowed)
    {
        const DWORD wanted = options.effect == DROPEFFECT_NONE ? DROPEFFECT_COPY : options.effect;
        return (allowed & wanted) ? wanted : (allowed & DROPEFFECT_COPY);
    }
    bool offers(REFIID riid) const override { return riid == IID_IDropTarget; }
};

void paste()
{
    const int64_t start = performanceTicks();
    ComPtr<IDataObject> clipboard;
    const HRESULT hr = OleGetClipboard(&clipboard);
    DropEvent event = readReceivedData(SUCCEEDED(hr) ? clipboard.Get() : nullptr, "paste", start);
    if (FAILED(hr))
        event.error = "OleGetClipboard failed";
    appendDropEvent(options.report, event);
}

LRESULT CALLBACK windowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case dropTargetPasteMessage:
        paste();
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcW(window, message, wParam, lParam);
    }
}

bool parseOptions(int argc, wchar_t** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::wstring argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == L"--report" && hasValue) {
            options.report = argv[++i];
        } else if (argument == L"--title" && hasValue) {
            options.title = argv[++i];
        } else if (argument == L"--effect" && hasValue) {
            const std::wstring effect = argv[++i];
            options.effect = effect == L"move" ? DROPEFFECT_MOVE : effect == L"none" ? DROPEFFECT_NONE
                                                                  : DROPEFFECT_COPY;
        } else if (argument == L"--die-on-drop") {
            options.dieOnDrop = true;
        } else {
            return false;
        }
    }
    return !options.report.empty();
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (!parseOptions(argc, argv)) {
        std::fputs("usage: drop_target.exe --report <file> [--title <text>] [--effect copy|move|none] "
                   "[--die-on-drop]\n",
                   stderr);
        return 2;
    }
    if (FAILED(OleInitialize(nullptr)))
        return 1;

    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = windowProcedure;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = dropTargetWindowClass;
    windowClass.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    windowClass.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
    RegisterClassW(&windowClass);
    // Hidden until it is registered: a window that can be found takes drops.
    HWND window = CreateWindowExW(WS_EX_TOPMOST, dropTargetWindowClass, options.title.c_str(), WS_POPUP | WS_BORDER,
                                  320, 120, 280, 240, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
    if (!window) {
        OleUninitialize();
        return 1;
    }
    IDropTarget* target = new ReportingDropTarget();
    const HRESULT registered = RegisterDragDrop(window, target);
    target->Release();
    if (FAILED(registered)) {
        DestroyWindow(window);
        OleUninitialize();
        return 1;
    }
    ShowWindow(window, SW_SHOW);
    UpdateWindow(window);

    MSG message;
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    RevokeDragDrop(window);
    OleUninitialize();
    return 0;
}
