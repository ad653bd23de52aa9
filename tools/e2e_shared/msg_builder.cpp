#include "e2e_shared/msg_builder.h"

#include "common/hresult.h"
#include "common/strings.h"
#include "common/unique_resource.h"
#include "items/msg_layout.h"
#include "items/property_text.h"
#include "items/rtf_compressed.h"

#include <algorithm>
#include <cstdio>
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
constexpr uint32_t attachByReferenceOnly = 4;
constexpr uint32_t attachEmbeddedMessage = 5;

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

std::string ansiOf(std::wstring_view text, UINT codePage)
{
    if (text.empty())
        return {};
    const int size = static_cast<int>(text.size());
    const int length = WideCharToMultiByte(codePage, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string narrow(length > 0 ? length : 0, '\0');
    if (length > 0)
        WideCharToMultiByte(codePage, 0, text.data(), size, narrow.data(), length, nullptr, nullptr);
    return narrow;
}

// RTF text: \ { } escaped, line breaks as \par, Latin-1 as \'hh, the rest as \uN.
std::string rtfText(std::wstring_view text)
{
    std::string rtf;
    for (wchar_t c : text) {
        if (c == L'\\' || c == L'{' || c == L'}') {
            rtf += '\\';
            rtf += static_cast<char>(c);
        } else if (c == L'\n') {
            rtf += "\\par\r\n";
        } else if (c == L'\r') {
            continue;
        } else if (c < 0x80) {
            rtf += static_cast<char>(c);
        } else if (c < 0x100) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\'%02x", static_cast<unsigned>(c));
            rtf += escape;
        } else {
            rtf += "\\u" + std::to_string(static_cast<int16_t>(c)) + "?";
        }
    }
    return rtf;
}

const char* const rtfHeader = "{\\rtf1\\ansi\\ansicpg1252";
const char* const rtfFonts = "\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}{\\colortbl;\\red0\\green0\\blue0;}\r\n";

// HTML as Outlook encapsulates it: its tags in \*\htmltag groups, the text
// between them as RTF text, and, for RTF readers only, formatting and a
// paragraph break behind each paragraph.
std::string encapsulatedHtml(const std::string& html)
{
    std::string rtf = std::string(rtfHeader) + "\\fromhtml1 " + rtfFonts + "\\htmlrtf \\f0\\fs20 \\htmlrtf0 ";
    const std::wstring text = utf8ToWide(html);
    for (size_t at = 0; at < text.size();) {
        const size_t tag = text.find(L'<', at);
        if (tag != at) {
            rtf += rtfText(text.substr(at, tag - at));
            at = tag == std::wstring::npos ? text.size() : tag;
            continue;
        }
        const size_t end = std::min(text.find(L'>', tag), text.size() - 1);
        const std::wstring markup = text.substr(tag, end - tag + 1);
        rtf += "{\\*\\htmltag64 " + rtfText(markup) + "}";
        if (markup == L"</p>" || markup == L"<br>")
            rtf += "\\htmlrtf \\par\r\n\\htmlrtf0 ";
        at = end + 1;
    }
    return rtf + "}";
}

// The compressed RTF format at its simplest: every byte a literal (eight to a
// control byte), then a reference to the write position as the end mark.
std::string lzCompress(std::string_view rtf)
{
    std::string data;
    for (size_t at = 0; at <= rtf.size(); at += 8) {
        const size_t literals = std::min<size_t>(8, rtf.size() - at);
        data += static_cast<char>(literals < 8 ? 1 << literals : 0);
        data.append(rtf.substr(at, literals));
        if (literals < 8) {
            const size_t end = (CompressedRtf::dictionaryPrefix.size() + rtf.size()) % CompressedRtf::dictionarySize;
            data += static_cast<char>(end >> 4);
            data += static_cast<char>((end & 15) << 4);
        }
    }
    return data;
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
    explicit PropertyList(bool unicode, UINT codePage = CP_ACP) : unicode_(unicode), codePage_(codePage) {}

    void text(uint16_t id, std::wstring_view value)
    {
        if (value.empty())
            return;
        values_.push_back(
            pending(unicode_ ? unicodeProperty(id, value) : string8Property(id, ansiOf(value, codePage_))));
    }
    void bytes(uint16_t id, std::string value)
    {
        if (!value.empty())
            values_.push_back(PendingValue{tagOf(id, PropertyType::Binary), std::move(value), nullptr});
    }
    void object(uint16_t id) { objects_.push_back(tagOf(id, MsgLayout::typeObject)); }
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
    const std::vector<uint32_t>& objects() const { return objects_; }

private:
    bool unicode_;
    UINT codePage_;
    std::vector<PendingValue> values_;
    std::vector<uint32_t> objects_; // storages of their own, written by the caller
};

