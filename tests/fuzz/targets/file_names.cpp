// The names of one drag's descriptors, as unique names in a temp folder of
// some length: no name handed out may keep a character Windows forbids.
#include "dataobject/file_names.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::wstring tempDir(input.ConsumeIntegralInRange<size_t>(0, 240), L'd');
    UniqueFileNames names(maxFileNameLength(tempDir));
    for (int count = 0; count < 256 && input.remaining_bytes() > 0; ++count) {
        const std::string given = input.ConsumeRandomLengthString(300);
        const std::wstring name(given.begin(), given.end());
        const std::wstring& unique = names.next(name);
        if (unique.empty() || unique.find_first_of(L"\\/\"*?<>:|") != std::wstring::npos)
            std::abort();
        static_cast<void>(joinFolderAndName(tempDir, unique));
        static_cast<void>(splitStemAndExtension(name));
    }
    return 0;
}
