// PR_REPLY_RECIPIENT_ENTRIES of a mail: the one-off addresses in a
// FlatEntryList, 8-bit or UTF-16.
#include "items/flat_entry_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const CodePageDecoder latin1 = [](std::string_view bytes, uint32_t) {
        std::u16string text;
        for (unsigned char c : bytes)
            text.push_back(c);
        return text;
    };
    static_cast<void>(addressesOfFlatEntryList(std::string_view(reinterpret_cast<const char*>(data), size), 1252,
                                               latin1));
    return 0;
}
