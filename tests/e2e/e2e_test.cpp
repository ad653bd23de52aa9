// The add-in as its users meet it: the Outlook stand-in loads it through
// Outlook's add-in key and drags the sample mailbox into the drop target, many
// drags to a run (settings are read afresh by each) to pay Outlook's start once.
#include "e2e_checks.h"
#include "support/storage_tree.h"

#include "common/strings.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_data_object.h"
#include "e2e_shared/sample_mailbox.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::wstring> namesOf(const std::vector<OutlookEntry>& entries)
{
    std::vector<std::wstring> names;
    for (const OutlookEntry& entry : entries)
        names.push_back(entry.fileName);
    return names;
}

// The formats, in order, that Outlook's object offers by itself.
std::vector<std::wstring> outlooksFormats(const std::vector<OutlookEntry>& entries)
{
    std::vector<std::wstring> names;
    Microsoft::WRL::ComPtr<IEnumFORMATETC> formats;
    if (FAILED(OutlookDataObject::create(entries)->EnumFormatEtc(DATADIR_GET, &formats)))
        return names;
    FORMATETC format{};
    while (formats->Next(1, &format, nullptr) == S_OK) {
        wchar_t name[256] = {};
        names.push_back(format.cfFormat == CF_UNICODETEXT ? L"CF_UNICODETEXT"
                        : GetClipboardFormatNameW(format.cfFormat, name, 256) ? std::wstring(name)
                                                                              : L"#" + std::to_wstring(format.cfFormat));
    }
    return names;
}

// Every .msg written is its source, stream for stream, with the delivery time
// as its file time; an encrypted mail arrives decrypted.
void expectMsgFilesAreTheirSources(const DropEvent& drop, const std::vector<OutlookEntry>& mails,
                                   const ScratchFolder& folder)
{
    ASSERT_EQ(drop.files.size(), mails.size());
    for (size_t i = 0; i < mails.size(); ++i) {
        const MsgContent& content = *mails[i].mail;
        SCOPED_TRACE(lastComponent(drop.files[i].path));
        const std::wstring sourcePath = folder.file(L"source" + std::to_wstring(i) + L".msg");
        ASSERT_EQ(writeMsgFile(sourcePath, content), S_OK);
        const auto source = treeOf(openStorageFile(sourcePath).Get());
        const auto written = treeOf(openStorageFile(drop.files[i].path).Get());
        std::vector<std::string> differing;
        for (const auto& [name, element] : source) {
            const auto found = written.find(name);
            if (found == written.end() || found->second != element)
                differing.push_back(name);
        }
        EXPECT_EQ(written.size(), source.size());
        if (content.messageClass.find(L".SMIME") != std::wstring::npos) {
            // Decrypted through Outlook: the class and the security flags changed, nothing else.
            EXPECT_EQ(differing, (std::vector<std::string>{"/__properties_version1.0", "/__substg1.0_001A001F"}));
        } else {
            EXPECT_TRUE(differing.empty()) << "first differing element: " << differing[0];
        }
        EXPECT_EQ(drop.files[i].lastWrite, fileTimeNumber(*content.deliveryTime)) << "file time = delivery time";
    }
}

} // namespace

