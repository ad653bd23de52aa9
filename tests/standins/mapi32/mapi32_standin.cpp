// The stand-in mapi32.dll (Wine's own aborts in OpenIMsgOnIStg), its ordinals
// pinned by the .def file. Its IMessage only reads: GetProps and the recipient
// table, from the storage through the add-in's .msg reader.
// StandInLiveAllocations tells a test whether every buffer was given back.
#include "mapi_standin.h"

#include "core/log.h"
#include "common/hresult.h"
#include "e2e_shared/com_object.h"
#include "items/msg_storage.h"
#include "items/property_text.h"

#include <ole2.h>
#include <mapidefs.h>
#include <imessage.h>
#include <mapicode.h>
#include <wrl/client.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <vector>

namespace {

const Logger logger("MapiStandIn");

// The allocation functions the caller opened the message with; everything
// handed out is allocated with them.
struct MapiAllocators {
    LPALLOCATEBUFFER allocateBuffer = nullptr;
    LPALLOCATEMORE allocateMore = nullptr;
    LPFREEBUFFER freeBuffer = nullptr;
};

// {00020303-...}, {00020307-...}, {00020301-...}: IMAPIProp, IMessage, IMAPITable,
// written out: this DLL *is* mapi32 for the tests.
constexpr IID iidMapiProp = {0x00020303, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr IID iidMessage = {0x00020307, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr IID iidMapiTable = {0x00020301, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

constexpr ULONG tagRecipientType = 0x0C150003;
constexpr ULONG tagEntryId = 0x0FFF0102;

// The fixed-size types the add-in asks for.
size_t fixedSizeOf(ULONG type)
{
    return type == PT_LONG ? 4 : type == PT_SYSTIME ? 8 : 0;
}

HRESULT copyMore(const void* bytes, size_t size, const MapiAllocators& allocators, void* parent, void** copy)
{
    RETURN_IF_FAILED(allocators.allocateMore(static_cast<ULONG>(size), parent, copy));
    if (size)
        std::memcpy(*copy, bytes, size);
    return S_OK;
}

// `value` for `wanted` from what the storage holds (null: nothing); strings
// and binaries allocated "more" on `parent`. A missing or mistyped value
// becomes the PT_ERROR row MAPI gives for it.
HRESULT makePropValue(ULONG wanted, const StoredProperty* stored, const MapiAllocators& allocators, void* parent,
                      SPropValue& value)
{
    value = SPropValue{};
    value.ulPropTag = wanted;
    const ULONG have = stored ? propertyTypeOf(stored->tag) : PT_ERROR;
    if (PROP_TYPE(wanted) == PT_UNICODE && (have == PT_UNICODE || have == PT_STRING8)) {
        const std::wstring text = propertyText(stored->tag, stored->bytes);
        return copyMore(text.c_str(), (text.size() + 1) * sizeof(wchar_t), allocators, parent,
                        reinterpret_cast<void**>(&value.Value.lpszW));
    }
    if (PROP_TYPE(wanted) == PT_BINARY && have == PT_BINARY) {
        value.Value.bin.cb = static_cast<ULONG>(stored->bytes.size());
        return copyMore(stored->bytes.data(), stored->bytes.size(), allocators, parent,
                        reinterpret_cast<void**>(&value.Value.bin.lpb));
    }
    const size_t size = fixedSizeOf(PROP_TYPE(wanted));
    if (size && have == PROP_TYPE(wanted) && stored->bytes.size() >= size) {
        std::memcpy(&value.Value, stored->bytes.data(), size);
        return S_OK;
    }
    value.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(wanted));
    value.Value.err = MAPI_E_NOT_FOUND;
    return MAPI_E_NOT_FOUND;
}

// The values of `tags` as one MAPIAllocateBuffer block.
HRESULT makeValues(const std::vector<ULONG>& tags, const StoredProperties& stored, const MapiAllocators& allocators,
                   LPSPropValue& values, bool& anyMissing)
{
    void* block = nullptr;
    RETURN_IF_FAILED(allocators.allocateBuffer(static_cast<ULONG>((tags.size() + 1) * sizeof(SPropValue)), &block));
    values = static_cast<LPSPropValue>(block);
    anyMissing = false;
    for (size_t i = 0; i < tags.size(); ++i) {
        const HRESULT hr =
            makePropValue(tags[i], findStoredProperty(stored, PROP_ID(tags[i])), allocators, block, values[i]);
        anyMissing |= hr == MAPI_E_NOT_FOUND;
        if (FAILED(hr) && hr != MAPI_E_NOT_FOUND) {
            allocators.freeBuffer(block);
            return hr;
        }
    }
    return S_OK;
}

#define NO_SUPPORT(signature) \
    STDMETHODIMP signature override { return MAPI_E_NO_SUPPORT; }

// The recipient rows, all columns the add-in reads, as a snapshot.
class RecipientTable final : public ComObject<IMAPITable> {
public:
    RecipientTable(std::vector<StoredProperties> rows, const MapiAllocators& allocators)
        : rows_(std::move(rows)), allocators_(allocators)
    {
    }

    STDMETHODIMP GetRowCount(ULONG, ULONG* count) override
    {
        *count = static_cast<ULONG>(rows_.size());
        return S_OK;
    }
    STDMETHODIMP QueryRows(LONG count, ULONG, LPSRowSet* result) override
    {
        *result = nullptr;
        const size_t wanted = count < 0 ? 0 : std::min(rows_.size() - next_, static_cast<size_t>(count));
        void* block = nullptr;
        RETURN_IF_FAILED(allocators_.allocateBuffer(CbNewSRowSet(wanted), &block));
        auto* rows = static_cast<LPSRowSet>(block);
        for (rows->cRows = 0; rows->cRows < wanted; ++rows->cRows, ++next_) {
            bool anyMissing = false;
            SRow& row = rows->aRow[rows->cRows];
            row.cValues = static_cast<ULONG>(columns_.size());
            RETURN_IF_FAILED(makeValues(columns_, rows_[next_], allocators_, row.lpProps, anyMissing));
        }
        *result = rows;
        return S_OK;
    }
    NO_SUPPORT(GetLastError(HRESULT, ULONG, LPMAPIERROR*))
    NO_SUPPORT(Advise(ULONG, LPMAPIADVISESINK, ULONG*))
    NO_SUPPORT(Unadvise(ULONG))
    NO_SUPPORT(GetStatus(ULONG*, ULONG*))
    NO_SUPPORT(SetColumns(LPSPropTagArray, ULONG))
    NO_SUPPORT(QueryColumns(ULONG, LPSPropTagArray*))
    NO_SUPPORT(SeekRow(BOOKMARK, LONG, LONG*))
    NO_SUPPORT(SeekRowApprox(ULONG, ULONG))
    NO_SUPPORT(QueryPosition(ULONG*, ULONG*, ULONG*))
    NO_SUPPORT(FindRow(LPSRestriction, BOOKMARK, ULONG))
    NO_SUPPORT(Restrict(LPSRestriction, ULONG))
    NO_SUPPORT(CreateBookmark(BOOKMARK*))
    NO_SUPPORT(FreeBookmark(BOOKMARK))
    NO_SUPPORT(SortTable(LPSSortOrderSet, ULONG))
    NO_SUPPORT(QuerySortOrder(LPSSortOrderSet*))
    NO_SUPPORT(Abort())
    NO_SUPPORT(ExpandRow(ULONG, LPBYTE, ULONG, ULONG, LPSRowSet*, ULONG*))
    NO_SUPPORT(CollapseRow(ULONG, LPBYTE, ULONG, ULONG*))
    NO_SUPPORT(WaitForCompletion(ULONG, ULONG, ULONG*))
    NO_SUPPORT(GetCollapseState(ULONG, ULONG, LPBYTE, ULONG*, LPBYTE*))
    NO_SUPPORT(SetCollapseState(ULONG, ULONG, LPBYTE, BOOKMARK*))

private:
    bool offers(REFIID iid) const override { return iid == iidMapiTable; }

    std::vector<StoredProperties> rows_;
    MapiAllocators allocators_;
    const std::vector<ULONG> columns_ = {tagRecipientType, tagEntryId, 0x3001001F, 0x3002001F, 0x3003001F};
    size_t next_ = 0;
};

class MessageOnStorage final : public ComObject<IMessage> {
public:
    MessageOnStorage(IStorage* storage, const MapiAllocators& allocators, StoredMessage stored)
        : storage_(storage), allocators_(allocators), stored_(std::move(stored))
    {
    }

    STDMETHODIMP GetProps(LPSPropTagArray tags, ULONG, ULONG* count, LPSPropValue* values) override
    {
        *count = 0;
        *values = nullptr;
        if (!tags || tags->cValues == 0)
            return MAPI_E_INVALID_PARAMETER;
        bool anyMissing = false;
        const std::vector<ULONG> wanted(tags->aulPropTag, tags->aulPropTag + tags->cValues);
        RETURN_IF_FAILED(makeValues(wanted, stored_.properties, allocators_, *values, anyMissing));
        *count = tags->cValues;
        return anyMissing ? MAPI_W_ERRORS_RETURNED : S_OK;
    }
    // Unicode columns: the add-in always asks for them.
    STDMETHODIMP GetRecipientTable(ULONG, LPMAPITABLE* table) override
    {
        *table = new (std::nothrow) RecipientTable(stored_.recipients, allocators_);
        return *table ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
    }
    NO_SUPPORT(GetLastError(HRESULT, ULONG, LPMAPIERROR*))
    NO_SUPPORT(SaveChanges(ULONG))
    NO_SUPPORT(GetPropList(ULONG, LPSPropTagArray*))
    NO_SUPPORT(OpenProperty(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN*))
    NO_SUPPORT(SetProps(ULONG, LPSPropValue, LPSPropProblemArray*))
    NO_SUPPORT(DeleteProps(LPSPropTagArray, LPSPropProblemArray*))
    NO_SUPPORT(CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                      LPSPropProblemArray*))
    NO_SUPPORT(CopyProps(LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG, LPSPropProblemArray*))
    NO_SUPPORT(GetNamesFromIDs(LPSPropTagArray*, LPGUID, ULONG, ULONG*, LPMAPINAMEID**))
    NO_SUPPORT(GetIDsFromNames(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray*))
    NO_SUPPORT(GetAttachmentTable(ULONG, LPMAPITABLE*))
    NO_SUPPORT(OpenAttach(ULONG, LPCIID, ULONG, LPATTACH*))
    NO_SUPPORT(CreateAttach(LPCIID, ULONG, ULONG*, LPATTACH*))
    NO_SUPPORT(DeleteAttach(ULONG, ULONG, LPMAPIPROGRESS, ULONG))
    NO_SUPPORT(ModifyRecipients(ULONG, LPADRLIST))
    NO_SUPPORT(SubmitMessage(ULONG))
    NO_SUPPORT(SetReadFlag(ULONG))

private:
    bool offers(REFIID iid) const override { return iid == iidMapiProp || iid == iidMessage; }

    Microsoft::WRL::ComPtr<IStorage> storage_; // held open, as MAPI holds it
    MapiAllocators allocators_;
    StoredMessage stored_;
};

// MAPI's linked allocation: a block from MAPIAllocateBuffer owns the blocks
// allocated "more" on it, chained behind a header, and MAPIFreeBuffer on it
// frees them all.
struct Block {
    Block* next;
};
std::atomic<LONG> liveBlocks{0};

bool openIsToFail()
{
    wchar_t value[32] = {};
    const DWORD length = GetEnvironmentVariableW(standInMapiOpenSwitch, value, 32);
    return length > 0 && length < 32 && lstrcmpiW(value, L"fail") == 0;
}

} // namespace

extern "C" SCODE WINAPI MAPIAllocateBuffer(ULONG size, LPVOID* buffer)
{
    auto* block = buffer ? static_cast<Block*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(Block) + size))
                         : nullptr;
    if (!block)
        return MAPI_E_NOT_ENOUGH_MEMORY;
    ++liveBlocks;
    *buffer = block + 1;
    return S_OK;
}

