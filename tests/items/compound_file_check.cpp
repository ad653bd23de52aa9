#include "compound_file_check.h"

#include "common/strings.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

constexpr uint32_t difSect = 0xFFFFFFFC;
constexpr uint32_t fatSect = 0xFFFFFFFD;
constexpr uint32_t endOfChain = 0xFFFFFFFE;
constexpr uint32_t freeSect = 0xFFFFFFFF;
constexpr uint32_t noStream = 0xFFFFFFFF;

uint16_t le16(const std::string& bytes, size_t offset)
{
    uint16_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 2);
    return value;
}

uint32_t le32(const std::string& bytes, size_t offset)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 4);
    return value;
}

uint64_t le64(const std::string& bytes, size_t offset)
{
    uint64_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 8);
    return value;
}

struct Entry {
    std::wstring name;
    uint16_t nameBytes = 0;
    uint8_t type = 0;
    uint8_t color = 0;
    uint32_t left = noStream, right = noStream, child = noStream;
    uint32_t start = 0;
    uint64_t size = 0;
    CLSID clsid{};
    uint32_t stateBits = 0;
};

// The documented sibling order: shorter names first, then the names compared
// ignoring case the way the system compares file names.
int siblingOrder(const std::wstring& a, const std::wstring& b)
{
    if (a.size() != b.size())
        return a.size() < b.size() ? -1 : 1;
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) -
           CSTR_EQUAL;
}

class LayoutChecker {
public:
    explicit LayoutChecker(const std::string& bytes) : bytes_(bytes) {}

    const std::vector<RawStorageEntry>& storages() const { return storages_; }

    std::string run()
    {
        if (bytes_.size() < 3 * 512 || bytes_.size() % 512 != 0) {
            problem("file size " + std::to_string(bytes_.size()) + " is not a header plus whole sectors");
            return problems_.str();
        }
        sectorCount_ = static_cast<uint32_t>(bytes_.size() / 512 - 1);
        owner_.assign(sectorCount_, "");
        if (!checkHeader())
            return problems_.str();
        readFat();
        checkDirectory();
        for (uint32_t s = 0; s < sectorCount_; ++s) {
            if (owner_[s].empty())
                problem("sector " + std::to_string(s) + " belongs to nothing");
        }
        return problems_.str();
    }

private:
    void problem(const std::string& text) { problems_ << text << "\n"; }

    size_t offsetOf(uint32_t sector) const { return 512 + size_t(sector) * 512; }

    bool claim(uint32_t sector, const std::string& what)
    {
        if (sector >= sectorCount_) {
            problem(what + ": sector " + std::to_string(sector) + " is beyond the file");
            return false;
        }
        if (!owner_[sector].empty()) {
            problem(what + ": sector " + std::to_string(sector) + " already belongs to " + owner_[sector]);
            return false;
        }
        owner_[sector] = what;
        return true;
    }

    bool checkHeader()
    {
        static const unsigned char signature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
        if (std::memcmp(bytes_.data(), signature, 8) != 0) {
            problem("signature wrong");
            return false;
        }
        if (le16(bytes_, 24) != 0x3E || le16(bytes_, 26) != 3 || le16(bytes_, 28) != 0xFFFE ||
            le16(bytes_, 30) != 9 || le16(bytes_, 32) != 6)
            problem("version, byte order or sector shifts wrong");
        if (le32(bytes_, 40) != 0)
            problem("directory sector count must be 0 in version 3");
        if (le32(bytes_, 56) != 4096)
            problem("mini stream cutoff is not 4096");
        for (int i = 0; i < 16; ++i) {
            if (bytes_[8 + i] != 0 || (i < 6 && bytes_[34 + i] != 0)) {
                problem("header class id or reserved bytes not zero");
                break;
            }
        }
        return true;
    }

