#include "items/mime_multipart.h"

#include "core/log_line.h"
#include "common/strings.h"
#include "items/ascii_text.h"

#include <algorithm>

namespace {

const Logger logger("MimeMultipart");

constexpr std::string_view crlf = "\r\n";
constexpr std::string_view delimiterLead = "\r\n--";
constexpr std::string_view closeTail = "--\r\n";
constexpr std::string_view contentTypeField = "Content-Type:";
constexpr size_t npos = std::string_view::npos;

bool isFoldCharacter(char c)
{
    return c == ' ' || c == '\t';
}

// One line of the input: [begin, end) without its CRLF, `next` behind the
// CRLF. A last line without CRLF ends at the end of the input.
struct Line {
    size_t begin;
    size_t end;
    size_t next;
};

Line lineAt(std::string_view input, size_t at)
{
    const size_t lineBreak = input.find(crlf, at);
    if (lineBreak == npos)
        return {at, input.size(), input.size()};
    return {at, lineBreak, lineBreak + crlf.size()};
}

// A part's range grows to `at`, and so do those of the multiparts around it,
// which contain it.
void extendBody(MimePart& part, size_t at)
{
    const size_t end = std::max({part.bodyEnd, part.bodyBegin, at});
    for (MimePart* p = &part; p; p = p->parent)
        p->bodyEnd = std::max(p->bodyEnd, end);
}

MimeMultipart::BoundaryKind classifyOccurrence(std::string_view input, size_t occurrence, size_t length,
                                               size_t& begin, size_t& end)
{
    begin = npos;
    end = npos;
    if (occurrence == npos || occurrence < delimiterLead.size() ||
        input.substr(occurrence - delimiterLead.size(), delimiterLead.size()) != delimiterLead)
        return MimeMultipart::NOT_FOUND;
    const size_t behind = occurrence + length;
    // At least one byte must follow the delimiter's own line break.
    if (behind + crlf.size() >= input.size())
        return MimeMultipart::NOT_FOUND;
    if (input.substr(behind, crlf.size()) == crlf) {
        begin = occurrence - delimiterLead.size();
        end = behind + crlf.size();
        return MimeMultipart::BEGIN_BOUNDARY;
    }
    if (behind + closeTail.size() < input.size() && input.substr(behind, closeTail.size()) == closeTail) {
        begin = occurrence - delimiterLead.size();
        end = behind + closeTail.size();
        return MimeMultipart::END_BOUNDARY;
    }
    return MimeMultipart::NOT_FOUND;
}

void logFindBoundary(const std::string& boundary, size_t from, MimeMultipart::BoundaryKind kind, size_t begin,
                     size_t end)
{
    KV_DEBUG(logger) << "findBoundary(boundary=" << boundary << ", at=" << from << ")=" << boundaryKindName(kind)
                     << ", beginPos=" << static_cast<long long>(begin) << ", endPos=" << static_cast<long long>(end);
}

bool isMediaType(const MimeHeader& contentType, std::string_view mediaType)
{
    const std::string_view value = contentType.value;
    return equalsIgnoreCaseAscii(trimHeaderWhitespace(value.substr(0, value.find(';'))), mediaType);
}

} // namespace

const char* boundaryKindName(MimeMultipart::BoundaryKind kind)
{
    switch (kind) {
    case MimeMultipart::BEGIN_BOUNDARY:
        return "BEGIN_BOUNDARY";
    case MimeMultipart::END_BOUNDARY:
        return "END_BOUNDARY";
    default:
        return "NOT_FOUND";
    }
}

const MimeHeader* MimePart::header(std::string_view name) const
{
    for (const MimeHeader& h : headers) {
        if (equalsIgnoreCaseAscii(h.name, name))
            return &h;
    }
    return nullptr;
}

std::optional<std::string> mimeHeaderParameter(std::string_view value, std::string_view name)
{
    size_t pos = value.find(';');
    while (pos != npos && pos < value.size()) {
        ++pos; // the ';'
        const size_t nameEnd = value.find_first_of("=;", pos);
        const std::string_view parameterName =
            trimHeaderWhitespace(value.substr(pos, (nameEnd == npos ? value.size() : nameEnd) - pos));
        if (nameEnd == npos)
            return std::nullopt;
        if (value[nameEnd] == ';') {
            pos = nameEnd;
            continue;
        }
        pos = nameEnd + 1;
        while (pos < value.size() && isHeaderWhitespace(value[pos]))
            ++pos;
        std::string_view parameterValue;
        if (pos < value.size() && value[pos] == '"') {
            // A quoted value may hold ';'. Without a closing quote it runs to the end.
            const size_t closing = value.find('"', pos + 1);
            const size_t valueEnd = closing == npos ? value.size() : closing;
            parameterValue = value.substr(pos + 1, valueEnd - pos - 1);
            pos = closing == npos ? npos : value.find(';', closing + 1);
        } else {
            const size_t valueEnd = value.find(';', pos);
            parameterValue = trimHeaderWhitespace(value.substr(pos, (valueEnd == npos ? value.size() : valueEnd) - pos));
            pos = valueEnd;
        }
        if (equalsIgnoreCaseAscii(parameterName, name))
            return std::string(parameterValue);
    }
    return std::nullopt;
}

