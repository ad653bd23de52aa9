// The replacement DoDragDrop with an Outlook-shaped data object and a
// recording stand-in for the true DoDragDrop, which plays the modal drag
// loop: it asks the drop source what it would ask, as the system does, and
// answers with the effect a target would report.
#include "hook/drag_entry.h"

#include "hook_test_support.h"

#include "addin/log.h"
#include "filedrop/file_drop.h"
#include "hook/drop_target_tracker.h"
#include "support/outlook_data_object.h"

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

TEST_F(DragEntry, AlwaysCopyReportsACopyForADropIntoAnotherProgram)
{
    settings->setIgnoreTargetEffectIfDroppedIntoOtherApplication(true);
    auto outlook = twoAttachments();
    DWORD effect = 0;
    {
        RecordedDoDragDrop recorded(dropWith(0, DROPEFFECT_MOVE, true));
        MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);
    }
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_COPY)) << "Outlook must not delete the mail";
    EXPECT_NE(log.contents().find("Set drop effect to COPY, it was MOVE"), std::string::npos);

    // A move inside Outlook stays a move.
    {
        RecordedDoDragDrop recorded(dropWith(0, DROPEFFECT_MOVE, false));
        MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);
    }
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_MOVE));
}

TEST_F(DragEntry, ShiftHeldAtTheDropTurnsNoEffectIntoAMove)
{
    auto outlook = twoAttachments();
    DWORD effect = 0;
    {
        RecordedDoDragDrop recorded(dropWith(MK_SHIFT, DROPEFFECT_NONE, true));
        MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);
    }
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_MOVE));
    EXPECT_NE(log.contents().find("correct drop effect to DROPEFFECT_MOVE"), std::string::npos);

    // Without Shift nothing happened, and nothing is reported.
    {
        RecordedDoDragDrop recorded(dropWith(0, DROPEFFECT_NONE, true));
        MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);
    }
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_NONE));
}

TEST_F(DragEntry, ShiftCountsOnlyWithoutAlwaysCopy)
{
    settings->setIgnoreTargetEffectIfDroppedIntoOtherApplication(true);
    auto outlook = twoAttachments();
    DWORD effect = 0;
    RecordedDoDragDrop recorded(dropWith(MK_SHIFT, DROPEFFECT_NONE, false));
    MyDoDragDrop(outlook.Get(), outlookDropSource.Get(), DROPEFFECT_COPY | DROPEFFECT_MOVE, &effect);
    EXPECT_EQ(effect, static_cast<DWORD>(DROPEFFECT_NONE));
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

} // namespace
