// The data object a drop target receives, both ways it can be made: by the
// shell's SHCreateDataObject (proven through a stand-in with the shell's
// signature) and by the add-in's own file data object where the shell
// answers E_NOTIMPL.
#include "dataobject/data_object_writer.h"

#include "block_readers.h"
#include "test_data_object.h"

#include "core/log.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/global_memory.h"
#include "dataobject/item_id_list.h"
#include "dataobject/shell_data_object.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

// What the stand-in for SHCreateDataObject was called with, and what it answers.
struct ShellCall {
    int calls = 0;
    std::string parent;
    std::vector<std::string> children;
    ComPtr<IDataObject> inner;
    bool offerHdrop = false;
    HRESULT result = S_OK;
    ComPtr<TestDataObject> made;
};
ShellCall shellCall;

HRESULT WINAPI shellStandIn(PCIDLIST_ABSOLUTE parent, UINT count, PCUITEMID_CHILD_ARRAY children, IDataObject* inner,
                            REFIID iid, void** object)
{
    ++shellCall.calls;
    shellCall.parent = pidlBytes(parent);
    for (UINT i = 0; i < count; ++i)
        shellCall.children.push_back(pidlBytes(children[i]));
    shellCall.inner = inner;
    *object = nullptr;
    if (FAILED(shellCall.result))
        return shellCall.result;
    shellCall.made = TestDataObject::create();
    if (shellCall.offerHdrop)
        shellCall.made->offerBytes(CF_HDROP, std::string(22, '\0'));
    return shellCall.made->QueryInterface(iid, object);
}

HRESULT WINAPI shellStub(PCIDLIST_ABSOLUTE, UINT, PCUITEMID_CHILD_ARRAY, IDataObject*, REFIID, void** object)
{
    *object = nullptr;
    return E_NOTIMPL;
}

std::string pidlOfPath(const std::wstring& path)
{
    UniquePidl pidl(ILCreateFromPathW(path.c_str()));
    return pidlBytes(pidl.get());
}

HRESULT query(IDataObject* object, CLIPFORMAT format)
{
    FORMATETC formatEtc{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    return object->QueryGetData(&formatEtc);
}

std::string fetchBytes(IDataObject* object, CLIPFORMAT format, HRESULT& hr)
{
    FORMATETC formatEtc{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    hr = object->GetData(&formatEtc, &medium);
    if (FAILED(hr))
        return std::string();
    std::string bytes = globalBytes(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return bytes;
}

class CreateDataObjectTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegisterDataFormats();
        shellCall = ShellCall{};
        for (const wchar_t* name : {L"Hello.msg", L"offer.pdf"}) {
            writeBytes(scratch.file(name), "saved file");
            paths.push_back(scratch.file(name));
        }
        outlook = OutlookDataObject::create(
            {OutlookEntry::attachment(L"Hello.msg", "a"), OutlookEntry::attachment(L"offer.pdf", "b")});
    }
    void TearDown() override { setShellCreateDataObject(nullptr); }

    ScratchFolder scratch;
    PathList paths;
    ComPtr<OutlookDataObject> outlook;
};

TEST_F(CreateDataObjectTest, TheShellGetsTheFolderTheFilesAndTheFilteredOutlookObject)
{
    setShellCreateDataObject(shellStandIn);
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created), S_OK);
    ASSERT_TRUE(created);
    EXPECT_EQ(created.Get(), static_cast<IDataObject*>(shellCall.made.Get()));

    EXPECT_EQ(shellCall.parent, pidlOfPath(scratch.path()));
    ASSERT_EQ(shellCall.children.size(), 2u);
    for (size_t i = 0; i < paths.size(); ++i) {
        UniquePidl whole(ILCombine(reinterpret_cast<LPCITEMIDLIST>(shellCall.parent.data()),
                                   reinterpret_cast<LPCITEMIDLIST>(shellCall.children[i].data())));
        EXPECT_EQ(pidlBytes(whole.get()), pidlOfPath(paths[i])) << i;
    }

    // The inner object is Outlook's behind the filter: text and virtual files
    // hidden, the private formats still there.
    ASSERT_TRUE(shellCall.inner);
    EXPECT_NE(shellCall.inner.Get(), static_cast<IDataObject*>(outlook.Get()));
    EXPECT_EQ(query(outlook.Get(), CF_UNICODETEXT), S_OK);
    EXPECT_EQ(query(shellCall.inner.Get(), CF_UNICODETEXT), E_FAIL);
    EXPECT_EQ(query(shellCall.inner.Get(), CF_TEXT), E_FAIL);
    EXPECT_EQ(query(shellCall.inner.Get(), clipboardFormats().fileGroupDescriptorW), E_FAIL);
    EXPECT_EQ(query(shellCall.inner.Get(), clipboardFormats().fileGroupDescriptor), E_FAIL);
    EXPECT_EQ(query(shellCall.inner.Get(), clipboardFormats().renPrivateItem), S_OK);
}

TEST_F(CreateDataObjectTest, AShellObjectWithoutCfHdropGetsOne)
{
    setShellCreateDataObject(shellStandIn);
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created), S_OK);
    const TestDataObject::Received* hdrop = shellCall.made->receivedFormat(CF_HDROP);
    ASSERT_NE(hdrop, nullptr);
    EXPECT_TRUE(hdrop->release);
    EXPECT_EQ(dragQueryPaths(hdrop->medium.hGlobal), paths);
}

