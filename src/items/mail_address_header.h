#pragma once
// Turns the value of an address header (From, Sender, To, Cc, Bcc) as the MIME
// converter wrote it into bare addresses in angle brackets, one per folded
// line: "<a@b>,\r\n <c@d>\r\n". Display names are dropped.
//
// The scanner is forgiving on purpose: it never fails, skips what it does not
// understand and always makes progress, so any header text ends in a result.
// One object serves one header value.
#include <string>

class MailAddressHeader {
public:
    explicit MailAddressHeader(std::string text);

    // The whole value as a list of addresses; always ends in "\r\n", so an
    // empty value gives just "\r\n".
    std::string extractMailAddresses();

    // The next entry's address: the first token with an "@", or else the last
    // token seen (possibly empty). Unquoted display names can therefore come
    // through when no address follows them.
    std::string parseHeaderEntry();

    // One address token: up to whitespace (outside angle brackets), ',' or '>'.
    // An address nested inside the angle brackets of another is consumed and
    // dropped.
    std::string parseMailAddress();

    // Skips a quoted display name, both quotes included; without a closing
    // quote the rest of the text.
    void eatFriendlyName();

    size_t position() const { return pos_; }

private:
    bool atEnd() const { return pos_ >= text_.size(); }
    void skipNestedAddresses();

    std::string output_;
    std::string text_;
    size_t pos_ = 0;
};
