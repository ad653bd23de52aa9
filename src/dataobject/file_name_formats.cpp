// "FileName"/"FileNameW" for the first file, the walk over the files for
// "FileContents", and SetHGLOBAL, the one-format setter they share.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/file_name_blocks.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"

#include <shlwapi.h>

#include <algorithm>

namespace {

Logger logger("DataObjectHelper");

// Gives the block to the data object, or frees it when SetData fails.
HRESULT setOwnedBlock(CLIPFORMAT format, HGLOBAL block, IDataObject* dataObject)
{
    UniqueGlobal memory(block);
    const HRESULT hr = setGlobalData(dataObject, format, memory);
    KV_DEBUG(logger) << "SetHGLOBAL, SetData hr=" << hr;
    return hr;
}

} // namespace

HGLOBAL ansiFileNameBlock(const std::wstring& path)
{
    // One byte per character and the NUL; a double-byte code page may need
    // more, so the block is as large as the conversion says.
    const int needed = WideCharToMultiByte(CP_ACP, 0, path.c_str(), -1, nullptr, 0, nullptr, nullptr);
    const SIZE_T size = std::max<SIZE_T>(path.size() + 1, needed > 0 ? static_cast<SIZE_T>(needed) : 0);
    UniqueGlobal memory(GlobalAlloc(GMEM_MOVEABLE, size));
    GlobalLockGuard lock(memory.get());
    if (!lock)
        return nullptr;
    auto* text = lock.as<char>();
    const int written = WideCharToMultiByte(CP_ACP, 0, path.c_str(), -1, text, static_cast<int>(size), nullptr,
                                            nullptr);
    text[written > 0 ? written - 1 : 0] = '\0';
    lock.unlock();
    return memory.release();
}

HGLOBAL wideFileNameBlock(const std::wstring& path)
{
    return globalFromBytes(path.c_str(), (path.size() + 1) * sizeof(wchar_t), GMEM_MOVEABLE | GMEM_ZEROINIT);
}

HRESULT SetHGLOBAL(CLIPFORMAT format, HGLOBAL memory, IDataObject* dataObject)
{
    UniqueGlobal block(memory);
    const HRESULT hr = setGlobalData(dataObject, format, block);
    // As with SetData itself, a failed call leaves the block with the caller.
    block.release();
    KV_DEBUG(logger) << "SetHGLOBAL, SetData hr=" << hr;
    return hr;
}

HRESULT setFileNames(const PathList& paths, IDataObject* dataObject)
{
    KV_DEBUG(logger) << "setFileNames(#paths=" << paths.size();
    if (!dataObject)
        return E_POINTER;
    if (paths.empty())
        return S_OK;
    const ClipboardFormats& formats = registeredFormats();
    const std::wstring& first = paths.front();
    const HRESULT ansi = setOwnedBlock(formats.fileNameA, ansiFileNameBlock(first), dataObject);
    const HRESULT wide = setOwnedBlock(formats.fileNameW, wideFileNameBlock(first), dataObject);
    const HRESULT hr = FAILED(ansi) ? ansi : wide;
    KV_DEBUG(logger) << ")setFileNames=" << hr;
    return hr;
}

HRESULT setFileContents(const PathList& paths, IDataObject* dataObject)
{
    // Each file is opened once, which shows in the log whether a target will
    // be able to read it. "FileContents" itself is left as it is: targets get
    // the files through CF_HDROP, and a stream per file would let a target
    // copy bytes that the drag is still writing.
    KV_DEBUG(logger) << "setFileContents(#paths=" << paths.size();
    if (!dataObject)
        return E_POINTER;
    for (size_t i = 0; i < paths.size(); ++i) {
        Microsoft::WRL::ComPtr<IStream> stream;
        const HRESULT hr = SHCreateStreamOnFileW(paths[i].c_str(), STGM_SHARE_DENY_NONE | STGM_READ, &stream);
        KV_DEBUG(logger) << "SHCreateStreamOnFileW, lindex=" << i << ", hr=" << hr << ", file=" << paths[i];
    }
    KV_DEBUG(logger) << ")setFileContents=" << S_OK;
    return S_OK;
}
