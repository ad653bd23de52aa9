// MyEnumFORMATETC: the formats that passed the filter, handed out in order.
#include "dataobject/filter_data_object.h"

#include "core/log.h"
#include "dataobject/com_interface.h"
#include "dataobject/format_etc.h"

#include <new>

namespace {

Logger logger("MyEnumFORMATETC");

} // namespace

MyEnumFORMATETC::MyEnumFORMATETC(std::vector<FORMATETC> formats, size_t index)
    : formats_(std::move(formats)), index_(index)
{
}

MyEnumFORMATETC::~MyEnumFORMATETC()
{
    for (FORMATETC& format : formats_)
        freeFormatEtc(format);
}

HRESULT STDMETHODCALLTYPE MyEnumFORMATETC::QueryInterface(REFIID iid, void** object)
{
    return queryOwnInterface<IEnumFORMATETC>(this, IID_IEnumFORMATETC, iid, object);
}

ULONG STDMETHODCALLTYPE MyEnumFORMATETC::AddRef()
{
    return InterlockedIncrement(&references_);
}

ULONG STDMETHODCALLTYPE MyEnumFORMATETC::Release()
{
    const LONG remaining = InterlockedDecrement(&references_);
    if (remaining == 0)
        delete this;
    return remaining;
}

HRESULT STDMETHODCALLTYPE MyEnumFORMATETC::Next(ULONG count, FORMATETC* formats, ULONG* fetched)
{
    KV_DEBUG(logger) << "Next(celt=" << count << ", index=" << index_ << ", #formats=" << formats_.size();
    if (fetched)
        *fetched = 0;
    if (!formats)
        return E_POINTER;
    // Without a counter the caller could not tell how many came back.
    if (count > 1 && !fetched)
        return E_INVALIDARG;

    ULONG copied = 0;
    while (copied < count && index_ < formats_.size()) {
        // The caller frees the target device of each record it receives.
        formats[copied] = copyFormatEtc(formats_[index_]);
        ++copied;
        ++index_;
    }
    if (fetched)
        *fetched = copied;
    if (copied < count) {
        KV_DEBUG(logger) << ")Next[" << copied << "]=S_FALSE";
        return S_FALSE;
    }
    KV_DEBUG(logger) << ")Next[" << copied << "]=S_OK";
    return S_OK;
}

HRESULT STDMETHODCALLTYPE MyEnumFORMATETC::Skip(ULONG count)
{
    const size_t left = formats_.size() - index_;
    if (count > left) {
        index_ = formats_.size();
        return S_FALSE;
    }
    index_ += count;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE MyEnumFORMATETC::Reset()
{
    index_ = 0;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE MyEnumFORMATETC::Clone(IEnumFORMATETC** clone)
{
    if (!clone)
        return E_POINTER;
    *clone = nullptr;
    std::vector<FORMATETC> copies;
    try {
        copies.reserve(formats_.size());
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    for (const FORMATETC& format : formats_)
        copies.push_back(copyFormatEtc(format));
    auto* copy = new (std::nothrow) MyEnumFORMATETC(std::move(copies), index_);
    if (!copy) {
        for (FORMATETC& format : copies)
            freeFormatEtc(format);
        return E_OUTOFMEMORY;
    }
    *clone = copy;
    return S_OK;
}
