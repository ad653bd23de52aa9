// Walks the import and delay-import tables of a module image in memory. The
// image may be anything a process has loaded, including a module with damaged
// headers: every record is looked up through ImageView, which refuses offsets
// past the image, and a walk that leaves the image stops with an error line.
#include "hook/pe_imports.h"

#include "core/log_line.h"

#include <cstring>

#ifdef _WIN32
#include <windows.h>

#include <delayimp.h>

// The records of pe_format.h are the system's own, field for field.
static_assert(sizeof(pe::DosHeader) == sizeof(IMAGE_DOS_HEADER) &&
              offsetof(pe::DosHeader, ntHeaders) == offsetof(IMAGE_DOS_HEADER, e_lfanew));
static_assert(sizeof(pe::FileHeader) == sizeof(IMAGE_FILE_HEADER) &&
              offsetof(IMAGE_NT_HEADERS32, FileHeader) == sizeof(DWORD) &&
              offsetof(IMAGE_NT_HEADERS64, FileHeader) == sizeof(DWORD));
static_assert(offsetof(IMAGE_NT_HEADERS32, OptionalHeader) == sizeof(DWORD) + sizeof(pe::FileHeader) &&
              offsetof(IMAGE_NT_HEADERS64, OptionalHeader) == sizeof(DWORD) + sizeof(pe::FileHeader));
static_assert(offsetof(IMAGE_OPTIONAL_HEADER32, Magic) == 0 && offsetof(IMAGE_OPTIONAL_HEADER64, Magic) == 0);
static_assert(offsetof(IMAGE_OPTIONAL_HEADER32, DataDirectory) == pe::pe32Directories &&
              offsetof(IMAGE_OPTIONAL_HEADER32, NumberOfRvaAndSizes) == pe::pe32Directories - sizeof(DWORD) &&
              sizeof(IMAGE_OPTIONAL_HEADER32) == pe::pe32Directories + 16 * sizeof(pe::DataDirectory));
static_assert(offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory) == pe::pe32PlusDirectories &&
              offsetof(IMAGE_OPTIONAL_HEADER64, NumberOfRvaAndSizes) == pe::pe32PlusDirectories - sizeof(DWORD) &&
              sizeof(IMAGE_OPTIONAL_HEADER64) == pe::pe32PlusDirectories + 16 * sizeof(pe::DataDirectory));
static_assert(IMAGE_NT_OPTIONAL_HDR32_MAGIC == pe::pe32Magic && IMAGE_NT_OPTIONAL_HDR64_MAGIC == pe::pe32PlusMagic);
static_assert(IMAGE_DOS_SIGNATURE == pe::dosSignature && IMAGE_NT_SIGNATURE == pe::ntSignature);
static_assert(sizeof(pe::DataDirectory) == sizeof(IMAGE_DATA_DIRECTORY) &&
              IMAGE_DIRECTORY_ENTRY_IMPORT == pe::importDirectory &&
              IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT == pe::delayImportDirectory);
static_assert(sizeof(pe::ImportDescriptor) == sizeof(IMAGE_IMPORT_DESCRIPTOR) &&
              offsetof(pe::ImportDescriptor, nameTable) == offsetof(IMAGE_IMPORT_DESCRIPTOR, OriginalFirstThunk) &&
              offsetof(pe::ImportDescriptor, dllName) == offsetof(IMAGE_IMPORT_DESCRIPTOR, Name) &&
              offsetof(pe::ImportDescriptor, addressTable) == offsetof(IMAGE_IMPORT_DESCRIPTOR, FirstThunk));
static_assert(sizeof(pe::DelayImportDescriptor) == sizeof(ImgDelayDescr) &&
              offsetof(pe::DelayImportDescriptor, attributes) == offsetof(ImgDelayDescr, grAttrs) &&
              offsetof(pe::DelayImportDescriptor, dllName) == offsetof(ImgDelayDescr, rvaDLLName) &&
              offsetof(pe::DelayImportDescriptor, addressTable) == offsetof(ImgDelayDescr, rvaIAT) &&
              offsetof(pe::DelayImportDescriptor, nameTable) == offsetof(ImgDelayDescr, rvaINT) &&
              dlattrRva == pe::delayRvaAttribute);
