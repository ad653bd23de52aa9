#pragma once
// The window of the drop target program and the messages other programs
// send it. Its class name is how the Outlook stand-in, the demo and the tests
// find it; its title tells several targets apart.
#include <windows.h>

inline constexpr const wchar_t* dropTargetWindowClass = L"KorvaneDropTargetWindow";
inline constexpr const wchar_t* dropTargetDefaultTitle = L"Korvane drop target";

// Posted to the window: paste what the clipboard holds now (reported as a
// "paste" event).
inline constexpr UINT dropTargetPasteMessage = WM_APP + 1;

// The target's window with this title, or null.
inline HWND findDropTargetWindow(const wchar_t* title)
{
    return FindWindowW(dropTargetWindowClass, title);
}
