#include "items/eml_message.h"

#include "core/log.h"
#include "common/strings.h"
#include "items/ascii_text.h"
#include "items/flat_entry_list.h"
#include "items/property_text.h"
#include "items/rtf_compressed.h"
#include "items/rtf_text.h"

#include <algorithm>
#include <cstring>

namespace {

const Logger logger("MailItem");

namespace Id = EmlPropertyId;

constexpr uint32_t attachByReference = 2;
constexpr uint32_t attachByReferenceResolve = 3;
constexpr uint32_t attachByReferenceOnly = 4;
constexpr uint32_t attachByWebReference = 7;

uint32_t tagOf(uint16_t id, uint16_t type)
{
    return static_cast<uint32_t>(id) << 16 | type;
}

std::wstring textOf(const StoredProperties& properties, uint16_t id, uint32_t codePage)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    if (!property)
        return {};
    const uint16_t type = propertyTypeOf(property->tag);
    if (type != PropertyType::Unicode && type != PropertyType::String8)
        return {};
    return propertyText(property->tag, property->bytes, codePage);
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

std::string utf8Of(const std::u16string& text)
{
    return wideToUtf8(std::wstring(text.begin(), text.end()));
}

bool isValidUtf8(const std::string& bytes)
{
    return bytes.empty() ||
           MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()), nullptr,
                               0) > 0;
}

