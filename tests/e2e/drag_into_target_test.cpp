// Drags from the Outlook stand-in, through the add-in it loaded from the
// registry, into the drop target program: what the target gets under each
// setting, and what Outlook is told afterwards.
#include "e2e_checks.h"
#include "storage_streams.h"

#include "common/strings.h"
#include "e2e_shared/sample_mailbox.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_data_object.h"

#include <gtest/gtest.h>

namespace {

TEST(DragIntoTarget, DefaultSettingsDeliverEveryMailAndAttachmentAsAFile)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"drag:all"});
    E2E_REQUIRE_RUN(outcome);

    const StandInStep drag = outcome.step("drag");
    EXPECT_EQ(drag.value("hr"), hexResult(DRAGDROP_S_DROP));
    EXPECT_EQ(drag.number("effect"), DROPEFFECT_COPY);
    EXPECT_EQ(drag.number("sourceSetData"), 0) << "Outlook's own object is left as it was";
    ASSERT_EQ(outcome.received.size(), 1u);
    const DropEvent& drop = outcome.received[0];
    EXPECT_TRUE(offersFormat(drop, L"CF_HDROP"));
    EXPECT_TRUE(offersFormat(drop, L"FileGroupDescriptorW"));
    EXPECT_TRUE(drop.error.empty()) << drop.error;

    const std::vector<OutlookEntry> mailbox = sampleMailbox();
    ASSERT_EQ(drop.files.size(), mailbox.size());
    const std::vector<std::wstring> names = receivedNames(drop);
    EXPECT_EQ(names[0], L"Quarterly report.msg");
    EXPECT_EQ(names[1], L"Grüße aus Köln – 日本語の件名 ✓.msg") << "Unicode names stay as they are";
    EXPECT_EQ(names[2], L"Re  offer   draft   final .msg") << "characters a file name can't carry become blanks";
    EXPECT_EQ(names[3], L"Status.msg");
    EXPECT_EQ(names[4], L"Status (1).msg") << "equal subjects get distinct files";
    EXPECT_EQ(names[10], L"contract  draft .pdf");

    // Attachments arrive byte for byte, from 0 bytes to the 24 MiB archive.
    for (size_t i = 0; i < mailbox.size(); ++i) {
        if (mailbox[i].isMail()) {
            EXPECT_GT(drop.files[i].size, 512u) << names[i];
            continue;
        }
        EXPECT_EQ(drop.files[i].size, mailbox[i].bytes.size()) << names[i];
        EXPECT_EQ(drop.files[i].hash, bytesHash(mailbox[i].bytes.data(), mailbox[i].bytes.size())) << names[i];
    }
    // All of one drag lie in one folder of the add-in's temporary folder.
    const std::wstring folder = drop.files[0].path.substr(0, drop.files[0].path.find_last_of(L'\\'));
    EXPECT_NE(folder.find(L"\\Korvane\\"), std::wstring::npos) << folder;
    for (const ReceivedFile& file : drop.files)
        EXPECT_EQ(file.path.substr(0, folder.size()), folder);
    EXPECT_FALSE(drop.hasText) << "no text unless the text format asks for it";
}

TEST(DragIntoTarget, EveryWrittenMsgIsItsSourceStreamByStreamWithTheDeliveryTime)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"drag:mails"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 1u);
    const DropEvent& drop = outcome.received[0];
    const std::vector<OutlookEntry> mails = selectSample(L"mails");
    ASSERT_EQ(drop.files.size(), mails.size());

    for (size_t i = 0; i < mails.size(); ++i) {
        const MsgContent& content = *mails[i].mail;
        SCOPED_TRACE(lastComponent(drop.files[i].path));
        const std::wstring sourcePath = run.folder().file(L"source" + std::to_wstring(i) + L".msg");
        ASSERT_EQ(writeMsgFile(sourcePath, content), S_OK);
        std::map<std::wstring, std::string> source, written;
        ASSERT_EQ(readStorageStreams(sourcePath, source), S_OK);
        ASSERT_EQ(readStorageStreams(drop.files[i].path, written), S_OK) << "the file is a compound file";

        std::vector<std::wstring> differing;
        for (const auto& [name, bytes] : source) {
            const auto found = written.find(name);
            if (found == written.end() || found->second != bytes)
                differing.push_back(name);
        }
        EXPECT_EQ(written.size(), source.size());
        if (content.messageClass.find(L".SMIME") != std::wstring::npos) {
            // Decrypted on the way (through Outlook): the class and the
            // security flags among the fixed-size properties changed, nothing else.
            ASSERT_EQ(differing, (std::vector<std::wstring>{L"__properties_version1.0", L"__substg1.0_001A001F"}));
            const std::string& cls = written[L"__substg1.0_001A001F"];
            EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(cls.data()), cls.size() / 2), L"IPM.Note");
        } else {
            EXPECT_TRUE(differing.empty()) << "first differing stream: "
                                           << (differing.empty() ? "" : wideToUtf8(differing[0]));
        }
        EXPECT_EQ(drop.files[i].lastWrite, fileTimeNumber(*content.deliveryTime)) << "file time = delivery time";
    }
}

