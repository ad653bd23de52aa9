#pragma once
// A compound file written front to back: sectors are appended through a large
// buffer and each piece's place is recorded in the FAT kept here, so that the
// file is written with a few big WriteFile calls whatever the sizes of the
// streams. Only the header, which points at everything after it, is written
// last, into the 512 bytes kept free at the start.
#include "common/unique_resource.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class SectorSink {
public:
    // Appending beyond `maxFileBytes` (header included) fails with
    // HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE) before anything is written.
    explicit SectorSink(uint64_t maxFileBytes);
    SectorSink(const SectorSink&) = delete;
    SectorSink& operator=(const SectorSink&) = delete;

    // Creates a new file named after `target` in the same folder (so that it
    // can be renamed over it) and reports its name in `created`.
    HRESULT createBeside(const std::wstring& target, std::wstring& created);

    // The number the next appended sector gets, which is also how many
    // sectors the file holds so far.
    uint32_t sectorCount() const { return sectors_; }

    // Writes `bytes` as consecutive sectors, the last one padded with zeros;
    // `first` receives the number of the first (nothing is written and
    // `first` is endOfChain when `bytes` is 0). The FAT is not touched.
    HRESULT append(const void* data, size_t bytes, uint32_t& first);

    // FAT bookkeeping: `count` consecutive sectors from `first` chained and
    // ended; the end of one run linked to the start of the next; a mark such
    // as "this is a FAT sector".
    void chain(uint32_t first, uint32_t count);
    void link(uint32_t from, uint32_t to);
    void mark(uint32_t sector, uint32_t value);
    const std::vector<uint32_t>& fat() const { return fat_; }

    // Whether `sectors` more sectors still fit under the size limit.
    bool fits(uint64_t sectors) const;

    // Flushes the buffer, writes the 512-byte header at the start and closes
    // the file.
    HRESULT finish(const uint8_t* header);

private:
    HRESULT put(const void* data, size_t bytes);
    HRESULT flush();
    HRESULT writeAll(const void* data, size_t bytes);
    void ensureFat(uint64_t sectors);

    uint64_t maxFileBytes_;
    UniqueFile file_;
    std::unique_ptr<uint8_t[]> buffer_;
    size_t used_ = 0;
    uint32_t sectors_ = 0;
    std::vector<uint32_t> fat_;
};
