// Mail bodies kept as compressed RTF, the text they stand for, and the code
// pages of 8-bit text: decoded byte-exact where the format's worked examples
// say so, and bounded, with a warning, where the bytes are damaged.
#include "items/code_page.h"
#include "items/flat_entry_list.h"
#include "items/property_text.h"
#include "items/rtf_compressed.h"
#include "items/rtf_text.h"

#include <gtest/gtest.h>

#include <random>

namespace {

std::string fromHex(std::string_view hex)
{
    std::string bytes;
    for (size_t at = 0; at + 1 < hex.size(); at += 3)
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(at, 2)), nullptr, 16));
    return bytes;
}

// The known pair and the worked examples of the compressed RTF format.
const std::string test = fromHex("23 00 00 00 22 00 00 00 4C 5A 46 75 33 5C E8 74 03 00 0A 00 72 63 70 67 31 32 35 92 "
                                 "32 0A F3 20 74 07 90 74 7D 0F 10");
const std::string hello = fromHex("2D 00 00 00 2B 00 00 00 4C 5A 46 75 F1 C5 C7 A7 03 00 0A 00 72 63 70 67 31 32 35 42 "
                                  "32 0A F3 20 68 65 6C 09 00 20 62 77 05 B0 6C 64 7D 0A 80 0F A0");
const std::string crossing = fromHex("1A 00 00 00 1C 00 00 00 4C 5A 46 75 E2 D4 4B 51 41 00 04 20 57 58 59 5A 0D 6E 7D "
                                     "01 0E B0");

std::string with(std::string bytes, size_t at, char value)
{
    bytes[at] = value;
    return bytes;
}

} // namespace

TEST(CompressedRtf, DecodesTheWorkedExamplesAndBoundsDamagedOnes)
{
    const std::string stored = fromHex("12 00 00 00 06 00 00 00 4D 45 4C 41 00 00 00 00") + "{\\rtf}";
    const struct {
        const char* name;
        std::string bytes;
        size_t limit;
        std::string rtf;
        std::string warning; // a part of it; empty: none
        bool usable;
    } rows[] = {
        {"known pair", test, 1 << 20, "{\\rtf1\\ansi\\ansicpg1252\\pard test}", "", true},
        {"hello world", hello, 1 << 20, "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n", "", true},
        {"run across its own end", crossing, 1 << 20, "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}", "", true},
        {"stored", stored, 1 << 20, "{\\rtf}", "", true},
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
        if (row.warning.empty()) {
            EXPECT_EQ(result.warning, "");
        } else {
            EXPECT_NE(result.warning.find(row.warning), std::string::npos) << result.warning;
        }
    }
}

TEST(CompressedRtf, RandomDamageNeverGoesBeyondTheLimits)
{
    std::mt19937 random(13);
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = round % 3 == 0 ? hello : round % 3 == 1 ? crossing : test;
        for (int flips = 1 + random() % 4; flips > 0; --flips)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        const size_t limit = random() % 2 ? 1 << 20 : random() % 64;
        const DecompressedRtf result = decompressRtf(bytes, limit);
        ASSERT_LE(result.rtf.size(), limit);
        const RtfBody body = readRtfBody(result.rtf, codePageDecoder());
        ASSERT_LE(body.text.size(), result.rtf.size() * 2);
    }
}

TEST(RtfBodyText, EncapsulatedHtmlAndTextAndAPlainRenderingOfRtf)
{
    const std::string deep = std::string(5000, '{') + "\\fromhtml1 deep" + std::string(10, '}');
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
        {"nesting beyond the limit", deep, RtfBodyKind::Rtf, u"deep"},
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

TEST(MessageCodePage, EightBitStringsFollowTheMessageThenTheInternetCodePage)
{
    const struct {
        std::optional<uint32_t> message, internet;
        uint32_t codePage;
    } rows[] = {
        {std::nullopt, 50220, 932}, {std::nullopt, 50221, 932},  {std::nullopt, 50222, 932},
        {std::nullopt, 51932, 932}, {std::nullopt, 20866, 1251}, {std::nullopt, 28591, 1252},
        {1251, 50220, 1251},        {50220, 1252, 932},          {99999, 1250, 1250},
        {std::nullopt, 65001, 0},   {std::nullopt, std::nullopt, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.message.value_or(0) << "/" << row.internet.value_or(0));
        EXPECT_EQ(stringCodePageOf(row.message, row.internet), row.codePage);
    }
    EXPECT_EQ(codePageOfRtfCharset(128), 932u);
    EXPECT_EQ(codePageOfRtfCharset(0), 0u);
    EXPECT_EQ(textInCodePage("\x93\xfa\x96\x7b", 932), L"\u65E5\u672C");
    EXPECT_EQ(textInCodePage("\xcf\xf0\xe8", 1251), L"\u041F\u0440\u0438");
}

TEST(ReplyRecipients, OneOffEntriesGiveTheirAddressesOthersAreCounted)
{
    const std::string provider("\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02", 16);
    const std::string unicode = std::string(4, '\0') + provider + std::string("\0\0\0\x80", 4) +
                                std::string("A\0n\0n\0\0\0S\0M\0T\0P\0\0\0a\0@\0b\0\0\0", 26);
    const std::string ansi = std::string(4, '\0') + provider + std::string(4, '\0') + "\xcf\xf0\xe8" + '\0' +
                             "SMTP" + '\0' + "p@q";
    const std::string exchange(28, '\x07');
    std::string list = fromHex("03 00 00 00 00 00 00 00");
    for (const std::string& entry : {unicode, ansi, exchange}) {
        list += static_cast<char>(entry.size());
        list += std::string(3, '\0') + entry + std::string((4 - entry.size() % 4) % 4, '\0');
    }
    const FlatEntryListAddresses found = addressesOfFlatEntryList(list, 1251, codePageDecoder());
    ASSERT_EQ(found.addresses.size(), 2u);
    EXPECT_EQ(found.addresses[0].name, u"Ann");
    EXPECT_EQ(found.addresses[0].address, u"a@b");
    EXPECT_EQ(found.addresses[1].name, u"\u041F\u0440\u0438");
    EXPECT_EQ(found.addresses[1].address, u"p@q"); // no terminator: the entry's end ends it
    EXPECT_EQ(found.otherEntries, 1u);
    EXPECT_FALSE(found.damaged);
    const FlatEntryListAddresses cut = addressesOfFlatEntryList(list.substr(0, 40), 1251, codePageDecoder());
    EXPECT_TRUE(cut.damaged);
    EXPECT_TRUE(cut.addresses.empty());

    // A name without its terminator runs to the entry's end; the fields after it are empty.
    const std::string open = std::string(4, '\0') + provider + std::string(4, '\0') + "Zed";
    const std::string single = fromHex("01 00 00 00 00 00 00 00") + static_cast<char>(open.size()) +
                               std::string(3, '\0') + open + '\0';
    const FlatEntryListAddresses unterminated = addressesOfFlatEntryList(single, 1252, codePageDecoder());
    ASSERT_EQ(unterminated.addresses.size(), 1u);
    EXPECT_EQ(unterminated.addresses[0].name, u"Zed");
    EXPECT_TRUE(unterminated.addresses[0].address.empty());
}
