#pragma once
// Interception is switched on a while after Outlook reports its add-ins
// loaded, so that the Office modules whose imports are patched are there.
#include <windows.h>

inline constexpr DWORD dragDropStartDelayMs = 3000;

// Starts a detached thread that sleeps the delay and then calls
// EnableDragDrop(true). The thread holds a reference on the add-in's module,
// so the code it runs stays mapped even if COM unloads the DLL meanwhile.
void startDragDropAfterDelay();
