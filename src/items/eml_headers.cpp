#include "items/eml_headers.h"

#include "core/log_line.h"
#include "items/ascii_text.h"
#include "items/mail_address_header.h"

namespace {

const Logger logger("MailItem");

constexpr std::string_view lineBreak = "\r\n";
constexpr std::string_view blankLine = "\r\n\r\n";

// Header text is 8-bit; addresses are narrowed one unit at a time, the way the
// converter's own output treats them. Non-ASCII addresses are not special.
std::string narrow(std::wstring_view text)
{
    std::string result;
    result.reserve(text.size());
    for (wchar_t c : text)
        result.push_back(static_cast<char>(c));
    return result;
}

bool isContinuationLine(std::string_view block, size_t lineStart)
{
    return lineStart < block.size() && (block[lineStart] == ' ' || block[lineStart] == '\t');
}

// Where the header sought lies in the block: [start, end), `end` being the
// start of the line that follows its last continuation line.
struct HeaderSpan {
    size_t start = 0;
    size_t end = 0;
    bool found = false;
};

// Walks the block line by line. A header is complete, and only then looked
// at, when the next header (or an empty line) starts; the last header of the
// block never reaches that point.
HeaderSpan locateHeader(std::string_view block, std::string_view prefix)
{
    size_t headerStart = 0;
    size_t lineStart = 0;
    while (lineStart < block.size()) {
        const size_t breakAt = block.find(lineBreak, lineStart);
        const size_t lineEnd = breakAt == std::string_view::npos ? block.size() : breakAt + lineBreak.size();
        if (!isContinuationLine(block, lineStart)) {
            if (lineStart > headerStart &&
                startsWithIgnoreCaseAscii(block.substr(headerStart, lineStart - headerStart), prefix))
                return {headerStart, lineStart, true};
            if (breakAt == lineStart)
                break; // an empty line ends the header block
            headerStart = lineStart;
        }
        lineStart = lineEnd;
    }
    return {};
}

} // namespace

EmlSplit splitEmlHeaders(std::string_view eml)
{
    const size_t at = eml.find(blankLine);
    if (at == std::string_view::npos)
        return {std::string(), 0, false};
    return {std::string(eml.substr(0, at)), at, true};
}

std::string findHeaderInEml(const std::string& headers, const std::string& headerName, const std::string& newValue,
                            bool extractMailAddress)
{
    const std::string prefix = headerName + ": ";
    const HeaderSpan span = locateHeader(headers, prefix);
    if (!span.found)
        return headers;

    const size_t valueStart = span.start + prefix.size();
    const std::string oldValue = headers.substr(valueStart, span.end - valueStart);
    std::string value = newValue.empty() ? oldValue : newValue;
    if (!value.empty() && extractMailAddress)
        value = MailAddressHeader(value).extractMailAddresses();
    if (value == oldValue)
        return headers;

    KV_DEBUG(logger) << "header \"" << headerName << "\" replaced, oldValue=" << oldValue << ", newValue=" << value;
    return headers.substr(0, span.start) + prefix + value + headers.substr(span.end);
}

std::string addressHeaderValue(const std::vector<MailAddress>& addresses)
{
    std::string value;
    for (const MailAddress& address : addresses) {
        if (!value.empty())
            value += ",\r\n";
        value += '<';
        value += narrow(address.mailAddress);
        value += '>';
    }
    return value;
}

std::string senderHeaderValue(const MailAddress& sender)
{
    return "<" + narrow(sender.mailAddress) + ">";
}

std::string rewriteAddressHeaders(const std::string& headers, const MailAddress& sender,
                                  const std::vector<MailAddress>& to, const std::vector<MailAddress>& cc,
                                  const std::vector<MailAddress>& bcc, bool extractMailAddress)
{
    const std::string from = senderHeaderValue(sender);
    std::string result = findHeaderInEml(headers, "From", from, extractMailAddress);
    result = findHeaderInEml(result, "Sender", from, extractMailAddress);
    result = findHeaderInEml(result, "To", addressHeaderValue(to), extractMailAddress);
    result = findHeaderInEml(result, "Cc", addressHeaderValue(cc), extractMailAddress);
    result = findHeaderInEml(result, "Bcc", addressHeaderValue(bcc), extractMailAddress);
    return result;
}
