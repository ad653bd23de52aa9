#include "dataobject/file_data_object.h"

#include "core/exception_barrier.h"
#include "core/log.h"
#include "dataobject/com_interface.h"
#include "dataobject/file_name_blocks.h"
#include "dataobject/format_etc.h"
#include "dataobject/stg_medium.h"
#include "dataobject/filter_data_object.h"

#include <new>
#include <utility>

namespace {

Logger logger("DataObjectHelper");

bool sameSlot(const FORMATETC& a, const FORMATETC& b)
{
    return a.cfFormat == b.cfFormat && a.dwAspect == b.dwAspect && a.lindex == b.lindex;
}

void freeAll(std::vector<FORMATETC>& formats)
{
    for (FORMATETC& format : formats)
        freeFormatEtc(format);
    formats.clear();
}

} // namespace

FileDataObject::FileDataObject(IDataObject* inner, PathList paths) : inner_(inner), paths_(std::move(paths))
{
    KV_DEBUG(logger) << "FileDataObject(#paths=" << paths_.size() << ", inner=" << inner << ")";
}

FileDataObject::~FileDataObject()
{
    for (StoredFormat& stored : stored_) {
        ReleaseStgMedium(&stored.medium);
        freeFormatEtc(stored.format);
    }
}

HRESULT STDMETHODCALLTYPE FileDataObject::QueryInterface(REFIID iid, void** object)
{
    return queryOwnInterface<IDataObject>(this, IID_IDataObject, iid, object);
}

ULONG STDMETHODCALLTYPE FileDataObject::AddRef()
{
    return InterlockedIncrement(&references_);
}

ULONG STDMETHODCALLTYPE FileDataObject::Release()
{
    const LONG remaining = InterlockedDecrement(&references_);
    if (remaining == 0)
        delete this;
    return remaining;
}

FileDataObject::StoredFormat* FileDataObject::findStored(const FORMATETC& format)
{
    for (StoredFormat& stored : stored_) {
        if (sameSlot(stored.format, format))
            return &stored;
    }
    return nullptr;
}

bool FileDataObject::rendersFormat(CLIPFORMAT format) const
{
    if (paths_.empty())
        return false;
    const ClipboardFormats& ids = registeredFormats();
    return format == CF_HDROP || format == ids.shellIdList || format == ids.fileNameA || format == ids.fileNameW;
}

std::vector<FORMATETC> FileDataObject::renderedFormats() const
{
    if (paths_.empty())
        return {};
    const ClipboardFormats& ids = registeredFormats();
    return {hglobalFormat(CF_HDROP), hglobalFormat(ids.shellIdList), hglobalFormat(ids.fileNameA),
            hglobalFormat(ids.fileNameW)};
}

HRESULT FileDataObject::queryRendered(const FORMATETC& format) const
{
    // The index is not looked at: these formats exist once, and some targets
    // ask with 0 instead of -1.
    if (format.dwAspect != DVASPECT_CONTENT)
        return DV_E_DVASPECT;
    if (!(format.tymed & TYMED_HGLOBAL))
        return DV_E_TYMED;
    return S_OK;
}

HGLOBAL FileDataObject::render(CLIPFORMAT format) const
{
    const ClipboardFormats& ids = registeredFormats();
    if (format == CF_HDROP)
        return CreateHDROP(paths_);
    if (format == ids.shellIdList)
        return CreateSHELLIDLIST(paths_);
    if (format == ids.fileNameA)
        return ansiFileNameBlock(paths_.front());
    return wideFileNameBlock(paths_.front());
}

HRESULT STDMETHODCALLTYPE FileDataObject::GetData(FORMATETC* format, STGMEDIUM* medium)
{
    if (!format || !medium)
        return E_INVALIDARG;
    *medium = STGMEDIUM{};
    if (StoredFormat* stored = findStored(*format)) {
        if (!(stored->medium.tymed & format->tymed))
            return DV_E_TYMED;
        // A copy of its own for every caller: the kept medium stays for the next.
        return duplicateMedium(stored->medium, format->cfFormat, *medium);
    }
    if (rendersFormat(format->cfFormat)) {
        const HRESULT hr = queryRendered(*format);
        if (FAILED(hr))
            return hr;
        return barrier("FileDataObject::GetData", [&] {
            HGLOBAL block = render(format->cfFormat);
            if (!block)
                return E_FAIL;
            medium->tymed = TYMED_HGLOBAL;
            medium->hGlobal = block;
            return S_OK;
        });
    }
    return inner_ ? inner_->GetData(format, medium) : DV_E_FORMATETC;
}

