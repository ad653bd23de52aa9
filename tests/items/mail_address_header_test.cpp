// Reducing address header values to bare addresses, including values no
// converter would write: the scanner has to end, and end sensibly, on anything.
#include "items/mail_address_header.h"

#include "core/log.h"
#include "support/scratch.h"

#include <chrono>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string extract(const std::string& value)
{
    return MailAddressHeader(value).extractMailAddresses();
}

// The output is either just "\r\n" or "<x>" entries joined by ",\r\n " with a
// final "\r\n", and no entry is empty or holds a delimiter.
::testing::AssertionResult isWellFormedList(const std::string& output)
{
    if (output.size() < 2 || output.compare(output.size() - 2, 2, "\r\n") != 0)
        return ::testing::AssertionFailure() << "no final line break";
    const std::string list = output.substr(0, output.size() - 2);
    size_t pos = 0;
    while (pos < list.size()) {
        size_t next = list.find(",\r\n ", pos);
        if (next == std::string::npos)
            next = list.size();
        const std::string entry = list.substr(pos, next - pos);
        if (entry.size() < 3 || entry.front() != '<' || entry.back() != '>')
            return ::testing::AssertionFailure() << "bad entry [" << entry << "]";
        if (entry.substr(1, entry.size() - 2).find_first_of("<>, \t\r\n") != std::string::npos)
            return ::testing::AssertionFailure() << "delimiter inside entry [" << entry << "]";
        pos = next == list.size() ? next : next + 4;
    }
    return ::testing::AssertionSuccess();
}

} // namespace

TEST(MailAddressHeaderList, EmptyOrBlankValueGivesOnlyALineBreak)
{
    EXPECT_EQ(extract(""), "\r\n");
    EXPECT_EQ(extract(" \t\r\n  \r\n\t"), "\r\n");
    EXPECT_EQ(extract(",,, ,"), "\r\n");
}

TEST(MailAddressHeaderList, BareAndBracketedAddressesBecomeFoldedEntries)
{
    EXPECT_EQ(extract("a@b"), "<a@b>\r\n");
    EXPECT_EQ(extract("<a@b>,<c@d>"), "<a@b>,\r\n <c@d>\r\n");
    EXPECT_EQ(extract("a@b c@d"), "<a@b>,\r\n <c@d>\r\n");
    EXPECT_EQ(extract("< a@b >"), "<a@b>\r\n");
}

TEST(MailAddressHeaderList, TokensKeepTheirCaseAndOddCharacters)
{
    EXPECT_EQ(extract("John.DOE@Example.COM"), "<John.DOE@Example.COM>\r\n");
    // A quote inside a token is an ordinary character.
    EXPECT_EQ(extract("Foo\"Bar@x"), "<Foo\"Bar@x>\r\n");
}

TEST(MailAddressHeaderList, DisplayNamesAreDropped)
{
    EXPECT_EQ(extract("\"Doe, John\" <john@a.b>, jane@c.d"), "<john@a.b>,\r\n <jane@c.d>\r\n");
    // Quoted names are skipped even when they look like an address.
    EXPECT_EQ(extract("\"x@y\" <a@b>"), "<a@b>\r\n");
    // Unquoted words without "@" are passed over until the address comes.
    EXPECT_EQ(extract("John Doe <john@a.b>"), "<john@a.b>\r\n");
}

TEST(MailAddressHeaderList, FoldedLinesAreWhitespaceLikeBlanks)
{
    EXPECT_EQ(extract("\"A\" <a@x>,\r\n\t\"B\" <b@y>,\r\n \"C\"\r\n\t<c@z>"), "<a@x>,\r\n <b@y>,\r\n <c@z>\r\n");
    EXPECT_EQ(extract("\ta@b\r\n"), "<a@b>\r\n");
}

TEST(MailAddressHeaderList, ANameWithoutAddressComesThroughAsItsLastWord)
{
    // The entry is the last token seen when none had an "@".
    EXPECT_EQ(extract("John Doe"), "<Doe>\r\n");
    EXPECT_EQ(extract("undisclosed-recipients:;"), "<undisclosed-recipients:;>\r\n");
}

TEST(MailAddressHeaderList, UnterminatedQuoteSwallowsTheRest)
{
    EXPECT_EQ(extract("<a@b>, \"Doe <c@d>, e@f"), "<a@b>\r\n");
    EXPECT_EQ(extract("\""), "\r\n");
}

TEST(MailAddressHeaderList, BackslashDoesNotEscapeAQuote)
{
    // The name ends at the second quote; what follows it is scanned as text.
    EXPECT_EQ(extract("\"a\\\"b <c@d>"), "<c@d>\r\n");
    // ... and the quote after "b@x" opens a new name that never closes.
    EXPECT_EQ(extract("\"a\\\" b@x \" <c@d>"), "<b@x>\r\n");
}

TEST(MailAddressHeaderNesting, AnAddressInsideAnotherIsDropped)
{
    // The outer token is "a": it has no "@", so it stands only when nothing follows.
    EXPECT_EQ(extract("<a<b@c>>"), "<a>\r\n");
    EXPECT_EQ(extract("<a<b@c>>, d@e"), "<d@e>\r\n");
    EXPECT_EQ(extract("<x<y>@z>"), "<x@z>\r\n");
}

TEST(MailAddressHeaderNesting, ACommaEndsOnlyTheInnermostAddress)
{
    // "<a<b,c@d>" : the comma closes the inner address, "c@d" still belongs to the outer one.
    EXPECT_EQ(extract("<a<b,c@d>"), "<ac@d>\r\n");
}

