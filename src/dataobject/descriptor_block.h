#pragma once
// The bytes of a file group descriptor block as the shell lays them out: a
// 32-bit count followed by that many descriptors, each 72 bytes of flags,
// class id, sizes, attributes, times and file size, then the name (260 UTF-16
// units in a FILEDESCRIPTORW, 260 bytes in a FILEDESCRIPTORA).
//
// Blocks come from another program's data object, so nothing here trusts the
// count or expects a name to end in NUL: only the descriptors that lie wholly
// inside the block are read, and a name ends at its NUL or at 260 units.
// Plain bytes in, plain values out; nothing but the log is touched.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace descriptor_block {

constexpr size_t countBytes = 4;
constexpr size_t headerBytes = 72; // everything before the name, copied as it stands
constexpr size_t nameUnits = 260;
constexpr size_t wideDescriptorBytes = headerBytes + nameUnits * 2; // 592
constexpr size_t ansiDescriptorBytes = headerBytes + nameUnits;     // 332

using Bytes = std::span<const std::byte>;

// The count a block declares (0 when the block is shorter than the count).
uint32_t declaredCount(Bytes block);

// How many descriptors of `descriptorBytes` each the block really holds: the
// declared count, bounded by what fits after the count.
size_t descriptorsPresent(Bytes block, size_t descriptorBytes);

// The names of a wide block, index for index; logs when the declared count
// is more than the block holds.
std::vector<std::wstring> readWideNames(Bytes block);

// Converts one 260-byte ANSI name into at most 260 UTF-16 units and returns
// how many it wrote (0 when it could not convert).
using AnsiNameConverter = std::function<size_t(std::span<const char> name, std::span<char16_t> out)>;

// The size of the wide block made from `ansiBlock`: one descriptor per ANSI
// descriptor present, plus one spare descriptor, so the terminator after a
// name that fills all 260 units still lies inside the block.
size_t wideSizeForAnsi(Bytes ansiBlock);

// Writes the wide form of `ansiBlock` into `wideBlock` (zero-filled, of
// wideSizeForAnsi bytes): the count of descriptors present, each header
// unchanged, each name converted, with a NUL after it when there is room.
// Returns the number of descriptors written.
size_t convertAnsiToWide(Bytes ansiBlock, std::span<std::byte> wideBlock, const AnsiNameConverter& convert);

} // namespace descriptor_block