    void readFat()
    {
        const uint32_t fatCount = le32(bytes_, 44);
        uint32_t difatSector = le32(bytes_, 68);
        const uint32_t difatCount = le32(bytes_, 72);
        std::vector<uint32_t> fatSectors;
        for (uint32_t slot = 0; slot < 109; ++slot) {
            const uint32_t value = le32(bytes_, 76 + 4 * slot);
            if (slot < fatCount)
                fatSectors.push_back(value);
            else if (value != freeSect)
                problem("header DIFAT slot " + std::to_string(slot) + " beyond the FAT count is not free");
        }
        std::vector<uint32_t> difatSectors;
        for (uint32_t j = 0; j < difatCount; ++j) {
            if (!claim(difatSector, "DIFAT"))
                return;
            difatSectors.push_back(difatSector);
            const size_t at = offsetOf(difatSector);
            for (uint32_t slot = 0; slot < 127; ++slot) {
                const uint32_t value = le32(bytes_, at + 4 * slot);
                if (fatSectors.size() < fatCount)
                    fatSectors.push_back(value);
                else if (value != freeSect)
                    problem("DIFAT slot beyond the FAT count is not free");
            }
            difatSector = le32(bytes_, at + 508);
        }
        if (difatSector != endOfChain)
            problem("DIFAT chain does not end with ENDOFCHAIN");
        if (fatSectors.size() != fatCount) {
            problem("DIFAT lists " + std::to_string(fatSectors.size()) + " of " + std::to_string(fatCount) +
                    " FAT sectors");
            return;
        }
        for (uint32_t sector : fatSectors) {
            if (!claim(sector, "FAT"))
                return;
            const size_t at = offsetOf(sector);
            for (uint32_t i = 0; i < 128; ++i)
                fat_.push_back(le32(bytes_, at + 4 * i));
        }
        if (fat_.size() < sectorCount_) {
            problem("FAT too short for the file");
            return;
        }
        for (uint32_t sector : fatSectors) {
            if (fat_[sector] != fatSect)
                problem("FAT sector " + std::to_string(sector) + " not marked FATSECT");
        }
        for (uint32_t sector : difatSectors) {
            if (fat_[sector] != difSect)
                problem("DIFAT sector " + std::to_string(sector) + " not marked DIFSECT");
        }
        size_t marks = 0;
        for (size_t s = 0; s < fat_.size(); ++s) {
            marks += fat_[s] == fatSect;
            if (s >= sectorCount_ && fat_[s] != freeSect)
                problem("FAT entry " + std::to_string(s) + " beyond the file is not free");
        }
        if (marks != fatCount)
            problem("FATSECT marks don't match the FAT sector count");
    }

    std::vector<uint32_t> chain(uint32_t start, const std::string& what)
    {
        std::vector<uint32_t> sectors;
        for (uint32_t sector = start; sector != endOfChain;) {
            if (sector >= fat_.size() || !claim(sector, what)) {
                problem(what + ": chain broken");
                return sectors;
            }
            sectors.push_back(sector);
            sector = fat_[sector];
        }
        return sectors;
    }

    void checkDirectory()
    {
        if (fat_.size() < sectorCount_)
            return;
        const std::vector<uint32_t> directory = chain(le32(bytes_, 48), "directory");
        for (uint32_t sector : directory) {
            for (int i = 0; i < 4; ++i)
                entries_.push_back(parseEntry(offsetOf(sector) + 128 * i));
        }
        if (entries_.empty() || entries_[0].type != 5 || entries_[0].name != L"Root Entry") {
            problem("entry 0 is not the root entry");
            return;
        }
        const std::vector<uint32_t> miniFatSectors = chain(le32(bytes_, 60), "mini FAT");
        if (miniFatSectors.size() != le32(bytes_, 64))
            problem("mini FAT sector count wrong");
        for (uint32_t sector : miniFatSectors) {
            for (int i = 0; i < 128; ++i)
                miniFat_.push_back(le32(bytes_, offsetOf(sector) + 4 * i));
        }
        const Entry& root = entries_[0];
        if (root.size > 0) {
            const auto sectors = chain(root.start, "mini stream");
            if (sectors.size() != (root.size + 511) / 512)
                problem("mini stream chain length doesn't match its size");
        }
        if (root.size % 64 != 0 || root.size / 64 > miniFat_.size())
            problem("mini stream size doesn't fit the mini FAT");
        miniOwner_.assign(static_cast<size_t>(std::min<uint64_t>(root.size / 64, miniFat_.size())), false);

        for (size_t i = 0; i < entries_.size(); ++i)
            checkEntry(i);
        reached_.assign(entries_.size(), false);
        reached_[0] = true;
        checkChildren(0, 0, L"");
        for (size_t i = 1; i < entries_.size(); ++i) {
            if (entries_[i].type != 0 && !reached_[i])
                problem("entry " + std::to_string(i) + " is in no tree");
        }
    }

