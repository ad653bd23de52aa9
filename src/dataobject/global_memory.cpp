#include "dataobject/global_memory.h"

#include "dataobject/format_etc.h"

#include <cstring>

HGLOBAL globalFromBytes(const void* bytes, SIZE_T size, UINT flags)
{
    // GlobalAlloc of 0 bytes gives a discarded handle that cannot be locked.
    UniqueGlobal memory(GlobalAlloc(flags, size ? size : 1));
    if (!memory)
        return nullptr;
    GlobalLockGuard lock(memory.get());
    if (!lock)
        return nullptr;
    if (size)
        std::memcpy(lock.data(), bytes, size);
    lock.unlock();
    return memory.release();
}

HGLOBAL duplicateGlobal(HGLOBAL source, UINT flags)
{
    GlobalLockGuard lock(source);
    if (!lock)
        return nullptr;
    return globalFromBytes(lock.data(), lock.size(), flags);
}

HRESULT setGlobalData(IDataObject* dataObject, CLIPFORMAT format, UniqueGlobal& memory)
{
    if (!dataObject)
        return E_POINTER;
    if (!memory)
        return E_OUTOFMEMORY;
    FORMATETC formatEtc = hglobalFormat(format);
    STGMEDIUM medium{};
    medium.tymed = TYMED_HGLOBAL;
    medium.hGlobal = memory.get();
    const HRESULT hr = dataObject->SetData(&formatEtc, &medium, TRUE);
    if (SUCCEEDED(hr))
        memory.release();
    return hr;
}
