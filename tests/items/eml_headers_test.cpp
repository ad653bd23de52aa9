// Rewriting the address headers of a converter-written .eml: what is replaced,
// what is deliberately left alone, and header blocks no converter would write.
#include "items/eml_headers.h"

#include "core/log.h"
#include "support/scratch.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

MailAddress smtp(const std::wstring& address, const std::wstring& name = L"Someone")
{
    return MailAddress{name, address, L"00AB", L"SMTP"};
}

// A header block as the MIME converter writes it: display names, folded
// recipient lists, and the address headers among others.
const std::string converterHeaders = "From: \"Sender Name\" <sender@exchange.local>\r\n"
                                     "Sender: \"Sender Name\" <sender@exchange.local>\r\n"
                                     "To: \"Alice\" <alice@x.example>,\r\n"
                                     "\t\"Bob\" <bob@y.example>\r\n"
                                     "Cc: \"Carol\" <carol@z.example>\r\n"
                                     "Bcc: \"Dave\" <dave@w.example>\r\n"
                                     "Subject: Hello\r\n"
                                     "MIME-Version: 1.0\r\n"
                                     "Content-Type: text/plain; charset=\"us-ascii\"";

} // namespace

TEST(EmlSplit, HeadersEndBeforeTheFirstBlankLineWhichBelongsToTheBody)
{
    const std::string eml = "From: a\r\nTo: b\r\n\r\nbody\r\n\r\nmore";
    const EmlSplit split = splitEmlHeaders(eml);
    ASSERT_TRUE(split.found);
    EXPECT_EQ(split.headers, "From: a\r\nTo: b");
    EXPECT_EQ(split.bodyOffset, 14u);
    EXPECT_EQ(eml.substr(split.bodyOffset), "\r\n\r\nbody\r\n\r\nmore");
}

TEST(EmlSplit, WithoutABlankLineNothingIsSplit)
{
    for (const std::string eml : {"", "From: a", "From: a\r\nTo: b\r\n", "From: a\n\nbody", "\r\n\r"}) {
        const EmlSplit split = splitEmlHeaders(eml);
        EXPECT_FALSE(split.found) << eml;
        EXPECT_EQ(split.headers, "") << eml;
        EXPECT_EQ(split.bodyOffset, 0u) << eml;
    }
}

TEST(EmlSplit, BlankLineAtTheStartGivesAnEmptyHeaderBlock)
{
    const EmlSplit split = splitEmlHeaders("\r\n\r\nbody");
    EXPECT_TRUE(split.found);
    EXPECT_EQ(split.headers, "");
    EXPECT_EQ(split.bodyOffset, 0u);
}

TEST(EmlHeaderValues, RecipientsAreBracketedAddressesJoinedByFoldedCommas)
{
    EXPECT_EQ(addressHeaderValue({}), "");
    EXPECT_EQ(addressHeaderValue({smtp(L"a@x")}), "<a@x>");
    EXPECT_EQ(addressHeaderValue({smtp(L"a@x", L"Alice"), smtp(L"b@y", L"Bob"), smtp(L"")}),
              "<a@x>,\r\n<b@y>,\r\n<>");
    EXPECT_EQ(senderHeaderValue(smtp(L"s@x", L"Display Name")), "<s@x>");
    EXPECT_EQ(senderHeaderValue(MailAddress{}), "<>");
}

TEST(EmlHeaderValues, AddressesAreNarrowedUnitByUnit)
{
    // Header text is 8-bit; each UTF-16 unit keeps its low byte.
    EXPECT_EQ(senderHeaderValue(smtp(L"m\u00FCller@x")), "<m\xFCller@x>");
    EXPECT_EQ(addressHeaderValue({smtp(L"\u20AC@x")}), "<\xAC@x>");
}

TEST(EmlFindHeader, ReplacesTheValueAndItsContinuationLines)
{
    const std::string headers = "From: a@x\r\nTo: \"A\" <a@x>,\r\n\t\"B\" <b@x>\r\nSubject: s";
    EXPECT_EQ(findHeaderInEml(headers, "To", "<a@smtp>,\r\n<b@smtp>", true),
              "From: a@x\r\nTo: <a@smtp>,\r\n <b@smtp>\r\nSubject: s");
    EXPECT_EQ(findHeaderInEml(headers, "From", "<n@smtp>", true),
              "From: <n@smtp>\r\nTo: \"A\" <a@x>,\r\n\t\"B\" <b@x>\r\nSubject: s");
}

