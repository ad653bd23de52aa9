// The replacement DoDragDrop with an Outlook-shaped data object and a
// recording stand-in for the true DoDragDrop, which plays the modal drag
// loop: it asks the drop source what it would ask, as the system does, and
// answers with the effect a target would report.
#include "hook/drag_entry.h"

#include "hook_test_support.h"

#include "core/log.h"
#include "filedrop/file_drop.h"
#include "dataobject/drop_target_tracker.h"
#include "support/injected_fault.h"
#include "e2e_shared/outlook_data_object.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Microsoft::WRL::ComPtr;

class DragEntry : public testing::Test {
protected:
    void SetUp() override
    {
        FileDrop::init();
        settings->setLocked(false);
        settings->setSaveOnBeginDrag(false);
        settings->setIgnoreTargetEffectIfDroppedIntoOtherApplication(false);
        settings->setTextFormat(L"none");
    }
    void TearDown() override { FileDrop::done(); }

    static ComPtr<OutlookDataObject> twoAttachments()
    {
        return OutlookDataObject::create(
            {OutlookEntry::attachment(L"notes.txt", "first file"), OutlookEntry::attachment(L"plan.txt", "second")});
    }

    // The user releases the button over the target (with `keyState` held),
    // the target reports `reported`.
    static RecordedDoDragDrop::During dropWith(DWORD keyState, DWORD reported, bool intoOtherProgram)
    {
        return [=](const DragCall& call) {
            EXPECT_EQ(call.dropSource->QueryContinueDrag(FALSE, keyState), DRAGDROP_S_DROP);
            dropTargetState().droppedIntoOtherApplication = intoOtherProgram;
            *call.effect = reported;
            return DRAGDROP_S_DROP;
        };
    }

    HookSettings settings;
    LogCapture log{LOG_DEBUG};
    ComPtr<TestDropSource> outlookDropSource = TestDropSource::create();
};

TEST_F(DragEntry, LockedHandsOutlooksVeryObjectsToTheTrueDoDragDrop)
{
    settings->setLocked(true);
    settings->setIgnoreTargetEffectIfDroppedIntoOtherApplication(true);
    auto outlook = twoAttachments();
    RecordedDoDragDrop recorded(dropWith(0, DROPEFFECT_MOVE, true));

    DWORD effect = 0;
    const HRESULT result =
        MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);

    EXPECT_EQ(result, DRAGDROP_S_DROP);
    ASSERT_EQ(recorded.calls(), 1);
    EXPECT_EQ(recorded.last().dataObject, outlook.Get());
    EXPECT_EQ(recorded.last().dropSource, outlookDropSource.Get());
    EXPECT_EQ(recorded.last().okEffects, static_cast<DWORD>(DROPEFFECT_COPY | DROPEFFECT_MOVE));
    EXPECT_EQ(recorded.last().effect, &effect);
    // Not even read, and the target's answer untouched.
    EXPECT_EQ(outlook->getDataCalls(L"FileGroupDescriptorW"), 0u);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_MOVE));

    const std::string text = log.contents();
    EXPECT_NE(text.find("Start DoDragDrop, locked=1 ------------"), std::string::npos);
    EXPECT_NE(text.find("process default DoDragDrop"), std::string::npos);
    EXPECT_NE(text.find("End DoDragDrop, success=1, cancel=0 ------------"), std::string::npos);
}

TEST_F(DragEntry, ADragOfOutlookItemsOffersRealFilesThatAreWrittenAtTheDrop)
{
    auto outlook = twoAttachments();
    std::vector<std::wstring> offered;
    std::vector<std::string> beforeDrop, afterDrop;
    RecordedDoDragDrop recorded([&](const DragCall& call) {
        offered = droppedFiles(call.dataObject);
        for (const auto& file : offered)
            beforeDrop.push_back(readBytes(file));
        EXPECT_EQ(call.dropSource->QueryContinueDrag(FALSE, 0), DRAGDROP_S_DROP);
        for (const auto& file : offered)
            afterDrop.push_back(readBytes(file));
        *call.effect = DROPEFFECT_COPY;
        return DRAGDROP_S_DROP;
    });

    DWORD effect = 0;
    EXPECT_EQ(MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect),
              DRAGDROP_S_DROP);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY));

    ASSERT_EQ(recorded.calls(), 1);
    const DragCall& call = recorded.last();
    EXPECT_NE(call.dataObject, outlook.Get());
    EXPECT_EQ(call.currentDragObject, call.dataObject);
    EXPECT_NE(call.dropSource, outlookDropSource.Get());
    EXPECT_EQ(outlookDropSource->queries(), 1) << "Outlook's drop source answers through the wrapper";
    EXPECT_EQ(call.okEffects, static_cast<DWORD>(DROPEFFECT_COPY | DROPEFFECT_MOVE));
    EXPECT_EQ(currentDragDataObject(), nullptr) << "released when the drag is over";

    ASSERT_EQ(offered.size(), 2u);
    EXPECT_EQ(offered[0].substr(offered[0].size() - 9), L"notes.txt");
    EXPECT_EQ(offered[1].substr(offered[1].size() - 8), L"plan.txt");
    // Prepared at the start (of their final size), written at the drop.
    EXPECT_EQ(beforeDrop, (std::vector<std::string>{std::string(10, '\0'), std::string(6, '\0')}));
    EXPECT_EQ(afterDrop, (std::vector<std::string>{"first file", "second"}));
}

