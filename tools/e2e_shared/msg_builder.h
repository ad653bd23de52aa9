#pragma once
// Writes Outlook .msg compound storages: the properties Outlook writes for a
// plain mail, its recipient rows and its attachments, into a file, into a
// storage in memory (as Outlook hands a dragged mail over), or into any
// IStorage. The low-level helpers at the end write deliberately broken
// storages for the reader's hostile-input tests.
//
// Empty strings and empty entry ids are not written at all, so a test leaves
// a property out by leaving its field empty; an empty-but-present value goes
// through `extraProperties`.
#include "items/msg_storage.h"

#include <windows.h>
#include <objidl.h>
#include <wrl/client.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The property ids the builder writes (tags are id << 16 | type).
namespace MsgPropertyId {
constexpr uint16_t importance = 0x0017;
constexpr uint16_t messageClass = 0x001A;
constexpr uint16_t subject = 0x0037;
constexpr uint16_t clientSubmitTime = 0x0039;
constexpr uint16_t senderEntryId = 0x0C19;
constexpr uint16_t senderName = 0x0C1A;
constexpr uint16_t senderAddrType = 0x0C1E;
constexpr uint16_t senderEmail = 0x0C1F;
constexpr uint16_t recipientType = 0x0C15;
constexpr uint16_t deliveryTime = 0x0E06;
constexpr uint16_t messageFlags = 0x0E07;
constexpr uint16_t attachSize = 0x0E20;
constexpr uint16_t attachNum = 0x0E21;
constexpr uint16_t objectType = 0x0FFE;
constexpr uint16_t entryId = 0x0FFF;
constexpr uint16_t body = 0x1000;
constexpr uint16_t html = 0x1013;
constexpr uint16_t internetMessageId = 0x1035;
constexpr uint16_t inReplyTo = 0x1042;
constexpr uint16_t rowId = 0x3000;
constexpr uint16_t displayName = 0x3001;
constexpr uint16_t addrType = 0x3002;
constexpr uint16_t emailAddress = 0x3003;
constexpr uint16_t storeSupportMask = 0x340D;
constexpr uint16_t internetCodepage = 0x3FDE;
constexpr uint16_t messageCodepage = 0x3FFD;
constexpr uint16_t replyRecipientEntries = 0x004F;
constexpr uint16_t replyRecipientNames = 0x0050;
constexpr uint16_t rtfInSync = 0x0E1F;
constexpr uint16_t rtfCompressed = 0x1009;
constexpr uint16_t attachContentId = 0x3712;
constexpr uint16_t attachLongPathName = 0x370D;
constexpr uint16_t attachmentHidden = 0x7FFE;
constexpr uint16_t displayType = 0x3900;
constexpr uint16_t attachDataBin = 0x3701;
constexpr uint16_t attachExtension = 0x3703;
constexpr uint16_t attachFileName = 0x3704;
constexpr uint16_t attachMethod = 0x3705;
constexpr uint16_t attachLongFileName = 0x3707;
constexpr uint16_t renderingPosition = 0x370B;
constexpr uint16_t attachMimeTag = 0x370E;
} // namespace MsgPropertyId

struct MsgRecipient {
    ULONG type = 1; // 1 To, 2 Cc, 3 Bcc; other values are written as they are
    std::wstring name, address, addrType;
    std::string entryId;
};

struct MsgContent;

struct MsgAttachment {
    std::wstring fileName; // an attached message's display name
    std::string bytes;
    std::wstring mimeType;
    std::wstring contentId{}; // a picture the HTML shows as "cid:" + contentId
    bool hidden = false;      // left out of Outlook's attachment list, as inline pictures are
    // An attached message (attach method 5), written as its own storage.
    std::shared_ptr<const MsgContent> message{};
    std::wstring linkPath{}; // an attachment by reference only (method 4) to this path
};

struct MsgContent {
    std::wstring subject;
    std::optional<FILETIME> deliveryTime, submitTime;
    std::wstring senderName, senderAddress, senderAddrType;
    std::string senderEntryId;
    std::wstring messageClass = L"IPM.Note";
    std::wstring body;
    std::string html;
    std::wstring internetMessageId, inReplyTo;
    std::vector<MsgRecipient> recipients;
    std::vector<MsgAttachment> attachments;
    std::vector<MsgRecipient> replyTo; // one-off entries of PR_REPLY_RECIPIENT_ENTRIES
    bool unicodeStrings = true; // false writes PT_STRING8 in `codePage`
    UINT codePage = CP_ACP;
    // The bodies as PR_RTF_COMPRESSED only (no PR_BODY, no PR_HTML): the HTML
    // encapsulated in RTF when there is HTML, else the text as RTF of its own.
    bool rtfBody = false;
    size_t trailingBytes = 0; // after the last entry of the properties stream
    // Written last; one with the id of a property above replaces it. Streamed
    // types are written as their bytes, fixed-size ones as up to 8 value bytes;
    // PT_OBJECT and multi-valued strings or binaries are refused (E_INVALIDARG).
    std::vector<StoredProperty> extraProperties;
};

// Wine keeps a storage's directory as a plain binary search tree and never
// rebalances it, so storages created in name order become one long list and
// every lookup and every enumeration step walks it (a thousand recipients
// then cost a second to open). Outlook's files have balanced trees. The
// builder therefore creates row storages in this order, the middle first,
// which gives Wine a balanced tree too: the numbers 0..count-1.
std::vector<uint32_t> balancedCreationOrder(uint32_t count);

// Writes the message into `target` (which the caller commits).
HRESULT writeMsgStorage(IStorage* target, const MsgContent& content);

// A new compound file at `path`, written and committed.
HRESULT writeMsgFile(const std::wstring& path, const MsgContent& content);

// The message in a storage on an ILockBytes over global memory, committed;
// null when anything failed.
Microsoft::WRL::ComPtr<IStorage> makeMsgInMemory(const MsgContent& content);

// The RTF that `rtfBody` writes (empty without it), and the compressed RTF
// format (LZFu) it is written in.
std::string rtfBodyOf(const MsgContent& content);
std::string compressRtf(std::string_view rtf);

// Values for `extraProperties`.
StoredProperty unicodeProperty(uint16_t id, std::wstring_view text);
StoredProperty string8Property(uint16_t id, std::string_view text);
StoredProperty longProperty(uint16_t id, uint32_t value);
StoredProperty timeProperty(uint16_t id, const FILETIME& time);

// The FILETIME of a UTC date and time.
FILETIME utcFileTime(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second);

// --- Low level, for storages that are broken on purpose ---

// An empty storage on global memory.
Microsoft::WRL::ComPtr<IStorage> makeStorageInMemory();

// A child storage (e.g. "__recip_version1.0_#00000000"), created or replaced.
Microsoft::WRL::ComPtr<IStorage> createChildStorage(IStorage* parent, const std::wstring& name);

// One 16-byte properties entry: tag, flags, and the 8-byte value field (for
// a streamed type the low 4 bytes are the size).
std::string propertyEntry(uint32_t tag, uint64_t value, uint32_t flags = 6);

// "__properties_version1.0" as `headerSize` zero bytes followed by `entries`,
// taken as they are (they need not be whole entries).
HRESULT writeRawPropertiesStream(IStorage* target, size_t headerSize, std::string_view entries);

// "__substg1.0_" + the tag in hex, holding exactly `bytes`.
HRESULT writeRawSubstorageStream(IStorage* target, uint32_t tag, std::string_view bytes);

// Any stream, written in bounded chunks.
HRESULT writeRawStream(IStorage* target, const std::wstring& name, std::string_view bytes);