// A day's work with the default target: every kind of item, each text format,
// copy and paste, the ribbon's switches, and what must not break a drag.
TEST(EndToEnd, EverydayDragsCopiesAndRibbon)
{
    E2eRun run;
    const E2eOutcome outcome = run.run(
        {L"CaptureClipboard=true"},
        {L"ribbon", L"drag:all", L"drag:mails", L"set:TextFormat=json", L"drag:0,5,9", L"set:TextFormat=table",
         L"drag:mails", L"set:TextFormat=none", L"copy:0,9", L"paste", L"drag:hostile", L"drag:unreadable",
         L"press:cbFormat=eml", L"drag:mail:0", L"set:TextFormat=json", L"press:bnOnOff=false", L"drag:small"});
    E2E_REQUIRE_RUN(outcome);
    EXPECT_EQ(outcome.standInExitCode, 0u) << "Outlook survived every drag";
    const std::vector<StandInStep> drags = stepsNamed(outcome.steps, "drag");
    ASSERT_EQ(drags.size(), 8u);
    ASSERT_EQ(outcome.received.size(), 9u);
    for (const StandInStep& drag : drags) {
        EXPECT_EQ(drag.value("hr"), hexResult(DRAGDROP_S_DROP)) << drag.value("selection");
        EXPECT_EQ(drag.number("sourceSetData"), 0) << "Outlook's own object is left as it was";
    }

    // Connected within Outlook's limits, interception a while after the add-in update, the tab there.
    const StandInStep connect = outcome.step("connect");
    EXPECT_EQ(connect.value("progId"), "KVDragDropAddin.class");
    EXPECT_LT(connect.real("onConnectionMs"), 1000.0);
    EXPECT_GE(outcome.step("hooks").real("ms"), 2000.0);
    EXPECT_EQ(outcome.step("hooks").value("clipboard"), "1") << "OleSetClipboard's slot was rewritten too";
    EXPECT_EQ(outcome.step("ribbon").value("controls"), "bnOnOff,ckAlwaysCopy,ckDecrypt,cbFormat,cbTextFormat");

    // Every mail and attachment as a file, in one folder of the add-in's, names made unique and safe.
    const std::vector<OutlookEntry> mailbox = sampleMailbox();
    const DropEvent& all = outcome.received[0];
    EXPECT_TRUE(offersFormat(all, L"CF_HDROP") && offersFormat(all, L"FileGroupDescriptorW"));
    EXPECT_FALSE(all.hasText) << "no text unless the text format asks for it";
    ASSERT_EQ(all.files.size(), mailbox.size());
    const std::vector<std::wstring> names = receivedNames(all);
    EXPECT_EQ(names[1], L"Grüße aus Köln – 日本語の件名 ✓.msg") << "Unicode names stay as they are";
    EXPECT_EQ(names[2], L"Re  offer   draft   final .msg") << "characters a file name can't carry become blanks";
    EXPECT_EQ(names[4], L"Status (1).msg") << "equal subjects get distinct files";
    const std::wstring folder = all.files[0].path.substr(0, all.files[0].path.find_last_of(L'\\'));
    EXPECT_NE(folder.find(L"\\Korvane\\"), std::wstring::npos) << wideToUtf8(folder);
    for (size_t i = 0; i < mailbox.size(); ++i) {
        EXPECT_EQ(all.files[i].path.substr(0, folder.size()), folder);
        EXPECT_TRUE(mailbox[i].isMail() ||
                    all.files[i].hash == bytesHash(mailbox[i].bytes.data(), mailbox[i].bytes.size()))
            << "attachments arrive byte for byte: " << wideToUtf8(names[i]);
    }
    EXPECT_EQ(filesIn(folder).size(), mailbox.size()) << "written beside and moved, nothing left over";
    expectMsgFilesAreTheirSources(outcome.received[1], selectSample(L"mails"), run.folder());

    // The JSON text describes the items, Exchange senders resolved; the table is Outlook's own text.
    const std::wstring& json = outcome.received[2].text;
    EXPECT_EQ(json.rfind(L"{\n  \"items\" : [\n", 0), 0u) << wideToUtf8(json);
    for (const wchar_t* member : {L"\"type\" : \"class MailItem\"", L"\"type\" : \"class AttachmentItem\"",
                                  L"\"subject\" : \"Quarterly report\"", L"\"fileName\" : \"notes.txt\"",
                                  sampleExchangeSmtpAddress})
        EXPECT_NE(json.find(member), std::wstring::npos) << wideToUtf8(member);
    EXPECT_EQ(outcome.received[3].text, OutlookDataObject::tableText(selectSample(L"mails")));

    // A copy puts files on the clipboard; the paste gets them.
    EXPECT_EQ(outcome.step("copy").value("outlooksOwnObject"), "0");
    const DropEvent& paste = outcome.received[4];
    EXPECT_EQ(paste.kind, "paste");
    ASSERT_EQ(paste.files.size(), 2u);
    EXPECT_EQ(lastComponent(paste.files[0].path), L"Quarterly report.msg");
    EXPECT_EQ(paste.files[1].hash, bytesHash(mailbox[9].bytes.data(), mailbox[9].bytes.size()));

    // A mail that can't be read leaves the drag to Outlook; the next drag works as ever.
    EXPECT_TRUE(outcome.received[6].files.empty());
    EXPECT_EQ(outcome.received[6].descriptorNames.size(), 3u);
    EXPECT_TRUE(outcome.logHas("process default DoDragDrop"));

    // The ribbon's format switch makes the next drag .eml.
    ASSERT_EQ(outcome.received[7].files.size(), 1u);
    const std::wstring eml = outcome.received[7].files[0].path;
    EXPECT_EQ(lastComponent(eml), L"Quarterly report.eml");
    EXPECT_NE(readBytes(eml).find("Subject: Quarterly report"), std::string::npos);

    // Switched off on the ribbon: the button redrawn, the target gets exactly Outlook's object.
    const std::vector<StandInStep> presses = stepsNamed(outcome.steps, "press");
    ASSERT_EQ(presses.size(), 2u);
    EXPECT_EQ(presses[1].value("invalidated"), "1") << "Outlook is asked to redraw the button";
    const DropEvent& locked = outcome.received.back();
    const std::vector<OutlookEntry> small = selectSample(L"small");
    EXPECT_EQ(locked.formats, outlooksFormats(small));
    EXPECT_TRUE(locked.files.empty());
    EXPECT_EQ(locked.descriptorNames, namesOf(small)) << "Outlook's names, unchanged";
    EXPECT_EQ(locked.text, OutlookDataObject::tableText(small)) << "Outlook's text, not the add-in's JSON";

    // Disconnected within the limit, the executable's slot restored, nothing logged after the shutdown began.
    const StandInStep shutdown = outcome.step("shutdown");
    EXPECT_LT(shutdown.real("onDisconnectionMs"), 500.0);
    EXPECT_EQ(shutdown.value("slotRestored"), "1");
    const size_t shutdownLine = outcome.log.find("OnBeginShutdown()");
    ASSERT_NE(shutdownLine, std::string::npos);
    EXPECT_EQ(outcome.log.find('\n', shutdownLine), outcome.log.size() - 1) << outcome.log.substr(shutdownLine);
}