TEST_F(DragEntry, SaveOnBeginDragWritesTheFilesBeforeTheDragStarts)
{
    settings->setSaveOnBeginDrag(true);
    auto outlook = twoAttachments();
    std::vector<std::string> atStart;
    RecordedDoDragDrop recorded([&](const DragCall& call) {
        for (const auto& file : droppedFiles(call.dataObject))
            atStart.push_back(readBytes(file));
        return DRAGDROP_S_CANCEL;
    });
    DWORD effect = 0;
    EXPECT_EQ(MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &effect), DRAGDROP_S_CANCEL);
    EXPECT_EQ(atStart, (std::vector<std::string>{"first file", "second"}));
    EXPECT_NE(log.contents().find("End DoDragDrop, success=0, cancel=1 ------------"), std::string::npos);
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
        {true, 0, false, DRAGDROP_S_DROP, DROPEFFECT_MOVE, DROPEFFECT_MOVE, "rule: always copy, ret=262400, effect MOVE"},
        {true, MK_SHIFT, false, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: always copy"},
        {false, MK_SHIFT, true, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_MOVE, "correct drop effect to DROPEFFECT_MOVE"},
        {false, 0, true, DRAGDROP_S_DROP, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: Shift means move, ret=262400"},
        // Esc with Shift held, or a failed drag: ole32's answer as it stands.
        {false, MK_SHIFT, true, DRAGDROP_S_CANCEL, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: none, no drop, ret=262401"},
        {true, 0, true, DRAGDROP_S_CANCEL, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: none, no drop, ret=262401"},
        {false, MK_SHIFT, true, E_OUTOFMEMORY, DROPEFFECT_NONE, DROPEFFECT_NONE, "rule: none, no drop, ret=-2147024882"},
    };
    auto outlook = twoAttachments();
    for (const Case& c : cases) {
        settings->setIgnoreTargetEffectIfDroppedIntoOtherApplication(c.alwaysCopy);
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

TEST_F(DragEntry, OnlyCopyAllowedPassesOnlyCopy)
{
    auto outlook = twoAttachments();
    RecordedDoDragDrop recorded;
    DWORD effect = 0;
    MyDoDragDropOnlyCopyAllowed(outlook.Get(), outlookDropSource.Get(),
                                DROPEFFECT_MOVE | DROPEFFECT_COPY | DROPEFFECT_LINK, &effect);
    ASSERT_EQ(recorded.calls(), 1);
    EXPECT_EQ(recorded.last().okEffects, static_cast<DWORD>(DROPEFFECT_COPY));
    EXPECT_NE(recorded.last().dataObject, outlook.Get()) << "the add-in took part";
}

TEST_F(DragEntry, WhenTheFilesCannotBeMadeOutlooksOwnDragRuns)
{
    OutlookEntry broken = OutlookEntry::attachment(L"locked.txt", "secret");
    broken.contentsResult = STG_E_ACCESSDENIED;
    auto outlook = OutlookDataObject::create({broken});
    RecordedDoDragDrop recorded(dropWith(MK_SHIFT, DROPEFFECT_NONE, true));

    DWORD effect = 0;
    EXPECT_EQ(MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &effect), DRAGDROP_S_DROP);
    ASSERT_EQ(recorded.calls(), 1);
    EXPECT_EQ(recorded.last().dataObject, outlook.Get());
    EXPECT_EQ(recorded.last().dropSource, outlookDropSource.Get());
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_NONE)) << "no correction for Outlook's own drag";
    EXPECT_NE(log.contents().find("process default DoDragDrop"), std::string::npos);
}

TEST_F(DragEntry, ADragStartedDuringADragGoesThroughUntouched)
{
    auto outer = twoAttachments();
    auto inner = twoAttachments();
    IDataObject* innerSeen = nullptr;
    RecordedDoDragDrop recorded([&](const DragCall& call) {
        if (call.dataObject == inner.Get()) {
            innerSeen = call.dataObject;
            return DRAGDROP_S_CANCEL;
        }
        DWORD innerEffect = 0;
        MyDoDragDrop(inner.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &innerEffect);
        return DRAGDROP_S_CANCEL;
    });
    DWORD effect = 0;
    MyDoDragDrop(outer.Get(), outlookDropSource.Get(), DROPEFFECT_COPY, &effect);
    EXPECT_EQ(recorded.calls(), 2);
    EXPECT_EQ(innerSeen, inner.Get());
}

TEST_F(DragEntry, AnExceptionOfOursLeavesOutlooksOwnDragToHappen)
{
    struct Case {
        const char* point;
        bool onlyCopy;
        bool outlooksObjects; // false: the drag with ours had run, its answer stands
    };
    const Case cases[] = {
        {"MyDoDragDrop", false, true},
        {"MyDoDragDrop", true, true},
        {"MyDoDragDrop after the drag", false, false},
    };
    auto outlook = twoAttachments();
    for (const Case& c : cases) {
        const InjectedFault fault(c.point);
        RecordedDoDragDrop recorded(dropWith(0, DROPEFFECT_COPY, true));
        DWORD effect = 0;
        const DWORD allowed = DROPEFFECT_COPY | DROPEFFECT_MOVE;
        const HRESULT hr = c.onlyCopy
                               ? MyDoDragDropOnlyCopyAllowed(outlook.Get(), outlookDropSource.Get(), allowed, &effect)
                               : MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), allowed, &effect);
        EXPECT_EQ(hr, DRAGDROP_S_DROP) << c.point;
        ASSERT_EQ(recorded.calls(), 1) << c.point;
        EXPECT_EQ(recorded.last().dataObject == outlook.Get(), c.outlooksObjects) << c.point;
        EXPECT_EQ(recorded.last().okEffects, c.onlyCopy ? DWORD(DROPEFFECT_COPY) : allowed) << c.point;
        EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY));
    }
    EXPECT_EQ(occurrences(log.contents(), " failed with an exception: std::bad_alloc"), 3u);
}

