// The RTF body of a mail: the HTML or text it encapsulates, or a plain
// rendering, with 8-bit text in the code pages its fonts name.
#include "items/rtf_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view rtf(reinterpret_cast<const char*>(data), size);
    const CodePageDecoder latin1 = [](std::string_view bytes, uint32_t) {
        std::u16string text;
        for (unsigned char c : bytes)
            text.push_back(c);
        return text;
    };
    static_cast<void>(rtfBodyKindOf(rtf));
    static_cast<void>(readRtfBody(rtf, latin1));
    static_cast<void>(rtfPlainText(rtf, latin1));
    return 0;
}
