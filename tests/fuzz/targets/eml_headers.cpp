// The header block of a converter-written .eml: split off, one header
// replaced, the address headers rewritten from recipients' addresses.
#include "items/eml_headers.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

namespace {

MailAddress addressFrom(FuzzedDataProvider& input)
{
    const std::string text = input.ConsumeRandomLengthString(80);
    return MailAddress{L"", std::wstring(text.begin(), text.end()), L"", L"SMTP"};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const bool extract = input.ConsumeBool();
    const std::string name = input.PickValueInArray({"From", "Sender", "To", "Cc", "Bcc", "Subject"});
    const std::string newValue = input.ConsumeRandomLengthString(200);
    const MailAddress sender = addressFrom(input);
    const std::vector<MailAddress> to{addressFrom(input), addressFrom(input)};
    const std::string eml = input.ConsumeRemainingBytesAsString();

    const EmlSplit split = splitEmlHeaders(eml);
    if (split.headers + eml.substr(split.bodyOffset) != eml)
        std::abort();
    static_cast<void>(findHeaderInEml(split.headers, name, newValue, extract));
    static_cast<void>(rewriteAddressHeaders(split.headers, sender, to, {}, to, extract));
    return 0;
}
