// Walks the import and delay-import tables of a module image in memory. The
// image may be anything a process has loaded, including a module with damaged
// headers: every record is looked up through ImageView, which refuses offsets
// past the image, and a walk that leaves the image stops with an error line.
#include "hook/pe_imports.h"

#include "addin/log.h"

#include <delayimp.h>

#include <cstring>

namespace {

Logger logger("HookDD");

constexpr WORD dosSignature = 0x5A4D;       // "MZ"
constexpr DWORD peSignature = 0x00004550;   // "PE\0\0"
constexpr WORD pe32Magic = 0x10B;
constexpr WORD pe32PlusMagic = 0x20B;
// Where the data directories start inside the optional header.
constexpr uint64_t pe32Directories = 96;
constexpr uint64_t pe32PlusDirectories = 112;

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

DWORD readPeLayout(const ImageView& image, PeLayout& layout)
{
    const auto* dos = image.at<IMAGE_DOS_HEADER>(0);
    if (!dos || dos->e_magic != dosSignature)
        return 3;

    // e_lfanew is signed in the header; a negative one points nowhere.
    const LONG peOffset = dos->e_lfanew;
    const auto* signature = peOffset >= 0 ? image.at<DWORD>(static_cast<uint64_t>(peOffset)) : nullptr;
    if (!signature || *signature != peSignature)
        return 4;

    const uint64_t optionalHeader = static_cast<uint64_t>(peOffset) + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER);
    const auto* magic = image.at<WORD>(optionalHeader);
    if (!magic || (*magic != pe32Magic && *magic != pe32PlusMagic))
        return 5;

    layout.pe32Plus = *magic == pe32PlusMagic;
    layout.thunkWidth = layout.pe32Plus ? 8 : 4;
    layout.optionalHeader = optionalHeader;
    layout.directories = optionalHeader + (layout.pe32Plus ? pe32PlusDirectories : pe32Directories);
    const uint64_t countOffset = layout.directories - sizeof(DWORD);
    const auto* count = image.at<DWORD>(countOffset);
    layout.directoryCount = count ? *count : 0;
    return 0;
}

bool dataDirectory(const ImageView& image, const PeLayout& layout, unsigned index, IMAGE_DATA_DIRECTORY& entry)
{
    entry = IMAGE_DATA_DIRECTORY{};
    if (index >= layout.directoryCount)
        return false;
    const auto* found = image.at<IMAGE_DATA_DIRECTORY>(layout.directories + index * sizeof(IMAGE_DATA_DIRECTORY));
    if (!found)
        return false;
    entry = *found;
    return entry.VirtualAddress != 0;
}

bool findImportSlot(const ImageView& image, const PeLayout& layout, const char* importDll,
                    const char* functionName, ImportSlot& slot)
{
    slot = ImportSlot{};
    IMAGE_DATA_DIRECTORY imports{};
    if (!importDll || !functionName || !dataDirectory(image, layout, IMAGE_DIRECTORY_ENTRY_IMPORT, imports))
        return false;

    const auto matches = [functionName](const char* name) { return _stricmp(name, functionName) == 0; };
    for (uint64_t offset = imports.VirtualAddress;; offset += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
        const auto* descriptor = image.at<IMAGE_IMPORT_DESCRIPTOR>(offset);
        if (!descriptor) {
            KV_ERROR(logger) << "import descriptors leave the image at rva=" << offset;
            return false;
        }
        if (descriptor->FirstThunk == 0)
            return false;

        const char* dllName = image.textAt(descriptor->Name);
        KV_DEBUG(logger) << "szImportDll=" << (dllName ? dllName : "(outside the image)");
        if (!dllName || _stricmp(dllName, importDll) != 0)
            continue;
        // Without its own name table a descriptor's names stood in the
        // address table, which the loader has overwritten by now.
        if (descriptor->OriginalFirstThunk == 0) {
            KV_WARN(logger) << "no import name table for " << dllName;
            continue;
        }
        if (findInThunks(image, layout.thunkWidth, descriptor->OriginalFirstThunk, descriptor->FirstThunk, 0,
                         matches, slot))
            return true;
    }
}

bool findDelayImportSlot(const ImageView& image, const PeLayout& layout, const char* importDll,
                         const char* functionName, ImportSlot& slot)
{
    slot = ImportSlot{};
    IMAGE_DATA_DIRECTORY delayImports{};
    if (!importDll || !functionName ||
        !dataDirectory(image, layout, IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT, delayImports))
        return false;

    const auto matches = [functionName](const char* name) { return std::strcmp(name, functionName) == 0; };
    for (uint64_t offset = delayImports.VirtualAddress;; offset += sizeof(ImgDelayDescr)) {
        const auto* descriptor = image.at<ImgDelayDescr>(offset);
        if (!descriptor) {
            KV_ERROR(logger) << "delay-import descriptors leave the image at rva=" << offset;
            return false;
        }
        if (descriptor->rvaDLLName == 0)
            return false;

        // The first delay-load helpers stored addresses instead of offsets;
        // such tables exist only in 32-bit images, where an address minus the
        // image base is the offset.
        const bool relative = (descriptor->grAttrs & dlattrRva) != 0;
        if (!relative && layout.pe32Plus) {
            KV_WARN(logger) << "delay-import descriptor with addresses in a PE32+ image ignored";
            continue;
        }
        const uint64_t imageBase = reinterpret_cast<uintptr_t>(image.base());
        const auto toOffset = [&](DWORD field) -> uint64_t {
            return relative ? field : static_cast<uint64_t>(field) - imageBase;
        };

        const char* dllName = image.textAt(toOffset(descriptor->rvaDLLName));
        KV_DEBUG(logger) << "delay szImportDll=" << (dllName ? dllName : "(outside the image)");
        if (!dllName || _stricmp(dllName, importDll) != 0)
            continue;
        // Old-style name tables hold the addresses of the name records too.
        if (findInThunks(image, layout.thunkWidth, toOffset(descriptor->rvaINT), toOffset(descriptor->rvaIAT),
                         relative ? 0 : imageBase, matches, slot))
            return true;
    }
}