static_assert(sizeof(IMAGE_THUNK_DATA32) == pe::pe32ThunkBytes &&
              sizeof(IMAGE_THUNK_DATA64) == pe::pe32PlusThunkBytes &&
              IMAGE_ORDINAL_FLAG32 == 1u << (8 * pe::pe32ThunkBytes - 1) &&
              IMAGE_ORDINAL_FLAG64 == 1ull << (8 * pe::pe32PlusThunkBytes - 1));
#endif

namespace {

Logger logger("HookDD");

// One name-table or address-table entry at `offset`, as wide as the image's thunks.
bool readThunk(const ImageView& image, unsigned width, uint64_t offset, uint64_t& value)
{
    if (!image.contains(offset, width))
        return false;
    value = 0;
    std::memcpy(&value, image.base() + offset, width);
    return true;
}

// The snap-by-ordinal flag is the top bit of the thunk's own width.
bool isOrdinalThunk(uint64_t thunk, unsigned width)
{
    return (thunk >> (width * 8 - 1)) & 1;
}

// The name of the IMAGE_IMPORT_BY_NAME record a thunk points at (after its
// two-byte hint); null when the record lies outside the image. `addressBase`
// is 0 for tables of offsets, the image base for the old tables of addresses.
const char* importName(const ImageView& image, uint64_t thunk, uint64_t addressBase)
{
    const uint64_t record = addressBase ? thunk - addressBase : (thunk & 0x7FFFFFFF);
    return image.textAt(record + 2);
}

// Walks a name table and its address table in step. `matches` decides on a
// name; ordinal entries are skipped.
template <typename Matches>
bool findInThunks(const ImageView& image, unsigned width, uint64_t names, uint64_t addresses,
                  uint64_t addressBase, Matches matches, ImportSlot& slot)
{
    for (uint64_t index = 0;; ++index) {
        uint64_t nameThunk = 0;
        if (!readThunk(image, width, names + index * width, nameThunk)) {
            KV_ERROR(logger) << "import name table leaves the image at entry " << index;
            return false;
        }
        if (nameThunk == 0)
            return false;
        if (!image.contains(addresses + index * width, width)) {
            KV_ERROR(logger) << "import address table leaves the image at entry " << index;
            return false;
        }
        if (isOrdinalThunk(nameThunk, width)) {
            KV_DEBUG(logger) << "IMAGE_SNAP_BY_ORDINAL ignored";
            continue;
        }
        const char* name = importName(image, nameThunk, addressBase);
        if (!name) {
            KV_ERROR(logger) << "import name outside the image, rva=" << nameThunk;
            continue;
        }
        if (matches(name)) {
            slot.address = image.base() + addresses + index * width;
            slot.width = width;
            return true;
        }
    }
}

// Module and DLL names compared as the loader does, ASCII letters in any case.
bool sameNameIgnoringCase(const char* a, const char* b)
{
    const auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
    for (;; ++a, ++b) {
        if (lower(static_cast<unsigned char>(*a)) != lower(static_cast<unsigned char>(*b)))
            return false;
        if (*a == 0)
            return true;
    }
}

} // namespace

const char* ImageView::textAt(uint64_t offset) const
{
    if (offset >= size_)
        return nullptr;
    const void* end = std::memchr(base_ + offset, 0, size_ - offset);
    return end ? reinterpret_cast<const char*>(base_ + offset) : nullptr;
}

uint64_t ImportSlot::value() const
{
    uint64_t result = 0;
    if (address)
        std::memcpy(&result, address, width);
    return result;
}

uint32_t readPeLayout(const ImageView& image, PeLayout& layout)
{
    pe::DosHeader dos{};
    if (!image.read(0, dos) || dos.magic != pe::dosSignature)
        return 3;

    // e_lfanew is signed in the header; a negative one points nowhere.
    const int32_t peOffset = dos.ntHeaders;
    uint32_t signature = 0;
    if (peOffset < 0 || !image.read(static_cast<uint64_t>(peOffset), signature) || signature != pe::ntSignature)
        return 4;

    const uint64_t optionalHeader = static_cast<uint64_t>(peOffset) + sizeof(uint32_t) + sizeof(pe::FileHeader);
    uint16_t magic = 0;
    if (!image.read(optionalHeader, magic) || (magic != pe::pe32Magic && magic != pe::pe32PlusMagic))
        return 5;

    layout.pe32Plus = magic == pe::pe32PlusMagic;
    layout.thunkWidth = layout.pe32Plus ? pe::pe32PlusThunkBytes : pe::pe32ThunkBytes;
    layout.optionalHeader = optionalHeader;
    layout.directories = optionalHeader + (layout.pe32Plus ? pe::pe32PlusDirectories : pe::pe32Directories);
    const uint64_t countOffset = layout.directories - sizeof(uint32_t);
    layout.directoryCount = 0;
    image.read(countOffset, layout.directoryCount);
    return 0;
}

