// One file's "FileContents" as bytes in memory, and a stream's bytes opened
// as a compound-file storage: toolkit conversions beside the drag flow.
#include "dataobject/data_object_reader.h"

#include "core/log.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/stg_medium.h"

#include <algorithm>

namespace {

Logger logger("DataObjectHelper");

using Microsoft::WRL::ComPtr;

constexpr DWORD createReadWriteExclusive = STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE; // 0x1012
constexpr DWORD openCreateReadWrite = STGM_CREATE | STGM_READWRITE;                               // 0x1002
constexpr DWORD openReadWriteExclusive = STGM_SHARE_EXCLUSIVE | STGM_READWRITE;                   // 0x12

HRESULT statSize(IStream* stream, ULARGE_INTEGER& size)
{
    STATSTG stat{};
    const HRESULT hr = stream->Stat(&stat, STATFLAG_DEFAULT);
    if (SUCCEEDED(hr)) {
        CoTaskMemFree(stat.pwcsName);
        size = stat.cbSize;
    }
    return hr;
}

// The stream's bytes, as many as its Stat reports (the low 32 bits). A
// stream that holds fewer leaves the rest of the block zero; one that holds
// more is cut there.
HGLOBAL streamBytes(IStream* stream)
{
    ULARGE_INTEGER size{};
    HRESULT hr = statSize(stream, size);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "stream->Stat failed, hr=" << hr;
        return nullptr;
    }
    const ULONG wanted = size.LowPart;
    UniqueGlobal memory(GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, wanted));
    if (!memory) {
        KV_ERROR(logger) << "GlobalAlloc(" << wanted << ") for the file contents failed, err=" << GetLastError();
        return nullptr;
    }
    ULONG total = 0;
    if (wanted > 0) {
        GlobalLockGuard lock(memory.get());
        if (!lock)
            return nullptr;
        auto* bytes = static_cast<BYTE*>(lock.data());
        // Streams may hand out less than asked per call; stop at the end.
        while (total < wanted) {
            ULONG got = 0;
            hr = stream->Read(bytes + total, wanted - total, &got);
            if (FAILED(hr) || got == 0)
                break;
            total += std::min(got, wanted - total);
        }
    }
    KV_DEBUG(logger) << "stream->Read read=" << total << " of " << wanted << ", hr=" << hr;
    return memory.release();
}

// The storage copied into a new compound file in memory; the block is the
// caller's (the lock-bytes object does not free it).
HGLOBAL storageBytes(IStorage* source)
{
    ComPtr<ILockBytes> lockBytes;
    HRESULT hr = CreateILockBytesOnHGlobal(nullptr, FALSE, &lockBytes);
    KV_DEBUG(logger) << "CreateILockBytesOnHGlobal hr=" << hr;
    if (FAILED(hr))
        return nullptr;
    ComPtr<IStorage> copy;
    hr = StgCreateDocfileOnILockBytes(lockBytes.Get(), createReadWriteExclusive, 0, &copy);
    KV_DEBUG(logger) << "StgCreateDocfileOnILockBytes hr=" << hr;
    if (SUCCEEDED(hr)) {
        hr = source->CopyTo(0, nullptr, nullptr, copy.Get());
        KV_DEBUG(logger) << "storage->CopyTo hr=" << hr;
    }
    if (SUCCEEDED(hr)) {
        hr = lockBytes->Flush();
        KV_DEBUG(logger) << "lockBytes->Flush hr=" << hr;
    }
    if (SUCCEEDED(hr)) {
        hr = copy->Commit(STGC_DEFAULT);
        KV_DEBUG(logger) << "storage->Commit hr=" << hr;
    }
    // The storage writes its last bytes when it goes; the block stays.
    copy.Reset();
    HGLOBAL memory = nullptr;
    const HRESULT hrBlock = GetHGlobalFromILockBytes(lockBytes.Get(), &memory);
    lockBytes.Reset();
    UniqueGlobal block(SUCCEEDED(hrBlock) ? memory : nullptr);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "copying the storage into memory failed, hr=" << hr;
        return nullptr;
    }
    KV_DEBUG(logger) << "GetHGlobalFromILockBytes hr=" << hrBlock;
    return block.release();
}

// The block under a memory stream made with delete-on-release off, for the
// ways out on which nobody takes it over.
void freeStreamBlock(ComPtr<IStream>& memoryStream)
{
    HGLOBAL memory = nullptr;
    const HRESULT hr = GetHGlobalFromStream(memoryStream.Get(), &memory);
    memoryStream.Reset();
    if (SUCCEEDED(hr))
        GlobalFree(memory);
}

