// The add-in's own file data object: its rendered file formats, what SetData
// leaves in it, its enumeration, and the inner object behind it.
#include "dataobject/file_data_object.h"

#include "block_readers.h"
#include "test_data_object.h"

#include "common/com_ptr.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/global_memory.h"
#include "dataobject/item_id_list.h"
#include "dataobject/filter_data_object.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using Microsoft::WRL::ComPtr;

struct Fetched {
    HRESULT hr = E_FAIL;
    STGMEDIUM medium{};
    ~Fetched() { ReleaseStgMedium(&medium); }
};

void fetch(IDataObject* object, CLIPFORMAT format, Fetched& out, DWORD tymed = TYMED_HGLOBAL, LONG lindex = -1)
{
    FORMATETC formatEtc{format, nullptr, DVASPECT_CONTENT, lindex, tymed};
    out.hr = object->GetData(&formatEtc, &out.medium);
}

HRESULT query(IDataObject* object, CLIPFORMAT format, DWORD tymed = TYMED_HGLOBAL, LONG lindex = -1)
{
    FORMATETC formatEtc{format, nullptr, DVASPECT_CONTENT, lindex, tymed};
    return object->QueryGetData(&formatEtc);
}

std::multiset<std::pair<CLIPFORMAT, LONG>> enumerated(IDataObject* object)
{
    std::multiset<std::pair<CLIPFORMAT, LONG>> formats;
    ComPtr<IEnumFORMATETC> enumerator;
    if (FAILED(object->EnumFormatEtc(DATADIR_GET, &enumerator)))
        return formats;
    FORMATETC format{};
    while (enumerator->Next(1, &format, nullptr) == S_OK) {
        formats.insert({format.cfFormat, format.lindex});
        CoTaskMemFree(format.ptd);
    }
    return formats;
}

class FileDataObjectTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegisterDataFormats();
        ids = clipboardFormats();
        for (const wchar_t* name : {L"a.msg", L"b \u00e9t\u00e9.pdf"}) {
            writeBytes(scratch.file(name), "bytes");
            paths.push_back(scratch.file(name));
        }
        inner = TestDataObject::create();
        inner->offerBytes(ids.renPrivateItem, "outlook's private bytes");
        object = adoptCom(new FileDataObject(inner.Get(), paths));
    }

    ScratchFolder scratch;
    ClipboardFormats ids;
    PathList paths;
    ComPtr<TestDataObject> inner;
    ComPtr<IDataObject> object;
};

TEST_F(FileDataObjectTest, RendersCfHdropForItsFilesAFreshBlockEachTime)
{
    Fetched first, second;
    fetch(object.Get(), CF_HDROP, first);
    fetch(object.Get(), CF_HDROP, second);
    ASSERT_EQ(first.hr, S_OK);
    ASSERT_EQ(second.hr, S_OK);
    EXPECT_EQ(first.medium.tymed, static_cast<DWORD>(TYMED_HGLOBAL));
    EXPECT_EQ(first.medium.pUnkForRelease, nullptr);
    EXPECT_NE(first.medium.hGlobal, second.medium.hGlobal);
    EXPECT_EQ(dragQueryPaths(first.medium.hGlobal), paths);
    EXPECT_EQ(globalBytes(first.medium.hGlobal), globalBytes(second.medium.hGlobal));
}

TEST_F(FileDataObjectTest, RendersTheShellIdListOfItsFiles)
{
    Fetched cidaBlock;
    fetch(object.Get(), ids.shellIdList, cidaBlock);
    ASSERT_EQ(cidaBlock.hr, S_OK);
    const ParsedCida cida = parseCida(globalBytes(cidaBlock.medium.hGlobal));
    ASSERT_TRUE(cida.valid);
    ASSERT_EQ(cida.cidl, 2u);
    UniquePidl second(ILCreateFromPathW(paths[1].c_str()));
    UniquePidl combined(ILCombine(reinterpret_cast<LPCITEMIDLIST>(cida.lists[0].data()),
                                  reinterpret_cast<LPCITEMIDLIST>(cida.lists[2].data())));
    EXPECT_TRUE(ILIsEqual(combined.get(), second.get()));
}

