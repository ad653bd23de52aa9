// The drop-target tracker: which program's window is under the cursor, and
// the effect rules that depend on it. The window tests need a display (the
// test run has one); without it they are skipped.
#include "dataobject/drop_target_tracker.h"

#include "core/log.h"
#include "common/unique_resource.h"
#include "support/scratch.h"

#include <oleidl.h>

#include <gtest/gtest.h>

namespace {

constexpr const wchar_t* windowTitle = L"Korvane tracker test";

void pumpMessages()
{
    MSG message;
    for (int round = 0; round < 3; ++round) {
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        Sleep(10);
    }
}

// A top-level window of this process at a known place on the screen.
class TrackedWindow {
public:
    TrackedWindow()
    {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = L"KorvaneTrackerTest";
        RegisterClassW(&windowClass); // a second registration fails harmlessly
        window_ = CreateWindowExW(WS_EX_TOPMOST, windowClass.lpszClassName, windowTitle, WS_POPUP | WS_VISIBLE, 100,
                                  100, 200, 150, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
        if (window_) {
            ShowWindow(window_, SW_SHOW);
            UpdateWindow(window_);
            pumpMessages();
        }
    }
    ~TrackedWindow()
    {
        if (window_)
            DestroyWindow(window_);
        pumpMessages();
    }
    TrackedWindow(const TrackedWindow&) = delete;
    TrackedWindow& operator=(const TrackedWindow&) = delete;

    HWND get() const { return window_; }
    POINT inside() const { return POINT{150, 150}; }

private:
    HWND window_ = nullptr;
};

bool moveCursorTo(POINT point)
{
    if (!SetCursorPos(point.x, point.y))
        return false;
    pumpMessages();
    POINT now{};
    return GetCursorPos(&now) && now.x == point.x && now.y == point.y;
}

class DropTargetTrackerTest : public testing::Test {
protected:
    void SetUp() override { resetDropTarget(); }
    void TearDown() override { resetDropTarget(); }
};

TEST_F(DropTargetTrackerTest, AMoveIntoAnotherProgramIsReportedAsACopy)
{
    LogCapture log(LOG_INFO);
    dropTargetState().droppedIntoOtherApplication = true;
    DWORD effect = DROPEFFECT_MOVE;
    applyAlwaysCopyRule(&effect);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY));
    EXPECT_NE(log.contents().find("Set drop effect to COPY, it was MOVE"), std::string::npos);

    effect = DROPEFFECT_NONE;
    applyAlwaysCopyRule(&effect);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY));
    applyAlwaysCopyRule(nullptr);
}

TEST_F(DropTargetTrackerTest, InsideOutlookOrAsACopyTheEffectStays)
{
    DWORD effect = DROPEFFECT_MOVE;
    applyAlwaysCopyRule(&effect);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_MOVE));

    LogCapture log(LOG_INFO);
    dropTargetState().droppedIntoOtherApplication = true;
    effect = DROPEFFECT_COPY;
    applyAlwaysCopyRule(&effect);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY));
    EXPECT_EQ(log.contents().find("Set drop effect"), std::string::npos);
}

// One window for all tests that need one: taking a window down again costs
// Wine's X11 driver about two seconds.
class TrackedWindowTest : public DropTargetTrackerTest {
protected:
    static void SetUpTestSuite() { window = new TrackedWindow(); }
    static void TearDownTestSuite()
    {
        delete window;
        window = nullptr;
    }
    void SetUp() override
    {
        DropTargetTrackerTest::SetUp();
        if (!window->get() || !moveCursorTo(window->inside()))
            GTEST_SKIP() << "needs a display";
    }

    static TrackedWindow* window;
};
TrackedWindow* TrackedWindowTest::window = nullptr;

TEST_F(TrackedWindowTest, AWindowOfThisProcessIsNoOtherApplication)
{
    ASSERT_EQ(WindowFromPoint(window->inside()), window->get());

    LogCapture log(LOG_INFO);
    updateDropTarget();
    const DropTargetState& state = dropTargetState();
    EXPECT_EQ(state.targetProcessId, GetCurrentProcessId());
    EXPECT_EQ(state.targetName, L"hook_tests");
    EXPECT_FALSE(state.droppedIntoOtherApplication);
    EXPECT_EQ(state.lastCursor.x, window->inside().x);
    EXPECT_EQ(state.lastCursor.y, window->inside().y);
    const std::string expected = "target=hook_tests, processId=" + std::to_string(GetCurrentProcessId()) +
                                 ", title=Korvane tracker test";
    EXPECT_NE(log.contents().find(expected), std::string::npos);
}

TEST_F(TrackedWindowTest, AnUnmovedCursorChangesNothing)
{
    updateDropTarget();
    dropTargetState().targetName = L"left alone";
    dropTargetState().droppedIntoOtherApplication = true;
    updateDropTarget();
    EXPECT_EQ(dropTargetState().targetName, L"left alone");
    EXPECT_TRUE(dropTargetState().droppedIntoOtherApplication);
}

TEST_F(TrackedWindowTest, TheSameProcessIsNamedOnlyOnce)
{
    updateDropTarget();
    LogCapture log(LOG_INFO);
    ASSERT_TRUE(moveCursorTo(POINT{160, 170}));
    updateDropTarget();
    EXPECT_EQ(dropTargetState().lastCursor.y, 170);
    EXPECT_EQ(dropTargetState().targetProcessId, GetCurrentProcessId());
    EXPECT_EQ(log.contents().find("target="), std::string::npos);
}

TEST_F(TrackedWindowTest, AWindowOfAnotherProgramIsAnotherApplication)
{
    // Notepad, started for this test and ended by its own handle.
    wchar_t command[] = L"notepad.exe";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    ASSERT_TRUE(CreateProcessW(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &started));
    UniqueHandle process(started.hProcess);
    UniqueHandle thread(started.hThread);
    WaitForInputIdle(process.get(), 10000);

    struct Search {
        DWORD processId;
        HWND found;
    } search{started.dwProcessId, nullptr};
    for (int attempt = 0; attempt < 100 && !search.found; ++attempt) {
        EnumWindows(
            [](HWND window, LPARAM parameter) -> BOOL {
                auto* wanted = reinterpret_cast<Search*>(parameter);
                DWORD owner = 0;
                GetWindowThreadProcessId(window, &owner);
                if (owner != wanted->processId || !IsWindowVisible(window))
                    return TRUE;
                wanted->found = window;
                return FALSE;
            },
            reinterpret_cast<LPARAM>(&search));
        if (!search.found)
            Sleep(50);
    }

    bool moved = false;
    if (search.found) {
        SetWindowPos(search.found, HWND_TOPMOST, 400, 300, 300, 200, SWP_SHOWWINDOW);
        pumpMessages();
        moved = moveCursorTo(POINT{550, 400}) && WindowFromPoint(POINT{550, 400}) != nullptr;
    }
    if (moved)
        updateDropTarget();
    TerminateProcess(process.get(), 0);
    WaitForSingleObject(process.get(), 5000);

    ASSERT_TRUE(search.found) << "notepad showed no window";
    ASSERT_TRUE(moved);
    EXPECT_EQ(dropTargetState().targetProcessId, started.dwProcessId);
    EXPECT_EQ(dropTargetState().targetName, L"notepad");
    EXPECT_TRUE(dropTargetState().droppedIntoOtherApplication);
}

} // namespace