std::string convertToUtf8(const std::string& bytes, UINT codePage)
{
    if (!IsValidCodePage(codePage))
        return {};
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
        {L".ics", L"text/calendar"},    {L".rtf", L"application/rtf"},
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

MailAddress fromOf(const StoredProperties& message, const MailAddress& sender, uint32_t codePage)
{
    // Who the mail is written for: Outlook keeps it as "sent representing";
    // an Exchange entry there has its SMTP address in a property of its own.
    MailAddress from;
    from.name = textOf(message, Id::sentRepresentingName, codePage);
    from.addrType = textOf(message, Id::sentRepresentingAddrType, codePage);
    from.mailAddress = textOf(message, Id::sentRepresentingSmtpAddress, codePage);
    const std::wstring email = textOf(message, Id::sentRepresentingEmail, codePage);
    if (from.mailAddress.empty() &&
        (equalsIgnoreCase(from.addrType, L"SMTP") || (from.addrType.empty() && email.find(L'@') != std::wstring::npos)))
        from.mailAddress = email;
    if (from.mailAddress.empty() && (!sender.mailAddress.empty() || from.name.empty()))
        return sender;
    return from;
}

std::vector<MailAddress> replyToOf(const StoredProperties& message, uint32_t codePage)
{
    const StoredProperty* entries = findStoredProperty(message, Id::replyRecipientEntries);
    if (!entries || propertyTypeOf(entries->tag) != PropertyType::Binary)
        return {};
    const FlatEntryListAddresses found = addressesOfFlatEntryList(entries->bytes, codePage, codePageDecoder());
    std::vector<MailAddress> addresses;
    for (const OneOffAddress& entry : found.addresses) {
        MailAddress address;
        address.name.assign(entry.name.begin(), entry.name.end());
        address.addrType.assign(entry.addrType.begin(), entry.addrType.end());
        address.mailAddress.assign(entry.address.begin(), entry.address.end());
        if (equalsIgnoreCase(address.addrType, L"SMTP") && !address.mailAddress.empty())
            addresses.push_back(std::move(address));
    }
    if (found.damaged || found.otherEntries > 0 || addresses.size() < found.addresses.size()) {
        KV_WARN(logger) << "reply-to list: " << addresses.size() << " addresses written, "
                        << found.addresses.size() + found.otherEntries - addresses.size()
                        << " without an SMTP address left out (" << textOf(message, Id::replyRecipientNames, codePage)
                        << ")" << (found.damaged ? ", the list is damaged" : "");
    }
    return addresses;
}

// The HTML, the plain text and a genuine RTF body. The compressed RTF is
// only read when the mail has no HTML of its own: it then holds the HTML, or
// the text, or is a body of its own.
void collectBodies(const StoredProperties& message, uint32_t codePage, EmlMessage& eml)
{
    eml.body = textOf(message, Id::body, codePage);
    if (const StoredProperty* html = findStoredProperty(message, Id::html)) {
        const uint16_t type = propertyTypeOf(html->tag);
        if (type == PropertyType::Binary)
            eml.htmlUtf8 = htmlAsUtf8(html->bytes, findStoredLong(message, Id::internetCodepage).value_or(0));
        else if (type == PropertyType::Unicode || type == PropertyType::String8)
            eml.htmlUtf8 = wideToUtf8(propertyText(html->tag, html->bytes, codePage));
    }
    const StoredProperty* compressed = findStoredProperty(message, Id::rtfCompressed);
    if (!eml.htmlUtf8.empty() || !compressed || propertyTypeOf(compressed->tag) != PropertyType::Binary)
        return;
    DecompressedRtf rtf = decompressRtf(compressed->bytes);
    if (!rtf.warning.empty()) {
        KV_WARN(logger) << "compressed RTF body of " << compressed->bytes.size() << " bytes: " << widen(rtf.warning)
                        << (rtf.usable ? ", the rest of it is used" : ", not used");
    }
    if (rtf.rtf.empty())
        return;
    const RtfBodyKind kind = rtfBodyKindOf(rtf.rtf);
    if (kind == RtfBodyKind::Text && !eml.body.empty())
        return;
    if (kind == RtfBodyKind::Rtf) {
        if (eml.body.empty()) {
            const std::u16string text = readRtfBody(rtf.rtf, codePageDecoder()).text;
            eml.body.assign(text.begin(), text.end());
        }
        eml.rtf = std::move(rtf.rtf);
        return;
    }
    const RtfBody body = readRtfBody(rtf.rtf, codePageDecoder());
    if (kind == RtfBodyKind::Text) {
        eml.body.assign(body.text.begin(), body.text.end());
        return;
    }
    eml.htmlUtf8 = utf8Of(body.text);
    if (eml.body.empty()) {
        const std::u16string text = rtfPlainText(rtf.rtf, codePageDecoder());
        eml.body.assign(text.begin(), text.end());
    }
}

EmlAttachment attachmentOf(const StoredProperties& row, size_t number, uint32_t codePage)
{
    EmlAttachment attachment;
    for (uint16_t id : {Id::attachLongFileName, Id::attachFileName, Id::displayName}) {
        attachment.fileName = trimBlanks(textOf(row, id, codePage));
        if (!attachment.fileName.empty())
            break;
    }
    if (attachment.fileName.empty())
        attachment.fileName =
            L"attachment" + std::to_wstring(number + 1) + trimBlanks(textOf(row, Id::attachExtension, codePage));
    attachment.mimeType = cleanMimeType(textOf(row, Id::attachMimeTag, codePage));
    if (attachment.mimeType.empty())
        attachment.mimeType = mimeTypeForName(attachment.fileName);
    attachment.contentId = trimBlanks(textOf(row, Id::attachContentId, codePage));
    return attachment;
}

std::string lowerAscii(std::string text)
{
    for (char& c : text)
        c = asciiLower(c);
    return text;
}

// Pictures the HTML shows (a content id it refers to, or one Outlook hid
// from the attachment list) go beside it; a meeting request's calendar goes
// beside the bodies.
void place(EmlMessage& eml, const std::vector<bool>& hidden, const std::wstring& messageClass)
{
    const std::string html = lowerAscii(eml.htmlUtf8);
    const bool meeting = startsWith(messageClass, L"IPM.Schedule.Meeting");
    for (size_t i = 0; i < eml.attachments.size(); ++i) {
        EmlAttachment& attachment = eml.attachments[i];
        if (attachment.message || !attachment.reference.empty())
            continue;
        std::wstring clean = trimBlanks(attachment.contentId);
        if (clean.size() > 2 && clean.front() == L'<' && clean.back() == L'>')
            clean = clean.substr(1, clean.size() - 2);
        const std::string cid = "cid:" + lowerAscii(wideToUtf8(clean));
        if (!html.empty() && !clean.empty() && (hidden[i] || html.find(cid) != std::string::npos))
            attachment.placement = EmlPlacement::Related;
        else if (meeting && equalsIgnoreCase(attachment.mimeType, L"text/calendar"))
            attachment.placement = EmlPlacement::Alternative;
    }
}

EmlMessage collect(const StoredProperties& message, std::vector<EmlAttachmentSource>& attachments,
                   const MailProperties& addresses, int depth);

MailProperties addressesOfAttachedMessage(const EmlMessageSource& source)
{
    MailProperties addresses;
    mailPropertiesFromStored(source.properties, source.recipients, addresses, true);
    return addresses;
}

// The attachment's content by its method; false when it has none to write.
bool collectContent(EmlAttachmentSource& source, uint32_t method, uint32_t codePage, int depth,
                    EmlAttachment& attachment, size_t& leftOut)
{
    StoredProperties& row = source.properties;
    switch (method) {
    case AttachMethod::embeddedMessage: {
        if (!source.message)
            return false;
        auto message = std::make_shared<EmlMessage>(collect(source.message->properties, source.message->attachments,
                                                             addressesOfAttachedMessage(*source.message), depth + 1));
        message->owners = std::move(source.message->owners);
        leftOut += message->attachmentsLeftOut;
        if (attachment.fileName.rfind(L'.') == std::wstring::npos ||
            !equalsIgnoreCase(attachment.fileName.substr(attachment.fileName.rfind(L'.')), L".eml"))
            attachment.fileName += L".eml";
        attachment.mimeType = L"message/rfc822";
        attachment.message = std::move(message);
        return true;
    }
    case AttachMethod::oleObject:
        if (!source.objectBytes)
            break; // its data as bytes, as some writers keep it
        attachment.bytes = std::move(*source.objectBytes);
        attachment.mimeType = L"application/octet-stream";
        KV_WARN(logger) << "attachment " << attachment.fileName << " is an OLE object, written as its compound file";
        return true;
    case attachByReference:
    case attachByReferenceResolve:
    case attachByReferenceOnly:
    case attachByWebReference:
        attachment.reference = trimBlanks(textOf(row, Id::attachLongPathName, codePage));
        if (attachment.reference.empty())
            attachment.reference = trimBlanks(textOf(row, Id::attachPathName, codePage));
        if (attachment.reference.empty())
            return false;
        KV_WARN(logger) << "attachment " << attachment.fileName << " is a link to " << attachment.reference
                        << ", written as a reference";
        return true;
    default:
        break;
    }
    const auto found = row.find(Id::attachDataBin);
    StoredProperty* data = found == row.end() ? nullptr : &found->second;
    if (source.dataStream) {
        attachment.dataStream = std::move(source.dataStream);
        attachment.dataOwner = std::move(source.dataOwner);
        return true;
    }
    if (data && propertyTypeOf(data->tag) == PropertyType::Binary) {
        attachment.bytes = std::move(data->bytes);
        return true;
    }
    return false;
}

EmlMessage collect(const StoredProperties& message, std::vector<EmlAttachmentSource>& attachments,
                   const MailProperties& addresses, int depth)
{
    const uint32_t codePage = stringCodePageOfMessage(message);
    EmlMessage eml;
    eml.subject = textOf(message, Id::subject, codePage);
    if (eml.subject.empty())
        eml.subject = textOf(message, Id::displayName, codePage); // a contact's name, say
    eml.sender = addresses.sender;
    if (eml.sender.mailAddress.empty())
        eml.sender.mailAddress = textOf(message, Id::senderSmtpAddress, codePage);
    eml.from = fromOf(message, eml.sender, codePage);
    eml.replyTo = replyToOf(message, codePage);
    eml.to = addresses.to;
    eml.cc = addresses.cc;
    eml.bcc = addresses.bcc;
    for (uint16_t id : {Id::deliveryTime, Id::clientSubmitTime, Id::creationTime}) {
        if (!eml.date)
            eml.date = timeOf(message, id);
    }
    eml.messageId = textOf(message, Id::internetMessageId, codePage);
    eml.inReplyTo = textOf(message, Id::inReplyTo, codePage);
    eml.references = textOf(message, Id::references, codePage);
    eml.importance = static_cast<int>(std::min<uint32_t>(findStoredLong(message, Id::importance).value_or(1), 2));
    collectBodies(message, codePage, eml);

    std::vector<bool> hidden;
    for (size_t i = 0; i < attachments.size(); ++i) {
        EmlAttachmentSource& source = attachments[i];
        EmlAttachment attachment = attachmentOf(source.properties, i, codePage);
        const uint32_t method = findStoredLong(source.properties, Id::attachMethod).value_or(AttachMethod::byValue);
        if (method == AttachMethod::embeddedMessage && depth >= maxEmbeddedMessageDepth) {
            KV_WARN(logger) << "attached message " << attachment.fileName << " lies deeper than "
                            << maxEmbeddedMessageDepth << " messages, left out";
            ++eml.attachmentsLeftOut;
            continue;
        }
        if (!collectContent(source, method, codePage, depth, attachment, eml.attachmentsLeftOut)) {
            KV_WARN(logger) << "attachment " << attachment.fileName << " (method " << method
                            << ") has nothing that can be written, left out of the .eml";
            ++eml.attachmentsLeftOut;
            continue;
        }
        hidden.push_back(findStoredLong(source.properties, Id::attachmentHidden).value_or(0) != 0);
        eml.attachments.push_back(std::move(attachment));
    }
    place(eml, hidden, textOf(message, Id::messageClass, codePage));
    return eml;
}

} // namespace

