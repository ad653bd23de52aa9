// The directory of a hostile storage as the compound-file writer lays it
// out: names checked, each storage's children linked into a red-black tree,
// the entries encoded; and the FAT, DIFAT and header of a file of any size.
#include "items/compound_file_format.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <optional>

using namespace cfb;

namespace {

// Walks a sibling tree in order: keys strictly rising, no red entry under a
// red one, as many black entries on every path. Returns that black height.
int checkTree(const std::vector<DirectoryEntry>& entries, uint32_t at, bool underRed,
              std::optional<std::wstring>& previousKey, size_t& count)
{
    if (at == noStream)
        return 0;
    const DirectoryEntry& entry = entries.at(at);
    if (!entry.black && underRed)
        std::abort();
    const int left = checkTree(entries, entry.left, !entry.black, previousKey, count);
    std::wstring key = siblingOrderKey(entry.name);
    if (previousKey && compareSiblingKeys(*previousKey, key) >= 0)
        std::abort();
    previousKey = std::move(key);
    ++count;
    if (checkTree(entries, entry.right, !entry.black, previousKey, count) != left)
        std::abort();
    return left + (entry.black ? 1 : 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    std::vector<DirectoryEntry> entries(1);
    entries[0].type = EntryType::root;
    std::vector<std::vector<uint32_t>> children(1);
    std::vector<uint32_t> storages{0};
    while (input.remaining_bytes() > 0 && entries.size() < 512) {
        const uint32_t parent = storages[input.ConsumeIntegralInRange<size_t>(0, storages.size() - 1)];
        DirectoryEntry entry;
        entry.type = input.ConsumeBool() ? EntryType::storage : EntryType::stream;
        for (size_t length = input.ConsumeIntegralInRange(0, 34); length > 0; --length)
            entry.name.push_back(static_cast<wchar_t>(input.ConsumeIntegral<uint16_t>()));
        if (!isValidElementName(entry.name))
            continue; // the writer refuses the storage
        const auto index = static_cast<uint32_t>(entries.size());
        if (entry.type == EntryType::storage)
            storages.push_back(index);
        entries.push_back(std::move(entry));
        children.emplace_back();
        children[parent].push_back(index);
    }
    for (uint32_t storage : storages) {
        uint32_t root = noStream;
        std::wstring duplicate;
        if (!linkSiblingTree(entries, children[storage], root, duplicate))
            return 0; // two siblings of one name: the writer refuses the storage
        std::optional<std::wstring> previousKey;
        size_t count = 0;
        if (root != noStream && !entries[root].black)
            std::abort();
        checkTree(entries, root, false, previousKey, count);
        if (count != children[storage].size())
            std::abort();
        entries[storage].child = root;
    }
    uint8_t encoded[directoryEntryBytes];
    for (const DirectoryEntry& entry : entries)
        encodeDirectoryEntry(entry, encoded);

    const uint64_t dataSectors = input.ConsumeIntegral<uint32_t>();
    const FatLayout layout = planFat(dataSectors);
    const uint64_t listed = layout.fatSectors > headerDifatSlots ? layout.fatSectors - headerDifatSlots : 0;
    if (uint64_t(layout.fatSectors) * idsPerSector < dataSectors + layout.fatSectors + layout.difatSectors ||
        uint64_t(layout.difatSectors) * difatSlotsPerSector < listed)
        std::abort();
    HeaderFields header;
    for (uint32_t i = 0; i < layout.fatSectors && i < 4096; ++i)
        header.fatSectorNumbers.push_back(static_cast<uint32_t>(dataSectors) + i);
    uint8_t headerBytes[sectorBytes];
    encodeHeader(header, headerBytes);
    static_cast<void>(encodeDifatSectors(header.fatSectorNumbers, static_cast<uint32_t>(dataSectors)));
    static_cast<void>(encodeSectorIds(header.fatSectorNumbers, freeSector));
    return 0;
}
