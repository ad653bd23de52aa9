// Reading Outlook's data object: descriptor blocks that lie (counts past the
// block, names without an end, odd sizes), contents that fail, and the file
// names the drag folder gets: safe, unique, within the length bound.
#include "dataobject_fixture.h"

#include "dataobject/data_object_reader.h"
#include "dataobject/file_names.h"

#include <functional>
#include <random>
#include <set>

namespace {

std::wstring withoutNul(const std::wstring& name)
{
    return name + std::wstring(260 - name.size(), L'x');
}

TEST_F(DataObjectTest, HostileDescriptorsGiveTheItemsThatAreThereAndNoMore)
{
    using Entries = std::vector<OutlookEntry>;
    struct Case {
        const char* what;
        DescriptorForms forms;
        std::function<void(Entries&, OutlookDataObjectOptions&)> change;
        std::vector<std::wstring> names; // of the items made, in the drag folder
        HRESULT hr = S_OK;
        const char* logged = nullptr;
    };
    const std::vector<std::wstring> all{L"file0.txt", L"file1.txt", L"file2.txt"};
    const Case cases[] = {
        {"wide", DescriptorForms::WideOnly, {}, all},
        {"ANSI only, names in the ANSI code page", DescriptorForms::AnsiOnly,
         [](Entries& e, OutlookDataObjectOptions&) { e[1].fileName = L"\u00c4rger \u00e9t\u00e9.txt"; },
         {L"file0.txt", L"\u00c4rger \u00e9t\u00e9.txt", L"file2.txt"}},
        {"a count past the wide block", DescriptorForms::WideOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.declaredCount = 50; }, all, S_OK,
         "declares cItems=50 but holds only 3"},
        {"a huge count in the ANSI block", DescriptorForms::AnsiOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.declaredCount = 0xFFFFFFFF; }, all, S_OK,
         "declares cItems=4294967295 but holds only 3"},
        {"wide names without NUL end at their field", DescriptorForms::WideOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.namesWithoutNul = true; },
         {withoutNul(L"file0.txt"), withoutNul(L"file1.txt"), withoutNul(L"file2.txt")}, S_OK,
         "ERROR path too long for file name=file0"},
        {"ANSI names without NUL end at their field", DescriptorForms::AnsiOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.namesWithoutNul = true; },
         {withoutNul(L"file0.txt"), withoutNul(L"file1.txt"), withoutNul(L"file2.txt")}},
        {"an ANSI block of odd size loses the partial descriptor", DescriptorForms::AnsiOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.ansiBlockSize = 4 + sizeof(FILEDESCRIPTORA) + 101; },
         {L"file0.txt"}},
        {"a wide block shorter than its count", DescriptorForms::WideOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.wideBlockSize = 3; }, {}},
        {"an empty ANSI block", DescriptorForms::AnsiOnly,
         [](Entries&, OutlookDataObjectOptions& o) { o.ansiBlockSize = 0; }, {}},
        {"no descriptor at all", DescriptorForms::None, {}, {}},
        {"failing contents keep the items before", DescriptorForms::Both,
         [](Entries& e, OutlookDataObjectOptions&) { e[2].contentsResult = STG_E_READFAULT; },
         {L"file0.txt", L"file1.txt"}, STG_E_READFAULT, "FileContents of index 2 failed"},
        {"contents in another medium are skipped", DescriptorForms::Both,
         [](Entries& e, OutlookDataObjectOptions&) { e[0].contentsAsHGlobal = true; }, {L"file1.txt", L"file2.txt"},
         S_OK, "FileContents of index 0 came as tymed=1"},
        {"contents with another success code are skipped", DescriptorForms::Both,
         [](Entries& e, OutlookDataObjectOptions&) { e[0].contentsResult = S_FALSE; }, {L"file1.txt", L"file2.txt"}},
        {"a stream whose Stat claims more", DescriptorForms::Both,
         [](Entries& e, OutlookDataObjectOptions&) { e[0].reportedStreamSize = 1 << 20; }, all},
    };
    for (const Case& c : cases) {
        Entries entries;
        for (int i = 0; i < 3; ++i)
            entries.push_back(OutlookEntry::attachment(all[i], "contents " + std::to_string(i)));
        OutlookDataObjectOptions options;
        options.descriptors = c.forms;
        if (c.change)
            c.change(entries, options);
        auto object = OutlookDataObject::create(entries, options);
        ScratchFolder drag;
        LogCapture log(LOG_WARN);
        DDItems items;
        EXPECT_EQ(createDDItems(object.Get(), items, drag.path(), settings), c.hr) << c.what;
        std::vector<std::wstring> names;
        for (size_t i = 0; i < items.size(); ++i)
            names.push_back(items.at(i)->fileName().substr(drag.path().size() + 1));
        EXPECT_EQ(names, c.names) << c.what;
        EXPECT_TRUE(!c.logged || log.contents().find(c.logged) != std::string::npos) << c.what << "\n" << log.contents();
        // What was read is saved whole: the stream's real bytes, not what its Stat claims.
        if (!items.empty() && names[0].size() < 20) {
            items.save();
            EXPECT_EQ(readBytes(items.at(0)->fileName()), entries[names[0] == L"file0.txt" ? 0 : 1].bytes) << c.what;
        }
    }
}

