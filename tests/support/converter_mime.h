#pragma once
// The Internet mail text that the converter stand-in writes, shaped the way
// Outlook's MIME converter shapes a plain-text mail: address headers as
// "Name" <address>, several addresses folded onto continuation lines that
// begin with a tab, UTF-8 body, CRLF everywhere.
#include <windows.h>

#include <optional>
#include <string>
#include <vector>

struct MimeAddress {
    std::wstring name;
    std::wstring address;
};

struct MimeMail {
    std::wstring subject;
    MimeAddress sender;
    std::vector<MimeAddress> to;
    std::vector<MimeAddress> cc;
    std::vector<MimeAddress> bcc;
    std::wstring body;
    std::optional<FILETIME> submitTime;
};

// `flags` are the converter's CCSF_* flags: Bcc is written only with
// CCSF_INCLUDE_BCC; non-ASCII header text is written as RFC 2047 encoded
// words unless CCSF_8BITHEADERS asks for raw UTF-8.
std::string composeMime(const MimeMail& mail, ULONG flags);

// "Tue, 05 Mar 2024 07:08:09 +0000" (RFC 5322, in UTC).
std::string formatMimeDate(const FILETIME& time);
