// The value of an address header as the MIME converter wrote it.
#include "items/mail_address_header.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string addresses =
        MailAddressHeader(std::string(reinterpret_cast<const char*>(data), size)).extractMailAddresses();
    if (addresses.size() < 2 || addresses.compare(addresses.size() - 2, 2, "\r\n") != 0)
        std::abort();
    return 0;
}
