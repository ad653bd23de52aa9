// PR_RTF_COMPRESSED as a mail carries it: the output never beyond its
// limit, and stored RTF read back as it was stored.
#include "items/rtf_compressed.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const size_t limit = data[0] % 2 ? 64 : 1 << 20;
    const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    const DecompressedRtf result = decompressRtf(bytes, limit);
    if (result.rtf.size() > limit || (!result.usable && !result.rtf.empty()))
        std::abort();
    static_cast<void>(compressedRtfCrc(bytes));
    return 0;
}
