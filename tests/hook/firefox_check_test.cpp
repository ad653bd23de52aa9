// The Firefox check against the real process list, with a program named
// firefox.exe started and ended by the test.
#include "hook/drag_entry.h"

#include "hook_test_support.h"

#include "core/log.h"
#include "common/unique_resource.h"
#include "filedrop/file_drop.h"
#include "e2e_shared/outlook_data_object.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A running firefox.exe (the probe that only waits), ended with the object.
class RunningFirefox {
public:
    RunningFirefox()
    {
        std::wstring commandLine = L"\"" + testProgramFolder() + L"\\hook_probes\\firefox.exe\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process{};
        if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                            &process)) {
            ADD_FAILURE() << "cannot start firefox.exe, err=" << GetLastError();
            return;
        }
        process_.reset(process.hProcess);
        CloseHandle(process.hThread);
    }
    ~RunningFirefox()
    {
        if (process_) {
            TerminateProcess(process_.get(), 0);
            WaitForSingleObject(process_.get(), 5000);
        }
    }
    RunningFirefox(const RunningFirefox&) = delete;
    RunningFirefox& operator=(const RunningFirefox&) = delete;

    bool started() const { return process_.valid(); }

private:
    UniqueHandle process_;
};

// The process list needs a moment to show a program that has just started.
bool firefoxFoundWithin(Globals& settings, DWORD milliseconds)
{
    const ULONGLONG end = GetTickCount64() + milliseconds;
    while (!isFirefoxRunning(settings)) {
        if (GetTickCount64() > end)
            return false;
        Sleep(50);
    }
    return true;
}

class FirefoxCheck : public testing::Test {
protected:
    void SetUp() override { forgetFirefoxAnswer(); }
    void TearDown() override { forgetFirefoxAnswer(); }

    HookSettings settings;
    LogCapture log{LOG_DEBUG};
};

TEST_F(FirefoxCheck, ARunningFirefoxIsFoundAndRememberedForTheSession)
{
    EXPECT_FALSE(isFirefoxRunning(settings.get()));
    {
        RunningFirefox firefox;
        ASSERT_TRUE(firefox.started());
        EXPECT_TRUE(firefoxFoundWithin(settings.get(), 5000));
    }
    // Ended, but a "yes" holds for the session.
    EXPECT_TRUE(isFirefoxRunning(settings.get()));
    forgetFirefoxAnswer();
    EXPECT_FALSE(isFirefoxRunning(settings.get()));

    const std::string text = log.contents();
    EXPECT_NE(text.find("succ=1, #processes="), std::string::npos);
    EXPECT_NE(text.find("isFirefoxRunning=1, ms="), std::string::npos);
    EXPECT_NE(text.find("isFirefoxRunning=0, ms="), std::string::npos);
}

TEST_F(FirefoxCheck, WithFirefoxRunningADragWritesItsFilesAtOnce)
{
    settings->setLocked(false);
    settings->setSaveOnBeginDrag(false);
    FileDrop::init();
    RunningFirefox firefox;
    ASSERT_TRUE(firefox.started());
    ASSERT_TRUE(firefoxFoundWithin(settings.get(), 5000));

    auto outlook = OutlookDataObject::create({OutlookEntry::attachment(L"upload.txt", "for the browser")});
    std::vector<std::string> atStart;
    RecordedDoDragDrop recorded([&](const DragCall& call) {
        for (const auto& file : droppedFiles(call.dataObject))
            atStart.push_back(readBytes(file));
        return DRAGDROP_S_CANCEL;
    });
    auto dropSource = TestDropSource::create();
    DWORD effect = 0;
    MyDoDragDrop(outlook.Get(), dropSource.Get(), DROPEFFECT_COPY, &effect);
    FileDrop::done();

    EXPECT_EQ(atStart, std::vector<std::string>{"for the browser"});
}

} // namespace
