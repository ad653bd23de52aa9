#include "items/compound_file_format.h"

#include "common/strings.h"

#include <algorithm>
#include <cstring>

namespace cfb {

namespace {

void put16(uint8_t* out, uint16_t value)
{
    std::memcpy(out, &value, 2);
}

void put32(uint8_t* out, uint32_t value)
{
    std::memcpy(out, &value, 4);
}

void put64(uint8_t* out, uint64_t value)
{
    std::memcpy(out, &value, 8);
}

wchar_t upperCaseUnit(wchar_t unit)
{
    // Surrogate halves have no case of their own.
    if (unit >= 0xD800 && unit <= 0xDFFF)
        return unit;
    return upperCaseInvariant(unit);
}

struct TreeBuilder {
    std::vector<DirectoryEntry>& entries;
    const std::vector<uint32_t>& sorted;
    int deepestLevel;

    uint32_t build(size_t first, size_t count, int level)
    {
        if (count == 0)
            return noStream;
        const size_t middle = first + (count - 1) / 2;
        DirectoryEntry& entry = entries[sorted[middle]];
        entry.left = build(first, middle - first, level + 1);
        entry.right = build(middle + 1, first + count - middle - 1, level + 1);
        // Splitting at the middle fills every level but the deepest, so every
        // path to a leaf crosses the same number of black entries when only
        // the deepest level is red; those entries have no children, so no red
        // entry has a red child.
        entry.black = level == 0 || level < deepestLevel;
        return sorted[middle];
    }
};

int floorLog2(size_t value)
{
    int log = 0;
    while (value > 1) {
        value >>= 1;
        ++log;
    }
    return log;
}

} // namespace

bool isValidElementName(std::wstring_view name)
{
    if (name.empty() || name.size() > maxNameChars)
        return false;
    return name.find_first_of(L"/\\:!") == std::wstring_view::npos;
}

std::wstring siblingOrderKey(std::wstring_view name)
{
    std::wstring key(name);
    for (wchar_t& unit : key)
        unit = upperCaseUnit(unit);
    return key;
}

int compareSiblingKeys(std::wstring_view a, std::wstring_view b)
{
    if (a.size() != b.size())
        return a.size() < b.size() ? -1 : 1;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i])
            return static_cast<uint16_t>(a[i]) < static_cast<uint16_t>(b[i]) ? -1 : 1;
    }
    return 0;
}

bool linkSiblingTree(std::vector<DirectoryEntry>& entries, std::vector<uint32_t> children, uint32_t& root,
                     std::wstring& duplicate)
{
    root = noStream;
    if (children.empty())
        return true;

    struct Keyed {
        std::wstring key;
        uint32_t index;
    };
    std::vector<Keyed> keyed;
    keyed.reserve(children.size());
    for (uint32_t index : children)
        keyed.push_back({siblingOrderKey(entries[index].name), index});
    std::sort(keyed.begin(), keyed.end(),
              [](const Keyed& a, const Keyed& b) { return compareSiblingKeys(a.key, b.key) < 0; });
    for (size_t i = 0; i < keyed.size(); ++i) {
        if (i > 0 && compareSiblingKeys(keyed[i - 1].key, keyed[i].key) == 0) {
            duplicate = entries[keyed[i].index].name;
            return false;
        }
        children[i] = keyed[i].index;
    }

    TreeBuilder builder{entries, children, floorLog2(children.size())};
    root = builder.build(0, children.size(), 0);
    return true;
}

void encodeDirectoryEntry(const DirectoryEntry& entry, uint8_t* out)
{
    std::memset(out, 0, directoryEntryBytes);
    const size_t chars = std::min(entry.name.size(), maxNameChars);
    for (size_t i = 0; i < chars; ++i)
        put16(out + 2 * i, static_cast<uint16_t>(entry.name[i]));
    // The length counts the terminating zero, in bytes; an unused entry has none.
    put16(out + 64, entry.type == EntryType::unused ? 0 : static_cast<uint16_t>((chars + 1) * 2));
    out[66] = static_cast<uint8_t>(entry.type);
    out[67] = entry.black ? 1 : 0;
    put32(out + 68, entry.left);
    put32(out + 72, entry.right);
    put32(out + 76, entry.child);
    std::memcpy(out + 80, entry.clsid.data(), entry.clsid.size());
    put32(out + 96, entry.stateBits);
    put64(out + 100, entry.created);
    put64(out + 108, entry.modified);
    put32(out + 116, entry.startSector);
    put64(out + 120, entry.size);
}

