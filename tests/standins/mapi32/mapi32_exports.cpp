// The exports of the stand-in mapi32.dll. The add-in binds the MAPI functions
// by ordinal (59, 198, 13, 15, 17), so the .def file pins those;
// StandInLiveAllocations lets a test see that every buffer was given back.
#include "mapi_standin.h"
#include "message_on_storage.h"

#include "addin/log.h"

#include <mapicode.h>

#include <mutex>
#include <unordered_map>
#include <vector>

namespace {

const Logger logger("MapiStandIn");

// MAPI's linked allocation: a block from MAPIAllocateBuffer owns the blocks
// allocated "more" on it, and MAPIFreeBuffer on it frees them all. Parents
// are kept by address, so that freeing anything else is refused.
std::mutex allocationLock;
std::unordered_map<void*, std::vector<void*>>& parents()
{
    static auto* table = new std::unordered_map<void*, std::vector<void*>>(); // outlives every caller
    return *table;
}
ULONG liveBlocks = 0;

void* allocateRaw(ULONG size)
{
    return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size ? size : 1);
}

bool openIsToFail()
{
    wchar_t value[32] = {};
    const DWORD length = GetEnvironmentVariableW(standInMapiOpenSwitch, value, 32);
    return length > 0 && length < 32 && lstrcmpiW(value, L"fail") == 0;
}

} // namespace

extern "C" SCODE WINAPI MAPIAllocateBuffer(ULONG size, LPVOID* buffer)
{
    if (!buffer)
        return MAPI_E_INVALID_PARAMETER;
    *buffer = allocateRaw(size);
    if (!*buffer)
        return MAPI_E_NOT_ENOUGH_MEMORY;
    std::lock_guard<std::mutex> guard(allocationLock);
    parents().emplace(*buffer, std::vector<void*>{});
    ++liveBlocks;
    return S_OK;
}

extern "C" SCODE WINAPI MAPIAllocateMore(ULONG size, LPVOID parent, LPVOID* buffer)
{
    if (!buffer)
        return MAPI_E_INVALID_PARAMETER;
    *buffer = nullptr;
    std::lock_guard<std::mutex> guard(allocationLock);
    auto found = parents().find(parent);
    if (found == parents().end())
        return MAPI_E_INVALID_PARAMETER;
    *buffer = allocateRaw(size);
    if (!*buffer)
        return MAPI_E_NOT_ENOUGH_MEMORY;
    found->second.push_back(*buffer);
    ++liveBlocks;
    return S_OK;
}

extern "C" ULONG WINAPI MAPIFreeBuffer(LPVOID buffer)
{
    if (!buffer)
        return S_OK;
    std::vector<void*> more;
    {
        std::lock_guard<std::mutex> guard(allocationLock);
        auto found = parents().find(buffer);
        if (found == parents().end())
            return static_cast<ULONG>(MAPI_E_INVALID_PARAMETER);
        more = std::move(found->second);
        parents().erase(found);
        liveBlocks -= static_cast<ULONG>(more.size()) + 1;
    }
    for (void* block : more)
        HeapFree(GetProcessHeap(), 0, block);
    HeapFree(GetProcessHeap(), 0, buffer);
    return S_OK;
}

extern "C" LPMALLOC STDAPICALLTYPE MAPIGetDefaultMalloc()
{
    // Handed out without a reference for the caller, as MAPI's own is.
    LPMALLOC malloc = nullptr;
    if (FAILED(CoGetMalloc(1, &malloc)))
        return nullptr;
    malloc->Release();
    return malloc;
}

extern "C" SCODE STDAPICALLTYPE OpenIMsgOnIStg(LPMSGSESS, LPALLOCATEBUFFER allocateBuffer, LPALLOCATEMORE allocateMore,
                                               LPFREEBUFFER freeBuffer, LPMALLOC, LPVOID, LPSTORAGE storage,
                                               MSGCALLRELEASE*, ULONG, ULONG, LPMESSAGE* message)
{
    if (!message)
        return MAPI_E_INVALID_PARAMETER;
    *message = nullptr;
    if (openIsToFail()) {
        KV_INFO(logger) << "OpenIMsgOnIStg fails as " << standInMapiOpenSwitch << " asks";
        return MAPI_E_CORRUPT_DATA;
    }
    if (!allocateBuffer || !allocateMore || !freeBuffer || !storage)
        return MAPI_E_INVALID_PARAMETER;
    return openMessageOnStorage(storage, MapiAllocators{allocateBuffer, allocateMore, freeBuffer}, message);
}

extern "C" ULONG WINAPI StandInLiveAllocations()
{
    std::lock_guard<std::mutex> guard(allocationLock);
    return liveBlocks;
}
