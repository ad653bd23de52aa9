#pragma once
// A mail as simple RFC 822 text (one text/plain UTF-8 part), the stand-in's
// answer to "SaveAs" in a MIME type: enough for a test to see that the file
// came from the mail it was asked to save.
#include "items/msg_storage.h"

#include <string>

// From, To, Cc, Subject, Date and Message-ID (where the mail has them),
// MIME-Version, Content-Type and Content-Transfer-Encoding, a blank line and
// the plain-text body, all lines ending in CRLF. Non-ASCII header text is
// written as RFC 2047 encoded words.
std::string rfc822Text(const StoredMessage& message);
