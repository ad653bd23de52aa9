// The delay-load fallback on a real module: hook_delay_probe.dll imports
// DoDragDrop and OleSetClipboard delay-loaded, with its delay-import
// directory filled as the MSVC linker fills it, and calls them through its
// delay address table the way compiled code does.
#include "hook/import_hook.h"

#include "hook_test_support.h"

#include "core/log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using ProbeDoDragDrop = HRESULT (*)(IDataObject*, IDropSource*, DWORD, DWORD*);
using ProbeOleSetClipboard = HRESULT (*)(IDataObject*);
using ProbeSlot = void** (*)(const char*);

IDropSource* lastDropSource = nullptr;
IDataObject* lastClipboardObject = nullptr;

HRESULT WINAPI recordingDoDragDrop(IDataObject*, IDropSource* dropSource, DWORD, DWORD*)
{
    lastDropSource = dropSource;
    return DRAGDROP_S_CANCEL;
}

HRESULT WINAPI recordingOleSetClipboard(IDataObject* dataObject)
{
    lastClipboardObject = dataObject;
    return S_OK;
}

class DelayImportHook : public testing::Test {
protected:
    void SetUp() override
    {
        probe = probeModule(L"hook_delay_probe.dll");
        ASSERT_NE(probe, nullptr);
        probeDoDragDrop = reinterpret_cast<ProbeDoDragDrop>(GetProcAddress(probe, "probeDoDragDrop"));
        probeOleSetClipboard = reinterpret_cast<ProbeOleSetClipboard>(GetProcAddress(probe, "probeOleSetClipboard"));
        const auto slotOf = reinterpret_cast<ProbeSlot>(GetProcAddress(probe, "probeDelaySlot"));
        ASSERT_TRUE(probeDoDragDrop && probeOleSetClipboard && slotOf);
        doDragDropSlot = slotOf("DoDragDrop");
        oleSetClipboardSlot = slotOf("OleSetClipboard");
        savedDoDragDrop = slotValue(doDragDropSlot);
        savedOleSetClipboard = slotValue(oleSetClipboardSlot);
        lastDropSource = nullptr;
        lastClipboardObject = nullptr;
    }

    void TearDown() override
    {
        // Back to where the test found them (a thunk, or the bound function).
        if (doDragDropSlot)
            writeProtectedPointer(doDragDropSlot, savedDoDragDrop, "test");
        if (oleSetClipboardSlot)
            writeProtectedPointer(oleSetClipboardSlot, savedOleSetClipboard, "test");
    }

    ImportHookRequest request(const char* functionName, void* newFunction) const
    {
        ImportHookRequest result;
        result.hModule = probe;
        result.functionName = functionName;
        result.newFunction = newFunction;
        return result;
    }

    HookSettings settings;
    LogCapture log{LOG_DEBUG};
    HMODULE probe = nullptr;
    ProbeDoDragDrop probeDoDragDrop = nullptr;
    ProbeOleSetClipboard probeOleSetClipboard = nullptr;
    void** doDragDropSlot = nullptr;
    void** oleSetClipboardSlot = nullptr;
    void* savedDoDragDrop = nullptr;
    void* savedOleSetClipboard = nullptr;
};

TEST_F(DelayImportHook, AnUnboundImportGetsTheReplacementInItsDelaySlot)
{
    // No test calls the probe's DoDragDrop with its thunk in place, so it
    // is still unbound: the slot leads into the probe's binding thunk.
    void* thunk = slotValue(doDragDropSlot);
    ASSERT_EQ(moduleOf(thunk), probe);

    ImportHookRequest hook = request("DoDragDrop", reinterpret_cast<void*>(&recordingDoDragDrop));
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, thunk);
    EXPECT_EQ(slotValue(doDragDropSlot), reinterpret_cast<void*>(&recordingDoDragDrop));

    // The probe's own call now lands in the replacement, not in ole32.
    auto dropSource = TestDropSource::create();
    DWORD effect = 0;
    EXPECT_EQ(probeDoDragDrop(nullptr, dropSource.Get(), DROPEFFECT_COPY, &effect), DRAGDROP_S_CANCEL);
    EXPECT_EQ(lastDropSource, dropSource.Get());

    const std::string text = log.contents();
    EXPECT_NE(text.find("check delay load table of "), std::string::npos);
    EXPECT_NE(text.find("hook_delay_probe.dll"), std::string::npos);
    EXPECT_NE(text.find("Function DoDragDrop found in "), std::string::npos);
    EXPECT_NE(text.find("check delay load table done"), std::string::npos);
}

TEST_F(DelayImportHook, ABoundImportGetsTheReplacementToo)
{
    // The first call binds the import through the delay-load helper.
    probeOleSetClipboard(nullptr);
    ASSERT_EQ(slotValue(oleSetClipboardSlot), systemOleSetClipboard());

    ImportHookRequest hook = request("OleSetClipboard", reinterpret_cast<void*>(&recordingOleSetClipboard));
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, systemOleSetClipboard());

    auto marker = reinterpret_cast<IDataObject*>(&hook);
    EXPECT_EQ(probeOleSetClipboard(marker), S_OK);
    EXPECT_EQ(lastClipboardObject, marker);
}

TEST_F(DelayImportHook, TheDelayTableNeedsTheExactFunctionNameButAnyCaseOfTheDll)
{
    ImportHookRequest lowerCase = request("dodragdrop", reinterpret_cast<void*>(&recordingDoDragDrop));
    EXPECT_EQ(HookDllImportFunction(lowerCase), HookDone);
    EXPECT_EQ(lowerCase.oldFunction, nullptr);
    EXPECT_EQ(slotValue(doDragDropSlot), savedDoDragDrop);

    ImportHookRequest upperDll = request("DoDragDrop", reinterpret_cast<void*>(&recordingDoDragDrop));
    upperDll.importDll = "OLE32.DLL";
    EXPECT_EQ(HookDllImportFunction(upperDll), HookDone);
    EXPECT_EQ(upperDll.oldFunction, savedDoDragDrop);
    EXPECT_EQ(slotValue(doDragDropSlot), reinterpret_cast<void*>(&recordingDoDragDrop));
}

TEST_F(DelayImportHook, HookModuleTouchesOleSetClipboardOnlyWithCaptureClipboard)
{
    settings->setCaptureClipboard(false);
    hookModule(nullptr, probe, true);
    EXPECT_EQ(slotValue(doDragDropSlot), reinterpret_cast<void*>(&MyDoDragDrop));
    EXPECT_EQ(slotValue(oleSetClipboardSlot), savedOleSetClipboard);

    settings->setCaptureClipboard(true);
    hookModule(nullptr, probe, true);
    EXPECT_EQ(slotValue(oleSetClipboardSlot), reinterpret_cast<void*>(&MyOleSetClipboard));

    // Switching off binds both slots to the true functions.
    hookModule(nullptr, probe, false);
    EXPECT_EQ(slotValue(doDragDropSlot), systemDoDragDrop());
    EXPECT_EQ(slotValue(oleSetClipboardSlot), systemOleSetClipboard());
}

} // namespace
