// What goes wrong on the way: a hostile data object, a target that dies in
// the drop, a temporary folder that can't be used or makes names too long,
// a mail that can't be read. Outlook's drag always ends, its object is left
// as it was, and the log says why.
#include "e2e_checks.h"

#include "common/strings.h"

#include <gtest/gtest.h>

namespace {

TEST(Faults, AHostileDataObjectStillDragsAndNothingCrashes)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"drag:hostile", L"drag:mail:0"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.standInExitCode, 0u) << "Outlook survived";
    const std::vector<StandInStep> drags = stepsNamed(outcome.steps, "drag");
    ASSERT_EQ(drags.size(), 2u);
    EXPECT_EQ(drags[0].value("hr"), hexResult(DRAGDROP_S_DROP)) << "the drag happened";
    EXPECT_EQ(drags[0].number("sourceSetData"), 0);
    ASSERT_EQ(outcome.received.size(), 2u);
    EXPECT_EQ(outcome.received[1].files.size(), 1u) << "and the next drag works as ever";
    EXPECT_EQ(outcome.step("shutdown").value("hr"), hexResult(S_OK));
}

TEST(Faults, ATargetDyingInTheDropEndsTheDragAndOutlookGoesOn)
{
    E2eRun run;
    run.targetOptions = {L"--die-on-drop"};
    // Shift held: a drag that a dead target ended is no move Outlook should make.
    const E2eOutcome outcome = run.run({}, {L"drag-shift:0,9"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.standInExitCode, 0u);
    const StandInStep drag = outcome.step("drag");
    ASSERT_FALSE(drag.name().empty()) << "the drag returned";
    EXPECT_EQ(drag.number("event"), -1) << "the target reported nothing";
    EXPECT_NE(drag.number("effect"), DROPEFFECT_MOVE) << drag.value("hr");
    EXPECT_TRUE(outcome.logHas("drop effect rule: none, no drop")) << "ole32 reported a failure, not a drop";
    EXPECT_EQ(drag.number("sourceSetData"), 0);
    EXPECT_EQ(outcome.step("shutdown").value("hr"), hexResult(S_OK));
    EXPECT_TRUE(outcome.logHas("DRAGDROP_S_DROP")) << "the files were saved before the target was asked";
    EXPECT_TRUE(outcome.logHas("g_DoDragDrop, ret="));
}

TEST(Faults, AnUnusableTemporaryFolderLeavesTheDragToOutlook)
{
    E2eRun run;
    // %TEMP%\Korvane is a file, so no folder can be made there.
    const std::wstring temp = run.folder().file(L"temp");
    CreateDirectoryW(temp.c_str(), nullptr);
    writeBytes(temp + L"\\Korvane", "not a folder");
    run.standInEnvironment = {{L"TEMP", temp}, {L"TMP", temp}};
    const E2eOutcome outcome = run.run({}, {L"drag:0,9"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.step("drag").value("hr"), hexResult(DRAGDROP_S_DROP));
    ASSERT_EQ(outcome.received.size(), 1u);
    EXPECT_TRUE(outcome.received[0].files.empty());
    EXPECT_EQ(outcome.received[0].descriptorNames, (std::vector<std::wstring>{L"Quarterly report.msg", L"notes.txt"}));
    EXPECT_TRUE(outcome.logHas("Cannot create temporary directory=")) << outcome.log.substr(0, 3000);
    EXPECT_TRUE(outcome.logHas("process default DoDragDrop"));
}

TEST(Faults, AMailWhoseStorageCantBeReadLeavesTheDragToOutlook)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"drag:unreadable"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.step("drag").value("hr"), hexResult(DRAGDROP_S_DROP));
    ASSERT_EQ(outcome.received.size(), 1u);
    EXPECT_TRUE(outcome.received[0].files.empty());
    EXPECT_EQ(outcome.received[0].descriptorNames.size(), 3u);
    EXPECT_TRUE(outcome.logHas("process default DoDragDrop"));
}

TEST(Faults, ADeepTemporaryFolderShortensTheNamesToFit)
{
    E2eRun run;
    // 180 characters of folder before "\Korvane\<seconds>\".
    std::wstring temp = run.folder().path();
    while (temp.size() < 180) {
        temp += L"\\deep-folder-level";
        CreateDirectoryW(temp.c_str(), nullptr);
    }
    run.standInEnvironment = {{L"TEMP", temp}, {L"TMP", temp}};
    const E2eOutcome outcome = run.run({}, {L"drag:0,1"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 1u);
    const DropEvent& drop = outcome.received[0];
    ASSERT_EQ(drop.files.size(), 2u);
    for (const ReceivedFile& file : drop.files) {
        EXPECT_LT(file.path.size(), static_cast<size_t>(MAX_PATH)) << wideToUtf8(file.path);
        EXPECT_EQ(file.path.substr(file.path.size() - 4), L".msg");
        EXPECT_GT(file.size, 512u) << "written in full";
    }
    EXPECT_LT(lastComponent(drop.files[1].path).size(), std::wstring(L"Grüße aus Köln – 日本語の件名 ✓.msg").size())
        << "the long subject was cut";
    const std::wstring dragFolder = drop.files[0].path.substr(0, drop.files[0].path.find_last_of(L'\\'));
    EXPECT_EQ(filesIn(dragFolder).size(), 2u) << "written beside and moved, nothing left over";
    EXPECT_TRUE(outcome.logHas("fname already exists or fname too long"));
}

} // namespace
