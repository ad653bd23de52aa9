// The exports of the stand-in mapi32.dll. The add-in binds the MAPI functions
// by ordinal (59, 198, 13, 15, 17), so the .def file pins those;
// StandInLiveAllocations lets a test see that every buffer was given back.
#include "mapi_standin.h"
#include "message_on_storage.h"

#include "addin/log.h"

#include <mapicode.h>

#include <atomic>

namespace {

const Logger logger("MapiStandIn");

// MAPI's linked allocation: a block from MAPIAllocateBuffer owns the blocks
// allocated "more" on it, chained behind a header, and MAPIFreeBuffer on it
// frees them all.
struct Block {
    Block* next;
};
std::atomic<LONG> liveBlocks{0};

bool openIsToFail()
{
    wchar_t value[32] = {};
    const DWORD length = GetEnvironmentVariableW(standInMapiOpenSwitch, value, 32);
    return length > 0 && length < 32 && lstrcmpiW(value, L"fail") == 0;
}

} // namespace

extern "C" SCODE WINAPI MAPIAllocateBuffer(ULONG size, LPVOID* buffer)
{
    auto* block = buffer ? static_cast<Block*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(Block) + size))
                         : nullptr;
    if (!block)
        return MAPI_E_NOT_ENOUGH_MEMORY;
    ++liveBlocks;
    *buffer = block + 1;
    return S_OK;
}

extern "C" SCODE WINAPI MAPIAllocateMore(ULONG size, LPVOID parent, LPVOID* buffer)
{
    if (!parent || MAPIAllocateBuffer(size, buffer) != S_OK)
        return MAPI_E_INVALID_PARAMETER;
    Block* owner = static_cast<Block*>(parent) - 1;
    Block* block = static_cast<Block*>(*buffer) - 1;
    block->next = owner->next;
    owner->next = block;
    return S_OK;
}

extern "C" ULONG WINAPI MAPIFreeBuffer(LPVOID buffer)
{
    for (Block* block = buffer ? static_cast<Block*>(buffer) - 1 : nullptr; block;) {
        Block* next = block->next;
        HeapFree(GetProcessHeap(), 0, block);
        --liveBlocks;
        block = next;
    }
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
    return static_cast<ULONG>(liveBlocks.load());
}
