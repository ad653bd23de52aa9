#include "items/eml_properties_mapi.h"

#include "core/log.h"
#include "common/hresult.h"
#include "items/msg_layout.h"
#include "items/property_text.h"

#include <mapicode.h>
#include <wrl/client.h>

#include <cstring>
#include <cwchar>

namespace {

const Logger logger("MailItem");

constexpr ULONG tagAttachNum = 0x0E210003;
constexpr ULONG tagAttachDataBin = 0x37010102;
constexpr size_t readStep = size_t(1) << 20;

// {0000000C-0000-0000-C000-000000000046}: IStream, spelled out so that no
// GUID library is needed at link time.
constexpr IID iidStream = {0x0000000C, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

HRESULT readStreamBounded(IStream* stream, size_t limit, std::string& bytes)
{
    bytes.clear();
    while (bytes.size() <= limit) {
        const size_t before = bytes.size();
        bytes.resize(before + readStep);
        ULONG got = 0;
        const HRESULT hr = stream->Read(bytes.data() + before, static_cast<ULONG>(readStep), &got);
        bytes.resize(before + std::min<size_t>(got, readStep));
        if (FAILED(hr))
            return hr;
        if (got == 0)
            return S_OK;
    }
    return STG_E_DOCFILETOOLARGE;
}

// A large string or binary as a stream: the way MAPI hands out what
// GetProps won't.
HRESULT readLargeValue(IMAPIProp* object, ULONG tag, size_t limit, std::string& bytes)
{
    Microsoft::WRL::ComPtr<IUnknown> unknown;
    HRESULT hr = object->OpenProperty(tag, &iidStream, 0, 0, &unknown);
    if (FAILED(hr))
        return hr;
    Microsoft::WRL::ComPtr<IStream> stream;
    hr = unknown.As(&stream);
    if (FAILED(hr))
        return hr;
    hr = readStreamBounded(stream.Get(), limit, bytes);
    if (FAILED(hr))
        return hr;
    // Strings may come with their terminator.
    const uint16_t type = propertyTypeOf(tag);
    const size_t terminator = type == PropertyType::Unicode ? 2 : type == PropertyType::String8 ? 1 : 0;
    while (terminator && bytes.size() >= terminator &&
           bytes.compare(bytes.size() - terminator, terminator, std::string(terminator, '\0')) == 0)
        bytes.resize(bytes.size() - terminator);
    return S_OK;
}

bool bytesOfValue(const SPropValue& value, std::string& bytes)
{
    switch (PROP_TYPE(value.ulPropTag)) {
    case PT_UNICODE:
        if (!value.Value.lpszW)
            return false;
        bytes.assign(reinterpret_cast<const char*>(value.Value.lpszW), std::wcslen(value.Value.lpszW) * 2);
        return true;
    case PT_STRING8:
        if (!value.Value.lpszA)
            return false;
        bytes.assign(value.Value.lpszA);
        return true;
    case PT_BINARY:
        if (!value.Value.bin.lpb && value.Value.bin.cb)
            return false;
        bytes.assign(reinterpret_cast<const char*>(value.Value.bin.lpb), value.Value.bin.cb);
        return true;
    case PT_LONG:
        bytes.assign(8, '\0');
        std::memcpy(bytes.data(), &value.Value.l, 4);
        return true;
    case PT_BOOLEAN:
        bytes.assign(8, '\0');
        std::memcpy(bytes.data(), &value.Value.b, sizeof value.Value.b);
        return true;
    case PT_SYSTIME:
        bytes.assign(reinterpret_cast<const char*>(&value.Value.ft), 8);
        return true;
    default:
        return false;
    }
}

} // namespace

HRESULT readPropertyMapThroughMapi(IMAPIProp* object, const MapiFunctions& mapi, const std::vector<ULONG>& tags,
                                   StoredProperties& properties, size_t maxValueBytes)
{
    if (!object || tags.empty())
        return E_POINTER;
    std::vector<ULONG> tagArray(tags.size() + 1);
    tagArray[0] = static_cast<ULONG>(tags.size());
    std::copy(tags.begin(), tags.end(), tagArray.begin() + 1);

    ULONG count = 0;
    MapiBuffer<SPropValue> values(mapi);
    const HRESULT hr =
        object->GetProps(reinterpret_cast<LPSPropTagArray>(tagArray.data()), MAPI_UNICODE, &count, values.put());
    if (hr != S_OK && hr != MAPI_W_ERRORS_RETURNED) {
        KV_WARN(logger) << "GetProps for the .eml failed, hr=" << hr;
        return hr;
    }
    for (ULONG i = 0; values.get() && i < count && i < tags.size(); ++i) {
        const SPropValue& value = values.get()[i];
        std::string bytes;
        if (PROP_TYPE(value.ulPropTag) == PT_ERROR) {
            if (value.Value.err != MAPI_E_NOT_ENOUGH_MEMORY)
                continue;
            const HRESULT streamHr = readLargeValue(object, tags[i], maxValueBytes, bytes);
            if (FAILED(streamHr)) {
                KV_WARN(logger) << "property 0x" << MsgLayout::hex8(tags[i])
                                << " can't be read as a stream, hr=" << streamHr;
                continue;
            }
            properties[propertyIdOf(tags[i])] = StoredProperty{tags[i], std::move(bytes)};
        } else if (bytesOfValue(value, bytes)) {
            properties[propertyIdOf(value.ulPropTag)] = StoredProperty{value.ulPropTag, std::move(bytes)};
        }
    }
    return S_OK;
}

HRESULT readAttachmentsThroughMapi(IMessage* message, const MapiFunctions& mapi, const std::vector<ULONG>& tags,
                                   std::vector<EmlAttachmentSource>& attachments)
{
    attachments.clear();
    Microsoft::WRL::ComPtr<IMAPITable> table;
    HRESULT hr = message->GetAttachmentTable(0, &table);
    if (FAILED(hr))
        return hr;
    ULONG rowCount = 0;
    hr = table->GetRowCount(0, &rowCount);
    if (FAILED(hr))
        return hr;
    MapiRows rows(mapi);
    hr = table->QueryRows(static_cast<LONG>(rowCount), 0, rows.put());
    if (FAILED(hr))
        return hr;
    for (ULONG r = 0; rows.get() && r < rows.get()->cRows; ++r) {
        const SRow& row = rows.get()->aRow[r];
        bool found = false;
        ULONG number = 0;
        for (ULONG c = 0; row.lpProps && c < row.cValues; ++c) {
            if (row.lpProps[c].ulPropTag == tagAttachNum) {
                number = static_cast<ULONG>(row.lpProps[c].Value.l);
                found = true;
            }
        }
        if (!found)
            continue;
        Microsoft::WRL::ComPtr<IAttach> attach;
        hr = message->OpenAttach(number, nullptr, 0, &attach);
        if (FAILED(hr)) {
            KV_WARN(logger) << "OpenAttach " << number << " failed, hr=" << hr;
            continue;
        }
        EmlAttachmentSource source;
        std::vector<ULONG> valueTags;
        for (ULONG tag : tags) {
            if (tag != tagAttachDataBin)
                valueTags.push_back(tag);
        }
        Microsoft::WRL::ComPtr<IUnknown> data;
        if (SUCCEEDED(attach->OpenProperty(tagAttachDataBin, &iidStream, 0, 0, &data)) &&
            SUCCEEDED(data.As(&source.dataStream))) {
            source.dataOwner = attach;
        } else {
            source.dataStream.Reset();
            valueTags = tags;
        }
        if (SUCCEEDED(readPropertyMapThroughMapi(attach.Get(), mapi, valueTags, source.properties)))
            attachments.push_back(std::move(source));
    }
    return S_OK;
}
