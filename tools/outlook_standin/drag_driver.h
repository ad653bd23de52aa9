#pragma once
// Outlook's side of a drag and of a copy: its drop source, which plays the
// user (moves the pointer onto the target window, holds Shift if asked, lets
// go once over the target), and the calls of DoDragDrop and OleSetClipboard,
// made straight through this program's import table as Outlook makes them.
#include <windows.h>
#include <ole2.h>

#include <cstdint>

struct DragOutcome {
    HRESULT result = E_FAIL;
    DWORD effect = DROPEFFECT_NONE;
    int64_t startTicks = 0;    // just before DoDragDrop
    int64_t releaseTicks = 0;  // the drop source answered "drop"
    int64_t endTicks = 0;      // DoDragDrop returned
    int polls = 0;             // QueryContinueDrag calls
};

struct DragRequest {
    HWND target = nullptr;
    DWORD allowedEffects = DROPEFFECT_COPY | DROPEFFECT_MOVE;
    bool holdShift = false;
};

DragOutcome dragInto(IDataObject* dataObject, const DragRequest& request);

// OleSetClipboard as Outlook calls it for "copy".
HRESULT copyToClipboard(IDataObject* dataObject);

// Runs this thread's messages (COM calls from other processes, clipboard
// rendering) for a while, or until `done` says so.
template <typename Done>
bool pumpUntil(DWORD timeoutMs, Done done)
{
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    for (;;) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        if (done())
            return true;
        const ULONGLONG now = GetTickCount64();
        if (now >= end)
            return false;
        MsgWaitForMultipleObjects(0, nullptr, FALSE, static_cast<DWORD>(end - now < 20 ? end - now : 20), QS_ALLINPUT);
    }
}

// The import slots of this program, to see when the add-in has rewritten them.
void* importedDoDragDrop();
void* importedOleSetClipboard();
