#pragma once
// What every hook test shares: settings of its own that the hooks read, the
// log, Outlook's drop source, a stand-in for the true DoDragDrop that plays
// the modal drag loop, and the delay-load probe built beside the program.
#include "core/globals.h"
#include "core/log.h"
#include "common/com_ptr.h"
#include "e2e_shared/com_object.h"
#include "hook/drag_entry.h"
#include "support/data_blocks.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The test program's own import slots, by the names the import library gives them.
extern "C" void* programDoDragDropSlot asm("__imp_DoDragDrop");
extern "C" void* programOleSetClipboardSlot asm("__imp_OleSetClipboard");

// A function of ole32's export table, and what a slot holds now.
inline void* systemFunction(const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ole32.dll"), name));
}
inline void* slotValue(void* const* slot)
{
    return *static_cast<void* const volatile*>(slot);
}

// Outlook's drop source: a fixed answer, or the system's rules (Escape
// cancels, no button held drops).
class OutlookDropSource final : public ComObject<IDropSource> {
public:
    static Microsoft::WRL::ComPtr<OutlookDropSource> create(std::optional<HRESULT> answer = {})
    {
        auto source = adoptCom(new OutlookDropSource());
        source->answer = answer;
        return source;
    }
    std::optional<HRESULT> answer;
    int queries = 0;

    HRESULT STDMETHODCALLTYPE QueryContinueDrag(BOOL escapePressed, DWORD keyState) override
    {
        ++queries;
        if (answer)
            return *answer;
        if (escapePressed)
            return DRAGDROP_S_CANCEL;
        return keyState & (MK_LBUTTON | MK_RBUTTON) ? S_OK : DRAGDROP_S_DROP;
    }
    HRESULT STDMETHODCALLTYPE GiveFeedback(DWORD) override { return DRAGDROP_S_USEDEFAULTCURSORS; }

protected:
    bool offers(REFIID riid) const override { return riid == IID_IDropSource; }
};

struct DragCall {
    IDataObject* dataObject;
    IDropSource* dropSource;
    DWORD okEffects;
    DWORD* effect;
};

// Stands in for the true DoDragDrop while it lives: `during` runs inside the
// call, as the modal loop would, and gives its answer (by default a cancel).
class RecordedDoDragDrop {
public:
    using During = std::function<HRESULT(const DragCall&)>;
    explicit RecordedDoDragDrop(During during = {});
    ~RecordedDoDragDrop() { g_DoDragDrop = saved_; }
    RecordedDoDragDrop(const RecordedDoDragDrop&) = delete;
    RecordedDoDragDrop& operator=(const RecordedDoDragDrop&) = delete;

    std::vector<DragCall> calls;
    const During during;

private:
    DoDragDropFunction saved_;
};

// The hooks read this test's settings while it runs.
class HookTest : public testing::Test {
protected:
    HookTest() { setHookSettings(&settings); }
    ~HookTest() override { setHookSettings(nullptr); }

    TestSettingsKeys keys;
    Globals settings{TestSettingsKeys::company, keys.product()};
    LogCapture log{LOG_DEBUG};
};

// hook_delay_probe.dll of bin/hook_probes, loaded for the program's lifetime.
HMODULE delayProbe();
size_t occurrences(const std::string& haystack, const std::string& text);
