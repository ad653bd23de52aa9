#pragma once
// The on-disk pieces of a version 3 compound file, the container that .msg
// files use: 512-byte sectors, 64-byte mini sectors, a FAT that chains the
// sectors, 128-byte directory entries whose siblings form a red-black tree,
// and the 512-byte header that points at all of it. These helpers only turn
// values into bytes; compound_file_writer.cpp decides where they go.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace cfb {

constexpr uint32_t sectorBytes = 512;
constexpr uint32_t miniSectorBytes = 64;
// Streams shorter than this live in the mini stream.
constexpr uint32_t miniStreamCutoff = 4096;
constexpr uint32_t directoryEntryBytes = 128;
constexpr uint32_t idsPerSector = sectorBytes / 4;
constexpr uint32_t headerDifatSlots = 109;
// A DIFAT sector holds 127 FAT sector numbers and the number of the next one.
constexpr uint32_t difatSlotsPerSector = idsPerSector - 1;
// Without the terminating zero, which the 64-byte name field also has to hold.
constexpr size_t maxNameChars = 31;

constexpr uint32_t difatSectorMark = 0xFFFFFFFC;
constexpr uint32_t fatSectorMark = 0xFFFFFFFD;
constexpr uint32_t endOfChain = 0xFFFFFFFE;
constexpr uint32_t freeSector = 0xFFFFFFFF;
constexpr uint32_t noStream = 0xFFFFFFFF;

enum class EntryType : uint8_t { unused = 0, storage = 1, stream = 2, root = 5 };

struct DirectoryEntry {
    std::wstring name;
    EntryType type = EntryType::unused;
    std::array<uint8_t, 16> clsid{}; // the class id's bytes as they lie in memory
    uint32_t stateBits = 0;
    uint64_t created = 0; // FILETIME values: 100 ns units since 1601
    uint64_t modified = 0;
    uint32_t startSector = endOfChain;
    uint64_t size = 0;
    uint32_t left = noStream;
    uint32_t right = noStream;
    uint32_t child = noStream;
    bool black = true;
};

// 1 to 31 UTF-16 units and none of the four characters the format reserves
// ('/', '\\', ':', '!'). Control characters are fine: OLE's own names begin
// with them (\x01CompObj, \x05SummaryInformation).
bool isValidElementName(std::wstring_view name);

// The key siblings are ordered by: the name with every UTF-16 unit upper-cased
// on its own (invariant, simple case mapping), compared unit by unit after
// comparing lengths.
std::wstring siblingOrderKey(std::wstring_view name);

// <0, 0 or >0 as `a` sorts before, with or after `b` among siblings.
int compareSiblingKeys(std::wstring_view a, std::wstring_view b);

// Links the entries named by `children` (indices into `entries`, any order)
// into a balanced red-black tree: sorted by sibling order, middle element at
// the top, the deepest, incomplete level red and everything else black.
// `root` receives the tree's top entry (noStream when there are no children).
// Two children whose names collide under the sibling order make the tree
// impossible: false, and `duplicate` names one of them.
bool linkSiblingTree(std::vector<DirectoryEntry>& entries, std::vector<uint32_t> children, uint32_t& root,
                     std::wstring& duplicate);

// The 128 bytes of one directory entry.
void encodeDirectoryEntry(const DirectoryEntry& entry, uint8_t* out);

// How many FAT and DIFAT sectors a file of `dataSectors` other sectors needs,
// the FAT also covering itself and the DIFAT.
struct FatLayout {
    uint32_t fatSectors = 0;
    uint32_t difatSectors = 0;
};
FatLayout planFat(uint64_t dataSectors);

struct HeaderFields {
    std::vector<uint32_t> fatSectorNumbers; // all of them; the first 109 go into the header
    uint32_t firstDirectorySector = endOfChain;
    uint32_t firstMiniFatSector = endOfChain;
    uint32_t miniFatSectors = 0;
    uint32_t firstDifatSector = endOfChain;
    uint32_t difatSectors = 0;
};

// The 512-byte header of a version 3 file.
void encodeHeader(const HeaderFields& fields, uint8_t* out);

// The DIFAT sectors that list the FAT sectors beyond the header's 109,
// `firstDifatSector` being the number of the first of them (they are
// consecutive). Empty when the header holds every FAT sector.
std::vector<uint8_t> encodeDifatSectors(const std::vector<uint32_t>& fatSectorNumbers, uint32_t firstDifatSector);

// Little-endian 32-bit values, one after the other, padded with `fill` to
// whole sectors.
std::vector<uint8_t> encodeSectorIds(const std::vector<uint32_t>& ids, uint32_t fill);

} // namespace cfb
