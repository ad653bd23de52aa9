#include "support/msg_builder.h"

#include "common/hresult.h"
#include "common/unique_resource.h"
#include "items/msg_layout.h"
#include "items/property_text.h"

#include <algorithm>
#include <cstring>

using Microsoft::WRL::ComPtr;

namespace {

constexpr DWORD createMode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
// Big attachments go into their stream a slice at a time, straight from the
// caller's bytes.
constexpr size_t writeChunk = size_t(1) << 20;

constexpr uint32_t storeUnicodeOk = 0x00040000;
constexpr uint32_t messageFlagRead = 0x01;
constexpr uint32_t messageFlagHasAttach = 0x10;
constexpr uint32_t objectTypeMailUser = 6;
constexpr uint32_t objectTypeAttach = 7;
constexpr uint32_t attachByValue = 1;

namespace Id = MsgPropertyId;

uint32_t tagOf(uint16_t id, uint16_t type)
{
    return static_cast<uint32_t>(id) << 16 | type;
}

void appendLe32(std::string& bytes, uint32_t value)
{
    char raw[4];
    std::memcpy(raw, &value, 4);
    bytes.append(raw, 4);
}

std::string ansiOf(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int size = static_cast<int>(text.size());
    const int length = WideCharToMultiByte(CP_ACP, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string narrow(length > 0 ? length : 0, '\0');
    if (length > 0)
        WideCharToMultiByte(CP_ACP, 0, text.data(), size, narrow.data(), length, nullptr, nullptr);
    return narrow;
}

// GlobalLock for as long as the object lives.
class LockedGlobal {
public:
    explicit LockedGlobal(HGLOBAL memory) : memory_(memory), data_(::GlobalLock(memory)) {}
    ~LockedGlobal()
    {
        if (data_)
            ::GlobalUnlock(memory_);
    }
    LockedGlobal(const LockedGlobal&) = delete;
    LockedGlobal& operator=(const LockedGlobal&) = delete;
    void* data() const { return data_; }

private:
    HGLOBAL memory_;
    void* data_;
};

// A value to write; large bytes (attachment data) are referenced, not copied.
struct PendingValue {
    uint32_t tag = 0;
    std::string owned;
    const std::string* external = nullptr;

    std::string_view bytes() const { return external ? std::string_view(*external) : std::string_view(owned); }
};

PendingValue pending(StoredProperty property)
{
    return PendingValue{property.tag, std::move(property.bytes), nullptr};
}

class PropertyList {
public:
    explicit PropertyList(bool unicode) : unicode_(unicode) {}

    void text(uint16_t id, std::wstring_view value)
    {
        if (value.empty())
            return;
        values_.push_back(pending(unicode_ ? unicodeProperty(id, value) : string8Property(id, ansiOf(value))));
    }
    void binary(uint16_t id, const std::string& value)
    {
        if (!value.empty())
            values_.push_back(PendingValue{tagOf(id, PropertyType::Binary), {}, &value});
    }
    void number(uint16_t id, uint32_t value) { values_.push_back(pending(longProperty(id, value))); }
    void time(uint16_t id, const std::optional<FILETIME>& value)
    {
        if (value)
            values_.push_back(pending(timeProperty(id, *value)));
    }
    // Replaces a value of the same id, so that a test can change one property
    // of an otherwise ordinary message.
    void replace(const StoredProperty& property)
    {
        const uint16_t id = propertyIdOf(property.tag);
        std::erase_if(values_, [id](const PendingValue& value) { return propertyIdOf(value.tag) == id; });
        values_.push_back(pending(property));
    }

    const std::vector<PendingValue>& values() const { return values_; }

private:
    bool unicode_;
    std::vector<PendingValue> values_;
};

HRESULT writeProperties(IStorage* storage, const std::string& header, const std::vector<PendingValue>& values)
{
    std::string stream = header;
    for (const PendingValue& value : values) {
        const uint16_t type = propertyTypeOf(value.tag);
        const std::string_view bytes = value.bytes();
        switch (MsgLayout::valueKindOf(type)) {
        case MsgLayout::ValueKind::Fixed: {
            char field[8] = {};
            std::memcpy(field, bytes.data(), std::min<size_t>(bytes.size(), 8));
            uint64_t raw = 0;
            std::memcpy(&raw, field, 8);
            stream += propertyEntry(value.tag, raw);
            break;
        }
        case MsgLayout::ValueKind::Streamed: {
            const uint64_t size = bytes.size() + MsgLayout::terminatorSizeOf(type);
            if (size > 0xFFFFFFFFu)
                return STG_E_DOCFILETOOLARGE;
            RETURN_IF_FAILED(writeRawSubstorageStream(storage, value.tag, bytes));
            stream += propertyEntry(value.tag, size);
            break;
        }
        case MsgLayout::ValueKind::Object:
        case MsgLayout::ValueKind::Unsupported:
            return E_INVALIDARG;
        }
    }
    return writeRawStream(storage, MsgLayout::propertiesStream, stream);
}

std::string rowHeader()
{
    return std::string(MsgLayout::rowHeaderSize, '\0');
}

std::string messageHeader(const MsgContent& content)
{
    std::string header(8, '\0');
    const auto recipients = static_cast<uint32_t>(content.recipients.size());
    const auto attachments = static_cast<uint32_t>(content.attachments.size());
    appendLe32(header, recipients);  // next recipient id
    appendLe32(header, attachments); // next attachment id
    appendLe32(header, recipients);
    appendLe32(header, attachments);
    header.append(8, '\0');
    return header;
}

// The 8.3 name Outlook keeps beside the long one.
std::wstring shortFileNameOf(const std::wstring& fileName)
{
    const size_t dot = fileName.find_last_of(L'.');
    std::wstring base = fileName.substr(0, dot);
    std::wstring extension = dot == std::wstring::npos ? L"" : fileName.substr(dot + 1);
    if (base.size() > 8)
        base = base.substr(0, 6) + L"~1";
    if (extension.size() > 3)
        extension.resize(3);
    return extension.empty() ? base : base + L"." + extension;
}

std::wstring extensionOf(const std::wstring& fileName)
{
    const size_t dot = fileName.find_last_of(L'.');
    return dot == std::wstring::npos ? L"" : fileName.substr(dot);
}

HRESULT writeRow(IStorage* message, const wchar_t* prefix, uint32_t number, const PropertyList& values)
{
    ComPtr<IStorage> row = createChildStorage(message, MsgLayout::rowStorageName(prefix, number));
    if (!row)
        return STG_E_CANTSAVE;
    RETURN_IF_FAILED(writeProperties(row.Get(), rowHeader(), values.values()));
    return row->Commit(STGC_DEFAULT);
}

HRESULT writeRecipient(IStorage* message, uint32_t number, const MsgRecipient& recipient, bool unicode)
{
    PropertyList values(unicode);
    values.number(Id::rowId, number);
    values.number(Id::recipientType, recipient.type);
    values.number(Id::objectType, objectTypeMailUser);
    values.number(Id::displayType, 0);
    values.text(Id::displayName, recipient.name);
    values.text(Id::emailAddress, recipient.address);
    values.text(Id::addrType, recipient.addrType);
    values.binary(Id::entryId, recipient.entryId);
    return writeRow(message, MsgLayout::recipientPrefix, number, values);
}

HRESULT writeAttachment(IStorage* message, uint32_t number, const MsgAttachment& attachment, bool unicode)
{
    PropertyList values(unicode);
    values.number(Id::attachNum, number);
    values.number(Id::objectType, objectTypeAttach);
    values.number(Id::attachMethod, attachByValue);
    values.number(Id::renderingPosition, 0xFFFFFFFF);
    values.number(Id::attachSize, static_cast<uint32_t>(std::min<size_t>(attachment.bytes.size(), 0xFFFFFFFF)));
    values.text(Id::attachFileName, shortFileNameOf(attachment.fileName));
    values.text(Id::attachLongFileName, attachment.fileName);
    values.text(Id::attachExtension, extensionOf(attachment.fileName));
    values.text(Id::attachMimeTag, attachment.mimeType);
    values.binary(Id::attachDataBin, attachment.bytes);
    return writeRow(message, MsgLayout::attachmentPrefix, number, values);
}

// Named-property mapping: empty, but present as in every real .msg.
HRESULT writeNameIdStorage(IStorage* message)
{
    ComPtr<IStorage> nameIds = createChildStorage(message, MsgLayout::nameIdStorage);
    if (!nameIds)
        return STG_E_CANTSAVE;
    for (uint32_t tag : {0x00020102u, 0x00030102u, 0x00040102u})
        RETURN_IF_FAILED(writeRawSubstorageStream(nameIds.Get(), tag, {}));
    return nameIds->Commit(STGC_DEFAULT);
}

} // namespace

StoredProperty unicodeProperty(uint16_t id, std::wstring_view text)
{
    std::string bytes(text.size() * sizeof(wchar_t), '\0');
    std::memcpy(bytes.data(), text.data(), bytes.size());
    return StoredProperty{tagOf(id, PropertyType::Unicode), std::move(bytes)};
}

StoredProperty string8Property(uint16_t id, std::string_view text)
{
    return StoredProperty{tagOf(id, PropertyType::String8), std::string(text)};
}

StoredProperty longProperty(uint16_t id, uint32_t value)
{
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &value, 4);
    return StoredProperty{tagOf(id, PropertyType::Long), std::move(bytes)};
}

