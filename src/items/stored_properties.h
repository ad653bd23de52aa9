#pragma once
// The values of one message, recipient row or attachment as a .msg storage
// holds them, and the parts of their tags.
#include <cstdint>
#include <map>
#include <string>

// One value as the storage holds it: fixed-size values as their 8 value bytes,
// variable-size values as the whole bytes of their stream.
struct StoredProperty {
    uint32_t tag = 0; // property id in the high word, type in the low word
    std::string bytes;
};

// The properties of one message, recipient row or attachment, by property id
// (the high word of the tag), so that a string found as PT_STRING8 or
// PT_UNICODE is found either way.
using StoredProperties = std::map<uint16_t, StoredProperty>;

namespace PropertyType {
constexpr uint16_t Long = 0x0003;
constexpr uint16_t Error = 0x000A;
constexpr uint16_t Boolean = 0x000B;
constexpr uint16_t LongLong = 0x0014;
constexpr uint16_t String8 = 0x001E;
constexpr uint16_t Unicode = 0x001F;
constexpr uint16_t SysTime = 0x0040;
constexpr uint16_t Binary = 0x0102;
} // namespace PropertyType

constexpr uint16_t propertyTypeOf(uint32_t tag) { return static_cast<uint16_t>(tag & 0xFFFF); }
constexpr uint16_t propertyIdOf(uint32_t tag) { return static_cast<uint16_t>(tag >> 16); }
