#include "mapi_allocation.h"

#include <mapix.h>

#include <cstddef>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace {

// Parent blocks by the address handed out, each with the "more" blocks that
// hang off it. Keeping the addresses in a table (instead of a header in front
// of each block) lets a wrong pointer be refused without reading memory that
// may not be ours.
struct ParentBlock {
    std::vector<void*> moreBlocks;
};

std::mutex allocationLock;
// Never destroyed: a buffer may still be freed while the process unloads.
std::unordered_map<void*, ParentBlock>& parents()
{
    static auto* table = new std::unordered_map<void*, ParentBlock>();
    return *table;
}
ULONG liveBlocks = 0;

void* allocateRaw(ULONG size)
{
    // A zero-sized request still yields a distinct, freeable block.
    return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size ? size : 1);
}

} // namespace

extern "C" SCODE WINAPI MAPIAllocateBuffer(ULONG size, LPVOID* buffer)
{
    if (!buffer)
        return MAPI_E_INVALID_PARAMETER;
    *buffer = nullptr;
    void* block = allocateRaw(size);
    if (!block)
        return MAPI_E_NOT_ENOUGH_MEMORY;
    std::lock_guard<std::mutex> guard(allocationLock);
    parents().emplace(block, ParentBlock{});
    ++liveBlocks;
    *buffer = block;
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
    void* block = allocateRaw(size);
    if (!block)
        return MAPI_E_NOT_ENOUGH_MEMORY;
    found->second.moreBlocks.push_back(block);
    ++liveBlocks;
    *buffer = block;
    return S_OK;
}

extern "C" ULONG WINAPI MAPIFreeBuffer(LPVOID buffer)
{
    if (!buffer)
        return S_OK;
    ParentBlock freed;
    {
        std::lock_guard<std::mutex> guard(allocationLock);
        auto found = parents().find(buffer);
        // Only parents can be freed; a "more" block goes with its parent.
        if (found == parents().end())
            return static_cast<ULONG>(MAPI_E_INVALID_PARAMETER);
        freed = std::move(found->second);
        parents().erase(found);
        liveBlocks -= static_cast<ULONG>(freed.moreBlocks.size()) + 1;
    }
    for (void* block : freed.moreBlocks)
        HeapFree(GetProcessHeap(), 0, block);
    HeapFree(GetProcessHeap(), 0, buffer);
    return S_OK;
}

ULONG liveAllocationCount()
{
    std::lock_guard<std::mutex> guard(allocationLock);
    return liveBlocks;
}