void MimeMultipart::reset()
{
    data_ = nullptr;
    size_ = 0;
    boundaries_.clear();
    root_ = MimePart();
}

std::string_view MimeMultipart::body(const MimePart& part) const
{
    const size_t begin = std::min(part.bodyBegin, size_);
    const size_t end = std::min(std::max(part.bodyEnd, begin), size_);
    return input().substr(begin, end - begin);
}

std::vector<std::string> MimeMultipart::boundaries() const
{
    std::vector<std::string> texts;
    for (const KnownBoundary& known : boundaries_)
        texts.push_back(known.text);
    return texts;
}

MimeMultipart::KnownBoundary* MimeMultipart::knownBoundary(const std::string& text)
{
    for (KnownBoundary& known : boundaries_) {
        if (known.text == text)
            return &known;
    }
    return nullptr;
}

void MimeMultipart::addBoundary(const std::string& text, MimePart& owner)
{
    // The first multipart to declare a boundary keeps it; a nested part that
    // repeats its parent's boundary cannot be told apart from its siblings.
    if (text.empty() || knownBoundary(text))
        return;
    KV_DEBUG(logger) << "found boundary=" << text;
    KnownBoundary known;
    known.text = text;
    known.owner = &owner;
    boundaries_.push_back(std::move(known));
}

MimeMultipart::BoundaryKind MimeMultipart::findBoundary(const char* data, size_t size, const std::string& boundary,
                                                        size_t from, size_t& begin, size_t& end)
{
    const std::string_view input(data ? data : "", data ? size : 0);
    const size_t occurrence = boundary.empty() ? npos : input.find(boundary, from);
    const BoundaryKind kind = classifyOccurrence(input, occurrence, boundary.size(), begin, end);
    logFindBoundary(boundary, from, kind, begin, end);
    return kind;
}

MimeMultipart::BoundaryKind MimeMultipart::findKnownBoundary(KnownBoundary& known, size_t from, size_t& begin,
                                                             size_t& end)
{
    const bool cached = known.searched && from >= known.searchedFrom &&
                        (known.occurrence == npos || from <= known.occurrence);
    if (!cached) {
        known.occurrence = input().find(known.text, from);
        known.searchedFrom = from;
        known.searched = true;
    }
    const BoundaryKind kind = classifyOccurrence(input(), known.occurrence, known.text.size(), begin, end);
    logFindBoundary(known.text, from, kind, begin, end);
    return kind;
}

MimeMultipart::BoundaryKind MimeMultipart::findNextBoundary(size_t from, size_t& begin, size_t& end,
                                                            std::string& boundary)
{
    BoundaryKind nearest = NOT_FOUND;
    begin = npos;
    end = npos;
    boundary.clear();
    for (KnownBoundary& known : boundaries_) {
        size_t hitBegin = npos;
        size_t hitEnd = npos;
        const BoundaryKind kind = findKnownBoundary(known, from, hitBegin, hitEnd);
        if (kind != NOT_FOUND && (nearest == NOT_FOUND || hitBegin < begin)) {
            nearest = kind;
            begin = hitBegin;
            end = hitEnd;
            boundary = known.text;
        }
    }
    KV_DEBUG(logger) << ")findNextBoundary=" << boundaryKindName(nearest) << ", boundary=" << boundary
                     << ", begin=" << static_cast<long long>(begin) << ", end=" << static_cast<long long>(end);
    return nearest;
}

size_t MimeMultipart::readHeaderField(size_t at, int& linesLeft, std::optional<MimeHeader>& header) const
{
    const std::string_view in = input();
    const Line first = lineAt(in, at);
    --linesLeft;
    const std::string_view line = in.substr(first.begin, first.end - first.begin);
    size_t pos = first.next;

    const size_t colon = line.find(':');
    std::string name;
    std::string value;
    if (colon != npos) {
        name = trimHeaderWhitespace(line.substr(0, colon));
        value = line.substr(colon + 1);
    }
    // Folded lines continue the value; the line break between them goes.
    while (linesLeft > 0 && pos < in.size() && isFoldCharacter(in[pos])) {
        const Line continuation = lineAt(in, pos);
        --linesLeft;
        value += in.substr(continuation.begin, continuation.end - continuation.begin);
        pos = continuation.next;
    }
    if (name.empty())
        header.reset();
    else
        header = MimeHeader{std::move(name), std::string(trimHeaderWhitespace(value))};
    return pos;
}

