#include "items/mapi_library.h"

#include "core/log.h"

#include <mapiutil.h>

#include <mutex>
#include <type_traits>

// Bound by ordinal, so only these types say how the functions are called.
static_assert(std::is_same_v<decltype(MapiFunctions::getDefaultMalloc), decltype(&MAPIGetDefaultMalloc)> &&
              std::is_same_v<decltype(MapiFunctions::openIMsgOnIStg), decltype(&OpenIMsgOnIStg)>);

namespace {

Logger logger("MailItem");

template <typename Function>
bool bind(HMODULE module, WORD ordinal, Function& function)
{
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, MAKEINTRESOURCEA(ordinal))));
    if (!function)
        KV_WARN(logger) << "mapi32.dll has no ordinal " << ordinal;
    return function != nullptr;
}

} // namespace

const MapiFunctions* mapiFunctions()
{
    static MapiFunctions functions{};
    static bool available = false;
    static std::once_flag once;
    std::call_once(once, [] {
        // Kept loaded for the life of the process: messages hold its code.
        HMODULE module = LoadLibraryW(L"mapi32.dll");
        if (!module) {
            KV_WARN(logger) << "mapi32.dll can't be loaded, err=" << GetLastError();
            return;
        }
        available = bind(module, 59, functions.getDefaultMalloc) & bind(module, 198, functions.openIMsgOnIStg) &
                    bind(module, 13, functions.allocateBuffer) & bind(module, 15, functions.allocateMore) &
                    bind(module, 17, functions.freeBuffer);
        KV_INFO(logger) << "Extended MAPI " << (available ? "available" : "not usable");
    });
    return available ? &functions : nullptr;
}

MapiRows::~MapiRows()
{
    if (!rows_)
        return;
    for (ULONG i = 0; i < rows_->cRows; ++i) {
        if (rows_->aRow[i].lpProps)
            mapi_.freeBuffer(rows_->aRow[i].lpProps);
    }
    mapi_.freeBuffer(rows_);
}
