#pragma once
// Reading a module image's import tables without trusting them: every offset
// is checked against the image size before it is read, so a module with
// broken headers is reported, never followed out of its image. The reader
// takes the thunk width from the image's own header (PE32: 4 bytes, PE32+:
// 8 bytes), so both flavours of the add-in read their host's tables right.
#include "hook/pe_format.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// A module image in memory, read only inside [base, base + size).
class ImageView {
public:
    ImageView(uint8_t* base, size_t size) : base_(base), size_(size) {}

    uint8_t* base() const { return base_; }
    size_t size() const { return size_; }

    // True when `length` bytes from `offset` lie inside the image.
    bool contains(uint64_t offset, uint64_t length) const
    {
        return offset <= size_ && length <= size_ - offset;
    }

    // Copies the record of type T at `offset` into `value`; false when it
    // would reach past the image. Copied, because the offsets come from the
    // image itself and need not be aligned for T.
    template <typename T>
    bool read(uint64_t offset, T& value) const
    {
        if (!contains(offset, sizeof(T)))
            return false;
        std::memcpy(&value, base_ + offset, sizeof(T));
        return true;
    }

    // The NUL-terminated text at `offset`, or null when no NUL comes before the image ends.
    const char* textAt(uint64_t offset) const;

private:
    uint8_t* base_;
    size_t size_;
};

// What the headers say about the image.
struct PeLayout {
    bool pe32Plus = false;
    unsigned thunkWidth = 0;        // 4 (PE32) or 8 (PE32+)
    uint64_t optionalHeader = 0;    // offset of the optional header in the image
    uint32_t directoryCount = 0;    // NumberOfRvaAndSizes
    uint64_t directories = 0;       // offset of the data directory array
};

// Checks "MZ", "PE\0\0" and the optional header's magic, in that order, and
// fills `layout`. Returns 0, or 3, 4, 5 as HookDllImportFunction reports them.
uint32_t readPeLayout(const ImageView& image, PeLayout& layout);

// A data directory entry; false when the image has no such entry or it is empty.
bool dataDirectory(const ImageView& image, const PeLayout& layout, unsigned index, pe::DataDirectory& entry);

// One address-table slot of an import.
struct ImportSlot {
    uint8_t* address = nullptr;  // inside the image
    unsigned width = 0;       // the image's thunk width

    // The slot's value, zero-extended to 64 bits.
    uint64_t value() const;
};

// The regular import table: the first import of `functionName` from
// `importDll` by name, both compared ignoring case. Imports by ordinal are
// skipped; a module may import a DLL through several descriptors, all are
// searched.
bool findImportSlot(const ImageView& image, const PeLayout& layout, const char* importDll,
                    const char* functionName, ImportSlot& slot);

// The delay-import table (pe::DelayImportDescriptor records): the slot of `functionName`
// (compared exactly, as the delay-load helper resolves it) in the delay
// address table of `importDll` (ignoring case), bound yet or not.
bool findDelayImportSlot(const ImageView& image, const PeLayout& layout, const char* importDll,
                         const char* functionName, ImportSlot& slot);