TEST(EmlFindHeader, EmptyNewValueReducesTheOldOneToBareAddresses)
{
    const std::string headers = "Bcc: \"Hidden\" <h@x>,\r\n \"Other\" <o@y>\r\nSubject: s";
    EXPECT_EQ(findHeaderInEml(headers, "Bcc", "", true), "Bcc: <h@x>,\r\n <o@y>\r\nSubject: s");
}

TEST(EmlFindHeader, AValueWithoutAddressesStaysEmpty)
{
    EXPECT_EQ(findHeaderInEml("To: \r\nSubject: s", "To", "", true), "To: \r\nSubject: s");
    EXPECT_EQ(findHeaderInEml("To: undisclosed\r\nX: y", "To", "", false), "To: undisclosed\r\nX: y");
}

TEST(EmlFindHeader, TheLastHeaderOfTheBlockIsNeverTouched)
{
    const std::string headers = "Subject: s\r\nTo: \"A\" <a@x>";
    EXPECT_EQ(findHeaderInEml(headers, "To", "<n@x>", true), headers);
    // Continuation lines make it no less the last one.
    const std::string folded = "Subject: s\r\nTo: \"A\" <a@x>,\r\n <b@x>";
    EXPECT_EQ(findHeaderInEml(folded, "To", "<n@x>", true), folded);
    // A single header without any line break is the last one too.
    EXPECT_EQ(findHeaderInEml("From: \"A\" <a@x>", "From", "<n@x>", true), "From: \"A\" <a@x>");
}

TEST(EmlFindHeader, AMissingHeaderIsNotAdded)
{
    const std::string headers = "From: a@x\r\nSubject: s\r\nDate: d";
    EXPECT_EQ(findHeaderInEml(headers, "Cc", "<c@x>", true), headers);
    EXPECT_EQ(findHeaderInEml(headers, "Sub", "<c@x>", true), headers);
    // "To: " must be followed by a blank as the converter writes it.
    EXPECT_EQ(findHeaderInEml("To:<a@x>\r\nX: y", "To", "<n@x>", true), "To:<a@x>\r\nX: y");
}

TEST(EmlFindHeader, NamesMatchInAnyCaseAndAreWrittenAsGiven)
{
    EXPECT_EQ(findHeaderInEml("TO: \"A\" <a@x>\r\nX: y", "To", "<n@x>", true), "To: <n@x>\r\nX: y");
    EXPECT_EQ(findHeaderInEml("cc: c@x\r\nX: y", "Cc", "", true), "Cc: <c@x>\r\nX: y");
}

TEST(EmlFindHeader, AnUnchangedValueLeavesTheBlockAndTheLogAlone)
{
    LogCapture log(LOG_DEBUG);
    const std::string headers = "To: <a@x>,\r\n <b@x>\r\nSubject: s";
    EXPECT_EQ(findHeaderInEml(headers, "To", "<a@x>,\r\n<b@x>", true), headers);
    EXPECT_EQ(log.contents().find("replaced"), std::string::npos);
}

TEST(EmlFindHeader, AReplacementIsLoggedWithOldAndNewValue)
{
    LogCapture log(LOG_DEBUG);
    findHeaderInEml("To: \"A\" <a@x>\r\nSubject: s", "To", "<a@smtp>", true);
    const std::string text = log.contents();
    EXPECT_NE(text.find("MailItem:"), std::string::npos) << text;
    EXPECT_NE(text.find("header \"To\" replaced, oldValue=\"A\" <a@x>\r\n, newValue=<a@smtp>\r\n"), std::string::npos)
        << text;
}

TEST(EmlFindHeader, WithoutExtractionTheNewValueIsWrittenAsItStands)
{
    EXPECT_EQ(findHeaderInEml("To: \"A\" <a@x>\r\nX: y", "To", "<n@x>\r\n", false), "To: <n@x>\r\nX: y");
    EXPECT_EQ(findHeaderInEml("To: \"A\" <a@x>\r\nX: y", "To", "", false), "To: \"A\" <a@x>\r\nX: y");
}

