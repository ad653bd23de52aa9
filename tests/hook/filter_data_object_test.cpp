// The filtering wrapper around Outlook's data object (hidden formats, its own
// text, none for the SAP logon pad) and the enumerator of what passes.
#include "dataobject/filter_data_object.h"

#include "hook_fixture.h"

#include "dataobject/clipboard_formats.h"
#include "dataobject/file_data_object.h"
#include "dataobject/format_etc.h"
#include "dataobject/drop_target_tracker.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/injected_fault.h"

#include <set>

namespace {

using Microsoft::WRL::ComPtr;

TEST(FilterDataObject, PassesOutlooksFormatsButNotTheHiddenOnesAndTextOnlyItsOwn)
{
    RegisterDataFormats();
    const CLIPFORMAT wideDescriptor = RegisterClipboardFormatW(L"FileGroupDescriptorW");
    const CLIPFORMAT ansiDescriptor = RegisterClipboardFormatW(L"FileGroupDescriptor");
    const CLIPFORMAT privateItem = RegisterClipboardFormatW(L"RenPrivateItem");
    struct Case {
        const char* what;
        std::set<CLIPFORMAT> hidden;
        std::wstring ownText;
        const wchar_t* target;
        bool text, wide; // offered: its own text (both forms), Outlook's wide descriptor
    };
    const Case cases[] = {
        {"hidden formats, and no text without one of its own", {wideDescriptor, CF_TEXT}, L"", L"notepad", false, false},
        {"its own text", {}, L"text", L"notepad", true, true},
        {"the SAP logon pad gets no text", {}, L"text", L"SAPlogon", false, true},
        {"hidden text stays hidden", {CF_TEXT, CF_UNICODETEXT}, L"text", L"notepad", false, true},
    };
    for (const Case& c : cases) {
        auto outlook = OutlookDataObject::create({OutlookEntry::attachment(L"offer.pdf", "pdf bytes")});
        auto items = std::make_shared<DDItems>();
        const std::weak_ptr<DDItems> watch = items;
        dropTargetState().targetName = L"left from the last drag";
        ComPtr<IDataObject> object = adoptCom(new MyDataObjectFilterFormat(outlook.Get(), c.hidden, c.ownText, items));
        EXPECT_EQ(dropTargetState().targetName, L"") << "a new drag starts";
        dropTargetState().targetName = c.target;
        items.reset();

        // Outlook's ANSI descriptor and private formats always pass.
        const std::pair<CLIPFORMAT, bool> expected[] = {
            {CF_UNICODETEXT, c.text}, {CF_TEXT, c.text}, {wideDescriptor, c.wide}, {ansiDescriptor, true},
            {privateItem, true}};
        std::set<CLIPFORMAT> listed;
        forEachFormat(object.Get(), DATADIR_GET, [&](const FORMATETC& format) { listed.insert(format.cfFormat); });
        for (const auto& [format, offered] : expected) {
            SCOPED_TRACE(std::string(c.what) + ", format " + std::to_string(format));
            const unsigned asked = outlook->getDataCalls(format);
            const std::optional<std::string> bytes = fetch(object.Get(), format);
            FORMATETC request{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
            EXPECT_EQ(object->QueryGetData(&request) == S_OK, offered);
            EXPECT_EQ(listed.count(format) == 1, offered && format != CF_TEXT);
            EXPECT_EQ(bytes.has_value(), offered);
            if (!offered) {
                EXPECT_EQ(outlook->getDataCalls(format), asked) << "Outlook was not asked";
            } else if (format != CF_UNICODETEXT && format != CF_TEXT) {
                EXPECT_EQ(bytes, fetch(outlook.Get(), format)) << "Outlook's own";
            }
        }
        EXPECT_FALSE(watch.expired()) << "the drag's items live as long as the object";
        object.Reset();
        EXPECT_TRUE(watch.expired());
    }
    resetDropTarget();
}

// Every method with work of its own answers an exception inside as a failed
// call, with nothing half-given.
TEST(FilterDataObject, AnExceptionInsideAMethodIsAFailedCall)
{
    auto outlook = OutlookDataObject::create({OutlookEntry::attachment(L"offer.pdf", "pdf bytes")});
    ComPtr<IDataObject> object, files;
    object = adoptCom(new MyDataObjectFilterFormat(outlook.Get(), {}, L"text"));
    files = adoptCom(new FileDataObject(object.Get(), {L"C:\\offer.pdf"}));
    FORMATETC unicode{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    FORMATETC hdrop{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    ComPtr<IEnumFORMATETC> formats;
    const std::pair<const char*, std::function<HRESULT()>> calls[] = {
        {"MyDataObjectFilterFormat::GetData", [&] { return object->GetData(&unicode, &medium); }},
        {"MyDataObjectFilterFormat::GetDataHere", [&] { return object->GetDataHere(&unicode, &medium); }},
        {"MyDataObjectFilterFormat::QueryGetData", [&] { return object->QueryGetData(&unicode); }},
        {"MyDataObjectFilterFormat::EnumFormatEtc", [&] { return object->EnumFormatEtc(DATADIR_GET, &formats); }},
        {"FileDataObject::GetData", [&] { return files->GetData(&hdrop, &medium); }},
        {"FileDataObject::EnumFormatEtc", [&] { return files->EnumFormatEtc(DATADIR_GET, &formats); }},
    };
    for (const auto& [point, call] : calls) {
        const InjectedFault fault(point);
        EXPECT_EQ(call(), E_OUTOFMEMORY) << point;
        EXPECT_EQ(medium.hGlobal, nullptr) << point;
        EXPECT_FALSE(formats) << point;
    }
}

// Next, Skip, Reset and Clone as IEnumFORMATETC requires; target devices are
// handed out as copies of their own.
TEST(FormatEnumerator, HandsOutItsRecordsAsTheInterfaceRequires)
{
    FORMATETC withDevice{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    withDevice.ptd = static_cast<DVTARGETDEVICE*>(CoTaskMemAlloc(sizeof(DVTARGETDEVICE)));
    *withDevice.ptd = DVTARGETDEVICE{};
    withDevice.ptd->tdSize = sizeof(DVTARGETDEVICE);
    ComPtr<IEnumFORMATETC> enumerator = adoptCom(new MyEnumFORMATETC(
        {FORMATETC{CF_TEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL}, withDevice,
         FORMATETC{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL}}));
    std::vector<FORMATETC> handedOut;
    const auto next = [&](IEnumFORMATETC* from, ULONG count, HRESULT expected) {
        std::vector<FORMATETC> records(count);
        ULONG fetched = 99;
        EXPECT_EQ(from->Next(count, records.data(), &fetched), expected);
        std::vector<CLIPFORMAT> formats;
        for (ULONG i = 0; i < fetched; ++i) {
            formats.push_back(records[i].cfFormat);
            handedOut.push_back(records[i]);
        }
        return formats;
    };
    EXPECT_EQ(next(enumerator.Get(), 2, S_OK), (std::vector<CLIPFORMAT>{CF_TEXT, CF_HDROP}));
    ComPtr<IEnumFORMATETC> clone;
    ASSERT_EQ(enumerator->Clone(&clone), S_OK);
    EXPECT_EQ(next(enumerator.Get(), 2, S_FALSE), std::vector<CLIPFORMAT>{CF_UNICODETEXT});
    EXPECT_EQ(enumerator->Reset(), S_OK);
    EXPECT_EQ(enumerator->Skip(1), S_OK);
    EXPECT_EQ(next(enumerator.Get(), 1, S_OK), std::vector<CLIPFORMAT>{CF_HDROP});
    EXPECT_EQ(enumerator->Skip(4), S_FALSE);
    enumerator.Reset();
    EXPECT_EQ(next(clone.Get(), 3, S_FALSE), std::vector<CLIPFORMAT>{CF_UNICODETEXT}) << "the clone goes on by itself";
    ASSERT_TRUE(handedOut[1].ptd && handedOut[3].ptd);
    EXPECT_NE(handedOut[1].ptd, handedOut[3].ptd);
    for (const FORMATETC& record : handedOut)
        CoTaskMemFree(record.ptd);
}

} // namespace
