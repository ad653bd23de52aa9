// Switching interception on and off: the file-drop unit, and the import slots
// of the host executable and of the Office modules that start drags and
// clipboard copies on Outlook's behalf.
#include "hook/import_hook.h"

#include "core/exception_barrier.h"
#include "core/globals.h"
#include "core/log.h"
#include "filedrop/file_drop.h"
#include "hook/drag_entry.h"

#include <psapi.h>

#include <cstring>
#include <mutex>
#include <vector>

namespace {

Logger logger("HookDD");

// The delayed start switches on from a thread of its own while Outlook's
// thread may switch off (disconnection) or on (the ribbon): one switch at a
// time, so that the flag, the file-drop unit and the slots end in one state.
std::mutex switchLock;
bool dragDropEnabled = false; // guarded by switchLock
// Whether CaptureClipboard was on when interception went on: the executable's
// OleSetClipboard slot is then put back when it goes off, even if the setting
// has been switched off meanwhile.
bool clipboardHooked = false;

void hookFunction(const char* moduleName, HMODULE module, const char* functionName, void* newFunction)
{
    ImportHookRequest request;
    request.hModule = module;
    request.moduleName = moduleName;
    request.importDll = "ole32.dll";
    request.functionName = functionName;
    request.newFunction = newFunction;
    HookDllImportFunction(request);
}

} // namespace

DWORD hookModule(const char* moduleName, HMODULE module, bool enable)
{
    KV_DEBUG(logger) << "hookModule(moduleName=" << (moduleName ? moduleName : "(null)") << ", hModule=" << module
                     << ", enable=" << enable;
    hookFunction(moduleName, module, "DoDragDrop",
                 enable ? reinterpret_cast<void*>(&MyDoDragDrop) : reinterpret_cast<void*>(g_DoDragDrop));

    const bool captureClipboard = hookSettings().getCaptureClipboard();
    if (captureClipboard || (!enable && clipboardHooked)) {
        hookFunction(moduleName, module, "OleSetClipboard",
                     enable ? reinterpret_cast<void*>(&MyOleSetClipboard)
                            : reinterpret_cast<void*>(g_OleSetClipboard));
    }
    KV_DEBUG(logger) << ")hookModule=0";
    return 0;
}

DWORD EnableDragDrop(bool enable)
{
    return barrier("EnableDragDrop", DWORD(0), [enable] {
        KV_DEBUG(logger) << "EnableDragDrop(enable=" << enable;
        HMODULE hostExecutable = GetModuleHandleW(nullptr);
        const std::lock_guard<std::mutex> guard(switchLock);
        if (enable == dragDropEnabled) {
            KV_DEBUG(logger) << ")EnableDragDrop=0, unchanged";
            return 0;
        }

        // The replacements call the true functions and unhooking writes them
        // back; without them no slot may be touched.
        if (!loadTrueFunctions()) {
            KV_ERROR(logger) << ")EnableDragDrop=0, interception left as it was";
            return 0;
        }
        const ULONGLONG start = GetTickCount64();
        if (enable) {
            clipboardHooked = hookSettings().getCaptureClipboard();
            FileDrop::init();
            hookModule(nullptr, hostExecutable, true);
        } else {
            FileDrop::done();
            hookModule(nullptr, hostExecutable, false);
            clipboardHooked = false;
        }
        // The Office modules keep the replacements even when interception goes
        // off: those decide for themselves whether to take part (Locked).
        for (const char* name : hookedOfficeModules)
            hookModule(name, nullptr, true);

        dragDropEnabled = enable;
        KV_INFO(logger) << ")EnableDragDrop=0, enable=" << enable << ", ms=" << (GetTickCount64() - start);
        return 0;
    });
}

bool isDragDropEnabled()
{
    const std::lock_guard<std::mutex> guard(switchLock);
    return dragDropEnabled;
}

void DumpAllModules()
{
    KV_DEBUG(logger) << "DumpAllModules(";
    HANDLE process = GetCurrentProcess();
    std::vector<HMODULE> modules(10000 / sizeof(HMODULE));
    DWORD needed = 0;
    bool listed = false;
    // A module loaded between the two calls makes the list grow again.
    while ((listed = EnumProcessModules(process, modules.data(), static_cast<DWORD>(modules.size() * sizeof(HMODULE)),
                                        &needed)) &&
           needed > modules.size() * sizeof(HMODULE))
        modules.resize(needed / sizeof(HMODULE));
    const size_t count = listed ? needed / sizeof(HMODULE) : 0;
    KV_DEBUG(logger) << "EnumProcessModules, #modules=" << count;

    for (size_t index = 0; index < count; ++index) {
        char name[1001] = {};
        GetModuleFileNameExA(process, modules[index], name, 1000);
        KV_DEBUG(logger) << "test find dnd in module[" << index << "]" << name;
        if (std::strstr(name, "ole32.dll") || std::strstr(name, "korvane32.dll") || std::strstr(name, "korvane64.dll"))
            continue;
        hookFunction(nullptr, modules[index], "DoDragDrop", nullptr);
    }
    KV_DEBUG(logger) << ")DumpAllModules";
}
