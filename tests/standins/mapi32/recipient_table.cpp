#include "recipient_table.h"

#include "mapi_com.h"
#include "property_values.h"

#include "common/hresult.h"

#include <mapicode.h>
#include <mapitags.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

namespace {

constexpr ULONG tagRowId = 0x30000003;
constexpr ULONG tagRecipientType = 0x0C150003;
constexpr ULONG tagEntryId = 0x0FFF0102;
constexpr uint16_t idDisplayName = 0x3001;
constexpr uint16_t idAddrType = 0x3002;
constexpr uint16_t idEmailAddress = 0x3003;

class RecipientTable final : public IMAPITable {
public:
    RecipientTable(std::vector<StoredProperties> rows, bool unicode, const MapiAllocators& allocators)
        : rows_(std::move(rows)), unicode_(unicode), allocators_(allocators)
    {
        // Rows of a .msg usually carry PR_ROWID; give one to those that don't,
        // as a store would.
        for (size_t i = 0; i < rows_.size(); ++i) {
            if (!findStoredProperty(rows_[i], PROP_ID(tagRowId))) {
                const ULONG rowId = static_cast<ULONG>(i);
                std::string value(8, '\0');
                std::memcpy(value.data(), &rowId, sizeof rowId);
                rows_[i].emplace(PROP_ID(tagRowId), StoredProperty{tagRowId, value});
            }
        }
        const ULONG stringType = unicode ? PT_UNICODE : PT_STRING8;
        columns_ = {tagRowId, tagRecipientType, tagEntryId, PROP_TAG(stringType, idDisplayName),
                    PROP_TAG(stringType, idAddrType), PROP_TAG(stringType, idEmailAddress)};
    }

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == standInIidMapiTable) {
            *object = static_cast<IMAPITable*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --refs_;
        if (left == 0)
            delete this;
        return left;
    }

