// Reading an Outlook-shaped data object: the descriptor (wide, or ANSI made
// wide), the unique safe paths in the drag folder, and one drag item per file
// from its "FileContents".
#include "reader_fixture.h"

#include "core/log.h"
#include "items/attachment_item.h"
#include "items/mail_item.h"

#include <cstring>

namespace {

using Microsoft::WRL::ComPtr;

std::vector<OutlookEntry> attachmentsNamed(std::initializer_list<const wchar_t*> names)
{
    std::vector<OutlookEntry> entries;
    for (const wchar_t* name : names)
        entries.push_back(OutlookEntry::attachment(name, "bytes of " + std::to_string(entries.size())));
    return entries;
}

OutlookDataObjectOptions onlyDescriptors(DescriptorForms forms)
{
    OutlookDataObjectOptions options;
    options.descriptors = forms;
    return options;
}

// Every header field set, and to a different value per entry.
FILEDESCRIPTORW distinctFields(DWORD seed)
{
    FILEDESCRIPTORW fields{};
    fields.dwFlags = FD_ATTRIBUTES | FD_CREATETIME | FD_ACCESSTIME | FD_WRITESTIME | FD_FILESIZE | FD_PROGRESSUI;
    fields.clsid = GUID{0x11111111u + seed, 0x2222, 0x3333, {4, 5, 6, 7, 8, 9, 10, static_cast<BYTE>(seed)}};
    fields.sizel = SIZEL{static_cast<LONG>(seed * 3), 77};
    fields.pointl = POINTL{-5, static_cast<LONG>(seed)};
    fields.dwFileAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE;
    fields.ftCreationTime = FILETIME{0x01020304u + seed, 0x01D9A0B0u};
    fields.ftLastAccessTime = FILETIME{0x05060708u + seed, 0x01D9A0B1u};
    fields.ftLastWriteTime = FILETIME{0x090A0B0Cu + seed, 0x01D9A0B2u};
    fields.nFileSizeHigh = seed;
    fields.nFileSizeLow = 0xDEADBEEFu - seed;
    return fields;
}

TEST_F(ReaderTest, WideDescriptorNamesBecomeUniqueSafePathsInTheDragFolder)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"a.txt", L"a.txt", L"Re: offer?.msg", L"a.txt"}));
    EXPECT_EQ(pathsOf(object.Get(), folder.path()),
              inFolder({L"a.txt", L"a (1).txt", L"Re  offer .msg", L"a (2).txt"}));
}

TEST_F(ReaderTest, NameOfOnlyForbiddenCharactersBecomesTempUnk)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"???"}));
    const auto paths = pathsOf(object.Get(), folder.path());
    ASSERT_EQ(paths.size(), 1u);
    const std::wstring name = paths[0].substr(folder.path().size() + 1);
    ASSERT_EQ(name.rfind(L"temp", 0), 0u) << std::string(name.begin(), name.end());
    ASSERT_EQ(name.substr(name.size() - 4), L".unk");
    const unsigned number = std::stoul(name.substr(4, name.size() - 8));
    EXPECT_GE(number, 1u);
    EXPECT_EQ(sanitizeFileName(L"?"), L"temp" + std::to_wstring(number + 1) + L".unk");
}

TEST_F(ReaderTest, LongTempFolderCutsTheSubjectToThirtyCharacters)
{
    const std::wstring tempDir = L"C:\\" + std::wstring(197, L'd');
    ASSERT_EQ(tempDir.size(), 200u);
    auto object = OutlookDataObject::create(attachmentsNamed({L"A very long subject line of a mail.msg"}));
    EXPECT_EQ(pathsOf(object.Get(), tempDir), std::vector<std::wstring>{tempDir + L"\\A very long subject li (1).msg"});
}

TEST_F(ReaderTest, TempFolderEndingInABackslashGetsNoSecondOne)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"x.txt"}));
    EXPECT_EQ(pathsOf(object.Get(), L"C:\\T\\"), std::vector<std::wstring>{L"C:\\T\\x.txt"});
}

TEST_F(ReaderTest, WideDescriptorIsCopiedByteForByteIntoABlockOfTheCaller)
{
    std::vector<OutlookEntry> entries = attachmentsNamed({L"one.pdf", L"two.pdf"});
    entries[0].fields = distinctFields(1);
    entries[1].fields = distinctFields(2);
    auto object = OutlookDataObject::create(entries, onlyDescriptors(DescriptorForms::WideOnly));
    UniqueGlobal block(getFileGroupDescriptorFromDataObject(object.Get()));
    ASSERT_TRUE(block);
    EXPECT_EQ(globalBytes(block.get()), object->wideDescriptorBlock());
}

TEST_F(ReaderTest, WideDescriptorIsPreferredAndTheAnsiOneNotAskedFor)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"a.txt"}));
    UniqueGlobal block(getFileGroupDescriptorFromDataObject(object.Get()));
    ASSERT_TRUE(block);
    EXPECT_EQ(object->getDataCalls(L"FileGroupDescriptorW"), 1u);
    EXPECT_EQ(object->getDataCalls(L"FileGroupDescriptor"), 0u);
}

