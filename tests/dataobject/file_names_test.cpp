// File names in the drag folder: the sanitiser's rules, the " (n)" numbering
// with its length bound, and the fast numbering giving exactly the names of
// the plain retry loop.
#include "dataobject/file_names.h"

#include "core/log.h"
#include "dataobject/data_object_reader.h"
#include "support/scratch.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

namespace {

// The retry loop as the add-in always ran it: for each name try the given
// name, then " (1)", " (2)", ... from the start, up to 9999. Slow, but the
// reference the remembered numbering must match name for name.
std::vector<std::wstring> plainRetryLoop(const std::vector<std::wstring>& givenNames, long long maxLength)
{
    std::set<std::wstring> taken;
    std::vector<std::wstring> result;
    for (const std::wstring& given : givenNames) {
        std::wstring candidate = given;
        for (unsigned n = 1; n < 10000; ++n) {
            if (static_cast<long long>(candidate.size()) <= maxLength && !taken.count(candidate))
                break;
            const StemAndExtension split = splitStemAndExtension(given);
            std::wstring stem = split.stem;
            const std::wstring suffix = L" (" + std::to_wstring(n) + L")";
            const long long suffixAndExtension = static_cast<long long>(suffix.size() + split.extension.size());
            if (static_cast<long long>(stem.size()) + suffixAndExtension >= maxLength) {
                if (suffixAndExtension >= maxLength) {
                    candidate = given;
                    continue;
                }
                stem.resize(static_cast<size_t>(maxLength - suffixAndExtension));
            }
            candidate = stem + suffix + split.extension;
        }
        candidate = sanitizeFileName(candidate);
        taken.insert(candidate);
        result.push_back(candidate);
    }
    return result;
}

std::vector<std::wstring> uniqueNames(const std::vector<std::wstring>& givenNames, long long maxLength)
{
    UniqueFileNames names(maxLength);
    std::vector<std::wstring> result;
    for (const std::wstring& given : givenNames)
        result.push_back(names.next(given));
    return result;
}

// "temp<n>.unk" names carry a process-wide counter; compare them by shape.
std::vector<std::wstring> withoutCounters(std::vector<std::wstring> names)
{
    for (std::wstring& name : names)
        if (name.rfind(L"temp", 0) == 0 && name.size() > 8 && name.substr(name.size() - 4) == L".unk")
            name = L"temp#.unk";
    return names;
}

unsigned nextCounterValue()
{
    const std::wstring name = sanitizeFileName(L"?");
    return static_cast<unsigned>(std::stoul(name.substr(4)));
}

TEST(SanitizeFileName, ForbiddenCharactersInsideBecomeBlanks)
{
    EXPECT_EQ(sanitizeFileName(L"Re: offer?.msg"), L"Re  offer .msg");
    EXPECT_EQ(sanitizeFileName(L"a:b"), L"a b");
    EXPECT_EQ(sanitizeFileName(L"sub\\x.txt"), L"sub x.txt");
    EXPECT_EQ(sanitizeFileName(L"x\\/\"*?<>:|y"), L"x         y");
}

TEST(SanitizeFileName, ForbiddenCharactersAtTheEndsAreDropped)
{
    EXPECT_EQ(sanitizeFileName(L":a:"), L"a");
    EXPECT_EQ(sanitizeFileName(L"\"quoted\""), L"quoted");
    EXPECT_EQ(sanitizeFileName(L"|a|b|"), L"a b");
    EXPECT_EQ(sanitizeFileName(L"??a??b??"), L"a  b");
}

TEST(SanitizeFileName, BlanksDotsAndOtherCharactersStay)
{
    EXPECT_EQ(sanitizeFileName(L" . con .txt. "), L" . con .txt. ");
    EXPECT_EQ(sanitizeFileName(L"\u00c4rger \u20ac\tx.pdf"), L"\u00c4rger \u20ac\tx.pdf");
}

TEST(SanitizeFileName, NothingLeftBecomesTempWithTheNextCounterValue)
{
    const unsigned before = nextCounterValue();
    EXPECT_EQ(sanitizeFileName(L"???"), L"temp" + std::to_wstring(before + 1) + L".unk");
    EXPECT_EQ(sanitizeFileName(L""), L"temp" + std::to_wstring(before + 2) + L".unk");
    EXPECT_EQ(sanitizeFileName(L"**"), L"temp" + std::to_wstring(before + 3) + L".unk");
    EXPECT_EQ(sanitizeFileName(L"<:>|"), L"temp" + std::to_wstring(before + 4) + L".unk");
}

TEST(SplitStemAndExtension, SplitsLikeTheRuntime)
{
    const auto split = [](const std::wstring& name) {
        const StemAndExtension parts = splitStemAndExtension(name);
        return parts.stem + L"|" + parts.extension;
    };
    EXPECT_EQ(split(L"Report.pdf"), L"Report|.pdf");
    EXPECT_EQ(split(L"archive.tar.gz"), L"archive.tar|.gz");
    EXPECT_EQ(split(L"noextension"), L"noextension|");
    EXPECT_EQ(split(L".profile"), L"|.profile");
    EXPECT_EQ(split(L"sub\\dir.d/x.txt"), L"x|.txt");
    EXPECT_EQ(split(L"C:a.b"), L"a|.b");
    EXPECT_EQ(split(L"Re: offer.msg"), L"Re: offer|.msg");
    EXPECT_EQ(split(std::wstring(256, L's') + L".txt"), L"|");
    EXPECT_EQ(split(std::wstring(255, L's') + L".txt"), std::wstring(255, L's') + L"|.txt");
}

TEST(UniqueFileNames, EqualNamesAreNumberedFromTheGivenName)
{
    EXPECT_EQ(uniqueNames({L"a.txt", L"a.txt", L"a.txt"}, 200),
              (std::vector<std::wstring>{L"a.txt", L"a (1).txt", L"a (2).txt"}));
    EXPECT_EQ(uniqueNames({L"Report.pdf", L"report.pdf", L"Report.pdf"}, 200),
              (std::vector<std::wstring>{L"Report.pdf", L"report.pdf", L"Report (1).pdf"}));
}

TEST(UniqueFileNames, NumberedNameAlreadyGivenIsSkipped)
{
    EXPECT_EQ(uniqueNames({L"a (1).txt", L"a.txt", L"a.txt", L"a (1).txt"}, 200),
              (std::vector<std::wstring>{L"a (1).txt", L"a.txt", L"a (2).txt", L"a (1) (1).txt"}));
}

TEST(UniqueFileNames, TooLongNameIsCutToExactlyTheBound)
{
    const std::wstring tempDir(200, L'd');
    ASSERT_EQ(maxFileNameLength(tempDir), 30);
    const std::wstring subject = L"A very long subject line of a mail.msg";
    ASSERT_EQ(subject.size(), 38u);
    LogCapture log(LOG_DEBUG);
    const auto names = uniqueNames({subject, subject}, 30);
    EXPECT_EQ(names[0], L"A very long subject li (1).msg");
    EXPECT_EQ(names[0].size(), 30u);
    EXPECT_EQ(names[1], L"A very long subject li (2).msg");
    const std::string text = log.contents();
    EXPECT_NE(text.find("fname already exists or fname too long"), std::string::npos);
    EXPECT_NE(text.find("try fname=A very long subject li (1).msg"), std::string::npos);
    EXPECT_NE(text.find("insert fname=A very long subject li (1).msg"), std::string::npos);
}

TEST(UniqueFileNames, TheCutFollowsTheWidthOfTheNumber)
{
    std::vector<std::wstring> given(12, L"abcdefghij.txt");
    const auto names = uniqueNames(given, 14);
    EXPECT_EQ(names[0], L"abcdefghij.txt");
    EXPECT_EQ(names[1], L"abcdef (1).txt");
    EXPECT_EQ(names[9], L"abcdef (9).txt");
    EXPECT_EQ(names[10], L"abcde (10).txt");
    EXPECT_EQ(names[11], L"abcde (11).txt");
}

TEST(UniqueFileNames, NoRoomForANumberKeepsTheGivenNameAndLogsIt)
{
    LogCapture log(LOG_ERROR);
    // A bound of 8 leaves no room for " (1)" and ".html" together.
    EXPECT_EQ(uniqueNames({L"index.html", L"a.html", L"a.html"}, 8),
              (std::vector<std::wstring>{L"index.html", L"a.html", L"a.html"}));
    EXPECT_NE(log.contents().find("ERROR path too long for file name=index"), std::string::npos);
}

TEST(UniqueFileNames, NegativeBoundFromAHugeTempDirKeepsGivenNames)
{
    const long long bound = maxFileNameLength(std::wstring(300, L'd'));
    EXPECT_EQ(bound, -70);
    LogCapture quiet(LOG_ERROR);
    EXPECT_EQ(uniqueNames({L"x.txt", L"x.txt"}, bound), (std::vector<std::wstring>{L"x.txt", L"x.txt"}));
}

TEST(UniqueFileNames, NamesDifferingOnlyInForbiddenCharactersStayEqual)
{
    // Checked before sanitising, remembered after: the shipped asymmetry.
    EXPECT_EQ(uniqueNames({L"a?.txt", L"a?.txt", L"a .txt", L"a .txt"}, 200),
              (std::vector<std::wstring>{L"a .txt", L"a .txt", L"a  (1).txt", L"a  (2).txt"}));
}

TEST(UniqueFileNames, AfterNumber9998TheNext9999IsTakenUnchecked)
{
    std::vector<std::wstring> given(10002, L"n");
    const auto names = uniqueNames(given, 200);
    EXPECT_EQ(names[0], L"n");
    EXPECT_EQ(names[9998], L"n (9998)");
    EXPECT_EQ(names[9999], L"n (9999)");
    EXPECT_EQ(names[10000], L"n (9999)");
    EXPECT_EQ(names[10001], L"n (9999)");
}

TEST(UniqueFileNames, SameNamesAsThePlainRetryLoopOnCraftedNames)
{
    LogCapture quiet(LOG_ERROR);
    const std::vector<std::wstring> given = {
        L"a.txt", L"a (1).txt", L"a.txt", L"sub\\a.txt", L"other/a.txt", L"a.txt", L"a?.txt", L"a?.txt",
        L"a .txt", L"a (3).txt", L"a.txt", L"C:a.txt", L"a:txt", L"a:txt", L"a txt", L"???", L"???",
        L"A very long subject line of a mail.msg", L"A very long subject line of another mail.msg",
        L"A very long subject li (1).msg", L"A very long subject line of a mail.msg", L".msg", L".msg",
        L"x", L"x", L"x (1)", std::wstring(258, L'z') + L".b", std::wstring(258, L'z') + L".b"};
    for (long long bound : {-5LL, 0LL, 3LL, 8LL, 12LL, 30LL, 230LL})
        EXPECT_EQ(withoutCounters(uniqueNames(given, bound)), withoutCounters(plainRetryLoop(given, bound)))
            << "bound " << bound;
}

TEST(UniqueFileNames, SameNamesAsThePlainRetryLoopOnRandomNames)
{
    LogCapture quiet(LOG_ERROR);
    std::mt19937 random(20240305);
    const std::wstring alphabet = L"ab ?:.()1";
    for (int round = 0; round < 60; ++round) {
        std::vector<std::wstring> given;
        const size_t count = 1 + random() % 60;
        for (size_t i = 0; i < count; ++i) {
            std::wstring name;
            const size_t length = random() % 9;
            for (size_t c = 0; c < length; ++c)
                name.push_back(alphabet[random() % alphabet.size()]);
            given.push_back(name);
        }
        const long long bound = 2 + static_cast<long long>(random() % 12);
        ASSERT_EQ(withoutCounters(uniqueNames(given, bound)), withoutCounters(plainRetryLoop(given, bound)))
            << "round " << round << ", bound " << bound;
    }
}

TEST(UniqueFileNames, ManyLongNamesSharingTheirCutStemMatchThePlainLoop)
{
    // Different given names that the length bound cuts to one stem share
    // their numbered candidates.
    std::vector<std::wstring> given;
    for (int i = 0; i < 300; ++i)
        given.push_back(L"Quarterly report for the board " + std::to_wstring(i % 7) + L".msg");
    EXPECT_EQ(uniqueNames(given, 30), plainRetryLoop(given, 30));
}

TEST(JoinFolderAndName, AddsOneBackslashOnlyWhereNeeded)
{
    EXPECT_EQ(joinFolderAndName(L"C:\\T\\1700000000", L"a.txt"), L"C:\\T\\1700000000\\a.txt");
    EXPECT_EQ(joinFolderAndName(L"C:\\T\\", L"a.txt"), L"C:\\T\\a.txt");
    EXPECT_EQ(joinFolderAndName(L"", L"a.txt"), L"a.txt");
}

} // namespace