    Entry parseEntry(size_t at)
    {
        Entry entry;
        entry.nameBytes = le16(bytes_, at + 64);
        entry.type = static_cast<uint8_t>(bytes_[at + 66]);
        entry.color = static_cast<uint8_t>(bytes_[at + 67]);
        entry.left = le32(bytes_, at + 68);
        entry.right = le32(bytes_, at + 72);
        entry.child = le32(bytes_, at + 76);
        std::memcpy(&entry.clsid, bytes_.data() + at + 80, sizeof(CLSID));
        entry.stateBits = le32(bytes_, at + 96);
        entry.start = le32(bytes_, at + 116);
        entry.size = le64(bytes_, at + 120);
        for (int i = 0; i < 32; ++i) {
            const wchar_t unit = static_cast<wchar_t>(le16(bytes_, at + 2 * i));
            if (unit == 0)
                break;
            entry.name += unit;
        }
        return entry;
    }

    void checkEntry(size_t index)
    {
        const Entry& entry = entries_[index];
        const std::string where = "entry " + std::to_string(index) + " (" + wideToUtf8(entry.name) + ")";
        if (entry.type == 0) {
            if (entry.left != noStream || entry.right != noStream || entry.child != noStream || entry.start != 0 ||
                entry.size != 0 || entry.nameBytes != 0)
                problem(where + ": unused entry not cleared");
            return;
        }
        if (entry.type != 1 && entry.type != 2 && !(entry.type == 5 && index == 0))
            problem(where + ": bad type");
        if (entry.name.empty() || entry.name.size() > 31 || entry.nameBytes != (entry.name.size() + 1) * 2)
            problem(where + ": name length field wrong");
        if (entry.color > 1)
            problem(where + ": bad color");
        if (entry.size >> 32)
            problem(where + ": size beyond 32 bits");
        if (entry.type == 2 && entry.child != noStream)
            problem(where + ": stream with children");
        if (entry.type != 2 || entry.size == 0)
            return;
        if (entry.size >= 4096) {
            if (chain(entry.start, wideToUtf8(entry.name)).size() != (entry.size + 511) / 512)
                problem(where + ": chain length doesn't match the size");
            return;
        }
        uint64_t count = 0;
        for (uint32_t mini = entry.start; mini != endOfChain; mini = miniFat_[mini]) {
            if (mini >= miniOwner_.size() || miniOwner_[mini] || ++count > miniOwner_.size()) {
                problem(where + ": mini chain broken");
                return;
            }
            miniOwner_[mini] = true;
        }
        if (count != (entry.size + 63) / 64)
            problem(where + ": mini chain length doesn't match the size");
    }

