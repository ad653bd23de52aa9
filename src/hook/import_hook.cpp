// Rewrites one import-address-table slot of one module, so that the module's
// calls of an ole32 function reach the add-in's replacement. Runs inside
// Outlook: whatever a module's headers say, a bad one is reported with a
// result code and left alone.
#include "hook/import_hook.h"

#include "core/log.h"
#include "common/module_path.h"
#include "hook/pe_imports.h"

#include <psapi.h>

#include <cstdint>
#include <string>

namespace {

Logger logger("HookDD");

const char* orNull(const char* text)
{
    return text ? text : "(null)";
}

std::string narrowModulePath(HMODULE module)
{
    char path[1000] = {};
    const DWORD length = GetModuleFileNameA(module, path, 999);
    return std::string(path, length < 999 ? length : 999);
}

// The slot is written between two VirtualProtect calls with one aligned
// pointer store, so a thread calling through it meanwhile sees either the
// old or the new function.
void replaceSlot(const ImportSlot& slot, void* newFunction)
{
    if (slot.width != sizeof(void*)) {
        KV_ERROR(logger) << "the slot holds " << slot.width << " bytes, a pointer of this process "
                         << sizeof(void*) << "; not replaced";
        return;
    }
    DWORD oldProtection = 0;
    if (!VirtualProtect(slot.address, slot.width, PAGE_EXECUTE_READWRITE, &oldProtection)) {
        KV_ERROR(logger) << "VirtualProtect succ=0, err=" << GetLastError() << "; slot left as it was";
        return;
    }
    KV_INFO(logger) << "replace";
    InterlockedExchangePointer(reinterpret_cast<void* volatile*>(slot.address), newFunction);
    DWORD ignored = 0;
    VirtualProtect(slot.address, slot.width, oldProtection, &ignored);
}

void* slotPointer(const ImportSlot& slot)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>(slot.value()));
}

void reportFound(ImportHookRequest& request, HMODULE module, const ImportSlot& slot)
{
    KV_INFO(logger) << "Function " << request.functionName << " found in " << modulePath(module, 1000);
    request.oldFunction = slotPointer(slot);
    if (request.newFunction)
        replaceSlot(slot, request.newFunction);
}

} // namespace

DWORD HookDllImportFunction(ImportHookRequest& request)
{
    KV_DEBUG(logger) << "HookDllImportFunction(moduleName=" << orNull(request.moduleName)
                     << ", hModule=" << request.hModule << ", importDll=" << orNull(request.importDll)
                     << ", functionName=" << orNull(request.functionName)
                     << ", newFunction=" << request.newFunction;
    request.oldFunction = nullptr;
    DWORD result = HookDone;

    HMODULE module = request.hModule;
    if (request.moduleName) {
        KV_DEBUG(logger) << "LoadLibrary ..." << request.moduleName;
        module = LoadLibraryA(request.moduleName);
    }

    MODULEINFO information{};
    PeLayout layout;
    if (!module) {
        KV_DEBUG(logger) << "DLL not found.";
        result = HookNoModule;
    } else if (!request.importDll || !request.functionName) {
        KV_ERROR(logger) << "no DLL or function name to look for";
    } else {
        const BOOL succeeded = GetModuleInformation(GetCurrentProcess(), module, &information, sizeof information);
        const DWORD error = succeeded ? 0 : GetLastError();
        KV_DEBUG(logger) << "GetModuleInformation succ=" << succeeded << ", err=" << error;
        if (!succeeded)
            result = HookNoModuleInformation;
    }

    if (result == HookDone && module && request.importDll && request.functionName) {
        const ImageView image(static_cast<BYTE*>(information.lpBaseOfDll), information.SizeOfImage);
        result = readPeLayout(image, layout);
        pe::DataDirectory imports{};
        if (result != HookDone) {
            KV_ERROR(logger) << "not a module image: " << modulePath(module, 1000);
        } else if (!dataDirectory(image, layout, pe::importDirectory, imports)) {
            KV_DEBUG(logger) << "no import directory";
        } else {
            ImportSlot slot;
            pe::DataDirectory delayImports{};
            if (findImportSlot(image, layout, request.importDll, request.functionName, slot)) {
                reportFound(request, module, slot);
            } else if (dataDirectory(image, layout, pe::delayImportDirectory, delayImports)) {
                KV_DEBUG(logger) << "check delay load table of " << narrowModulePath(module);
                if (findDelayImportSlot(image, layout, request.importDll, request.functionName, slot))
                    reportFound(request, module, slot);
                KV_DEBUG(logger) << "check delay load table done";
            }
        }
    }

    KV_DEBUG(logger) << ")HookDllImportFunction=" << result;
    return result;
}

bool writeProtectedPointer(void** slot, void* value, const char* label)
{
    DWORD oldProtection = 0;
    const bool succeeded = slot && VirtualProtect(slot, sizeof(void*), PAGE_EXECUTE_READWRITE, &oldProtection);
    const DWORD error = succeeded ? 0 : GetLastError();
    if (succeeded)
        *slot = value;
    if (succeeded)
        KV_DEBUG(logger) << "unprotect " << orNull(label) << ", succ=" << succeeded << ", err=" << error;
    else
        KV_ERROR(logger) << "unprotect " << orNull(label) << ", succ=" << succeeded << ", err=" << error;
    return succeeded;
}