TEST(DragIntoTarget, JsonTextDescribesTheItemsWithResolvedAddresses)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({L"TextFormat=json"}, {L"drag:0,5,9"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 1u);
    const DropEvent& drop = outcome.received[0];
    ASSERT_EQ(drop.files.size(), 3u);
    ASSERT_TRUE(drop.hasText);
    const std::wstring& json = drop.text;
    EXPECT_EQ(json.rfind(L"{\n  \"items\" : [\n", 0), 0u) << wideToUtf8(json);
    EXPECT_NE(json.find(L"\"type\" : \"class MailItem\""), std::wstring::npos);
    EXPECT_NE(json.find(L"\"type\" : \"class AttachmentItem\""), std::wstring::npos);
    EXPECT_NE(json.find(L"\"subject\" : \"Quarterly report\""), std::wstring::npos);
    EXPECT_NE(json.find(L"\"fileName\" : \"notes.txt\""), std::wstring::npos);
    // The Exchange sender is asked of Outlook's address book.
    EXPECT_NE(json.find(sampleExchangeSmtpAddress), std::wstring::npos) << wideToUtf8(json);
    EXPECT_TRUE(outcome.logHas("add JSON text"));
}

TEST(DragIntoTarget, TableTextIsOutlooksOwnText)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({L"TextFormat=table"}, {L"drag:mails"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 1u);
    ASSERT_TRUE(outcome.received[0].hasText);
    EXPECT_EQ(outcome.received[0].text, OutlookDataObject::tableText(selectSample(L"mails")));
    EXPECT_EQ(outcome.received[0].files.size(), 8u);
}

TEST(DragIntoTarget, MaxFilesExportsUpToTheLimitAndLeavesLargerDragsToOutlook)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({L"MaxFiles=2"}, {L"drag:0,8", L"drag:0,8,9"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 2u);
    EXPECT_EQ(outcome.received[0].files.size(), 2u) << "a drag of exactly MaxFiles items is exported";
    EXPECT_TRUE(outcome.received[1].files.empty()) << "a larger one gets Outlook's object";
    EXPECT_EQ(outcome.received[1].descriptorNames,
              (std::vector<std::wstring>{L"Quarterly report.msg", L"empty.txt", L"notes.txt"}));
    EXPECT_TRUE(outcome.logHas("Skip creating HDROP, because more files than maxFiles are selected. #selected=3"));
}

TEST(DragIntoTarget, LockedGivesTheTargetExactlyOutlooksObject)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({L"Locked=true", L"TextFormat=json"}, {L"drag:small"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 1u);
    const DropEvent& drop = outcome.received[0];

    // The formats, in order, that Outlook's object offers by itself.
    const std::vector<OutlookEntry> entries = selectSample(L"small");
    auto outlook = OutlookDataObject::create(entries);
    std::vector<std::wstring> expected;
    Microsoft::WRL::ComPtr<IEnumFORMATETC> formats;
    ASSERT_EQ(outlook->EnumFormatEtc(DATADIR_GET, &formats), S_OK);
    FORMATETC format{};
    while (formats->Next(1, &format, nullptr) == S_OK) {
        wchar_t name[256] = {};
        expected.push_back(format.cfFormat == CF_UNICODETEXT ? L"CF_UNICODETEXT"
                           : GetClipboardFormatNameW(format.cfFormat, name, 256) ? std::wstring(name)
                                                                                 : L"#" + std::to_wstring(format.cfFormat));
    }
    EXPECT_EQ(drop.formats, expected);
    EXPECT_TRUE(drop.files.empty());
    std::vector<std::wstring> names;
    for (const OutlookEntry& entry : entries)
        names.push_back(entry.fileName);
    EXPECT_EQ(drop.descriptorNames, names) << "Outlook's names, unchanged";
    EXPECT_EQ(drop.text, OutlookDataObject::tableText(entries)) << "Outlook's text, not the add-in's JSON";
    EXPECT_TRUE(outcome.logHas("Start DoDragDrop, locked=1"));
    EXPECT_TRUE(outcome.logHas("process default DoDragDrop"));
}