    // Checks the tree of `storage`'s children and, below it, theirs.
    void checkChildren(uint32_t storage, int depth, const std::wstring& path)
    {
        storages_.push_back({path, entries_[storage].clsid, entries_[storage].stateBits});
        if (depth > 200)
            return problem("storages nested too deep to check");
        std::vector<uint32_t> inOrder;
        const uint32_t top = entries_[storage].child;
        if (top != noStream && top < entries_.size() && entries_[top].color != 1)
            problem("tree under " + wideToUtf8(entries_[storage].name) + " has a red root");
        walk(top, false, inOrder, 0);
        for (size_t i = 1; i < inOrder.size(); ++i) {
            if (siblingOrder(entries_[inOrder[i - 1]].name, entries_[inOrder[i]].name) >= 0)
                problem("siblings out of order: " + wideToUtf8(entries_[inOrder[i - 1]].name) + " before " +
                        wideToUtf8(entries_[inOrder[i]].name));
        }
        for (uint32_t child : inOrder) {
            if (entries_[child].type == 1)
                checkChildren(child, depth + 1,
                              path.empty() ? entries_[child].name : path + L"/" + entries_[child].name);
        }
    }

    // The black height of the subtree, -1 when it's broken.
    int walk(uint32_t node, bool parentRed, std::vector<uint32_t>& inOrder, int depth)
    {
        if (node == noStream)
            return 0;
        if (node >= entries_.size() || reached_[node] || depth > 64 || entries_[node].type == 0 ||
            entries_[node].type == 5) {
            problem("tree link to entry " + std::to_string(node) + " is invalid or repeated");
            return -1;
        }
        reached_[node] = true;
        const Entry& entry = entries_[node];
        const bool red = entry.color == 0;
        if (red && parentRed)
            problem("red entry " + wideToUtf8(entry.name) + " under a red parent");
        const int left = walk(entry.left, red, inOrder, depth + 1);
        inOrder.push_back(node);
        const int right = walk(entry.right, red, inOrder, depth + 1);
        if (left < 0 || right < 0)
            return -1;
        if (left != right) {
            problem("black heights differ under " + wideToUtf8(entry.name));
            return -1;
        }
        return left + (red ? 0 : 1);
    }

    const std::string& bytes_;
    std::ostringstream problems_;
    uint32_t sectorCount_ = 0;
    std::vector<std::string> owner_;
    std::vector<uint32_t> fat_;
    std::vector<uint32_t> miniFat_;
    std::vector<bool> miniOwner_;
    std::vector<Entry> entries_;
    std::vector<bool> reached_;
    std::vector<RawStorageEntry> storages_;
};

struct OwnedStat {
    STATSTG stat{};
    ~OwnedStat() { CoTaskMemFree(stat.pwcsName); }
};

std::map<std::wstring, DWORD> elementsOf(IStorage* storage, const std::string& where)
{
    std::map<std::wstring, DWORD> elements;
    ComPtr<IEnumSTATSTG> enumerator;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &enumerator))) {
        ADD_FAILURE() << where << ": EnumElements failed";
        return elements;
    }
    for (;;) {
        OwnedStat element;
        if (enumerator->Next(1, &element.stat, nullptr) != S_OK)
            break;
        elements[element.stat.pwcsName] = element.stat.type;
    }
    return elements;
}

std::string streamBytes(IStorage* storage, const std::wstring& name, const std::string& where)
{
    ComPtr<IStream> stream;
    if (FAILED(storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream))) {
        ADD_FAILURE() << where << ": OpenStream failed";
        return {};
    }
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    std::string bytes = readWholeStream(stream.Get());
    EXPECT_EQ(stat.cbSize.QuadPart, bytes.size()) << where << ": Stat size differs from the bytes read";
    return bytes;
}

