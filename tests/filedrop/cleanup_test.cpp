// The cleanup worker on real folders: files and drag folders whose times are
// set into the past, the read-only bit, and stopping the worker.
#include "filedrop/cleanup.h"

#include "core/globals.h"
#include "core/log.h"
#include "common/strings.h"
#include "core/reg_util.h"
#include "support/injected_fault.h"
#include "support/scratch.h"

#include "file_times.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <memory>
#include <thread>

namespace {

using namespace FileDrop;
using Clock = std::chrono::steady_clock;

class Cleanup : public testing::Test {
protected:
    // The settings read KeepTempFilesMinutes once, when they are made.
    void keepMinutes(const wchar_t* minutes)
    {
        ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"KeepTempFilesMinutes"), L"", minutes));
        settings = std::make_unique<Globals>(keys.company, keys.product());
        state.settings = settings.get();
    }

    std::wstring file(const std::wstring& relative, double ageMinutes, const std::string& bytes = "data")
    {
        const std::wstring path = folder.file(relative);
        writeBytes(path, bytes);
        EXPECT_TRUE(setFileTimes(path, minutesAgo(ageMinutes))) << testing::PrintToString(path);
        return path;
    }

    std::wstring subfolder(const std::wstring& name)
    {
        const std::wstring path = folder.file(name);
        EXPECT_TRUE(CreateDirectoryW(path.c_str(), nullptr));
        return path;
    }

    void age(const std::wstring& path, double minutes) { ASSERT_TRUE(setFileTimes(path, minutesAgo(minutes))); }

    // Waits (at most ten seconds) until the worker's first pass took `path`.
    static bool goneSoon(const std::wstring& path)
    {
        for (int i = 0; i < 200 && fileExists(path); ++i)
            Sleep(50);
        return !fileExists(path);
    }

    ScratchFolder folder;
    TestSettingsKeys keys;
    std::unique_ptr<Globals> settings;
    // Last member: its worker, if any, is stopped before the folder goes.
    FileDropState state;

    void SetUp() override { state.tempDir = folder.path(); }
};

TEST_F(Cleanup, DeletesFilesOlderThanTheLimitAndKeepsYoungerOnes)
{
    keepMinutes(L"60");
    const std::wstring old = file(L"old.txt", 61);
    const std::wstring young = file(L"young.txt", 59);

    cleanupTempDir(state, state.tempDir);

    EXPECT_FALSE(fileExists(old));
    EXPECT_TRUE(fileExists(young));
    EXPECT_EQ(readBytes(young), "data");
}

TEST_F(Cleanup, DeletesAnOldReadOnlyFile)
{
    keepMinutes(L"60");
    const std::wstring old = file(L"saved.msg", 120);
    ASSERT_TRUE(SetFileAttributesW(old.c_str(), FILE_ATTRIBUTE_READONLY));
    ASSERT_FALSE(DeleteFileW(old.c_str())) << "the read-only bit protects the file";

    cleanupTempDir(state, state.tempDir);

    EXPECT_FALSE(fileExists(old));
}

TEST_F(Cleanup, OldDragFolderWithAYoungFileStaysUntilTheFileAges)
{
    keepMinutes(L"60");
    const std::wstring drag = subfolder(L"1700000000");
    const std::wstring old = file(L"1700000000\\old.pdf", 90);
    const std::wstring young = file(L"1700000000\\young.pdf", 10);
    age(drag, 120);

    cleanupTempDir(state, state.tempDir);
    EXPECT_FALSE(fileExists(old));
    EXPECT_TRUE(fileExists(young));
    EXPECT_TRUE(folderExists(drag));

    // Time passes for the file and the folder alike.
    age(young, 90);
    age(drag, 180);
    cleanupTempDir(state, state.tempDir);
    EXPECT_FALSE(fileExists(young));
    EXPECT_FALSE(folderExists(drag));
}

TEST_F(Cleanup, YoungDragFolderIsNotEnteredEvenWithOldFilesInside)
{
    // A drag that is still being filled may hold files whose times Outlook
    // set into the past (mails dated with their delivery time).
    keepMinutes(L"60");
    const std::wstring drag = subfolder(L"1700000001");
    const std::wstring dated = file(L"1700000001\\Hello.msg", 60 * 24 * 30);
    age(drag, 5);

    cleanupTempDir(state, state.tempDir);

    EXPECT_TRUE(fileExists(dated));
    EXPECT_TRUE(folderExists(drag));
}

TEST_F(Cleanup, NestedOldFoldersAreEmptiedAndRemoved)
{
    keepMinutes(L"60");
    const std::wstring outer = subfolder(L"outer");
    const std::wstring inner = subfolder(L"outer\\inner");
    const std::wstring deep = file(L"outer\\inner\\deep.txt", 200);
    age(inner, 200);
    age(outer, 200);

    cleanupTempDir(state, state.tempDir);

    EXPECT_FALSE(fileExists(deep));
    EXPECT_FALSE(folderExists(inner));
    EXPECT_FALSE(folderExists(outer));
    EXPECT_TRUE(folderExists(state.tempDir)) << "the pass never removes the folder it was given";
}

TEST_F(Cleanup, KeepZeroMinutesDeletesEverythingOlderThanThePass)
{
    keepMinutes(L"0");
    const std::wstring drag = subfolder(L"1700000002");
    const std::wstring a = file(L"1700000002\\a.txt", 0.1);
    const std::wstring b = file(L"b.txt", 0.1);
    age(drag, 0.1);

    cleanupTempDir(state, state.tempDir);

    EXPECT_FALSE(fileExists(a));
    EXPECT_FALSE(fileExists(b));
    EXPECT_FALSE(folderExists(drag));
}

