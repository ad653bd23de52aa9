#include "items/flat_entry_list.h"

#include <algorithm>
#include <cstdint>

namespace {

constexpr std::string_view oneOffProvider("\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02", 16);
constexpr size_t oneOffHeaderSize = 4 + 16 + 2 + 2;
constexpr uint16_t oneOffUnicode = 0x8000;

uint32_t le32(std::string_view bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    return value;
}

// The NUL-terminated string at `at`, stepping `at` behind its terminator
// (or to the end of the entry when it has none).
std::u16string takeString(std::string_view entry, size_t& at, bool unicode, uint32_t codePage,
                          const CodePageDecoder& decode)
{
    if (!unicode) {
        const size_t end = std::min(entry.find('\0', at), entry.size());
        const std::string_view bytes = entry.substr(at, end - at);
        at = end < entry.size() ? end + 1 : end;
        return bytes.empty() ? std::u16string() : decode(bytes, codePage);
    }
    std::u16string text;
    for (; at + 2 <= entry.size(); at += 2) {
        const auto unit = static_cast<char16_t>(static_cast<unsigned char>(entry[at]) |
                                                static_cast<unsigned char>(entry[at + 1]) << 8);
        if (unit == 0) {
            at += 2;
            return text;
        }
        text += unit;
    }
    at = entry.size();
    return text;
}

} // namespace

FlatEntryListAddresses addressesOfFlatEntryList(std::string_view list, uint32_t codePage,
                                                const CodePageDecoder& decode)
{
    FlatEntryListAddresses result;
    if (list.size() < 8) {
        result.damaged = !list.empty();
        return result;
    }
    const uint32_t count = le32(list, 0);
    size_t at = 8;
    for (uint32_t i = 0; i < count; ++i) {
        if (list.size() - at < 4) {
            result.damaged = true;
            break;
        }
        const uint32_t size = le32(list, at);
        at += 4;
        if (size > list.size() - at) {
            result.damaged = true;
            break;
        }
        const std::string_view entry = list.substr(at, size);
        at += size;
        at += std::min<size_t>((4 - size % 4) % 4, list.size() - at);
        if (entry.size() < oneOffHeaderSize || entry.substr(4, 16) != oneOffProvider) {
            ++result.otherEntries;
            continue;
        }
        const auto flags = static_cast<uint16_t>(static_cast<unsigned char>(entry[22]) |
                                                 static_cast<unsigned char>(entry[23]) << 8);
        const bool unicode = (flags & oneOffUnicode) != 0;
        size_t field = oneOffHeaderSize;
        OneOffAddress address;
        address.name = takeString(entry, field, unicode, codePage, decode);
        address.addrType = takeString(entry, field, unicode, codePage, decode);
        address.address = takeString(entry, field, unicode, codePage, decode);
        result.addresses.push_back(std::move(address));
    }
    return result;
}
