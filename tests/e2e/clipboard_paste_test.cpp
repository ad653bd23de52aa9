// Copy and paste between the Outlook stand-in and the target program: with
// CaptureClipboard the add-in puts files on the clipboard, without it the
// paste gets Outlook's own object.
#include "e2e_checks.h"

#include "e2e_shared/sample_mailbox.h"

#include <gtest/gtest.h>

namespace {

TEST(ClipboardPaste, CaptureClipboardPastesTheCopiedMailAsAFile)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({L"CaptureClipboard=true"}, {L"copy:0,9", L"paste"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.step("hooks").value("clipboard"), "1") << "OleSetClipboard's slot was rewritten too";
    const StandInStep copy = outcome.step("copy");
    EXPECT_EQ(copy.value("hr"), hexResult(S_OK));
    EXPECT_EQ(copy.value("outlooksOwnObject"), "0");
    ASSERT_EQ(outcome.received.size(), 1u);
    const DropEvent& paste = outcome.received[0];
    EXPECT_EQ(paste.kind, "paste");
    ASSERT_EQ(paste.files.size(), 2u);
    EXPECT_EQ(lastComponent(paste.files[0].path), L"Quarterly report.msg");
    EXPECT_GT(paste.files[0].size, 512u);
    const std::vector<OutlookEntry> notes = selectSample(L"9");
    EXPECT_EQ(paste.files[1].hash, bytesHash(notes[0].bytes.data(), notes[0].bytes.size()));
}

TEST(ClipboardPaste, WithoutCaptureThePasteGetsOutlooksObject)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"copy:0,9", L"paste"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.step("hooks").value("clipboard"), "0");
    EXPECT_EQ(outcome.step("copy").value("outlooksOwnObject"), "1");
    ASSERT_EQ(outcome.received.size(), 1u);
    EXPECT_TRUE(outcome.received[0].files.empty());
    EXPECT_EQ(outcome.received[0].descriptorNames, (std::vector<std::wstring>{L"Quarterly report.msg", L"notes.txt"}));
}

} // namespace
