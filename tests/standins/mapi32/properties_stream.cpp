#include "properties_stream.h"

#include "core/log.h"
#include "common/hresult.h"
#include "items/msg_layout.h"
#include "items/property_text.h"

#include <mapicode.h>

#include <wrl/client.h>

#include <algorithm>
#include <cstring>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("MapiStandIn");

constexpr uint32_t entryFlags = MsgLayout::flagReadable | MsgLayout::flagWritable;
// Larger than any properties stream can be (every id once).
constexpr ULONGLONG maxPropertiesStreamBytes = MsgLayout::messageHeaderSize + MsgLayout::entrySize * 0x10000;

uint32_t readLe32(const std::string& bytes, size_t offset)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

void appendLe32(std::string& bytes, uint32_t value)
{
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

bool isStreamed(uint32_t tag)
{
    return MsgLayout::valueKindOf(propertyTypeOf(tag)) == MsgLayout::ValueKind::Streamed;
}

bool isWritable(const StoredProperty& value)
{
    switch (MsgLayout::valueKindOf(propertyTypeOf(value.tag))) {
    case MsgLayout::ValueKind::Fixed:
        return value.bytes.size() == 8;
    case MsgLayout::ValueKind::Streamed:
        return value.bytes.size() < 0x7FFFFFFF;
    default:
        return false;
    }
}

HRESULT readWholeStream(IStream* stream, std::string& bytes)
{
    STATSTG stat{};
    RETURN_IF_FAILED(stream->Stat(&stat, STATFLAG_NONAME));
    if (stat.cbSize.QuadPart > maxPropertiesStreamBytes)
        return STG_E_DOCFILECORRUPT;
    bytes.assign(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
    ULONG read = 0;
    RETURN_IF_FAILED(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read));
    bytes.resize(std::min<size_t>(read, bytes.size()));
    return S_OK;
}

HRESULT openOrCreatePropertiesStream(IStorage* storage, ComPtr<IStream>& stream, std::string& bytes)
{
    const DWORD mode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    HRESULT hr = storage->OpenStream(MsgLayout::propertiesStream, nullptr, mode, 0, &stream);
    if (hr == STG_E_FILENOTFOUND) {
        RETURN_IF_FAILED(storage->CreateStream(MsgLayout::propertiesStream, STGM_CREATE | mode, 0, 0, &stream));
        bytes.assign(MsgLayout::messageHeaderSize, '\0');
        return S_OK;
    }
    if (FAILED(hr)) {
        KV_WARN(logger) << "properties stream can't be opened for writing, hr=" << hr;
        return hr;
    }
    RETURN_IF_FAILED(readWholeStream(stream.Get(), bytes));
    if (bytes.size() < MsgLayout::messageHeaderSize ||
        (bytes.size() - MsgLayout::messageHeaderSize) % MsgLayout::entrySize != 0) {
        KV_WARN(logger) << "properties stream of " << bytes.size() << " bytes is no header and whole entries";
        return STG_E_DOCFILECORRUPT;
    }
    return S_OK;
}

// The stream of a string, binary or GUID, and the size its entry records
// (a string's terminator counted, as the layout has it).
HRESULT writeValueStream(IStorage* storage, const StoredProperty& value, uint32_t& entrySizeField)
{
    const std::wstring name = MsgLayout::substorageStreamName(value.tag);
    ComPtr<IStream> stream;
    RETURN_IF_FAILED(
        storage->CreateStream(name.c_str(), STGM_CREATE | STGM_WRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &stream));
    ULONG written = 0;
    RETURN_IF_FAILED(stream->Write(value.bytes.data(), static_cast<ULONG>(value.bytes.size()), &written));
    if (written != value.bytes.size())
        return STG_E_WRITEFAULT;
    entrySizeField = static_cast<uint32_t>(value.bytes.size() + MsgLayout::terminatorSizeOf(propertyTypeOf(value.tag)));
    return stream->Commit(STGC_DEFAULT);
}

HRESULT replaceStreamContent(IStream* stream, const std::string& bytes)
{
    RETURN_IF_FAILED(stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr));
    ULARGE_INTEGER size{};
    size.QuadPart = bytes.size();
    RETURN_IF_FAILED(stream->SetSize(size));
    ULONG written = 0;
    RETURN_IF_FAILED(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
    if (written != bytes.size())
        return STG_E_WRITEFAULT;
    return stream->Commit(STGC_DEFAULT);
}

} // namespace

HRESULT writePropertyChanges(IStorage* storage, const std::vector<StoredProperty>& values,
                             const std::vector<uint16_t>& removedIds)
{
    if (!storage)
        return E_POINTER;
    for (const StoredProperty& value : values) {
        if (!isWritable(value)) {
            KV_WARN(logger) << "property 0x" << MsgLayout::hex8(value.tag) << " can't be written to a storage";
            return MAPI_E_INVALID_TYPE;
        }
    }

    ComPtr<IStream> stream;
    std::string old;
    RETURN_IF_FAILED(openOrCreatePropertiesStream(storage, stream, old));

    const auto isReplaced = [&](uint16_t id) {
        return std::find(removedIds.begin(), removedIds.end(), id) != removedIds.end() ||
               std::any_of(values.begin(), values.end(),
                           [id](const StoredProperty& value) { return propertyIdOf(value.tag) == id; });
    };

    std::string rewritten = old.substr(0, MsgLayout::messageHeaderSize);
    std::vector<uint32_t> goneStreams;
    for (size_t at = MsgLayout::messageHeaderSize; at + MsgLayout::entrySize <= old.size(); at += MsgLayout::entrySize) {
        const uint32_t tag = readLe32(old, at);
        if (!isReplaced(propertyIdOf(tag)))
            rewritten.append(old, at, MsgLayout::entrySize);
        else if (isStreamed(tag))
            goneStreams.push_back(tag);
    }
    // Old streams go first: a new value of the same tag writes its own again.
    for (uint32_t tag : goneStreams) {
        const HRESULT hr = storage->DestroyElement(MsgLayout::substorageStreamName(tag).c_str());
        if (FAILED(hr) && hr != STG_E_FILENOTFOUND)
            KV_WARN(logger) << "stream of property 0x" << MsgLayout::hex8(tag) << " can't be removed, hr=" << hr;
    }
    for (const StoredProperty& value : values) {
        appendLe32(rewritten, value.tag);
        appendLe32(rewritten, entryFlags);
        if (isStreamed(value.tag)) {
            uint32_t size = 0;
            RETURN_IF_FAILED(writeValueStream(storage, value, size));
            appendLe32(rewritten, size);
            appendLe32(rewritten, 0);
        } else {
            rewritten.append(value.bytes, 0, 8);
        }
    }
    return replaceStreamContent(stream.Get(), rewritten);
}
