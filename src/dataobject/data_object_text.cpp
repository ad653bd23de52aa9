// Plain Unicode text on a data object: reading it, setting it, passing it on.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/stg_medium.h"

namespace {

Logger logger("DataObjectHelper");

} // namespace

std::wstring getText(IDataObject* dataObject)
{
    KV_DEBUG(logger) << "getText(";
    if (!dataObject)
        return std::wstring();
    FORMATETC format = hglobalFormat(CF_UNICODETEXT);
    UniqueStgMedium medium;
    const HRESULT hr = dataObject->GetData(&format, medium.put());
    if (FAILED(hr) || medium->tymed != TYMED_HGLOBAL) {
        KV_DEBUG(logger) << ")getText, no text, hr=" << hr;
        return std::wstring();
    }
    GlobalLockGuard lock(medium->hGlobal);
    if (!lock)
        return std::wstring();
    // Up to the first NUL, but never beyond the block: a block without a
    // terminator still gives its text.
    const auto* text = lock.as<const wchar_t>();
    const size_t room = lock.size() / sizeof(wchar_t);
    size_t length = 0;
    while (length < room && text[length] != L'\0')
        ++length;
    std::wstring result(text, length);
    KV_DEBUG(logger) << "success";
    KV_DEBUG(logger) << ")getText=#" << result.size();
    return result;
}

HRESULT setText(IDataObject* dataObject, const std::wstring& text)
{
    KV_DEBUG(logger) << "setText(#" << text.size();
    if (!dataObject)
        return E_POINTER;
    UniqueGlobal memory(globalFromBytes(text.c_str(), (text.size() + 1) * sizeof(wchar_t)));
    if (!memory)
        return E_OUTOFMEMORY;
    const HRESULT hr = setGlobalData(dataObject, CF_UNICODETEXT, memory);
    KV_DEBUG(logger) << ")setText=" << hr;
    return hr;
}

HRESULT copyText(IDataObject* from, IDataObject* to)
{
    KV_DEBUG(logger) << "copyText(";
    if (!from || !to)
        return E_POINTER;
    const std::wstring text = getText(from);
    if (text.empty()) {
        KV_DEBUG(logger) << ")copyText, no text to copy";
        return S_FALSE;
    }
    const HRESULT hr = setText(to, text);
    KV_DEBUG(logger) << "pDataObjectDest->SetData hr=" << hr;
    return hr;
}
