// The replacement DoDragDrop and OleSetClipboard with Outlook-shaped data objects;
// a recording stand-in for the true DoDragDrop plays the modal loop as a target would.
#include "hook_fixture.h"

#include "filedrop/file_drop.h"
#include "dataobject/drop_target_tracker.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/child_process.h"
#include "support/injected_fault.h"

namespace {

using Microsoft::WRL::ComPtr;

const std::string compoundFileSignature("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);

class DragEntry : public HookTest {
protected:
    // The cursor stays where a new drag starts looking (0,0), so the tracker
    // leaves the target each case sets alone.
    DragEntry()
    {
        SetCursorPos(0, 0);
        FileDrop::init();
    }
    ~DragEntry() override { FileDrop::done(); }

    static ComPtr<OutlookDataObject> mailAndAttachments()
    {
        MsgContent mail;
        mail.subject = L"Hello";
        mail.body = L"Hello there";
        return OutlookDataObject::create({OutlookEntry::mailItem(L"Hello.msg", mail),
                                          OutlookEntry::attachment(L"notes.txt", "first file"),
                                          OutlookEntry::attachment(L"plan.txt", "second")});
    }

    // The user lets go over another program, which reports `reported`.
    static RecordedDoDragDrop::During dropWith(DWORD keyState, DWORD reported)
    {
        return [=](const DragCall& call) {
            dropTargetState().droppedIntoOtherApplication = true;
            *call.effect = reported;
            return call.dropSource->QueryContinueDrag(FALSE, keyState);
        };
    }

    ComPtr<OutlookDropSource> outlookDropSource = OutlookDropSource::create();
};

TEST_F(DragEntry, TheFilesAreCompleteWhenTheTargetReadsThem)
{
    struct Case {
        const char* what;
        bool saveOnBeginDrag, firefox, writtenAtStart;
    };
    const Case cases[] = {
        {"prepared at the start, written at the drop", false, false, false},
        {"SaveOnBeginDrag: written at the start", true, false, true},
        {"a running Firefox reads during the drag: written at the start", false, true, true},
    };
    for (const Case& c : cases) {
        settings.setSaveOnBeginDrag(c.saveOnBeginDrag);
        std::optional<ChildProcess> firefox;
        if (c.firefox) {
            // A program named firefox.exe; the process list needs a moment to
            // show it, and under load Wine now and then loses a starting process.
            for (int attempt = 0; attempt < 3 && !isFirefoxRunning(settings); ++attempt) {
                firefox.emplace(quoted(testProgramFolder() + L"\\hook_probes\\firefox.exe"), nullptr);
                for (int i = 0; i < 50 && !isFirefoxRunning(settings); ++i)
                    Sleep(100);
            }
            ASSERT_TRUE(isFirefoxRunning(settings));
        }
        auto outlook = mailAndAttachments();
        std::vector<std::wstring> offered;
        std::vector<std::string> atStart, atDrop;
        RecordedDoDragDrop recorded([&](const DragCall& call) {
            offered = droppedFiles(call.dataObject);
            for (const auto& file : offered)
                atStart.push_back(readBytes(file));
            const HRESULT answer = call.dropSource->QueryContinueDrag(FALSE, 0);
            for (const auto& file : offered)
                atDrop.push_back(readBytes(file));
            *call.effect = DROPEFFECT_COPY;
            return answer;
        });
        DWORD effect = 0;
        EXPECT_EQ(MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &effect), DRAGDROP_S_DROP);
        ASSERT_EQ(offered.size(), 3u) << c.what;
        EXPECT_EQ(offered[0].substr(offered[0].find_last_of(L'\\')), L"\\Hello.msg");
        EXPECT_EQ(offered[2].substr(offered[2].find_last_of(L'\\')), L"\\plan.txt");
        EXPECT_EQ(atDrop[0].substr(0, 8), compoundFileSignature) << c.what;
        EXPECT_EQ(std::vector<std::string>(atDrop.begin() + 1, atDrop.end()),
                  (std::vector<std::string>{"first file", "second"}));
        if (c.writtenAtStart) {
            EXPECT_EQ(atStart, atDrop) << c.what;
        } else {
            // Of their final size (a mail: one byte) for a target that looks early.
            EXPECT_EQ(atStart, (std::vector<std::string>{std::string(1, '\0'), std::string(10, '\0'),
                                                          std::string(6, '\0')}));
        }
    }
    forgetFirefoxAnswer();
}

// What Outlook is told decides whether it deletes the mail: "always copy"
// makes a drop into another program a copy; without it, Shift held over a
// drop that reports nothing is a move. Only a drop is corrected.
TEST_F(DragEntry, TheEffectIsCorrectedAfterADropOnly)
{
    struct Case {
        bool alwaysCopy;
        DWORD keyState;
        bool intoOtherProgram;
        HRESULT dragResult;
        DWORD reported, told;
        const char* rule;
    };
    const Case cases[] = {
        {true, 0, true, DRAGDROP_S_DROP, DROPEFFECT_MOVE, DROPEFFECT_COPY, "Set drop effect to COPY, it was MOVE"},
        {true, 0, true, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_COPY, "rule: always copy"},
        {true, 0, false, DRAGDROP_S_DROP, DROPEFFECT_MOVE, DROPEFFECT_MOVE, "rule: always copy, ret=262400, effect MOVE"},
        {true, MK_SHIFT, false, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: always copy"},
        {false, MK_SHIFT, true, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_MOVE, "correct drop effect to DROPEFFECT_MOVE"},
        {false, 0, true, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: Shift means move, ret=262400"},
        // Esc with Shift held, or a failed drag: ole32's answer as it stands.
        {false, MK_SHIFT, true, DRAGDROP_S_CANCEL, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: none, no drop, ret=262401"},
        {true, 0, true, DRAGDROP_S_CANCEL, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: none, no drop, ret=262401"},
        {false, MK_SHIFT, true, E_OUTOFMEMORY, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: none, no drop, ret=-2147024882"},
    };
    auto outlook = mailAndAttachments();
    for (const Case& c : cases) {
        settings.setIgnoreTargetEffectIfDroppedIntoOtherApplication(c.alwaysCopy);
        LogCapture caseLog(LOG_INFO);
        RecordedDoDragDrop recorded([&](const DragCall& call) {
            call.dropSource->QueryContinueDrag(c.dragResult == DRAGDROP_S_CANCEL, c.keyState | MK_LBUTTON);
            dropTargetState().droppedIntoOtherApplication = c.intoOtherProgram;
            *call.effect = c.reported;
            return c.dragResult;
        });
        DWORD effect = 0;
        EXPECT_EQ(MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect),
                  c.dragResult);
        EXPECT_EQ(effect, c.told) << c.rule;
        EXPECT_NE(caseLog.contents().find(c.rule), std::string::npos) << caseLog.contents();
    }
}

// Whenever the add-in stands aside, or fails before the true DoDragDrop ran,
// Outlook's own drag happens with Outlook's own objects and answer.
TEST_F(DragEntry, OutlooksOwnDragRunsWhenTheAddinStandsAside)
{
    struct Case {
        const char* what;
        bool locked, brokenContents, onlyCopy;
        const char* fault;
        bool outlooksObjects;
        DWORD reported, told; // by the target in another program, to Outlook
    };
    const Case cases[] = {
        {"Locked", true, false, false, nullptr, true, DROPEFFECT_MOVE, DROPEFFECT_MOVE},
        {"no files can be made", false, true, false, nullptr, true, DROPEFFECT_MOVE, DROPEFFECT_MOVE},
        {"an exception before the drag", false, false, false, "MyDoDragDrop", true, DROPEFFECT_MOVE, DROPEFFECT_MOVE},
        {"an exception before a copy-only drag", false, false, true, "MyDoDragDrop", true, DROPEFFECT_MOVE,
         DROPEFFECT_MOVE},
        {"an exception after the drag", false, false, false, "MyDoDragDrop after the drag", false, DROPEFFECT_COPY,
         DROPEFFECT_COPY},
        {"copy only, taken part", false, false, true, nullptr, false, DROPEFFECT_MOVE, DROPEFFECT_COPY},
    };
    for (const Case& c : cases) {
        settings.setLocked(c.locked);
        OutlookEntry entry = OutlookEntry::attachment(L"locked.txt", "secret");
        if (c.brokenContents)
            entry.contentsResult = STG_E_ACCESSDENIED;
        auto outlook = OutlookDataObject::create({entry});
        std::optional<InjectedFault> fault;
        if (c.fault)
            fault.emplace(c.fault);
        RecordedDoDragDrop recorded(dropWith(0, c.reported));
        DWORD effect = 0;
        const DWORD allowed = DROPEFFECT_COPY | DROPEFFECT_MOVE;
        const HRESULT hr = c.onlyCopy ? MyDoDragDropOnlyCopyAllowed(outlook.Get(), outlookDropSource.Get(), allowed, &effect)
                                      : MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), allowed, &effect);
        EXPECT_EQ(hr, DRAGDROP_S_DROP) << c.what;
        ASSERT_EQ(recorded.calls.size(), 1u) << c.what;
        EXPECT_EQ(recorded.calls[0].dataObject == outlook.Get(), c.outlooksObjects) << c.what;
        EXPECT_EQ(recorded.calls[0].dropSource == outlookDropSource.Get(), c.outlooksObjects) << c.what;
        EXPECT_EQ(recorded.calls[0].okEffects, c.onlyCopy ? DWORD(DROPEFFECT_COPY) : allowed) << c.what;
        EXPECT_EQ(effect, c.told) << c.what;
    }
    EXPECT_EQ(occurrences(log.contents(), " failed with an exception: std::bad_alloc"), 3u);
}

// A drop target inside Outlook may start a drag of its own within ours.
TEST_F(DragEntry, ADragStartedDuringADragGoesThroughUntouched)
{
    auto outer = mailAndAttachments();
    auto inner = mailAndAttachments();
    RecordedDoDragDrop recorded([&](const DragCall& call) {
        DWORD innerEffect = 0;
        if (call.dataObject != inner.Get())
            MyDoDragDrop(inner.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &innerEffect);
        return DRAGDROP_S_CANCEL;
    });
    DWORD effect = 0;
    MyDoDragDrop(outer.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &effect);
    ASSERT_EQ(recorded.calls.size(), 2u);
    EXPECT_EQ(recorded.calls[1].dataObject, inner.Get());
}

// The drag folder removed or made read-only between the drag's start and the
// drop: removed, the drop fails and no file appears under a given name;
// read-only, the drop gets complete files. Nothing is left beside them.
TEST_F(DragEntry, ADragFolderChangedBeforeTheDropEndsCleanly)
{
    for (const bool removed : {true, false}) {
        auto outlook = mailAndAttachments();
        std::vector<std::wstring> offered;
        RecordedDoDragDrop recorded([&](const DragCall& call) {
            offered = droppedFiles(call.dataObject);
            if (removed)
                deleteTree(FileDrop::tempDir());
            else
                SetFileAttributesW(offered.at(0).substr(0, offered[0].find_last_of(L'\\')).c_str(),
                                   FILE_ATTRIBUTE_READONLY);
            return dropWith(0, DROPEFFECT_COPY)(call);
        });
        LogCapture caseLog(LOG_ERROR);
        DWORD effect = DROPEFFECT_NONE;
        const HRESULT hr = MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &effect);
        ASSERT_EQ(offered.size(), 3u);
        if (removed) {
            EXPECT_EQ(hr, E_FAIL);
            for (const std::wstring& file : offered)
                EXPECT_FALSE(fileExists(file));
            EXPECT_NE(caseLog.contents().find("cannot create a file beside \""), std::string::npos);
        } else {
            EXPECT_EQ(hr, DRAGDROP_S_DROP);
            EXPECT_EQ(readBytes(offered[2]), "second");
            EXPECT_EQ(filesIn(offered[0].substr(0, offered[0].find_last_of(L'\\'))).size(), 3u);
            EXPECT_EQ(caseLog.contents().find("failed"), std::string::npos) << caseLog.contents();
        }
    }
}

// Against Wine's real OLE clipboard (a copy that gives files is end to end):
// when the add-in stands aside, a paste finds Outlook's own object.
TEST_F(DragEntry, ACopyLeavesOutlooksObjectOnTheClipboardWhenTheAddinStandsAside)
{
    struct Case {
        const char* what;
        bool locked, brokenContents, empty;
    };
    const Case cases[] = {
        {"Locked", true, false, false},
        {"no files can be made", false, true, false},
        {"Outlook empties the clipboard", false, false, true},
    };
    for (const Case& c : cases) {
        settings.setLocked(c.locked);
        OutlookEntry pdf = OutlookEntry::attachment(L"offer.pdf", "%PDF-1.4 offer");
        if (c.brokenContents)
            pdf.contentsResult = STG_E_ACCESSDENIED;
        auto outlook = OutlookDataObject::create({pdf});
        EXPECT_EQ(MyOleSetClipboard(c.empty ? nullptr : outlook.Get()), S_OK) << c.what;

        ComPtr<IDataObject> pasted;
        ASSERT_EQ(OleGetClipboard(&pasted), S_OK);
        EXPECT_TRUE(droppedFiles(pasted.Get()).empty()) << c.what;
        EXPECT_EQ(OleIsCurrentClipboard(outlook.Get()), c.empty ? S_FALSE : S_OK) << c.what;
        FORMATETC text{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
        EXPECT_EQ(pasted->QueryGetData(&text) == S_OK, !c.empty) << "Outlook's text still pastes";
    }
    OleSetClipboard(nullptr);
}

} // namespace
