#pragma once
// Reading back what the .eml writer wrote, independently of the writer's own
// code: header fields unfolded, encoded words and quoted-printable decoded,
// the MIME tree through the project's strict multipart decoder.
#include <string>
#include <string_view>
#include <vector>

struct HeaderField {
    std::string name;
    std::string value; // unfolded: line breaks of continuation lines removed
};

// The fields of a header block (no blank line in it), in order.
std::vector<HeaderField> headerFieldsOf(std::string_view headers);

// The first field of that name (any case), or nullptr.
const HeaderField* findField(const std::vector<HeaderField>& fields, std::string_view name);

// True when every CR is followed by LF and every LF preceded by CR.
bool hasOnlyCrLf(std::string_view text);

// The longest line, line break not counted.
size_t longestLine(std::string_view text);

// RFC 2047 "=?utf-8?B?...?=" words decoded; blanks between two words dropped.
std::string decodeEncodedWords(std::string_view text);

// Quoted-printable decoded: soft breaks removed, =XX turned into bytes.
std::string decodeQuotedPrintable(std::string_view text);

// RFC 2231 value of `name` among the parameters of a header value, sections
// joined and percent escapes decoded (the charset prefix removed); a plain
// quoted value otherwise. Empty when there is none.
std::string rfc2231Parameter(std::string_view headerValue, std::string_view name);
