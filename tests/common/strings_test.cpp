#include "common/strings.h"

#include <gtest/gtest.h>

TEST(ParseLeadingInt, ReadsLikeTheCLibrary)
{
    EXPECT_EQ(parseLeadingInt(L"30"), 30);
    EXPECT_EQ(parseLeadingInt(L"  -5 minutes"), -5);
    EXPECT_EQ(parseLeadingInt(L"+12"), 12);
    EXPECT_EQ(parseLeadingInt(L"abc"), 0);
    EXPECT_EQ(parseLeadingInt(L""), 0);
    EXPECT_EQ(parseLeadingInt(L"99999999999999999999"), INT_MAX);
    EXPECT_EQ(parseLeadingInt(L"-99999999999999999999"), INT_MIN);
}

TEST(Utf8Conversion, RoundTripsTextOutsideTheBasicPlane)
{
    const std::wstring text = L"Gr\u00FC\u00DFe \u20AC \U0001F600";
    EXPECT_EQ(wideToUtf8(text), "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(utf8ToWide(wideToUtf8(text)), text);
}

TEST(Utf8Conversion, InvalidBytesBecomeReplacementCharacters)
{
    const std::wstring text = utf8ToWide("a\xFF" "b\xC3");
    EXPECT_EQ(text.front(), L'a');
    EXPECT_NE(text.find(L'b'), std::wstring::npos);
    EXPECT_NE(text.find(L'\xFFFD'), std::wstring::npos);
}

TEST(TextHelpers, TrimAndCompare)
{
    EXPECT_EQ(trimBlanks(L" \t key = value\r\n"), L"key = value");
    EXPECT_EQ(trimBlanks(L" \t\r\n"), L"");
    EXPECT_TRUE(equalsIgnoreCase(L"KeepTempFilesMinutes", L"keeptempfilesminutes"));
    EXPECT_FALSE(equalsIgnoreCase(L"true", L"tru"));
    EXPECT_TRUE(startsWith(L"2;Mail", L"2;"));
    EXPECT_FALSE(startsWith(L"2", L"2;"));
}