extern "C" SCODE WINAPI MAPIAllocateMore(ULONG size, LPVOID parent, LPVOID* buffer)
{
    if (!parent || MAPIAllocateBuffer(size, buffer) != S_OK)
        return MAPI_E_INVALID_PARAMETER;
    Block* owner = static_cast<Block*>(parent) - 1;
    Block* block = static_cast<Block*>(*buffer) - 1;
    block->next = owner->next;
    owner->next = block;
    return S_OK;
}

extern "C" ULONG WINAPI MAPIFreeBuffer(LPVOID buffer)
{
    for (Block* block = buffer ? static_cast<Block*>(buffer) - 1 : nullptr; block;) {
        Block* next = block->next;
        HeapFree(GetProcessHeap(), 0, block);
        --liveBlocks;
        block = next;
    }
    return S_OK;
}

extern "C" LPMALLOC STDAPICALLTYPE MAPIGetDefaultMalloc()
{
    // Handed out without a reference for the caller, as MAPI's own is.
    LPMALLOC malloc = nullptr;
    if (FAILED(CoGetMalloc(1, &malloc)))
        return nullptr;
    malloc->Release();
    return malloc;
}

extern "C" SCODE STDAPICALLTYPE OpenIMsgOnIStg(LPMSGSESS, LPALLOCATEBUFFER allocateBuffer, LPALLOCATEMORE allocateMore,
                                               LPFREEBUFFER freeBuffer, LPMALLOC, LPVOID, LPSTORAGE storage,
                                               MSGCALLRELEASE*, ULONG, ULONG, LPMESSAGE* message)
{
    if (!message)
        return MAPI_E_INVALID_PARAMETER;
    *message = nullptr;
    if (openIsToFail()) {
        KV_INFO(logger) << "OpenIMsgOnIStg fails as " << standInMapiOpenSwitch << " asks";
        return MAPI_E_CORRUPT_DATA;
    }
    if (!allocateBuffer || !allocateMore || !freeBuffer || !storage)
        return MAPI_E_INVALID_PARAMETER;
    StoredMessage stored;
    const HRESULT hr = readStoredMessage(storage, stored);
    if (FAILED(hr)) {
        KV_WARN(logger) << "the storage can't be read as a message, hr=" << hr;
        return MAPI_E_CORRUPT_DATA;
    }
    *message = new (std::nothrow)
        MessageOnStorage(storage, MapiAllocators{allocateBuffer, allocateMore, freeBuffer}, std::move(stored));
    return *message ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
}

extern "C" ULONG WINAPI StandInLiveAllocations()
{
    return static_cast<ULONG>(liveBlocks.load());
}
