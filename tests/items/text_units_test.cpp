// The units that turn text and bytes into text and bytes, one table each: address
// headers, MIME parts, .eml header fields and encodings, RTF, code pages, entry lists.
#include "item_files.h"

#include "items/code_page.h"
#include "items/eml_headers.h"
#include "items/flat_entry_list.h"
#include "items/mail_address_header.h"
#include "items/mime_body_encoding.h"
#include "items/mime_header_text.h"
#include "items/mime_multipart.h"
#include "items/property_text.h"
#include "items/rtf_compressed.h"
#include "items/rtf_text.h"

namespace {

std::string fromHex(std::string_view hex)
{
    std::string bytes;
    for (size_t at = 0; at + 1 < hex.size(); at += 3)
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(at, 2)), nullptr, 16));
    return bytes;
}

MailAddress smtp(const std::wstring& address, const std::wstring& name = L"Someone")
{
    return MailAddress{name, address, L"00AB", L"SMTP"};
}

// The parts below `part` as "type[body]", multiparts as "type{...}".
std::string shapeOf(const MimeMultipart& mime, const MimePart& part)
{
    std::string text;
    for (const auto& child : part.children) {
        const MimeHeader* type = child->header("Content-Type");
        text += type ? type->value.substr(0, type->value.find(';')) : "";
        text += child->children.empty() ? "[" + std::string(mime.body(*child)) + "] " : "{" + shapeOf(mime, *child) + "} ";
    }
    return text;
}

} // namespace

