#include "items/msg_storage.h"

#include "core/log.h"
#include "items/msg_layout.h"
#include "items/msg_properties_stream.h"
#include "items/property_text.h"

#include <wrl/client.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <memory>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("MailItem");

using MsgPropertiesStream::placeText;
using MsgPropertiesStream::tagText;

// Children of a compound file can only be opened exclusively; reading is all we do.
constexpr DWORD childMode = STGM_READ | STGM_SHARE_EXCLUSIVE;

// Every property id at most once: anything longer is not a properties stream.
constexpr size_t maxPropertiesStreamBytes = MsgLayout::messageHeaderSize + MsgLayout::entrySize * 0x10000;

// Reads go in steps of at most this much, so that a size taken from the file
// never becomes one huge allocation before a byte has arrived.
constexpr size_t maxReadStep = size_t(1) << 20;
constexpr size_t minReadStep = 512;

std::wstring hrText(HRESULT hr)
{
    wchar_t text[16] = {};
    std::swprintf(text, 16, L"0x%08X", static_cast<unsigned>(hr));
    return text;
}

uint32_t readLe32(const char* bytes)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

struct TaskMemFree {
    void operator()(wchar_t* text) const { CoTaskMemFree(text); }
};
using TaskMemText = std::unique_ptr<wchar_t, TaskMemFree>;

// Reads until the stream ends or `limit` bytes are in. Stat is not asked:
// only what Read really delivers counts, so a stream that reports more than
// it holds, or delivers in dribbles, can't make us over-read or spin.
HRESULT readBounded(IStream* stream, size_t limit, size_t sizeHint, std::string& bytes)
{
    bytes.clear();
    size_t step = std::clamp(sizeHint, minReadStep, maxReadStep);
    while (bytes.size() < limit) {
        const size_t want = std::min(limit - bytes.size(), step);
        const size_t before = bytes.size();
        bytes.resize(before + want);
        ULONG got = 0;
        const HRESULT hr = stream->Read(bytes.data() + before, static_cast<ULONG>(want), &got);
        bytes.resize(before + std::min<size_t>(got, want));
        if (FAILED(hr))
            return hr;
        if (got == 0)
            break;
        step = std::min(step * 2, maxReadStep);
    }
    return S_OK;
}

// The bytes of one variable-size value from its "__substg1.0_" stream. The
// entry's size counts a string's terminator, which the stream may or may not
// hold, so a string stream may be that much shorter than the size says.
HRESULT readStreamedValue(IStorage* storage, const std::wstring& where, uint32_t tag, uint32_t size,
                          const StoredReadLimits& limits, std::string& bytes)
{
    const uint16_t type = propertyTypeOf(tag);
    const size_t terminator = MsgLayout::terminatorSizeOf(type);
    const size_t minimum = size >= terminator ? size - terminator : size;
    if (size > limits.maxValueBytes) {
        KV_WARN(logger) << "value " << tagText(tag) << " in " << placeText(where) << " claims " << size
                        << " bytes, more than the limit of " << limits.maxValueBytes << ", left out";
        return STG_E_DOCFILETOOLARGE;
    }
    const MsgLayout::SubstorageName name(tag);
    ComPtr<IStream> stream;
    HRESULT hr = storage->OpenStream(name.c_str(), nullptr, childMode, 0, &stream);
    if (FAILED(hr)) {
        if (minimum == 0) {
            // Some writers leave out the stream of an empty value.
            bytes.clear();
            return S_OK;
        }
        KV_WARN(logger) << "stream " << name.c_str() << " of " << placeText(where)
                        << " can't be opened, hr=" << hrText(hr) << ", value left out";
        return STG_E_DOCFILECORRUPT;
    }
    hr = readBounded(stream.Get(), size, size, bytes);
    if (FAILED(hr)) {
        KV_WARN(logger) << "reading stream " << name.c_str() << " of " << placeText(where) << " failed after "
                        << bytes.size() << " bytes, hr=" << hrText(hr) << ", value left out";
        return hr;
    }
    const size_t got = bytes.size();
    if (!MsgPropertiesStream::completeStreamedValue(tag, size, bytes)) {
        KV_WARN(logger) << "stream " << name.c_str() << " of " << placeText(where) << " holds " << got
                        << " bytes, its entry says " << size << ", value left out";
        return STG_E_DOCFILECORRUPT;
    }
    return S_OK;
}

// What one read carries through all its storages.
struct ReadContext {
    const StoredReadLimits& limits;
    std::vector<SkippedValue>& skipped;
    std::string scratch; // the properties stream being parsed, reused storage by storage
    std::string header;  // its header
    bool leaveAttachmentData = false; // while attachment storages are read without their bytes

    void skip(const std::wstring& where, uint32_t tag, HRESULT hr) { skipped.push_back(SkippedValue{where, tag, hr}); }
};

