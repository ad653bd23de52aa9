// The cleanup worker on real folders: files and drag folders aged into the
// past, the read-only bit, and starting and stopping the worker (switching on
// and off from two threads is in hook_tests).
#include "filedrop_fixture.h"

#include "support/injected_fault.h"

#include <pthread.h>

#include <vector>

namespace {

using namespace FileDrop;

TEST_F(FileDropTest, ACleanupPassTakesWhatIsOlderThanTheLimitAndNothingElse)
{
    struct Entry {
        const wchar_t* path;
        double ageMinutes;
        bool kept;
        bool isFolder = false, readOnly = false;
    };
    struct Case {
        const char* what;
        const wchar_t* keepMinutes; // null: not set
        std::vector<Entry> entries;
    };
    const Case cases[] = {
        // First, before any case has written the setting.
        {"a day by default", nullptr, {{L"day-old.txt", 60 * 24 + 1, false}, {L"hours-old.txt", 60 * 23, true}}},
        {"old files go, younger ones stay", L"60", {{L"old.txt", 61, false}, {L"young.txt", 59, true}}},
        {"an old read-only file goes too", L"60", {{L"saved.msg", 120, false, false, true}}},
        {"an old drag folder stays while it holds a young file", L"60",
         {{L"1700000000", 120, true, true}, {L"1700000000\\old.pdf", 90, false}, {L"1700000000\\young.pdf", 10, true}}},
        // A drag still being filled holds mails dated with their delivery time.
        {"a young drag folder is not entered", L"60",
         {{L"1700000001", 5, true, true}, {L"1700000001\\Hello.msg", 60 * 24 * 30, true}}},
        {"old folders are emptied and removed", L"60",
         {{L"outer", 200, false, true}, {L"outer\\inner", 200, false, true}, {L"outer\\inner\\deep.txt", 200, false}}},
        {"keep 0: all that is older than the pass", L"0",
         {{L"1700000002", 0.1, false, true}, {L"1700000002\\a.txt", 0.1, false}, {L"b.txt", 0.1, false},
          {L"future.txt", -10.0 / 60, true}}},
        {"a negative limit counts as 0", L"-30", {{L"old.txt", 0.5, false}, {L"future.txt", -1, true}}},
    };
    for (const Case& c : cases) {
        ScratchFolder temp;
        state.tempDir = temp.path();
        settingsWith(L"KeepTempFilesMinutes", c.keepMinutes);
        for (const Entry& entry : c.entries) {
            if (entry.isFolder)
                ASSERT_TRUE(CreateDirectoryW(temp.file(entry.path).c_str(), nullptr));
            else
                writeBytes(temp.file(entry.path), "data");
        }
        // Files first, their folders after them, innermost first.
        for (auto entry = c.entries.rbegin(); entry != c.entries.rend(); ++entry) {
            ASSERT_TRUE(age(temp.file(entry->path), entry->ageMinutes)) << c.what;
            if (entry->readOnly)
                SetFileAttributesW(temp.file(entry->path).c_str(), FILE_ATTRIBUTE_READONLY);
        }

        cleanupTempDir(state, state.tempDir);

        for (const Entry& entry : c.entries)
            EXPECT_EQ(fileExists(temp.file(entry.path)), entry.kept) << c.what << ": " << testing::PrintToString(entry.path);
        EXPECT_TRUE(fileExists(temp.path())) << "the pass never removes the folder it was given";
    }
}

TEST_F(FileDropTest, TheWorkerCleansAtItsStartAndEndsAtOnceWhenStopped)
{
    settingsWith(L"KeepTempFilesMinutes", L"60");
    const std::wstring old = folder.file(L"old.txt");
    writeBytes(old, "old");
    age(old, 120);
    startCleanupWorker(state);
    for (int i = 0; i < 200 && fileExists(old); ++i)
        Sleep(50);
    EXPECT_FALSE(fileExists(old)) << "the first pass runs at the start";
    Sleep(100); // the worker waits ten minutes for its next pass now
    stopCleanupLoop(state);
    EXPECT_EQ(WaitForSingleObject(pthread_gethandle(state.cleanupWorker.native_handle()), 5000), WAIT_OBJECT_0)
        << "a stop ends the wait at once";
    state.cleanupWorker.join();

    // An exception in the worker ends the worker, not Outlook.
    const LogCapture log(LOG_ERROR);
    {
        const InjectedFault fault("cleanupLoop");
        startCleanupWorker(state);
        state.cleanupWorker.join();
    }
    EXPECT_NE(log.contents().find("cleanupLoop failed with an exception"), std::string::npos);
}

} // namespace
