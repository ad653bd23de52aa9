#pragma once
// What the .eml writer needs of a mail, gathered from its properties: the
// addresses (already resolved by the mail item), subject, date, identifiers,
// the bodies (plain, HTML, RTF) and the attachments, attached messages
// among them with their own bodies and attachments. The properties come as
// one map per message and attachment, whether they were read through MAPI or
// straight from the .msg storage.
#include "items/mail_properties.h"
#include "items/msg_storage.h"

#include <windows.h>
#include <objidl.h>
#include <wrl/client.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

struct EmlMessage;

// Where an attachment goes in the MIME structure.
enum class EmlPlacement {
    Attachment,  // a part of the multipart/mixed
    Related,     // a picture of the HTML body: beside it in a multipart/related
    Alternative, // a meeting request's text/calendar: beside the bodies in the multipart/alternative
};

struct EmlAttachment {
    std::wstring fileName;
    std::wstring mimeType;  // "application/octet-stream" when the mail names none
    std::wstring contentId; // for pictures the HTML refers to; may be empty
    EmlPlacement placement = EmlPlacement::Attachment;
    std::string bytes;      // used when there is no dataStream
    // Where the bytes are read from while the mail is written, so that a large
    // attachment is never held in memory; `dataOwner` keeps what the stream
    // lives in (its storage, its MAPI attachment) open.
    Microsoft::WRL::ComPtr<IStream> dataStream;
    Microsoft::WRL::ComPtr<IUnknown> dataOwner;
    // An attached message: written as a message/rfc822 part of its own.
    std::shared_ptr<const EmlMessage> message;
    // An attachment by reference: the path or URL it points to, written as
    // a message/external-body part.
    std::wstring reference;
};

struct EmlMessageSource;

// One attachment as a reader found it: its properties and, when its bytes
// were left where they are, the stream to read them from.
struct EmlAttachmentSource {
    StoredProperties properties;
    Microsoft::WRL::ComPtr<IStream> dataStream;
    Microsoft::WRL::ComPtr<IUnknown> dataOwner;
    std::wstring storageName;                  // its storage in the message's, "" when unknown
    std::shared_ptr<EmlMessageSource> message; // an attached message, read from its storage
    std::optional<std::string> objectBytes;    // an OLE object's storage as a compound file
};

// An attached message as a reader found it.
struct EmlMessageSource {
    // The storages its attachments' streams live in, kept open until written
    // (and released after them).
    std::vector<Microsoft::WRL::ComPtr<IUnknown>> owners;
    StoredProperties properties;
    std::vector<StoredProperties> recipients;
    std::vector<EmlAttachmentSource> attachments;
};

struct EmlMessage {
    std::vector<Microsoft::WRL::ComPtr<IUnknown>> owners; // as EmlMessageSource's
    std::wstring subject;
    MailAddress from;   // who the mail is from (sent representing), else the sender
    MailAddress sender; // written as Sender only when its address differs from From's
    std::vector<MailAddress> replyTo, to, cc, bcc;
    std::optional<FILETIME> date; // delivery time, else submit time, else creation time
    std::wstring messageId, inReplyTo, references;
    int importance = 1;   // PR_IMPORTANCE: 0 low, 1 normal, 2 high
    std::wstring body;    // plain text
    std::string htmlUtf8; // HTML body as UTF-8; empty when the mail has none
    std::string rtf;      // a genuine RTF body (text/rtf); empty when there is none
    std::vector<EmlAttachment> attachments;
    size_t attachmentsLeftOut = 0; // logged, not written (this message and those it holds)
};

// The ids of the message properties the writer reads.
namespace EmlPropertyId {
constexpr uint16_t importance = 0x0017;
constexpr uint16_t messageClass = 0x001A;
constexpr uint16_t subject = 0x0037;
constexpr uint16_t clientSubmitTime = 0x0039;
constexpr uint16_t sentRepresentingName = 0x0042;
constexpr uint16_t replyRecipientEntries = 0x004F;
constexpr uint16_t replyRecipientNames = 0x0050;
constexpr uint16_t sentRepresentingAddrType = 0x0064;
constexpr uint16_t sentRepresentingEmail = 0x0065;
constexpr uint16_t senderName = 0x0C1A;
constexpr uint16_t senderEmail = 0x0C1F;
constexpr uint16_t deliveryTime = 0x0E06;
constexpr uint16_t body = 0x1000;
constexpr uint16_t rtfCompressed = 0x1009;
constexpr uint16_t html = 0x1013;
constexpr uint16_t internetMessageId = 0x1035;
constexpr uint16_t references = 0x1039;
constexpr uint16_t inReplyTo = 0x1042;
constexpr uint16_t creationTime = 0x3007;
constexpr uint16_t internetCodepage = 0x3FDE;
constexpr uint16_t messageCodepage = 0x3FFD;
constexpr uint16_t senderSmtpAddress = 0x5D01;
constexpr uint16_t sentRepresentingSmtpAddress = 0x5D02;
// Attachments.
constexpr uint16_t attachNum = 0x0E21;
constexpr uint16_t displayName = 0x3001;
constexpr uint16_t attachDataBin = 0x3701;
constexpr uint16_t attachExtension = 0x3703;
constexpr uint16_t attachFileName = 0x3704;
constexpr uint16_t attachMethod = 0x3705;
constexpr uint16_t attachLongFileName = 0x3707;
constexpr uint16_t attachPathName = 0x3708;
constexpr uint16_t attachLongPathName = 0x370D;
constexpr uint16_t attachMimeTag = 0x370E;
constexpr uint16_t attachContentId = 0x3712;
constexpr uint16_t attachmentHidden = 0x7FFE;
} // namespace EmlPropertyId

// PR_ATTACH_METHOD values.
namespace AttachMethod {
constexpr uint32_t none = 0;
constexpr uint32_t byValue = 1;
constexpr uint32_t embeddedMessage = 5;
constexpr uint32_t oleObject = 6;
} // namespace AttachMethod

// How deep attached messages are followed: a mail that holds a mail that
// holds a mail... (or, through a damaged storage, itself) ends here.
constexpr int maxEmbeddedMessageDepth = 16;

// Tags (with their usual types) to ask MAPI for.
const std::vector<ULONG>& emlMessageTags();
const std::vector<ULONG>& emlAttachmentTags();

// Builds the message from the properties. `addresses` gives the sender and
// the recipients as the mail item resolved them. Attachments without bytes
// of their own (neither a value, a stream, an attached message, an object
// nor a reference) are logged at WARN and left out (and counted). The
// attachments' bytes are moved, not copied.
EmlMessage collectEmlMessage(const StoredProperties& message, std::vector<EmlAttachmentSource> attachments,
                             const MailProperties& addresses);

// The HTML body's bytes as UTF-8: converted from the code page the mail
// names, kept when it names none and they are UTF-8 already, else read as
// Windows-1252.
std::string htmlAsUtf8(const std::string& bytes, UINT codePage);