TEST_F(FileDataObjectTest, RendersTheFirstFilesNameInBothForms)
{
    Fetched wide, narrow;
    fetch(object.Get(), ids.fileNameW, wide);
    fetch(object.Get(), ids.fileNameA, narrow);
    ASSERT_EQ(wide.hr, S_OK);
    ASSERT_EQ(narrow.hr, S_OK);
    const std::string wideBytes = globalBytes(wide.medium.hGlobal);
    EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(wideBytes.data())), paths[0]);
    EXPECT_EQ(std::string(globalBytes(narrow.medium.hGlobal).c_str()), std::string(paths[0].begin(), paths[0].end()));
}

TEST_F(FileDataObjectTest, AnswersQueriesForItsFormatsAndPassesTheRestOn)
{
    EXPECT_EQ(query(object.Get(), CF_HDROP), S_OK);
    EXPECT_EQ(query(object.Get(), ids.shellIdList), S_OK);
    EXPECT_EQ(query(object.Get(), CF_HDROP, TYMED_ISTREAM), DV_E_TYMED);
    EXPECT_EQ(query(object.Get(), ids.renPrivateItem), S_OK);
    EXPECT_EQ(query(object.Get(), ids.csv), DV_E_FORMATETC);

    Fetched fromInner;
    fetch(object.Get(), ids.renPrivateItem, fromInner);
    ASSERT_EQ(fromInner.hr, S_OK);
    EXPECT_EQ(globalBytes(fromInner.medium.hGlobal), "outlook's private bytes");
}

