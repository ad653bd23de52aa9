// The wrapper around Outlook's drop source, over real windows: the program under
// the cursor, the save at the drop (wait cursor), a failed save as a failed drag.
#include "hook/drop_source.h"

#include "hook_fixture.h"

#include "core/outlook_application.h"
#include "dataobject/drop_target_tracker.h"
#include "e2e_shared/outlook_standin.h"
#include "support/child_process.h"
#include "support/injected_fault.h"

#include <optional>

namespace {

using Microsoft::WRL::ComPtr;

// An item that notes how often and under which cursor it was saved.
struct RecordingItem final : DDItem {
    explicit RecordingItem(HRESULT answer) : DDItem(L"C:\\nowhere\\a.msg"), answer(answer) {}
    HRESULT save() override
    {
        ++saves;
        cursorDuringSave = GetCursor();
        return answer;
    }
    HRESULT prepareFile() override { return S_OK; }
    const char* typeName() const override { return "RecordingItem"; }

    const HRESULT answer;
    HCURSOR cursorDuringSave = nullptr;
    int saves = 0;
};

// A window of this process (standing for Outlook's) and one of another
// program (Wine's notepad), made once: taking a window down costs Wine's X11
// driver seconds.
class DropSource : public HookTest {
protected:
    static void SetUpTestSuite()
    {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.lpszClassName = L"KorvaneDropSourceTest";
        RegisterClassW(&windowClass);
        ownWindow = CreateWindowExW(WS_EX_TOPMOST, windowClass.lpszClassName, L"Korvane", WS_POPUP | WS_VISIBLE, 40,
                                    40, 200, 120, nullptr, nullptr, nullptr, nullptr);
        notepad = new ChildProcess(L"notepad.exe", nullptr);
        for (int i = 0; i < 200 && !(otherWindow = FindWindowW(L"Notepad", nullptr)); ++i)
            Sleep(100);
        SetWindowPos(otherWindow, HWND_TOPMOST, 400, 300, 300, 200, SWP_SHOWWINDOW);
    }
    static void TearDownTestSuite() { delete notepad; }
    void SetUp() override
    {
        if (!ownWindow || !otherWindow)
            GTEST_SKIP() << "needs a display (run under xvfb-run)";
    }

    // The cursor over the window's middle, once the window really is there:
    // notepad may still move itself to where it was last time.
    static void pointAt(HWND window)
    {
        for (int i = 0; i < 100; ++i) {
            if (window == otherWindow)
                SetWindowPos(otherWindow, HWND_TOPMOST, 400, 300, 300, 200, SWP_SHOWWINDOW | SWP_NOACTIVATE);
            RECT rect{};
            GetWindowRect(window, &rect);
            const POINT middle{(rect.left + rect.right) / 2, (rect.top + rect.bottom) / 2};
            SetCursorPos(middle.x, middle.y);
            MSG message;
            while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
                DispatchMessageW(&message);
            if (GetAncestor(WindowFromPoint(middle), GA_ROOT) == window)
                return;
            Sleep(20);
        }
    }

    static inline HWND ownWindow = nullptr, otherWindow = nullptr;
    static inline ChildProcess* notepad = nullptr;
};

TEST_F(DropSource, TheDropDecidesOnTheSave)
{
    struct Case {
        const char* what;
        std::optional<HRESULT> outlooksAnswer; // none: no drop source of Outlook's
        BOOL escape;
        DWORD keyState;
        bool overOtherProgram;
        HRESULT saveResult;
        const char* fault;
        HRESULT expected;
        bool notice;
    };
    const Case cases[] = {
        {"the drag goes on", S_OK, FALSE, MK_LBUTTON | MK_SHIFT, true, S_OK, nullptr, S_OK, false},
        {"Escape cancels", DRAGDROP_S_CANCEL, TRUE, MK_LBUTTON, true, S_OK, nullptr, DRAGDROP_S_CANCEL, false},
        {"a drop saves first", DRAGDROP_S_DROP, FALSE, 0, true, S_OK, nullptr, DRAGDROP_S_DROP, false},
        {"a failed save inside Outlook still drops", DRAGDROP_S_DROP, FALSE, 0, false, E_FAIL, nullptr, DRAGDROP_S_DROP,
         false},
        {"a failed save into another program fails the drag", DRAGDROP_S_DROP, FALSE, 0, true, E_FAIL, nullptr, E_FAIL,
         true},
        {"a save that throws is a failed save", DRAGDROP_S_DROP, FALSE, 0, true, S_OK, "ddItems->save", E_FAIL, true},
        {"no drop source of Outlook's: the system's rules", std::nullopt, FALSE, 0, false, S_OK, nullptr,
         DRAGDROP_S_DROP, false},
    };
    const HCURSOR arrow = LoadCursorW(nullptr, IDC_ARROW);
    for (const Case& c : cases) {
        OutlookStandIn outlook;
        setOutlookApplication(outlook.application());
        resetDropTarget();
        pointAt(c.overOtherProgram ? otherWindow : ownWindow);
        SetCursor(arrow);
        auto items = std::make_shared<DDItems>();
        auto* item = new RecordingItem(c.saveResult);
        items->add(std::unique_ptr<DDItem>(item));
        ComPtr<OutlookDropSource> inner = c.outlooksAnswer ? OutlookDropSource::create(c.outlooksAnswer) : nullptr;
        const ComPtr<MyDropSource> source = adoptCom(new MyDropSource(inner.Get(), items));
        LogCapture caseLog(LOG_DEBUG);
        std::optional<InjectedFault> fault;
        if (c.fault)
            fault.emplace(c.fault);

        EXPECT_EQ(source->QueryContinueDrag(c.escape, c.keyState), c.expected) << c.what;

        fault.reset();
        setOutlookApplication(nullptr);
        const bool saved = !c.fault && (c.expected == DRAGDROP_S_DROP || c.expected == E_FAIL);
        EXPECT_EQ(item->saves, saved ? 1 : 0) << c.what;
        if (saved) {
            EXPECT_EQ(item->cursorDuringSave, LoadCursorW(nullptr, IDC_WAIT)) << c.what;
        }
        EXPECT_EQ(GetCursor(), arrow) << c.what;
        EXPECT_EQ(dropTargetState().droppedIntoOtherApplication, c.overOtherProgram) << c.what;
        EXPECT_EQ(dropTargetState().targetName, c.overOtherProgram ? L"notepad" : L"hook_tests") << c.what;
        EXPECT_EQ(outlook.applicationObject().wasCalled(L"ActiveExplorer"), c.notice) << c.what;
        EXPECT_EQ(caseLog.contents().find("notifySaveFailed shown=1") != std::string::npos, c.notice) << c.what;
        EXPECT_TRUE(!inner || inner->queries == 1) << "Outlook's drop source decides";
        EXPECT_EQ(source->shiftHeld(), (c.keyState & MK_SHIFT) != 0) << c.what;
    }
    resetDropTarget();
}

} // namespace