HRESULT writeProperties(IStorage* storage, const std::string& header, const PropertyList& list,
                        size_t trailingBytes = 0)
{
    std::string stream = header;
    for (uint32_t tag : list.objects())
        stream += propertyEntry(tag, 0xFFFFFFFF);
    const std::vector<PendingValue>& values = list.values();
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
    stream.append(trailingBytes, '\0');
    return writeRawStream(storage, MsgLayout::propertiesStream, stream);
}

std::string rowHeader()
{
    return std::string(MsgLayout::rowHeaderSize, '\0');
}

std::string messageHeader(const MsgContent& content, bool embedded)
{
    std::string header(8, '\0');
    const auto recipients = static_cast<uint32_t>(content.recipients.size());
    const auto attachments = static_cast<uint32_t>(content.attachments.size());
    appendLe32(header, recipients);  // next recipient id
    appendLe32(header, attachments); // next attachment id
    appendLe32(header, recipients);
    appendLe32(header, attachments);
    if (!embedded)
        header.append(8, '\0');
    return header;
}

// PR_REPLY_RECIPIENT_ENTRIES: a FlatEntryList of one-off entry ids.
std::string oneOffEntryList(const std::vector<MsgRecipient>& recipients, bool unicode, UINT codePage)
{
    std::string list;
    appendLe32(list, static_cast<uint32_t>(recipients.size()));
    appendLe32(list, 0); // the size, set below
    for (const MsgRecipient& recipient : recipients) {
        std::string entry(4, '\0');
        entry += std::string("\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02", 16);
        entry += unicode ? std::string("\0\0\x00\x80", 4) : std::string(4, '\0');
        for (const std::wstring& field : {recipient.name, recipient.addrType, recipient.address}) {
            entry += unicode ? unicodeProperty(0, field).bytes + std::string(2, '\0') : ansiOf(field, codePage) + '\0';
        }
        appendLe32(list, static_cast<uint32_t>(entry.size()));
        list += entry;
        list.append((4 - entry.size() % 4) % 4, '\0');
    }
    const auto size = static_cast<uint32_t>(list.size() - 8);
    std::memcpy(list.data() + 4, &size, 4);
    return list;
}

std::wstring replyNames(const std::vector<MsgRecipient>& recipients)
{
    std::wstring names;
    for (const MsgRecipient& recipient : recipients)
        names += (names.empty() ? L"" : L"; ") + recipient.name;
    return names;
}

HRESULT writeMessage(IStorage* target, const MsgContent& content, bool embedded);

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

HRESULT writeRow(IStorage* message, const wchar_t* prefix, uint32_t number, const PropertyList& values,
                 const MsgContent* attachedMessage = nullptr)
{
    ComPtr<IStorage> row = createChildStorage(message, MsgLayout::rowStorageName(prefix, number));
    if (!row)
        return STG_E_CANTSAVE;
    RETURN_IF_FAILED(writeProperties(row.Get(), rowHeader(), values));
    if (attachedMessage) {
        ComPtr<IStorage> object = createChildStorage(row.Get(), MsgLayout::substorageStreamName(MsgLayout::attachDataObjectTag));
        if (!object)
            return STG_E_CANTSAVE;
        RETURN_IF_FAILED(writeMessage(object.Get(), *attachedMessage, true));
        RETURN_IF_FAILED(object->Commit(STGC_DEFAULT));
    }
    return row->Commit(STGC_DEFAULT);
}

