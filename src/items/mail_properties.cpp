#include "items/mail_properties.h"

#include "core/log.h"
#include "items/msg_storage.h"
#include "items/property_text.h"

#include <mapitags.h>
#include <mapicode.h>

#include <cstring>
#include <optional>
#include <wrl/client.h>

namespace {

Logger logger("MailItem");

constexpr ULONG recipientTypeTo = 1;
constexpr ULONG recipientTypeCc = 2;
constexpr ULONG recipientTypeBcc = 3;

// The properties of the message, in the order they are asked for.
constexpr ULONG messageTags[] = {
    0x0037001F, // PR_SUBJECT_W
    0x0E060040, // PR_MESSAGE_DELIVERY_TIME
    0x0C1F001F, // PR_SENDER_EMAIL_ADDRESS_W
    0x0C1A001F, // PR_SENDER_NAME_W
    0x0C1E001F, // PR_SENDER_ADDRTYPE_W
    0x0C190102, // PR_SENDER_ENTRYID
    0x001A001F, // PR_MESSAGE_CLASS_W
};

constexpr uint16_t idMessageCodePage = 0x3FFD;  // PR_MESSAGE_CODEPAGE
constexpr uint16_t idInternetCodePage = 0x3FDE; // PR_INTERNET_CPID

constexpr ULONG tagRecipientType = 0x0C150003;
constexpr ULONG tagEntryId = 0x0FFF0102;
constexpr ULONG tagDisplayName = 0x3001001F;
constexpr ULONG tagAddrType = 0x3002001F;
constexpr ULONG tagEmailAddress = 0x3003001F;
constexpr ULONG tagSmtpAddress = 0x39FE001F;       // PR_SMTP_ADDRESS_W
constexpr ULONG tagSenderSmtpAddress = 0x5D01001F; // PR_SENDER_SMTP_ADDRESS_W

std::wstring* messageField(MailProperties& properties, size_t index)
{
    std::wstring* fields[] = {&properties.subject,          &properties.receivedAtIso,   &properties.sender.mailAddress,
                              &properties.sender.name,      &properties.sender.addrType, &properties.sender.entryId,
                              &properties.messageClass};
    return index < std::size(fields) ? fields[index] : nullptr;
}

std::wstring* recipientField(MailAddress& address, ULONG propertyId)
{
    switch (propertyId) {
    case PROP_ID(tagEntryId): return &address.entryId;
    case PROP_ID(tagDisplayName): return &address.name;
    case PROP_ID(tagAddrType): return &address.addrType;
    case PROP_ID(tagEmailAddress): return &address.mailAddress;
    default: return nullptr;
    }
}

void addRecipient(MailProperties& properties, ULONG type, MailAddress address)
{
    switch (type) {
    case recipientTypeTo:
        KV_DEBUG(logger) << "to=" << address.name << " <" << address.mailAddress << ">";
        properties.to.push_back(std::move(address));
        break;
    case recipientTypeCc:
        KV_DEBUG(logger) << "cc=" << address.name << " <" << address.mailAddress << ">";
        properties.cc.push_back(std::move(address));
        break;
    case recipientTypeBcc:
        KV_DEBUG(logger) << "bcc=" << address.name << " <" << address.mailAddress << ">";
        properties.bcc.push_back(std::move(address));
        break;
    default:
        KV_DEBUG(logger) << "recipient of type " << type << " skipped: " << address.mailAddress;
        break;
    }
}

std::wstring textOfStored(const StoredProperties& properties, ULONG tag, uint32_t codePage)
{
    const StoredProperty* property = findStoredProperty(properties, PROP_ID(tag));
    return property ? propertyText(property->tag, property->bytes, codePage) : std::wstring();
}

} // namespace

std::wstring textOfPropValue(const SPropValue& value)
{
    const ULONG tag = value.ulPropTag;
    switch (PROP_TYPE(tag)) {
    case PT_UNICODE:
        return value.Value.lpszW ? std::wstring(value.Value.lpszW) : std::wstring();
    case PT_STRING8:
        return value.Value.lpszA ? propertyText(tag, value.Value.lpszA) : std::wstring();
    case PT_SYSTIME:
        return propertyText(tag, std::string_view(reinterpret_cast<const char*>(&value.Value.ft), sizeof(FILETIME)));
    case PT_BINARY:
        if (!value.Value.bin.lpb)
            return L"";
        return propertyText(tag, std::string_view(reinterpret_cast<const char*>(value.Value.bin.lpb), value.Value.bin.cb));
    case PT_ERROR:
        return propertyText(tag, std::string_view(reinterpret_cast<const char*>(&value.Value.err), sizeof(SCODE)));
    default:
        return L"";
    }
}

