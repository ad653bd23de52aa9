#pragma once
// Splits a MIME message held in memory (8-bit bytes, such as a decrypted
// S/MIME mail) into its parts by their boundaries and finds the mail's plain
// text. Deliberately strict: only CRLF line ends, only boundaries declared in
// a Content-Type header, and at most 100 delimiter passes and 100 header lines
// a block, so that hostile input costs bounded work. The decoder keeps a view
// of the input; the caller keeps the bytes alive while it is used.
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct MimeHeader {
    std::string name;
    std::string value; // folded lines joined, surrounding whitespace removed
};

// One part of the message. Its body runs from behind its header block up to
// the delimiter that ends it; a multipart's body therefore holds its preamble,
// its children with their delimiters, and its epilogue.
struct MimePart {
    std::vector<MimeHeader> headers; // in the order read
    size_t bodyBegin = 0;
    size_t bodyEnd = 0;
    std::vector<std::unique_ptr<MimePart>> children;
    MimePart* parent = nullptr;

    // The first header of that name (any case), or null.
    const MimeHeader* header(std::string_view name) const;
};

// A parameter of a header value (`; name=value`, the value optionally in
// double quotes, which are removed). Names are compared in any case.
std::optional<std::string> mimeHeaderParameter(std::string_view value, std::string_view name);

class MimeMultipart {
public:
    enum BoundaryKind { NOT_FOUND = 0, BEGIN_BOUNDARY = 1, END_BOUNDARY = 2 };

    static constexpr int maxPasses = 100;
    static constexpr int maxHeaderLines = 100;

    // The known boundaries point into the part tree, so a decoder stays where it is.
    MimeMultipart() = default;
    MimeMultipart(const MimeMultipart&) = delete;
    MimeMultipart& operator=(const MimeMultipart&) = delete;

    // Builds the part tree. True when a Content-Type with a boundary was
    // found, that is when there is something to decode. With `logParts` set
    // the resulting tree is written to the log at debug level.
    bool decode(const char* data, size_t size, bool logParts);

    // Looks at the first occurrence of `boundary` from `from`. It is a
    // delimiter only when "\r\n--" stands right before it and it is followed
    // by "\r\n" (BEGIN_BOUNDARY) or "--\r\n" (END_BOUNDARY) with at least one
    // more byte behind. `begin` is the offset of the "\r\n--", `end` the
    // offset behind the delimiter line; both are npos when NOT_FOUND.
    static BoundaryKind findBoundary(const char* data, size_t size, const std::string& boundary, size_t from,
                                     size_t& begin, size_t& end);

    // The nearest delimiter of any known boundary from `from`; of two at the
    // same offset the one declared first wins.
    BoundaryKind findNextBoundary(size_t from, size_t& begin, size_t& end, std::string& boundary);

    // Reads the header block at `at` into `part` and returns the offset behind
    // it (behind the empty line that ends it). A Content-Type with a boundary
    // makes that boundary known, with `part` as the multipart it delimits.
    size_t readHeaders(size_t at, MimePart& part);

    // The body of the first "text/plain" part without a "name" parameter (a
    // text attachment has one), widened as 8-bit MAPI text is; no transfer
    // decoding. Empty when there is none.
    std::wstring plainText() const;

    const MimePart& root() const { return root_; }
    std::string_view body(const MimePart& part) const;
    std::vector<std::string> boundaries() const;

private:
    struct KnownBoundary {
        std::string text;
        MimePart* owner = nullptr;
        // The first occurrence at or after `searchedFrom` (npos: none). It stays
        // the first one for any later start up to itself, so each boundary's
        // text is searched through the input about once, however many passes.
        size_t searchedFrom = 0;
        size_t occurrence = 0;
        bool searched = false;
    };

    std::string_view input() const { return {data_, size_}; }
    void reset();
    void addBoundary(const std::string& text, MimePart& owner);
    KnownBoundary* knownBoundary(const std::string& text);
    BoundaryKind findKnownBoundary(KnownBoundary& known, size_t from, size_t& begin, size_t& end);
    size_t readHeaderField(size_t at, int& linesLeft, std::optional<MimeHeader>& header) const;
    size_t findContentTypeLine() const;
    MimePart& startPart(MimePart& parent);
    void logTree(const MimePart& part, int depth) const;

    const char* data_ = nullptr;
    size_t size_ = 0;
    std::vector<KnownBoundary> boundaries_;
    MimePart root_;
};

const char* boundaryKindName(MimeMultipart::BoundaryKind kind);