// The stream's bytes copied into memory of their own and opened as a
// compound file that owns that memory; null, with the reason logged, when a
// step fails.
ComPtr<IStorage> openStreamAsStorage(IStream* stream)
{
    ULARGE_INTEGER size{};
    HRESULT hr = statSize(stream, size);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "stream->Stat failed, hr=" << hr;
        return nullptr;
    }
    ComPtr<IStream> memoryStream;
    hr = CreateStreamOnHGlobal(nullptr, FALSE, &memoryStream);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "CreateStreamOnHGlobal failed, hr=" << hr;
        return nullptr;
    }
    hr = memoryStream->SetSize(size);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "hglobStream->SetSize failed, hr=" << hr;
        freeStreamBlock(memoryStream);
        return nullptr;
    }
    ULARGE_INTEGER read{}, written{};
    hr = stream->CopyTo(memoryStream.Get(), size, &read, &written);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "stream->CopyTo failed, hr=" << hr;
        freeStreamBlock(memoryStream);
        return nullptr;
    }
    KV_DEBUG(logger) << "stream->CopyTo read=" << read.QuadPart << ", written=" << written.QuadPart;
    HGLOBAL memory = nullptr;
    hr = GetHGlobalFromStream(memoryStream.Get(), &memory);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "GetHGlobalFromStream failed, hr=" << hr;
        return nullptr; // no block to free: the stream could not name one
    }
    memoryStream.Reset();
    ComPtr<ILockBytes> lockBytes;
    hr = CreateILockBytesOnHGlobal(memory, TRUE, &lockBytes);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "CreateILockBytesOnHGlobal failed, hr=" << hr;
        GlobalFree(memory);
        return nullptr;
    }
    ComPtr<IStorage> storage;
    hr = StgOpenStorageOnILockBytes(lockBytes.Get(), nullptr, openCreateReadWrite, nullptr, 0, &storage);
    if (hr == STG_E_INVALIDFLAG) {
        // A root storage opened in direct mode for writing must be opened
        // exclusively, and the structured-storage implementation may refuse
        // STGM_CREATE on an open; the block is ours alone, so exclusive is
        // what was meant.
        KV_DEBUG(logger) << "StgOpenStorageOnILockBytes(0x1002) hr=" << hr << ", again exclusively";
        hr = StgOpenStorageOnILockBytes(lockBytes.Get(), nullptr, openReadWriteExclusive, nullptr, 0, &storage);
    }
    if (FAILED(hr)) {
        KV_ERROR(logger) << "StgOpenStorageOnILockBytes failed, hr=" << hr;
        return nullptr;
    }
    return storage;
}

} // namespace

HGLOBAL getFileContentFromDataObject(LONG fileIndex, IDataObject* dataObject)
{
    KV_DEBUG(logger) << "getFileContentFromDataObject(fileIndex=" << fileIndex << ", dataObject=" << dataObject;
    HGLOBAL result = nullptr;
    if (dataObject) {
        const ComPtr<IDataObject> hold(dataObject);
        FORMATETC request{registeredFormats().fileContents, nullptr, DVASPECT_CONTENT, fileIndex,
                          TYMED_ISTREAM | TYMED_ISTORAGE};
        UniqueStgMedium medium;
        const HRESULT hr = dataObject->GetData(&request, medium.put());
        KV_DEBUG(logger) << "GetData(FileContents, lindex=" << fileIndex << ") hr=" << hr;
        if (FAILED(hr))
            medium.release(); // a failed GetData owes no medium; never release what it may have scribbled
        else if (medium->tymed == TYMED_ISTREAM && medium->pstm)
            result = streamBytes(medium->pstm);
        else if (medium->tymed == TYMED_ISTORAGE && medium->pstg)
            result = storageBytes(medium->pstg);
        else
            KV_WARN(logger) << "FileContents of index " << fileIndex << " came as tymed=" << medium->tymed;
    }
    KV_DEBUG(logger) << ")getFileContentFromDataObject=" << result;
    return result;
}

ComPtr<IStorage> streamToStorage(IStream* stream)
{
    KV_DEBUG(logger) << "streamToStorage(stream=" << stream;
    ComPtr<IStorage> storage;
    if (stream) {
        const ComPtr<IStream> hold(stream);
        storage = openStreamAsStorage(stream);
    }
    KV_DEBUG(logger) << ")streamToStorage=" << storage.Get();
    return storage;
}
