#include "addin/delayed_drag_drop_start.h"

#include "core/exception_barrier.h"
#include "core/log.h"
#include "common/unique_resource.h"
#include "hook/import_hook.h"

namespace {

Logger logger("KVDragDropAddin");

DWORD WINAPI delayedStart(void* moduleReference)
{
    barrier("delayed EnableDragDrop", [] {
        Sleep(dragDropStartDelayMs);
        return HRESULT(EnableDragDrop(true));
    });
    FreeLibraryAndExitThread(static_cast<HMODULE>(moduleReference), 0);
}

} // namespace

void startDragDropAfterDelay()
{
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&delayedStart),
                            &module)) {
        KV_ERROR(logger) << "GetModuleHandleEx failed, err=" << GetLastError();
        return;
    }
    UniqueHandle thread(CreateThread(nullptr, 0, delayedStart, module, 0, nullptr));
    if (!thread) {
        KV_ERROR(logger) << "CreateThread failed, err=" << GetLastError();
        FreeLibrary(module);
    }
    // Closing the handle detaches the thread.
}