const std::vector<ULONG>& emlMessageTags()
{
    static const std::vector<ULONG> tags = {
        tagOf(Id::subject, PropertyType::Unicode),
        tagOf(Id::messageClass, PropertyType::Unicode),
        tagOf(Id::importance, PropertyType::Long),
        tagOf(Id::clientSubmitTime, PropertyType::SysTime),
        tagOf(Id::deliveryTime, PropertyType::SysTime),
        tagOf(Id::creationTime, PropertyType::SysTime),
        tagOf(Id::sentRepresentingName, PropertyType::Unicode),
        tagOf(Id::sentRepresentingAddrType, PropertyType::Unicode),
        tagOf(Id::sentRepresentingEmail, PropertyType::Unicode),
        tagOf(Id::sentRepresentingSmtpAddress, PropertyType::Unicode),
        tagOf(Id::senderSmtpAddress, PropertyType::Unicode),
        tagOf(Id::replyRecipientEntries, PropertyType::Binary),
        tagOf(Id::replyRecipientNames, PropertyType::Unicode),
        tagOf(Id::body, PropertyType::Unicode),
        tagOf(Id::html, PropertyType::Binary),
        tagOf(Id::rtfCompressed, PropertyType::Binary),
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
        tagOf(Id::attachNum, PropertyType::Long),
        tagOf(Id::attachMethod, PropertyType::Long),
        tagOf(Id::attachLongFileName, PropertyType::Unicode),
        tagOf(Id::attachFileName, PropertyType::Unicode),
        tagOf(Id::displayName, PropertyType::Unicode),
        tagOf(Id::attachExtension, PropertyType::Unicode),
        tagOf(Id::attachMimeTag, PropertyType::Unicode),
        tagOf(Id::attachContentId, PropertyType::Unicode),
        tagOf(Id::attachLongPathName, PropertyType::Unicode),
        tagOf(Id::attachPathName, PropertyType::Unicode),
        tagOf(Id::attachmentHidden, PropertyType::Boolean),
        tagOf(Id::attachDataBin, PropertyType::Binary),
    };
    return tags;
}

std::string htmlAsUtf8(const std::string& bytes, UINT codePage)
{
    if (bytes.empty())
        return {};
    if (codePage == CodePage::utf8 || (codePage == 0 && isValidUtf8(bytes)))
        return bytes;
    std::string converted = convertToUtf8(bytes, codePage ? codePage : CodePage::western);
    if (converted.empty() && windowsCodePageOf(codePage) != 0) {
        // An Internet code page this machine can't convert: the Windows code
        // page of its script.
        converted = convertToUtf8(bytes, windowsCodePageOf(codePage));
    }
    if (converted.empty()) {
        KV_WARN(logger) << "HTML body in code page " << codePage << " can't be converted, read as Windows-1252";
        converted = convertToUtf8(bytes, CodePage::western);
    }
    return converted;
}

EmlMessage collectEmlMessage(const StoredProperties& message, std::vector<EmlAttachmentSource> attachments,
                             const MailProperties& addresses)
{
    return collect(message, attachments, addresses, 0);
}
