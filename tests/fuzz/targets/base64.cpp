// Base64 text from a file or the registry; whatever decodes must encode back.
#include "core/base64.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (const auto bytes = decodeBase64(input); bytes && decodeBase64(encodeBase64(*bytes)) != bytes)
        std::abort();
    if (decodeBase64(encodeBase64(input)) != std::string(input))
        std::abort();
    return 0;
}
