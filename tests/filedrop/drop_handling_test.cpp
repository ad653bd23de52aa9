// The temporary folder and the central drop-handling routine where the end to
// end drags don't reach: a folder that vanished since start-up, a drag that
// carries no files, a call without its item list.
#include "filedrop_fixture.h"

#include "common/com_ptr.h"
#include "dataobject/clipboard_formats.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/data_blocks.h"
#include "support/environment_switch.h"

namespace {

using namespace FileDrop;
using Microsoft::WRL::ComPtr;

TEST_F(FileDropTest, TheTemporaryFolderIsKorvaneInTempAndKeepsWhatIsThere)
{
    for (const bool existing : {false, true}) {
        // GetTempPathW follows TMP, given here with its trailing backslash.
        const EnvironmentSwitch tmp(L"TMP", (folder.path() + L"\\").c_str());
        const EnvironmentSwitch temp(L"TEMP", folder.path().c_str());
        if (existing)
            writeBytes(folder.file(L"Korvane\\earlier.txt"), "earlier");
        std::wstring tempDir;
        initTempDir(tempDir);
        EXPECT_EQ(tempDir, folder.path() + L"\\Korvane");
        EXPECT_TRUE(fileExists(tempDir));
        EXPECT_EQ(readBytes(folder.file(L"Korvane\\earlier.txt")), existing ? "earlier" : "");
    }
}

TEST_F(FileDropTest, HandlingGivesFilesInAFolderOfTheDragOrLeavesOutlooksObject)
{
    struct Case {
        const char* what;
        bool tempDirThere;
        DescriptorForms descriptors;
        bool itemList;
        HRESULT hr;
        bool files;
    };
    const Case cases[] = {
        {"a temporary folder that vanished is made again", false, DescriptorForms::Both, true, S_OK, true},
        {"a drag of no files (an Outlook folder)", true, DescriptorForms::None, true, E_FAIL, false},
        {"a call without its item list", true, DescriptorForms::Both, false, E_INVALIDARG, false},
    };
    RegisterDataFormats();
    Globals& globals = settingsWith(L"MaxFiles", nullptr);
    for (const Case& c : cases) {
        ScratchFolder temp;
        state.tempDir = c.tempDirThere ? temp.path() : temp.file(L"Korvane");
        OutlookDataObjectOptions options;
        options.descriptors = c.descriptors;
        auto outlook = OutlookDataObject::create(
            {OutlookEntry::attachment(L"offer.pdf", "%PDF offer"), OutlookEntry::attachment(L"notes.txt", "notes")},
            options);
        auto items = c.itemList ? std::make_shared<DDItems>() : nullptr;
        ComPtr<IDataObject> result;
        const ULONGLONG before = secondsSinceEpoch();
        EXPECT_EQ(internalHandleDataObject(state, outlook.Get(), outlook.Get(), items, true, result, globals), c.hr)
            << c.what;
        const ULONGLONG after = secondsSinceEpoch();
        EXPECT_EQ(result.Get() == outlook.Get(), !c.files) << c.what;
        if (!c.files)
            continue;
        const std::vector<std::wstring> files = droppedFiles(result.Get());
        ASSERT_EQ(files.size(), 2u);
        // One folder per drag, named by the seconds since 1970 when it began.
        const std::wstring dragFolder = files[0].substr(0, files[0].find_last_of(L'\\'));
        ASSERT_EQ(dragFolder.substr(0, state.tempDir.size() + 1), state.tempDir + L"\\");
        const ULONGLONG seconds = std::stoull(dragFolder.substr(state.tempDir.size() + 1));
        EXPECT_TRUE(seconds >= before && seconds <= after) << seconds;
        EXPECT_EQ(files[1], dragFolder + L"\\notes.txt");
        EXPECT_EQ(readBytes(files[0]), "%PDF offer");
        EXPECT_EQ(readBytes(files[1]), "notes");
    }
}

} // namespace
