// Copying every format, or one, from one data object to another.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/format_etc.h"
#include "dataobject/stg_medium.h"

#include <cwchar>

namespace {

Logger logger("DataObjectHelper");

void logCopied(const STGMEDIUM& copy)
{
    switch (copy.tymed) {
    case TYMED_HGLOBAL: KV_DEBUG(logger) << "copied hGlobal=" << copy.hGlobal; break;
    case TYMED_FILE:
        KV_DEBUG(logger) << "copied fileName=" << copy.lpszFileName << ", len=" << std::wcslen(copy.lpszFileName);
        break;
    case TYMED_ISTREAM: KV_DEBUG(logger) << "referenced pstm=" << copy.pstm; break;
    case TYMED_ISTORAGE: KV_DEBUG(logger) << "referenced pstg=" << copy.pstg; break;
    default: break;
    }
}

} // namespace

HRESULT copy(IDataObject* source, IDataObject* destination)
{
    KV_DEBUG(logger) << "copy(";
    if (!source || !destination)
        return E_POINTER;
    const HRESULT hr = forEachFormat(source, DATADIR_GET, [&](const FORMATETC& format) {
        KV_DEBUG(logger) << describeFormat(format);
        copyFormat(format, source, destination);
    });
    KV_DEBUG(logger) << ")copy=" << hr;
    return hr;
}

HRESULT copyFormat(const FORMATETC& format, IDataObject* source, IDataObject* destination)
{
    if (!source || !destination)
        return E_POINTER;
    FORMATETC request = format;
    UniqueStgMedium medium;
    HRESULT hr = source->GetData(&request, medium.put());
    KV_DEBUG(logger) << "GetData, hr=" << hr << ", typmed=" << medium->tymed;
    if (FAILED(hr))
        return hr;

    const DWORD tymed = medium->tymed;
    if (tymed != TYMED_HGLOBAL && tymed != TYMED_FILE && tymed != TYMED_ISTREAM && tymed != TYMED_ISTORAGE) {
        KV_DEBUG(logger) << "cannot copy this tymed:" << tymed;
        return DV_E_TYMED;
    }
    STGMEDIUM copied{};
    hr = duplicateMedium(medium.get(), format.cfFormat, copied);
    if (FAILED(hr)) {
        KV_WARN(logger) << "copy of format " << clipboardFormatName(format.cfFormat) << " failed, hr=" << hr;
        return hr;
    }
    logCopied(copied);

    // The destination is told the medium it really gets, not the mask asked for.
    request.tymed = copied.tymed;
    hr = destination->SetData(&request, &copied, TRUE);
    KV_DEBUG(logger) << "SetData, hr=" << hr;
    if (FAILED(hr))
        ReleaseStgMedium(&copied);
    return hr;
}
