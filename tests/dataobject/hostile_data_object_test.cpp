// Data objects that lie: counts beyond their block, names without an end,
// blocks of odd or no size, contents that fail or come in the wrong medium.
// The reader reads only what is there, keeps what it made, and says why.
#include "reader_fixture.h"

#include "core/log.h"
#include "dataobject/file_names.h"
#include "items/attachment_item.h"
#include "items/mail_item.h"

namespace {

std::vector<OutlookEntry> attachments(size_t count)
{
    std::vector<OutlookEntry> entries;
    for (size_t i = 0; i < count; ++i)
        entries.push_back(OutlookEntry::attachment(L"file" + std::to_wstring(i) + L".txt", "contents " + std::to_string(i)));
    return entries;
}

OutlookDataObjectOptions only(DescriptorForms forms)
{
    OutlookDataObjectOptions options;
    options.descriptors = forms;
    return options;
}

class HostileDataObject : public ReaderTest {
protected:
    // Reads the object the way a drag does; the log is kept for the checks.
    HRESULT read(OutlookDataObject* object)
    {
        LogCapture capture(LOG_WARN);
        const HRESULT hr = createDDItems(object, items, folder.path(), settings);
        log = capture.contents();
        return hr;
    }

    DDItems items;
    std::string log;
};

TEST_F(HostileDataObject, CountBeyondTheWideBlockReadsOnlyTheDescriptorsThere)
{
    OutlookDataObjectOptions options = only(DescriptorForms::WideOnly);
    options.declaredCount = 50;
    auto object = OutlookDataObject::create(attachments(2), options);
    EXPECT_EQ(read(object.Get()), S_OK);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items.at(1)->fileName(), folder.file(L"file1.txt"));
    EXPECT_EQ(object->contentsRequests(), (std::vector<LONG>{0, 1}));
    EXPECT_NE(log.find("declares cItems=50 but holds only 2"), std::string::npos);
}

TEST_F(HostileDataObject, HugeCountInTheAnsiBlockReadsOnlyTheDescriptorsThere)
{
    OutlookDataObjectOptions options = only(DescriptorForms::AnsiOnly);
    options.declaredCount = 0xFFFFFFFF;
    auto object = OutlookDataObject::create(attachments(3), options);
    EXPECT_EQ(read(object.Get()), S_OK);
    EXPECT_EQ(items.size(), 3u);
    EXPECT_EQ(object->contentsRequests(), (std::vector<LONG>{0, 1, 2}));
    EXPECT_NE(log.find("declares cItems=4294967295 but holds only 3"), std::string::npos);
}

TEST_F(HostileDataObject, NamesWithoutTerminatorEndAtTheirField)
{
    for (DescriptorForms forms : {DescriptorForms::WideOnly, DescriptorForms::AnsiOnly}) {
        OutlookDataObjectOptions options = only(forms);
        options.namesWithoutNul = true;
        auto object = OutlookDataObject::create(
            {OutlookEntry::attachment(L"first", "1"), OutlookEntry::attachment(L"second.txt", "2")}, options);
        LogCapture capture(LOG_ERROR);
        const auto paths = pathsOf(object.Get(), folder.path());
        ASSERT_EQ(paths.size(), 2u);
        // A 260-unit stem doesn't fit the split's buffers, so only the number
        // is left; the other name's 254-unit extension leaves no room for a
        // number, so it stays as given (260 units) and the save will say so.
        EXPECT_EQ(paths[0], folder.file(L" (1)"));
        EXPECT_EQ(paths[1], folder.file(L"second.txt" + std::wstring(250, L'x')));
        EXPECT_NE(capture.contents().find("ERROR path too long for file name=second"), std::string::npos);
    }
}

TEST_F(HostileDataObject, AnsiBlockOfOddSizeLosesOnlyThePartialDescriptor)
{
    OutlookDataObjectOptions options = only(DescriptorForms::AnsiOnly);
    options.ansiBlockSize = 4 + sizeof(FILEDESCRIPTORA) + 101;
    auto object = OutlookDataObject::create(attachments(2), options);
    EXPECT_EQ(read(object.Get()), S_OK);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items.at(0)->fileName(), folder.file(L"file0.txt"));
    EXPECT_EQ(object->contentsRequests(), std::vector<LONG>{0});
}