// Reads "__properties_version1.0" of the message (or of one recipient or
// attachment storage) and the values it points at. A failure means the
// properties stream itself is unusable; values that can't be read are left
// out and listed in `skipped`.
HRESULT readPropertiesStorage(IStorage* storage, size_t headerSize, const std::wstring& where, ReadContext& context,
                              StoredProperties& properties)
{
    ComPtr<IStream> stream;
    HRESULT hr = storage->OpenStream(MsgLayout::propertiesStream, nullptr, childMode, 0, &stream);
    if (FAILED(hr)) {
        KV_WARN(logger) << "no properties stream in " << placeText(where) << ", hr=" << hrText(hr);
        return hr == STG_E_FILENOTFOUND ? STG_E_FILENOTFOUND : hr;
    }
    std::string& bytes = context.scratch;
    // One byte beyond the bound tells an overlong stream from one that just fits.
    hr = readBounded(stream.Get(), maxPropertiesStreamBytes + 1, 4096, bytes);
    if (FAILED(hr)) {
        KV_WARN(logger) << "reading the properties stream of " << placeText(where) << " failed after " << bytes.size()
                        << " bytes, hr=" << hrText(hr);
        return hr;
    }
    if (bytes.size() > maxPropertiesStreamBytes) {
        KV_WARN(logger) << "properties stream of " << placeText(where) << " is longer than " << maxPropertiesStreamBytes
                        << " bytes, not a properties stream";
        return STG_E_DOCFILECORRUPT;
    }
    const std::optional<size_t> entries = MsgPropertiesStream::entriesOffset(bytes.size(), headerSize, where);
    if (!entries)
        return STG_E_DOCFILECORRUPT;
    context.header.assign(bytes, 0, *entries);

    MsgPropertiesStream::readEntries(
        bytes, *entries, where, context.leaveAttachmentData,
        [&](uint32_t tag, uint32_t size, std::string& value) {
            const HRESULT valueHr = readStreamedValue(storage, where, tag, size, context.limits, value);
            if (FAILED(valueHr))
                context.skip(where, tag, valueHr);
            return SUCCEEDED(valueHr);
        },
        properties);
    return S_OK;
}

struct RowStorage {
    uint32_t number = 0;
    std::wstring name;
};

// "__recip_version1.0_#0000001A" → 0x1A; anything else is not a row storage.
bool parseRowNumber(const std::wstring& name, const wchar_t* prefix, uint32_t& number)
{
    const size_t prefixLength = std::wcslen(prefix);
    if (name.size() != prefixLength + 8 || name.compare(0, prefixLength, prefix) != 0)
        return false;
    uint32_t value = 0;
    for (size_t i = prefixLength; i < name.size(); ++i) {
        const wchar_t c = name[i];
        uint32_t digit = 0;
        if (c >= L'0' && c <= L'9')
            digit = c - L'0';
        else if (c >= L'A' && c <= L'F')
            digit = c - L'A' + 10;
        else if (c >= L'a' && c <= L'f')
            digit = c - L'a' + 10;
        else
            return false;
        value = value << 4 | digit;
    }
    number = value;
    return true;
}

HRESULT findRowStorages(IStorage* storage, std::vector<RowStorage>& recipients, std::vector<RowStorage>& attachments)
{
    ComPtr<IEnumSTATSTG> elements;
    HRESULT hr = storage->EnumElements(0, nullptr, 0, &elements);
    if (FAILED(hr)) {
        KV_WARN(logger) << "EnumElements of the message failed, hr=" << hrText(hr);
        return hr;
    }
    constexpr ULONG batch = 64;
    for (;;) {
        STATSTG stats[batch] = {};
        ULONG fetched = 0;
        hr = elements->Next(batch, stats, &fetched);
        if (FAILED(hr)) {
            KV_WARN(logger) << "enumerating the elements of the message failed, hr=" << hrText(hr);
            return hr;
        }
        fetched = std::min(fetched, batch);
        for (ULONG i = 0; i < fetched; ++i) {
            const TaskMemText name(stats[i].pwcsName);
            if (stats[i].type != STGTY_STORAGE || !name)
                continue;
            RowStorage row;
            row.name = name.get();
            if (parseRowNumber(row.name, MsgLayout::recipientPrefix, row.number))
                recipients.push_back(std::move(row));
            else if (parseRowNumber(row.name, MsgLayout::attachmentPrefix, row.number))
                attachments.push_back(std::move(row));
        }
        if (hr != S_OK || fetched == 0)
            break;
    }
    const auto byNumber = [](const RowStorage& a, const RowStorage& b) { return a.number < b.number; };
    std::stable_sort(recipients.begin(), recipients.end(), byNumber);
    std::stable_sort(attachments.begin(), attachments.end(), byNumber);
    return S_OK;
}