TEST(DragIntoTarget, AlwaysCopyTellsOutlookCopyWhenTheTargetMoved)
{
    E2eRun run;
    run.targetOptions = {L"--effect", L"move"};
    const E2eOutcome outcome = run.run({}, {L"drag:mail:0"});
    E2E_REQUIRE_RUN(outcome);
    ASSERT_EQ(outcome.received.size(), 1u);
    EXPECT_EQ(outcome.received[0].effect, static_cast<DWORD>(DROPEFFECT_MOVE)) << "the target did move";
    EXPECT_EQ(outcome.step("drag").number("effect"), DROPEFFECT_COPY) << "Outlook keeps its mail";
    EXPECT_TRUE(outcome.logHas("Set drop effect to COPY, it was MOVE"));

    E2eRun without;
    without.targetOptions = {L"--effect", L"move"};
    const E2eOutcome moved =
        without.run({L"IgnoreTargetEffectIfDroppedIntoOtherApplication=false"}, {L"drag:mail:0"});
    E2E_REQUIRE_RUN(moved);
    EXPECT_EQ(moved.step("drag").number("effect"), DROPEFFECT_MOVE) << "without the rule the move stands";
}

TEST(DragIntoTarget, ShiftTurnsAnEmptyEffectIntoAMove)
{
    E2eRun run;
    run.targetOptions = {L"--effect", L"none"};
    const E2eOutcome outcome = run.run({L"IgnoreTargetEffectIfDroppedIntoOtherApplication=false"},
                                       {L"drag-shift:mail:0", L"drag:mail:0"});
    E2E_REQUIRE_RUN(outcome);
    const std::vector<StandInStep> drags = stepsNamed(outcome.steps, "drag");
    ASSERT_EQ(drags.size(), 2u);
    EXPECT_EQ(drags[0].value("hr"), hexResult(DRAGDROP_S_DROP));
    EXPECT_EQ(drags[0].number("effect"), DROPEFFECT_MOVE) << "Shift held at the drop";
    EXPECT_EQ(drags[1].number("effect"), DROPEFFECT_NONE) << "no Shift, nothing changed";
    EXPECT_TRUE(outcome.logHas("correct drop effect to DROPEFFECT_MOVE"));
}

TEST(DragIntoTarget, TheRibbonsFormatSwitchMakesTheNextDragEml)
{
    E2eRun run;
    const E2eOutcome outcome = run.run({}, {L"drag:mail:0", L"press:cbFormat=eml", L"drag:mail:0"});
    E2E_REQUIRE_RUN(outcome);
    const StandInStep press = outcome.step("press");
    EXPECT_EQ(press.value("hr"), hexResult(S_OK));
    EXPECT_EQ(press.value("state"), "eml") << "the ribbon shows the new format";
    ASSERT_EQ(outcome.received.size(), 2u);
    ASSERT_EQ(outcome.received[0].files.size(), 1u);
    ASSERT_EQ(outcome.received[1].files.size(), 1u);
    EXPECT_EQ(lastComponent(outcome.received[0].files[0].path), L"Quarterly report.msg");
    const std::wstring eml = outcome.received[1].files[0].path;
    EXPECT_EQ(lastComponent(eml), L"Quarterly report.eml");
    const std::string text = readBytes(eml);
    EXPECT_NE(text.find("Subject: Quarterly report"), std::string::npos) << text.substr(0, 400);
    EXPECT_NE(text.find("carl.berg@korvane.example"), std::string::npos);
}

} // namespace
