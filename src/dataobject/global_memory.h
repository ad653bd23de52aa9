#pragma once
// Global memory blocks, the medium of every HGLOBAL clipboard format: an
// owning handle for blocks not yet given to a data object, and a scoped lock.
#include <windows.h>
#include <objidl.h>

#include "common/unique_resource.h"

struct GlobalMemoryTraits {
    using Type = HGLOBAL;
    static HGLOBAL invalid() { return nullptr; }
    static void close(HGLOBAL memory) { ::GlobalFree(memory); }
};

// A block this code still owns; release() it once SetData has taken it.
using UniqueGlobal = UniqueResource<GlobalMemoryTraits>;

// Locks a block for the scope. data() is null when the block is null or the
// lock failed, and size() is then 0, so readers never touch a bad block.
class GlobalLockGuard {
public:
    explicit GlobalLockGuard(HGLOBAL memory) : memory_(memory), data_(memory ? ::GlobalLock(memory) : nullptr) {}
    ~GlobalLockGuard() { unlock(); }
    GlobalLockGuard(const GlobalLockGuard&) = delete;
    GlobalLockGuard& operator=(const GlobalLockGuard&) = delete;

    explicit operator bool() const { return data_ != nullptr; }
    void* data() const { return data_; }
    template <typename T>
    T* as() const
    {
        return static_cast<T*>(data_);
    }
    SIZE_T size() const { return data_ ? ::GlobalSize(memory_) : 0; }

    // Unlocks early; returns what GlobalUnlock returned (FALSE once the
    // block is no longer locked), TRUE when nothing was locked.
    BOOL unlock()
    {
        if (!data_)
            return TRUE;
        data_ = nullptr;
        return ::GlobalUnlock(memory_);
    }

private:
    HGLOBAL memory_;
    void* data_;
};

// A new block of `size` bytes holding a copy of `bytes`; null when out of memory.
HGLOBAL globalFromBytes(const void* bytes, SIZE_T size, UINT flags = GMEM_MOVEABLE);

// A new block of the same size with the same bytes; null when the source
// cannot be locked or there is no memory.
HGLOBAL duplicateGlobal(HGLOBAL source, UINT flags = GMEM_MOVEABLE);

// SetData of one HGLOBAL format { format, DVASPECT_CONTENT, lindex -1 } with
// the release flag set. On success the data object owns the block and
// `memory` is left empty; on failure the block stays with the caller.
HRESULT setGlobalData(IDataObject* dataObject, CLIPFORMAT format, UniqueGlobal& memory);
