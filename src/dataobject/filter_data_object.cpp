// MyDataObjectFilterFormat: Outlook's data object with some formats hidden
// and plain text of its own.
#include "dataobject/filter_data_object.h"

#include "core/exception_barrier.h"
#include "core/log.h"
#include "dataobject/com_interface.h"
#include "common/strings.h"
#include "dataobject/data_object_writer.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/drop_target_tracker.h"

#include <new>

namespace {

Logger logger("MyDataObjectFilterFormat");

bool isTextFormat(CLIPFORMAT format)
{
    return format == CF_TEXT || format == CF_UNICODETEXT;
}

HGLOBAL ansiTextBlock(const std::wstring& text)
{
    const int bytes = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return nullptr;
    std::string ansi(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, ansi.data(), bytes, nullptr, nullptr);
    return globalFromBytes(ansi.data(), ansi.size());
}

} // namespace

MyDataObjectFilterFormat::MyDataObjectFilterFormat(IDataObject* inner, std::set<CLIPFORMAT> filteredFormats,
                                                   std::wstring text, std::shared_ptr<DDItems> items)
    : inner_(inner), text_(std::move(text)), filteredFormats_(std::move(filteredFormats)), items_(std::move(items))
{
    // A new drag: nothing is known yet about where it goes.
    resetDropTarget();
    KV_DEBUG(logger) << "MyDataObjectFilterFormat(inner=" << inner << ", #filteredFormats="
                     << filteredFormats_.size() << ", #text=" << text_.size() << ")";
}

bool MyDataObjectFilterFormat::isEnabled(CLIPFORMAT format) const
{
    if (filteredFormats_.count(format))
        return false;
    // The SAP logon pad takes the text rendering as a command; it never gets it.
    if (isTextFormat(format) && equalsIgnoreCase(dropTargetState().targetName, L"saplogon"))
        return false;
    return true;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::QueryInterface(REFIID iid, void** object)
{
    return queryOwnInterface<IDataObject>(this, IID_IDataObject, iid, object);
}

ULONG STDMETHODCALLTYPE MyDataObjectFilterFormat::AddRef()
{
    return InterlockedIncrement(&references_);
}

ULONG STDMETHODCALLTYPE MyDataObjectFilterFormat::Release()
{
    const LONG remaining = InterlockedDecrement(&references_);
    if (remaining == 0)
        delete this;
    return remaining;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::GetData(FORMATETC* format, STGMEDIUM* medium)
{
    if (!format || !medium)
        return E_INVALIDARG;
    return barrier("MyDataObjectFilterFormat::GetData", [&] {
        HRESULT hr = E_FAIL;
        if (!isEnabled(format->cfFormat)) {
            hr = E_FAIL;
        } else if (isTextFormat(format->cfFormat)) {
            *medium = STGMEDIUM{};
            if (text_.empty()) {
                hr = E_FAIL;
            } else if (!(format->tymed & TYMED_HGLOBAL)) {
                hr = DV_E_TYMED;
            } else {
                HGLOBAL block = format->cfFormat == CF_TEXT
                                    ? ansiTextBlock(text_)
                                    : globalFromBytes(text_.c_str(), (text_.size() + 1) * sizeof(wchar_t));
                if (block) {
                    medium->tymed = TYMED_HGLOBAL;
                    medium->hGlobal = block;
                    hr = S_OK;
                } else {
                    hr = E_OUTOFMEMORY;
                }
            }
        } else {
            hr = inner_ ? inner_->GetData(format, medium) : DV_E_FORMATETC;
        }
        KV_DEBUG(logger) << "GetData format=" << clipboardFormatName(format->cfFormat)
                         << ", lindex=" << format->lindex << ", hr=" << hr;
        return hr;
    });
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::GetDataHere(FORMATETC* format, STGMEDIUM* medium)
{
    if (!format || !medium)
        return E_INVALIDARG;
    return barrier("MyDataObjectFilterFormat::GetDataHere", [&] {
        // Text is only ever this object's own, never Outlook's.
        HRESULT hr = E_FAIL;
        if (isEnabled(format->cfFormat) && !isTextFormat(format->cfFormat))
            hr = inner_ ? inner_->GetDataHere(format, medium) : DV_E_FORMATETC;
        KV_DEBUG(logger) << "GetDataHere format=" << clipboardFormatName(format->cfFormat) << ", hr=" << hr;
        return hr;
    });
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::QueryGetData(FORMATETC* format)
{
    if (!format)
        return E_INVALIDARG;
    return barrier("MyDataObjectFilterFormat::QueryGetData", [&] {
        const bool enabled = isEnabled(format->cfFormat);
        HRESULT hr = E_FAIL;
        if (!enabled)
            hr = E_FAIL;
        else if (isTextFormat(format->cfFormat))
            hr = text_.empty() ? E_FAIL : S_OK;
        else
            hr = inner_ ? inner_->QueryGetData(format) : DV_E_FORMATETC;
        KV_DEBUG(logger) << ", QueryGetData format=" << clipboardFormatName(format->cfFormat)
                         << ", enabled=" << enabled << ", hr=" << hr;
        return hr;
    });
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out)
{
    return inner_ ? inner_->GetCanonicalFormatEtc(in, out) : E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release)
{
    return inner_ ? inner_->SetData(format, medium, release) : E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::EnumFormatEtc(DWORD direction, IEnumFORMATETC** enumerator)
{
    if (!enumerator)
        return E_POINTER;
    *enumerator = nullptr;
    if (!inner_)
        return E_NOTIMPL;
    std::vector<FORMATETC> kept;
    HRESULT hr = barrier("MyDataObjectFilterFormat::EnumFormatEtc", [&] {
        // Outlook's text is never passed on: the text offered is this object's own.
        HRESULT found = forEachFormat(inner_.Get(), direction, [&](const FORMATETC& format) {
            const bool enabled = isEnabled(format.cfFormat) && !isTextFormat(format.cfFormat);
            KV_DEBUG(logger) << "innerDataObject->Next, format=" << clipboardFormatName(format.cfFormat)
                             << ", enabled=" << enabled;
            if (enabled)
                kept.push_back(copyFormatEtc(format));
        });
        if (SUCCEEDED(found) && direction == DATADIR_GET && !text_.empty() && isEnabled(CF_UNICODETEXT))
            kept.push_back(hglobalFormat(CF_UNICODETEXT));
        return found;
    });
    if (SUCCEEDED(hr)) {
        // The enumerator owns the records' target devices from here on.
        auto* filtered = new (std::nothrow) MyEnumFORMATETC(std::move(kept));
        if (filtered) {
            *enumerator = filtered;
            return S_OK;
        }
        hr = E_OUTOFMEMORY;
    }
    for (FORMATETC& format : kept)
        freeFormatEtc(format);
    return hr;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::DAdvise(FORMATETC* format, DWORD flags, IAdviseSink* sink,
                                                            DWORD* connection)
{
    return inner_ ? inner_->DAdvise(format, flags, sink, connection) : OLE_E_ADVISENOTSUPPORTED;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::DUnadvise(DWORD connection)
{
    return inner_ ? inner_->DUnadvise(connection) : OLE_E_ADVISENOTSUPPORTED;
}

HRESULT STDMETHODCALLTYPE MyDataObjectFilterFormat::EnumDAdvise(IEnumSTATDATA** enumerator)
{
    return inner_ ? inner_->EnumDAdvise(enumerator) : OLE_E_ADVISENOTSUPPORTED;
}
