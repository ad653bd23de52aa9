// The wrapper around Outlook's drop source: it saves the dragged items when
// the user lets go, shows the wait cursor meanwhile, and turns a failed save
// into another program into a failed drag with a notice.
#include "hook/drop_source.h"
#include "common/com_ptr.h"

#include "core/log.h"
#include "core/outlook_application.h"
#include "dataobject/drop_target_tracker.h"
#include "items/attachment_item.h"
#include "e2e_shared/com_object.h"
#include "support/injected_fault.h"
#include "e2e_shared/outlook_standin.h"
#include "support/scratch.h"

#include <shellapi.h>
#include <shlwapi.h>

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

// Outlook's drop source as the wrapper sees it: a fixed answer, and a
// record of what it was asked.
class ScriptedDropSource final : public ComObject<IDropSource> {
public:
    explicit ScriptedDropSource(HRESULT answer, HRESULT feedback = DRAGDROP_S_USEDEFAULTCURSORS)
        : answer_(answer), feedback_(feedback)
    {
    }
    int queries = 0;
    BOOL lastEscape = FALSE;
    DWORD lastKeyState = 0;
    DWORD lastEffect = 0;

    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL escapePressed, DWORD keyState) override
    {
        ++queries;
        lastEscape = escapePressed;
        lastKeyState = keyState;
        return answer_;
    }
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD effect) override
    {
        lastEffect = effect;
        return feedback_;
    }

protected:
    bool offers(REFIID riid) const override { return riid == IID_IDropSource; }

private:
    HRESULT answer_;
    HRESULT feedback_;
};

// An item that notes the cursor it saw while saving and answers as told.
class CursorNotingItem final : public DDItem {
public:
    CursorNotingItem(std::wstring fileName, HRESULT answer) : DDItem(std::move(fileName)), answer_(answer) {}
    HCURSOR cursorDuringSave = nullptr;
    int saves = 0;

    HRESULT save() override
    {
        ++saves;
        cursorDuringSave = GetCursor();
        return answer_;
    }
    HRESULT prepareFile() override { return S_OK; }

protected:
    const char* typeName() const override { return "CursorNotingItem"; }

private:
    HRESULT answer_;
};