TEST_F(Cleanup, AFileWrittenAfterThePassBeganIsKeptWithKeepZero)
{
    keepMinutes(L"0");
    // Ten seconds in the future: younger than any moment of the pass.
    const std::wstring future = file(L"future.txt", -10.0 / 60.0);

    cleanupTempDir(state, state.tempDir);

    EXPECT_TRUE(fileExists(future));
}

TEST_F(Cleanup, MissingFolderIsANoOp)
{
    keepMinutes(L"0");
    LogCapture log(LOG_DEBUG);

    cleanupTempDir(state, folder.file(L"does-not-exist"));

    const std::string text = log.contents();
    EXPECT_NE(text.find("search=" + wideToUtf8(folder.file(L"does-not-exist")) + "\\*.*"), std::string::npos);
    EXPECT_NE(text.find(")cleanupTempDir"), std::string::npos);
}

TEST_F(Cleanup, PassLogsWhatItDeletesAndRemoves)
{
    keepMinutes(L"60");
    const std::wstring drag = subfolder(L"1700000003");
    const std::wstring old = file(L"1700000003\\old.txt", 120);
    age(drag, 120);
    LogCapture log(LOG_DEBUG);

    cleanupTempDir(state, state.tempDir);

    const std::string text = log.contents();
    EXPECT_NE(text.find("dateLimit="), std::string::npos);
    EXPECT_NE(text.find("found fname=old.txt, lastWrite="), std::string::npos);
    EXPECT_NE(text.find("INFO FileDrop:"), std::string::npos);
    EXPECT_NE(text.find("Cleanup directory=" + wideToUtf8(drag) + ", createTime="), std::string::npos);
    EXPECT_NE(text.find("SetFileAttributes fname=" + wideToUtf8(old) + ", succ=1, err=0"), std::string::npos);
    EXPECT_NE(text.find("DeleteFile fname=" + wideToUtf8(old) + ", lastWrite="), std::string::npos);
    EXPECT_NE(text.find("succ=1, err=0"), std::string::npos);
}

TEST_F(Cleanup, StopBeforeTheFirstWaitEndsTheLoopAfterTheFirstPass)
{
    keepMinutes(L"60");
    const std::wstring old = file(L"old.txt", 120);
    stopCleanupLoop(state);

    cleanupLoop(state); // returns instead of waiting ten minutes

    EXPECT_FALSE(fileExists(old)) << "the first pass runs before any waiting";
}

TEST_F(Cleanup, WaitForStopTimesOutWithoutAStop)
{
    EXPECT_FALSE(waitForStop(state, 20));
    stopCleanupLoop(state);
    EXPECT_TRUE(waitForStop(state, 600000)) << "a stop requested before the wait counts";
}

TEST_F(Cleanup, StopWhileTheWorkerWaitsEndsItAtOnce)
{
    keepMinutes(L"60");
    const std::wstring old = file(L"old.txt", 120);
    LogCapture log(LOG_DEBUG);

    startCleanupWorker(state);
    ASSERT_TRUE(goneSoon(old)) << "the first pass runs at start";
    // The worker is in its ten-minute wait now (or about to enter it: a
    // stop that comes first ends the wait just as well).
    Sleep(100);
    const HANDLE worker = pthread_gethandle(state.cleanupWorker.native_handle());

    const auto start = Clock::now();
    stopCleanupLoop(state);
    const auto stopReturned = Clock::now();
    const DWORD waited = WaitForSingleObject(worker, 1000);
    const auto ended = Clock::now();

    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(stopReturned - start).count(), 1000)
        << "stopCleanupLoop doesn't wait for the worker";
    EXPECT_EQ(waited, WAIT_OBJECT_0) << "the worker ended within a second of the stop";
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(ended - start).count(), 1000);
    state.cleanupWorker.join();

    const std::string text = log.contents();
    EXPECT_NE(text.find("waitForStop(timeout=600000"), std::string::npos);
    EXPECT_NE(text.find(")waitForStop=1"), std::string::npos);
    EXPECT_NE(text.find(")cleanupLoop"), std::string::npos);
}

TEST_F(Cleanup, ARestartedWorkerCleansAgain)
{
    keepMinutes(L"60");
    startCleanupWorker(state);
    stopCleanupLoop(state);

    // Switched on again: the stop of the first worker must not end the second.
    const std::wstring old = file(L"old-after-restart.txt", 120);
    startCleanupWorker(state);
    EXPECT_TRUE(goneSoon(old));
    Sleep(100);
    EXPECT_EQ(WaitForSingleObject(pthread_gethandle(state.cleanupWorker.native_handle()), 0),
              static_cast<DWORD>(WAIT_TIMEOUT))
        << "the second worker keeps waiting for its next pass";

    stopAndJoinCleanupWorker(state);
}

TEST_F(Cleanup, AnExceptionInTheWorkerEndsTheWorkerNotOutlook)
{
    LogCapture log(LOG_ERROR);
    {
        const InjectedFault fault("cleanupLoop");
        startCleanupWorker(state);
        state.cleanupWorker.join();
    }
    EXPECT_NE(log.contents().find("cleanupLoop failed with an exception"), std::string::npos);
}

TEST_F(Cleanup, NegativeKeepMinutesCountAsZero)
{
    keepMinutes(L"-30");
    const std::wstring old = file(L"old.txt", 0.5);
    const std::wstring future = file(L"future.txt", -1);

    cleanupTempDir(state, state.tempDir);

    EXPECT_FALSE(fileExists(old));
    EXPECT_TRUE(fileExists(future)) << "a negative age doesn't reach into the future";
}

} // namespace