StoredProperty timeProperty(uint16_t id, const FILETIME& time)
{
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &time, 8);
    return StoredProperty{tagOf(id, PropertyType::SysTime), std::move(bytes)};
}

FILETIME utcFileTime(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second)
{
    SYSTEMTIME utc{};
    utc.wYear = year;
    utc.wMonth = month;
    utc.wDay = day;
    utc.wHour = hour;
    utc.wMinute = minute;
    utc.wSecond = second;
    FILETIME time{};
    SystemTimeToFileTime(&utc, &time);
    return time;
}

HRESULT writeMsgStorage(IStorage* target, const MsgContent& content)
{
    if (!target)
        return E_POINTER;
    // The first element created becomes the root of Wine's directory tree:
    // the middle recipient, so that lookups of rows don't first walk past
    // every message-level stream.
    const auto recipientCount = static_cast<uint32_t>(content.recipients.size());
    for (uint32_t number : balancedCreationOrder(recipientCount))
        RETURN_IF_FAILED(writeRecipient(target, number, content.recipients[number], content.unicodeStrings));
    const auto attachmentCount = static_cast<uint32_t>(content.attachments.size());
    for (uint32_t number : balancedCreationOrder(attachmentCount))
        RETURN_IF_FAILED(writeAttachment(target, number, content.attachments[number], content.unicodeStrings));
    RETURN_IF_FAILED(writeNameIdStorage(target));

    PropertyList values(content.unicodeStrings);
    values.text(Id::messageClass, content.messageClass);
    values.text(Id::subject, content.subject);
    values.time(Id::clientSubmitTime, content.submitTime);
    values.time(Id::deliveryTime, content.deliveryTime);
    values.text(Id::senderName, content.senderName);
    values.text(Id::senderEmail, content.senderAddress);
    values.text(Id::senderAddrType, content.senderAddrType);
    values.binary(Id::senderEntryId, content.senderEntryId);
    values.text(Id::body, content.body);
    values.binary(Id::html, content.html);
    values.text(Id::internetMessageId, content.internetMessageId);
    values.text(Id::inReplyTo, content.inReplyTo);
    values.number(Id::messageFlags, messageFlagRead | (content.attachments.empty() ? 0 : messageFlagHasAttach));
    if (content.unicodeStrings)
        values.number(Id::storeSupportMask, storeUnicodeOk);
    for (const StoredProperty& extra : content.extraProperties)
        values.replace(extra);
    return writeProperties(target, messageHeader(content), values.values());
}