    // IMAPITable
    STDMETHODIMP GetLastError(HRESULT, ULONG, LPMAPIERROR* error) override
    {
        clearOut(error);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP Advise(ULONG, LPMAPIADVISESINK, ULONG* connection) override
    {
        clearOut(connection);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP Unadvise(ULONG) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP GetStatus(ULONG* status, ULONG* type) override
    {
        if (!status || !type)
            return MAPI_E_INVALID_PARAMETER;
        *status = TBLSTAT_COMPLETE;
        *type = TBLTYPE_SNAPSHOT;
        return S_OK;
    }
    STDMETHODIMP SetColumns(LPSPropTagArray tags, ULONG) override
    {
        if (!tags)
            return MAPI_E_INVALID_PARAMETER;
        columns_.assign(tags->aulPropTag, tags->aulPropTag + tags->cValues);
        return S_OK;
    }
    STDMETHODIMP QueryColumns(ULONG flags, LPSPropTagArray* tags) override
    {
        if (!tags)
            return MAPI_E_INVALID_PARAMETER;
        *tags = nullptr;
        std::vector<ULONG> list = columns_;
        if (flags & TBL_ALL_COLUMNS)
            list = allColumns();
        void* block = nullptr;
        RETURN_IF_FAILED(allocators_.allocateBuffer(CbNewSPropTagArray(list.size()), &block));
        auto* array = static_cast<LPSPropTagArray>(block);
        array->cValues = static_cast<ULONG>(list.size());
        std::copy(list.begin(), list.end(), array->aulPropTag);
        *tags = array;
        return S_OK;
    }
    STDMETHODIMP GetRowCount(ULONG, ULONG* count) override
    {
        if (!count)
            return MAPI_E_INVALID_PARAMETER;
        *count = rowCount();
        return S_OK;
    }
    STDMETHODIMP SeekRow(BOOKMARK origin, LONG count, LONG* sought) override
    {
        LONG start = 0;
        if (origin == BOOKMARK_BEGINNING)
            start = 0;
        else if (origin == BOOKMARK_CURRENT)
            start = static_cast<LONG>(position_);
        else if (origin == BOOKMARK_END)
            start = static_cast<LONG>(rowCount());
        else
            return MAPI_E_INVALID_BOOKMARK;
        const LONG target = std::clamp<LONG>(start + count, 0, static_cast<LONG>(rowCount()));
        position_ = static_cast<ULONG>(target);
        if (sought)
            *sought = target - start;
        return S_OK;
    }
    STDMETHODIMP SeekRowApprox(ULONG numerator, ULONG denominator) override
    {
        if (denominator == 0)
            return MAPI_E_INVALID_PARAMETER;
        position_ = static_cast<ULONG>(std::min<ULONGLONG>(
            static_cast<ULONGLONG>(rowCount()) * numerator / denominator, rowCount()));
        return S_OK;
    }
    STDMETHODIMP QueryPosition(ULONG* row, ULONG* numerator, ULONG* denominator) override
    {
        if (!row || !numerator || !denominator)
            return MAPI_E_INVALID_PARAMETER;
        *row = position_;
        *numerator = position_;
        *denominator = std::max<ULONG>(rowCount(), 1);
        return S_OK;
    }
    STDMETHODIMP FindRow(LPSRestriction, BOOKMARK, ULONG) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP Restrict(LPSRestriction, ULONG) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP CreateBookmark(BOOKMARK* bookmark) override
    {
        clearOut(bookmark);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP FreeBookmark(BOOKMARK) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP SortTable(LPSSortOrderSet, ULONG) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP QuerySortOrder(LPSSortOrderSet* order) override
    {
        clearOut(order);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP QueryRows(LONG count, ULONG flags, LPSRowSet* result) override
    {
        if (!result)
            return MAPI_E_INVALID_PARAMETER;
        *result = nullptr;
        if (count == 0)
            return MAPI_E_INVALID_PARAMETER;
        // A negative count reads backwards from the current row; the rows
        // still come back in table order.
        const ULONG first = count > 0 ? position_
                                      : static_cast<ULONG>(std::max<LONGLONG>(0, LONGLONG(position_) + count));
        const ULONG last = count > 0 ? static_cast<ULONG>(std::min<ULONGLONG>(rowCount(), ULONGLONG(position_) + count))
                                     : position_;
        LPSRowSet rows = nullptr;
        RETURN_IF_FAILED(makeRows(first, last, rows));
        if (!(flags & TBL_NOADVANCE))
            position_ = count > 0 ? last : first;
        *result = rows;
        return S_OK;
    }
    STDMETHODIMP Abort() override { return MAPI_E_UNABLE_TO_ABORT; }
    STDMETHODIMP ExpandRow(ULONG, LPBYTE, ULONG, ULONG, LPSRowSet* rows, ULONG* more) override
    {
        clearOut(rows);
        clearOut(more);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP CollapseRow(ULONG, LPBYTE, ULONG, ULONG* count) override
    {
        clearOut(count);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP WaitForCompletion(ULONG, ULONG, ULONG* status) override
    {
        // A snapshot is complete from the start.
        if (status)
            *status = TBLSTAT_COMPLETE;
        return S_OK;
    }
    STDMETHODIMP GetCollapseState(ULONG, ULONG, LPBYTE, ULONG* size, LPBYTE* state) override
    {
        clearOut(size);
        clearOut(state);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP SetCollapseState(ULONG, ULONG, LPBYTE, BOOKMARK* location) override
    {
        clearOut(location);
        return MAPI_E_NO_SUPPORT;
    }

private:
    ~RecipientTable() = default;

    ULONG rowCount() const { return static_cast<ULONG>(rows_.size()); }

    std::vector<ULONG> allColumns() const
    {
        std::vector<ULONG> list;
        for (const StoredProperties& row : rows_) {
            for (const auto& [id, property] : row) {
                const ULONG tag = reportedTag(property, unicode_);
                if (std::find(list.begin(), list.end(), tag) == list.end())
                    list.push_back(tag);
            }
        }
        return list;
    }

    void freeRows(LPSRowSet rows) const
    {
        for (ULONG r = 0; r < rows->cRows; ++r)
            allocators_.freeBuffer(rows->aRow[r].lpProps);
        allocators_.freeBuffer(rows);
    }

    HRESULT makeRow(const StoredProperties& stored, SRow& row) const
    {
        void* block = nullptr;
        RETURN_IF_FAILED(allocators_.allocateBuffer(static_cast<ULONG>(columns_.size() * sizeof(SPropValue)), &block));
        row.lpProps = static_cast<LPSPropValue>(block);
        row.cValues = static_cast<ULONG>(columns_.size());
        for (size_t c = 0; c < columns_.size(); ++c) {
            const HRESULT hr = makePropValue(columns_[c], findStoredProperty(stored, PROP_ID(columns_[c])), unicode_,
                                             allocators_, block, row.lpProps[c]);
            if (FAILED(hr) && hr != MAPI_E_NOT_FOUND)
                return hr;
        }
        return S_OK;
    }

    HRESULT makeRows(ULONG first, ULONG last, LPSRowSet& result) const
    {
        const ULONG count = last > first ? last - first : 0;
        void* block = nullptr;
        RETURN_IF_FAILED(allocators_.allocateBuffer(static_cast<ULONG>(CbNewSRowSet(count)), &block));
        auto* rows = static_cast<LPSRowSet>(block);
        rows->cRows = 0;
        for (ULONG r = 0; r < count; ++r) {
            rows->aRow[r] = SRow{};
            ++rows->cRows;
            const HRESULT hr = makeRow(rows_[first + r], rows->aRow[r]);
            if (FAILED(hr)) {
                freeRows(rows);
                return hr;
            }
        }
        result = rows;
        return S_OK;
    }

    std::atomic<ULONG> refs_{1};
    std::vector<StoredProperties> rows_;
    bool unicode_;
    MapiAllocators allocators_;
    std::vector<ULONG> columns_;
    ULONG position_ = 0;
};

} // namespace

HRESULT createRecipientTable(std::vector<StoredProperties> rows, ULONG flags, const MapiAllocators& allocators,
                             IMAPITable** table)
{
    if (!table)
        return MAPI_E_INVALID_PARAMETER;
    *table = new (std::nothrow) RecipientTable(std::move(rows), (flags & MAPI_UNICODE) != 0, allocators);
    return *table ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
}
