// The data object a drop target receives, made both ways: the add-in's own (the
// shell's SHCreateDataObject missing, as under Wine) and the shell's, through a
// stand-in that wraps the inner object. Every format is read back twice.
#include "dataobject_fixture.h"

#include "dataobject/data_object_writer.h"
#include "dataobject/file_data_object.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/item_id_list.h"
#include "dataobject/shell_data_object.h"

#include <shlobj.h>

#include <cstring>
#include <functional>
#include <set>

namespace {

using Microsoft::WRL::ComPtr;

std::string pidlBytes(LPCITEMIDLIST pidl)
{
    return std::string(reinterpret_cast<const char*>(pidl), ILGetSize(pidl));
}

std::string pidlOfPath(const std::wstring& path)
{
    const UniquePidl pidl(ILCreateFromPathW(path.c_str()));
    return pidlBytes(pidl.get());
}

std::string combined(const char* parent, const char* child)
{
    const UniquePidl pidl(ILCombine(reinterpret_cast<LPCITEMIDLIST>(parent), reinterpret_cast<LPCITEMIDLIST>(child)));
    return pidlBytes(pidl.get());
}

// The item-id lists the stand-in for SHCreateDataObject was given.
std::vector<std::string> shellLists;

HRESULT WINAPI shellStandIn(PCIDLIST_ABSOLUTE parent, UINT count, PCUITEMID_CHILD_ARRAY children, IDataObject* inner,
                            REFIID iid, void** object)
{
    shellLists = {pidlBytes(parent)};
    for (UINT i = 0; i < count; ++i)
        shellLists.push_back(pidlBytes(children[i]));
    return adoptCom(new FileDataObject(inner, {}))->QueryInterface(iid, object);
}

class NewDataObject : public DataObjectTest {
protected:
    void SetUp() override
    {
        DataObjectTest::SetUp();
        for (const wchar_t* name : {L"Hello.msg", L"\u00e9t\u00e9 \u20ac.pdf"}) {
            writeBytes(folder.file(name), "saved file");
            paths.push_back(folder.file(name));
        }
    }
    void TearDown() override { setShellCreateDataObject(nullptr); }

