// "Shell IDList Array": the CIDA block with the parent folder's list and the
// files' lists relative to it.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/item_id_list.h"

#include <shlobj.h>

#include <cstddef>
#include <cstring>

namespace {

Logger logger("DataObjectHelper");

// The block is written as 32-bit words: the count, then one offset per list.
static_assert(sizeof(UINT) == 4 && offsetof(CIDA, cidl) == 0 && offsetof(CIDA, aoffset) == sizeof(UINT));

} // namespace

HGLOBAL CreateSHELLIDLIST(const PathList& paths)
{
    KV_DEBUG(logger) << "CreateSHELLIDLIST(#paths=" << paths.size();
    FileIdLists lists;
    if (!makeFileIdLists(paths, lists) || lists.children.empty()) {
        KV_WARN(logger) << "CreateSHELLIDLIST: no item-id lists for the files";
        return nullptr;
    }

    // The parent's absolute list first, then each file's part below it.
    std::vector<LPCITEMIDLIST> idLists;
    idLists.push_back(lists.parent.get());
    for (PCUITEMID_CHILD child : lists.children)
        idLists.push_back(child);

    // The header keeps one spare word behind the offsets; readers of the
    // block have always found it there.
    const SIZE_T headerSize = 4 * idLists.size() + 8;
    SIZE_T bufsize = headerSize;
    for (LPCITEMIDLIST idList : idLists)
        bufsize += ILGetSize(idList);

    UniqueGlobal memory(GlobalAlloc(GMEM_MOVEABLE, bufsize));
    GlobalLockGuard lock(memory.get());
    if (!lock) {
        KV_ERROR(logger) << "CreateSHELLIDLIST: no memory for " << bufsize << " bytes, err=" << GetLastError();
        return nullptr;
    }
    auto* block = lock.as<BYTE>();
    // CIDA: cidl, then aoffset[cidl + 1], written through plain words
    // because the structure declares a one-element array.
    auto* words = reinterpret_cast<UINT*>(block);
    words[0] = static_cast<UINT>(idLists.size() - 1);
    UINT* aoffset = words + 1;

    SIZE_T position = headerSize;
    for (size_t j = 0; j < idLists.size(); ++j) {
        const UINT size = ILGetSize(idLists[j]);
        if (position + size > bufsize) {
            KV_ERROR(logger) << "Not enough bytes allocated for SHELLIDLIST";
            return nullptr; // the guards unlock and free the block
        }
        std::memcpy(block + position, idLists[j], size);
        aoffset[j] = static_cast<UINT>(position);
        position += size;
    }
    lock.unlock();
    KV_DEBUG(logger) << "free pilds";
    KV_DEBUG(logger) << ")CreateSHELLIDLIST=" << memory.get() << ", bufsize=" << bufsize;
    return memory.release();
}

HRESULT setShellIdList(const PathList& paths, IDataObject* dataObject)
{
    if (!dataObject)
        return E_POINTER;
    UniqueGlobal block(CreateSHELLIDLIST(paths));
    if (!block)
        return E_FAIL;
    const HRESULT hr = setGlobalData(dataObject, registeredFormats().shellIdList, block);
    KV_DEBUG(logger) << "SetHGLOBAL, SetData hr=" << hr;
    return hr;
}
