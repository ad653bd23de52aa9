#include "items/compound_file_sink.h"

#include "common/hresult.h"
#include "items/compound_file_format.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr size_t bufferBytes = size_t(1) << 20;
// WriteFile takes a DWORD; stay well below it.
constexpr size_t largestWrite = size_t(1) << 30;

HRESULT lastError()
{
    const DWORD error = GetLastError();
    return error ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

} // namespace

SectorSink::SectorSink(uint64_t maxFileBytes) : maxFileBytes_(maxFileBytes) {}

HRESULT SectorSink::create(const std::wstring& path)
{
    buffer_.reset(new (std::nothrow) uint8_t[bufferBytes]);
    if (!buffer_)
        return E_OUTOFMEMORY;
    file_.reset(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file_)
        return lastError();
    // The header's place; finish() fills it in.
    std::memset(buffer_.get(), 0, cfb::sectorBytes);
    used_ = cfb::sectorBytes;
    fileBytes_ = cfb::sectorBytes;
    return S_OK;
}

bool SectorSink::fits(uint64_t sectors) const
{
    // Sector numbers above 0xFFFFFFFA are the FAT's markers.
    const uint64_t total = (fileBytes_ - sectorSize + sectorSize - 1) / sectorSize + sectors;
    return total <= 0xFFFFFFFAull && (total + 1) * cfb::sectorBytes <= maxFileBytes_;
}

HRESULT SectorSink::reserve(uint8_t*& space, size_t& room)
{
    if (!file_ || !buffer_)
        return E_UNEXPECTED;
    if (used_ == bufferBytes)
        RETURN_IF_FAILED(flush());
    space = buffer_.get() + used_;
    room = bufferBytes - used_;
    return S_OK;
}

HRESULT SectorSink::commit(size_t bytes)
{
    if (bytes > bufferBytes - used_)
        return E_UNEXPECTED;
    const uint64_t sectorsAfter = (fileBytes_ + bytes - sectorSize + sectorSize - 1) / sectorSize;
    if (sectorsAfter > 0xFFFFFFFAull || (sectorsAfter + 1) * sectorSize > maxFileBytes_)
        return HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE);
    used_ += bytes;
    fileBytes_ += bytes;
    return S_OK;
}

HRESULT SectorSink::padToSector()
{
    size_t padding = static_cast<size_t>((sectorSize - fileBytes_ % sectorSize) % sectorSize);
    while (padding > 0) {
        uint8_t* space = nullptr;
        size_t room = 0;
        RETURN_IF_FAILED(reserve(space, room));
        const size_t piece = std::min(room, padding);
        std::memset(space, 0, piece);
        RETURN_IF_FAILED(commit(piece));
        padding -= piece;
    }
    return S_OK;
}

HRESULT SectorSink::append(const void* data, size_t bytes, uint32_t& first)
{
    first = cfb::endOfChain;
    if (bytes == 0)
        return S_OK;
    if (!fits((uint64_t(bytes) + cfb::sectorBytes - 1) / cfb::sectorBytes))
        return HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE);
    RETURN_IF_FAILED(padToSector());
    const uint32_t start = sectorCount();
    const auto* from = static_cast<const uint8_t*>(data);
    while (bytes > 0) {
        uint8_t* space = nullptr;
        size_t room = 0;
        RETURN_IF_FAILED(reserve(space, room));
        const size_t piece = std::min(room, bytes);
        std::memcpy(space, from, piece);
        RETURN_IF_FAILED(commit(piece));
        from += piece;
        bytes -= piece;
    }
    RETURN_IF_FAILED(padToSector());
    first = start;
    return S_OK;
}

void SectorSink::ensureFat(uint64_t sectors)
{
    if (fat_.size() < sectors)
        fat_.resize(static_cast<size_t>(sectors), cfb::freeSector);
}

void SectorSink::chain(uint32_t first, uint32_t count)
{
    if (count == 0)
        return;
    ensureFat(uint64_t(first) + count);
    for (uint32_t i = 0; i + 1 < count; ++i)
        fat_[first + i] = first + i + 1;
    fat_[first + count - 1] = cfb::endOfChain;
}

void SectorSink::link(uint32_t from, uint32_t to)
{
    ensureFat(uint64_t(from) + 1);
    fat_[from] = to;
}

void SectorSink::mark(uint32_t sector, uint32_t value)
{
    ensureFat(uint64_t(sector) + 1);
    fat_[sector] = value;
}

HRESULT SectorSink::flush()
{
    const size_t pending = std::exchange(used_, 0);
    return writeAll(buffer_.get(), pending);
}

HRESULT SectorSink::writeAll(const void* data, size_t bytes)
{
    const auto* from = static_cast<const uint8_t*>(data);
    while (bytes > 0) {
        const DWORD piece = static_cast<DWORD>(std::min(bytes, largestWrite));
        DWORD written = 0;
        if (!WriteFile(file_.get(), from, piece, &written, nullptr))
            return lastError();
        if (written == 0)
            return STG_E_WRITEFAULT;
        from += written;
        bytes -= written;
    }
    return S_OK;
}

HRESULT SectorSink::finish(const uint8_t* header)
{
    if (!file_)
        return E_UNEXPECTED;
    RETURN_IF_FAILED(flush());
    LARGE_INTEGER start{};
    if (!SetFilePointerEx(file_.get(), start, nullptr, FILE_BEGIN))
        return lastError();
    RETURN_IF_FAILED(writeAll(header, cfb::sectorBytes));
    if (!CloseHandle(file_.release()))
        return lastError();
    return S_OK;
}
