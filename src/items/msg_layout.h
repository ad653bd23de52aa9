#pragma once
// Names and sizes of the .msg compound-file layout, shared by the code that
// reads such storages and the code that writes them, so both agree on which
// property types live in their own streams.
#include <cstddef>
#include <cstdint>
#include <string>

namespace MsgLayout {

inline constexpr const wchar_t* propertiesStream = L"__properties_version1.0";
inline constexpr const wchar_t* substoragePrefix = L"__substg1.0_";
inline constexpr const wchar_t* recipientPrefix = L"__recip_version1.0_#";
inline constexpr const wchar_t* attachmentPrefix = L"__attach_version1.0_#";
inline constexpr const wchar_t* nameIdStorage = L"__nameid_version1.0";

// Header of the properties stream: the message itself carries reserved bytes,
// next recipient and attachment ids and both counts; an attached message the
// same without the last 8 reserved bytes; a recipient or attachment storage
// only 8 reserved bytes. Each property entry follows as tag, flags and an
// 8-byte value.
inline constexpr size_t messageHeaderSize = 32;
inline constexpr size_t embeddedMessageHeaderSize = 24;
inline constexpr size_t rowHeaderSize = 8;
inline constexpr size_t entrySize = 16;

// Offsets of the counts inside the message header.
inline constexpr size_t nextRecipientIdOffset = 8;
inline constexpr size_t nextAttachmentIdOffset = 12;
inline constexpr size_t recipientCountOffset = 16;
inline constexpr size_t attachmentCountOffset = 20;

// Entry flags as Outlook writes them for ordinary properties.
inline constexpr uint32_t flagReadable = 2;
inline constexpr uint32_t flagWritable = 4;

inline constexpr uint16_t multiValueFlag = 0x1000;
inline constexpr uint16_t typeObject = 0x000D;

// An attachment's object (attached message or OLE object): a storage named
// after this tag inside the attachment's storage.
inline constexpr uint32_t attachDataObjectTag = 0x3701000D;

enum class ValueKind {
    Fixed,       // the 8 value bytes of the entry are the value
    Streamed,    // the entry holds the size; the bytes are in their own stream
    Object,      // a sub-storage (embedded message, OLE object): not a stream
    Unsupported, // multi-valued strings and binaries: one stream per element
};

constexpr ValueKind valueKindOf(uint16_t type)
{
    switch (type) {
    case 0x001E: // PT_STRING8
    case 0x001F: // PT_UNICODE
    case 0x0102: // PT_BINARY
    case 0x0048: // PT_CLSID
    case 0x00FB: // PT_SVREID
    case 0x00FD: // PT_SRESTRICTION
    case 0x00FE: // PT_ACTIONS
    // Multi-valued fixed-size types: all values one after the other in one stream.
    case 0x1002: // PT_MV_I2
    case 0x1003: // PT_MV_LONG
    case 0x1004: // PT_MV_R4
    case 0x1005: // PT_MV_DOUBLE
    case 0x1006: // PT_MV_CURRENCY
    case 0x1007: // PT_MV_APPTIME
    case 0x1014: // PT_MV_I8
    case 0x1040: // PT_MV_SYSTIME
    case 0x1048: // PT_MV_CLSID
        return ValueKind::Streamed;
    case typeObject:
        return ValueKind::Object;
    default:
        return (type & multiValueFlag) ? ValueKind::Unsupported : ValueKind::Fixed;
    }
}

// The size field of a string entry counts the terminating NUL that the
// stream itself usually leaves out.
constexpr size_t terminatorSizeOf(uint16_t type)
{
    return type == 0x001F ? 2 : type == 0x001E ? 1 : 0;
}

// Eight upper-case hex digits. Written out by hand: names are made for every
// value of every recipient, and the C library's formatter is slow under Wine.
inline std::wstring hex8(uint32_t value)
{
    constexpr const wchar_t* digits = L"0123456789ABCDEF";
    std::wstring text(8, L'0');
    for (int i = 7; i >= 0; --i, value >>= 4)
        text[i] = digits[value & 15];
    return text;
}

// The same name in a fixed buffer, for loops that open one stream per value.
struct SubstorageName {
    explicit SubstorageName(uint32_t tag)
    {
        constexpr const wchar_t* digits = L"0123456789ABCDEF";
        constexpr size_t prefixLength = 12; // "__substg1.0_"
        for (size_t i = 0; i < prefixLength; ++i)
            text[i] = substoragePrefix[i];
        for (size_t i = prefixLength + 8; i > prefixLength; --i, tag >>= 4)
            text[i - 1] = digits[tag & 15];
        text[prefixLength + 8] = L'\0';
    }
    const wchar_t* c_str() const { return text; }

    wchar_t text[21];
};

// "__substg1.0_0037001F" for PR_SUBJECT_W.
inline std::wstring substorageStreamName(uint32_t tag)
{
    return SubstorageName(tag).c_str();
}

// "__recip_version1.0_#00000003" and the like.
inline std::wstring rowStorageName(const wchar_t* prefix, uint32_t number)
{
    return prefix + hex8(number);
}

} // namespace MsgLayout
