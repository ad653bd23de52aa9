// Follows the window under the cursor during a drag, to know which program
// the drop goes into.
#include "dataobject/drop_target_tracker.h"

#include "core/log.h"
#include "common/unique_resource.h"

#include <oleidl.h>

namespace {

Logger logger("MyDropSource");

// The executable's file name without folder and extension ("saplogon").
std::wstring executableName(DWORD processId)
{
    UniqueHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
    if (!process)
        return std::wstring();
    wchar_t path[MAX_PATH * 4] = {};
    DWORD length = MAX_PATH * 4;
    if (!QueryFullProcessImageNameW(process.get(), 0, path, &length))
        return std::wstring();
    std::wstring name(path, length);
    const size_t slash = name.find_last_of(L"\\/");
    if (slash != std::wstring::npos)
        name.erase(0, slash + 1);
    const size_t dot = name.find_last_of(L'.');
    if (dot != std::wstring::npos && dot > 0)
        name.erase(dot);
    return name;
}

std::wstring windowTitle(HWND window)
{
    HWND topLevel = window ? GetAncestor(window, GA_ROOT) : nullptr;
    wchar_t title[256] = {};
    if (topLevel)
        GetWindowTextW(topLevel, title, 256);
    return title;
}

} // namespace

DropTargetState& dropTargetState()
{
    static DropTargetState state;
    return state;
}

void resetDropTarget()
{
    dropTargetState() = DropTargetState{};
}

void updateDropTarget()
{
    DropTargetState& state = dropTargetState();
    POINT cursor{};
    if (!GetCursorPos(&cursor))
        return;
    if (cursor.x == state.lastCursor.x && cursor.y == state.lastCursor.y)
        return;
    state.lastCursor = cursor;

    HWND window = WindowFromPoint(cursor);
    DWORD processId = 0;
    if (window)
        GetWindowThreadProcessId(window, &processId);
    const bool otherApplication = processId != GetCurrentProcessId();
    if (processId != state.targetProcessId) {
        state.targetProcessId = processId;
        state.targetName = executableName(processId);
        KV_INFO(logger) << "target=" << state.targetName << ", processId=" << processId
                        << ", title=" << windowTitle(window);
    }
    state.droppedIntoOtherApplication = otherApplication;
}

const char* dropEffectName(DWORD effect)
{
    switch (effect) {
    case DROPEFFECT_NONE: return "NONE";
    case DROPEFFECT_COPY: return "COPY";
    case DROPEFFECT_MOVE: return "MOVE";
    case DROPEFFECT_LINK: return "LINK";
    case DROPEFFECT_SCROLL: return "SCROLL";
    default: return "UNKNOWN";
    }
}

void applyAlwaysCopyRule(DWORD* effect)
{
    if (!effect || !dropTargetState().droppedIntoOtherApplication || *effect == DROPEFFECT_COPY)
        return;
    KV_INFO(logger) << "Set drop effect to COPY, it was " << dropEffectName(*effect);
    *effect = DROPEFFECT_COPY;
}
