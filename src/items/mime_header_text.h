#pragma once
// Header fields of an Internet mail written from MAPI text: RFC 2047 encoded
// words for text that isn't plain ASCII, quoted display names, RFC 2231
// parameters for file names, folding so that no line grows beyond 78
// characters where the text allows it (and never beyond 998). Every function
// returns whole header lines ending in "\r\n", or an empty string when there
// is nothing to write. Control characters in property values (a CR or LF in
// a subject, say) become blanks, so that no value can start a header of its own.
#include "items/mail_address.h"

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

namespace MimeHeaderLimits {
inline constexpr size_t preferredLine = 78; // RFC 5322 2.1.1, CRLF not counted
inline constexpr size_t encodedWordLine = 76; // RFC 2047 2: a line holding encoded words
inline constexpr size_t maxLine = 998;
} // namespace MimeHeaderLimits

// Blanks in place of control characters, surrounding blanks removed.
std::wstring cleanHeaderText(std::wstring_view text);

// The text as "=?utf-8?B?...?=" words of at most 75 characters each, never
// splitting a character. The first word fits behind `firstColumn` characters
// already on its line; the others are meant for lines of their own that begin
// with one blank.
std::vector<std::string> encodedWords(std::wstring_view text, size_t firstColumn);

// "Name: value\r\n" for free text such as the subject: plain ASCII folded at
// blanks, anything else (or a word too long to fold) as encoded words.
std::string unstructuredHeader(std::string_view name, std::wstring_view value);

// One mailbox as it appears in an address header: "Display Name" <address>,
// encoded words for a name that isn't plain ASCII, just <address> without a
// name. `firstColumn` is where it starts on its line. Empty when the address
// is empty or can't be written.
std::string mailboxText(const MailAddress& address, size_t firstColumn);

// "To: first,\r\n second\r\n": one mailbox a line. Empty when no address can be written.
std::string addressHeader(std::string_view name, const std::vector<MailAddress>& addresses);

// "From: "Display Name":;\r\n": a sender whose address is unknown, as an
// empty group (RFC 5322 as RFC 6854 extends it to From and Sender), so that
// the header is there and valid; "undisclosed-sender:;" without a name.
std::string groupHeader(std::string_view name, std::wstring_view displayName);

// Message-ID, In-Reply-To, References: ASCII identifiers folded at blanks.
// Empty when the value is empty, not ASCII, or holds a token too long for a line.
std::string identifierHeader(std::string_view name, std::wstring_view value);

// A parameter of Content-Type or Content-Disposition, with the ";" and the
// fold before it: `; name="value"` for short plain ASCII, else RFC 2231
// percent-encoded UTF-8 (`name*=utf-8''...`), split into numbered sections
// (`name*0*=`, `name*1*=`...) when it is long.
std::string mimeParameter(std::string_view name, std::wstring_view value);

// "Tue, 05 Mar 2024 07:08:09 +0000"; empty for a time that isn't one.
std::string mimeDate(const FILETIME& time);