// What Outlook is told after the drop decides whether it deletes the mail.
TEST(EndToEnd, DropEffectsOutlookIsTold)
{
    E2eRun movingTarget;
    movingTarget.targetOptions = {L"--effect", L"move"};
    const E2eOutcome moved = movingTarget.run(
        {}, {L"drag:mail:0", L"set:IgnoreTargetEffectIfDroppedIntoOtherApplication=false", L"drag:mail:0",
             L"copy:0,9", L"paste"});
    E2E_REQUIRE_RUN(moved);
    const std::vector<StandInStep> drags = stepsNamed(moved.steps, "drag");
    ASSERT_EQ(drags.size(), 2u);
    EXPECT_EQ(moved.received[0].effect, static_cast<DWORD>(DROPEFFECT_MOVE)) << "the target did move";
    EXPECT_EQ(drags[0].number("effect"), DROPEFFECT_COPY) << "always copy: Outlook keeps its mail";
    EXPECT_EQ(drags[1].number("effect"), DROPEFFECT_MOVE) << "without the rule the move stands";
    // Without CaptureClipboard a paste gets Outlook's own object.
    ASSERT_EQ(moved.received.size(), 3u);
    EXPECT_TRUE(moved.received[2].files.empty());
    EXPECT_EQ(moved.received[2].descriptorNames, (std::vector<std::wstring>{L"Quarterly report.msg", L"notes.txt"}));

    E2eRun refusingTarget;
    refusingTarget.targetOptions = {L"--effect", L"none"};
    const E2eOutcome refused = refusingTarget.run({L"IgnoreTargetEffectIfDroppedIntoOtherApplication=false"},
                                                  {L"drag-shift:mail:0", L"drag:mail:0"});
    E2E_REQUIRE_RUN(refused);
    const std::vector<StandInStep> shifted = stepsNamed(refused.steps, "drag");
    ASSERT_EQ(shifted.size(), 2u);
    EXPECT_EQ(shifted[0].number("effect"), DROPEFFECT_MOVE) << "Shift held at the drop";
    EXPECT_EQ(shifted[1].number("effect"), DROPEFFECT_NONE) << "no Shift, nothing changed";

    E2eRun dyingTarget;
    dyingTarget.targetOptions = {L"--die-on-drop"};
    const E2eOutcome died = dyingTarget.run({}, {L"drag-shift:0,9"});
    E2E_REQUIRE_RUN(died);
    EXPECT_EQ(died.standInExitCode, 0u);
    const StandInStep drag = died.step("drag");
    EXPECT_EQ(drag.number("event"), -1) << "the target reported nothing";
    EXPECT_NE(drag.number("effect"), DROPEFFECT_MOVE) << "a failed drag is no move: " << drag.value("hr");
    EXPECT_TRUE(died.logHas("drop effect rule: none, no drop"));
}