TEST_F(ReaderTest, AnsiOnlyGivesTheSamePathsAsWide)
{
    const auto entries = attachmentsNamed({L"Report.pdf", L"Report.pdf", L"Re: offer?.msg", L"sub\\x.txt",
                                           L"A very long subject line of a mail.msg"});
    auto wide = OutlookDataObject::create(entries, onlyDescriptors(DescriptorForms::WideOnly));
    auto ansi = OutlookDataObject::create(entries, onlyDescriptors(DescriptorForms::AnsiOnly));
    const std::wstring tempDir = folder.path() + L"\\" + std::wstring(200 - folder.path().size() - 1, L'd');
    const auto widePaths = pathsOf(wide.Get(), tempDir);
    EXPECT_EQ(widePaths.size(), 5u);
    EXPECT_EQ(pathsOf(ansi.Get(), tempDir), widePaths);
    EXPECT_EQ(ansi->getDataCalls(L"FileGroupDescriptorW"), 1u);
    EXPECT_EQ(ansi->getDataCalls(L"FileGroupDescriptor"), 1u);
}

TEST_F(ReaderTest, AnsiDescriptorKeepsFlagsSizesAndTimesByteForByte)
{
    std::vector<OutlookEntry> entries = attachmentsNamed({L"one.pdf", L"two.pdf", L"three.pdf"});
    for (DWORD i = 0; i < entries.size(); ++i)
        entries[i].fields = distinctFields(i + 1);
    auto ansi = OutlookDataObject::create(entries, onlyDescriptors(DescriptorForms::AnsiOnly));
    auto wide = OutlookDataObject::create(entries, onlyDescriptors(DescriptorForms::WideOnly));

    UniqueGlobal block(getFileGroupDescriptorFromDataObject(ansi.Get()));
    ASSERT_TRUE(block);
    const std::string converted = globalBytes(block.get());
    // cItems × 592 + 596: room for one spare descriptor.
    ASSERT_EQ(converted.size(), 3 * sizeof(FILEDESCRIPTORW) + sizeof(FILEGROUPDESCRIPTORW));
    const std::string& offered = ansi->ansiDescriptorBlock();
    EXPECT_EQ(converted.substr(0, 4), offered.substr(0, 4));
    for (size_t i = 0; i < entries.size(); ++i) {
        const size_t header = offsetof(FILEDESCRIPTORW, cFileName);
        EXPECT_EQ(converted.substr(4 + i * sizeof(FILEDESCRIPTORW), header),
                  offered.substr(4 + i * sizeof(FILEDESCRIPTORA), header))
            << "descriptor " << i;
    }
    // Apart from the spare descriptor, it is the wide block Outlook would have given.
    EXPECT_EQ(converted.substr(0, wide->wideDescriptorBlock().size()), wide->wideDescriptorBlock());
}

TEST_F(ReaderTest, NoDescriptorMeansNoItemsAndSuccess)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"a.txt"}), onlyDescriptors(DescriptorForms::None));
    EXPECT_EQ(getFileGroupDescriptorFromDataObject(object.Get()), nullptr);
    DDItems items;
    EXPECT_EQ(createDDItems(object.Get(), items, folder.path(), settings), S_OK);
    EXPECT_TRUE(items.empty());
    EXPECT_EQ(object->getDataCalls(L"FileContents"), 0u);

    EXPECT_EQ(getFileGroupDescriptorFromDataObject(nullptr), nullptr);
    EXPECT_EQ(createDDItems(nullptr, items, folder.path(), settings), S_OK);
    EXPECT_TRUE(items.empty());
}

TEST_F(ReaderTest, ZeroDescriptorsGiveNoPathsNoItemsAndSuccess)
{
    auto object = OutlookDataObject::create({});
    EXPECT_TRUE(pathsOf(object.Get(), folder.path()).empty());
    DDItems items;
    EXPECT_EQ(createDDItems(object.Get(), items, folder.path(), settings), S_OK);
    EXPECT_TRUE(items.empty());
    EXPECT_EQ(object->getDataCalls(L"FileContents"), 0u);
}

TEST_F(ReaderTest, StorageBecomesAMailItemAndStreamAnAttachmentInOneDrag)
{
    auto object = OutlookDataObject::create({OutlookEntry::mailItem(L"Re: offer.msg", mailWithSubject(L"Re: offer")),
                                             OutlookEntry::attachment(L"offer.pdf", "%PDF-1.4 offer"),
                                             OutlookEntry::mailItem(L"Hello.msg", mailWithSubject(L"Hello"))});
    DDItems items;
    ASSERT_EQ(createDDItems(object.Get(), items, folder.path(), settings), S_OK);
    ASSERT_EQ(items.size(), 3u);
    EXPECT_NE(dynamic_cast<MailItem*>(items.at(0)), nullptr);
    EXPECT_NE(dynamic_cast<AttachmentItem*>(items.at(1)), nullptr);
    EXPECT_NE(dynamic_cast<MailItem*>(items.at(2)), nullptr);
    EXPECT_EQ(items.at(0)->fileName(), folder.file(L"Re  offer.msg"));
    EXPECT_EQ(items.at(1)->fileName(), folder.file(L"offer.pdf"));
    EXPECT_EQ(items.at(2)->fileName(), folder.file(L"Hello.msg"));
    EXPECT_EQ(object->contentsRequests(), (std::vector<LONG>{0, 1, 2}));
    for (size_t i = 0; i < items.size(); ++i)
        EXPECT_FALSE(items.at(i)->isSaved());
    // Nothing is written while the items are made.
    EXPECT_FALSE(fileExists(folder.file(L"offer.pdf")));
}