FatLayout planFat(uint64_t dataSectors)
{
    // Each FAT sector added may need another DIFAT sector, and both need FAT
    // entries of their own, so grow until the count covers everything.
    FatLayout layout;
    for (;;) {
        const uint64_t overflow = layout.fatSectors > headerDifatSlots ? layout.fatSectors - headerDifatSlots : 0;
        layout.difatSectors = static_cast<uint32_t>((overflow + difatSlotsPerSector - 1) / difatSlotsPerSector);
        const uint64_t total = dataSectors + layout.fatSectors + layout.difatSectors;
        const uint64_t needed = (total + idsPerSector - 1) / idsPerSector;
        if (needed <= layout.fatSectors)
            return layout;
        layout.fatSectors = static_cast<uint32_t>(needed);
    }
}

void encodeHeader(const HeaderFields& fields, uint8_t* out)
{
    static const uint8_t signature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
    std::memset(out, 0, sectorBytes);
    std::memcpy(out, signature, sizeof signature);
    put16(out + 24, 0x003E);  // minor version
    put16(out + 26, 0x0003);  // major version: 512-byte sectors
    put16(out + 28, 0xFFFE);  // byte order mark: little-endian
    put16(out + 30, 9);       // sector shift: 2^9 = 512
    put16(out + 32, 6);       // mini sector shift: 2^6 = 64
    put32(out + 40, 0);       // directory sector count: always 0 in version 3
    put32(out + 44, static_cast<uint32_t>(fields.fatSectorNumbers.size()));
    put32(out + 48, fields.firstDirectorySector);
    put32(out + 52, 0);       // transaction signature
    put32(out + 56, miniStreamCutoff);
    put32(out + 60, fields.firstMiniFatSector);
    put32(out + 64, fields.miniFatSectors);
    put32(out + 68, fields.firstDifatSector);
    put32(out + 72, fields.difatSectors);
    for (uint32_t slot = 0; slot < headerDifatSlots; ++slot) {
        const uint32_t value = slot < fields.fatSectorNumbers.size() ? fields.fatSectorNumbers[slot] : freeSector;
        put32(out + 76 + 4 * slot, value);
    }
}

std::vector<uint8_t> encodeDifatSectors(const std::vector<uint32_t>& fatSectorNumbers, uint32_t firstDifatSector)
{
    if (fatSectorNumbers.size() <= headerDifatSlots)
        return {};
    const size_t listed = fatSectorNumbers.size() - headerDifatSlots;
    const size_t sectors = (listed + difatSlotsPerSector - 1) / difatSlotsPerSector;
    std::vector<uint8_t> bytes(sectors * sectorBytes);
    for (size_t sector = 0; sector < sectors; ++sector) {
        uint8_t* out = bytes.data() + sector * sectorBytes;
        for (uint32_t slot = 0; slot < difatSlotsPerSector; ++slot) {
            const size_t index = headerDifatSlots + sector * difatSlotsPerSector + slot;
            put32(out + 4 * slot, index < fatSectorNumbers.size() ? fatSectorNumbers[index] : freeSector);
        }
        const bool last = sector + 1 == sectors;
        put32(out + 4 * difatSlotsPerSector,
              last ? endOfChain : firstDifatSector + static_cast<uint32_t>(sector) + 1);
    }
    return bytes;
}

std::vector<uint8_t> encodeSectorIds(const std::vector<uint32_t>& ids, uint32_t fill)
{
    const size_t sectors = (ids.size() + idsPerSector - 1) / idsPerSector;
    std::vector<uint8_t> bytes(sectors * sectorBytes);
    for (size_t i = 0; i < sectors * idsPerSector; ++i)
        put32(bytes.data() + 4 * i, i < ids.size() ? ids[i] : fill);
    return bytes;
}

} // namespace cfb
