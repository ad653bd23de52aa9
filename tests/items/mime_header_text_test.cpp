// Header fields of the .eml writer read back with an independent decoder:
// what comes out of the encoded words, quoted names and RFC 2231 parameters
// is the text that went in, and no line breaks the limits.
#include "items/mime_header_text.h"

#include "common/strings.h"
#include "eml_inspection.h"
#include "e2e_shared/msg_builder.h"

#include <gtest/gtest.h>

namespace {

const std::wstring germanSubject = L"Angebot \u00FCber 5\u20AC f\u00FCr Gr\u00F6\u00DFen \U0001F600";

void expectWithinLimits(const std::string& header, size_t limit)
{
    EXPECT_TRUE(hasOnlyCrLf(header)) << header;
    EXPECT_TRUE(std::string_view(header).ends_with("\r\n")) << header;
    EXPECT_LE(longestLine(header), limit) << header;
}

std::string valueOf(const std::string& header)
{
    const auto fields = headerFieldsOf(header.substr(0, header.size() - 2));
    return fields.size() == 1 ? fields[0].value : "<" + std::to_string(fields.size()) + " fields>";
}

} // namespace

TEST(MimeHeaderText, AsciiSubjectStaysReadable)
{
    EXPECT_EQ(unstructuredHeader("Subject", L"Quarterly figures"), "Subject: Quarterly figures\r\n");
    EXPECT_EQ(unstructuredHeader("Subject", L""), "Subject:\r\n");
}

TEST(MimeHeaderText, LongAsciiSubjectIsFoldedAtBlanks)
{
    std::wstring subject;
    for (int i = 0; i < 40; ++i)
        subject += L"word" + std::to_wstring(i) + L" ";
    subject = trimBlanks(subject);
    const std::string header = unstructuredHeader("Subject", subject);
    expectWithinLimits(header, MimeHeaderLimits::preferredLine);
    EXPECT_GT(std::count(header.begin(), header.end(), '\n'), 2);
    EXPECT_EQ(utf8ToWide(valueOf(header)), subject);
}

TEST(MimeHeaderText, NonAsciiSubjectBecomesEncodedWordsThatDecodeBack)
{
    const std::string header = unstructuredHeader("Subject", germanSubject);
    expectWithinLimits(header, MimeHeaderLimits::encodedWordLine);
    EXPECT_EQ(header.find_first_of("\x80\xFF"), std::string::npos); // 7-bit only
    EXPECT_EQ(utf8ToWide(decodeEncodedWords(valueOf(header))), germanSubject);
}

TEST(MimeHeaderText, VeryLongNonAsciiSubjectKeepsEveryWordWithinSeventyFive)
{
    std::wstring subject;
    for (int i = 0; i < 300; ++i)
        subject += (i % 7 == 0) ? L"\U0001F600" : L"\u00E4";
    const std::string header = unstructuredHeader("Subject", subject);
    expectWithinLimits(header, MimeHeaderLimits::encodedWordLine);
    int words = 0;
    for (size_t at = header.find("=?utf-8?B?"); at != std::string::npos; at = header.find("=?utf-8?B?", at + 1)) {
        const size_t end = header.find("?=", at + 10);
        ASSERT_NE(end, std::string::npos);
        EXPECT_LE(end + 2 - at, 75u);
        ++words;
    }
    EXPECT_GT(words, 10);
    // A surrogate pair is never cut between two words.
    EXPECT_EQ(utf8ToWide(decodeEncodedWords(valueOf(header))), subject);
}

TEST(MimeHeaderText, AsciiTextThatLooksLikeAnEncodedWordIsEncoded)
{
    const std::string header = unstructuredHeader("Subject", L"=?utf-8?B?SGk=?= literally");
    EXPECT_EQ(decodeEncodedWords(valueOf(header)), "=?utf-8?B?SGk=?= literally");
}

TEST(MimeHeaderText, ALineBreakInAValueCannotStartAHeader)
{
    const std::string header = unstructuredHeader("Subject", L"Hello\r\nBcc: victim@example.org");
    EXPECT_EQ(header, "Subject: Hello  Bcc: victim@example.org\r\n");
    const std::string address = addressHeader("To", {{L"Eve\r\nX-Evil: 1", L"eve@example.org\r\nX: y", L"", L"SMTP"}});
    EXPECT_EQ(headerFieldsOf(address.substr(0, address.size() - 2)).size(), 1u) << address;
    EXPECT_TRUE(hasOnlyCrLf(address));
}