void readRows(IStorage* storage, const std::vector<RowStorage>& rows, const wchar_t* kind, ReadContext& context,
              std::vector<StoredProperties>& target, std::vector<std::wstring>* names = nullptr)
{
    const size_t count = std::min(rows.size(), context.limits.maxRows);
    if (rows.size() > count) {
        KV_WARN(logger) << "the message has " << rows.size() << " " << kind << " storages, only the first " << count
                        << " are read";
        context.skip(rows[count].name, 0, STG_E_DOCFILETOOLARGE);
    }
    target.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const RowStorage& row = rows[i];
        ComPtr<IStorage> child;
        HRESULT hr = storage->OpenStorage(row.name.c_str(), nullptr, childMode, nullptr, 0, &child);
        if (FAILED(hr)) {
            KV_WARN(logger) << "OpenStorage " << row.name << " failed, hr=" << hrText(hr) << ", " << kind
                            << " left out";
            context.skip(row.name, 0, hr);
            continue;
        }
        StoredProperties properties;
        hr = readPropertiesStorage(child.Get(), MsgLayout::rowHeaderSize, row.name, context, properties);
        if (FAILED(hr)) {
            KV_WARN(logger) << kind << " " << row.name << " left out, hr=" << hrText(hr);
            context.skip(row.name, 0, hr);
            continue;
        }
        target.push_back(std::move(properties));
        if (names)
            names->push_back(row.name);
    }
}

void checkHeaderCount(const std::string& header, size_t offset, size_t found, const wchar_t* kind)
{
    const uint32_t declared = readLe32(header.data() + offset);
    if (declared != found) {
        KV_WARN(logger) << "the message header counts " << declared << " " << kind << "s, the storage holds " << found;
    }
}

} // namespace

HRESULT readStoredMessage(IStorage* storage, StoredMessage& message, const StoredReadLimits& limits)
{
    KV_DEBUG(logger) << "readStoredMessage(storage=" << storage << ")";
    const ULONGLONG started = GetTickCount64();
    message = StoredMessage{};
    if (!storage) {
        KV_WARN(logger) << ")readStoredMessage=" << hrText(E_POINTER) << ", no storage";
        return E_POINTER;
    }

    ReadContext context{limits, message.skipped, {}, {}};
    const size_t headerSize =
        limits.embeddedMessage ? MsgLayout::embeddedMessageHeaderSize : MsgLayout::messageHeaderSize;
    HRESULT hr = readPropertiesStorage(storage, headerSize, L"", context, message.properties);
    if (FAILED(hr)) {
        KV_WARN(logger) << ")readStoredMessage=" << hrText(hr)
                        << (hr == STG_E_FILENOTFOUND ? ", not a message storage"
                                                     : ", the message's properties can't be read");
        return hr;
    }

    std::vector<RowStorage> recipientRows;
    std::vector<RowStorage> attachmentRows;
    hr = findRowStorages(storage, recipientRows, attachmentRows);
    if (FAILED(hr)) {
        KV_WARN(logger) << ")readStoredMessage=" << hrText(hr) << ", recipients and attachments can't be found";
        return hr;
    }
    checkHeaderCount(context.header, MsgLayout::recipientCountOffset, recipientRows.size(), L"recipient");
    checkHeaderCount(context.header, MsgLayout::attachmentCountOffset, attachmentRows.size(), L"attachment");
    readRows(storage, recipientRows, L"recipient", context, message.recipients);
    if (context.limits.readAttachments) {
        context.leaveAttachmentData = !context.limits.readAttachmentData;
        readRows(storage, attachmentRows, L"attachment", context, message.attachments, &message.attachmentNames);
    }

    hr = message.skipped.empty() ? S_OK : S_FALSE;
    KV_DEBUG(logger) << ")readStoredMessage=" << hrText(hr) << ", properties=" << message.properties.size()
                     << ", recipients=" << message.recipients.size() << ", attachments=" << message.attachments.size()
                     << ", skipped=" << message.skipped.size() << ", ms=" << (GetTickCount64() - started);
    return hr;
}

const StoredProperty* findStoredProperty(const StoredProperties& properties, uint16_t propertyId)
{
    const auto found = properties.find(propertyId);
    return found == properties.end() ? nullptr : &found->second;
}

std::optional<uint32_t> findStoredLong(const StoredProperties& properties, uint16_t propertyId)
{
    const StoredProperty* property = findStoredProperty(properties, propertyId);
    if (!property || property->bytes.size() < 4)
        return std::nullopt;
    const uint16_t type = propertyTypeOf(property->tag);
    if (type != PropertyType::Long && type != PropertyType::Boolean)
        return std::nullopt;
    const uint32_t value = readLe32(property->bytes.data());
    return type == PropertyType::Boolean ? value & 0xFFFF : value;
}

const wchar_t* storedReadProblem(HRESULT hr)
{
    switch (hr) {
    case STG_E_FILENOTFOUND: return L"the storage has no properties stream, it is not a mail";
    case STG_E_DOCFILECORRUPT: return L"the mail's properties stream is damaged";
    case E_POINTER: return L"there is no storage";
    default: return L"the mail's storage can't be read";
    }
}