HRESULT readPropertiesThroughMapi(IMessage* message, const MapiFunctions& mapi, MailProperties& properties)
{
    struct {
        ULONG count;
        ULONG tags[std::size(messageTags)];
    } tagArray{static_cast<ULONG>(std::size(messageTags)), {}};
    std::memcpy(tagArray.tags, messageTags, sizeof messageTags);

    ULONG count = 0;
    MapiBuffer<SPropValue> values(mapi);
    const HRESULT hr =
        message->GetProps(reinterpret_cast<LPSPropTagArray>(&tagArray), MAPI_UNICODE, &count, values.put());
    if (hr != S_OK && hr != MAPI_W_ERRORS_RETURNED) {
        KV_WARN(logger) << "GetProps failed, hr=" << hr;
        return hr;
    }
    for (ULONG i = 0; values.get() && i < count && i < std::size(messageTags); ++i) {
        if (std::wstring* field = messageField(properties, i))
            *field = textOfPropValue(values.get()[i]);
    }
    return S_OK;
}

HRESULT readRecipientsThroughMapi(IMessage* message, const MapiFunctions& mapi, MailProperties& properties)
{
    Microsoft::WRL::ComPtr<IMAPITable> table;
    HRESULT hr = message->GetRecipientTable(MAPI_UNICODE, &table);
    if (FAILED(hr)) {
        KV_WARN(logger) << "GetRecipientTable failed, hr=" << hr;
        return hr;
    }
    ULONG rowCount = 0;
    hr = table->GetRowCount(0, &rowCount);
    if (FAILED(hr))
        return hr;
    MapiRows rows(mapi);
    hr = table->QueryRows(static_cast<LONG>(rowCount), 0, rows.put());
    if (FAILED(hr)) {
        KV_WARN(logger) << "QueryRows failed, hr=" << hr;
        return hr;
    }
    for (ULONG r = 0; rows.get() && r < rows.get()->cRows; ++r) {
        const SRow& row = rows.get()->aRow[r];
        MailAddress address;
        ULONG type = 0;
        for (ULONG c = 0; row.lpProps && c < row.cValues; ++c) {
            const SPropValue& column = row.lpProps[c];
            if (column.ulPropTag == tagRecipientType)
                type = static_cast<ULONG>(column.Value.l);
            else if (std::wstring* field = recipientField(address, PROP_ID(column.ulPropTag)))
                *field = textOfPropValue(column);
        }
        addRecipient(properties, type, std::move(address));
    }
    return hr;
}

HRESULT readPropertiesFromStorage(IStorage* storage, MailProperties& properties)
{
    // The attachments' bytes are not needed here, and can be large.
    StoredMessage message;
    StoredReadLimits limits;
    limits.readAttachments = false;
    const HRESULT hr = readStoredMessage(storage, message, limits);
    if (FAILED(hr))
        return hr;
    mailPropertiesFromStored(message.properties, message.recipients, properties);
    return hr;
}

void mailPropertiesFromStored(const StoredProperties& message, const std::vector<StoredProperties>& recipients,
                              MailProperties& properties, bool smtpOfExchangeEntries)
{
    const uint32_t codePage = stringCodePageOfMessage(message);
    const auto smtpOfExchange = [&](MailAddress& address, const StoredProperties& properties, ULONG smtpTag) {
        if (smtpOfExchangeEntries && address.addrType == L"EX")
            address.mailAddress = textOfStored(properties, smtpTag, codePage);
    };
    for (size_t i = 0; i < std::size(messageTags); ++i)
        *messageField(properties, i) = textOfStored(message, messageTags[i], codePage);
    smtpOfExchange(properties.sender, message, tagSenderSmtpAddress);
    for (const StoredProperties& row : recipients) {
        MailAddress address;
        for (ULONG tag : {tagEntryId, tagDisplayName, tagAddrType, tagEmailAddress})
            *recipientField(address, PROP_ID(tag)) = textOfStored(row, tag, codePage);
        smtpOfExchange(address, row, tagSmtpAddress);
        addRecipient(properties, findStoredLong(row, PROP_ID(tagRecipientType)).value_or(0), std::move(address));
    }
}

uint32_t stringCodePageOfMessage(const StoredProperties& message)
{
    const std::optional<uint32_t> messageCodePage = findStoredLong(message, idMessageCodePage);
    const std::optional<uint32_t> internetCodePage = findStoredLong(message, idInternetCodePage);
    const uint32_t codePage = stringCodePageOf(messageCodePage, internetCodePage);
    if (codePage != CodePage::machine && IsValidCodePage(codePage)) {
        KV_DEBUG(logger) << "8-bit text in code page " << codePage;
        return codePage;
    }
    // A Unicode code page names no script: 8-bit text is in the machine's then.
    const auto namesScript = [](std::optional<uint32_t> given) {
        return given && *given != 1200 && *given != 1201 && *given != 65000 && *given != CodePage::utf8;
    };
    if (codePage != CodePage::machine || namesScript(messageCodePage) || namesScript(internetCodePage)) {
        KV_WARN(logger) << "code page " << messageCodePage.value_or(0) << "/" << internetCodePage.value_or(0)
                        << " of the message's 8-bit text is not known here, read in " << GetACP();
    }
    return CodePage::machine;
}
