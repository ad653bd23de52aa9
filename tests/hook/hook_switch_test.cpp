// Switching interception on and off in a real process: the test program
// stands for Outlook's executable; none of the Office modules exists under
// Wine, so their loading fails and is only logged.
#include "hook/import_hook.h"

#include "hook_test_support.h"

#include "core/log.h"
#include "common/module_path.h"
#include "common/strings.h"
#include "filedrop/file_drop_state.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>

namespace {

class EnableDragDropTest : public testing::Test {
protected:
    void TearDown() override { EnableDragDrop(false); }

    HookSettings settings;
    LogCapture log{LOG_DEBUG};
};

TEST_F(EnableDragDropTest, OnPatchesTheExecutableAndOffPutsTheTrueFunctionsBack)
{
    settings->setCaptureClipboard(true);
    ASSERT_FALSE(isDragDropEnabled());

    EXPECT_EQ(EnableDragDrop(true), 0u);
    EXPECT_TRUE(isDragDropEnabled());
    EXPECT_EQ(slotValue(&programDoDragDropSlot), reinterpret_cast<void*>(&MyDoDragDrop));
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), reinterpret_cast<void*>(&MyOleSetClipboard));

    EXPECT_EQ(EnableDragDrop(false), 0u);
    EXPECT_FALSE(isDragDropEnabled());
    EXPECT_EQ(slotValue(&programDoDragDropSlot), systemDoDragDrop());
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), systemOleSetClipboard());
}

TEST_F(EnableDragDropTest, TheOfficeModulesAreTriedInOrderEachTime)
{
    settings->setCaptureClipboard(true);
    EnableDragDrop(true);
    EnableDragDrop(false);

    const std::string text = log.contents();
    size_t previous = 0;
    for (const char* name : hookedOfficeModules) {
        const std::string line = std::string("LoadLibrary ...") + name;
        // Two requests per module (DoDragDrop, OleSetClipboard), on and off.
        EXPECT_EQ(occurrences(text, line + "\r\n"), 4u) << name;
        const size_t at = text.find(line);
        EXPECT_GT(at, previous) << name << " out of order";
        previous = at;
    }
    EXPECT_EQ(occurrences(text, "DLL not found."), 20u);
}

TEST_F(EnableDragDropTest, WithCaptureClipboardOffOnlyDoDragDropIsTouched)
{
    settings->setCaptureClipboard(false);
    EnableDragDrop(true);
    EXPECT_EQ(slotValue(&programDoDragDropSlot), reinterpret_cast<void*>(&MyDoDragDrop));
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), systemOleSetClipboard());
    EnableDragDrop(false);

    EXPECT_EQ(log.contents().find("OleSetClipboard"), std::string::npos);
}

TEST_F(EnableDragDropTest, CaptureClipboardSwitchedOffMeanwhileStillGetsTheTrueFunctionBack)
{
    settings->setCaptureClipboard(true);
    EnableDragDrop(true);
    ASSERT_EQ(slotValue(&programOleSetClipboardSlot), reinterpret_cast<void*>(&MyOleSetClipboard));

    settings->setCaptureClipboard(false);
    EnableDragDrop(false);
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), systemOleSetClipboard());
}

TEST_F(EnableDragDropTest, SwitchingOnTwicePatchesOnceAndStartsTheFileDropUnitOnce)
{
    EnableDragDrop(true);
    EnableDragDrop(true);
    EXPECT_EQ(slotValue(&programDoDragDropSlot), reinterpret_cast<void*>(&MyDoDragDrop));

    const std::string text = log.contents();
    const std::string program = wideToUtf8(modulePath(GetModuleHandleW(nullptr), 1000));
    EXPECT_EQ(occurrences(text, "Function DoDragDrop found in " + program), 1u);
    EXPECT_EQ(occurrences(text, " init(\r\n"), 1u);
    EXPECT_EQ(occurrences(text, "EnableDragDrop(enable=1"), 2u);

    EnableDragDrop(false);
    EnableDragDrop(false);
    EXPECT_EQ(occurrences(log.contents(), " done(\r\n"), 1u);
}

TEST_F(EnableDragDropTest, DumpAllModulesReportsImportersAndChangesNothing)
{
    probeModule(L"hook_delay_probe.dll");
    const std::string program = wideToUtf8(modulePath(GetModuleHandleW(nullptr), 1000));

    DumpAllModules();

    EXPECT_EQ(slotValue(&programDoDragDropSlot), systemDoDragDrop());
    const std::string text = log.contents();
    EXPECT_NE(text.find("EnumProcessModules, #modules="), std::string::npos);
    EXPECT_NE(text.find("test find dnd in module[0]"), std::string::npos);
    EXPECT_NE(text.find("Function DoDragDrop found in " + program), std::string::npos);
    EXPECT_NE(text.find("check delay load table of"), std::string::npos);
    EXPECT_EQ(text.find("replace"), std::string::npos);
    EXPECT_NE(text.find(")DumpAllModules"), std::string::npos);
}

// The delayed start switches on from its own thread while Outlook's thread
// switches off (a disconnection) or on (the ribbon). Run against each other
// many times, the flag, the slots and the cleanup worker always agree.
TEST_F(EnableDragDropTest, SwitchesFromTwoThreadsAtOnceEndInOneState)
{
    const LogCapture quieter(LOG_ERROR);
    const auto cleanupRunning = [] {
        FileDrop::FileDropState& state = FileDrop::fileDropState();
        const std::lock_guard<std::mutex> guard(state.cleanupLock);
        return state.cleanupWorker.joinable() && !state.stopped;
    };
    for (int round = 0; round < 100; ++round) {
        std::thread delayedStart([] { EnableDragDrop(true); });
        EnableDragDrop(round % 3 == 0);
        delayedStart.join();
        const bool on = isDragDropEnabled();
        ASSERT_EQ(slotValue(&programDoDragDropSlot) == reinterpret_cast<void*>(&MyDoDragDrop), on) << round;
        ASSERT_EQ(cleanupRunning(), on) << round;
        if (round % 2)
            EnableDragDrop(false);
    }
}

} // namespace
