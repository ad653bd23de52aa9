#include "items/compound_file_writer.h"

#include "core/log.h"
#include "common/hresult.h"
#include "items/compound_file_format.h"
#include "items/compound_file_sink.h"
#include "items/file_beside.h"

#include <wrl/client.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("MailItem");

constexpr size_t readChunkBytes = 1024 * 1024;
// The mini stream goes to the file in pieces of this size as it fills up.
constexpr size_t miniStreamFlushBytes = 64 * 1024;
// Directory entries are encoded and written this many at a time.
constexpr size_t directoryEntriesPerWrite = 4096;

const wchar_t rootEntryName[] = L"Root Entry";

std::wstring hexResult(HRESULT hr)
{
    wchar_t text[16];
    std::swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

std::array<uint8_t, 16> classIdBytes(const CLSID& clsid)
{
    static_assert(sizeof clsid == 16);
    std::array<uint8_t, 16> bytes;
    std::memcpy(bytes.data(), &clsid, bytes.size());
    return bytes;
}

uint64_t fileTimeValue(const FILETIME& time)
{
    return uint64_t(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

struct OwnedStat {
    STATSTG stat{};
    OwnedStat() = default;
    OwnedStat(const OwnedStat&) = delete;
    OwnedStat& operator=(const OwnedStat&) = delete;
    ~OwnedStat() { CoTaskMemFree(stat.pwcsName); }
};

// The mini stream: every stream below the cutoff, each starting on a 64-byte
// boundary. It is itself a chain of ordinary sectors; whole sectors of it go
// to the file as soon as there are enough, so it never has to be held whole.
class MiniStream {
public:
    explicit MiniStream(SectorSink& sink) : sink_(sink) {}

    HRESULT append(const uint8_t* data, size_t size, uint32_t& firstMiniSector)
    {
        const uint32_t count = static_cast<uint32_t>((size + cfb::miniSectorBytes - 1) / cfb::miniSectorBytes);
        firstMiniSector = static_cast<uint32_t>(miniFat_.size());
        for (uint32_t i = 0; i < count; ++i)
            miniFat_.push_back(i + 1 < count ? firstMiniSector + i + 1 : cfb::endOfChain);
        pending_.insert(pending_.end(), data, data + size);
        pending_.resize(pending_.size() + (count * cfb::miniSectorBytes - size), 0);
        if (pending_.size() >= miniStreamFlushBytes)
            return flush(pending_.size() / cfb::sectorBytes * cfb::sectorBytes);
        return S_OK;
    }

    HRESULT finish() { return flush(pending_.size()); }

    uint64_t size() const { return uint64_t(miniFat_.size()) * cfb::miniSectorBytes; }
    uint32_t firstSector() const { return firstSector_; }
    const std::vector<uint32_t>& miniFat() const { return miniFat_; }

private:
    HRESULT flush(size_t bytes)
    {
        if (bytes == 0)
            return S_OK;
        uint32_t first = cfb::endOfChain;
        RETURN_IF_FAILED(sink_.append(pending_.data(), bytes, first));
        const uint32_t count = static_cast<uint32_t>((bytes + cfb::sectorBytes - 1) / cfb::sectorBytes);
        sink_.chain(first, count);
        if (lastSector_ == cfb::endOfChain)
            firstSector_ = first;
        else
            sink_.link(lastSector_, first);
        lastSector_ = first + count - 1;
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(bytes));
        return S_OK;
    }

    SectorSink& sink_;
    std::vector<uint8_t> pending_;
    std::vector<uint32_t> miniFat_;
    uint32_t firstSector_ = cfb::endOfChain;
    uint32_t lastSector_ = cfb::endOfChain;
};

// Walks the source tree, copying each stream's bytes as it is met, and keeps
// the directory until everything else is in the file.
class CompoundFileBuilder {
public:
    CompoundFileBuilder(SectorSink& sink, const CompoundFileLimits& limits)
        : sink_(sink), limits_(limits), mini_(sink)
    {
    }

    HRESULT copyTree(IStorage* source)
    {
        OwnedStat self;
        HRESULT hr = source->Stat(&self.stat, STATFLAG_NONAME);
        if (FAILED(hr)) {
            KV_ERROR(logger) << "compound file: Stat of the source storage failed, hr=" << hexResult(hr);
            return hr;
        }
        cfb::DirectoryEntry root;
        root.name = rootEntryName;
        root.type = cfb::EntryType::root;
        root.clsid = classIdBytes(self.stat.clsid);
        root.stateBits = self.stat.grfStateBits;
        addEntry(std::move(root), cfb::noStream);
        return copyChildren(source, 0, 0);
    }

    HRESULT finish()
    {
        RETURN_IF_FAILED(mini_.finish());
        entries_[0].startSector = mini_.size() ? mini_.firstSector() : cfb::endOfChain;
        entries_[0].size = mini_.size();
        RETURN_IF_FAILED(linkTrees());

        uint32_t firstDirectorySector = cfb::endOfChain;
        RETURN_IF_FAILED(writeDirectory(firstDirectorySector));

        uint32_t firstMiniFatSector = cfb::endOfChain;
        const std::vector<uint8_t> miniFat = cfb::encodeSectorIds(mini_.miniFat(), cfb::freeSector);
        RETURN_IF_FAILED(sink_.append(miniFat.data(), miniFat.size(), firstMiniFatSector));
        const uint32_t miniFatSectors = static_cast<uint32_t>(miniFat.size() / cfb::sectorBytes);
        sink_.chain(firstMiniFatSector, miniFatSectors);

        return writeFatAndHeader(firstDirectorySector, firstMiniFatSector, miniFatSectors);
    }

private:
    uint32_t addEntry(cfb::DirectoryEntry entry, uint32_t parent)
    {
        const uint32_t index = static_cast<uint32_t>(entries_.size());
        entries_.push_back(std::move(entry));
        parents_.push_back(parent);
        children_.emplace_back();
        if (parent != cfb::noStream)
            children_[parent].push_back(index);
        return index;
    }

    // "storage/substorage/name", for the log.
    std::wstring pathOf(uint32_t index, const wchar_t* leaf = nullptr) const
    {
        std::wstring path = leaf ? leaf : L"";
        for (uint32_t at = index; at != 0 && at != cfb::noStream; at = parents_[at])
            path = path.empty() ? entries_[at].name : entries_[at].name + L"/" + path;
        return path.empty() ? L"(root)" : path;
    }

    HRESULT copyChildren(IStorage* storage, uint32_t storageIndex, int depth)
    {
        ComPtr<IEnumSTATSTG> elements;
        HRESULT hr = storage->EnumElements(0, nullptr, 0, &elements);
        if (FAILED(hr) || !elements) {
            KV_ERROR(logger) << "compound file: EnumElements of \"" << pathOf(storageIndex) << "\" failed, hr="
                             << hexResult(hr);
            return FAILED(hr) ? hr : E_POINTER;
        }
        for (;;) {
            OwnedStat element;
            ULONG fetched = 0;
            hr = elements->Next(1, &element.stat, &fetched);
            if (FAILED(hr)) {
                KV_ERROR(logger) << "compound file: enumerating \"" << pathOf(storageIndex) << "\" failed, hr="
                                 << hexResult(hr);
                return hr;
            }
            if (hr != S_OK || fetched == 0)
                return S_OK;
            RETURN_IF_FAILED(copyElement(storage, storageIndex, depth, element.stat));
        }
    }

    HRESULT copyElement(IStorage* storage, uint32_t storageIndex, int depth, const STATSTG& stat)
    {
        const std::wstring name = stat.pwcsName ? stat.pwcsName : L"";
        if (!cfb::isValidElementName(name)) {
            KV_ERROR(logger) << "compound file: element name \"" << name.substr(0, 64) << "\" in \""
                             << pathOf(storageIndex) << "\" can't be stored";
            return STG_E_INVALIDNAME;
        }
        // Every element met counts, the ones left out too, so that an
        // enumeration that never ends still does.
        if (++elementsSeen_ > limits_.maxElements) {
            KV_ERROR(logger) << "compound file: more than " << limits_.maxElements << " elements, at \""
                             << pathOf(storageIndex, name.c_str()) << "\"";
            return STG_E_DOCFILECORRUPT;
        }
        if (stat.type != STGTY_STORAGE && stat.type != STGTY_STREAM) {
            KV_WARN(logger) << "compound file: \"" << pathOf(storageIndex, name.c_str())
                            << "\" is neither storage nor stream (type " << stat.type << "), left out";
            return S_OK;
        }
        if (stat.type == STGTY_STORAGE)
            return copyStorage(storage, storageIndex, depth + 1, name);
        return copyStream(storage, storageIndex, name);
    }

    HRESULT copyStorage(IStorage* parent, uint32_t parentIndex, int depth, const std::wstring& name)
    {
        if (depth > limits_.maxDepth) {
            KV_ERROR(logger) << "compound file: storages nested deeper than " << limits_.maxDepth << " levels at \""
                             << pathOf(parentIndex, name.c_str()) << "\"";
            return STG_E_DOCFILECORRUPT;
        }
        ComPtr<IStorage> storage;
        HRESULT hr = parent->OpenStorage(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage);
        OwnedStat self;
        if (SUCCEEDED(hr))
            hr = storage ? storage->Stat(&self.stat, STATFLAG_NONAME) : E_POINTER;
        if (FAILED(hr)) {
            KV_ERROR(logger) << "compound file: opening storage \"" << pathOf(parentIndex, name.c_str())
                             << "\" failed, hr=" << hexResult(hr);
            return hr;
        }
        cfb::DirectoryEntry entry;
        entry.name = name;
        entry.type = cfb::EntryType::storage;
        entry.clsid = classIdBytes(self.stat.clsid);
        entry.stateBits = self.stat.grfStateBits;
        entry.created = fileTimeValue(self.stat.ctime);
        entry.modified = fileTimeValue(self.stat.mtime);
        entry.startSector = 0;
        const uint32_t index = addEntry(std::move(entry), parentIndex);
        return copyChildren(storage.Get(), index, depth);
    }

    HRESULT copyStream(IStorage* parent, uint32_t parentIndex, const std::wstring& name)
    {
        ComPtr<IStream> stream;
        HRESULT hr = parent->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
        OwnedStat self;
        if (SUCCEEDED(hr))
            hr = stream ? stream->Stat(&self.stat, STATFLAG_NONAME) : E_POINTER;
        if (FAILED(hr)) {
            KV_ERROR(logger) << "compound file: opening stream \"" << pathOf(parentIndex, name.c_str())
                             << "\" failed, hr=" << hexResult(hr);
            return hr;
        }
        cfb::DirectoryEntry entry;
        entry.name = name;
        entry.type = cfb::EntryType::stream;
        const uint32_t index = addEntry(std::move(entry), parentIndex);
        hr = copyStreamBytes(stream.Get(), self.stat.cbSize.QuadPart, index);
        if (FAILED(hr))
            KV_ERROR(logger) << "compound file: copying stream \"" << pathOf(index) << "\" failed, hr="
                             << hexResult(hr);
        return hr;
    }

    // Reads up to `reported` bytes. The first 4096 go to a small buffer of
    // their own: only a stream that turns out shorter than the cutoff
    // (whatever Stat said) goes into the mini stream. The rest is read
    // straight into the file's buffers.
    HRESULT copyStreamBytes(IStream* stream, uint64_t reported, uint32_t index)
    {
        uint64_t total = 0;
        size_t headBytes = 0;
        bool ended = false;
        while (!ended && headBytes < head_.size() && total < reported) {
            const ULONG want = static_cast<ULONG>(std::min<uint64_t>(head_.size() - headBytes, reported - total));
            ULONG got = 0;
            RETURN_IF_FAILED(readSome(stream, head_.data() + headBytes, want, got));
            ended = got == 0;
            headBytes += got;
            total += got;
        }
        cfb::DirectoryEntry& entry = entries_[index];
        entry.size = total;
        if (total < cfb::miniStreamCutoff) {
            if (total == 0)
                return S_OK;
            return mini_.append(head_.data(), headBytes, entry.startSector);
        }

        uint32_t first = cfb::endOfChain;
        RETURN_IF_FAILED(appendToFile(head_.data(), headBytes, first));
        while (!ended && total < reported) {
            uint8_t* space = nullptr;
            size_t room = 0;
            RETURN_IF_FAILED(sink_.reserve(space, room));
            const ULONG want = static_cast<ULONG>(std::min<uint64_t>({room, readChunkBytes, reported - total}));
            ULONG got = 0;
            RETURN_IF_FAILED(readSome(stream, space, want, got));
            ended = got == 0;
            total += got;
            if (total > limits_.maxStreamBytes) {
                KV_ERROR(logger) << "compound file: stream larger than " << limits_.maxStreamBytes << " bytes";
                return HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE);
            }
            RETURN_IF_FAILED(checkedSize(sink_.commit(got)));
        }
        RETURN_IF_FAILED(checkedSize(sink_.padToSector()));
        entry.size = total;
        // Nothing else is written while a stream is copied, so its sectors
        // follow each other.
        sink_.chain(first, sink_.sectorCount() - first);
        entry.startSector = first;
        return S_OK;
    }

    static HRESULT readSome(IStream* stream, uint8_t* into, ULONG want, ULONG& got)
    {
        got = 0;
        const HRESULT hr = stream->Read(into, want, &got);
        if (FAILED(hr))
            return hr;
        if (got > want) {
            KV_ERROR(logger) << "compound file: Read delivered " << got << " bytes of " << want << " asked";
            got = 0;
            return STG_E_DOCFILECORRUPT;
        }
        return S_OK;
    }

    HRESULT appendToFile(const void* data, size_t bytes, uint32_t& first)
    {
        return checkedSize(sink_.append(data, bytes, first));
    }

    HRESULT checkedSize(HRESULT hr) const
    {
        if (hr == HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE))
            KV_ERROR(logger) << "compound file: file would grow beyond " << limits_.maxFileBytes << " bytes";
        return hr;
    }

    HRESULT linkTrees()
    {
        for (uint32_t index = 0; index < entries_.size(); ++index) {
            if (entries_[index].type == cfb::EntryType::stream)
                continue;
            std::wstring duplicate;
            uint32_t root = cfb::noStream;
            if (!cfb::linkSiblingTree(entries_, std::move(children_[index]), root, duplicate)) {
                KV_ERROR(logger) << "compound file: \"" << pathOf(index) << "\" holds two elements named \""
                                 << duplicate << "\"";
                return STG_E_DOCFILECORRUPT;
            }
            entries_[index].child = root;
        }
        return S_OK;
    }

    HRESULT writeDirectory(uint32_t& firstSector)
    {
        // Four entries to a sector; the rest of the last one is unused entries.
        const size_t slots = (entries_.size() + 3) / 4 * 4;
        cfb::DirectoryEntry unused;
        unused.startSector = 0;
        std::vector<uint8_t> bytes;
        uint64_t sectors = 0;
        for (size_t start = 0; start < slots; start += directoryEntriesPerWrite) {
            const size_t count = std::min(directoryEntriesPerWrite, slots - start);
            bytes.assign(count * cfb::directoryEntryBytes, 0);
            for (size_t i = 0; i < count; ++i) {
                const size_t index = start + i;
                cfb::encodeDirectoryEntry(index < entries_.size() ? entries_[index] : unused,
                                          bytes.data() + i * cfb::directoryEntryBytes);
            }
            uint32_t at = cfb::endOfChain;
            RETURN_IF_FAILED(sink_.append(bytes.data(), bytes.size(), at));
            if (sectors == 0)
                firstSector = at;
            sectors += bytes.size() / cfb::sectorBytes;
        }
        sink_.chain(firstSector, static_cast<uint32_t>(sectors));
        return S_OK;
    }

    HRESULT writeFatAndHeader(uint32_t firstDirectorySector, uint32_t firstMiniFatSector, uint32_t miniFatSectors)
    {
        const uint32_t firstFatSector = sink_.sectorCount();
        const cfb::FatLayout layout = cfb::planFat(firstFatSector);
        if (!sink_.fits(uint64_t(layout.fatSectors) + layout.difatSectors)) {
            KV_ERROR(logger) << "compound file: file would grow beyond " << limits_.maxFileBytes << " bytes";
            return HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE);
        }
        cfb::HeaderFields header;
        for (uint32_t i = 0; i < layout.fatSectors; ++i) {
            header.fatSectorNumbers.push_back(firstFatSector + i);
            sink_.mark(firstFatSector + i, cfb::fatSectorMark);
        }
        const uint32_t firstDifatSector = firstFatSector + layout.fatSectors;
        for (uint32_t i = 0; i < layout.difatSectors; ++i)
            sink_.mark(firstDifatSector + i, cfb::difatSectorMark);

        const std::vector<uint8_t> fat = cfb::encodeSectorIds(sink_.fat(), cfb::freeSector);
        uint32_t at = cfb::endOfChain;
        RETURN_IF_FAILED(sink_.append(fat.data(), fat.size(), at));
        const std::vector<uint8_t> difat = cfb::encodeDifatSectors(header.fatSectorNumbers, firstDifatSector);
        RETURN_IF_FAILED(sink_.append(difat.data(), difat.size(), at));
        if (fat.size() != size_t(layout.fatSectors) * cfb::sectorBytes ||
            sink_.sectorCount() != firstDifatSector + layout.difatSectors)
            return E_UNEXPECTED;

        header.firstDirectorySector = firstDirectorySector;
        header.firstMiniFatSector = firstMiniFatSector;
        header.miniFatSectors = miniFatSectors;
        header.firstDifatSector = layout.difatSectors ? firstDifatSector : cfb::endOfChain;
        header.difatSectors = layout.difatSectors;
        uint8_t headerBytes[cfb::sectorBytes];
        cfb::encodeHeader(header, headerBytes);
        return sink_.finish(headerBytes);
    }

    SectorSink& sink_;
    const CompoundFileLimits& limits_;
    MiniStream mini_;
    std::array<uint8_t, cfb::miniStreamCutoff> head_{};
    std::vector<cfb::DirectoryEntry> entries_;
    std::vector<uint32_t> parents_;
    std::vector<std::vector<uint32_t>> children_;
    size_t elementsSeen_ = 0;
};

