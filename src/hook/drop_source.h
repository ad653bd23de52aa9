#pragma once
// Outlook's drop source, wrapped: follows the program under the cursor and,
// when the user releases the button, has the dragged items saved before the
// target reads them.
#include <ole2.h>
#include <wrl/client.h>

#include <memory>
#include <string>

#include "items/dd_item.h"

class MyDropSource final : public IDropSource {
public:
    MyDropSource(IDropSource* inner, std::shared_ptr<DDItems> items);

    // Bit MK_SHIFT of the key state at the last QueryContinueDrag.
    bool shiftHeld() const { return (lastKeyState_ & MK_SHIFT) != 0; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL escapePressed, DWORD keyState) override;
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD effect) override;

private:
    ~MyDropSource() = default;

    LONG references_ = 1;
    Microsoft::WRL::ComPtr<IDropSource> inner_;
    std::shared_ptr<DDItems> items_;
    DWORD lastKeyState_ = 0;
};

// Tells the user, through a balloon of the notification area, that the dragged
// mails could not all be saved (title and text from the resource bundle).
void notifySaveFailed();

// The balloon itself: an error icon with `title` and `text` in the
// notification area, owned by `owner`, for 3000 ms; false when the shell
// refused it. The icon is taken away again once the balloon has had its time.
bool showErrorBalloon(HWND owner, const std::wstring& title, const std::wstring& text);

// The id of that icon beside its owner window.
inline constexpr UINT errorBalloonIconId = 0x4B56;
