// A loaded module's image as the hook walks it: headers, import and
// delay-import tables, whatever they hold.
#include "hook/pe_imports.h"

#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> bytes(data, data + size);
    const ImageView image(bytes.data(), bytes.size());
    PeLayout layout;
    if (readPeLayout(image, layout) != 0)
        return 0;
    for (const char* function : {"DoDragDrop", "OleSetClipboard"}) {
        ImportSlot slot;
        if (findImportSlot(image, layout, "ole32.dll", function, slot) ||
            findDelayImportSlot(image, layout, "ole32.dll", function, slot)) {
            if (!image.contains(static_cast<uint64_t>(slot.address - image.base()), slot.width))
                std::abort();
            static_cast<void>(slot.value());
        }
    }
    return 0;
}
