#pragma once
// PR_RTF_COMPRESSED: Outlook keeps a mail's RTF body behind a header of four
// little-endian 32-bit words:
//   COMPSIZE  the bytes that follow this word (the other three words and the data)
//   RAWSIZE   the size of the RTF
//   COMPTYPE  "LZFu" (0x75465A4C): compressed; "MELA" (0x414C454D): stored as it is
//   CRC       of the compressed data behind the header
// Compressed data is runs of a control byte and up to eight tokens, low bit
// first: a clear bit is a literal byte, a set bit a 2-byte big-endian
// reference into a 4096-byte ring dictionary (12 bits of offset, 4 bits of
// length less 2). The dictionary starts out holding a fixed RTF prefix; a
// reference to its current write position ends the data.
//
// Bytes in, bytes out, no system calls: the decoder is built and fuzzed on
// any platform.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace CompressedRtf {
inline constexpr uint32_t typeCompressed = 0x75465A4C; // "LZFu"
inline constexpr uint32_t typeStored = 0x414C454D;     // "MELA"
inline constexpr size_t headerSize = 16;
inline constexpr size_t dictionarySize = 4096;
// What the dictionary holds before the first byte is decoded.
inline constexpr std::string_view dictionaryPrefix =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern \\fscript "
    "\\fdecor MS Sans SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0\\blue0\r\n\\par "
    "\\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
} // namespace CompressedRtf

struct DecompressedRtf {
    std::string rtf;     // what could be decoded: at most RAWSIZE bytes and at most the limit
    std::string warning; // empty when the header, the sizes, the CRC and the data agree
    bool usable = false; // false: no compressed RTF at all (too short, unknown type); `rtf` is empty
};

// Never reads beyond `bytes`, never writes more than `maxRtfBytes`, and does
// work in proportion to the smaller of the two.
DecompressedRtf decompressRtf(std::string_view bytes, size_t maxRtfBytes = size_t(64) << 20);

// The CRC of compressed RTF data: CRC-32 over the reflected polynomial
// 0xEDB88320, started at 0 and not inverted at the end.
uint32_t compressedRtfCrc(std::string_view data);
