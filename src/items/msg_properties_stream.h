#pragma once
// One "__properties_version1.0" stream of a .msg storage (the message's own,
// a recipient's or an attachment's) as bytes: where its entries start, and
// each entry's value as the storage holds it. The bytes of values kept in
// streams of their own come through a function of the caller's, which opens
// those streams (msg_storage.cpp), so the parse itself touches nothing but
// the log and builds, and is fuzzed, anywhere.
#include "items/stored_properties.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace MsgPropertiesStream {

// Where the entries start in a stream of `streamBytes` bytes whose header
// should be `headerSize` bytes long; some writers give an attached message
// the message's longer header. nullopt (logged) when the stream is shorter
// than its header. Bytes after the last whole entry are logged and ignored.
std::optional<size_t> entriesOffset(size_t streamBytes, size_t headerSize, const std::wstring& where);

// Fills `bytes` with a value stored in a stream of its own; false when the
// value is left out (the reader records why).
using StreamedValueReader = std::function<bool(uint32_t tag, uint32_t size, std::string& bytes)>;

// Takes the values of the whole entries from `offset` on into `properties`.
// The first entry of a property id counts, except that a Unicode string wins
// over its 8-bit form; multi-valued strings and binaries (one stream per
// value) are not read; PR_ATTACH_DATA_BIN is kept with empty bytes when
// `leaveAttachmentData` is set.
void readEntries(std::string_view stream, size_t offset, const std::wstring& where, bool leaveAttachmentData,
                 const StreamedValueReader& readStreamed, StoredProperties& properties);

// A streamed value's bytes against its entry's size, which counts a string's
// terminator: the stream may lack that terminator, and loses the one it has.
// False when the stream holds less than that.
bool completeStreamedValue(uint32_t tag, uint32_t size, std::string& bytes);

// How the log names a value ("0x0037001F") and its place ("message" for the
// message itself, else the recipient or attachment storage's name).
std::wstring tagText(uint32_t tag);
std::wstring placeText(const std::wstring& where);

} // namespace MsgPropertiesStream
