#include "items/eml_message.h"

#include "addin/log.h"
#include "common/strings.h"
#include "items/property_text.h"

#include <cstring>

namespace {

const Logger logger("MailItem");

namespace Id = EmlPropertyId;

constexpr uint32_t attachByValue = 1;
constexpr UINT codePageUtf8 = 65001;
constexpr UINT codePageWestern = 1252;

uint32_t tagOf(uint16_t id, uint16_t type)
{
    return static_cast<uint32_t>(id) << 16 | type;
}

std::wstring textOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    if (!property)
        return {};
    const uint16_t type = propertyTypeOf(property->tag);
    if (type != PropertyType::Unicode && type != PropertyType::String8)
        return {};
    return propertyText(property->tag, property->bytes);
}

std::optional<uint32_t> longOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    if (!property || propertyTypeOf(property->tag) != PropertyType::Long || property->bytes.size() < 4)
        return std::nullopt;
    uint32_t value = 0;
    std::memcpy(&value, property->bytes.data(), 4);
    return value;
}

std::optional<FILETIME> timeOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    if (!property || propertyTypeOf(property->tag) != PropertyType::SysTime || property->bytes.size() < 8)
        return std::nullopt;
    FILETIME time{};
    std::memcpy(&time, property->bytes.data(), 8);
    if (time.dwLowDateTime == 0 && time.dwHighDateTime == 0)
        return std::nullopt;
    return time;
}

bool isValidUtf8(const std::string& bytes)
{
    return bytes.empty() ||
           MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()), nullptr,
                               0) > 0;
}

std::string convertToUtf8(const std::string& bytes, UINT codePage)
{
    const int size = static_cast<int>(bytes.size());
    const int chars = MultiByteToWideChar(codePage, 0, bytes.data(), size, nullptr, 0);
    if (chars <= 0)
        return {};
    std::wstring wide(static_cast<size_t>(chars), L'\0');
    MultiByteToWideChar(codePage, 0, bytes.data(), size, wide.data(), chars);
    return wideToUtf8(wide);
}

// A MIME type as "type/subtype" of token characters, or empty.
std::wstring cleanMimeType(const std::wstring& text)
{
    const std::wstring trimmed = trimBlanks(text);
    size_t slashes = 0;
    for (wchar_t c : trimmed) {
        if (c == L'/') {
            ++slashes;
            continue;
        }
        const bool token = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
                           std::wstring_view(L"!#$%&'*+-.^_`|~").find(c) != std::wstring_view::npos;
        if (!token)
            return {};
    }
    if (slashes != 1 || trimmed.front() == L'/' || trimmed.back() == L'/')
        return {};
    return trimmed;
}

std::wstring mimeTypeForName(const std::wstring& fileName)
{
    static const struct {
        const wchar_t* extension;
        const wchar_t* type;
    } known[] = {
        {L".txt", L"text/plain"},       {L".htm", L"text/html"},        {L".html", L"text/html"},
        {L".csv", L"text/csv"},         {L".pdf", L"application/pdf"},  {L".zip", L"application/zip"},
        {L".png", L"image/png"},        {L".jpg", L"image/jpeg"},       {L".jpeg", L"image/jpeg"},
        {L".gif", L"image/gif"},        {L".xml", L"application/xml"},  {L".json", L"application/json"},
    };
    const size_t dot = fileName.find_last_of(L'.');
    if (dot != std::wstring::npos) {
        const std::wstring extension = fileName.substr(dot);
        for (const auto& entry : known) {
            if (equalsIgnoreCase(extension, entry.extension))
                return entry.type;
        }
    }
    return L"application/octet-stream";
}

MailAddress fromOf(const StoredProperties& message, const MailAddress& sender)
{
    // Who the mail is written for: Outlook keeps it as "sent representing";
    // an Exchange entry there has its SMTP address in a property of its own.
    MailAddress from;
    from.name = textOf(message, Id::sentRepresentingName);
    from.addrType = textOf(message, Id::sentRepresentingAddrType);
    from.mailAddress = textOf(message, Id::sentRepresentingSmtpAddress);
    const std::wstring email = textOf(message, Id::sentRepresentingEmail);
    if (from.mailAddress.empty() &&
        (equalsIgnoreCase(from.addrType, L"SMTP") || (from.addrType.empty() && email.find(L'@') != std::wstring::npos)))
        from.mailAddress = email;
    if (from.mailAddress.empty())
        return sender;
    return from;
}

EmlAttachment attachmentOf(const StoredProperties& row, size_t number)
{
    EmlAttachment attachment;
    for (uint16_t id : {Id::attachLongFileName, Id::attachFileName, Id::displayName}) {
        attachment.fileName = trimBlanks(textOf(row, id));
        if (!attachment.fileName.empty())
            break;
    }
    if (attachment.fileName.empty())
        attachment.fileName = L"attachment" + std::to_wstring(number + 1) + trimBlanks(textOf(row, Id::attachExtension));
    attachment.mimeType = cleanMimeType(textOf(row, Id::attachMimeTag));
    if (attachment.mimeType.empty())
        attachment.mimeType = mimeTypeForName(attachment.fileName);
    attachment.contentId = trimBlanks(textOf(row, Id::attachContentId));
    return attachment;
}

} // namespace