TEST_F(FileDataObjectTest, KeepsWhatSetDataGaveItAndHandsOutCopies)
{
    const std::string descriptor(596, '\x01');
    STGMEDIUM given{};
    given.tymed = TYMED_HGLOBAL;
    given.hGlobal = globalFromBytes(descriptor.data(), descriptor.size());
    FORMATETC format{ids.fileGroupDescriptorW, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    ASSERT_EQ(object->SetData(&format, &given, TRUE), S_OK);

    EXPECT_EQ(query(object.Get(), ids.fileGroupDescriptorW), S_OK);
    Fetched first, second;
    fetch(object.Get(), ids.fileGroupDescriptorW, first);
    fetch(object.Get(), ids.fileGroupDescriptorW, second);
    ASSERT_EQ(first.hr, S_OK);
    EXPECT_EQ(globalBytes(first.medium.hGlobal), descriptor);
    EXPECT_NE(first.medium.hGlobal, given.hGlobal);
    EXPECT_NE(first.medium.hGlobal, second.medium.hGlobal);
    EXPECT_EQ(globalBytes(second.medium.hGlobal), descriptor);
}

TEST_F(FileDataObjectTest, CopiesAMediumItIsNotGiven)
{
    UniqueGlobal callers(globalFromBytes("csv text", 8));
    STGMEDIUM lent{};
    lent.tymed = TYMED_HGLOBAL;
    lent.hGlobal = callers.get();
    FORMATETC format{ids.csv, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    ASSERT_EQ(object->SetData(&format, &lent, FALSE), S_OK);
    callers.reset(); // the caller frees its block at once

    Fetched kept;
    fetch(object.Get(), ids.csv, kept);
    ASSERT_EQ(kept.hr, S_OK);
    EXPECT_EQ(globalBytes(kept.medium.hGlobal), "csv text");
}

TEST_F(FileDataObjectTest, KeepsOneMediumPerIndexAndReplacesOnASecondSet)
{
    auto setBytes = [&](LONG lindex, const std::string& bytes) {
        STGMEDIUM medium{};
        medium.tymed = TYMED_HGLOBAL;
        medium.hGlobal = globalFromBytes(bytes.data(), bytes.size());
        FORMATETC format{ids.fileContents, nullptr, DVASPECT_CONTENT, lindex, TYMED_HGLOBAL};
        return object->SetData(&format, &medium, TRUE);
    };
    ASSERT_EQ(setBytes(0, "zero"), S_OK);
    ASSERT_EQ(setBytes(1, "one"), S_OK);
    ASSERT_EQ(setBytes(0, "zero again"), S_OK);

    Fetched zero, one;
    fetch(object.Get(), ids.fileContents, zero, TYMED_HGLOBAL, 0);
    fetch(object.Get(), ids.fileContents, one, TYMED_HGLOBAL, 1);
    EXPECT_EQ(globalBytes(zero.medium.hGlobal), "zero again");
    EXPECT_EQ(globalBytes(one.medium.hGlobal), "one");
    EXPECT_EQ(query(object.Get(), ids.fileContents, TYMED_HGLOBAL, 2), DV_E_FORMATETC);
    EXPECT_EQ(enumerated(object.Get()).count({ids.fileContents, 0}), 1u);
}

TEST_F(FileDataObjectTest, HandsAKeptStreamOutWithAReferenceOfItsOwn)
{
    ComPtr<IStream> stream;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
    STGMEDIUM lent{};
    lent.tymed = TYMED_ISTREAM;
    lent.pstm = stream.Get();
    FORMATETC format{ids.fileContents, nullptr, DVASPECT_CONTENT, 0, TYMED_ISTREAM};
    ASSERT_EQ(object->SetData(&format, &lent, FALSE), S_OK);

    Fetched fetched;
    fetch(object.Get(), ids.fileContents, fetched, TYMED_ISTREAM | TYMED_ISTORAGE, 0);
    ASSERT_EQ(fetched.hr, S_OK);
    EXPECT_EQ(fetched.medium.tymed, static_cast<DWORD>(TYMED_ISTREAM));
    EXPECT_EQ(fetched.medium.pstm, stream.Get());
    EXPECT_EQ(query(object.Get(), ids.fileContents, TYMED_HGLOBAL, 0), DV_E_TYMED);
}

TEST_F(FileDataObjectTest, EnumeratesItsFormatsWhatWasSetAndTheInnerObjectsOnce)
{
    ASSERT_EQ(setText(object.Get(), L"json"), S_OK);
    inner->offerBytes(CF_HDROP, "answered by the outer object");

    const auto formats = enumerated(object.Get());
    const std::multiset<std::pair<CLIPFORMAT, LONG>> expected{
        {CLIPFORMAT(CF_UNICODETEXT), -1}, {CLIPFORMAT(CF_HDROP), -1}, {ids.shellIdList, -1},
        {ids.fileNameA, -1},              {ids.fileNameW, -1},        {ids.renPrivateItem, -1}};
    EXPECT_EQ(formats, expected);
    EXPECT_EQ(object->EnumFormatEtc(DATADIR_SET, nullptr), E_POINTER);
}

TEST_F(FileDataObjectTest, FormatsHiddenByTheFilterStayHidden)
{
    inner->offerText(L"Outlook's table");
    inner->offerBytes(ids.fileGroupDescriptorW, std::string(596, '\0'));
    ComPtr<IDataObject> filter =
        adoptCom(new MyDataObjectFilterFormat(inner.Get(), {CF_UNICODETEXT, ids.fileGroupDescriptorW}));
    ComPtr<IDataObject> files = adoptCom(new FileDataObject(filter.Get(), paths));

    const auto formats = enumerated(files.Get());
    EXPECT_EQ(formats.count({CLIPFORMAT(CF_UNICODETEXT), -1}), 0u);
    EXPECT_EQ(formats.count({ids.fileGroupDescriptorW, -1}), 0u);
    EXPECT_EQ(formats.count({ids.renPrivateItem, -1}), 1u);
    EXPECT_EQ(query(files.Get(), CF_UNICODETEXT), E_FAIL);
    Fetched hidden;
    fetch(files.Get(), ids.fileGroupDescriptorW, hidden);
    EXPECT_EQ(hidden.hr, E_FAIL);
}

TEST_F(FileDataObjectTest, WithoutFilesOrInnerObjectThereIsNothingToGet)
{
    ComPtr<IDataObject> empty = adoptCom(new FileDataObject(nullptr, {}));
    EXPECT_EQ(query(empty.Get(), CF_HDROP), DV_E_FORMATETC);
    Fetched nothing;
    fetch(empty.Get(), CF_HDROP, nothing);
    EXPECT_EQ(nothing.hr, DV_E_FORMATETC);
    EXPECT_TRUE(enumerated(empty.Get()).empty());
}

TEST_F(FileDataObjectTest, RefusesAMediumThatDoesNotMatchItsFormat)
{
    STGMEDIUM none{};
    FORMATETC format{ids.csv, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    EXPECT_EQ(object->SetData(&format, &none, TRUE), DV_E_TYMED);
    EXPECT_EQ(object->SetData(nullptr, &none, TRUE), E_INVALIDARG);
    EXPECT_EQ(query(object.Get(), ids.csv), DV_E_FORMATETC);
}

} // namespace