HRESULT writeFile(IStorage* source, const std::wstring& path, const CompoundFileLimits& limits)
{
    SectorSink sink(limits.maxFileBytes);
    HRESULT hr = sink.create(path);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "compound file: cannot create \"" << path << "\", hr=" << hexResult(hr);
        return hr;
    }
    CompoundFileBuilder builder(sink, limits);
    RETURN_IF_FAILED(builder.copyTree(source));
    hr = builder.finish();
    if (FAILED(hr))
        KV_ERROR(logger) << "compound file: writing \"" << path << "\" failed, hr=" << hexResult(hr);
    return hr;
}

} // namespace

HRESULT writeCompoundFile(IStorage* source, const std::wstring& path)
{
    return writeCompoundFile(source, path, CompoundFileLimits{});
}

HRESULT writeCompoundFile(IStorage* source, const std::wstring& path, const CompoundFileLimits& limits)
{
    KV_DEBUG(logger) << "writeCompoundFile(path=" << path << ")";
    const DWORD started = GetTickCount();
    if (!source || path.empty()) {
        KV_ERROR(logger) << "writeCompoundFile: no source storage or no path";
        return source ? E_INVALIDARG : E_POINTER;
    }

    const HRESULT hr =
        writeBesideThenMove(path, [&](const std::wstring& beside) { return writeFile(source, beside, limits); });
    if (FAILED(hr))
        KV_ERROR(logger) << "writeCompoundFile \"" << path << "\" failed, hr=" << hexResult(hr);
    KV_DEBUG(logger) << ")writeCompoundFile=" << hexResult(hr) << ", ms=" << (GetTickCount() - started);
    return hr;
}