bool dataDirectory(const ImageView& image, const PeLayout& layout, unsigned index, pe::DataDirectory& entry)
{
    entry = pe::DataDirectory{};
    if (index >= layout.directoryCount)
        return false;
    return image.read(layout.directories + index * sizeof(pe::DataDirectory), entry) && entry.virtualAddress != 0;
}

bool findImportSlot(const ImageView& image, const PeLayout& layout, const char* importDll,
                    const char* functionName, ImportSlot& slot)
{
    slot = ImportSlot{};
    pe::DataDirectory imports{};
    if (!importDll || !functionName || !dataDirectory(image, layout, pe::importDirectory, imports))
        return false;

    const auto matches = [functionName](const char* name) { return sameNameIgnoringCase(name, functionName); };
    for (uint64_t offset = imports.virtualAddress;; offset += sizeof(pe::ImportDescriptor)) {
        pe::ImportDescriptor descriptor{};
        if (!image.read(offset, descriptor)) {
            KV_ERROR(logger) << "import descriptors leave the image at rva=" << offset;
            return false;
        }
        if (descriptor.addressTable == 0)
            return false;

        const char* dllName = image.textAt(descriptor.dllName);
        KV_DEBUG(logger) << "szImportDll=" << (dllName ? dllName : "(outside the image)");
        if (!dllName || !sameNameIgnoringCase(dllName, importDll))
            continue;
        // Without its own name table a descriptor's names stood in the
        // address table, which the loader has overwritten by now.
        if (descriptor.nameTable == 0) {
            KV_WARN(logger) << "no import name table for " << dllName;
            continue;
        }
        if (findInThunks(image, layout.thunkWidth, descriptor.nameTable, descriptor.addressTable, 0, matches,
                         slot))
            return true;
    }
}

bool findDelayImportSlot(const ImageView& image, const PeLayout& layout, const char* importDll,
                         const char* functionName, ImportSlot& slot)
{
    slot = ImportSlot{};
    pe::DataDirectory delayImports{};
    if (!importDll || !functionName || !dataDirectory(image, layout, pe::delayImportDirectory, delayImports))
        return false;

    const auto matches = [functionName](const char* name) { return std::strcmp(name, functionName) == 0; };
    for (uint64_t offset = delayImports.virtualAddress;; offset += sizeof(pe::DelayImportDescriptor)) {
        pe::DelayImportDescriptor descriptor{};
        if (!image.read(offset, descriptor)) {
            KV_ERROR(logger) << "delay-import descriptors leave the image at rva=" << offset;
            return false;
        }
        if (descriptor.dllName == 0)
            return false;

        // The first delay-load helpers stored addresses instead of offsets;
        // such tables exist only in 32-bit images, where an address minus the
        // image base is the offset.
        const bool relative = (descriptor.attributes & pe::delayRvaAttribute) != 0;
        if (!relative && layout.pe32Plus) {
            KV_WARN(logger) << "delay-import descriptor with addresses in a PE32+ image ignored";
            continue;
        }
        const uint64_t imageBase = reinterpret_cast<uintptr_t>(image.base());
        const auto toOffset = [&](uint32_t field) -> uint64_t {
            return relative ? field : static_cast<uint64_t>(field) - imageBase;
        };

        const char* dllName = image.textAt(toOffset(descriptor.dllName));
        KV_DEBUG(logger) << "delay szImportDll=" << (dllName ? dllName : "(outside the image)");
        if (!dllName || !sameNameIgnoringCase(dllName, importDll))
            continue;
        // Old-style name tables hold the addresses of the name records too.
        if (findInThunks(image, layout.thunkWidth, toOffset(descriptor.nameTable), toOffset(descriptor.addressTable),
                         relative ? 0 : imageBase, matches, slot))
            return true;
    }
}