TEST(TextUnits, AddressHeaderValuesBecomeBareFoldedAddresses)
{
    const std::string deep = std::string(100000, '<') + "x@y" + std::string(100000, '>') + ", last@z";
    const struct {
        std::string value, addresses;
    } rows[] = {
        {"", "\r\n"},
        {" \t\r\n  \r\n\t", "\r\n"},
        {"a@b", "<a@b>\r\n"},
        {"<a@b>,<c@d>", "<a@b>,\r\n <c@d>\r\n"},
        {"a@b c@d", "<a@b>,\r\n <c@d>\r\n"},
        {"< a@b >", "<a@b>\r\n"},
        {"Foo\"Bar@x", "<Foo\"Bar@x>\r\n"},
        {"\"Doe, John\" <john@a.b>, jane@c.d", "<john@a.b>,\r\n <jane@c.d>\r\n"},
        {"\"x@y\" <a@b>", "<a@b>\r\n"},
        {"John Doe <john@a.b>", "<john@a.b>\r\n"},
        {"\"A\" <a@x>,\r\n\t\"B\" <b@y>,\r\n \"C\"\r\n\t<c@z>", "<a@x>,\r\n <b@y>,\r\n <c@z>\r\n"},
        {"John Doe", "<Doe>\r\n"},
        {"undisclosed-recipients:;", "<undisclosed-recipients:;>\r\n"},
        {"<a@b>, \"Doe <c@d>, e@f", "<a@b>\r\n"},
        {"\"a\\\"b <c@d>", "<c@d>\r\n"},
        {"\"a\\\" b@x \" <c@d>", "<b@x>\r\n"},
        {"<a<b@c>>, d@e", "<d@e>\r\n"},
        {"<a<b,c@d>", "<ac@d>\r\n"},
        {deep, "<last@z>\r\n"},
        {std::string(200000, ',') + std::string(200000, '"'), "\r\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(MailAddressHeader(row.value).extractMailAddresses(), row.addresses) << row.value.substr(0, 80);
}

TEST(TextUnits, TheConvertersAddressHeadersAreRewrittenAndTheRestLeftAsItIs)
{
    const struct {
        std::string headers, name, value;
        bool extract;
        std::string rewritten;
    } rows[] = {
        {"From: a@x\r\nTo: \"A\" <a@x>,\r\n\t\"B\" <b@x>\r\nSubject: s", "To", "<a@smtp>,\r\n<b@smtp>", true,
         "From: a@x\r\nTo: <a@smtp>,\r\n <b@smtp>\r\nSubject: s"},
        {"Bcc: \"Hidden\" <h@x>,\r\n \"Other\" <o@y>\r\nSubject: s", "Bcc", "", true, "Bcc: <h@x>,\r\n <o@y>\r\nSubject: s"},
        {"To: \r\nSubject: s", "To", "", true, "To: \r\nSubject: s"},
        {"Subject: s\r\nTo: \"A\" <a@x>,\r\n <b@x>", "To", "<n@x>", true, "Subject: s\r\nTo: \"A\" <a@x>,\r\n <b@x>"},
        {"From: a@x\r\nSubject: s", "Cc", "<c@x>", true, "From: a@x\r\nSubject: s"},
        {"To:<a@x>\r\nX: y", "To", "<n@x>", true, "To:<a@x>\r\nX: y"},
        {"TO: \"A\" <a@x>\r\nX: y", "To", "<n@x>", true, "To: <n@x>\r\nX: y"},
        {"To: \"A\" <a@x>\r\nX: y", "To", "<n@x>\r\n", false, "To: <n@x>\r\nX: y"},
        {"To: \"A\" <a@x>\r\nX: y", "To", "", false, "To: \"A\" <a@x>\r\nX: y"},
        {"From: \"A\" <a@x>\r\n\r\nTo: \"B\" <b@x>\r\nX: y", "To", "", true, "From: \"A\" <a@x>\r\n\r\nTo: \"B\" <b@x>\r\nX: y"},
        {" To: \"A\" <a@x>\r\nTo: \"B\" <b@x>\r\nX: y", "To", "", true, " To: \"A\" <a@x>\r\nTo: <b@x>\r\nX: y"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(findHeaderInEml(row.headers, row.name, row.value, row.extract), row.rewritten) << row.headers;

    const std::string headers = "From: \"S\" <s@exchange.local>\r\nSender: \"S\" <s@exchange.local>\r\n"
                                "To: \"Alice\" <alice@x>,\r\n\t\"Bob\" <bob@y>\r\nCc: \"Carol\" <carol@z>\r\n"
                                "Bcc: \"Dave\" <dave@w>\r\nSubject: Hello";
    EXPECT_EQ(rewriteAddressHeaders(headers, smtp(L"s@smtp"), {smtp(L"a@smtp", L"Alice"), smtp(L"b@smtp")},
                                    {smtp(L"m\u00FCller@x")}, {}, true),
              "From: <s@smtp>\r\nSender: <s@smtp>\r\nTo: <a@smtp>,\r\n <b@smtp>\r\nCc: <m\xFCller@x>\r\n"
              "Bcc: <dave@w>\r\nSubject: Hello");
}

TEST(TextUnits, MimePartsFollowTheStrictDelimiterRules)
{
    const std::string alternative = "Content-Type: multipart/alternative;\r\n\tboundary=\"----=_Next\"\r\n\r\npreamble\r\n"
                                    "------=_Next\r\nContent-Type: text/plain;\r\n\tcharset=\"us-ascii\"\r\n\r\nHello\r\n"
                                    "World\r\n------=_Next\r\nContent-Type: text/html\r\n\r\n<p>Hello</p>\r\n"
                                    "------=_Next--\r\n\r\n";
    const std::string nested = "content-type: Multipart/Mixed; BOUNDARY=\"outer\"\r\n\r\n--outer\r\n"
                               "Content-Type: multipart/alternative; boundary=inner\r\n\r\n--inner\r\n"
                               "CONTENT-TYPE: Text/Plain\r\n\r\nplain text\r\n--inner\r\nContent-Type: text/html\r\n\r\n"
                               "<b>html</b>\r\n--inner--\r\n\r\n--outer\r\n"
                               "Content-Type: text/plain; name=\"notes.txt\"\r\n\r\nattached\r\n--outer--\r\nepilogue\r\n";
    const std::string part = "Content-Type: multipart/mixed; boundary=sep\r\n\r\n--sep\r\n";
    const struct {
        const char* name;
        std::string input, shape;
        std::wstring plainText;
    } rows[] = {
        {"alternative", alternative, "text/plain[Hello\r\nWorld] text/html[<p>Hello</p>] ", L"Hello\r\nWorld"},
        {"nested, any case", nested,
         "multipart/alternative{Text/Plain[plain text] text/html[<b>html</b>] } text/plain[attached] ", L"plain text"},
        {"a text attachment is not the mail's text",
         part + "Content-Type: text/plain; name=\"a.txt\"\r\n\r\nfile\r\n--sep\r\nContent-Type: text/html\r\n\r\nx\r\n--sep--\r\n.",
         "text/plain[file] text/html[x] ", L""},
        {"boundary text in a body without its dashes stops there",
         part + "Content-Type: text/plain\r\n\r\nThe separator is sep.\r\n--sep\r\n\r\nx\r\n--sep--\r\n.",
         "text/plain[The separator is sep.\r\n--sep\r\n\r\nx\r\n--sep--\r\n.] ", L"The separator is sep.\r\n--sep\r\n\r\nx\r\n--sep--\r\n."},
        {"a closing delimiter with nothing behind it", part + "Content-Type: text/plain\r\n\r\nlast\r\n--sep--\r\n",
         "text/plain[last\r\n--sep--\r\n] ", L"last\r\n--sep--\r\n"},
        {"a delimiter at the very start", "--sep\r\nContent-Type: multipart/mixed; boundary=sep\r\n\r\nx", "", L""},
        {"line feeds alone", "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nx\n--b--\n.",
         "", L""},
        {"undeclared boundaries", "Content-Type: multipart/mixed; boundary=one\r\n\r\n--two\r\n\r\nx\r\n--two--\r\n.", "",
         L""},
        {"of two at one offset the first declared wins",
         "Content-Type: multipart/mixed; boundary=\"x\"\r\n\r\n--x\r\nContent-Type: multipart/mixed; boundary=\"x--\"\r\n"
         "\r\nbody\r\n--x--\r\ntail",
         "multipart/mixed[body] ", L""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        MimeMultipart mime;
        mime.decode(row.input.data(), row.input.size(), false);
        EXPECT_EQ(shapeOf(mime, mime.root()), row.shape);
        EXPECT_EQ(mime.plainText(), row.plainText);
    }

    // Hostile sizes stay bounded: a hundred header lines, a hundred passes.
    std::string many = "Content-Type: multipart/mixed; boundary=sep\r\n\r\n";
    for (int i = 0; i < 10000; ++i) {
        many += "--sep\r\n";
        for (int line = 0; line < (i ? 1 : 150); ++line)
            many += "X-Header-" + std::to_string(line) + ": " + std::to_string(line) + "\r\n";
        many += "\r\npart " + std::to_string(i) + "\r\n";
    }
    many += "--sep--\r\n.";
    MimeMultipart mime;
    ASSERT_TRUE(mime.decode(many.data(), many.size(), false));
    ASSERT_EQ(mime.root().children.size(), 100u);
    EXPECT_EQ(mime.root().children[0]->headers.size(), 100u);
    EXPECT_TRUE(mime.body(*mime.root().children[99]).starts_with("part 99\r\n--sep\r\n"));
}

TEST(TextUnits, HeaderFieldsAndBodyEncodingsOfTheEmlWriter)
{
    const FILETIME noTime{0xFFFFFFFF, 0xFFFFFFFF};
    const struct {
        std::string written, expected;
    } rows[] = {
        {unstructuredHeader("Subject", L"Quarterly figures"), "Subject: Quarterly figures\r\n"},
        {unstructuredHeader("Subject", L""), "Subject:\r\n"},
        {unstructuredHeader("Subject", L"Gr\u00FC\u00DFe"), "Subject: =?utf-8?B?R3LDvMOfZQ==?=\r\n"},
        {unstructuredHeader("Subject", L"=?utf-8?B?SGk=?="), "Subject: =?utf-8?B?PT91dGYtOD9CP1NHaz0/PQ==?=\r\n"},
        {unstructuredHeader("Subject", L"Hello\r\nBcc: victim@example.org"), "Subject: Hello  Bcc: victim@example.org\r\n"},
        {mailboxText({L"Eve \"Second\" \\ To", L"eve@example.org", L"", L"SMTP"}, 4),
         "\"Eve \\\"Second\\\" \\\\ To\" <eve@example.org>"},
        {mailboxText({L"", L"plain@example.org", L"", L"SMTP"}, 4), "<plain@example.org>"},
        {mailboxText({L"Nobody", L"", L"", L"SMTP"}, 4), ""},
        {addressHeader("From", {{L"J\u00FCrgen", L"jm@example.org", L"", L"SMTP"}}),
         "From: =?utf-8?B?SsO8cmdlbg==?=\r\n <jm@example.org>\r\n"},
        {addressHeader("To", {smtp(L"a@x", L"A"), smtp(L"b@x", L"B"), {L"Eve\r\nX-Evil: 1", L"e@x\r\nX: y", L"", L""}}),
         "To: \"A\" <a@x>,\r\n \"B\" <b@x>,\r\n \"Eve  X-Evil: 1\" <e@xX:y>\r\n"},
        {addressHeader("Cc", {}), ""},
        {groupHeader("From", L"Bob Builder"), "From: \"Bob Builder\":;\r\n"},
        {groupHeader("From", L""), "From: undisclosed-sender:;\r\n"},
        {identifierHeader("Message-ID", L"<abc@example.org>"), "Message-ID: <abc@example.org>\r\n"},
        {identifierHeader("Message-ID", L"<\u00E4@x>") + identifierHeader("Message-ID", L""), ""},
        {identifierHeader("Message-ID", L"<" + std::wstring(2000, L'a') + L"@x>"), ""},
        {mimeParameter("filename", L"report.pdf"), ";\r\n filename=\"report.pdf\""},
        {mimeParameter("filename", L"Pr\u00E4sentation \u20AC.pptx"),
         ";\r\n filename*=utf-8''Pr%C3%A4sentation%20%E2%82%AC.pptx"},
        {mimeParameter("name", L"a\"b.txt"), ";\r\n name*=utf-8''a%22b.txt"},
        {mimeDate(utcFileTime(2024, 3, 5, 7, 8, 9)), "Tue, 05 Mar 2024 07:08:09 +0000"},
        {mimeDate(utcFileTime(1999, 12, 31, 23, 59, 59)), "Fri, 31 Dec 1999 23:59:59 +0000"},
        {mimeDate(noTime), ""},
        {normalizeLineBreaks("a\nb\rc\r\nd\n\re"), "a\r\nb\r\nc\r\nd\r\n\r\ne"},
        {encodeQuotedPrintable("a=b \xC3\xBC\r\nblank \r\ntab\t\r\n\r\n"), "a=3Db =C3=BC\r\nblank=20\r\ntab=09\r\n\r\n"},
        {encodeQuotedPrintable(std::string(100, 'x')), std::string(75, 'x') + "=\r\n" + std::string(25, 'x')},
        {encodeQuotedPrintable("=="), "=3D=3D"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.written, row.expected);
    std::wstring longName;
    for (int i = 0; i < 40; ++i)
        longName += L"\u00FCberlange-";
    const std::string sections = mimeParameter("filename", longName);
    EXPECT_TRUE(contains(sections, ";\r\n filename*0*=utf-8''%C3%BCberlange-%C3%BC") && contains(sections, "filename*3*="))
        << sections;
}

TEST(TextUnits, CompressedRtfDecodesByteExactAndBoundsDamage)
{
    // The known pair and the worked examples of the format.
    const std::string test = fromHex("23 00 00 00 22 00 00 00 4C 5A 46 75 33 5C E8 74 03 00 0A 00 72 63 70 67 31 32 35 "
                                     "92 32 0A F3 20 74 07 90 74 7D 0F 10");
    const std::string hello = fromHex("2D 00 00 00 2B 00 00 00 4C 5A 46 75 F1 C5 C7 A7 03 00 0A 00 72 63 70 67 31 32 "
                                      "35 42 32 0A F3 20 68 65 6C 09 00 20 62 77 05 B0 6C 64 7D 0A 80 0F A0");
    const std::string crossing = fromHex("1A 00 00 00 1C 00 00 00 4C 5A 46 75 E2 D4 4B 51 41 00 04 20 57 58 59 5A 0D "
                                         "6E 7D 01 0E B0");
    const auto with = [](std::string bytes, size_t at, char value) { return bytes[at] = value, bytes; };
    const struct {
        const char* name;
        std::string bytes;
        size_t limit;
        std::string rtf, warning;
        bool usable;
    } rows[] = {
        {"known pair", test, 1 << 20, "{\\rtf1\\ansi\\ansicpg1252\\pard test}", "", true},
        {"hello world", hello, 1 << 20, "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n", "", true},
        {"run across its own end", crossing, 1 << 20, "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}", "", true},
        {"stored", fromHex("12 00 00 00 06 00 00 00 4D 45 4C 41 00 00 00 00") + "{\\rtf}", 1 << 20, "{\\rtf}", "", true},
        {"bad CRC", with(test, 12, 0x34), 1 << 20, "{\\rtf1\\ansi\\ansicpg1252\\pard test}", "does not match", true},
        {"cut short", test.substr(0, 30), 1 << 20, "{\\rtf1\\ansi\\ansicpg1252", "ends without its end mark", true},
        {"longer than it says", with(test, 4, 0x7F), 1 << 20, "{\\rtf1\\ansi\\ansicpg1252\\pard test}",
         "the header says 127", true},
        {"beyond the limit", test, 10, "{\\rtf1\\ans", "only the first 10", true},
        {"unknown type", with(test, 8, 'X'), 1 << 20, "", "unknown compression type", false},
        {"no header", test.substr(0, 15), 1 << 20, "", "no compressed RTF header", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const DecompressedRtf result = decompressRtf(row.bytes, row.limit);
        EXPECT_EQ(result.rtf, row.rtf);
        EXPECT_EQ(result.usable, row.usable);
        EXPECT_TRUE(row.warning.empty() ? result.warning.empty() : contains(result.warning, row.warning))
            << result.warning;
    }
}

TEST(TextUnits, RtfBodiesGiveTheHtmlOrTextTheyEncapsulateOrAPlainRendering)
{
    const struct {
        const char* name;
        std::string rtf;
        RtfBodyKind kind;
        std::u16string text;
    } rows[] = {
        {"HTML", "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl{\\f0\\fswiss Arial;}}\r\n"
                 "{\\*\\htmltag19 <html>}\\htmlrtf {\\b RTF only}\\par\\htmlrtf0 Gr\\'fc\\'dfe \\{x\\}\\\\"
                 "{\\*\\mhtmltag84 <img src=\"cid:a@b\">}{\\*\\htmltag84 <img src=\"a.png\">}\\par\r\n"
                 "{\\*\\htmltag35 </html>}\\htmlrtf \\par\\htmlrtf0}",
         RtfBodyKind::Html, u"<html>Gr\u00FC\u00DFe {x}\\<img src=\"cid:a@b\">\r\n</html>"},
        {"text", "{\\rtf1\\ansi\\fromtext \\deff0{\\fonttbl{\\f0 Arial;}}\\htmlrtf {\\b x}\\htmlrtf0 one\\par two\\tab 3}",
         RtfBodyKind::Text, u"one\r\ntwo\t3"},
        {"RTF", "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0 Arial;}{\\f1\\fcharset204 Times;}"
                "{\\f2\\fcharset128 MS Mincho;}}{\\colortbl;\\red0\\green0\\blue0;}{\\stylesheet{\\s0 Normal;}}"
                "{\\info{\\title T}}\\pard Hello \\b World\\b0\\par{\\f1 \\'cf\\'f0\\'e8}\\emdash{\\f2 \\'93\\'fa\\'96"
                "\\'7b}\\tab\\uc1\\u8364?{\\field{\\*\\fldinst HYPERLINK \"x\"}{\\fldrslt link}}{\\*\\unknown gone}\\par}",
         RtfBodyKind::Rtf, u"Hello World\r\n\u041F\u0440\u0438\u2014\u65E5\u672C\t\u20AClink\r\n"},
        {"document code page", "{\\rtf1\\ansi\\ansicpg932 \\'93\\'fa\\'96\\'7b\\u-10179?\\u-8704?}", RtfBodyKind::Rtf,
         u"\u65E5\u672C\U0001F600"},
        {"encapsulation named after text", "{\\rtf1 text \\fromhtml1 more}", RtfBodyKind::Rtf, u"text more"},
        {"nesting beyond the limit", std::string(5000, '{') + "\\fromhtml1 deep" + std::string(10, '}'),
         RtfBodyKind::Rtf, u"deep"},
        {"broken escapes and data", "{\\rtf1 a\\'4\\bin99999 b", RtfBodyKind::Rtf, u"a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(rtfBodyKindOf(row.rtf), row.kind);
        const RtfBody body = readRtfBody(row.rtf, codePageDecoder());
        EXPECT_EQ(body.kind, row.kind);
        EXPECT_EQ(body.text, row.text);
    }
}

TEST(TextUnits, CodePagesOfEightBitTextAndReplyToEntries)
{
    const struct {
        std::optional<uint32_t> message, internet;
        uint32_t codePage;
    } rows[] = {
        {std::nullopt, 50220, 932}, {std::nullopt, 50221, 932},  {std::nullopt, 51932, 932},
        {std::nullopt, 20866, 1251}, {std::nullopt, 28591, 1252}, {std::nullopt, 28592, 1250},
        {1251, 50220, 1251},         {50220, 1252, 932},          {99999, 1250, 1250},
        {std::nullopt, 65001, 0},    {std::nullopt, std::nullopt, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(stringCodePageOf(row.message, row.internet), row.codePage)
            << row.message.value_or(0) << "/" << row.internet.value_or(0);
    for (const auto& [charset, codePage] : {std::pair{128u, 932u}, {204u, 1251u}, {238u, 1250u}, {0u, 0u}})
        EXPECT_EQ(codePageOfRtfCharset(charset), codePage) << charset;
    EXPECT_EQ(textInCodePage("\x93\xfa\x96\x7b", 932), L"\u65E5\u672C");

    const std::string provider("\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02", 16);
    const std::string unicode = std::string(4, '\0') + provider + std::string("\0\0\0\x80", 4) +
                                std::string("A\0n\0n\0\0\0S\0M\0T\0P\0\0\0a\0@\0b\0\0\0", 26);
    const std::string ansi =
        std::string(4, '\0') + provider + std::string(4, '\0') + "\xcf\xf0\xe8" + '\0' + "SMTP" + '\0' + "p@q";
    std::string list = fromHex("03 00 00 00 00 00 00 00");
    for (const std::string& entry : {unicode, ansi, std::string(28, '\x07')}) // the third: a one-off entry
        list += static_cast<char>(entry.size()) + std::string(3, '\0') + entry + std::string((4 - entry.size() % 4) % 4, '\0');
    const FlatEntryListAddresses found = addressesOfFlatEntryList(list, 1251, codePageDecoder());
    ASSERT_EQ(found.addresses.size(), 2u);
    EXPECT_EQ(found.addresses[0].name + u"|" + found.addresses[0].address, u"Ann|a@b");
    EXPECT_EQ(found.addresses[1].name + u"|" + found.addresses[1].address, u"\u041F\u0440\u0438|p@q");
    EXPECT_EQ(found.otherEntries, 1u);
    EXPECT_FALSE(found.damaged);
    const FlatEntryListAddresses cut = addressesOfFlatEntryList(list.substr(0, 40), 1251, codePageDecoder());
    EXPECT_TRUE(cut.damaged && cut.addresses.empty());
}