void compareStorages(IStorage* expected, IStorage* actual, const std::string& where)
{
    STATSTG expectedStat{}, actualStat{};
    ASSERT_HRESULT_SUCCEEDED(expected->Stat(&expectedStat, STATFLAG_NONAME));
    ASSERT_HRESULT_SUCCEEDED(actual->Stat(&actualStat, STATFLAG_NONAME));
    EXPECT_TRUE(IsEqualCLSID(expectedStat.clsid, actualStat.clsid)) << where << ": class id differs";

    const auto expectedElements = elementsOf(expected, where);
    const auto actualElements = elementsOf(actual, where);
    for (const auto& [name, type] : actualElements) {
        if (!expectedElements.count(name))
            ADD_FAILURE() << where << "/" << wideToUtf8(name) << ": written but not in the source";
    }
    for (const auto& [name, type] : expectedElements) {
        const std::string path = where + "/" + wideToUtf8(name);
        const auto found = actualElements.find(name);
        if (found == actualElements.end()) {
            ADD_FAILURE() << path << ": missing from the written file";
            continue;
        }
        if (found->second != type) {
            ADD_FAILURE() << path << ": element type differs";
            continue;
        }
        if (type == STGTY_STREAM) {
            const std::string want = streamBytes(expected, name, path);
            const std::string got = streamBytes(actual, name, path);
            EXPECT_EQ(want.size(), got.size()) << path;
            EXPECT_TRUE(want == got) << path << ": bytes differ";
        } else {
            ComPtr<IStorage> expectedChild, actualChild;
            const DWORD mode = STGM_READ | STGM_SHARE_EXCLUSIVE;
            ASSERT_HRESULT_SUCCEEDED(expected->OpenStorage(name.c_str(), nullptr, mode, nullptr, 0, &expectedChild));
            ASSERT_HRESULT_SUCCEEDED(actual->OpenStorage(name.c_str(), nullptr, mode, nullptr, 0, &actualChild))
                << path;
            compareStorages(expectedChild.Get(), actualChild.Get(), path);
        }
    }
}

} // namespace

std::string compoundFileProblems(const std::string& bytes)
{
    return LayoutChecker(bytes).run();
}

std::vector<RawStorageEntry> storageEntriesOf(const std::string& bytes)
{
    LayoutChecker checker(bytes);
    checker.run();
    return checker.storages();
}

ComPtr<IStorage> openCompoundFile(const std::wstring& path)
{
    ComPtr<IStorage> storage;
    if (FAILED(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_EXCLUSIVE, STGFMT_STORAGE, 0, nullptr, nullptr,
                                IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf()))))
        return nullptr;
    return storage;
}

void expectSameTree(IStorage* expected, IStorage* actual)
{
    ASSERT_TRUE(expected && actual);
    compareStorages(expected, actual, "");
}

void expectStorageEntriesMatch(IStorage* source, const std::string& bytes)
{
    const std::vector<RawStorageEntry> storages = storageEntriesOf(bytes);
    ASSERT_FALSE(storages.empty()) << "no storages in the file";
    for (const RawStorageEntry& entry : storages) {
        const std::string where = "\"" + wideToUtf8(entry.path) + "\"";
        // Parents stay open while their children are used.
        std::vector<ComPtr<IStorage>> opened{source};
        for (size_t start = 0; !entry.path.empty() && start <= entry.path.size();) {
            const size_t slash = std::min(entry.path.find(L'/', start), entry.path.size());
            const std::wstring name = entry.path.substr(start, slash - start);
            ComPtr<IStorage> child;
            ASSERT_HRESULT_SUCCEEDED(opened.back()->OpenStorage(name.c_str(), nullptr,
                                                                STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &child))
                << where;
            opened.push_back(child);
            start = slash + 1;
        }
        STATSTG stat{};
        ASSERT_HRESULT_SUCCEEDED(opened.back()->Stat(&stat, STATFLAG_NONAME)) << where;
        EXPECT_TRUE(IsEqualCLSID(stat.clsid, entry.clsid)) << where << ": class id differs";
        EXPECT_EQ(stat.grfStateBits, entry.stateBits) << where << ": state bits differ";
    }
}

std::string readWholeStream(IStream* stream)
{
    std::string bytes;
    std::string buffer(1 << 20, '\0');
    for (;;) {
        ULONG read = 0;
        if (FAILED(stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &read)) || read == 0)
            break;
        bytes.append(buffer.data(), read);
    }
    return bytes;
}