HRESULT writeRecipient(IStorage* message, uint32_t number, const MsgRecipient& recipient, bool unicode, UINT codePage)
{
    PropertyList values(unicode, codePage);
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

HRESULT writeAttachment(IStorage* message, uint32_t number, const MsgAttachment& attachment, bool unicode,
                        UINT codePage)
{
    PropertyList values(unicode, codePage);
    values.number(Id::attachNum, number);
    values.number(Id::objectType, objectTypeAttach);
    values.number(Id::renderingPosition, 0xFFFFFFFF);
    values.number(Id::attachSize, static_cast<uint32_t>(std::min<size_t>(attachment.bytes.size(), 0xFFFFFFFF)));
    if (attachment.message) {
        values.number(Id::attachMethod, attachEmbeddedMessage);
        values.text(Id::displayName, attachment.fileName);
        values.object(Id::attachDataBin);
        return writeRow(message, MsgLayout::attachmentPrefix, number, values, attachment.message.get());
    }
    values.number(Id::attachMethod, attachment.linkPath.empty() ? attachByValue : attachByReferenceOnly);
    values.text(Id::attachLongPathName, attachment.linkPath);
    values.text(Id::attachFileName, shortFileNameOf(attachment.fileName));
    values.text(Id::attachLongFileName, attachment.fileName);
    values.text(Id::attachExtension, extensionOf(attachment.fileName));
    values.text(Id::attachMimeTag, attachment.mimeType);
    values.text(Id::attachContentId, attachment.contentId);
    if (attachment.hidden)
        values.number(Id::attachmentHidden, 1);
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
    return writeMessage(target, content, false);
}

std::string rtfBodyOf(const MsgContent& content)
{
    if (!content.rtfBody)
        return {};
    if (!content.html.empty())
        return encapsulatedHtml(content.html);
    return std::string(rtfHeader) + rtfFonts + "\\pard\\f0\\fs20 " + rtfText(content.body) + "\\par\r\n}";
}

std::string compressRtf(std::string_view rtf)
{
    const std::string data = lzCompress(rtf);
    std::string compressed;
    appendLe32(compressed, static_cast<uint32_t>(data.size() + 12));
    appendLe32(compressed, static_cast<uint32_t>(rtf.size()));
    appendLe32(compressed, CompressedRtf::typeCompressed);
    appendLe32(compressed, compressedRtfCrc(data));
    return compressed + data;
}

namespace {

HRESULT writeMessage(IStorage* target, const MsgContent& content, bool embedded)
{
    if (!target)
        return E_POINTER;
    // The first element created becomes the root of Wine's directory tree:
    // the middle recipient, so that lookups of rows don't first walk past
    // every message-level stream.
    const auto recipientCount = static_cast<uint32_t>(content.recipients.size());
    for (uint32_t number : balancedCreationOrder(recipientCount))
        RETURN_IF_FAILED(
            writeRecipient(target, number, content.recipients[number], content.unicodeStrings, content.codePage));
    const auto attachmentCount = static_cast<uint32_t>(content.attachments.size());
    for (uint32_t number : balancedCreationOrder(attachmentCount))
        RETURN_IF_FAILED(
            writeAttachment(target, number, content.attachments[number], content.unicodeStrings, content.codePage));
    if (!embedded) // an attached message shares its parent's
        RETURN_IF_FAILED(writeNameIdStorage(target));

    PropertyList values(content.unicodeStrings, content.codePage);
    values.text(Id::messageClass, content.messageClass);
    values.text(Id::subject, content.subject);
    values.time(Id::clientSubmitTime, content.submitTime);
    values.time(Id::deliveryTime, content.deliveryTime);
    values.text(Id::senderName, content.senderName);
    values.text(Id::senderEmail, content.senderAddress);
    values.text(Id::senderAddrType, content.senderAddrType);
    values.binary(Id::senderEntryId, content.senderEntryId);
    if (content.rtfBody) {
        values.bytes(Id::rtfCompressed, compressRtf(rtfBodyOf(content)));
        values.number(Id::rtfInSync, 1);
    } else {
        values.text(Id::body, content.body);
        values.binary(Id::html, content.html);
    }
    if (!content.replyTo.empty()) {
        values.bytes(Id::replyRecipientEntries,
                     oneOffEntryList(content.replyTo, content.unicodeStrings, content.codePage));
        values.text(Id::replyRecipientNames, replyNames(content.replyTo));
    }
    values.text(Id::internetMessageId, content.internetMessageId);
    values.text(Id::inReplyTo, content.inReplyTo);
    values.number(Id::messageFlags, messageFlagRead | (content.attachments.empty() ? 0 : messageFlagHasAttach));
    if (content.unicodeStrings)
        values.number(Id::storeSupportMask, storeUnicodeOk);
    for (const StoredProperty& extra : content.extraProperties)
        values.replace(extra);
    return writeProperties(target, messageHeader(content, embedded), values, content.trailingBytes);
}

} // namespace

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
