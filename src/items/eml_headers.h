#pragma once
// Rewriting the address headers of an .eml written by the MIME converter, so
// that From, Sender, To, Cc and Bcc carry plain SMTP addresses. Pure text:
// the caller splits the converter's output, rewrites the header block and
// writes the new block followed by the untouched body.
#include "items/mail_address.h"

#include <string>
#include <string_view>
#include <vector>

struct EmlSplit {
    std::string headers; // everything before the first "\r\n\r\n"
    size_t bodyOffset;   // where that "\r\n\r\n" starts: the blank line belongs to the body
    bool found;          // false when there is no blank line: leave the mail as it is
};

// Splits a whole .eml into its header block and the offset of its body. When
// there is no "\r\n\r\n", `found` is false, `headers` is empty and the body is
// the whole text (bodyOffset 0), so headers + body always give the input back.
EmlSplit splitEmlHeaders(std::string_view eml);

// Looks for the header `headerName` in a header block and replaces its value,
// returning the possibly changed block. The new value is `newValue`, or the
// old value when `newValue` is empty; with `extractMailAddress` set it is
// reduced to bare addresses first. The header is replaced only when the
// result differs from the old value; a missing header is not added.
// A header is recognised only when the next one starts, so the block's last
// header is never changed.
std::string findHeaderInEml(const std::string& headers, const std::string& headerName, const std::string& newValue,
                            bool extractMailAddress);

// "<a>,\r\n<b>" for a list of recipients: each address narrowed character by
// character (no display names); an empty list gives an empty string.
std::string addressHeaderValue(const std::vector<MailAddress>& addresses);

// "<a>" for the sender.
std::string senderHeaderValue(const MailAddress& sender);

// From and Sender get the sender, To, Cc and Bcc the recipient lists, in this
// order, each through findHeaderInEml.
std::string rewriteAddressHeaders(const std::string& headers, const MailAddress& sender,
                                  const std::vector<MailAddress>& to, const std::vector<MailAddress>& cc,
                                  const std::vector<MailAddress>& bcc, bool extractMailAddress);
