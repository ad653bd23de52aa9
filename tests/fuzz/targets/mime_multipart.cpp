// A decrypted S/MIME mail: its part tree, each part's body and headers, and
// the plain text found in it.
#include "items/mime_multipart.h"

#include <cstdlib>

namespace {

void visit(const MimeMultipart& mime, const MimePart& part, size_t size)
{
    if (part.bodyBegin > part.bodyEnd || part.bodyEnd > size || mime.body(part).size() != part.bodyEnd - part.bodyBegin)
        std::abort();
    for (const MimeHeader& header : part.headers)
        static_cast<void>(mimeHeaderParameter(header.value, "boundary"));
    for (const auto& child : part.children)
        visit(mime, *child, size);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    MimeMultipart mime;
    if (mime.decode(reinterpret_cast<const char*>(data), size, true))
        visit(mime, mime.root(), size);
    static_cast<void>(mime.plainText());
    return 0;
}
