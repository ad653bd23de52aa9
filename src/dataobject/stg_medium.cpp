#include "dataobject/stg_medium.h"

#include "dataobject/global_memory.h"

#include <ole2.h>

#include <cstring>
#include <cwchar>

namespace {

// The clipboard format under which OLE knows how to copy a handle medium.
CLIPFORMAT handleFormatOf(DWORD tymed, CLIPFORMAT format)
{
    switch (tymed) {
    case TYMED_ENHMF: return CF_ENHMETAFILE;
    case TYMED_MFPICT: return CF_METAFILEPICT;
    default: return format == CF_PALETTE ? CLIPFORMAT(CF_PALETTE) : CLIPFORMAT(CF_BITMAP);
    }
}

} // namespace

HRESULT duplicateMedium(const STGMEDIUM& source, CLIPFORMAT format, STGMEDIUM& copy)
{
    copy = STGMEDIUM{};
    switch (source.tymed) {
    case TYMED_HGLOBAL: {
        HGLOBAL memory = duplicateGlobal(source.hGlobal);
        if (!memory)
            return E_OUTOFMEMORY;
        copy.tymed = TYMED_HGLOBAL;
        copy.hGlobal = memory;
        return S_OK;
    }
    case TYMED_FILE: {
        if (!source.lpszFileName)
            return E_INVALIDARG;
        const size_t bytes = (std::wcslen(source.lpszFileName) + 1) * sizeof(wchar_t);
        auto* name = static_cast<LPOLESTR>(CoTaskMemAlloc(bytes));
        if (!name)
            return E_OUTOFMEMORY;
        std::memcpy(name, source.lpszFileName, bytes);
        copy.tymed = TYMED_FILE;
        copy.lpszFileName = name;
        return S_OK;
    }
    case TYMED_ISTREAM:
    case TYMED_ISTORAGE: {
        IUnknown* object = source.tymed == TYMED_ISTREAM ? static_cast<IUnknown*>(source.pstm)
                                                         : static_cast<IUnknown*>(source.pstg);
        if (!object)
            return E_INVALIDARG;
        object->AddRef();
        copy = source;
        copy.pUnkForRelease = nullptr;
        return S_OK;
    }
    case TYMED_GDI:
    case TYMED_MFPICT:
    case TYMED_ENHMF: {
        HANDLE handle = OleDuplicateData(source.hGlobal, handleFormatOf(source.tymed, format), 0);
        if (!handle)
            return E_OUTOFMEMORY;
        copy.tymed = source.tymed;
        copy.hGlobal = static_cast<HGLOBAL>(handle);
        return S_OK;
    }
    default:
        return DV_E_TYMED;
    }
}
