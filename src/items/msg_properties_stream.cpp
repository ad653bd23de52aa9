#include "items/msg_properties_stream.h"

#include "core/log_line.h"
#include "items/msg_layout.h"

#include <cstring>

namespace MsgPropertiesStream {

namespace {

const Logger logger("MailItem");

constexpr uint32_t attachDataBinTag = 0x37010102; // PR_ATTACH_DATA_BIN

uint32_t readLe32(const char* bytes)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

} // namespace

std::wstring tagText(uint32_t tag)
{
    return L"0x" + MsgLayout::hex8(tag);
}

std::wstring placeText(const std::wstring& where)
{
    return where.empty() ? std::wstring(L"message") : where;
}

std::optional<size_t> entriesOffset(size_t streamBytes, size_t headerSize, const std::wstring& where)
{
    // Some writers give an attached message the top-level message's longer header.
    if (headerSize == MsgLayout::embeddedMessageHeaderSize && streamBytes >= MsgLayout::messageHeaderSize &&
        (streamBytes - headerSize) % MsgLayout::entrySize != 0 &&
        (streamBytes - MsgLayout::messageHeaderSize) % MsgLayout::entrySize == 0)
        headerSize = MsgLayout::messageHeaderSize;
    if (streamBytes < headerSize) {
        KV_WARN(logger) << "properties stream of " << placeText(where) << " has " << streamBytes
                        << " bytes, not a header of " << headerSize;
        return std::nullopt;
    }
    if (const size_t trailing = (streamBytes - headerSize) % MsgLayout::entrySize) {
        KV_INFO(logger) << "properties stream of " << placeText(where) << " has " << trailing
                        << " bytes after its last whole entry, ignored";
    }
    return headerSize;
}

void readEntries(std::string_view stream, size_t offset, const std::wstring& where, bool leaveAttachmentData,
                 const StreamedValueReader& readStreamed, StoredProperties& properties)
{
    for (size_t at = offset; at + MsgLayout::entrySize <= stream.size(); at += MsgLayout::entrySize) {
        const char* entry = stream.data() + at;
        const uint32_t tag = readLe32(entry);
        const uint16_t id = propertyIdOf(tag);
        const uint16_t type = propertyTypeOf(tag);
        if (const auto known = properties.find(id); known != properties.end()) {
            // The Unicode form of a string wins over its 8-bit form.
            const bool unicodeOverString8 =
                type == PropertyType::Unicode && propertyTypeOf(known->second.tag) == PropertyType::String8;
            KV_DEBUG(logger) << "property " << tagText(tag) << " of " << placeText(where) << " occurs again, the "
                             << (unicodeOverString8 ? "Unicode" : "first") << " one counts";
            if (!unicodeOverString8)
                continue;
            properties.erase(known);
        }
        switch (MsgLayout::valueKindOf(type)) {
        case MsgLayout::ValueKind::Fixed:
            properties.emplace(id, StoredProperty{tag, std::string(entry + 8, 8)});
            break;
        case MsgLayout::ValueKind::Object:
            properties.emplace(id, StoredProperty{tag, std::string()});
            break;
        case MsgLayout::ValueKind::Unsupported:
            KV_DEBUG(logger) << "property " << tagText(tag) << " of " << placeText(where)
                             << " is multi-valued with one stream per value, not read";
            break;
        case MsgLayout::ValueKind::Streamed: {
            if (leaveAttachmentData && tag == attachDataBinTag) {
                properties.emplace(id, StoredProperty{tag, std::string()});
                break;
            }
            std::string value;
            if (readStreamed(tag, readLe32(entry + 8), value))
                properties.emplace(id, StoredProperty{tag, std::move(value)});
            break;
        }
        }
    }
}

bool completeStreamedValue(uint32_t tag, uint32_t size, std::string& bytes)
{
    const size_t terminator = MsgLayout::terminatorSizeOf(propertyTypeOf(tag));
    if (bytes.size() < (size >= terminator ? size - terminator : size))
        return false;
    if (terminator != 0 && bytes.size() >= terminator &&
        bytes.compare(bytes.size() - terminator, terminator, std::string(terminator, '\0')) == 0)
        bytes.resize(bytes.size() - terminator);
    return true;
}

} // namespace MsgPropertiesStream
