// "Shell IDList Array": the CIDA block over real files, parsed back with the
// shell's ILGetSize and compared with the shell's own item-id lists.
#include "dataobject/data_object_writer.h"

#include "block_readers.h"
#include "test_data_object.h"

#include "dataobject/clipboard_formats.h"
#include "dataobject/global_memory.h"
#include "dataobject/item_id_list.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

std::string pidlOfPath(const std::wstring& path)
{
    UniquePidl pidl(ILCreateFromPathW(path.c_str()));
    return pidlBytes(pidl.get());
}

// The absolute list of parent + relative child, as the shell combines them.
std::string combined(const std::string& parent, const std::string& child)
{
    UniquePidl pidl(ILCombine(reinterpret_cast<LPCITEMIDLIST>(parent.data()),
                              reinterpret_cast<LPCITEMIDLIST>(child.data())));
    return pidlBytes(pidl.get());
}

class ShellIdListTest : public testing::Test {
protected:
    void SetUp() override { RegisterDataFormats(); }

    std::wstring makeFile(const std::wstring& name, const std::wstring& folder = L"")
    {
        const std::wstring dir = folder.empty() ? scratch.path() : folder;
        const std::wstring path = dir + L"\\" + name;
        writeBytes(path, "contents");
        return path;
    }

    ScratchFolder scratch;
};

TEST_F(ShellIdListTest, HoldsTheFolderAndEachFileBelowIt)
{
    const PathList paths{makeFile(L"a.msg"), makeFile(L"b report.pdf"), makeFile(L"c.txt")};
    UniqueGlobal block(CreateSHELLIDLIST(paths));
    ASSERT_TRUE(block);
    const std::string bytes = globalBytes(block.get());

    const ParsedCida cida = parseCida(bytes);
    ASSERT_TRUE(cida.valid);
    EXPECT_EQ(cida.cidl, 3u);
    // With n files the lists start at 4n + 8 + 4: one spare word behind the offsets.
    EXPECT_EQ(cida.offsets.front(), 4u * 3 + 8 + 4);

    ASSERT_EQ(cida.lists.size(), 4u);
    EXPECT_EQ(cida.lists[0], pidlOfPath(scratch.path()));
    for (size_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(combined(cida.lists[0], cida.lists[i + 1]), pidlOfPath(paths[i])) << i;

    // The lists follow each other without a gap and end the block.
    size_t end = cida.offsets.front();
    for (size_t j = 0; j < cida.lists.size(); ++j) {
        EXPECT_EQ(cida.offsets[j], end);
        end += cida.lists[j].size();
    }
    EXPECT_EQ(bytes.size(), end);
}

TEST_F(ShellIdListTest, OneFileStartsItsListsAtTwenty)
{
    UniqueGlobal block(CreateSHELLIDLIST({makeFile(L"only.msg")}));
    const ParsedCida cida = parseCida(globalBytes(block.get()));
    ASSERT_TRUE(cida.valid);
    EXPECT_EQ(cida.cidl, 1u);
    EXPECT_EQ(cida.offsets.front(), 4u * 1 + 8 + 4);
}

TEST_F(ShellIdListTest, AFileOutsideTheFirstFilesFolderIsLeftOutButCfHdropNamesIt)
{
    const std::wstring first = scratch.file(L"one");
    const std::wstring second = scratch.file(L"two");
    ASSERT_TRUE(CreateDirectoryW(first.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(second.c_str(), nullptr));
    const PathList paths{makeFile(L"a.msg", first), makeFile(L"b.msg", second), makeFile(L"c.msg", first)};

    UniqueGlobal block(CreateSHELLIDLIST(paths));
    const ParsedCida cida = parseCida(globalBytes(block.get()));
    ASSERT_TRUE(cida.valid);
    EXPECT_EQ(cida.cidl, 2u);
    EXPECT_EQ(cida.lists[0], pidlOfPath(first));
    EXPECT_EQ(combined(cida.lists[0], cida.lists[1]), pidlOfPath(paths[0]));
    EXPECT_EQ(combined(cida.lists[0], cida.lists[2]), pidlOfPath(paths[2]));

    UniqueGlobal hdrop(CreateHDROP(paths));
    EXPECT_EQ(dragQueryPaths(hdrop.get()), paths);
}

TEST_F(ShellIdListTest, WithoutAnyFileListThereIsNoBlock)
{
    EXPECT_EQ(CreateSHELLIDLIST({}), nullptr);
    // A folder that does not exist has no item-id list.
    EXPECT_EQ(CreateSHELLIDLIST({scratch.file(L"missing\\a.msg")}), nullptr);
}

TEST_F(ShellIdListTest, IsSetUnderShellIdListArray)
{
    const PathList paths{makeFile(L"a.msg"), makeFile(L"b.msg")};
    auto target = TestDataObject::create();
    ASSERT_EQ(setShellIdList(paths, target.Get()), S_OK);

    const TestDataObject::Received* received = target->receivedFormat(clipboardFormats().shellIdList);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(clipboardFormats().shellIdList, RegisterClipboardFormatW(L"Shell IDList Array"));
    EXPECT_TRUE(received->release);
    EXPECT_EQ(received->format.tymed, static_cast<DWORD>(TYMED_HGLOBAL));
    const ParsedCida cida = parseCida(target->receivedBytes(clipboardFormats().shellIdList));
    ASSERT_TRUE(cida.valid);
    EXPECT_EQ(cida.cidl, 2u);
}

} // namespace
