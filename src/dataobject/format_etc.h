#pragma once
// FORMATETC records that own their target device, the registered format ids,
// and a walk over the formats a data object enumerates.
#include <objidl.h>

#include <functional>
#include <string>

#include "dataobject/clipboard_formats.h"

// { format, no target device, DVASPECT_CONTENT, lindex, TYMED_HGLOBAL }.
FORMATETC hglobalFormat(CLIPFORMAT format, LONG lindex = -1);

// A copy whose target device is a CoTaskMemAlloc copy of its own (null when
// the source has none or no memory is left).
FORMATETC copyFormatEtc(const FORMATETC& format);

// Frees the target device of a record made by copyFormatEtc or handed out by
// an enumerator.
void freeFormatEtc(FORMATETC& format);

// The registered ids, registering them first when the toolkit is used before
// the file-drop unit has started.
const ClipboardFormats& registeredFormats();

// Hands each format that the object enumerates for `direction` to `visit`;
// the record's target device is freed afterwards. Returns the failure of
// EnumFormatEtc, else S_OK. A runaway enumerator is cut off after
// maxEnumeratedFormats records.
constexpr ULONG maxEnumeratedFormats = 10000;
HRESULT forEachFormat(IDataObject* dataObject, DWORD direction, const std::function<void(const FORMATETC&)>& visit);

// "cfFormat=…, name=…, dwAspect=…, tymed=…, lindex=…, pdt=…" for the log.
std::wstring describeFormat(const FORMATETC& format);
