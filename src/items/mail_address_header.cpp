#include "items/mail_address_header.h"

#include "core/log_line.h"
#include "items/ascii_text.h"

#include <string_view>
#include <utility>

namespace {

const Logger logger("MailAddressHeader");

constexpr std::string_view entrySeparator = ",\r\n ";
constexpr std::string_view lineBreak = "\r\n";

} // namespace

MailAddressHeader::MailAddressHeader(std::string text) : text_(std::move(text)) {}

std::string MailAddressHeader::extractMailAddresses()
{
    KV_DEBUG(logger) << "extractMailAddresses(text=" << text_ << ")";
    while (!atEnd()) {
        if (isHeaderWhitespace(text_[pos_])) {
            while (!atEnd() && isHeaderWhitespace(text_[pos_]))
                ++pos_;
            continue;
        }
        const std::string entry = parseHeaderEntry();
        if (entry.empty())
            continue;
        if (!output_.empty())
            output_ += entrySeparator;
        output_ += '<';
        output_ += entry;
        output_ += '>';
    }
    // The caller compares the result with an old header value, which carries
    // its line break; so the result always has one too.
    if (!std::string_view(output_).ends_with(lineBreak))
        output_ += lineBreak;
    KV_DEBUG(logger) << ")extractMailAddresses=" << output_;
    return output_;
}

std::string MailAddressHeader::parseHeaderEntry()
{
    KV_DEBUG(logger) << "parseHeaderEntry(pos=" << pos_ << ")";
    std::string result;
    bool valid = false;
    while (!atEnd() && !valid) {
        const size_t passStart = pos_;
        const char c = text_[pos_];
        if (isHeaderWhitespace(c)) {
            while (!atEnd() && isHeaderWhitespace(text_[pos_]))
                ++pos_;
        } else if (c == '"') {
            eatFriendlyName();
        } else if (c == ',') {
            KV_DEBUG(logger) << "skip comma";
            ++pos_;
        } else {
            result = parseMailAddress();
            valid = result.find('@') != std::string::npos;
            KV_DEBUG(logger) << "mail address is valid=" << valid;
        }
        // Every branch above consumes at least one character; should one ever
        // stop doing so, this keeps a malformed header from hanging the save.
        if (pos_ <= passStart) {
            KV_DEBUG(logger) << "valve, avoid endless loop";
            pos_ = passStart + 1;
        }
    }
    KV_DEBUG(logger) << ")parseHeaderEntry=" << result;
    return result;
}

std::string MailAddressHeader::parseMailAddress()
{
    KV_DEBUG(logger) << "parseMailAddress(pos=" << pos_ << ")";
    std::string token;
    bool inAngle = false;
    bool done = false;
    while (!atEnd() && !done) {
        const char c = text_[pos_];
        if (isHeaderWhitespace(c)) {
            if (!token.empty() && !inAngle) {
                KV_DEBUG(logger) << "finished at space, pos=" << pos_;
                done = true;
            } else {
                KV_DEBUG(logger) << "ignored space, pos=" << pos_;
            }
            ++pos_;
        } else if (c == ',') {
            KV_DEBUG(logger) << "',' finishes mail address at pos=" << pos_;
            done = true;
            ++pos_;
        } else if (c == '<') {
            if (inAngle) {
                KV_DEBUG(logger) << "nested mail address at pos=" << pos_;
                skipNestedAddresses();
            } else {
                KV_DEBUG(logger) << "'<' starts mail address at pos=" << pos_;
                inAngle = true;
                ++pos_;
            }
        } else if (c == '>') {
            KV_DEBUG(logger) << "'>' finishes mail address at pos=" << pos_;
            done = true;
            ++pos_;
        } else {
            token += c;
            ++pos_;
        }
    }
    KV_DEBUG(logger) << ")parseMailAddress=" << token;
    return token;
}

// A '<' inside angle brackets opens an inner address whose token is thrown
// away. Each inner level is the same scan as parseMailAddress after its own
// '<': whitespace is ignored, ',' or '>' ends that level, a further '<' opens
// the next one. Counting the levels instead of recursing gives the same result
// without a stack frame per '<', so a header of nothing but '<' cannot
// exhaust the stack of Outlook's thread.
void MailAddressHeader::skipNestedAddresses()
{
    size_t depth = 1;
    size_t deepest = 1;
    ++pos_;
    while (!atEnd() && depth > 0) {
        const char c = text_[pos_];
        if (c == '<') {
            ++depth;
            if (depth > deepest)
                deepest = depth;
        } else if (c == '>' || c == ',') {
            --depth;
        }
        ++pos_;
    }
    KV_DEBUG(logger) << "nested mail address dropped, depth=" << deepest << ", pos=" << pos_;
}

void MailAddressHeader::eatFriendlyName()
{
    KV_DEBUG(logger) << "eatFriendlyName(pos=" << pos_ << ")";
    if (!atEnd()) {
        ++pos_; // the opening quote
        while (!atEnd() && text_[pos_] != '"')
            ++pos_;
        if (!atEnd())
            ++pos_; // the closing quote
    }
    KV_DEBUG(logger) << ")eatFriendlyName, pos=" << pos_;
}