TEST_F(CreateDataObjectTest, AShellObjectThatOffersCfHdropGetsNoneAdded)
{
    setShellCreateDataObject(shellStandIn);
    shellCall.offerHdrop = true;
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created), S_OK);
    EXPECT_TRUE(shellCall.made->received().empty());
}

TEST_F(CreateDataObjectTest, WhereTheShellAnswersNotImplementedTheOwnObjectOffersTheFiles)
{
    setShellCreateDataObject(shellStub);
    LogCapture log(LOG_DEBUG);
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created), S_OK);
    ASSERT_TRUE(created);
    EXPECT_NE(log.contents().find("using FileDataObject"), std::string::npos);

    HRESULT hr = E_FAIL;
    const std::string hdrop = fetchBytes(created.Get(), CF_HDROP, hr);
    ASSERT_EQ(hr, S_OK);
    UniqueGlobal block(globalFromBytes(hdrop.data(), hdrop.size()));
    EXPECT_EQ(dragQueryPaths(block.get()), paths);
    EXPECT_EQ(query(created.Get(), clipboardFormats().shellIdList), S_OK);
    EXPECT_EQ(query(created.Get(), clipboardFormats().fileNameW), S_OK);

    // Outlook's object is behind it, filtered.
    EXPECT_EQ(query(created.Get(), clipboardFormats().renPrivateItem), S_OK);
    EXPECT_EQ(query(created.Get(), CF_UNICODETEXT), E_FAIL);
    EXPECT_EQ(query(created.Get(), clipboardFormats().fileGroupDescriptorW), E_FAIL);
}

TEST_F(CreateDataObjectTest, TheOwnObjectTakesTheFileFormatStepsOfADrag)
{
    setShellCreateDataObject(shellStub);
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created), S_OK);
    ASSERT_EQ(setText(created.Get(), L"{ json }"), S_OK);
    ASSERT_EQ(setFileGroupDescriptors(paths, created.Get()), S_OK);
    ASSERT_EQ(setFileNames(paths, created.Get()), S_OK);
    ASSERT_EQ(setFileContents(paths, created.Get()), S_OK);

    EXPECT_EQ(getText(created.Get()), L"{ json }");
    HRESULT hr = E_FAIL;
    const std::string descriptor = fetchBytes(created.Get(), clipboardFormats().fileGroupDescriptorW, hr);
    ASSERT_EQ(hr, S_OK);
    ASSERT_EQ(descriptor.size(), 2u * 592 + 596);
    const FILEDESCRIPTORW* descriptors = reinterpret_cast<const FILEGROUPDESCRIPTORW*>(descriptor.data())->fgd;
    EXPECT_STREQ(descriptors[0].cFileName, L"Hello.msg");
    EXPECT_STREQ(descriptors[1].cFileName, L"offer.pdf");
    // Outlook's "FileContents" stays hidden: the files come by CF_HDROP.
    FORMATETC contents{clipboardFormats().fileContents, nullptr, DVASPECT_CONTENT, 0, TYMED_ISTREAM | TYMED_ISTORAGE};
    EXPECT_EQ(created->QueryGetData(&contents), E_FAIL);
    EXPECT_EQ(outlook->getDataCalls(clipboardFormats().fileContents), 0u);
}

TEST_F(CreateDataObjectTest, WithTheSystemsOwnShellTheFilesAreOfferedEitherWay)
{
    setShellCreateDataObject(nullptr);
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created), S_OK);
    ASSERT_TRUE(created);
    HRESULT hr = E_FAIL;
    const std::string hdrop = fetchBytes(created.Get(), CF_HDROP, hr);
    ASSERT_EQ(hr, S_OK);
    UniqueGlobal block(globalFromBytes(hdrop.data(), hdrop.size()));
    EXPECT_EQ(dragQueryPaths(block.get()), paths);
}

TEST_F(CreateDataObjectTest, TheItemsLiveAsLongAsTheObject)
{
    setShellCreateDataObject(shellStub);
    auto items = std::make_shared<DDItems>();
    std::weak_ptr<DDItems> watch = items;
    ComPtr<IDataObject> created;
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", paths, created, std::move(items)), S_OK);
    EXPECT_FALSE(watch.expired());
    created.Reset();
    EXPECT_TRUE(watch.expired());
}

TEST_F(CreateDataObjectTest, WithoutItemIdListsThereIsNoObject)
{
    setShellCreateDataObject(shellStandIn);
    ComPtr<IDataObject> created;
    EXPECT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", {}, created), E_FAIL);
    EXPECT_FALSE(created);
    EXPECT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", {scratch.file(L"gone\\a.msg")}, created), E_FAIL);
    EXPECT_FALSE(created);
    EXPECT_EQ(shellCall.calls, 0);
}

TEST_F(CreateDataObjectTest, AMissingFileIsLeftOutOfTheShellsList)
{
    setShellCreateDataObject(shellStandIn);
    ComPtr<IDataObject> created;
    const PathList withMissing{paths[0], scratch.file(L"never written.msg"), paths[1]};
    ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), L"", withMissing, created), S_OK);
    EXPECT_EQ(shellCall.children.size(), 2u);
}

} // namespace
