#pragma once
// What the import-hook and entry-flow tests share: settings of their own for
// the hooks, a recording stand-in for the true DoDragDrop, the program's own
// import slots, and the probe modules built beside the test program.
#include "core/globals.h"
#include "hook/drag_entry.h"
#include "support/scratch.h"

#include <windows.h>
#include <ole2.h>
#include <wrl/client.h>

#include <functional>
#include <memory>
#include <string>

// The test program's own import-address-table slots, by the names the
// import library gives them (independent of the walker under test).
#if defined(_WIN64)
extern "C" void* programDoDragDropSlot asm("__imp_DoDragDrop");
extern "C" void* programOleSetClipboardSlot asm("__imp_OleSetClipboard");
#else
extern "C" void* programDoDragDropSlot asm("__imp__DoDragDrop@16");
extern "C" void* programOleSetClipboardSlot asm("__imp__OleSetClipboard@4");
#endif

// The system's functions, from ole32's export table.
void* systemDoDragDrop();
void* systemOleSetClipboard();

// Settings under a test key that the hooks and replacements read while this lives.
class HookSettings {
public:
    HookSettings();
    ~HookSettings();
    HookSettings(const HookSettings&) = delete;
    HookSettings& operator=(const HookSettings&) = delete;

    Globals& get() { return *settings_; }
    Globals* operator->() { return settings_.get(); }

private:
    TestSettingsKeys keys_;
    std::unique_ptr<Globals> settings_;
};

// One call that reached the stand-in for the true DoDragDrop.
struct DragCall {
    IDataObject* dataObject = nullptr;
    IDropSource* dropSource = nullptr;
    DWORD okEffects = 0;
    DWORD* effect = nullptr;
    IDataObject* currentDragObject = nullptr; // currentDragDataObject() during the call
};

// Puts a recording function in the place of the true DoDragDrop while it
// lives. `during` runs inside the call (as the modal drag loop would) and
// gives the result; by default the drag is cancelled.
class RecordedDoDragDrop {
public:
    using During = std::function<HRESULT(const DragCall&)>;

    explicit RecordedDoDragDrop(During during = {});
    ~RecordedDoDragDrop();
    RecordedDoDragDrop(const RecordedDoDragDrop&) = delete;
    RecordedDoDragDrop& operator=(const RecordedDoDragDrop&) = delete;

    int calls() const { return calls_; }
    const DragCall& last() const { return last_; }

private:
    static HRESULT WINAPI record(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect);
    static RecordedDoDragDrop* current_;

    DoDragDropFunction saved_;
    During during_;
    int calls_ = 0;
    DragCall last_;
};

// A drop source that answers as the system's default one: Escape cancels,
// both buttons up drop.
class TestDropSource : public IDropSource {
public:
    static Microsoft::WRL::ComPtr<TestDropSource> create();
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL escapePressed, DWORD keyState) override;
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD effect) override;

    int queries() const { return queries_; }

private:
    TestDropSource() = default;
    virtual ~TestDropSource() = default;
    LONG references_ = 1;
    int queries_ = 0;
};

// A probe module of bin/hook_probes, loaded for the test program's lifetime.
HMODULE probeModule(const wchar_t* fileName);

// The value of a pointer-sized slot and the protection of its page.
void* slotValue(void* const* slot);
DWORD pageProtection(const void* address);

// The module whose image holds `address`, or null.
HMODULE moduleOf(const void* address);

// The files a data object offers as CF_HDROP, empty when it offers none.
std::vector<std::wstring> droppedFiles(IDataObject* dataObject);

// How many times `text` occurs in `haystack`.
size_t occurrences(const std::string& haystack, const std::string& text);
