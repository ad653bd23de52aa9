// A whole drag under a display: Outlook's data object turned into files,
// Outlook's drop source wrapped, the system's DoDragDrop, and a real drop
// target window that reads CF_HDROP and the files at the moment of the drop.
#include "filedrop/file_drop.h"
#include "common/com_ptr.h"
#include "filedrop/file_drop_state.h"
#include "hook/drop_source.h"

#include "core/globals.h"
#include "dataobject/clipboard_formats.h"
#include "e2e_shared/com_object.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/scratch.h"

#include "drop_check.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace FileDrop;
using Microsoft::WRL::ComPtr;

const std::string attachmentBytes("attachment \0\x01\x02\xff bytes", 22);

// What the target found when the drop came: each file as it was then.
struct ReceivedFile {
    std::wstring path;
    std::string bytes;
    HRESULT msgOpen = E_FAIL; // StgOpenStorageEx and the subject, for .msg files
    std::wstring subject;
};

class ReadingDropTarget final : public ComObject<IDropTarget> {
public:
    std::vector<ReceivedFile> received;
    int drops = 0;

    HRESULT STDMETHODCALLTYPE DragEnter(IDataObject* data, DWORD, POINTL, DWORD* effect) override
    {
        accepts_ = offersFormat(data, CF_HDROP);
        *effect = accepts_ ? DROPEFFECT_COPY : DROPEFFECT_NONE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE DragOver(DWORD, POINTL, DWORD* effect) override
    {
        *effect = accepts_ ? DROPEFFECT_COPY : DROPEFFECT_NONE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE DragLeave() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Drop(IDataObject* data, DWORD, POINTL, DWORD* effect) override
    {
        ++drops;
        for (const std::wstring& path : hdropPathsOf(data)) {
            ReceivedFile file;
            file.path = path;
            file.bytes = readBytes(path);
            if (path.size() > 4 && path.compare(path.size() - 4, 4, L".msg") == 0)
                file.msgOpen = subjectOfMsgFile(path, file.subject);
            received.push_back(file);
        }
        *effect = DROPEFFECT_COPY;
        return S_OK;
    }

protected:
    bool offers(REFIID riid) const override { return riid == IID_IDropTarget; }

private:
    bool accepts_ = false;
};

// Plays the user: lets go of the button once the cursor is over the target.
class ReleaseOverTarget final : public ComObject<IDropSource> {
public:
    explicit ReleaseOverTarget(HWND target) : target_(target) {}
    int calls = 0;

    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL escapePressed, DWORD) override
    {
        // A bounded drag: a target that never shows up ends it as a cancel.
        if (escapePressed || ++calls > 400)
            return DRAGDROP_S_CANCEL;
        POINT cursor{};
        GetCursorPos(&cursor);
        return WindowFromPoint(cursor) == target_ ? DRAGDROP_S_DROP : S_OK;
    }
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD) override { return DRAGDROP_S_USEDEFAULTCURSORS; }

protected:
    bool offers(REFIID riid) const override { return riid == IID_IDropSource; }

private:
    HWND target_;
};

