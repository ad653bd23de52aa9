// The filtering wrapper around Outlook's data object: hidden formats, its own
// text, and no text for the SAP logon pad.
#include "dataobject/filter_data_object.h"

#include "dataobject/test_data_object.h"

#include "core/log.h"
#include "common/com_ptr.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/drop_target_tracker.h"
#include "dataobject/file_data_object.h"
#include "support/injected_fault.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

namespace {

using Microsoft::WRL::ComPtr;

HRESULT query(IDataObject* object, CLIPFORMAT format, DWORD tymed = TYMED_HGLOBAL)
{
    FORMATETC formatEtc{format, nullptr, DVASPECT_CONTENT, -1, tymed};
    return object->QueryGetData(&formatEtc);
}

// GetData's answer and, on success, the block's bytes.
std::pair<HRESULT, std::string> fetch(IDataObject* object, CLIPFORMAT format)
{
    FORMATETC formatEtc{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    const HRESULT hr = object->GetData(&formatEtc, &medium);
    if (FAILED(hr))
        return {hr, std::string()};
    std::string bytes = TestDataObject::bytesOf(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return {hr, bytes};
}

std::set<CLIPFORMAT> enumerated(IDataObject* object)
{
    std::set<CLIPFORMAT> formats;
    ComPtr<IEnumFORMATETC> enumerator;
    EXPECT_EQ(object->EnumFormatEtc(DATADIR_GET, &enumerator), S_OK);
    FORMATETC format{};
    while (enumerator && enumerator->Next(1, &format, nullptr) == S_OK) {
        formats.insert(format.cfFormat);
        CoTaskMemFree(format.ptd);
    }
    return formats;
}

std::string wideBytes(const std::wstring& text)
{
    return std::string(reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t));
}

class FilterDataObjectTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegisterDataFormats();
        ids = clipboardFormats();
        outlook = OutlookDataObject::create({OutlookEntry::attachment(L"offer.pdf", "pdf bytes")});
    }
    void TearDown() override { resetDropTarget(); }

    ComPtr<IDataObject> filter(std::set<CLIPFORMAT> hidden, const std::wstring& text = L"",
                               std::shared_ptr<DDItems> items = nullptr)
    {
        return adoptCom(new MyDataObjectFilterFormat(outlook.Get(), std::move(hidden), text, std::move(items)));
    }

    ClipboardFormats ids;
    ComPtr<OutlookDataObject> outlook;
};

TEST_F(FilterDataObjectTest, AFilteredFormatIsNeitherEnumeratedNorGiven)
{
    auto object = filter({ids.fileGroupDescriptorW, ids.fileContents});

    const std::set<CLIPFORMAT> formats = enumerated(object.Get());
    EXPECT_EQ(formats.count(ids.fileGroupDescriptorW), 0u);
    EXPECT_EQ(formats.count(ids.fileContents), 0u);
    EXPECT_EQ(formats.count(ids.fileGroupDescriptor), 1u);
    EXPECT_EQ(formats.count(ids.renPrivateItem), 1u);

    EXPECT_EQ(query(object.Get(), ids.fileGroupDescriptorW), E_FAIL);
    EXPECT_EQ(fetch(object.Get(), ids.fileGroupDescriptorW).first, E_FAIL);
    EXPECT_EQ(outlook->getDataCalls(ids.fileGroupDescriptorW), 0u);
}

TEST_F(FilterDataObjectTest, OtherFormatsComeFromTheInnerObject)
{
    auto object = filter({ids.fileContents});
    EXPECT_EQ(query(object.Get(), ids.fileGroupDescriptorW), S_OK);
    const auto [hr, bytes] = fetch(object.Get(), ids.fileGroupDescriptorW);
    ASSERT_EQ(hr, S_OK);
    EXPECT_EQ(bytes, outlook->wideDescriptorBlock());
    // A format the inner object lacks gets the inner object's own answer.
    EXPECT_NE(query(outlook.Get(), ids.csv), S_OK);
    EXPECT_EQ(query(object.Get(), ids.csv), query(outlook.Get(), ids.csv));
}

TEST_F(FilterDataObjectTest, ServesItsOwnTextInBothForms)
{
    const std::wstring text = L"caf\u00e9 \u00fcber";
    auto object = filter({}, text);

    const auto [unicodeHr, unicode] = fetch(object.Get(), CF_UNICODETEXT);
    ASSERT_EQ(unicodeHr, S_OK);
    EXPECT_EQ(unicode, wideBytes(text));

    const auto [ansiHr, ansi] = fetch(object.Get(), CF_TEXT);
    ASSERT_EQ(ansiHr, S_OK);
    char expected[64] = {};
    const int length = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, expected, sizeof expected, nullptr, nullptr);
    EXPECT_EQ(ansi, std::string(expected, static_cast<size_t>(length)));
    EXPECT_EQ(query(object.Get(), CF_TEXT), S_OK);
    EXPECT_EQ(query(object.Get(), CF_UNICODETEXT), S_OK);
    // Outlook's table was never asked for.
    EXPECT_EQ(outlook->getDataCalls(CF_UNICODETEXT), 0u);
}