HRESULT STDMETHODCALLTYPE FileDataObject::GetDataHere(FORMATETC* format, STGMEDIUM* medium)
{
    if (!format || !medium)
        return E_INVALIDARG;
    if (findStored(*format) || rendersFormat(format->cfFormat))
        return E_NOTIMPL;
    return inner_ ? inner_->GetDataHere(format, medium) : DV_E_FORMATETC;
}

HRESULT STDMETHODCALLTYPE FileDataObject::QueryGetData(FORMATETC* format)
{
    if (!format)
        return E_INVALIDARG;
    if (StoredFormat* stored = findStored(*format))
        return (stored->medium.tymed & format->tymed) ? S_OK : DV_E_TYMED;
    if (rendersFormat(format->cfFormat))
        return queryRendered(*format);
    return inner_ ? inner_->QueryGetData(format) : DV_E_FORMATETC;
}

HRESULT STDMETHODCALLTYPE FileDataObject::GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out)
{
    if (!in || !out)
        return E_INVALIDARG;
    if (findStored(*in) || rendersFormat(in->cfFormat) || !inner_) {
        *out = *in;
        out->ptd = nullptr;
        return DATA_S_SAMEFORMATETC;
    }
    return inner_->GetCanonicalFormatEtc(in, out);
}

HRESULT STDMETHODCALLTYPE FileDataObject::SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release)
{
    if (!format || !medium)
        return E_INVALIDARG;
    if (medium->tymed == TYMED_NULL || !(format->tymed & medium->tymed))
        return DV_E_TYMED;

    STGMEDIUM kept{};
    if (release) {
        kept = *medium;
    } else {
        const HRESULT hr = duplicateMedium(*medium, format->cfFormat, kept);
        if (FAILED(hr))
            return hr;
    }
    FORMATETC key = copyFormatEtc(*format);
    key.tymed = kept.tymed;

    if (StoredFormat* stored = findStored(*format)) {
        ReleaseStgMedium(&stored->medium);
        freeFormatEtc(stored->format);
        *stored = StoredFormat{key, kept};
    } else {
        try {
            stored_.push_back(StoredFormat{key, kept});
        } catch (const std::bad_alloc&) {
            // Not taken: the caller keeps what it would have given away.
            freeFormatEtc(key);
            if (!release)
                ReleaseStgMedium(&kept);
            return E_OUTOFMEMORY;
        }
    }
    // The medium is this object's now: nothing that happens to the log line
    // may make the caller think otherwise.
    return barrier("FileDataObject::SetData", S_OK, [&] {
        KV_DEBUG(logger) << "FileDataObject.SetData " << describeFormat(key) << ", release=" << (release != FALSE);
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE FileDataObject::EnumFormatEtc(DWORD direction, IEnumFORMATETC** enumerator)
{
    if (!enumerator)
        return E_POINTER;
    *enumerator = nullptr;
    if (direction != DATADIR_GET)
        return E_NOTIMPL;

    std::vector<FORMATETC> formats;
    const HRESULT listed = barrier("FileDataObject::EnumFormatEtc", [&] {
        for (const StoredFormat& stored : stored_)
            formats.push_back(copyFormatEtc(stored.format));
        for (const FORMATETC& rendered : renderedFormats()) {
            if (!findStored(rendered))
                formats.push_back(rendered);
        }
        // The inner object's formats, less those answered here.
        if (inner_) {
            forEachFormat(inner_.Get(), DATADIR_GET, [&](const FORMATETC& format) {
                if (!findStored(format) && !rendersFormat(format.cfFormat))
                    formats.push_back(copyFormatEtc(format));
            });
        }
        return S_OK;
    });
    if (FAILED(listed)) {
        freeAll(formats);
        return listed;
    }

    auto* formatEnumerator = new (std::nothrow) MyEnumFORMATETC(std::move(formats));
    if (!formatEnumerator) {
        freeAll(formats);
        return E_OUTOFMEMORY;
    }
    *enumerator = formatEnumerator;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE FileDataObject::DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*)
{
    return OLE_E_ADVISENOTSUPPORTED;
}

HRESULT STDMETHODCALLTYPE FileDataObject::DUnadvise(DWORD)
{
    return OLE_E_ADVISENOTSUPPORTED;
}

HRESULT STDMETHODCALLTYPE FileDataObject::EnumDAdvise(IEnumSTATDATA**)
{
    return OLE_E_ADVISENOTSUPPORTED;
}