// A temporary folder that can't be used, or is deep enough to cut names, and
// a drag larger than MaxFiles.
TEST(EndToEnd, TemporaryFolderAndLimits)
{
    E2eRun unusable;
    const std::wstring temp = unusable.folder().file(L"temp");
    CreateDirectoryW(temp.c_str(), nullptr);
    writeBytes(temp + L"\\Korvane", "a file where the folder should be");
    unusable.standInEnvironment = {{L"TEMP", temp}, {L"TMP", temp}};
    const E2eOutcome leftToOutlook = unusable.run({}, {L"drag:0,9"});
    E2E_REQUIRE_RUN(leftToOutlook);
    ASSERT_EQ(leftToOutlook.received.size(), 1u);
    EXPECT_TRUE(leftToOutlook.received[0].files.empty());
    EXPECT_EQ(leftToOutlook.received[0].descriptorNames,
              (std::vector<std::wstring>{L"Quarterly report.msg", L"notes.txt"}));
    EXPECT_TRUE(leftToOutlook.logHas("Cannot create temporary directory="));

    E2eRun deep;
    std::wstring deepTemp = deep.folder().path();
    while (deepTemp.size() < 180) {
        deepTemp += L"\\deep-folder-level";
        CreateDirectoryW(deepTemp.c_str(), nullptr);
    }
    deep.standInEnvironment = {{L"TEMP", deepTemp}, {L"TMP", deepTemp}};
    const E2eOutcome limited = deep.run({L"MaxFiles=2"}, {L"drag:0,1", L"drag:0,8,9"});
    E2E_REQUIRE_RUN(limited);
    ASSERT_EQ(limited.received.size(), 2u);
    const DropEvent& cut = limited.received[0];
    ASSERT_EQ(cut.files.size(), 2u) << "a drag of exactly MaxFiles items is exported";
    for (const ReceivedFile& file : cut.files) {
        EXPECT_LT(file.path.size(), static_cast<size_t>(MAX_PATH)) << wideToUtf8(file.path);
        EXPECT_EQ(file.path.substr(file.path.size() - 4), L".msg");
        EXPECT_GT(file.size, 512u) << "written in full";
    }
    EXPECT_LT(lastComponent(cut.files[1].path).size(), std::wstring(L"Grüße aus Köln – 日本語の件名 ✓.msg").size());
    EXPECT_TRUE(limited.received[1].files.empty()) << "a larger drag gets Outlook's object";
    EXPECT_TRUE(limited.logHas("Skip creating HDROP, because more files than maxFiles are selected. #selected=3"));
}