const std::vector<ULONG>& emlMessageTags()
{
    static const std::vector<ULONG> tags = {
        tagOf(Id::subject, PropertyType::Unicode),
        tagOf(Id::clientSubmitTime, PropertyType::SysTime),
        tagOf(Id::deliveryTime, PropertyType::SysTime),
        tagOf(Id::sentRepresentingName, PropertyType::Unicode),
        tagOf(Id::sentRepresentingAddrType, PropertyType::Unicode),
        tagOf(Id::sentRepresentingEmail, PropertyType::Unicode),
        tagOf(Id::sentRepresentingSmtpAddress, PropertyType::Unicode),
        tagOf(Id::senderSmtpAddress, PropertyType::Unicode),
        tagOf(Id::body, PropertyType::Unicode),
        tagOf(Id::html, PropertyType::Binary),
        tagOf(Id::internetCodepage, PropertyType::Long),
        tagOf(Id::internetMessageId, PropertyType::Unicode),
        tagOf(Id::inReplyTo, PropertyType::Unicode),
        tagOf(Id::references, PropertyType::Unicode),
    };
    return tags;
}

const std::vector<ULONG>& emlAttachmentTags()
{
    static const std::vector<ULONG> tags = {
        tagOf(Id::attachMethod, PropertyType::Long),
        tagOf(Id::attachLongFileName, PropertyType::Unicode),
        tagOf(Id::attachFileName, PropertyType::Unicode),
        tagOf(Id::displayName, PropertyType::Unicode),
        tagOf(Id::attachExtension, PropertyType::Unicode),
        tagOf(Id::attachMimeTag, PropertyType::Unicode),
        tagOf(Id::attachContentId, PropertyType::Unicode),
        tagOf(Id::attachDataBin, PropertyType::Binary),
    };
    return tags;
}

std::string htmlAsUtf8(const std::string& bytes, UINT codePage)
{
    if (bytes.empty())
        return {};
    if (codePage == codePageUtf8 || (codePage == 0 && isValidUtf8(bytes)))
        return bytes;
    std::string converted = convertToUtf8(bytes, codePage ? codePage : codePageWestern);
    if (converted.empty()) {
        KV_WARN(logger) << "HTML body in code page " << codePage << " can't be converted, read as Windows-1252";
        converted = convertToUtf8(bytes, codePageWestern);
    }
    return converted;
}

EmlMessage collectEmlMessage(const StoredProperties& message, std::vector<EmlAttachmentSource> attachments,
                             const MailProperties& addresses)
{
    EmlMessage eml;
    eml.subject = textOf(message, Id::subject);
    eml.sender = addresses.sender;
    if (eml.sender.mailAddress.empty())
        eml.sender.mailAddress = textOf(message, Id::senderSmtpAddress);
    eml.from = fromOf(message, eml.sender);
    eml.to = addresses.to;
    eml.cc = addresses.cc;
    eml.bcc = addresses.bcc;
    eml.date = timeOf(message, Id::clientSubmitTime);
    if (!eml.date)
        eml.date = timeOf(message, Id::deliveryTime);
    eml.messageId = textOf(message, Id::internetMessageId);
    eml.inReplyTo = textOf(message, Id::inReplyTo);
    eml.references = textOf(message, Id::references);
    eml.body = textOf(message, Id::body);

    if (const StoredProperty* html = findStoredProperty(message, Id::html)) {
        const uint16_t type = propertyTypeOf(html->tag);
        if (type == PropertyType::Binary)
            eml.htmlUtf8 = htmlAsUtf8(html->bytes, longOf(message, Id::internetCodepage).value_or(0));
        else if (type == PropertyType::Unicode || type == PropertyType::String8)
            eml.htmlUtf8 = wideToUtf8(propertyText(html->tag, html->bytes));
    }

    for (size_t i = 0; i < attachments.size(); ++i) {
        EmlAttachmentSource& source = attachments[i];
        StoredProperties& row = source.properties;
        EmlAttachment attachment = attachmentOf(row, i);
        const uint32_t method = longOf(row, Id::attachMethod).value_or(attachByValue);
        const auto found = row.find(Id::attachDataBin);
        StoredProperty* data = found == row.end() ? nullptr : &found->second;
        const bool hasBytes = source.dataStream || (data && propertyTypeOf(data->tag) == PropertyType::Binary);
        if (method != attachByValue || !hasBytes) {
            KV_WARN(logger) << "attachment " << attachment.fileName << " (method " << method
                            << ") has no bytes of its own, not written to the .eml";
            ++eml.attachmentsLeftOut;
            continue;
        }
        if (source.dataStream) {
            attachment.dataStream = std::move(source.dataStream);
            attachment.dataOwner = std::move(source.dataOwner);
        } else {
            attachment.bytes = std::move(data->bytes);
        }
        eml.attachments.push_back(std::move(attachment));
    }
    return eml;
}
