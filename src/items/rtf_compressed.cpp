#include "items/rtf_compressed.h"

#include <algorithm>
#include <array>

namespace {

static_assert(CompressedRtf::dictionaryPrefix.size() == 207);

constexpr std::array<uint32_t, 256> crcTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        table[i] = value;
    }
    return table;
}();

uint32_t le32(std::string_view bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    return value;
}

void addWarning(std::string& warning, const std::string& text)
{
    if (!warning.empty())
        warning += "; ";
    warning += text;
}

std::string hex32(uint32_t value)
{
    constexpr const char* digits = "0123456789ABCDEF";
    std::string text = "0x00000000";
    for (size_t i = 9; i >= 2; --i, value >>= 4)
        text[i] = digits[value & 15];
    return text;
}

// The LZ decoding proper. Returns whether the end mark was reached.
bool decodeLz(std::string_view data, size_t limit, std::string& out)
{
    std::array<char, CompressedRtf::dictionarySize> dictionary{};
    std::copy(CompressedRtf::dictionaryPrefix.begin(), CompressedRtf::dictionaryPrefix.end(), dictionary.begin());
    size_t writeAt = CompressedRtf::dictionaryPrefix.size();
    constexpr size_t mask = CompressedRtf::dictionarySize - 1;

    size_t at = 0;
    while (at < data.size() && out.size() < limit) {
        const auto control = static_cast<unsigned char>(data[at++]);
        for (int bit = 0; bit < 8 && at < data.size() && out.size() < limit; ++bit) {
            if (!(control & (1u << bit))) {
                const char c = data[at++];
                out += c;
                dictionary[writeAt] = c;
                writeAt = (writeAt + 1) & mask;
                continue;
            }
            if (at + 2 > data.size())
                return false;
            const unsigned word = static_cast<unsigned char>(data[at]) << 8 | static_cast<unsigned char>(data[at + 1]);
            at += 2;
            size_t offset = word >> 4;
            if (offset == writeAt)
                return true;
            const size_t length = std::min<size_t>((word & 15) + 2, limit - out.size());
            // One byte at a time: a reference may overlap what it writes.
            for (size_t i = 0; i < length; ++i) {
                const char c = dictionary[offset];
                offset = (offset + 1) & mask;
                out += c;
                dictionary[writeAt] = c;
                writeAt = (writeAt + 1) & mask;
            }
        }
    }
    return false;
}

} // namespace

uint32_t compressedRtfCrc(std::string_view data)
{
    uint32_t crc = 0;
    for (char c : data)
        crc = crcTable[(crc ^ static_cast<unsigned char>(c)) & 0xFF] ^ (crc >> 8);
    return crc;
}

DecompressedRtf decompressRtf(std::string_view bytes, size_t maxRtfBytes)
{
    DecompressedRtf result;
    if (bytes.size() < CompressedRtf::headerSize) {
        result.warning = "only " + std::to_string(bytes.size()) + " bytes, no compressed RTF header";
        return result;
    }
    const uint64_t compressedSize = le32(bytes, 0);
    const uint32_t rawSize = le32(bytes, 4);
    const uint32_t type = le32(bytes, 8);
    const uint32_t crc = le32(bytes, 12);
    if (type != CompressedRtf::typeCompressed && type != CompressedRtf::typeStored) {
        result.warning = "unknown compression type " + hex32(type);
        return result;
    }
    result.usable = true;

    // COMPSIZE counts from behind itself. Bytes beyond it are ignored; a
    // value shorter than it says is decoded as far as it goes.
    std::string_view data = bytes.substr(CompressedRtf::headerSize);
    if (compressedSize + 4 != bytes.size()) {
        addWarning(result.warning, "header counts " + std::to_string(compressedSize + 4) + " bytes, the value has " +
                                       std::to_string(bytes.size()));
        if (compressedSize + 4 < bytes.size())
            data = data.substr(0, compressedSize + 4 > CompressedRtf::headerSize
                                      ? static_cast<size_t>(compressedSize + 4 - CompressedRtf::headerSize)
                                      : 0);
    }
    const size_t limit = std::min<size_t>(rawSize, maxRtfBytes);
    if (rawSize > maxRtfBytes)
        addWarning(result.warning, "RTF of " + std::to_string(rawSize) + " bytes, only the first " +
                                       std::to_string(maxRtfBytes) + " are decoded");

    if (type == CompressedRtf::typeStored) {
        result.rtf.assign(data.substr(0, limit));
    } else {
        const uint32_t actualCrc = compressedRtfCrc(data);
        if (actualCrc != crc)
            addWarning(result.warning, "CRC " + hex32(actualCrc) + " does not match the header's " + hex32(crc));
        // Eight tokens of at most 17 bytes each for every 17 bytes of input.
        result.rtf.reserve(std::min(limit, data.size() * 8 + 64));
        const bool ended = decodeLz(data, limit, result.rtf);
        if (!ended && result.rtf.size() < limit)
            addWarning(result.warning, "data ends without its end mark");
    }
    if (result.rtf.size() < limit)
        addWarning(result.warning, "decoded " + std::to_string(result.rtf.size()) + " bytes, the header says " +
                                       std::to_string(rawSize));
    return result;
}
