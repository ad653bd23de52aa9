// The true DoDragDrop and OleSetClipboard, taken from ole32's export table
// when the add-in is loaded. The export table is never rewritten, so these are
// the system's functions even when a module's import slot has already been
// pointed elsewhere (by us, or by another add-in before us).
#include "hook/drag_entry.h"

#include "core/log.h"

namespace {

Logger logger("HookDD");

// At load only GetModuleHandle is used: the add-in imports ole32, so it is
// there, and loading a library from inside DllMain is not allowed.
FARPROC ole32Export(const char* name, bool mayLoad)
{
    HMODULE ole32 = GetModuleHandleW(L"ole32.dll");
    if (!ole32 && mayLoad)
        ole32 = LoadLibraryW(L"ole32.dll");
    return ole32 ? GetProcAddress(ole32, name) : nullptr;
}

} // namespace

DoDragDropFunction g_DoDragDrop = reinterpret_cast<DoDragDropFunction>(ole32Export("DoDragDrop", false));
OleSetClipboardFunction g_OleSetClipboard =
    reinterpret_cast<OleSetClipboardFunction>(ole32Export("OleSetClipboard", false));

bool loadTrueFunctions()
{
    if (!g_DoDragDrop)
        g_DoDragDrop = reinterpret_cast<DoDragDropFunction>(ole32Export("DoDragDrop", true));
    if (!g_OleSetClipboard)
        g_OleSetClipboard = reinterpret_cast<OleSetClipboardFunction>(ole32Export("OleSetClipboard", true));
    if (!g_DoDragDrop || !g_OleSetClipboard)
        KV_ERROR(logger) << "ole32.dll without DoDragDrop or OleSetClipboard, err=" << GetLastError();
    return g_DoDragDrop && g_OleSetClipboard;
}
