// File group descriptor blocks from another program's data object: wide ones
// read as they are, ANSI ones made wide first by a converter that may fail
// or claim more than it wrote.
#include "dataobject/descriptor_block.h"

#include <cstdlib>

using namespace descriptor_block;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const Bytes block(reinterpret_cast<const std::byte*>(data + 1), size - 1);
    const std::vector<std::wstring> wideNames = readWideNames(block);
    if (wideNames.size() != descriptorsPresent(block, wideDescriptorBytes))
        std::abort();

    const size_t claimed = data[0] % 3 == 0 ? 0 : data[0] % 3 == 1 ? nameUnits : 100000;
    const auto convert = [claimed](std::span<const char> name, std::span<char16_t> out) {
        for (size_t i = 0; i < out.size() && i < name.size(); ++i)
            out[i] = static_cast<unsigned char>(name[i]);
        return claimed;
    };
    std::vector<std::byte> wide(wideSizeForAnsi(block));
    const size_t converted = convertAnsiToWide(block, wide, convert);
    if (converted != descriptorsPresent(block, ansiDescriptorBytes) || readWideNames(wide).size() != converted)
        std::abort();
    return 0;
}