    PathList paths;
    ComPtr<OutlookDataObject> outlook = OutlookDataObject::create(
        {OutlookEntry::attachment(L"Hello.msg", "a"), OutlookEntry::attachment(L"offer.pdf", "b")});
};

TEST_F(NewDataObject, OffersTheFilesInEveryFormatATargetReads)
{
    const std::wstring text = L"{ \"items\" : \"\u00e9t\u00e9\" }";
    const auto hdrop = [&](const std::string& block) {
        const UniqueGlobal copy(globalFromBytes(block.data(), block.size()));
        EXPECT_EQ(filesOfDrop(static_cast<HDROP>(copy.get())), paths);
    };
    const auto idLists = [&](const std::string& block) {
        UINT words[3] = {};
        std::memcpy(words, block.data(), sizeof words);
        ASSERT_EQ(words[0], paths.size()) << "the number of files";
        EXPECT_EQ(words[1], 4u * 2 + 8 + 4) << "lists start behind the offsets and one spare word";
        EXPECT_EQ(block.substr(words[1], pidlOfPath(folder.path()).size()), pidlOfPath(folder.path()));
        for (UINT i = 0; i < paths.size(); ++i) {
            UINT child = 0;
            std::memcpy(&child, block.data() + 8 + 4 * i, 4);
            ASSERT_LT(child, block.size());
            EXPECT_EQ(combined(block.data() + words[1], block.data() + child), pidlOfPath(paths[i]));
        }
    };
    const auto descriptors = [&](size_t descriptorSize, size_t nameOffset, bool wide) {
        return [=, this](const std::string& block) {
            ASSERT_EQ(block.size(), 4 + 3 * descriptorSize) << "two and a spare one";
            EXPECT_EQ(block[0], 2);
            for (size_t i = 0; i < paths.size(); ++i) {
                const std::wstring name = paths[i].substr(folder.path().size() + 1);
                const std::string expected = wide ? wideBytes(name) : ansiBytes(name);
                EXPECT_EQ(block.substr(4 + i * descriptorSize + nameOffset, expected.size()), expected);
            }
        };
    };
    const auto equals = [](const std::string& expected) {
        return [=](const std::string& block) { EXPECT_EQ(block, expected); };
    };
    struct Case {
        const char* what;
        CLIPFORMAT format;
        std::function<void(const std::string&)> check; // none: not offered
        bool ownObjectOnly = false; // the shell's object renders these itself
    };
    const Case cases[] = {
        {"CF_HDROP", CF_HDROP, hdrop},
        {"Shell IDList Array", formatNamed(L"Shell IDList Array"), idLists, true},
        {"FileGroupDescriptorW", formatNamed(L"FileGroupDescriptorW"),
         descriptors(sizeof(FILEDESCRIPTORW), offsetof(FILEDESCRIPTORW, cFileName), true)},
        {"FileGroupDescriptor", formatNamed(L"FileGroupDescriptor"),
         descriptors(sizeof(FILEDESCRIPTORA), offsetof(FILEDESCRIPTORA, cFileName), false)},
        {"FileNameW", formatNamed(L"FileNameW"), equals(wideBytes(paths[0]))},
        {"FileName", formatNamed(L"FileName"), equals(ansiBytes(paths[0]))},
        {"CF_UNICODETEXT", CF_UNICODETEXT, equals(wideBytes(text))},
        {"CF_TEXT", CF_TEXT, equals(ansiBytes(text))},
        {"Outlook's private formats", formatNamed(L"RenPrivateItem"), equals(*fetch(outlook.Get(), formatNamed(L"RenPrivateItem")))},
        {"no virtual files next to the real ones", formatNamed(L"FileContents"), {}},
    };
    for (const bool throughShell : {false, true}) {
        setShellCreateDataObject(throughShell ? shellStandIn : nullptr);
        ComPtr<IDataObject> created;
        ASSERT_EQ(CreateDataObjectForFiles(outlook.Get(), text, paths, created), S_OK);
        // The steps of a drag after the object is made.
        ASSERT_EQ(setFileGroupDescriptors(paths, created.Get()), S_OK);
        ASSERT_EQ(setFileNames(paths, created.Get()), S_OK);
        ASSERT_EQ(setFileContents(paths, created.Get()), S_OK);

        std::set<CLIPFORMAT> listed;
        forEachFormat(created.Get(), DATADIR_GET, [&](const FORMATETC& format) { listed.insert(format.cfFormat); });
        for (const Case& c : cases) {
            if (c.ownObjectOnly && throughShell)
                continue;
            SCOPED_TRACE(std::string(c.what) + (throughShell ? ", the shell's object" : ", the own object"));
            EXPECT_EQ(listed.count(c.format) == 1, c.check && c.format != CF_TEXT) << "listed";
            // Every target gets a block of its own: a second one reads the same.
            for (int time = 0; time < 2; ++time) {
                const std::optional<std::string> block = fetch(created.Get(), c.format);
                EXPECT_EQ(block.has_value(), static_cast<bool>(c.check));
                if (block && c.check)
                    c.check(*block);
            }
        }
        if (throughShell) {
            ASSERT_EQ(shellLists.size(), 3u);
            EXPECT_EQ(shellLists[0], pidlOfPath(folder.path()));
            for (size_t i = 0; i < paths.size(); ++i)
                EXPECT_EQ(combined(shellLists[0].data(), shellLists[i + 1].data()), pidlOfPath(paths[i]));
        }
        // Without files there is no object, and the drag goes on with Outlook's.
        EXPECT_EQ(CreateDataObjectForFiles(outlook.Get(), text, {}, created), E_FAIL);
        EXPECT_FALSE(created);
    }
    EXPECT_EQ(outlook->getDataCalls(L"FileContents"), 0u);
}

TEST_F(NewDataObject, OutlooksTextWithoutItsEndIsReadToTheBlockEnd)
{
    const ComPtr<IDataObject> source = adoptCom(new FileDataObject(nullptr, {}));
    ASSERT_EQ(SetHGLOBAL(CF_UNICODETEXT, globalFromBytes("a\0b\0c\0d", 7), source.Get()), S_OK);
    EXPECT_EQ(getText(source.Get()), L"abc");
}

} // namespace
