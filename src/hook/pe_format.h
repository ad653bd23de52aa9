#pragma once
// The records of a module image that the import walker reads, as fixed-width
// fields: one layout for every compiler and both bitnesses, without
// windows.h. pe_imports.cpp checks them against the system's definitions.
#include <cstddef>
#include <cstdint>

namespace pe {

constexpr uint16_t dosSignature = 0x5A4D;    // "MZ"
constexpr uint32_t ntSignature = 0x00004550; // "PE\0\0"
constexpr uint16_t pe32Magic = 0x10B;
constexpr uint16_t pe32PlusMagic = 0x20B;

struct DosHeader {
    uint16_t magic;
    uint8_t unused[58];
    int32_t ntHeaders; // e_lfanew: where "PE\0\0" stands; signed in the format
};

// Follows the signature; the optional header follows it.
struct FileHeader {
    uint16_t machine;
    uint16_t sectionCount;
    uint32_t timeDateStamp;
    uint32_t symbolTable;
    uint32_t symbolCount;
    uint16_t optionalHeaderSize;
    uint16_t characteristics;
};

// The optional header starts with its magic; its data directories, and the
// count of them just before, lie further in for PE32+ (64-bit fields).
constexpr uint64_t pe32Directories = 96;
constexpr uint64_t pe32PlusDirectories = 112;

struct DataDirectory {
    uint32_t virtualAddress;
    uint32_t size;
};
constexpr unsigned importDirectory = 1;
constexpr unsigned delayImportDirectory = 13;

struct ImportDescriptor {
    uint32_t nameTable; // OriginalFirstThunk
    uint32_t timeDateStamp;
    uint32_t forwarderChain;
    uint32_t dllName;
    uint32_t addressTable; // FirstThunk
};

struct DelayImportDescriptor {
    uint32_t attributes; // delayRvaAttribute set: the fields below are offsets, else addresses
    uint32_t dllName;
    uint32_t moduleHandle;
    uint32_t addressTable;
    uint32_t nameTable;
    uint32_t boundAddressTable;
    uint32_t unloadAddressTable;
    uint32_t timeDateStamp;
};
constexpr uint32_t delayRvaAttribute = 1;

// Name- and address-table entries are as wide as the image's pointers; the
// top bit of an entry marks an import by ordinal.
constexpr unsigned pe32ThunkBytes = 4;
constexpr unsigned pe32PlusThunkBytes = 8;

static_assert(sizeof(DosHeader) == 64 && offsetof(DosHeader, ntHeaders) == 60);
static_assert(sizeof(FileHeader) == 20);
static_assert(sizeof(DataDirectory) == 8);
static_assert(sizeof(ImportDescriptor) == 20 && offsetof(ImportDescriptor, dllName) == 12 &&
              offsetof(ImportDescriptor, addressTable) == 16);
static_assert(sizeof(DelayImportDescriptor) == 32 && offsetof(DelayImportDescriptor, dllName) == 4 &&
              offsetof(DelayImportDescriptor, addressTable) == 12 && offsetof(DelayImportDescriptor, nameTable) == 16);

} // namespace pe