TEST_F(HostileDataObject, BlocksTooShortForTheirCountGiveNoItems)
{
    struct Case {
        DescriptorForms forms;
        size_t size;
    };
    for (const Case& shortBlock : {Case{DescriptorForms::WideOnly, 3}, Case{DescriptorForms::AnsiOnly, 2},
                                   Case{DescriptorForms::WideOnly, 0}, Case{DescriptorForms::AnsiOnly, 0}}) {
        OutlookDataObjectOptions options = only(shortBlock.forms);
        options.wideBlockSize = shortBlock.size;
        options.ansiBlockSize = shortBlock.size;
        auto object = OutlookDataObject::create(attachments(2), options);
        DDItems shortItems;
        LogCapture quiet(LOG_ERROR);
        EXPECT_EQ(createDDItems(object.Get(), shortItems, folder.path(), settings), S_OK);
        EXPECT_TRUE(shortItems.empty());
        EXPECT_TRUE(object->contentsRequests().empty());
    }
}

TEST_F(HostileDataObject, FailingContentsKeepTheItemsBeforeAndPassTheFailureUp)
{
    std::vector<OutlookEntry> entries = attachments(4);
    entries[2].contentsResult = STG_E_READFAULT;
    auto object = OutlookDataObject::create(entries);
    EXPECT_EQ(read(object.Get()), STG_E_READFAULT);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items.at(1)->fileName(), folder.file(L"file1.txt"));
    EXPECT_EQ(object->contentsRequests(), (std::vector<LONG>{0, 1, 2}));
    EXPECT_NE(log.find("FileContents of index 2 failed"), std::string::npos);
}

TEST_F(HostileDataObject, ContentsInAnUnexpectedMediumAreSkippedAndTheRestRead)
{
    std::vector<OutlookEntry> entries = attachments(3);
    entries[0].contentsAsHGlobal = true;
    entries[1] = OutlookEntry::mailItem(L"mail.msg", mailWithSubject(L"mail"));
    auto object = OutlookDataObject::create(entries);
    EXPECT_EQ(read(object.Get()), S_OK);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_NE(dynamic_cast<MailItem*>(items.at(0)), nullptr);
    EXPECT_EQ(items.at(0)->fileName(), folder.file(L"mail.msg"));
    EXPECT_NE(dynamic_cast<AttachmentItem*>(items.at(1)), nullptr);
    EXPECT_EQ(items.at(1)->fileName(), folder.file(L"file2.txt"));
    EXPECT_NE(log.find("FileContents of index 0 came as tymed=1"), std::string::npos);
}

TEST_F(HostileDataObject, ContentsWithAnotherSuccessCodeGiveNoItemButTheRestIsRead)
{
    std::vector<OutlookEntry> entries = attachments(2);
    entries[0].contentsResult = S_FALSE;
    auto object = OutlookDataObject::create(entries);
    EXPECT_EQ(read(object.Get()), S_OK);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items.at(0)->fileName(), folder.file(L"file1.txt"));

    std::unique_ptr<DDItem> item;
    EXPECT_EQ(createDDItemForFile(object.Get(), 0, folder.file(L"x"), item, settings), S_FALSE);
    EXPECT_EQ(item, nullptr);
}

TEST_F(HostileDataObject, StreamWhoseStatClaimsMoreStillSavesItsRealBytes)
{
    std::vector<OutlookEntry> entries = attachments(1);
    entries[0].reportedStreamSize = 1 << 20;
    auto object = OutlookDataObject::create(entries);
    EXPECT_EQ(read(object.Get()), S_OK);
    ASSERT_EQ(items.size(), 1u);
    LogCapture quiet(LOG_ERROR);
    items.save();
    EXPECT_EQ(readBytes(folder.file(L"file0.txt")), "contents 0");
}

} // namespace