TEST(MailAddressHeaderNesting, HundredThousandLevelsNeitherOverflowNorHang)
{
    LogCapture quiet(LOG_ERROR);
    const size_t depth = 100000;
    const std::string nested = std::string(depth, '<') + "x@y" + std::string(depth, '>');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(extract(nested + ", last@z"), "<last@z>\r\n");
    EXPECT_EQ(extract(std::string(depth, '<')), "\r\n");
    EXPECT_EQ(extract("<a@b " + std::string(depth, '<') + "c@d"), "<a@b>\r\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(MailAddressHeaderNesting, DeepNestingIsLoggedOnceWithItsDepth)
{
    LogCapture log(LOG_DEBUG);
    EXPECT_EQ(extract("<a@b<<<c>>>>"), "<a@b>\r\n");
    const std::string text = log.contents();
    EXPECT_NE(text.find("MailAddressHeader:"), std::string::npos) << text;
    EXPECT_NE(text.find("nested mail address at pos=4"), std::string::npos) << text;
    EXPECT_NE(text.find("nested mail address dropped, depth=3, pos=11"), std::string::npos) << text;
}

TEST(MailAddressHeaderParts, ParseHeaderEntryReturnsOneEntryAtATime)
{
    MailAddressHeader header("\"Doe\" <a@b>, Bob c@d");
    EXPECT_EQ(header.parseHeaderEntry(), "a@b");
    EXPECT_EQ(header.parseHeaderEntry(), "c@d");
    EXPECT_EQ(header.position(), 20u);
    EXPECT_EQ(header.parseHeaderEntry(), "");
}

TEST(MailAddressHeaderParts, ParseMailAddressStopsAtItsDelimiters)
{
    MailAddressHeader header("ab cd,ef>gh");
    EXPECT_EQ(header.parseMailAddress(), "ab");
    EXPECT_EQ(header.position(), 3u);
    EXPECT_EQ(header.parseMailAddress(), "cd");
    EXPECT_EQ(header.position(), 6u);
    EXPECT_EQ(header.parseMailAddress(), "ef");
    EXPECT_EQ(header.parseMailAddress(), "gh");
    EXPECT_EQ(header.position(), 11u);

    // Leading whitespace is skipped, whitespace inside angle brackets too.
    MailAddressHeader spaced("  < a @ b > rest");
    EXPECT_EQ(spaced.parseMailAddress(), "a@b");
    EXPECT_EQ(spaced.position(), 11u);
}

TEST(MailAddressHeaderParts, EatFriendlyNameStepsOverBothQuotes)
{
    MailAddressHeader header("\"a b\" c");
    header.eatFriendlyName();
    EXPECT_EQ(header.position(), 5u);

    MailAddressHeader open("\"never closed");
    open.eatFriendlyName();
    EXPECT_EQ(open.position(), 13u);
    open.eatFriendlyName(); // at the end: stays there
    EXPECT_EQ(open.position(), 13u);
}

TEST(MailAddressHeaderLog, TraceShowsInputOutputAndDecisions)
{
    LogCapture log(LOG_DEBUG);
    EXPECT_EQ(extract("\"N\" <a@b>,, c"), "<a@b>,\r\n <c>\r\n");
    const std::string text = log.contents();
    EXPECT_NE(text.find("extractMailAddresses(text=\"N\" <a@b>,, c"), std::string::npos) << text;
    EXPECT_NE(text.find(")extractMailAddresses=<a@b>,\r\n <c>\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("eatFriendlyName(pos=0"), std::string::npos) << text;
    EXPECT_NE(text.find(")eatFriendlyName, pos=3"), std::string::npos) << text;
    EXPECT_NE(text.find("'<' starts mail address at pos=4"), std::string::npos) << text;
    EXPECT_NE(text.find("'>' finishes mail address at pos=8"), std::string::npos) << text;
    EXPECT_NE(text.find("mail address is valid=1"), std::string::npos) << text;
    EXPECT_NE(text.find("skip comma"), std::string::npos) << text;
    EXPECT_NE(text.find(")parseMailAddress=c"), std::string::npos) << text;
    EXPECT_NE(text.find("mail address is valid=0"), std::string::npos) << text;
}

TEST(MailAddressHeaderHostile, EveryScanEndsInAWellFormedList)
{
    LogCapture quiet(LOG_ERROR);
    // Runs of the characters the scanner decides on, in a fixed pseudo-random order.
    const std::string alphabet = "<>,\" @a\t\r\nb.";
    uint32_t state = 12345;
    for (int round = 0; round < 200; ++round) {
        std::string value;
        const size_t length = 1 + round * 37 % 400;
        for (size_t i = 0; i < length; ++i) {
            state = state * 1103515245u + 12345u;
            value += alphabet[(state >> 16) % alphabet.size()];
        }
        MailAddressHeader header(value);
        const std::string output = header.extractMailAddresses();
        EXPECT_TRUE(isWellFormedList(output)) << "input [" << value << "] output [" << output << "]";
        EXPECT_EQ(header.position(), value.size());
    }
}

TEST(MailAddressHeaderHostile, LongJunkIsScannedInOnePassWithoutTheValve)
{
    LogCapture log(LOG_ERROR);
    const std::string junk = std::string(200000, ',') + std::string(200000, '"') + std::string(200000, '>') +
                             std::string(200000, ' ');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(extract(junk), "\r\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(MailAddressHeaderHostile, EveryBranchConsumesSoTheValveStaysShut)
{
    // Each kind of character is consumed by the branch that handles it, so the
    // guard against standing still never has to step in.
    LogCapture log(LOG_DEBUG);
    extract("\"\" ,<>><<,, a \"b\" >c@d<\"");
    EXPECT_EQ(log.contents().find("valve, avoid endless loop"), std::string::npos);
}
