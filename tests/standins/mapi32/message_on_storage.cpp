#include "message_on_storage.h"

#include "mapi_com.h"
#include "properties_stream.h"
#include "property_values.h"
#include "recipient_table.h"

#include "core/log.h"
#include "common/hresult.h"
#include "items/msg_storage.h"
#include "items/property_text.h"

#include <mapicode.h>
#include <wrl/client.h>

#include <atomic>
#include <cstring>
#include <new>
#include <set>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("MapiStandIn");

class MessageOnStorage final : public IMessage {
public:
    MessageOnStorage(IStorage* storage, const MessageOpenOptions& options, StoredMessage stored)
        : storage_(storage), malloc_(options.malloc), options_(options), stored_(std::move(stored))
    {
    }

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == standInIidMapiProp || riid == standInIidMessage) {
            *object = static_cast<IMessage*>(this);
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
        if (left == 0) {
            if (options_.onRelease)
                options_.onRelease(options_.callerData, this);
            delete this;
        }
        return left;
    }

    // IMAPIProp
    STDMETHODIMP GetLastError(HRESULT, ULONG, LPMAPIERROR* error) override
    {
        clearOut(error);
        return MAPI_E_NO_SUPPORT;
    }

    STDMETHODIMP SaveChanges(ULONG flags) override
    {
        if (readOnly_)
            return MAPI_E_NO_ACCESS;
        std::vector<StoredProperty> values;
        for (const auto& [id, value] : changed_)
            values.push_back(value);
        const std::vector<uint16_t> removed(deleted_.begin(), deleted_.end());
        // Nothing changed: the storage is not touched, so a read-only one saves too.
        HRESULT hr = values.empty() && removed.empty() ? S_OK : writePropertyChanges(storage_.Get(), values, removed);
        if (SUCCEEDED(hr) && !(options_.flags & IMSG_NO_ISTG_COMMIT))
            hr = storage_->Commit(STGC_DEFAULT);
        if (FAILED(hr)) {
            KV_WARN(logger) << "SaveChanges could not write the storage, hr=" << hr;
            return hr;
        }
        for (auto& [id, value] : changed_)
            stored_.properties[id] = std::move(value);
        for (uint16_t id : deleted_)
            stored_.properties.erase(id);
        changed_.clear();
        deleted_.clear();
        // Without KEEP_OPEN_READWRITE the message takes no further changes.
        if (!(flags & KEEP_OPEN_READWRITE))
            readOnly_ = true;
        return S_OK;
    }

    STDMETHODIMP GetProps(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) override
    {
        if (!count || !values)
            return MAPI_E_INVALID_PARAMETER;
        *count = 0;
        *values = nullptr;
        const bool unicode = (flags & MAPI_UNICODE) != 0;
        std::vector<ULONG> wanted;
        if (tags) {
            if (tags->cValues == 0)
                return MAPI_E_INVALID_PARAMETER;
            wanted.assign(tags->aulPropTag, tags->aulPropTag + tags->cValues);
        } else {
            wanted = allTags(unicode);
        }

        void* block = nullptr;
        RETURN_IF_FAILED(options_.allocators.allocateBuffer(
            static_cast<ULONG>(std::max<size_t>(wanted.size(), 1) * sizeof(SPropValue)), &block));
        auto* array = static_cast<LPSPropValue>(block);
        bool anyMissing = false;
        for (size_t i = 0; i < wanted.size(); ++i) {
            const HRESULT hr =
                makePropValue(wanted[i], find(PROP_ID(wanted[i])), unicode, options_.allocators, block, array[i]);
            if (hr == MAPI_E_NOT_FOUND) {
                anyMissing = true;
            } else if (FAILED(hr)) {
                options_.allocators.freeBuffer(block);
                return hr;
            }
        }
        *count = static_cast<ULONG>(wanted.size());
        *values = array;
        return anyMissing ? MAPI_W_ERRORS_RETURNED : S_OK;
    }

    STDMETHODIMP GetPropList(ULONG flags, LPSPropTagArray* tags) override
    {
        if (!tags)
            return MAPI_E_INVALID_PARAMETER;
        *tags = nullptr;
        const std::vector<ULONG> list = allTags((flags & MAPI_UNICODE) != 0);
        void* block = nullptr;
        RETURN_IF_FAILED(options_.allocators.allocateBuffer(CbNewSPropTagArray(list.size()), &block));
        auto* array = static_cast<LPSPropTagArray>(block);
        array->cValues = static_cast<ULONG>(list.size());
        std::copy(list.begin(), list.end(), array->aulPropTag);
        *tags = array;
        return S_OK;
    }

    // Read-only streams over strings and binaries, for callers that read
    // large values (bodies) the way MAPI wants them read.
    STDMETHODIMP OpenProperty(ULONG tag, LPCIID iid, ULONG, ULONG flags, LPUNKNOWN* object) override
    {
        if (!object || !iid)
            return MAPI_E_INVALID_PARAMETER;
        *object = nullptr;
        if (*iid != IID_IStream || (flags & (MAPI_MODIFY | MAPI_CREATE)))
            return MAPI_E_NO_SUPPORT;
        std::string bytes;
        RETURN_IF_FAILED(streamBytesOf(tag, bytes));
        ComPtr<IStream> stream;
        RETURN_IF_FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &stream));
        ULONG written = 0;
        RETURN_IF_FAILED(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
        RETURN_IF_FAILED(stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr));
        *object = stream.Detach();
        return S_OK;
    }

    STDMETHODIMP SetProps(ULONG count, LPSPropValue values, LPSPropProblemArray* problems) override
    {
        clearOut(problems);
        if (!values && count)
            return MAPI_E_INVALID_PARAMETER;
        if (readOnly_)
            return MAPI_E_NO_ACCESS;
        std::vector<SPropProblem> found;
        for (ULONG i = 0; i < count; ++i) {
            StoredProperty stored;
            if (!storedFromPropValue(values[i], stored)) {
                found.push_back(SPropProblem{i, values[i].ulPropTag, MAPI_E_INVALID_TYPE});
                continue;
            }
            const uint16_t id = propertyIdOf(stored.tag);
            deleted_.erase(id);
            changed_[id] = std::move(stored);
        }
        return reportProblems(found, problems);
    }

    STDMETHODIMP DeleteProps(LPSPropTagArray tags, LPSPropProblemArray* problems) override
    {
        clearOut(problems);
        if (!tags)
            return MAPI_E_INVALID_PARAMETER;
        if (readOnly_)
            return MAPI_E_NO_ACCESS;
        std::vector<SPropProblem> found;
        for (ULONG i = 0; i < tags->cValues; ++i) {
            const uint16_t id = static_cast<uint16_t>(PROP_ID(tags->aulPropTag[i]));
            if (!find(id)) {
                found.push_back(SPropProblem{i, tags->aulPropTag[i], MAPI_E_NOT_FOUND});
                continue;
            }
            changed_.erase(id);
            deleted_.insert(id);
        }
        return reportProblems(found, problems);
    }

    STDMETHODIMP CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                        LPSPropProblemArray* problems) override
    {
        clearOut(problems);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP CopyProps(LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                           LPSPropProblemArray* problems) override
    {
        clearOut(problems);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP GetNamesFromIDs(LPSPropTagArray*, LPGUID, ULONG, ULONG* count, LPMAPINAMEID** names) override
    {
        clearOut(count);
        clearOut(names);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP GetIDsFromNames(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray* tags) override
    {
        clearOut(tags);
        return MAPI_E_NO_SUPPORT;
    }

    // IMessage
    STDMETHODIMP GetAttachmentTable(ULONG, LPMAPITABLE* table) override
    {
        clearOut(table);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP OpenAttach(ULONG, LPCIID, ULONG, LPATTACH* attach) override
    {
        clearOut(attach);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP CreateAttach(LPCIID, ULONG, ULONG* number, LPATTACH* attach) override
    {
        clearOut(number);
        clearOut(attach);
        return MAPI_E_NO_SUPPORT;
    }
    STDMETHODIMP DeleteAttach(ULONG, ULONG, LPMAPIPROGRESS, ULONG) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP GetRecipientTable(ULONG flags, LPMAPITABLE* table) override
    {
        if (!table)
            return MAPI_E_INVALID_PARAMETER;
        return createRecipientTable(stored_.recipients, flags, options_.allocators, table);
    }
    STDMETHODIMP ModifyRecipients(ULONG, LPADRLIST) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP SubmitMessage(ULONG) override { return MAPI_E_NO_SUPPORT; }
    STDMETHODIMP SetReadFlag(ULONG) override { return MAPI_E_NO_SUPPORT; }

private:
    ~MessageOnStorage() = default;

    // The value as it stands now: changes and deletions over what the storage held.
    const StoredProperty* find(uint16_t id) const
    {
        if (deleted_.count(id))
            return nullptr;
        if (const StoredProperty* changed = findStoredProperty(changed_, id))
            return changed;
        return findStoredProperty(stored_.properties, id);
    }

    std::vector<ULONG> allTags(bool unicode) const
    {
        std::vector<ULONG> list;
        for (const auto& [id, property] : stored_.properties) {
            if (!changed_.count(id) && !deleted_.count(id))
                list.push_back(reportedTag(property, unicode));
        }
        for (const auto& [id, property] : changed_)
            list.push_back(reportedTag(property, unicode));
        return list;
    }

    HRESULT streamBytesOf(ULONG tag, std::string& bytes) const
    {
        const StoredProperty* stored = find(static_cast<uint16_t>(PROP_ID(tag)));
        if (!stored)
            return MAPI_E_NOT_FOUND;
        const uint16_t have = propertyTypeOf(stored->tag);
        const ULONG wanted = PROP_TYPE(tag);
        const bool haveString = have == PT_UNICODE || have == PT_STRING8;
        if (wanted == PT_UNICODE && haveString) {
            const std::wstring text = propertyText(stored->tag, stored->bytes);
            bytes.assign(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
            return S_OK;
        }
        if (wanted == have && (have == PT_STRING8 || have == PT_BINARY)) {
            bytes = stored->bytes;
            return S_OK;
        }
        return MAPI_E_NOT_FOUND;
    }

    HRESULT reportProblems(const std::vector<SPropProblem>& found, LPSPropProblemArray* problems) const
    {
        if (!problems || found.empty())
            return S_OK;
        void* block = nullptr;
        RETURN_IF_FAILED(options_.allocators.allocateBuffer(CbNewSPropProblemArray(found.size()), &block));
        auto* array = static_cast<LPSPropProblemArray>(block);
        array->cProblem = static_cast<ULONG>(found.size());
        std::copy(found.begin(), found.end(), array->aProblem);
        *problems = array;
        return S_OK;
    }

    std::atomic<ULONG> refs_{1};
    ComPtr<IStorage> storage_;
    ComPtr<IMalloc> malloc_;
    MessageOpenOptions options_;
    StoredMessage stored_;
    StoredProperties changed_;
    std::set<uint16_t> deleted_;
    bool readOnly_ = false;
};

} // namespace

HRESULT openMessageOnStorage(IStorage* storage, const MessageOpenOptions& options, IMessage** message)
{
    if (!message || !storage)
        return MAPI_E_INVALID_PARAMETER;
    *message = nullptr;
    StoredMessage stored;
    const HRESULT hr = readStoredMessage(storage, stored);
    if (hr == STG_E_FILENOTFOUND) {
        // No properties stream yet: a new message, as MAPI opens one to fill it.
        stored = StoredMessage{};
    } else if (FAILED(hr)) {
        KV_WARN(logger) << "the storage can't be read as a message, hr=" << hr;
        return MAPI_E_CORRUPT_DATA;
    }
    *message = new (std::nothrow) MessageOnStorage(storage, options, std::move(stored));
    return *message ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
}