TEST_F(ReaderTest, AttachmentItemKeepsOutlooksStreamAndSavesItsBytes)
{
    auto object = OutlookDataObject::create({OutlookEntry::attachment(L"data.bin", std::string("\0\x01\xff rest", 8))});
    DDItems items;
    ASSERT_EQ(createDDItems(object.Get(), items, folder.path(), settings), S_OK);
    ASSERT_EQ(items.size(), 1u);
    object.Reset(); // the item holds its own reference to the stream
    ASSERT_EQ(items.save(), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"data.bin")), std::string("\0\x01\xff rest", 8));
}

TEST_F(ReaderTest, ItemsAreAppendedAfterThoseAlreadyInTheList)
{
    DDItems items;
    auto first = OutlookDataObject::create(attachmentsNamed({L"a.txt"}));
    auto second = OutlookDataObject::create(attachmentsNamed({L"a.txt", L"b.txt"}));
    ASSERT_EQ(createDDItems(first.Get(), items, folder.path(), settings), S_OK);
    ASSERT_EQ(createDDItems(second.Get(), items, folder.path(), settings), S_OK);
    ASSERT_EQ(items.size(), 3u);
    // Uniqueness holds within one descriptor block, not across calls.
    EXPECT_EQ(items.at(0)->fileName(), folder.file(L"a.txt"));
    EXPECT_EQ(items.at(1)->fileName(), folder.file(L"a.txt"));
    EXPECT_EQ(items.at(2)->fileName(), folder.file(L"b.txt"));
}

TEST_F(ReaderTest, ItemForOneIndexReadsOnlyThatIndex)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"a.txt", L"b.txt", L"c.txt"}));
    std::unique_ptr<DDItem> item;
    EXPECT_EQ(createDDItemForFile(object.Get(), 2, folder.file(L"c.txt"), item, settings), S_OK);
    ASSERT_NE(dynamic_cast<AttachmentItem*>(item.get()), nullptr);
    EXPECT_EQ(item->fileName(), folder.file(L"c.txt"));
    EXPECT_EQ(object->contentsRequests(), std::vector<LONG>{2});

    EXPECT_EQ(createDDItemForFile(object.Get(), 3, folder.file(L"d.txt"), item, settings), DV_E_LINDEX);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(createDDItemForFile(nullptr, 0, folder.file(L"a.txt"), item, settings), E_FAIL);
    EXPECT_EQ(item, nullptr);
}

TEST_F(ReaderTest, OutlookDataIsAvailableWithEitherDescriptor)
{
    for (DescriptorForms forms : {DescriptorForms::Both, DescriptorForms::WideOnly, DescriptorForms::AnsiOnly}) {
        auto object = OutlookDataObject::create(attachmentsNamed({L"a.txt"}), onlyDescriptors(forms));
        EXPECT_TRUE(isOutlookDataAvail(object.Get())) << static_cast<int>(forms);
        // Asking does not fetch anything.
        EXPECT_EQ(object->getDataCalls(L"FileGroupDescriptorW") + object->getDataCalls(L"FileGroupDescriptor"), 0u);
    }
    auto none = OutlookDataObject::create(attachmentsNamed({L"a.txt"}), onlyDescriptors(DescriptorForms::None));
    EXPECT_FALSE(isOutlookDataAvail(none.Get()));
    EXPECT_FALSE(isOutlookDataAvail(nullptr));
}

TEST_F(ReaderTest, TheReadingIsTracedOnEntryAndExit)
{
    auto object = OutlookDataObject::create(attachmentsNamed({L"a.txt", L"a.txt"}));
    LogCapture log(LOG_DEBUG);
    DDItems items;
    ASSERT_EQ(createDDItems(object.Get(), items, folder.path(), settings), S_OK);
    const std::string text = log.contents();
    for (const char* expected :
         {"DataObjectHelper:", "createDDItems(dataObject=", "getFileGroupDescriptorFromDataObject(",
          ")getFileGroupDescriptorFromDataObject=", "getFileNamesFromGroupDescr(", "insert fname=a.txt",
          "fname already exists or fname too long", "try fname=a (1).txt", "insert fname=a (1).txt",
          "saveFileContentsFromDataObject(", "createDDItemForFile(", ")createDDItemForFile=0", ")createDDItems=0"})
        EXPECT_NE(text.find(expected), std::string::npos) << expected;
}

} // namespace