std::vector<uint32_t> balancedCreationOrder(uint32_t count)
{
    // Pre-order of the balanced search tree over 0..count-1: each range's
    // middle first, then its lower and upper halves.
    std::vector<uint32_t> order;
    order.reserve(count);
    std::vector<std::pair<uint32_t, uint32_t>> ranges; // [first, end)
    ranges.emplace_back(0, count);
    while (!ranges.empty()) {
        const auto [first, end] = ranges.back();
        ranges.pop_back();
        if (first >= end)
            continue;
        const uint32_t middle = first + (end - first) / 2;
        order.push_back(middle);
        ranges.emplace_back(middle + 1, end); // taken after the lower half
        ranges.emplace_back(first, middle);
    }
    return order;
}

HRESULT writeMsgFile(const std::wstring& path, const MsgContent& content)
{
    // Built in memory and written out as one image: Wine's file-backed
    // storage makes a small write per directory change, which turns a
    // thousand recipients into half a minute.
    ComPtr<ILockBytes> bytes;
    RETURN_IF_FAILED(CreateILockBytesOnHGlobal(nullptr, TRUE, &bytes));
    {
        ComPtr<IStorage> storage;
        RETURN_IF_FAILED(StgCreateDocfileOnILockBytes(bytes.Get(), createMode, 0, &storage));
        RETURN_IF_FAILED(writeMsgStorage(storage.Get(), content));
        RETURN_IF_FAILED(storage->Commit(STGC_DEFAULT));
    }
    STATSTG stat{};
    RETURN_IF_FAILED(bytes->Stat(&stat, STATFLAG_NONAME));
    HGLOBAL memory = nullptr;
    RETURN_IF_FAILED(GetHGlobalFromILockBytes(bytes.Get(), &memory));
    if (stat.cbSize.QuadPart > GlobalSize(memory))
        return STG_E_DOCFILECORRUPT;
    const LockedGlobal locked(memory);
    if (!locked.data())
        return HRESULT_FROM_WIN32(GetLastError());
    UniqueFile file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return HRESULT_FROM_WIN32(GetLastError());
    const char* data = static_cast<const char*>(locked.data());
    for (ULONGLONG at = 0; at < stat.cbSize.QuadPart;) {
        const auto chunk = static_cast<DWORD>(std::min<ULONGLONG>(stat.cbSize.QuadPart - at, writeChunk));
        DWORD written = 0;
        if (!WriteFile(file.get(), data + at, chunk, &written, nullptr))
            return HRESULT_FROM_WIN32(GetLastError());
        if (written == 0)
            return STG_E_WRITEFAULT;
        at += written;
    }
    return S_OK;
}

