// The central drop-handling routine with Outlook-shaped data objects: real
// drag folders and files, the limits and switches of the settings, and
// Outlook's own object coming back whenever something fails.
#include "filedrop/file_drop.h"
#include "filedrop/file_drop_state.h"

#include "core/globals.h"
#include "core/log.h"
#include "common/strings.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/format_etc.h"
#include "dataobject/drop_target_tracker.h"
#include "core/reg_util.h"
#include "support/environment_switch.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/scratch.h"

#include "drop_check.h"
#include "file_times.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <utility>

namespace {

using namespace FileDrop;
using Microsoft::WRL::ComPtr;

MsgContent mail(const std::wstring& subject, const std::wstring& sender)
{
    MsgContent content;
    content.subject = subject;
    content.senderName = sender;
    content.senderAddress = L"ann.lee@example.com";
    content.senderAddrType = L"SMTP";
    content.deliveryTime = utcFileTime(2023, 4, 7, 9, 30, 0);
    content.body = L"Body of " + subject;
    return content;
}

std::vector<OutlookEntry> twoMailsAndAnAttachment()
{
    return {OutlookEntry::mailItem(L"Hello.msg", mail(L"Hello", L"Ann Lee")),
            OutlookEntry::mailItem(L"Offer.msg", mail(L"Offer", L"Bob Stone")),
            OutlookEntry::attachment(L"price list.pdf", std::string("%PDF-1.4\n\0\x01\x02 price list", 22))};
}

std::vector<OutlookEntry> attachments(int count)
{
    std::vector<OutlookEntry> entries;
    for (int i = 0; i < count; ++i)
        entries.push_back(OutlookEntry::attachment(L"file" + std::to_wstring(i) + L".txt",
                                                   "contents of file " + std::to_string(i)));
    return entries;
}

class HandleDataObject : public testing::Test {
protected:
    void SetUp() override
    {
        RegisterDataFormats();
        state.tempDir = folder.file(L"Korvane");
        ASSERT_TRUE(CreateDirectoryW(state.tempDir.c_str(), nullptr));
    }

    // MaxFiles is read when the settings are made, so they come after it.
    Globals& settings(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> values = {})
    {
        for (const auto& [name, value] : values)
            EXPECT_TRUE(RegUtil::setRegValue(keys.userPath(name), L"", value));
        settings_ = std::make_unique<Globals>(keys.company, keys.product());
        return *settings_;
    }

    HRESULT handle(IDataObject* outlook, bool saveOnBeginDrag, Globals& globals)
    {
        const ULONGLONG before = secondsSinceEpoch();
        const HRESULT hr =
            internalHandleDataObject(state, outlook, outlook, items, saveOnBeginDrag, result, globals);
        const ULONGLONG after = secondsSinceEpoch();
        // The drag folder is named by the clock of the call.
        for (const std::wstring& folderPath : subfoldersOf(state.tempDir)) {
            const ULONGLONG seconds = std::stoull(fileNameOfPath(folderPath));
            if (seconds >= before && seconds <= after)
                dragFolder = folderPath;
        }
        return hr;
    }

    std::wstring fileInDrag(const std::wstring& name) const { return dragFolder + L"\\" + name; }

