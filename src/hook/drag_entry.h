#pragma once
// The replacements of DoDragDrop and OleSetClipboard that the patched import
// slots lead to, and the true functions they call.
#include <ole2.h>

#include "core/globals.h"

#include <type_traits>

using DoDragDropFunction = HRESULT(WINAPI*)(IDataObject*, IDropSource*, DWORD, DWORD*);
using OleSetClipboardFunction = HRESULT(WINAPI*)(IDataObject*);

// The true system functions, taken before any slot is rewritten.
extern DoDragDropFunction g_DoDragDrop;
extern OleSetClipboardFunction g_OleSetClipboard;

HRESULT WINAPI MyDoDragDrop(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect);
HRESULT WINAPI MyDoDragDropOnlyCopyAllowed(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects,
                                           DWORD* effect);
HRESULT WINAPI MyOleSetClipboard(IDataObject* dataObject);

// The import slots are written through void*, so nothing else checks that a
// replacement takes its arguments as the true function does: calling
// convention included, which in the 32-bit build is stdcall, where a
// mismatch would leave the caller's stack unbalanced.
static_assert(std::is_same_v<decltype(&MyDoDragDrop), decltype(&DoDragDrop)> &&
              std::is_same_v<decltype(&MyDoDragDropOnlyCopyAllowed), decltype(&DoDragDrop)> &&
              std::is_same_v<DoDragDropFunction, decltype(&DoDragDrop)>);
static_assert(std::is_same_v<decltype(&MyOleSetClipboard), decltype(&OleSetClipboard)> &&
              std::is_same_v<OleSetClipboardFunction, decltype(&OleSetClipboard)>);

bool isFirefoxRunning(Globals& settings);

// Takes the true functions from ole32's exports where they are still missing
// (ole32 not loaded when the add-in was); false when ole32 has neither.
bool loadTrueFunctions();

// The settings that the hooks and the replacements read: the process-wide
// ones unless a host program or a test sets others (null goes back to them).
Globals& hookSettings();
void setHookSettings(Globals* settings);

// The data object of the drag in progress: set only while the true
// DoDragDrop runs, null otherwise.
IDataObject* currentDragDataObject();

// isFirefoxRunning remembers a "yes" for the rest of the session; this
// forgets it (a test, or a host that knows better).
void forgetFirefoxAnswer();
