#pragma once
// Reading a message straight from its .msg compound storage, in the documented
// layout, for when Extended MAPI can't be used:
// - "__properties_version1.0": a header (32 bytes for the message itself,
//   8 bytes inside recipient and attachment storages) followed by 16-byte
//   entries: tag (4), flags (4), value (8);
// - "__substg1.0_TTTTTTTT": the bytes of one variable-size value (strings,
//   binaries), TTTTTTTT being the tag in upper-case hex;
// - "__recip_version1.0_#XXXXXXXX": one storage per recipient row, with its
//   own properties stream and substorage streams;
// - "__attach_version1.0_#XXXXXXXX": one storage per attachment.
#include "items/stored_properties.h"

#include <objidl.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// A value, recipient row or attachment that was in the storage but was left
// out because it could not be read safely.
struct SkippedValue {
    std::wstring where; // the recipient or attachment storage's name, "" for the message itself
    uint32_t tag = 0;   // 0 when a whole recipient or attachment storage was left out
    HRESULT hr = S_OK;  // why
};

struct StoredMessage {
    StoredProperties properties;
    std::vector<StoredProperties> recipients;  // in the order of their storage numbers
    std::vector<StoredProperties> attachments; // in the order of their storage numbers
    std::vector<std::wstring> attachmentNames;  // the storage name of each of `attachments`
    std::vector<SkippedValue> skipped;         // what was left out, in the order met
};

// Bounds that keep a hostile storage from costing unbounded memory or time.
struct StoredReadLimits {
    size_t maxValueBytes = size_t(64) << 20; // one value's stream
    size_t maxRows = 8192;                   // recipient storages; attachment storages
    bool readAttachments = true;             // false: only the message and its recipients
    // false: an attachment's PR_ATTACH_DATA_BIN is listed with empty bytes
    // and left in its stream, for a caller that streams it from the storage
    // named in attachmentNames rather than holding it in memory.
    bool readAttachmentData = true;
    // The storage of an attached message (__substg1.0_3701000D), whose
    // properties stream has the shorter header of its own.
    bool embeddedMessage = false;
};

// Reads the message's properties, its recipient rows and its attachments'
// properties (an embedded message attachment's storage is not descended into:
// its PT_OBJECT value is kept with empty bytes).
// A storage without a properties stream is not a message: STG_E_FILENOTFOUND.
// A properties stream shorter than its header, or longer than any message's,
// gives STG_E_DOCFILECORRUPT for the whole read; bytes after its last whole
// entry are ignored, as Outlook ignores them. Substorage streams that are
// missing or shorter than their entry says give STG_E_DOCFILECORRUPT for
// that value, which is skipped; every failure is logged. Never reads past a
// buffer. Of a property stored both as PT_UNICODE and as PT_STRING8 the
// Unicode value is kept; otherwise the first entry of an id counts.
// A value can be skipped; so can a recipient or attachment storage whose own
// properties stream is broken. Each is listed in `skipped` with its reason
// (STG_E_DOCFILECORRUPT, STG_E_DOCFILETOOLARGE beyond the limits, or the
// stream's own error) and the read then returns S_FALSE; S_OK means all was read.
// String values are stored without their terminating NUL; multi-valued
// fixed-size values as the bytes of their one stream; multi-valued strings and
// binaries (one stream per value) are not read.
HRESULT readStoredMessage(IStorage* storage, StoredMessage& message, const StoredReadLimits& limits = {});

// What a failed readStoredMessage means, for the log.
const wchar_t* storedReadProblem(HRESULT hr);

// The property with this id, or null.
const StoredProperty* findStoredProperty(const StoredProperties& properties, uint16_t propertyId);

// The value of a PT_LONG or PT_BOOLEAN property with this id, if there is one.
std::optional<uint32_t> findStoredLong(const StoredProperties& properties, uint16_t propertyId);
