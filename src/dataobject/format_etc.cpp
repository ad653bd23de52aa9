#include "dataobject/format_etc.h"

#include <wrl/client.h>

#include <cstddef>
#include <cstring>

FORMATETC hglobalFormat(CLIPFORMAT format, LONG lindex)
{
    return FORMATETC{format, nullptr, DVASPECT_CONTENT, lindex, TYMED_HGLOBAL};
}

FORMATETC copyFormatEtc(const FORMATETC& format)
{
    FORMATETC copy = format;
    copy.ptd = nullptr;
    if (format.ptd && format.ptd->tdSize >= offsetof(DVTARGETDEVICE, tdData)) {
        copy.ptd = static_cast<DVTARGETDEVICE*>(CoTaskMemAlloc(format.ptd->tdSize));
        if (copy.ptd)
            std::memcpy(copy.ptd, format.ptd, format.ptd->tdSize);
    }
    return copy;
}

void freeFormatEtc(FORMATETC& format)
{
    CoTaskMemFree(format.ptd);
    format.ptd = nullptr;
}

const ClipboardFormats& registeredFormats()
{
    if (clipboardFormats().fileContents == 0)
        RegisterDataFormats();
    return clipboardFormats();
}

HRESULT forEachFormat(IDataObject* dataObject, DWORD direction, const std::function<void(const FORMATETC&)>& visit)
{
    if (!dataObject)
        return E_POINTER;
    Microsoft::WRL::ComPtr<IEnumFORMATETC> formats;
    const HRESULT hr = dataObject->EnumFormatEtc(direction, &formats);
    if (FAILED(hr))
        return hr;
    if (!formats)
        return E_UNEXPECTED;
    FORMATETC format{};
    ULONG fetched = 0;
    for (ULONG count = 0; count < maxEnumeratedFormats; ++count) {
        fetched = 0;
        if (formats->Next(1, &format, &fetched) != S_OK || fetched != 1)
            break;
        visit(format);
        freeFormatEtc(format);
    }
    return S_OK;
}
