#pragma once
// A sender or recipient of a mail.
#include <string>

struct MailAddress {
    std::wstring name;        // display name
    std::wstring mailAddress; // SMTP address (resolved for "EX" entries)
    std::wstring entryId;     // MAPI entry identifier, upper-case hex, two digits a byte
    std::wstring addrType;    // "SMTP", "EX", ...
};