// The retry loop as the add-in always ran it: for each name the given name,
// then " (1)", " (2)", ... from the start. The remembered numbering must give
// the same names.
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
            const std::wstring suffix = L" (" + std::to_wstring(n) + L")" + split.extension;
            const long long room = maxLength - static_cast<long long>(suffix.size());
            if (room <= 0) {
                candidate = given;
                continue;
            }
            candidate = split.stem.substr(0, static_cast<size_t>(room)) + suffix;
        }
        taken.insert(candidate = sanitizeFileName(candidate));
        result.push_back(candidate.rfind(L"temp", 0) == 0 && candidate.ends_with(L".unk") ? L"temp#.unk" : candidate);
    }
    return result;
}

std::vector<std::wstring> uniqueNames(const std::vector<std::wstring>& givenNames, long long maxLength)
{
    UniqueFileNames names(maxLength);
    std::vector<std::wstring> result;
    for (const std::wstring& given : givenNames) {
        const std::wstring name = names.next(given);
        // "temp<n>.unk" carries a process-wide counter.
        result.push_back(name.rfind(L"temp", 0) == 0 && name.ends_with(L".unk") ? L"temp#.unk" : name);
    }
    return result;
}

TEST(FileNames, AreSafeAndUniqueWithinTheBoundOfTheTemporaryFolder)
{
    struct Case {
        const char* what;
        size_t tempDirLength; // the bound is 230 less this
        std::vector<std::wstring> given, expected;
    };
    const std::wstring longSubject = L"A very long subject line of a mail.msg";
    const Case cases[] = {
        {"equal names numbered", 30, {L"a.txt", L"a.txt", L"a.txt"}, {L"a.txt", L"a (1).txt", L"a (2).txt"}},
        {"case counts", 30, {L"Report.pdf", L"report.pdf", L"Report.pdf"},
         {L"Report.pdf", L"report.pdf", L"Report (1).pdf"}},
        {"a numbered name already given is skipped", 30, {L"a (1).txt", L"a.txt", L"a.txt", L"a (1).txt"},
         {L"a (1).txt", L"a.txt", L"a (2).txt", L"a (1) (1).txt"}},
        {"forbidden characters: blanks inside, dropped at the ends", 30,
         {L"Re: offer?.msg", L"sub\\x.txt", L"x\\/\"*?<>:|y", L":a:", L"\"quoted\"", L"|a|b|", L" . con .txt. ",
          L"\u00c4rger \u20ac\tx.pdf"},
         {L"Re  offer .msg", L"sub x.txt", L"x         y", L"a", L"quoted", L"a b", L" . con .txt. ",
          L"\u00c4rger \u20ac\tx.pdf"}},
        {"nothing left becomes temp<n>.unk", 30, {L"???", L"", L"<:>|"}, {L"temp#.unk", L"temp#.unk", L"temp#.unk"}},
        {"compared before sanitising, remembered after", 30, {L"a?.txt", L"a?.txt", L"a .txt", L"a .txt"},
         {L"a .txt", L"a .txt", L"a  (1).txt", L"a  (2).txt"}},
        {"too long: cut to exactly the bound", 200, {longSubject, longSubject},
         {L"A very long subject li (1).msg", L"A very long subject li (2).msg"}},
        {"the cut follows the width of the number", 216, std::vector<std::wstring>(11, L"abcdefghij.txt"),
         {L"abcdefghij.txt", L"abcdef (1).txt", L"abcdef (2).txt", L"abcdef (3).txt", L"abcdef (4).txt",
          L"abcdef (5).txt", L"abcdef (6).txt", L"abcdef (7).txt", L"abcdef (8).txt", L"abcdef (9).txt",
          L"abcde (10).txt"}},
        {"no room for a number keeps the given name", 222, {L"index.html", L"a.html", L"a.html"},
         {L"index.html", L"a.html", L"a.html"}},
        {"a temporary folder past the bound keeps the given names", 300, {L"x.txt", L"x.txt"}, {L"x.txt", L"x.txt"}},
    };
    const LogCapture quiet(LOG_ERROR);
    for (const Case& c : cases) {
        const long long bound = maxFileNameLength(std::wstring(c.tempDirLength, L'd'));
        EXPECT_EQ(uniqueNames(c.given, bound), c.expected) << c.what;
    }
    const std::wstring first = sanitizeFileName(L"?");
    EXPECT_EQ(sanitizeFileName(L"*"), L"temp" + std::to_wstring(std::stoul(first.substr(4)) + 1) + L".unk");
    EXPECT_EQ(joinFolderAndName(L"C:\\T\\1700000000", L"a.txt"), L"C:\\T\\1700000000\\a.txt");
    EXPECT_EQ(joinFolderAndName(L"C:\\T\\", L"a.txt"), L"C:\\T\\a.txt");
}

TEST(FileNames, TheRememberedNumberingGivesTheNamesOfThePlainLoop)
{
    const LogCapture quiet(LOG_ERROR);
    std::mt19937 random(20240305);
    const std::wstring alphabet = L"ab ?:.()1";
    for (int round = 0; round < 60; ++round) {
        std::vector<std::wstring> given(1 + random() % 60);
        for (std::wstring& name : given)
            for (size_t length = random() % 9; length > 0; --length)
                name.push_back(alphabet[random() % alphabet.size()]);
        const long long bound = 2 + static_cast<long long>(random() % 12);
        ASSERT_EQ(uniqueNames(given, bound), plainRetryLoop(given, bound)) << "round " << round << ", bound " << bound;
    }
}

} // namespace
