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
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct MsgRecipient {
    ULONG type = 1; // 1 To, 2 Cc, 3 Bcc; other values are written as they are
    std::wstring name, address, addrType;
    std::string entryId;
};

struct MsgAttachment {
    std::wstring fileName;
    std::string bytes;
    std::wstring mimeType;
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
    bool unicodeStrings = true; // false writes PT_STRING8 in the ANSI code page
    // Written last; one with the id of a property above replaces it. Streamed
    // types are written as their bytes, fixed-size ones as up to 8 value bytes.
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
