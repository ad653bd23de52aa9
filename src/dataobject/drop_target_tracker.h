#pragma once
// Which program the cursor is over during a drag out of Outlook, so the drop
// source and the effect rules know whether the drop goes into another one.
#include <windows.h>

#include <string>

struct DropTargetState {
    POINT lastCursor{0, 0};
    DWORD targetProcessId = 0;
    std::wstring targetName; // executable name without folder and extension, e.g. "saplogon"
    bool droppedIntoOtherApplication = false;
};

// The state of the drag in progress (one drag at a time, on Outlook's thread).
DropTargetState& dropTargetState();

// Back to the start: cursor 0,0, no target, not another application.
void resetDropTarget();

// Reads the cursor; when it moved, finds the window under it and its process.
void updateDropTarget();

// Effect names for the log: "COPY", "MOVE", "LINK", "SCROLL", "NONE".
const char* dropEffectName(DWORD effect);

// With "always copy" on: a drop into another program that isn't a copy is
// reported to Outlook as a copy, so Outlook never deletes the mail.
void applyAlwaysCopyRule(DWORD* effect);
