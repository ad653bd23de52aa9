// CF_HDROP: the DROPFILES block that names the files of a drag.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/global_memory.h"

#include <shlobj.h>

#include <cstddef>
#include <cstring>

namespace {

Logger logger("DataObjectHelper");

static_assert(sizeof(DROPFILES) == 20, "the names follow a 20-byte header");
static_assert(offsetof(DROPFILES, pFiles) == 0 && offsetof(DROPFILES, pt) == 4 && offsetof(DROPFILES, fNC) == 12 &&
              offsetof(DROPFILES, fWide) == 16);

} // namespace

HGLOBAL CreateHDROP(const PathList& paths)
{
    SIZE_T allocSize = sizeof(DROPFILES);
    for (const std::wstring& path : paths)
        allocSize += (path.size() + 1) * sizeof(wchar_t);
    allocSize += sizeof(wchar_t); // the empty name that ends the list
    KV_DEBUG(logger) << "CreateHDROP(#paths=" << paths.size() << ", allocSize=" << allocSize;

    UniqueGlobal memory(GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT | GMEM_SHARE, allocSize));
    GlobalLockGuard lock(memory.get());
    if (!lock) {
        KV_ERROR(logger) << "CreateHDROP: no memory for " << allocSize << " bytes, err=" << GetLastError();
        return nullptr;
    }
    auto* block = lock.as<BYTE>();
    std::memset(block, 0, allocSize);

    auto* header = reinterpret_cast<DROPFILES*>(block);
    header->pFiles = sizeof(DROPFILES);
    header->pt = POINT{0, 0};
    header->fNC = FALSE;
    header->fWide = TRUE;

    auto* name = reinterpret_cast<wchar_t*>(block + sizeof(DROPFILES));
    for (const std::wstring& path : paths) {
        std::memcpy(name, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
        name += path.size() + 1;
    }

    const BOOL stillLocked = lock.unlock();
    KV_DEBUG(logger) << "GlobalUnlock=" << stillLocked << ", err=" << GetLastError();
    KV_DEBUG(logger) << ")CreateHDROP=" << memory.get();
    return memory.release();
}

HRESULT CreateCF_HDROP(const PathList& paths, IDataObject* dataObject)
{
    if (!dataObject)
        return E_POINTER;
    UniqueGlobal memory(CreateHDROP(paths));
    const HRESULT hr = setGlobalData(dataObject, CF_HDROP, memory);
    KV_DEBUG(logger) << "CreateCF_DROP, SetData hr=" << hr;
    return hr;
}
