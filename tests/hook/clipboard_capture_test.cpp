// The replacement OleSetClipboard against Wine's real OLE clipboard: what a
// paste finds there afterwards (needs a display, as the whole suite has).
#include "hook/drag_entry.h"

#include "hook_test_support.h"

#include "core/log.h"
#include "filedrop/file_drop.h"
#include "e2e_shared/outlook_data_object.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Microsoft::WRL::ComPtr;

class ClipboardCapture : public testing::Test {
protected:
    void SetUp() override
    {
        FileDrop::init();
        settings->setLocked(false);
        settings->setSaveOnBeginDrag(false);
        settings->setTextFormat(L"none");
    }
    void TearDown() override
    {
        g_OleSetClipboard(nullptr);
        FileDrop::done();
    }

    // What a paste would take: the clipboard's object, read as a paste reads it.
    static ComPtr<IDataObject> pasted()
    {
        ComPtr<IDataObject> clipboard;
        EXPECT_EQ(OleGetClipboard(&clipboard), S_OK);
        return clipboard;
    }

    static bool offers(CLIPFORMAT format)
    {
        FORMATETC request{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
        return pasted()->QueryGetData(&request) == S_OK;
    }

    HookSettings settings;
    LogCapture log{LOG_DEBUG};
};

TEST_F(ClipboardCapture, ACopyOfOutlookItemsPutsRealFilesOnTheClipboard)
{
    auto outlook = OutlookDataObject::create(
        {OutlookEntry::attachment(L"offer.pdf", "%PDF-1.4 offer"), OutlookEntry::attachment(L"notes.txt", "notes")});

    EXPECT_EQ(MyOleSetClipboard(outlook.Get()), S_OK);

    EXPECT_EQ(OleIsCurrentClipboard(outlook.Get()), S_FALSE) << "the new object is on the clipboard";
    const std::vector<std::wstring> files = droppedFiles(pasted().Get());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].substr(files[0].size() - 9), L"offer.pdf");
    // Written at the copy: the paste may come after Outlook let go of the items.
    EXPECT_EQ(readBytes(files[0]), "%PDF-1.4 offer");
    EXPECT_EQ(readBytes(files[1]), "notes");
    EXPECT_EQ(outlook->contentsRequests().size(), 2u);
}

TEST_F(ClipboardCapture, EmptyingTheClipboardPassesThrough)
{
    auto outlook = OutlookDataObject::create({OutlookEntry::attachment(L"a.txt", "a")});
    ASSERT_EQ(MyOleSetClipboard(outlook.Get()), S_OK);
    ASSERT_TRUE(offers(CF_HDROP));

    EXPECT_EQ(MyOleSetClipboard(nullptr), S_OK);
    EXPECT_FALSE(offers(CF_HDROP));
    EXPECT_NE(log.contents().find("process default OleSetClipboard"), std::string::npos);
}

TEST_F(ClipboardCapture, WhenNoFilesCanBeMadeOutlooksOwnObjectGoesOnTheClipboard)
{
    OutlookEntry broken = OutlookEntry::attachment(L"locked.txt", "secret");
    broken.contentsResult = STG_E_ACCESSDENIED;
    OutlookDataObjectOptions options;
    options.text = L"locked.txt";
    auto outlook = OutlookDataObject::create({broken}, options);

    EXPECT_EQ(MyOleSetClipboard(outlook.Get()), S_OK);
    EXPECT_EQ(OleIsCurrentClipboard(outlook.Get()), S_OK);
    EXPECT_TRUE(offers(CF_UNICODETEXT)) << "Outlook's text is still there to paste";
    EXPECT_FALSE(offers(CF_HDROP));
}

TEST_F(ClipboardCapture, LockedPutsOutlooksOwnObjectOnTheClipboard)
{
    settings->setLocked(true);
    auto outlook = OutlookDataObject::create({OutlookEntry::attachment(L"a.txt", "a")});

    EXPECT_EQ(MyOleSetClipboard(outlook.Get()), S_OK);
    EXPECT_EQ(OleIsCurrentClipboard(outlook.Get()), S_OK);
    EXPECT_FALSE(offers(CF_HDROP));
    EXPECT_EQ(outlook->contentsRequests().size(), 0u);
}

} // namespace