TEST(EmlFindHeader, AnEmptyLineEndsTheBlock)
{
    // Handed a whole mail instead of its header block, the walk stops at the
    // blank line: the header before it is complete, nothing after it is a header.
    const std::string eml = "From: \"A\" <a@x>\r\n\r\nTo: \"B\" <b@x>\r\nX: y";
    EXPECT_EQ(findHeaderInEml(eml, "From", "", true), "From: <a@x>\r\n\r\nTo: \"B\" <b@x>\r\nX: y");
    EXPECT_EQ(findHeaderInEml(eml, "To", "", true), eml);
}

TEST(EmlFindHeader, ContinuationLinesBeforeAnyHeaderAreNotAHeader)
{
    const std::string headers = " To: \"A\" <a@x>\r\nTo: \"B\" <b@x>\r\nX: y";
    EXPECT_EQ(findHeaderInEml(headers, "To", "", true), " To: \"A\" <a@x>\r\nTo: <b@x>\r\nX: y");
}

TEST(EmlFindHeader, HostileBlocksEndUnchanged)
{
    for (const std::string headers : {"", "   ", "\r\n", "\r\n\r\n", "To:", "To: ", "To: \r", "\t\t\t", "\r\n\r\nTo: a@x\r\nX: y"}) {
        EXPECT_EQ(findHeaderInEml(headers, "To", "<n@x>", true), headers) << "[" << headers << "]";
    }
    // A long block without any CRLF is one line, and so the last header.
    const std::string oneLine = "To: a@x" + std::string(100000, ' ') + "From: b@x\nCc: c@x\n";
    EXPECT_EQ(findHeaderInEml(oneLine, "To", "<n@x>", true), oneLine);
    EXPECT_EQ(findHeaderInEml(oneLine, "Cc", "<n@x>", true), oneLine);
}

TEST(EmlRewrite, AddressHeadersOfAConverterMailGetPlainAddresses)
{
    const std::string rewritten =
        rewriteAddressHeaders(converterHeaders, smtp(L"sender@smtp.example", L"Sender Name"),
                              {smtp(L"alice@smtp.example", L"Alice"), smtp(L"bob@smtp.example", L"Bob")},
                              {smtp(L"carol@smtp.example", L"Carol")}, {}, true);
    EXPECT_EQ(rewritten, "From: <sender@smtp.example>\r\n"
                         "Sender: <sender@smtp.example>\r\n"
                         "To: <alice@smtp.example>,\r\n"
                         " <bob@smtp.example>\r\n"
                         "Cc: <carol@smtp.example>\r\n"
                         // No Bcc recipients: the header stays, reduced to its bare address.
                         "Bcc: <dave@w.example>\r\n"
                         "Subject: Hello\r\n"
                         "MIME-Version: 1.0\r\n"
                         "Content-Type: text/plain; charset=\"us-ascii\"");
}

TEST(EmlRewrite, AWholeMailKeepsItsBodyByteForByte)
{
    const std::string body = "\r\n\r\nHello,\r\nFrom: not a header\r\nTo: nor this\r\n\r\n-- \r\nsig\r\n";
    const std::string eml = converterHeaders + body;
    const EmlSplit split = splitEmlHeaders(eml);
    ASSERT_TRUE(split.found);
    const std::string rewritten = rewriteAddressHeaders(split.headers, smtp(L"s@smtp"), {smtp(L"a@smtp")}, {},
                                                        {smtp(L"hidden@smtp")}, true) +
                                  eml.substr(split.bodyOffset);
    EXPECT_EQ(rewritten, "From: <s@smtp>\r\n"
                         "Sender: <s@smtp>\r\n"
                         "To: <a@smtp>\r\n"
                         "Cc: <carol@z.example>\r\n"
                         "Bcc: <hidden@smtp>\r\n"
                         "Subject: Hello\r\n"
                         "MIME-Version: 1.0\r\n"
                         "Content-Type: text/plain; charset=\"us-ascii\"" +
                             body);
}

TEST(EmlRewrite, HeadersThatAreAbsentOrLastStayAsTheyAre)
{
    const std::string headers = "Subject: s\r\nFrom: \"A\" <a@x>\r\nTo: \"B\" <b@x>";
    EXPECT_EQ(rewriteAddressHeaders(headers, smtp(L"n@x"), {smtp(L"m@x")}, {smtp(L"c@x")}, {smtp(L"d@x")}, true),
              "Subject: s\r\nFrom: <n@x>\r\nTo: \"B\" <b@x>");
}