    ScratchFolder folder;
    TestSettingsKeys keys;
    std::unique_ptr<Globals> settings_;
    FileDropState state;
    std::shared_ptr<DDItems> items = std::make_shared<DDItems>();
    ComPtr<IDataObject> result;
    std::wstring dragFolder;
};

TEST_F(HandleDataObject, SaveOnBeginDragLeavesCompleteFilesWhenItReturns)
{
    auto outlook = OutlookDataObject::create(twoMailsAndAnAttachment());

    ASSERT_EQ(handle(outlook.Get(), true, settings()), S_OK);

    ASSERT_FALSE(dragFolder.empty()) << "a drag folder named by the seconds since the epoch";
    EXPECT_EQ(entriesOf(dragFolder), (std::vector<std::wstring>{L"Hello.msg", L"Offer.msg", L"price list.pdf"}));
    EXPECT_EQ(readBytes(fileInDrag(L"price list.pdf")), std::string("%PDF-1.4\n\0\x01\x02 price list", 22));
    std::wstring subject;
    ASSERT_EQ(subjectOfMsgFile(fileInDrag(L"Hello.msg"), subject), S_OK);
    EXPECT_EQ(subject, L"Hello");
    ASSERT_EQ(subjectOfMsgFile(fileInDrag(L"Offer.msg"), subject), S_OK);
    EXPECT_EQ(subject, L"Offer");
    ASSERT_EQ(items->size(), 3u);
    for (size_t i = 0; i < items->size(); ++i)
        EXPECT_TRUE(items->at(i)->isSaved());
}

TEST_F(HandleDataObject, WithoutSaveOnBeginDragFilesAreOnlyPrepared)
{
    auto outlook = OutlookDataObject::create(twoMailsAndAnAttachment());

    ASSERT_EQ(handle(outlook.Get(), false, settings()), S_OK);

    ASSERT_FALSE(dragFolder.empty());
    EXPECT_EQ(fileSize(fileInDrag(L"price list.pdf")), 22u) << "an attachment gets its final size";
    EXPECT_EQ(readBytes(fileInDrag(L"price list.pdf")), std::string(22, '\0')) << "but not its contents yet";
    EXPECT_EQ(fileSize(fileInDrag(L"Hello.msg")), 1u) << "a mail is one byte until it is saved";
    EXPECT_EQ(fileSize(fileInDrag(L"Offer.msg")), 1u);
    for (size_t i = 0; i < items->size(); ++i)
        EXPECT_FALSE(items->at(i)->isSaved());

    // The drop saves them later, over the prepared files.
    ASSERT_EQ(items->save(), S_OK);
    EXPECT_EQ(readBytes(fileInDrag(L"price list.pdf")), std::string("%PDF-1.4\n\0\x01\x02 price list", 22));
    std::wstring subject;
    EXPECT_EQ(subjectOfMsgFile(fileInDrag(L"Offer.msg"), subject), S_OK);
    EXPECT_EQ(subject, L"Offer");
}

TEST_F(HandleDataObject, NewObjectOffersTheFilesInItemOrderAndKeepsOutlooksPrivateFormats)
{
    auto outlook = OutlookDataObject::create(twoMailsAndAnAttachment());

    ASSERT_EQ(handle(outlook.Get(), true, settings()), S_OK);

    ASSERT_TRUE(result);
    EXPECT_NE(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_EQ(hdropPathsOf(result.Get()),
              (std::vector<std::wstring>{fileInDrag(L"Hello.msg"), fileInDrag(L"Offer.msg"),
                                         fileInDrag(L"price list.pdf")}));
    EXPECT_TRUE(offersFormat(result.Get(), clipboardFormats().fileGroupDescriptorW));
    EXPECT_TRUE(offersFormat(result.Get(), clipboardFormats().fileNameW));
    EXPECT_TRUE(offersFormat(result.Get(), clipboardFormats().renPrivateMessages))
        << "Outlook's own formats stay behind the new ones";
}

TEST_F(HandleDataObject, NegativeMaxFilesExportsAnyNumber)
{
    auto outlook = OutlookDataObject::create(attachments(12));

    ASSERT_EQ(handle(outlook.Get(), true, settings({{L"MaxFiles", L"-1"}})), S_OK);

    EXPECT_EQ(entriesOf(dragFolder).size(), 12u);
    EXPECT_EQ(hdropPathsOf(result.Get()).size(), 12u);
}

TEST_F(HandleDataObject, MaxFilesExportsADragOfExactlyThatMany)
{
    auto outlook = OutlookDataObject::create(attachments(3));

    ASSERT_EQ(handle(outlook.Get(), true, settings({{L"MaxFiles", L"3"}})), S_OK);

    EXPECT_EQ(entriesOf(dragFolder).size(), 3u);
    EXPECT_EQ(hdropPathsOf(result.Get()).size(), 3u);
}

TEST_F(HandleDataObject, MaxFilesSkipsALargerDragWithOutlooksOwnObject)
{
    auto outlook = OutlookDataObject::create(attachments(4));
    Globals& globals = settings({{L"MaxFiles", L"3"}});
    LogCapture log(LOG_INFO);

    ASSERT_EQ(handle(outlook.Get(), true, globals), S_OK);

    EXPECT_EQ(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_TRUE(entriesOf(dragFolder).empty()) << "no file is written";
    EXPECT_TRUE(items->empty()) << "so the drop has nothing to save either";
    const std::string text = log.contents();
    EXPECT_NE(text.find("maxFiles=3"), std::string::npos);
    EXPECT_NE(text.find("Skip creating HDROP, because more files than maxFiles are selected. #selected=4, "
                        "#maxFiles=3"),
              std::string::npos)
        << text;
}

TEST_F(HandleDataObject, MaxFilesZeroSkipsEvenASingleItem)
{
    auto outlook = OutlookDataObject::create(attachments(1));

    ASSERT_EQ(handle(outlook.Get(), true, settings({{L"MaxFiles", L"0"}})), S_OK);

    EXPECT_EQ(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_TRUE(entriesOf(dragFolder).empty());
}

TEST_F(HandleDataObject, JsonTextDescribesTheItems)
{
    auto outlook = OutlookDataObject::create(twoMailsAndAnAttachment());

    ASSERT_EQ(handle(outlook.Get(), false, settings({{L"TextFormat", L"json"}})), S_OK);

    const std::wstring text = unicodeTextOf(result.Get());
    EXPECT_EQ(text, items->toJson());
    EXPECT_NE(text.find(L"\"fileName\" : \"price list.pdf\""), std::wstring::npos) << text;
    EXPECT_NE(text.find(L"\"subject\" : \"Offer\""), std::wstring::npos) << text;

    // Over the SAP logon pad no text at all is offered or given, ours included.
    dropTargetState().targetName = L"saplogon";
    EXPECT_EQ(unicodeTextOf(result.Get()), L"");
    EXPECT_FALSE(offersFormat(result.Get(), CF_TEXT));
    bool textListed = false;
    forEachFormat(result.Get(), DATADIR_GET,
                  [&](const FORMATETC& format) { textListed |= format.cfFormat == CF_UNICODETEXT; });
    EXPECT_FALSE(textListed);
    resetDropTarget();
}

TEST_F(HandleDataObject, TableTextIsOutlooksOwnText)
{
    const auto entries = twoMailsAndAnAttachment();
    auto outlook = OutlookDataObject::create(entries);

    ASSERT_EQ(handle(outlook.Get(), false, settings({{L"TextFormat", L"table"}})), S_OK);

    EXPECT_EQ(unicodeTextOf(result.Get()), OutlookDataObject::tableText(entries));
}

TEST_F(HandleDataObject, TableTextOfAnObjectWithoutTextAddsNoText)
{
    OutlookDataObjectOptions options;
    options.offerText = false;
    auto outlook = OutlookDataObject::create(twoMailsAndAnAttachment(), options);

    ASSERT_EQ(handle(outlook.Get(), false, settings({{L"TextFormat", L"table"}})), S_OK);

    ASSERT_NE(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_FALSE(offersFormat(result.Get(), CF_UNICODETEXT));
    EXPECT_EQ(hdropPathsOf(result.Get()).size(), 3u);
}

TEST_F(HandleDataObject, TextFormatNoneAddsNoText)
{
    auto outlook = OutlookDataObject::create(twoMailsAndAnAttachment());

    ASSERT_EQ(handle(outlook.Get(), false, settings({{L"TextFormat", L"none"}})), S_OK);

    ASSERT_NE(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_EQ(unicodeTextOf(result.Get()), L"");
}

TEST_F(HandleDataObject, FailingFileContentsGivesBackOutlooksObject)
{
    auto entries = twoMailsAndAnAttachment();
    entries[1].contentsResult = E_FAIL;
    auto outlook = OutlookDataObject::create(entries);

    const HRESULT hr = handle(outlook.Get(), true, settings());

    EXPECT_TRUE(FAILED(hr)) << hr;
    EXPECT_EQ(result.Get(), static_cast<IDataObject*>(outlook.Get()));
}

TEST_F(HandleDataObject, AVanishedTemporaryFolderIsMadeAgain)
{
    ASSERT_TRUE(RemoveDirectoryW(state.tempDir.c_str()));
    auto outlook = OutlookDataObject::create(attachments(2));

    ASSERT_EQ(handle(outlook.Get(), true, settings()), S_OK);

    EXPECT_TRUE(folderExists(state.tempDir));
    EXPECT_EQ(entriesOf(dragFolder).size(), 2u);
}

TEST_F(HandleDataObject, AnUncreatableDragFolderIsLoggedAndTheSaveFailureComesBack)
{
    // A plain file where the temporary folder should be: nothing can be made in it.
    ASSERT_TRUE(RemoveDirectoryW(state.tempDir.c_str()));
    writeBytes(state.tempDir, "not a folder");
    auto outlook = OutlookDataObject::create(attachments(1));
    Globals& globals = settings();
    LogCapture log(LOG_DEBUG);

    const HRESULT hr = handle(outlook.Get(), true, globals);

    EXPECT_TRUE(FAILED(hr)) << hr;
    EXPECT_EQ(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    const std::string text = log.contents();
    EXPECT_NE(text.find("ERROR FileDrop:"), std::string::npos);
    EXPECT_NE(text.find("Cannot create temporary directory=" + wideToUtf8(state.tempDir) + ", error="),
              std::string::npos)
        << text;
}

TEST_F(HandleDataObject, MissingArgumentsLeaveOutlooksObject)
{
    auto outlook = OutlookDataObject::create(attachments(1));
    Globals& globals = settings();

    EXPECT_EQ(internalHandleDataObject(state, nullptr, outlook.Get(), nullptr, true, result, globals), E_INVALIDARG);
    EXPECT_EQ(result.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_EQ(internalHandleDataObject(state, nullptr, nullptr, items, true, result, globals), E_INVALIDARG);
    EXPECT_EQ(result.Get(), nullptr);
    EXPECT_TRUE(subfoldersOf(state.tempDir).empty());
}

TEST_F(HandleDataObject, TracesItsStepsAndTheNewObjectsFormats)
{
    auto outlook = OutlookDataObject::create(attachments(1));
    Globals& globals = settings({{L"TextFormat", L"json"}});
    LogCapture log(LOG_DEBUG);

    ASSERT_EQ(handle(outlook.Get(), false, globals), S_OK);

    const std::string text = log.contents();
    for (const char* line : {"internalHandleDataObject(", "INFO FileDrop:", "maxFiles=-1", "make unique file names",
                             "prepare files", "pDataObjectNew=", "add JSON text", "MyDataObject formats:",
                             ")internalHandleDataObject=0"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST_F(HandleDataObject, SaveOnBeginDragIsTraced)
{
    auto outlook = OutlookDataObject::create(attachments(1));
    Globals& globals = settings();
    LogCapture log(LOG_DEBUG);

    ASSERT_EQ(handle(outlook.Get(), true, globals), S_OK);

    EXPECT_NE(log.contents().find("save on begin drop"), std::string::npos);
}

TEST_F(HandleDataObject, ModuleEntryUsesTheFolderMadeByInit)
{
    EnvironmentSwitch tmp(L"TMP", folder.path().c_str());
    EnvironmentSwitch temp(L"TEMP", folder.path().c_str());
    init();
    auto outlook = OutlookDataObject::create(attachments(1));

    const HRESULT hr = FileDrop::handleDataObject(outlook.Get(), outlook.Get(), items, true, result, settings());
    done();

    ASSERT_EQ(hr, S_OK);
    ASSERT_EQ(items->size(), 1u);
    const std::wstring& path = items->at(0)->fileName();
    EXPECT_EQ(path.rfind(folder.file(L"Korvane\\"), 0), 0u) << testing::PrintToString(path);
    EXPECT_EQ(readBytes(path), "contents of file 0");
    EXPECT_EQ(hdropPathsOf(result.Get()), (std::vector<std::wstring>{path}));
}

} // namespace