TEST(MimeHeaderText, DisplayNamesAreQuotedWithEscapes)
{
    EXPECT_EQ(mailboxText({L"Bob To", L"bob@example.org", L"", L"SMTP"}, 4), "\"Bob To\" <bob@example.org>");
    EXPECT_EQ(mailboxText({L"Eve \"Second\" \\ To", L"eve@example.org", L"", L"SMTP"}, 4),
              "\"Eve \\\"Second\\\" \\\\ To\" <eve@example.org>");
    EXPECT_EQ(mailboxText({L"", L"plain@example.org", L"", L"SMTP"}, 4), "<plain@example.org>");
    EXPECT_EQ(mailboxText({L"Nobody", L"", L"", L"SMTP"}, 4), "");
}

TEST(MimeHeaderText, NonAsciiDisplayNameIsEncodedAndTheAddressStaysPlain)
{
    const std::string header = addressHeader("From", {{L"J\u00FCrgen M\u00FCller", L"jm@example.org", L"", L"SMTP"}});
    expectWithinLimits(header, MimeHeaderLimits::encodedWordLine);
    EXPECT_NE(header.find("<jm@example.org>"), std::string::npos);
    EXPECT_EQ(utf8ToWide(decodeEncodedWords(valueOf(header))), L"J\u00FCrgen M\u00FCller <jm@example.org>");
}

TEST(MimeHeaderText, AddressListHasOneMailboxALine)
{
    std::vector<MailAddress> many;
    for (int i = 0; i < 50; ++i)
        many.push_back({L"Recipient " + std::to_wstring(i), L"r" + std::to_wstring(i) + L"@example.org", L"", L"SMTP"});
    const std::string header = addressHeader("To", many);
    expectWithinLimits(header, MimeHeaderLimits::preferredLine);
    EXPECT_EQ(std::count(header.begin(), header.end(), '\n'), 50);
    EXPECT_EQ(addressHeader("Cc", {}), "");
}

TEST(MimeHeaderText, IdentifiersAreFoldedOrLeftOut)
{
    EXPECT_EQ(identifierHeader("Message-ID", L"<abc@example.org>"), "Message-ID: <abc@example.org>\r\n");
    std::wstring references;
    for (int i = 0; i < 20; ++i)
        references += L"<message" + std::to_wstring(i) + L"@mail.example.org> ";
    const std::string header = identifierHeader("References", references);
    expectWithinLimits(header, MimeHeaderLimits::preferredLine);
    EXPECT_EQ(identifierHeader("Message-ID", L""), "");
    EXPECT_EQ(identifierHeader("Message-ID", L"<\u00E4@x>"), "");
    EXPECT_EQ(identifierHeader("Message-ID", L"<" + std::wstring(2000, L'a') + L"@x>"), "");
}

TEST(MimeHeaderText, ShortAsciiFileNameIsAQuotedParameter)
{
    EXPECT_EQ(mimeParameter("filename", L"report.pdf"), ";\r\n filename=\"report.pdf\"");
}

TEST(MimeHeaderText, NonAsciiFileNameIsPercentEncodedUtf8)
{
    const std::wstring name = L"Pr\u00E4sentation \u20AC 2024.pptx";
    const std::string parameter = mimeParameter("filename", name);
    EXPECT_NE(parameter.find("filename*=utf-8''Pr%C3%A4sentation%20%E2%82%AC%202024.pptx"), std::string::npos)
        << parameter;
    EXPECT_EQ(utf8ToWide(rfc2231Parameter("attachment" + parameter, "filename")), name);
}

TEST(MimeHeaderText, LongFileNameIsSplitIntoNumberedSections)
{
    std::wstring name;
    for (int i = 0; i < 40; ++i)
        name += L"\u00FCberlange-";
    name += L".txt";
    const std::string parameter = mimeParameter("filename", name);
    EXPECT_NE(parameter.find("filename*0*=utf-8''"), std::string::npos);
    EXPECT_NE(parameter.find("filename*3*="), std::string::npos);
    EXPECT_LE(longestLine(parameter), MimeHeaderLimits::preferredLine);
    EXPECT_EQ(utf8ToWide(rfc2231Parameter("attachment" + parameter, "filename")), name);
    // A quote in a short name can't go into a quoted string as it stands.
    EXPECT_EQ(utf8ToWide(rfc2231Parameter("x" + mimeParameter("name", L"a\"b.txt"), "name")), L"a\"b.txt");
}

TEST(MimeHeaderText, DateIsRfc5322InUtc)
{
    EXPECT_EQ(mimeDate(utcFileTime(2024, 3, 5, 7, 8, 9)), "Tue, 05 Mar 2024 07:08:09 +0000");
    EXPECT_EQ(mimeDate(utcFileTime(1999, 12, 31, 23, 59, 59)), "Fri, 31 Dec 1999 23:59:59 +0000");
    EXPECT_EQ(mimeDate(FILETIME{0xFFFFFFFF, 0xFFFFFFFF}), "");
}
