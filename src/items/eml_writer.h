#pragma once
// Korvane's own Internet mail writer, for when Outlook's MIME converter is
// not there or fails. The header block puts the address headers first
// (From, Sender, To, Cc, Bcc), then Reply-To, Subject, Date, the identifiers
// and the importance, and ends with MIME-Version and the content headers:
// the address-header rewrite never looks at a block's last header, so the
// headers it rewrites must not stand there. From is always there: as an
// empty group named after the sender when no address is known.
//
// The structure, each level only where it has more than one part:
//   multipart/mixed            the bodies, then the attachments
//     multipart/alternative    text/plain, text/rtf, the HTML, a meeting's text/calendar
//       multipart/related      text/html and the pictures it shows (Content-ID)
//     attachments              base64; attached messages as message/rfc822
//                              holding a whole mail of this same shape;
//                              links as message/external-body
// Text is UTF-8 (declared so) in quoted-printable; CRLF throughout; no line
// beyond 998 characters, base64 lines of 76.
#include "items/eml_message.h"

#include <objidl.h>

#include <string>

// The header block up to and including MIME-Version, without the content
// headers and without the blank line that ends the block.
std::string emlMessageHeaders(const EmlMessage& message);

// About how many bytes writeEml writes (at least that many, as a rule):
// for growing a memory stream once rather than write by write.
ULONGLONG emlSizeEstimate(const EmlMessage& message);

// The whole mail into `stream` (from its current position), in large writes.
HRESULT writeEml(const EmlMessage& message, IStream* stream);
