// The add-in's temporary folder, the drag folder names, and switching the
// unit on and off with its cleanup worker.
#include "filedrop/file_drop.h"
#include "filedrop/file_drop_state.h"

#include "core/log.h"
#include "common/strings.h"
#include "dataobject/clipboard_formats.h"
#include "support/environment_switch.h"
#include "support/scratch.h"

#include "file_times.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

using namespace FileDrop;

// GetTempPathW follows TMP; TEMP is switched too so that nothing else wins.
class TemporaryPath {
public:
    explicit TemporaryPath(const std::wstring& path) : tmp_(L"TMP", path.c_str()), temp_(L"TEMP", path.c_str()) {}

private:
    EnvironmentSwitch tmp_;
    EnvironmentSwitch temp_;
};

TEST(TempDir, TemporaryPathWithTrailingBackslashGivesASingleSeparator)
{
    ScratchFolder folder;
    TemporaryPath temp(folder.path() + L"\\");

    std::wstring tempDir;
    initTempDir(tempDir);

    EXPECT_EQ(tempDir, folder.path() + L"\\Korvane");
    EXPECT_EQ(tempDir.find(L"\\\\"), std::wstring::npos);
    EXPECT_TRUE(folderExists(tempDir));
}

TEST(TempDir, TemporaryPathWithoutTrailingBackslashGivesTheSameFolder)
{
    ScratchFolder folder;
    TemporaryPath temp(folder.path());

    std::wstring tempDir;
    initTempDir(tempDir);

    EXPECT_EQ(tempDir, folder.path() + L"\\Korvane");
    EXPECT_TRUE(folderExists(tempDir));
}

TEST(TempDir, AnExistingFolderIsKeptWithItsFilesAndLoggedAsAFailedCreation)
{
    ScratchFolder folder;
    TemporaryPath temp(folder.path());
    ASSERT_TRUE(CreateDirectoryW(folder.file(L"Korvane").c_str(), nullptr));
    writeBytes(folder.file(L"Korvane\\earlier.txt"), "earlier");
    LogCapture log(LOG_DEBUG);

    std::wstring tempDir;
    initTempDir(tempDir);

    EXPECT_EQ(tempDir, folder.file(L"Korvane"));
    EXPECT_EQ(readBytes(folder.file(L"Korvane\\earlier.txt")), "earlier");
    const std::string text = log.contents();
    EXPECT_NE(text.find("CreateDirectory succ=0, err=183"), std::string::npos) << text;
    EXPECT_NE(text.find("tempDir=" + wideToUtf8(tempDir)), std::string::npos);
}

TEST(DragFolder, IsNamedByTheSecondsSinceTheEpoch)
{
    const ULONGLONG before = static_cast<ULONGLONG>(std::time(nullptr));
    const ULONGLONG seconds = secondsSinceEpoch();
    const ULONGLONG after = static_cast<ULONGLONG>(std::time(nullptr));
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, after);

    EXPECT_EQ(dragFolderName(L"C:\\Temp\\Korvane", 1700000000), L"C:\\Temp\\Korvane\\1700000000");
    EXPECT_EQ(dragFolderName(L"C:\\Temp\\Korvane", 7), L"C:\\Temp\\Korvane\\7");
}

TEST(FileDropLifecycle, InitMakesTheFolderAndASwitchedOnAgainWorkerCleansAgain)
{
    ScratchFolder folder;
    TemporaryPath temp(folder.path());
    const std::wstring korvane = folder.file(L"Korvane");

    init();
    EXPECT_EQ(tempDir(), korvane);
    EXPECT_TRUE(folderExists(korvane));
    EXPECT_NE(clipboardFormats().fileContents, 0);
    EXPECT_NE(clipboardFormats().fileGroupDescriptorW, 0);
    done();

    // The process-wide settings keep temporary files for a day by default.
    const std::wstring stale = korvane + L"\\stale.txt";
    writeBytes(stale, "stale");
    ASSERT_TRUE(setFileTimes(stale, minutesAgo(60 * 24 * 400)));

    init();
    for (int i = 0; i < 200 && fileExists(stale); ++i)
        Sleep(50);
    EXPECT_FALSE(fileExists(stale)) << "the worker of the second switch-on made a pass";
    done();
}

} // namespace