TEST_F(FilterDataObjectTest, WithoutTextOfItsOwnThereIsNoText)
{
    auto object = filter({});
    EXPECT_EQ(fetch(object.Get(), CF_UNICODETEXT).first, E_FAIL);
    EXPECT_EQ(fetch(object.Get(), CF_TEXT).first, E_FAIL);
    EXPECT_EQ(query(object.Get(), CF_UNICODETEXT), E_FAIL);
}

TEST_F(FilterDataObjectTest, HiddenTextFormatsStayHiddenEvenWithText)
{
    auto object = filter({CF_TEXT, CF_UNICODETEXT}, L"text");
    EXPECT_EQ(fetch(object.Get(), CF_UNICODETEXT).first, E_FAIL);
    EXPECT_EQ(query(object.Get(), CF_TEXT), E_FAIL);
    EXPECT_EQ(enumerated(object.Get()).count(CF_UNICODETEXT), 0u);
}

TEST_F(FilterDataObjectTest, TheSapLogonPadNeverGetsText)
{
    auto object = filter({}, L"text");
    dropTargetState().targetName = L"SAPlogon";

    EXPECT_FALSE(static_cast<MyDataObjectFilterFormat*>(object.Get())->isEnabled(CF_TEXT));
    EXPECT_EQ(fetch(object.Get(), CF_UNICODETEXT).first, E_FAIL);
    EXPECT_EQ(fetch(object.Get(), CF_TEXT).first, E_FAIL);
    EXPECT_EQ(query(object.Get(), CF_UNICODETEXT), E_FAIL);
    // Outlook's own text is not enumerated either; other formats still are.
    const std::set<CLIPFORMAT> formats = enumerated(object.Get());
    EXPECT_EQ(formats.count(CF_UNICODETEXT), 0u);
    EXPECT_EQ(formats.count(ids.fileGroupDescriptorW), 1u);

    dropTargetState().targetName = L"notepad";
    EXPECT_EQ(fetch(object.Get(), CF_UNICODETEXT).first, S_OK);
    EXPECT_EQ(enumerated(object.Get()).count(CF_UNICODETEXT), 1u);
}

TEST_F(FilterDataObjectTest, MakingOneStartsANewDrag)
{
    dropTargetState().lastCursor = POINT{5, 7};
    dropTargetState().targetProcessId = 42;
    dropTargetState().targetName = L"saplogon";
    dropTargetState().droppedIntoOtherApplication = true;

    auto object = filter({});
    EXPECT_EQ(dropTargetState().lastCursor.x, 0);
    EXPECT_EQ(dropTargetState().lastCursor.y, 0);
    EXPECT_EQ(dropTargetState().targetName, L"");
    EXPECT_FALSE(dropTargetState().droppedIntoOtherApplication);
}

TEST_F(FilterDataObjectTest, SetDataReachesTheInnerObject)
{
    auto object = filter({});
    FORMATETC format{ids.csv, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    medium.tymed = TYMED_HGLOBAL;
    medium.hGlobal = GlobalAlloc(GMEM_MOVEABLE, 4);
    ASSERT_EQ(object->SetData(&format, &medium, TRUE), S_OK);
    EXPECT_TRUE(outlook->wasSet(ids.csv));
}

TEST_F(FilterDataObjectTest, KeepsTheItemsAliveUntilItGoes)
{
    auto items = std::make_shared<DDItems>();
    std::weak_ptr<DDItems> watch = items;
    auto object = filter({}, L"", std::move(items));
    EXPECT_FALSE(watch.expired());
    object.Reset();
    EXPECT_TRUE(watch.expired());
}

TEST_F(FilterDataObjectTest, AnInnerObjectThatCannotEnumerateIsReported)
{
    auto inner = TestDataObject::create();
    inner->enumResult = E_OUTOFMEMORY;
    ComPtr<IDataObject> object = adoptCom(new MyDataObjectFilterFormat(inner.Get(), {}));
    ComPtr<IEnumFORMATETC> enumerator;
    EXPECT_EQ(object->EnumFormatEtc(DATADIR_GET, &enumerator), E_OUTOFMEMORY);
    EXPECT_FALSE(enumerator);
}

TEST_F(FilterDataObjectTest, QueriesAreLoggedWithTheFormatsName)
{
    LogCapture log(LOG_DEBUG);
    auto object = filter({ids.fileContents});
    query(object.Get(), CF_HDROP);
    query(object.Get(), ids.fileContents);
    const std::string text = log.contents();
    EXPECT_NE(text.find("MyDataObjectFilterFormat:"), std::string::npos);
    EXPECT_NE(text.find(", QueryGetData format=CF_HDROP, enabled=1, hr="), std::string::npos);
    EXPECT_NE(text.find(", QueryGetData format=FileContents, enabled=0, hr=-2147467259"), std::string::npos);
}

// Every method with work of its own answers an exception inside as a failed
// call, with nothing half-given.
TEST_F(FilterDataObjectTest, AnExceptionInsideAMethodIsAFailedCall)
{
    auto object = filter({}, L"text");
    ComPtr<IDataObject> files = adoptCom(new FileDataObject(object.Get(), {L"C:\\offer.pdf"}));
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

} // namespace
