#pragma once
// What the .eml writer needs of a mail, gathered from its properties: the
// addresses (already resolved by the mail item), subject, date, identifiers,
// the plain and HTML bodies and the attachments stored by value. The
// properties come as one map per message and attachment, whether they were
// read through MAPI or straight from the .msg storage.
#include "items/mail_properties.h"
#include "items/msg_storage.h"

#include <windows.h>
#include <objidl.h>
#include <wrl/client.h>

#include <optional>
#include <string>
#include <vector>

struct EmlAttachment {
    std::wstring fileName;
    std::wstring mimeType;  // "application/octet-stream" when the mail names none
    std::wstring contentId; // for pictures the HTML refers to; may be empty
    std::string bytes;      // used when there is no dataStream
    // Where the bytes are read from while the mail is written, so that a large
    // attachment is never held in memory; `dataOwner` keeps what the stream
    // lives in (its storage, its MAPI attachment) open.
    Microsoft::WRL::ComPtr<IStream> dataStream;
    Microsoft::WRL::ComPtr<IUnknown> dataOwner;
};

// One attachment as a reader found it: its properties and, when its bytes
// were left where they are, the stream to read them from.
struct EmlAttachmentSource {
    StoredProperties properties;
    Microsoft::WRL::ComPtr<IStream> dataStream;
    Microsoft::WRL::ComPtr<IUnknown> dataOwner;
};

struct EmlMessage {
    std::wstring subject;
    MailAddress from;   // who the mail is from (sent representing), else the sender
    MailAddress sender; // written as Sender only when its address differs from From's
    std::vector<MailAddress> to, cc, bcc;
    std::optional<FILETIME> date; // submit time, else delivery time
    std::wstring messageId, inReplyTo, references;
    std::wstring body;      // plain text
    std::string htmlUtf8;   // HTML body as UTF-8; empty when the mail has none
    std::vector<EmlAttachment> attachments;
    size_t attachmentsLeftOut = 0; // embedded messages, OLE objects, links: logged, not written
};

// The ids of the message properties the writer reads.
namespace EmlPropertyId {
constexpr uint16_t subject = 0x0037;
constexpr uint16_t clientSubmitTime = 0x0039;
constexpr uint16_t sentRepresentingName = 0x0042;
constexpr uint16_t sentRepresentingAddrType = 0x0064;
constexpr uint16_t sentRepresentingEmail = 0x0065;
constexpr uint16_t senderName = 0x0C1A;
constexpr uint16_t senderEmail = 0x0C1F;
constexpr uint16_t deliveryTime = 0x0E06;
constexpr uint16_t body = 0x1000;
constexpr uint16_t html = 0x1013;
constexpr uint16_t internetMessageId = 0x1035;
constexpr uint16_t references = 0x1039;
constexpr uint16_t inReplyTo = 0x1042;
constexpr uint16_t internetCodepage = 0x3FDE;
constexpr uint16_t senderSmtpAddress = 0x5D01;
constexpr uint16_t sentRepresentingSmtpAddress = 0x5D02;
// Attachments.
constexpr uint16_t displayName = 0x3001;
constexpr uint16_t attachDataBin = 0x3701;
constexpr uint16_t attachExtension = 0x3703;
constexpr uint16_t attachFileName = 0x3704;
constexpr uint16_t attachMethod = 0x3705;
constexpr uint16_t attachLongFileName = 0x3707;
constexpr uint16_t attachMimeTag = 0x370E;
constexpr uint16_t attachContentId = 0x3712;
} // namespace EmlPropertyId

// Tags (with their usual types) to ask MAPI for.
const std::vector<ULONG>& emlMessageTags();
const std::vector<ULONG>& emlAttachmentTags();

// Builds the message from the properties. `addresses` gives the sender and
// the recipients as the mail item resolved them. Attachments without bytes
// of their own (neither a value nor a stream) are left out (and counted).
// The attachments' bytes are moved, not copied.
EmlMessage collectEmlMessage(const StoredProperties& message, std::vector<EmlAttachmentSource> attachments,
                             const MailProperties& addresses);

// The HTML body's bytes as UTF-8: converted from the code page the mail
// names, kept when it names none and they are UTF-8 already, else read as
// Windows-1252.
std::string htmlAsUtf8(const std::string& bytes, UINT codePage);
