#include "common/text_file.h"

#include "support/scratch.h"

#include <gtest/gtest.h>

using Lines = std::vector<std::wstring>;

TEST(SplitUtf8Lines, AcceptsByteOrderMarkAndBothLineEnds)
{
    EXPECT_EQ(splitUtf8Lines("\xEF\xBB\xBF" "a=1\r\nb=2\nc=3", 100), (Lines{L"a=1", L"b=2", L"c=3"}));
}

TEST(SplitUtf8Lines, KeepsBlankLinesAndDecodesUtf8)
{
    EXPECT_EQ(splitUtf8Lines("x\n\n\xE2\x82\xAC\n", 100), (Lines{L"x", L"", L"\u20AC"}));
}

TEST(SplitUtf8Lines, CutsLinesAtTheLimit)
{
    const std::string longLine(5000, 'k');
    const Lines lines = splitUtf8Lines(longLine + "\nnext=1\n", 999);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].size(), 999u);
    EXPECT_EQ(lines[1], L"next=1");
}

TEST(SplitUtf8Lines, InvalidUtf8NeverStopsTheRead)
{
    const Lines lines = splitUtf8Lines("bad=\xC0\xFF\nok=1\n", 100);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], L"ok=1");
}

TEST(SplitKeyValue, SplitsAtTheFirstEqualsAndTrims)
{
    const auto entry = splitKeyValue(L"labelFormat   =   Format: =MSG=  \r");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->first, L"labelFormat");
    EXPECT_EQ(entry->second, L"Format: =MSG=");
    EXPECT_FALSE(splitKeyValue(L"# a comment without the sign"));
    EXPECT_FALSE(splitKeyValue(L""));
    const auto empty = splitKeyValue(L"=");
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->first, L"");
}

TEST(ReadUtf8Lines, ReadsARealFileAndReportsAMissingOne)
{
    ScratchFolder folder;
    writeBytes(folder.file(L"t.txt"), "\xEF\xBB\xBFone\r\ntwo\r\n");
    const auto lines = readUtf8Lines(folder.file(L"t.txt"), 100);
    ASSERT_TRUE(lines);
    EXPECT_EQ(*lines, (Lines{L"one", L"two"}));
    EXPECT_FALSE(readUtf8Lines(folder.file(L"missing.txt"), 100));
}
