// The properties stream of a .msg storage's message (32-byte header), of a
// recipient or attachment (8) or of an attached message (24), with the
// values kept in streams of their own taken from the rest of the input:
// whole, cut short or missing.
#include "items/msg_layout.h"
#include "items/msg_properties_stream.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

using namespace MsgPropertiesStream;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const size_t headerSize = input.PickValueInArray(
        {MsgLayout::messageHeaderSize, MsgLayout::rowHeaderSize, MsgLayout::embeddedMessageHeaderSize});
    const bool leaveAttachmentData = input.ConsumeBool();
    const std::string stream = input.ConsumeBytesAsString(input.ConsumeIntegralInRange<size_t>(0, 4096));
    const std::optional<size_t> offset = entriesOffset(stream.size(), headerSize, L"__recip_version1.0_#00000000");
    if (!offset)
        return 0;
    StoredProperties properties;
    const auto readStreamed = [&input](uint32_t tag, uint32_t size, std::string& bytes) {
        if (input.ConsumeBool())
            return false; // the stream can't be opened
        bytes = input.ConsumeBytesAsString(input.ConsumeIntegralInRange<size_t>(0, std::min<uint32_t>(size, 65536)));
        return completeStreamedValue(tag, size, bytes);
    };
    readEntries(stream, *offset, L"", leaveAttachmentData, readStreamed, properties);
    for (const auto& [id, property] : properties) {
        const auto kind = MsgLayout::valueKindOf(propertyTypeOf(property.tag));
        if (propertyIdOf(property.tag) != id || (kind == MsgLayout::ValueKind::Fixed && property.bytes.size() != 8) ||
            kind == MsgLayout::ValueKind::Unsupported)
            std::abort();
    }
    return 0;
}