ComPtr<IStorage> makeStorageInMemory()
{
    ComPtr<ILockBytes> bytes;
    if (FAILED(CreateILockBytesOnHGlobal(nullptr, TRUE, &bytes)))
        return nullptr;
    ComPtr<IStorage> storage;
    if (FAILED(StgCreateDocfileOnILockBytes(bytes.Get(), createMode, 0, &storage)))
        return nullptr;
    return storage;
}

ComPtr<IStorage> makeMsgInMemory(const MsgContent& content)
{
    ComPtr<IStorage> storage = makeStorageInMemory();
    if (!storage || FAILED(writeMsgStorage(storage.Get(), content)) || FAILED(storage->Commit(STGC_DEFAULT)))
        return nullptr;
    return storage;
}

ComPtr<IStorage> createChildStorage(IStorage* parent, const std::wstring& name)
{
    ComPtr<IStorage> child;
    if (!parent || FAILED(parent->CreateStorage(name.c_str(), createMode, 0, 0, &child)))
        return nullptr;
    return child;
}

std::string propertyEntry(uint32_t tag, uint64_t value, uint32_t flags)
{
    std::string entry;
    entry.reserve(MsgLayout::entrySize);
    appendLe32(entry, tag);
    appendLe32(entry, flags);
    char raw[8];
    std::memcpy(raw, &value, 8);
    entry.append(raw, 8);
    return entry;
}

HRESULT writeRawPropertiesStream(IStorage* target, size_t headerSize, std::string_view entries)
{
    std::string stream(headerSize, '\0');
    stream.append(entries);
    return writeRawStream(target, MsgLayout::propertiesStream, stream);
}

HRESULT writeRawSubstorageStream(IStorage* target, uint32_t tag, std::string_view bytes)
{
    return writeRawStream(target, MsgLayout::substorageStreamName(tag), bytes);
}

HRESULT writeRawStream(IStorage* target, const std::wstring& name, std::string_view bytes)
{
    if (!target)
        return E_POINTER;
    ComPtr<IStream> stream;
    RETURN_IF_FAILED(target->CreateStream(name.c_str(), createMode, 0, 0, &stream));
    ULARGE_INTEGER size{};
    size.QuadPart = bytes.size();
    RETURN_IF_FAILED(stream->SetSize(size));
    for (size_t at = 0; at < bytes.size();) {
        const auto chunk = static_cast<ULONG>(std::min(bytes.size() - at, writeChunk));
        ULONG written = 0;
        RETURN_IF_FAILED(stream->Write(bytes.data() + at, chunk, &written));
        if (written == 0)
            return STG_E_WRITEFAULT;
        at += written;
    }
    return S_OK;
}
