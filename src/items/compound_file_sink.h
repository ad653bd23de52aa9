#pragma once
// A compound file written front to back: bytes go into one 1 MiB buffer that
// is handed to WriteFile whenever it is full, and each piece's place is
// recorded in the FAT kept here. Only the header, which points at everything
// after it, is written last, into the 512 bytes kept free at the start.
//
// A writer thread that overlapped reading and writing was tried and dropped:
// under Wine creating a thread alone costs more (10-30 ms) than writing the
// 20 MiB it would have overlapped.
#include "common/unique_resource.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class SectorSink {
public:
    // Growing beyond `maxFileBytes` (header included) fails with
    // HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE).
    explicit SectorSink(uint64_t maxFileBytes);
    SectorSink(const SectorSink&) = delete;
    SectorSink& operator=(const SectorSink&) = delete;

    // Creates (or empties) the file at `path`.
    HRESULT create(const std::wstring& path);

    // The number of the sector the next byte goes into; after padToSector()
    // also the number of sectors the file holds so far.
    uint32_t sectorCount() const { return static_cast<uint32_t>((fileBytes_ - sectorSize) / sectorSize); }

    // Free space at the end of the buffer being filled (at least one byte),
    // for reading straight into it; commit() then takes the bytes that
    // arrived there into the file.
    HRESULT reserve(uint8_t*& space, size_t& room);
    HRESULT commit(size_t bytes);
    // Zeros up to the next sector boundary.
    HRESULT padToSector();

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

    // Writes what is buffered, then the 512-byte header at the start, and
    // closes the file.
    HRESULT finish(const uint8_t* header);

private:
    static constexpr uint64_t sectorSize = 512;

    HRESULT flush();
    HRESULT writeAll(const void* data, size_t bytes);
    void ensureFat(uint64_t sectors);

    uint64_t maxFileBytes_;
    uint64_t fileBytes_ = 0;
    UniqueFile file_;
    std::vector<uint32_t> fat_;

    std::unique_ptr<uint8_t[]> buffer_;
    size_t used_ = 0;
};
