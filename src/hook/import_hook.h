#pragma once
// Rewriting import-address-table slots, so that a module's calls of
// DoDragDrop and OleSetClipboard reach the add-in's replacements.
#include <windows.h>

struct ImportHookRequest {
    HMODULE hModule = nullptr;          // the module to patch, when moduleName is null
    const char* moduleName = nullptr;   // else loaded with LoadLibraryA (never freed)
    const char* importDll = "ole32.dll";
    const char* functionName = nullptr; // "DoDragDrop" or "OleSetClipboard"
    void* newFunction = nullptr;        // null: find and report only
    void* oldFunction = nullptr;        // out: what stood in the slot
};

enum ImportHookResult : DWORD {
    HookDone = 0,
    HookNoModuleInformation = 2,
    HookNoDosSignature = 3,
    HookNoPeSignature = 4,
    HookUnknownOptionalHeader = 5,
    HookNoModule = 7,
};

// Finds the import in the module's regular import table (DLL and function
// names ignoring case, imports by ordinal skipped). When it isn't there and
// the module's delay-import directory entry is filled, the delay-import
// table is searched instead (the function name compared exactly) and the
// replacement goes into the module's own delay address table, whether that
// import has been bound yet or not.
DWORD HookDllImportFunction(ImportHookRequest& request);

// DoDragDrop (and OleSetClipboard when CaptureClipboard is on) of one module.
DWORD hookModule(const char* moduleName, HMODULE module, bool enable);

// Switches interception on (file-drop unit started, executable and Office
// modules patched) or off; a repeated switch does nothing.
DWORD EnableDragDrop(bool enable);
bool isDragDropEnabled();

// Logs which loaded modules import DoDragDrop; changes nothing.
void DumpAllModules();

// Makes the pointer-sized slot writable and stores value in it.
bool writeProtectedPointer(void** slot, void* value, const char* label);

// The Office modules patched after the host executable, in this order.
constexpr const char* hookedOfficeModules[] = {"mso.dll", "mso98win32client.dll", "olmapi32.dll", "oart.dll",
                                               "mfc100u.dll"};