size_t MimeMultipart::readHeaders(size_t at, MimePart& part)
{
    const std::string_view in = input();
    size_t pos = at;
    int linesLeft = maxHeaderLines;
    while (pos < in.size() && linesLeft > 0) {
        if (in.substr(pos, crlf.size()) == crlf) {
            pos += crlf.size(); // the empty line ends the block
            break;
        }
        std::optional<MimeHeader> header;
        pos = readHeaderField(pos, linesLeft, header);
        if (!header) {
            KV_DEBUG(logger) << "skipped line without header name before pos=" << pos;
            continue;
        }
        KV_DEBUG(logger) << "header=" << header->name << ": " << header->value;
        if (equalsIgnoreCaseAscii(header->name, "Content-Type")) {
            if (const auto boundary = mimeHeaderParameter(header->value, "boundary"))
                addBoundary(*boundary, part);
        }
        part.headers.push_back(std::move(*header));
    }
    return pos;
}

size_t MimeMultipart::findContentTypeLine() const
{
    const std::string_view in = input();
    size_t lineStart = 0;
    while (lineStart < in.size()) {
        if (startsWithIgnoreCaseAscii(in.substr(lineStart), contentTypeField))
            return lineStart;
        const size_t lineBreak = in.find(crlf, lineStart);
        if (lineBreak == npos)
            break;
        lineStart = lineBreak + crlf.size();
    }
    return npos;
}

MimePart& MimeMultipart::startPart(MimePart& parent)
{
    parent.children.push_back(std::make_unique<MimePart>());
    MimePart& part = *parent.children.back();
    part.parent = &parent;
    return part;
}

bool MimeMultipart::decode(const char* data, size_t size, bool logParts)
{
    reset();
    data_ = data;
    size_ = data ? size : 0;
    KV_DEBUG(logger) << "decode(size=" << size_ << ", logParts=" << logParts << ")";
    KV_DEBUG(logger) << "read mime parts";

    const size_t contentTypeAt = findContentTypeLine();
    if (contentTypeAt == npos) {
        KV_DEBUG(logger) << ")decode, no Content-Type";
        return false;
    }
    int linesLeft = maxHeaderLines;
    std::optional<MimeHeader> contentType;
    size_t pos = readHeaderField(contentTypeAt, linesLeft, contentType);
    const auto rootBoundary = contentType ? mimeHeaderParameter(contentType->value, "boundary") : std::nullopt;
    if (!rootBoundary || rootBoundary->empty()) {
        KV_DEBUG(logger) << ")decode, no boundary in Content-Type";
        return false;
    }
    KV_DEBUG(logger) << "header=" << contentType->name << ": " << contentType->value;
    root_.headers.push_back(*contentType);
    addBoundary(*rootBoundary, root_);
    root_.bodyBegin = root_.bodyEnd = pos;

    MimePart* current = &root_;
    int pass = 0;
    for (; pass < maxPasses; ++pass) {
        size_t begin = npos;
        size_t end = npos;
        std::string boundary;
        const BoundaryKind kind = findNextBoundary(pos, begin, end, boundary);
        if (kind == NOT_FOUND)
            break;
        extendBody(*current, begin);
        MimePart& owner = *knownBoundary(boundary)->owner;
        if (kind == BEGIN_BOUNDARY) {
            KV_DEBUG(logger) << "start next part";
            MimePart& part = startPart(owner);
            pos = readHeaders(end, part);
            part.bodyBegin = part.bodyEnd = pos;
            extendBody(part, pos);
            current = &part;
        } else {
            KV_DEBUG(logger) << "close current part";
            current = &owner;
            pos = end;
        }
    }
    if (pass == maxPasses) {
        KV_DEBUG(logger) << "stopped after " << maxPasses << " passes at pos=" << pos;
    }
    extendBody(*current, size_);
    KV_DEBUG(logger) << "finished";
    if (logParts && logger.isDebugEnabled())
        logTree(root_, 0);
    return true;
}

void MimeMultipart::logTree(const MimePart& part, int depth) const
{
    const MimeHeader* contentType = part.header("Content-Type");
    KV_DEBUG(logger) << "part depth=" << depth << ", Content-Type=" << (contentType ? contentType->value : "")
                     << ", headers=" << part.headers.size() << ", body=" << part.bodyBegin << "-" << part.bodyEnd;
    for (const auto& child : part.children)
        logTree(*child, depth + 1);
}

std::wstring MimeMultipart::plainText() const
{
    // Depth first, in the order of the message, as a reader sees the parts.
    std::vector<const MimePart*> pending{&root_};
    while (!pending.empty()) {
        const MimePart* part = pending.back();
        pending.pop_back();
        const MimeHeader* contentType = part->header("Content-Type");
        if (contentType && isMediaType(*contentType, "text/plain") &&
            !mimeHeaderParameter(contentType->value, "name")) {
            // As 8-bit MAPI text: up to the first NUL, in the ANSI code page.
            const std::string_view text = body(*part);
            return ansiToWide(text.substr(0, text.find('\0')));
        }
        for (auto child = part->children.rbegin(); child != part->children.rend(); ++child)
            pending.push_back(child->get());
    }
    return {};
}
