// The add-in's life in the stand-in: loaded through Outlook's add-in key,
// connected within Outlook's limits, its ribbon there, and gone cleanly.
#include "e2e_checks.h"

#include <gtest/gtest.h>

namespace {

TEST(Lifecycle, ConnectsWithinOutlooksLimitsAndLeavesNothingHookedBehind)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"ribbon"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.standInExitCode, 0u);
    const StandInStep connect = outcome.step("connect");
    EXPECT_EQ(connect.value("progId"), "KVDragDropAddin.class");
    EXPECT_EQ(connect.value("hr"), hexResult(S_OK));
    EXPECT_LT(connect.real("onConnectionMs"), 1000.0);
    EXPECT_GE(outcome.step("hooks").real("ms"), 2000.0) << "interception starts a while after the add-in update";

    const StandInStep ribbon = outcome.step("ribbon");
    EXPECT_EQ(ribbon.value("hr"), hexResult(S_OK));
    EXPECT_EQ(ribbon.value("controls"), "bnOnOff,ckAlwaysCopy,ckDecrypt,cbFormat,cbTextFormat");

    const StandInStep shutdown = outcome.step("shutdown");
    EXPECT_EQ(shutdown.value("hr"), hexResult(S_OK));
    EXPECT_LT(shutdown.real("onDisconnectionMs"), 500.0);
    EXPECT_EQ(shutdown.value("slotRestored"), "1") << "the executable's DoDragDrop is the system's again";

    // Nothing of the add-in is written after the shutdown began.
    const size_t shutdownLine = outcome.log.find("OnBeginShutdown()");
    ASSERT_NE(shutdownLine, std::string::npos);
    EXPECT_EQ(outcome.log.find('\n', shutdownLine), outcome.log.size() - 1) << outcome.log.substr(shutdownLine);
    EXPECT_TRUE(outcome.logHas("-----------"));
}

TEST(Lifecycle, TheOnOffButtonLocksTheNextDrag)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"press:bnOnOff=false", L"drag:mail:0"});
    E2E_REQUIRE_RUN(outcome);
    const StandInStep press = outcome.step("press");
    EXPECT_EQ(press.value("state"), "false");
    EXPECT_EQ(press.value("invalidated"), "1") << "Outlook is asked to redraw the button";
    ASSERT_EQ(outcome.received.size(), 1u);
    EXPECT_TRUE(outcome.received[0].files.empty()) << "switched off: Outlook's own drag";
}

} // namespace
