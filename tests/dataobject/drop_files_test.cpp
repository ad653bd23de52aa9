// CF_HDROP: the DROPFILES block, read back byte by byte and by the shell.
#include "dataobject/data_object_writer.h"

#include "block_readers.h"
#include "test_data_object.h"

#include "dataobject/global_memory.h"

#include <gtest/gtest.h>

namespace {

struct DropFilesHeader {
    DWORD pFiles;
    LONG x, y;
    DWORD fNC, fWide;
};

DropFilesHeader headerOf(const std::string& block)
{
    DropFilesHeader header{};
    std::memcpy(&header, block.data(), sizeof header);
    return header;
}

std::wstring wideTail(const std::string& block, size_t offset)
{
    return std::wstring(reinterpret_cast<const wchar_t*>(block.data() + offset), (block.size() - offset) / 2);
}

TEST(DropFilesBlock, OnePathMakesTheFortyFourByteBlock)
{
    UniqueGlobal hdrop(CreateHDROP({L"C:\\T\\a.msg"}));
    ASSERT_TRUE(hdrop);
    const std::string block = globalBytes(hdrop.get());
    ASSERT_EQ(block.size(), 44u);

    const DropFilesHeader header = headerOf(block);
    EXPECT_EQ(header.pFiles, 20u);
    EXPECT_EQ(header.x, 0);
    EXPECT_EQ(header.y, 0);
    EXPECT_EQ(header.fNC, 0u);
    EXPECT_EQ(header.fWide, 1u);
    EXPECT_EQ(wideTail(block, 20), std::wstring(L"C:\\T\\a.msg\0\0", 12));

    EXPECT_EQ(dragQueryPaths(hdrop.get()), std::vector<std::wstring>{L"C:\\T\\a.msg"});
}

TEST(DropFilesBlock, NamesEveryPathInOrderEachWithItsNul)
{
    const PathList paths{L"C:\\T\\1700000000\\Re  offer.msg", L"D:\\other folder\\\u00e9t\u00e9 \u20ac.pdf",
                         L"C:\\T\\b.txt"};
    UniqueGlobal hdrop(CreateHDROP(paths));
    const std::string block = globalBytes(hdrop.get());

    size_t expected = 20 + 2;
    std::wstring names;
    for (const std::wstring& path : paths) {
        expected += 2 * path.size() + 2;
        names += path + L'\0';
    }
    ASSERT_EQ(block.size(), expected);
    EXPECT_EQ(wideTail(block, 20), names + L'\0');
    EXPECT_EQ(dragQueryPaths(hdrop.get()), paths);
}

TEST(DropFilesBlock, AnEmptyListIsTheHeaderAndTheEndMark)
{
    UniqueGlobal hdrop(CreateHDROP({}));
    const std::string block = globalBytes(hdrop.get());
    ASSERT_EQ(block.size(), 22u);
    EXPECT_EQ(headerOf(block).pFiles, 20u);
    EXPECT_EQ(block.substr(20), std::string(2, '\0'));
}

TEST(DropFilesBlock, IsGivenToTheDataObjectWithTheReleaseFlag)
{
    auto target = TestDataObject::create();
    ASSERT_EQ(CreateCF_HDROP({L"C:\\T\\a.msg", L"C:\\T\\b.msg"}, target.Get()), S_OK);

    ASSERT_EQ(target->received().size(), 1u);
    const TestDataObject::Received& received = target->received().front();
    EXPECT_EQ(received.format.cfFormat, CF_HDROP);
    EXPECT_EQ(received.format.ptd, nullptr);
    EXPECT_EQ(received.format.dwAspect, static_cast<DWORD>(DVASPECT_CONTENT));
    EXPECT_EQ(received.format.lindex, -1);
    EXPECT_EQ(received.format.tymed, static_cast<DWORD>(TYMED_HGLOBAL));
    EXPECT_EQ(received.medium.tymed, static_cast<DWORD>(TYMED_HGLOBAL));
    EXPECT_EQ(received.medium.pUnkForRelease, nullptr);
    EXPECT_TRUE(received.release);
    EXPECT_EQ(dragQueryPaths(received.medium.hGlobal),
              (std::vector<std::wstring>{L"C:\\T\\a.msg", L"C:\\T\\b.msg"}));
}

TEST(DropFilesBlock, ARefusingDataObjectGetsNothingAndTheFailureComesBack)
{
    auto target = TestDataObject::create();
    target->setDataResult = E_NOTIMPL;
    EXPECT_EQ(CreateCF_HDROP({L"C:\\T\\a.msg"}, target.Get()), E_NOTIMPL);
    EXPECT_TRUE(target->received().empty());
    EXPECT_EQ(CreateCF_HDROP({L"C:\\T\\a.msg"}, nullptr), E_POINTER);
}

} // namespace