// The drag folder removed (the temporary folder cleaned out) or made
// read-only between the start of the drag and the drop. Removed, the drop
// into another program fails as a whole and no file appears under a name
// the target was given; read-only (which stops no one creating files there),
// the drop gets complete files. Either way, nothing is left beside them.
TEST_F(DragEntry, ADragFolderChangedBeforeTheDropEndsCleanly)
{
    for (const bool removed : {true, false}) {
        auto outlook = twoAttachments();
        std::vector<std::wstring> offered;
        RecordedDoDragDrop recorded([&](const DragCall& call) {
            offered = droppedFiles(call.dataObject);
            const std::wstring dragFolder = offered.at(0).substr(0, offered[0].find_last_of(L'\\'));
            if (removed)
                deleteTree(FileDrop::tempDir());
            else
                SetFileAttributesW(dragFolder.c_str(), FILE_ATTRIBUTE_READONLY);
            dropTargetState().droppedIntoOtherApplication = true;
            const HRESULT answer = call.dropSource->QueryContinueDrag(FALSE, 0);
            *call.effect = answer == DRAGDROP_S_DROP ? DROPEFFECT_COPY : DROPEFFECT_NONE;
            return answer;
        });
        LogCapture caseLog(LOG_ERROR);
        DWORD effect = DROPEFFECT_NONE;
        const HRESULT hr =
            MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);
        ASSERT_EQ(offered.size(), 2u);
        const std::string text = caseLog.contents();
        if (removed) {
            EXPECT_EQ(hr, E_FAIL);
            EXPECT_FALSE(fileExists(offered[0]));
            EXPECT_FALSE(fileExists(offered[1]));
            EXPECT_NE(text.find("cannot create a file beside \""), std::string::npos) << text;
            EXPECT_NE(text.find("notes.txt\" failed, hr=-2147024893"), std::string::npos) << "path not found";
        } else {
            EXPECT_EQ(hr, DRAGDROP_S_DROP);
            EXPECT_EQ(readBytes(offered[0]), "first file");
            EXPECT_EQ(readBytes(offered[1]), "second");
            EXPECT_EQ(filesIn(offered[0].substr(0, offered[0].find_last_of(L'\\'))).size(), 2u);
            EXPECT_EQ(text.find("failed"), std::string::npos) << text;
        }
    }
}

} // namespace