ComPtr<IStream> streamOver(const std::string& bytes)
{
    ComPtr<IStream> stream;
    stream = adoptCom(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    return stream;
}

ComPtr<MyDropSource> wrap(IDropSource* inner, std::shared_ptr<DDItems> items)
{
    ComPtr<MyDropSource> source;
    source = adoptCom(new MyDropSource(inner, std::move(items)));
    return source;
}

ComPtr<ScriptedDropSource> outlookAnswering(HRESULT answer)
{
    ComPtr<ScriptedDropSource> inner;
    inner = adoptCom(new ScriptedDropSource(answer));
    return inner;
}

// A visible top-level window of this process (a display is needed), of a
// class of its own: a static control would let WindowFromPoint look through it.
class OwnWindow {
public:
    OwnWindow()
    {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = L"KorvaneDropSourceTestWindow";
        RegisterClassW(&windowClass); // a second registration fails harmlessly
        window_ = CreateWindowExW(WS_EX_TOPMOST, windowClass.lpszClassName, L"Korvane test window",
                                  WS_POPUP | WS_VISIBLE, 40, 40, 200, 120, nullptr, nullptr, GetModuleHandleW(nullptr),
                                  nullptr);
    }
    ~OwnWindow()
    {
        if (window_)
            DestroyWindow(window_);
    }
    OwnWindow(const OwnWindow&) = delete;
    OwnWindow& operator=(const OwnWindow&) = delete;
    HWND handle() const { return window_; }
    void pointAt() const
    {
        RECT rect{};
        GetWindowRect(window_, &rect);
        SetCursorPos((rect.left + rect.right) / 2, (rect.top + rect.bottom) / 2);
    }

private:
    HWND window_ = nullptr;
};

// Another program with a window: Wine's notepad.
class OtherProgram {
public:
    OtherProgram()
    {
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        wchar_t command[] = L"notepad.exe";
        if (!CreateProcessW(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_))
            return;
        WaitForInputIdle(process_.hProcess, 10000);
        for (int i = 0; i < 100 && !window_; ++i) {
            EnumWindows(takeVisibleWindow, reinterpret_cast<LPARAM>(this));
            if (!window_)
                Sleep(100);
        }
    }
    ~OtherProgram()
    {
        if (process_.hProcess) {
            TerminateProcess(process_.hProcess, 0);
            WaitForSingleObject(process_.hProcess, 5000);
            CloseHandle(process_.hProcess);
            CloseHandle(process_.hThread);
        }
    }
    OtherProgram(const OtherProgram&) = delete;
    OtherProgram& operator=(const OtherProgram&) = delete;

    HWND window() const { return window_; }
    void pointAt() const
    {
        RECT rect{};
        GetWindowRect(window_, &rect);
        SetCursorPos((rect.left + rect.right) / 2, (rect.top + rect.bottom) / 2);
    }

private:
    // EnumWindows wants a WINAPI function, which a lambda is not on i686.
    static BOOL CALLBACK takeVisibleWindow(HWND window, LPARAM self)
    {
        auto* program = reinterpret_cast<OtherProgram*>(self);
        DWORD processId = 0;
        GetWindowThreadProcessId(window, &processId);
        if (processId != program->process_.dwProcessId || !IsWindowVisible(window))
            return TRUE;
        program->window_ = window;
        return FALSE;
    }

    PROCESS_INFORMATION process_{};
    HWND window_ = nullptr;
};

// The Outlook stand-in as the connected application, for as long as it lives.
class ConnectedOutlook {
public:
    ConnectedOutlook() { setOutlookApplication(outlook.application()); }
    ~ConnectedOutlook() { setOutlookApplication(nullptr); }
    OutlookStandIn outlook;
};

bool calledMember(const DispatchStandIn& object, const wchar_t* member)
{
    for (const DispatchCall& call : object.calls()) {
        if (call.member == member)
            return true;
    }
    return false;
}

class DropSource : public testing::Test {
protected:
    // Two attachments of a drag, not yet written.
    std::shared_ptr<DDItems> attachments()
    {
        auto items = std::make_shared<DDItems>();
        items->add(std::make_unique<AttachmentItem>(folder.file(L"first.txt"), streamOver("first file").Get()));
        items->add(std::make_unique<AttachmentItem>(folder.file(L"second.bin"),
                                                    streamOver(std::string("second\0file", 11)).Get()));
        return items;
    }

    // An attachment whose file can't be written (its folder doesn't exist).
    std::shared_ptr<DDItems> unsaveable()
    {
        auto items = std::make_shared<DDItems>();
        items->add(std::make_unique<AttachmentItem>(folder.file(L"missing\\a.txt"), streamOver("a").Get()));
        return items;
    }

    void SetUp() override { resetDropTarget(); }

    ScratchFolder folder;
};

TEST_F(DropSource, DropSavesEveryItemBeforeTheTargetIsAnswered)
{
    auto inner = outlookAnswering(DRAGDROP_S_DROP);
    auto source = wrap(inner.Get(), attachments());
    LogCapture log(LOG_DEBUG);

    EXPECT_EQ(source->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);

    EXPECT_EQ(inner->queries, 1);
    EXPECT_EQ(readBytes(folder.file(L"first.txt")), "first file");
    EXPECT_EQ(readBytes(folder.file(L"second.bin")), std::string("second\0file", 11));
    const std::string text = log.contents();
    EXPECT_NE(text.find("DRAGDROP_S_DROP"), std::string::npos);
    EXPECT_NE(text.find("ddItems saved, hr=0"), std::string::npos);
}

TEST_F(DropSource, ADragThatGoesOnSavesNothingAndRemembersTheKeys)
{
    auto inner = outlookAnswering(S_OK);
    auto source = wrap(inner.Get(), attachments());

    EXPECT_EQ(source->QueryContinueDrag(FALSE, MK_LBUTTON | MK_SHIFT), S_OK);
    EXPECT_TRUE(source->shiftHeld());
    EXPECT_EQ(inner->lastKeyState, static_cast<DWORD>(MK_LBUTTON | MK_SHIFT));
    EXPECT_FALSE(fileExists(folder.file(L"first.txt")));

    EXPECT_EQ(source->QueryContinueDrag(FALSE, MK_LBUTTON), S_OK);
    EXPECT_FALSE(source->shiftHeld()) << "the last poll counts";
}

TEST_F(DropSource, ACancelSavesNothing)
{
    auto inner = outlookAnswering(DRAGDROP_S_CANCEL);
    auto source = wrap(inner.Get(), attachments());
    LogCapture log(LOG_DEBUG);

    EXPECT_EQ(source->QueryContinueDrag(TRUE, MK_LBUTTON), DRAGDROP_S_CANCEL);

    EXPECT_TRUE(inner->lastEscape);
    EXPECT_FALSE(fileExists(folder.file(L"first.txt")));
    EXPECT_FALSE(fileExists(folder.file(L"second.bin")));
    EXPECT_NE(log.contents().find("DRAGDROP_S_CANCEL"), std::string::npos);
}

TEST_F(DropSource, TheWaitCursorShowsWhileSavingAndGoesAfterwards)
{
    const HCURSOR arrow = LoadCursorW(nullptr, IDC_ARROW);
    SetCursor(arrow);
    auto items = std::make_shared<DDItems>();
    items->add(std::make_unique<CursorNotingItem>(folder.file(L"a.msg"), S_OK));
    auto* item = static_cast<CursorNotingItem*>(items->at(0));
    auto source = wrap(outlookAnswering(DRAGDROP_S_DROP).Get(), items);

    EXPECT_EQ(source->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);

    EXPECT_EQ(item->saves, 1);
    EXPECT_EQ(item->cursorDuringSave, LoadCursorW(nullptr, IDC_WAIT));
    EXPECT_EQ(GetCursor(), arrow);
}

TEST_F(DropSource, ADropWithoutItemsIsPassedOn)
{
    auto emptyList = wrap(outlookAnswering(DRAGDROP_S_DROP).Get(), std::make_shared<DDItems>());
    EXPECT_EQ(emptyList->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);
    auto noList = wrap(outlookAnswering(DRAGDROP_S_DROP).Get(), nullptr);
    EXPECT_EQ(noList->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);
}

// A save that fails, or that throws inside ole32's modal loop, is the same
// failed save.
TEST_F(DropSource, FailedSaveIntoAnotherProgramEndsAsAFailedDragWithANotice)
{
    OtherProgram notepad;
    if (!notepad.window())
        GTEST_SKIP() << "another program's window needs a display (run under xvfb-run)";
    for (const bool throws : {false, true}) {
        ConnectedOutlook connected;
        notepad.pointAt();
        auto source = wrap(outlookAnswering(DRAGDROP_S_DROP).Get(), throws ? attachments() : unsaveable());
        LogCapture log(LOG_DEBUG);
        const InjectedFault fault(throws ? "ddItems->save" : "nowhere");

        EXPECT_EQ(source->QueryContinueDrag(FALSE, 0), E_FAIL);

        EXPECT_TRUE(dropTargetState().droppedIntoOtherApplication);
        EXPECT_TRUE(calledMember(connected.outlook.applicationObject(), L"ActiveExplorer"))
            << "the notice goes through Outlook's explorer";
        const std::string text = log.contents();
        EXPECT_NE(text.find("ddItems saved, hr=-"), std::string::npos) << text;
        EXPECT_NE(text.find("notifySaveFailed shown=1"), std::string::npos) << text;
        EXPECT_EQ(text.find("failed with an exception") != std::string::npos, throws);
    }
}

TEST_F(DropSource, FailedSaveInsideOutlookStillDrops)
{
    OwnWindow window;
    if (!window.handle())
        GTEST_SKIP() << "a window needs a display (run under xvfb-run)";
    window.pointAt();
    auto source = wrap(outlookAnswering(DRAGDROP_S_DROP).Get(), unsaveable());
    LogCapture log(LOG_DEBUG);

    EXPECT_EQ(source->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);

    EXPECT_FALSE(dropTargetState().droppedIntoOtherApplication);
    EXPECT_EQ(log.contents().find("notifySaveFailed"), std::string::npos);
}

TEST_F(DropSource, TheErrorBalloonIsShownAndTakenAwayAfterItsTime)
{
    OwnWindow window;
    if (!window.handle())
        GTEST_SKIP() << "the notification area needs a display (run under xvfb-run)";

    ASSERT_TRUE(showErrorBalloon(window.handle(), L"Korvane: drag and drop", L"could not save"));

    NOTIFYICONDATAW icon{};
    icon.cbSize = sizeof(icon);
    icon.hWnd = window.handle();
    icon.uID = errorBalloonIconId;
    EXPECT_TRUE(Shell_NotifyIconW(NIM_MODIFY, &icon)) << "the icon carrying the balloon is there";
    bool gone = false;
    for (int i = 0; i < 100 && !gone; ++i) {
        Sleep(100);
        gone = !Shell_NotifyIconW(NIM_MODIFY, &icon);
    }
    EXPECT_TRUE(gone) << "and goes once the balloon has had its time";
}

TEST_F(DropSource, WithoutOutlooksDropSourceTheSystemRulesApply)
{
    auto source = wrap(nullptr, std::make_shared<DDItems>());
    EXPECT_EQ(source->QueryContinueDrag(FALSE, MK_LBUTTON), S_OK);
    EXPECT_EQ(source->QueryContinueDrag(TRUE, MK_LBUTTON), DRAGDROP_S_CANCEL);
    EXPECT_EQ(source->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);
    EXPECT_EQ(source->GiveFeedback(DROPEFFECT_COPY), DRAGDROP_S_USEDEFAULTCURSORS);
}

TEST_F(DropSource, FeedbackIsOutlooksOwn)
{
    ComPtr<ScriptedDropSource> inner;
    inner = adoptCom(new ScriptedDropSource(S_OK, S_OK));
    auto source = wrap(inner.Get(), nullptr);
    EXPECT_EQ(source->GiveFeedback(DROPEFFECT_MOVE), S_OK);
    EXPECT_EQ(inner->lastEffect, static_cast<DWORD>(DROPEFFECT_MOVE));

    auto defaults = wrap(outlookAnswering(S_OK).Get(), nullptr);
    LogCapture log(LOG_DEBUG);
    EXPECT_EQ(defaults->GiveFeedback(DROPEFFECT_COPY), DRAGDROP_S_USEDEFAULTCURSORS);
    EXPECT_NE(log.contents().find("DRAGDROP_S_USEDEFAULTCURSORS"), std::string::npos);
}

TEST_F(DropSource, IsADropSourceAndCountsItsReferences)
{
    auto source = wrap(outlookAnswering(S_OK).Get(), nullptr);
    ComPtr<IDropSource> asDropSource;
    EXPECT_EQ(source.As(&asDropSource), S_OK);
    ComPtr<IUnknown> asUnknown;
    EXPECT_EQ(source.As(&asUnknown), S_OK);
    ComPtr<IDataObject> asDataObject;
    EXPECT_EQ(source.As(&asDataObject), E_NOINTERFACE);
    EXPECT_EQ(asDataObject.Get(), nullptr);
    EXPECT_EQ(source->AddRef(), 4u);
    EXPECT_EQ(source->Release(), 3u);
}

} // namespace
