#include "dataobject/descriptor_block.h"

#include "core/log_line.h"

#include <algorithm>
#include <cstring>

namespace descriptor_block {

namespace {

Logger logger("DataObjectHelper");

uint32_t readUint32(const std::byte* at)
{
    uint32_t value = 0;
    std::memcpy(&value, at, sizeof value);
    return value;
}

void writeUint32(std::byte* at, uint32_t value)
{
    std::memcpy(at, &value, sizeof value);
}

// The name field of a wide descriptor is not aligned for 16-bit units in
// every block a caller may hand over, so units are copied byte-wise, one by
// one (a wide string's unit is 16 bits on Windows, wider elsewhere).
std::wstring readWideName(const std::byte* field)
{
    std::wstring name;
    uint16_t unit = 0;
    for (size_t i = 0; i < nameUnits; ++i) {
        std::memcpy(&unit, field + i * 2, sizeof unit);
        if (unit == 0)
            break;
        name.push_back(static_cast<wchar_t>(unit));
    }
    return name;
}

void logShortBlock(uint32_t declared, size_t present, size_t blockBytes)
{
    KV_WARN(logger) << "descriptor block declares cItems=" << declared << " but holds only " << present
                    << " descriptors in " << blockBytes << " bytes; reading those";
}

} // namespace

uint32_t declaredCount(Bytes block)
{
    return block.size() < countBytes ? 0 : readUint32(block.data());
}

size_t descriptorsPresent(Bytes block, size_t descriptorBytes)
{
    if (block.size() < countBytes || descriptorBytes == 0)
        return 0;
    const size_t fitting = (block.size() - countBytes) / descriptorBytes;
    return std::min<size_t>(declaredCount(block), fitting);
}

std::vector<std::wstring> readWideNames(Bytes block)
{
    std::vector<std::wstring> names;
    if (block.size() < countBytes) {
        KV_WARN(logger) << "descriptor block of " << block.size() << " bytes has no room for its count";
        return names;
    }
    const uint32_t declared = declaredCount(block);
    const size_t present = descriptorsPresent(block, wideDescriptorBytes);
    if (present < declared)
        logShortBlock(declared, present, block.size());
    names.reserve(present);
    for (size_t i = 0; i < present; ++i)
        names.push_back(readWideName(block.data() + countBytes + i * wideDescriptorBytes + headerBytes));
    return names;
}

size_t wideSizeForAnsi(Bytes ansiBlock)
{
    return countBytes + (descriptorsPresent(ansiBlock, ansiDescriptorBytes) + 1) * wideDescriptorBytes;
}

size_t convertAnsiToWide(Bytes ansiBlock, std::span<std::byte> wideBlock, const AnsiNameConverter& convert)
{
    if (ansiBlock.size() < countBytes)
        KV_WARN(logger) << "ANSI descriptor block of " << ansiBlock.size() << " bytes has no room for its count";
    const uint32_t declared = declaredCount(ansiBlock);
    const size_t present = descriptorsPresent(ansiBlock, ansiDescriptorBytes);
    if (present < declared)
        logShortBlock(declared, present, ansiBlock.size());
    // A block too small for what it must hold is left as the caller made it.
    if (wideBlock.size() < countBytes + present * wideDescriptorBytes)
        return 0;

    writeUint32(wideBlock.data(), static_cast<uint32_t>(present));
    char16_t name[nameUnits];
    for (size_t i = 0; i < present; ++i) {
        const std::byte* source = ansiBlock.data() + countBytes + i * ansiDescriptorBytes;
        std::byte* target = wideBlock.data() + countBytes + i * wideDescriptorBytes;
        std::memcpy(target, source, headerBytes);
        const auto* ansiName = reinterpret_cast<const char*>(source + headerBytes);
        const size_t units = std::min(convert({ansiName, nameUnits}, {name, nameUnits}), nameUnits);
        std::memcpy(target + headerBytes, name, units * sizeof(char16_t));
        // A name that fills all 260 units has no terminator in its field:
        // readers stop at 260 units, and the last one has the zeroed spare
        // descriptor behind it.
        if (units < nameUnits)
            std::memset(target + headerBytes + units * sizeof(char16_t), 0, sizeof(char16_t));
    }
    return present;
}

} // namespace descriptor_block