// A top-level window of its own class, registered as a drop target.
class DropTargetWindow {
public:
    DropTargetWindow()
    {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = className;
        windowClass.hCursor = LoadCursorW(nullptr, IDC_ARROW);
        RegisterClassW(&windowClass); // a second registration fails harmlessly
        window_ = CreateWindowExW(WS_EX_TOPMOST, className, L"Korvane drop target", WS_POPUP | WS_VISIBLE, 200, 150,
                                  320, 240, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
        if (!window_)
            return;
        ShowWindow(window_, SW_SHOW);
        UpdateWindow(window_);
        target_ = adoptCom(new ReadingDropTarget());
        registered_ = SUCCEEDED(RegisterDragDrop(window_, target_.Get()));
        pumpMessages();
    }
    ~DropTargetWindow()
    {
        if (registered_)
            RevokeDragDrop(window_);
        if (window_)
            DestroyWindow(window_);
    }
    DropTargetWindow(const DropTargetWindow&) = delete;
    DropTargetWindow& operator=(const DropTargetWindow&) = delete;

    bool ready() const { return window_ && registered_; }
    HWND handle() const { return window_; }
    ReadingDropTarget& target() const { return *target_.Get(); }

    POINT center() const
    {
        RECT rect{};
        GetWindowRect(window_, &rect);
        return {(rect.left + rect.right) / 2, (rect.top + rect.bottom) / 2};
    }

    static void pumpMessages()
    {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }

private:
    static constexpr const wchar_t* className = L"KorvaneTestDropTargetWindow";
    HWND window_ = nullptr;
    bool registered_ = false;
    ComPtr<ReadingDropTarget> target_;
};

MsgContent mail(const std::wstring& subject)
{
    MsgContent content;
    content.subject = subject;
    content.senderName = L"Ann Lee";
    content.senderAddress = L"ann.lee@example.com";
    content.senderAddrType = L"SMTP";
    content.deliveryTime = utcFileTime(2023, 4, 7, 9, 30, 0);
    content.body = L"Body of " + subject;
    return content;
}

TEST(DropEndToEnd, TargetWindowReceivesTheSavedFilesAtTheDrop)
{
    DropTargetWindow window;
    if (!window.ready())
        GTEST_SKIP() << "a drop target window needs a display (run under xvfb-run)";

    ScratchFolder folder;
    TestSettingsKeys keys;
    Globals settings(keys.company, keys.product());
    RegisterDataFormats();
    FileDropState state;
    state.tempDir = folder.path();

    auto outlook = OutlookDataObject::create({OutlookEntry::mailItem(L"Hello.msg", mail(L"Hello")),
                                              OutlookEntry::mailItem(L"Offer.msg", mail(L"Offer")),
                                              OutlookEntry::attachment(L"notes.bin", attachmentBytes)});
    auto items = std::make_shared<DDItems>();
    ComPtr<IDataObject> dataObject;
    // Files only prepared: the drop source has to save them before the target reads.
    ASSERT_EQ(internalHandleDataObject(state, outlook.Get(), outlook.Get(), items, false, dataObject, settings), S_OK);
    ASSERT_EQ(items->size(), 3u);
    ASSERT_NE(dataObject.Get(), static_cast<IDataObject*>(outlook.Get()));

    ComPtr<ReleaseOverTarget> user;
    user = adoptCom(new ReleaseOverTarget(window.handle()));
    ComPtr<MyDropSource> dropSource;
    dropSource = adoptCom(new MyDropSource(user.Get(), items));

    const POINT center = window.center();
    ASSERT_TRUE(SetCursorPos(center.x, center.y));
    DropTargetWindow::pumpMessages();

    DWORD effect = DROPEFFECT_NONE;
    const HRESULT hr = DoDragDrop(dataObject.Get(), dropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);

    EXPECT_EQ(hr, DRAGDROP_S_DROP);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY));
    const ReadingDropTarget& target = window.target();
    EXPECT_EQ(target.drops, 1);
    ASSERT_EQ(target.received.size(), 3u);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(target.received[i].path, items->at(i)->fileName());

    EXPECT_EQ(target.received[0].msgOpen, S_OK) << "a complete .msg storage at the drop";
    EXPECT_EQ(target.received[0].subject, L"Hello");
    EXPECT_EQ(target.received[1].msgOpen, S_OK);
    EXPECT_EQ(target.received[1].subject, L"Offer");
    EXPECT_GT(target.received[0].bytes.size(), 512u);
    EXPECT_EQ(target.received[2].bytes, attachmentBytes);

    // Exactly the saved files: what the target read is what lies on disk.
    for (const ReceivedFile& file : target.received)
        EXPECT_EQ(file.bytes, readBytes(file.path));
    for (size_t i = 0; i < items->size(); ++i)
        EXPECT_TRUE(items->at(i)->isSaved());
}

} // namespace
