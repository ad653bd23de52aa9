// Splitting MIME messages into parts: the tree, the strict delimiter rules,
// the plain text, and hostile input. Inputs are placed against an inaccessible
// page, so a single byte read past their end ends the test program.
#include "items/mime_multipart.h"

#include "core/log.h"
#include "support/scratch.h"

#include <windows.h>

#include <chrono>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr size_t npos = std::string::npos;

// The bytes end exactly where a PAGE_NOACCESS page begins.
class GuardedBytes {
public:
    explicit GuardedBytes(const std::string& bytes) : size_(bytes.size())
    {
        SYSTEM_INFO info{};
        GetSystemInfo(&info);
        const size_t page = info.dwPageSize;
        const size_t dataPages = (bytes.size() + page - 1) / page;
        base_ = static_cast<char*>(
            VirtualAlloc(nullptr, (dataPages + 1) * page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        if (!base_) {
            ADD_FAILURE() << "VirtualAlloc failed, err=" << GetLastError();
            return;
        }
        DWORD old = 0;
        if (!VirtualProtect(base_ + dataPages * page, page, PAGE_NOACCESS, &old))
            ADD_FAILURE() << "VirtualProtect failed, err=" << GetLastError();
        data_ = base_ + dataPages * page - bytes.size();
        if (!bytes.empty())
            std::memcpy(data_, bytes.data(), bytes.size());
    }
    ~GuardedBytes()
    {
        if (base_)
            VirtualFree(base_, 0, MEM_RELEASE);
    }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    const char* data() const { return data_; }
    size_t size() const { return size_; }

private:
    char* base_ = nullptr;
    char* data_ = nullptr;
    size_t size_;
};

const std::string alternativeMail = "MIME-Version: 1.0\r\n"
                                    "Subject: test\r\n"
                                    "Content-Type: multipart/alternative;\r\n"
                                    "\tboundary=\"----=_NextPart_000_0001\"\r\n"
                                    "\r\n"
                                    "This is a multi-part message in MIME format.\r\n"
                                    "\r\n"
                                    "------=_NextPart_000_0001\r\n"
                                    "Content-Type: text/plain;\r\n"
                                    "\tcharset=\"us-ascii\"\r\n"
                                    "Content-Transfer-Encoding: 7bit\r\n"
                                    "\r\n"
                                    "Hello\r\n"
                                    "World\r\n"
                                    "------=_NextPart_000_0001\r\n"
                                    "Content-Type: text/html\r\n"
                                    "\r\n"
                                    "<p>Hello</p>\r\n"
                                    "------=_NextPart_000_0001--\r\n"
                                    "\r\n";

const std::string nestedMail = "Content-Type: multipart/mixed; boundary=\"outer\"\r\n"
                               "\r\n"
                               "--outer\r\n"
                               "Content-Type: multipart/alternative; boundary=\"inner\"\r\n"
                               "\r\n"
                               "--inner\r\n"
                               "Content-Type: text/plain\r\n"
                               "\r\n"
                               "plain text\r\n"
                               "--inner\r\n"
                               "Content-Type: text/html\r\n"
                               "\r\n"
                               "<b>html</b>\r\n"
                               "--inner--\r\n"
                               "\r\n"
                               "--outer\r\n"
                               "Content-Type: text/plain; name=\"notes.txt\"\r\n"
                               "Content-Disposition: attachment; filename=\"notes.txt\"\r\n"
                               "\r\n"
                               "attached text\r\n"
                               "--outer--\r\n"
                               "epilogue\r\n";

std::string contentTypeOf(const MimePart& part)
{
    const MimeHeader* header = part.header("Content-Type");
    return header ? header->value : "";
}

// Every body lies inside the input and inside its parent's; siblings follow
// each other without overlap.
::testing::AssertionResult rangesAreNested(const MimePart& part, size_t size)
{
    if (part.bodyBegin > part.bodyEnd || part.bodyEnd > size)
        return ::testing::AssertionFailure() << "body " << part.bodyBegin << "-" << part.bodyEnd << " of " << size;
    size_t previousEnd = part.bodyBegin;
    for (const auto& child : part.children) {
        if (child->parent != &part)
            return ::testing::AssertionFailure() << "wrong parent";
        if (child->bodyBegin < previousEnd || child->bodyEnd > part.bodyEnd)
            return ::testing::AssertionFailure() << "child " << child->bodyBegin << "-" << child->bodyEnd
                                                 << " outside " << previousEnd << "-" << part.bodyEnd;
        previousEnd = child->bodyEnd;
        const auto inner = rangesAreNested(*child, size);
        if (!inner)
            return inner;
    }
    return ::testing::AssertionSuccess();
}

MimeMultipart::BoundaryKind find(const std::string& input, const std::string& boundary, size_t from, size_t& begin,
                                 size_t& end)
{
    GuardedBytes bytes(input);
    return MimeMultipart::findBoundary(bytes.data(), bytes.size(), boundary, from, begin, end);
}

} // namespace

TEST(MimeHeaderParameter, ValuesQuotedOrNotAndNamesInAnyCase)
{
    EXPECT_EQ(mimeHeaderParameter("multipart/mixed; boundary=\"abc\"", "boundary"), "abc");
    EXPECT_EQ(mimeHeaderParameter("multipart/mixed; boundary = abc ; x=y", "boundary"), "abc");
    EXPECT_EQ(mimeHeaderParameter("multipart/mixed;\tBOUNDARY=abc", "boundary"), "abc");
    EXPECT_EQ(mimeHeaderParameter("a; boundary=\"x;y\"; name=n", "boundary"), "x;y");
    EXPECT_EQ(mimeHeaderParameter("a; boundary=\"x;y\"; name=n", "name"), "n");
    EXPECT_EQ(mimeHeaderParameter("a; x; boundary=q", "boundary"), "q");
    EXPECT_EQ(mimeHeaderParameter("a; boundary=\"\"", "boundary"), "");
}

TEST(MimeHeaderParameter, MissingOrMalformedParametersAreAbsent)
{
    EXPECT_FALSE(mimeHeaderParameter("text/plain", "boundary"));
    EXPECT_FALSE(mimeHeaderParameter("text/plain;", "boundary"));
    EXPECT_FALSE(mimeHeaderParameter("text/plain; charset=us-ascii", "boundary"));
    EXPECT_FALSE(mimeHeaderParameter("a; boundary", "boundary"));
    EXPECT_FALSE(mimeHeaderParameter("attachment; filename=a.txt", "name"));
    // The value before the first ';' is not a parameter.
    EXPECT_FALSE(mimeHeaderParameter("boundary=abc", "boundary"));
    // An unterminated quote runs to the end.
    EXPECT_EQ(mimeHeaderParameter("a; boundary=\"abc", "boundary"), "abc");
}

TEST(MimeFindBoundary, ADelimiterNeedsCrLfDashDashBeforeAndAByteAfter)
{
    size_t begin = 0;
    size_t end = 0;
    EXPECT_EQ(find("\r\n--b\r\nX", "b", 0, begin, end), MimeMultipart::BEGIN_BOUNDARY);
    EXPECT_EQ(begin, 0u);
    EXPECT_EQ(end, 7u);
    EXPECT_EQ(find("x\r\n--b--\r\n.", "b", 0, begin, end), MimeMultipart::END_BOUNDARY);
    EXPECT_EQ(begin, 1u);
    EXPECT_EQ(end, 10u);

    // At offset 0 there is no "\r\n" before the dashes.
    EXPECT_EQ(find("--b\r\nXXXX", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(begin, npos);
    EXPECT_EQ(end, npos);
    // Nothing behind the delimiter line.
    EXPECT_EQ(find("x\r\n--b\r\n", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(find("x\r\n--b--\r\n", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
    // Longer boundary, trailing blanks, or LF only: not this boundary.
    EXPECT_EQ(find("\r\n--bc\r\nX", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(find("\r\n--b \r\nX", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(find("x\n--b\nXXX", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
}

TEST(MimeFindBoundary, OnlyTheFirstOccurrenceIsExamined)
{
    size_t begin = 0;
    size_t end = 0;
    EXPECT_EQ(find("see b here\r\n--b\r\nX", "b", 0, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(find("see b here\r\n--b\r\nX", "b", 6, begin, end), MimeMultipart::BEGIN_BOUNDARY);
    EXPECT_EQ(begin, 10u);
}

TEST(MimeFindBoundary, SearchStartsAtFromButTheDelimiterMayBeginBefore)
{
    const std::string input = "\r\n--b\r\nX\r\n--b--\r\nY";
    size_t begin = 0;
    size_t end = 0;
    EXPECT_EQ(find(input, "b", 1, begin, end), MimeMultipart::BEGIN_BOUNDARY);
    EXPECT_EQ(begin, 0u);
    EXPECT_EQ(find(input, "b", 5, begin, end), MimeMultipart::END_BOUNDARY);
    EXPECT_EQ(begin, 8u);
    EXPECT_EQ(end, 17u);
    EXPECT_EQ(find(input, "b", 14, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(find(input, "b", 1000, begin, end), MimeMultipart::NOT_FOUND);
}

TEST(MimeFindBoundary, InputEndingInsideADelimiterIsNoDelimiter)
{
    const std::string full = "x\r\n--sep--\r\n.";
    for (size_t length = 0; length < full.size(); ++length) {
        size_t begin = 0;
        size_t end = 0;
        EXPECT_EQ(find(full.substr(0, length), "sep", 0, begin, end), MimeMultipart::NOT_FOUND) << length;
    }
    size_t begin = 0;
    size_t end = 0;
    EXPECT_EQ(MimeMultipart::findBoundary(nullptr, 10, "sep", 0, begin, end), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(find("\r\n--\r\nX", "", 0, begin, end), MimeMultipart::NOT_FOUND);
}

TEST(MimeDecode, SplitsAnAlternativeMailIntoItsParts)
{
    GuardedBytes bytes(alternativeMail);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));

    const MimePart& root = mime.root();
    ASSERT_EQ(root.headers.size(), 1u);
    EXPECT_EQ(root.headers[0].name, "Content-Type");
    EXPECT_EQ(root.headers[0].value, "multipart/alternative;\tboundary=\"----=_NextPart_000_0001\"");
    EXPECT_EQ(mime.boundaries(), std::vector<std::string>{"----=_NextPart_000_0001"});

    ASSERT_EQ(root.children.size(), 2u);
    const MimePart& text = *root.children[0];
    ASSERT_EQ(text.headers.size(), 2u);
    EXPECT_EQ(text.headers[0].value, "text/plain;\tcharset=\"us-ascii\"");
    EXPECT_EQ(text.headers[1].name, "Content-Transfer-Encoding");
    EXPECT_EQ(text.headers[1].value, "7bit");
    EXPECT_EQ(mime.body(text), "Hello\r\nWorld");
    EXPECT_EQ(contentTypeOf(*root.children[1]), "text/html");
    EXPECT_EQ(mime.body(*root.children[1]), "<p>Hello</p>");
    EXPECT_TRUE(root.children[0]->children.empty());

    // The root holds everything behind its Content-Type, epilogue included.
    EXPECT_EQ(mime.body(root), alternativeMail.substr(alternativeMail.find("\r\nThis is")));
    EXPECT_TRUE(rangesAreNested(root, bytes.size()));
    EXPECT_EQ(mime.plainText(), L"Hello\r\nWorld");
}

TEST(MimeDecode, FollowsNestedMultipartsByTheirDeclaredBoundaries)
{
    GuardedBytes bytes(nestedMail);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    EXPECT_EQ(mime.boundaries(), (std::vector<std::string>{"outer", "inner"}));

    const MimePart& root = mime.root();
    ASSERT_EQ(root.children.size(), 2u);
    const MimePart& alternative = *root.children[0];
    EXPECT_EQ(contentTypeOf(alternative), "multipart/alternative; boundary=\"inner\"");
    ASSERT_EQ(alternative.children.size(), 2u);
    EXPECT_EQ(mime.body(*alternative.children[0]), "plain text");
    EXPECT_EQ(mime.body(*alternative.children[1]), "<b>html</b>");
    const size_t alternativeStart = nestedMail.find("--inner\r\n");
    EXPECT_EQ(mime.body(alternative),
              nestedMail.substr(alternativeStart, nestedMail.find("\r\n--outer\r\nContent-Type: text/plain; name") -
                                                      alternativeStart));

    const MimePart& attachment = *root.children[1];
    ASSERT_EQ(attachment.headers.size(), 2u);
    EXPECT_EQ(attachment.header("content-disposition")->value, "attachment; filename=\"notes.txt\"");
    EXPECT_EQ(mime.body(attachment), "attached text");
    EXPECT_TRUE(rangesAreNested(root, bytes.size()));
    EXPECT_EQ(mime.plainText(), L"plain text");
}

TEST(MimeDecode, ATextAttachmentIsNotTheMailsText)
{
    const std::string attachmentFirst = "Content-Type: multipart/mixed; boundary==_b1\r\n"
                                        "\r\n"
                                        "--=_b1\r\n"
                                        "Content-Type: text/plain; name=\"a.txt\"\r\n"
                                        "\r\n"
                                        "attachment\r\n"
                                        "--=_b1\r\n"
                                        "Content-Type: TEXT/PLAIN ; charset=us-ascii\r\n"
                                        "\r\n"
                                        "body text\r\n"
                                        "--=_b1--\r\n"
                                        ".";
    GuardedBytes bytes(attachmentFirst);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 2u);
    EXPECT_EQ(mime.plainText(), L"body text");

    const std::string attachmentOnly = "Content-Type: multipart/mixed; boundary=\"=_b1\"\r\n"
                                       "\r\n"
                                       "--=_b1\r\n"
                                       "Content-Type: text/plain; name=\"a.txt\"\r\n"
                                       "\r\n"
                                       "attachment\r\n"
                                       "--=_b1\r\n"
                                       "Content-Type: text/html\r\n"
                                       "\r\n"
                                       "<p>x</p>\r\n"
                                       "--=_b1--\r\n"
                                       ".";
    GuardedBytes onlyBytes(attachmentOnly);
    ASSERT_TRUE(mime.decode(onlyBytes.data(), onlyBytes.size(), false));
    EXPECT_EQ(mime.root().children.size(), 2u);
    EXPECT_EQ(mime.plainText(), L"");
}

TEST(MimeDecode, HeaderNamesAndMediaTypesMatchInAnyCase)
{
    const std::string input = "content-type: Multipart/Mixed; BOUNDARY=sep\r\n"
                              "\r\n"
                              "--sep\r\n"
                              "CONTENT-TYPE: Text/Plain\r\n"
                              "\r\n"
                              "x\r\n"
                              "--sep--\r\n"
                              ".";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 1u);
    EXPECT_EQ(mime.plainText(), L"x");
}

TEST(MimeDecode, NothingToDecodeWithoutAMultipartContentType)
{
    MimeMultipart mime;
    for (const std::string input :
         {"", "   \r\n\t \r\n", "Subject: x\r\n\r\nbody", "Content-Type: text/plain\r\n\r\nx",
          "Content-Type: multipart/mixed; boundary=\"\"\r\n\r\n\r\n--\r\nx",
          "X-Content-Type: multipart/mixed; boundary=sep\r\n\r\n--sep\r\nContent-Type: text/plain\r\n\r\nx\r\n--sep--\r\n."}) {
        GuardedBytes bytes(input);
        EXPECT_FALSE(mime.decode(bytes.data(), bytes.size(), false)) << input;
        EXPECT_TRUE(mime.root().headers.empty()) << input;
        EXPECT_TRUE(mime.root().children.empty()) << input;
        EXPECT_EQ(mime.plainText(), L"") << input;
    }
    EXPECT_FALSE(mime.decode(nullptr, 100, false));
}

TEST(MimeDecode, LineFeedsAloneAreNotLineEnds)
{
    const std::string input = "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nx\n--b--\n.";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    EXPECT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    EXPECT_TRUE(mime.root().children.empty());
    EXPECT_EQ(mime.plainText(), L"");
}

TEST(MimeDecode, UndeclaredBoundariesAreNotDelimiters)
{
    const std::string input = "Content-Type: multipart/mixed; boundary=declared\r\n"
                              "\r\n"
                              "--other\r\n"
                              "Content-Type: text/plain\r\n"
                              "\r\n"
                              "x\r\n"
                              "--other--\r\n"
                              ".";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    EXPECT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    EXPECT_TRUE(mime.root().children.empty());
    EXPECT_EQ(mime.body(mime.root()), input.substr(input.find("\r\n\r\n") + 2));
}

TEST(MimeDecode, BoundaryTextInABodyStopsTheDecoding)
{
    const std::string input = "Content-Type: multipart/mixed; boundary=\"sep\"\r\n"
                              "\r\n"
                              "--sep\r\n"
                              "Content-Type: text/plain\r\n"
                              "\r\n"
                              "The separator is sep, mind it.\r\n"
                              "--sep\r\n"
                              "Content-Type: text/html\r\n"
                              "\r\n"
                              "x\r\n"
                              "--sep--\r\n"
                              ".";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 1u);
    // The only part takes the rest of the input.
    EXPECT_EQ(mime.body(*mime.root().children[0]), input.substr(input.find("The separator")));
}

TEST(MimeDecode, APartWithoutBodyHasAnEmptyOne)
{
    const std::string input = "Content-Type: multipart/mixed; boundary=sep\r\n"
                              "\r\n"
                              "--sep\r\n"
                              "Content-Type: text/plain\r\n"
                              "\r\n"
                              "--sep\r\n"
                              "\r\n"
                              "headerless\r\n"
                              "--sep--\r\n"
                              ".";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 2u);
    EXPECT_EQ(mime.body(*mime.root().children[0]), "");
    EXPECT_TRUE(mime.root().children[1]->headers.empty());
    EXPECT_EQ(mime.body(*mime.root().children[1]), "headerless");
    EXPECT_EQ(mime.plainText(), L"");
    EXPECT_TRUE(rangesAreNested(mime.root(), bytes.size()));
}

TEST(MimeNextBoundary, OfTwoAtTheSameOffsetTheFirstDeclaredWins)
{
    // "x" and "x--" both match at "\r\n--x--\r\n": as the end of "x" and as the
    // start of "x--". Which one counts depends only on the order of declaration.
    const std::string xFirst = "Content-Type: multipart/mixed; boundary=\"x\"\r\n"
                               "\r\n"
                               "--x\r\n"
                               "Content-Type: multipart/mixed; boundary=\"x--\"\r\n"
                               "\r\n"
                               "body\r\n"
                               "--x--\r\n"
                               "tail";
    GuardedBytes first(xFirst);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(first.data(), first.size(), false));
    EXPECT_EQ(mime.boundaries(), (std::vector<std::string>{"x", "x--"}));
    ASSERT_EQ(mime.root().children.size(), 1u);
    EXPECT_EQ(mime.body(*mime.root().children[0]), "body");
    size_t begin = 0;
    size_t end = 0;
    std::string boundary;
    EXPECT_EQ(mime.findNextBoundary(xFirst.find("body"), begin, end, boundary), MimeMultipart::END_BOUNDARY);
    EXPECT_EQ(boundary, "x");
    EXPECT_EQ(begin, xFirst.find("body") + 4);

    const std::string xLast = "Content-Type: multipart/mixed; boundary=\"x--\"\r\n"
                              "\r\n"
                              "--x--\r\n"
                              "Content-Type: multipart/mixed; boundary=\"x\"\r\n"
                              "\r\n"
                              "body\r\n"
                              "--x--\r\n"
                              "tail";
    GuardedBytes last(xLast);
    ASSERT_TRUE(mime.decode(last.data(), last.size(), false));
    EXPECT_EQ(mime.boundaries(), (std::vector<std::string>{"x--", "x"}));
    EXPECT_EQ(mime.root().children.size(), 2u);
    EXPECT_EQ(mime.findNextBoundary(xLast.find("body"), begin, end, boundary), MimeMultipart::BEGIN_BOUNDARY);
    EXPECT_EQ(boundary, "x--");
}

TEST(MimeNextBoundary, TheNearestOfAllKnownBoundariesWins)
{
    GuardedBytes bytes(nestedMail);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    size_t begin = 0;
    size_t end = 0;
    std::string boundary;
    const size_t html = nestedMail.find("<b>html");
    EXPECT_EQ(mime.findNextBoundary(html, begin, end, boundary), MimeMultipart::END_BOUNDARY);
    EXPECT_EQ(boundary, "inner");
    EXPECT_EQ(begin, html + 11);
    EXPECT_EQ(mime.findNextBoundary(end, begin, end, boundary), MimeMultipart::BEGIN_BOUNDARY);
    EXPECT_EQ(boundary, "outer");
    EXPECT_EQ(mime.findNextBoundary(nestedMail.find("epilogue"), begin, end, boundary), MimeMultipart::NOT_FOUND);
    EXPECT_EQ(boundary, "");
}

TEST(MimeReadHeaders, AtMostAHundredLinesAreHeaders)
{
    std::string input = "Content-Type: multipart/mixed; boundary=sep\r\n\r\n--sep\r\n";
    for (int i = 0; i < 150; ++i)
        input += "X-Header-" + std::to_string(i) + ": " + std::to_string(i) + "\r\n";
    input += "\r\nbody\r\n--sep--\r\n.";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 1u);
    const MimePart& part = *mime.root().children[0];
    ASSERT_EQ(part.headers.size(), 100u);
    EXPECT_EQ(part.headers[99].name, "X-Header-99");
    const std::string_view body = mime.body(part);
    EXPECT_EQ(body.substr(0, 19), "X-Header-100: 100\r\n");
    EXPECT_EQ(body.substr(body.size() - 4), "body");
}

TEST(MimeReadHeaders, FoldedLinesJoinAndLinesWithoutNameAreSkipped)
{
    const std::string input = "Content-Type: multipart/mixed; boundary=sep\r\n"
                              "\r\n"
                              "--sep\r\n"
                              "no colon here\r\n"
                              "Content-Type: multipart/related;\r\n"
                              " type=\"text/html\";\r\n"
                              "\tboundary=\"deeper\"\r\n"
                              ": no name\r\n"
                              "\r\n"
                              "x\r\n"
                              "--sep--\r\n"
                              ".";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 1u);
    const MimePart& part = *mime.root().children[0];
    ASSERT_EQ(part.headers.size(), 1u);
    EXPECT_EQ(part.headers[0].value, "multipart/related; type=\"text/html\";\tboundary=\"deeper\"");
    EXPECT_EQ(mime.boundaries(), (std::vector<std::string>{"sep", "deeper"}));
}

TEST(MimeDecode, DecodingAgainForgetsTheEarlierMessage)
{
    MimeMultipart mime;
    GuardedBytes nested(nestedMail);
    ASSERT_TRUE(mime.decode(nested.data(), nested.size(), false));
    GuardedBytes alternative(alternativeMail);
    ASSERT_TRUE(mime.decode(alternative.data(), alternative.size(), false));
    EXPECT_EQ(mime.boundaries(), std::vector<std::string>{"----=_NextPart_000_0001"});
    EXPECT_EQ(mime.root().children.size(), 2u);
    EXPECT_EQ(mime.plainText(), L"Hello\r\nWorld");
}

TEST(MimeDecode, TraceNamesEveryStep)
{
    LogCapture log(LOG_DEBUG);
    GuardedBytes bytes(alternativeMail);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), true));
    const std::string text = log.contents();
    for (const char* expected :
         {"MimeMultipart:", "read mime parts", "found boundary=----=_NextPart_000_0001",
          "header=Content-Type: text/plain;\tcharset=\"us-ascii\"", "findBoundary(boundary=----=_NextPart_000_0001, at=",
          ")=BEGIN_BOUNDARY, beginPos=", ")=END_BOUNDARY, beginPos=", ")findNextBoundary=NOT_FOUND",
          ")findNextBoundary=BEGIN_BOUNDARY, boundary=----=_NextPart_000_0001, begin=", "start next part",
          "close current part", "finished", "part depth=1, Content-Type=text/html"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
    }
}

TEST(MimeHostile, TenThousandDelimitersStopAfterAHundredPasses)
{
    LogCapture quiet(LOG_ERROR);
    std::string input = "Content-Type: multipart/mixed; boundary=\"sep\"\r\n\r\n";
    for (int i = 0; i < 10000; ++i)
        input += "--sep\r\nContent-Type: text/plain\r\n\r\npart " + std::to_string(i) + "\r\n";
    input += "--sep--\r\n.\r\n";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    const MimePart& root = mime.root();
    ASSERT_EQ(root.children.size(), 100u);
    EXPECT_EQ(mime.body(*root.children[0]), "part 0");
    EXPECT_EQ(mime.body(*root.children[98]), "part 98");
    // What is left after the last pass goes to the part being read.
    const std::string_view rest = mime.body(*root.children[99]);
    EXPECT_EQ(rest.substr(0, 16), "part 99\r\n--sep\r\n");
    EXPECT_EQ(rest.data() + rest.size(), bytes.data() + bytes.size());
    EXPECT_TRUE(rangesAreNested(root, bytes.size()));
}

TEST(MimeHostile, TenThousandNestedBoundariesStayBounded)
{
    LogCapture log(LOG_DEBUG);
    std::string input = "Content-Type: multipart/mixed; boundary=\"b0\"\r\n\r\n";
    for (int i = 0; i < 10000; ++i) {
        input += "--b" + std::to_string(i) + "\r\nContent-Type: multipart/mixed; boundary=\"b" + std::to_string(i + 1) +
                 "\"\r\n\r\n";
    }
    GuardedBytes bytes(input);
    MimeMultipart mime;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), true));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(mime.boundaries().size(), 101u);

    size_t depth = 0;
    for (const MimePart* part = &mime.root(); !part->children.empty(); part = part->children[0].get()) {
        EXPECT_EQ(part->children.size(), 1u);
        ++depth;
    }
    EXPECT_EQ(depth, 100u);
    EXPECT_TRUE(rangesAreNested(mime.root(), bytes.size()));
    EXPECT_NE(log.contents().find("stopped after 100 passes"), std::string::npos);
}

TEST(MimeHostile, EveryTruncationOfAMailDecodesWithoutReadingPastIt)
{
    LogCapture quiet(LOG_ERROR);
    const size_t firstLine = nestedMail.find("\r\n") + 2;
    for (size_t length = 0; length <= nestedMail.size(); ++length) {
        GuardedBytes bytes(nestedMail.substr(0, length));
        MimeMultipart mime;
        const bool decoded = mime.decode(bytes.data(), bytes.size(), false);
        if (length >= firstLine) {
            EXPECT_TRUE(decoded) << length;
        }
        EXPECT_TRUE(rangesAreNested(mime.root(), bytes.size())) << length;
        const std::wstring text = mime.plainText();
        // Once one byte follows the delimiter behind it, the text part is complete.
        if (length >= nestedMail.find("plain text\r\n--inner\r\n") + 22) {
            EXPECT_EQ(text, L"plain text") << length;
        }
    }
}

TEST(MimeHostile, InputEndingInTheMiddleOfADelimiterKeepsTheBytesInTheLastPart)
{
    const std::string input = "Content-Type: multipart/mixed; boundary=\"sep\"\r\n"
                              "\r\n"
                              "--sep\r\n"
                              "Content-Type: text/plain\r\n"
                              "\r\n"
                              "last words\r\n"
                              "--se";
    GuardedBytes bytes(input);
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(bytes.data(), bytes.size(), false));
    ASSERT_EQ(mime.root().children.size(), 1u);
    EXPECT_EQ(mime.body(*mime.root().children[0]), "last words\r\n--se");
    EXPECT_EQ(mime.plainText(), L"last words\r\n--se");
}
