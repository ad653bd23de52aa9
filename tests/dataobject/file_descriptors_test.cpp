// The descriptor blocks and the single file name formats as a data object
// receives them, and the "FileContents" walk that leaves the object alone.
#include "dataobject/data_object_writer.h"

#include "test_data_object.h"

#include "dataobject/clipboard_formats.h"
#include "dataobject/global_memory.h"
#include "support/scratch.h"

#include <shlobj.h>

#include <gtest/gtest.h>

namespace {

std::string ansi(const std::wstring& text)
{
    const int bytes = WideCharToMultiByte(CP_ACP, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0,
                                          nullptr, nullptr);
    std::string result(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_ACP, 0, text.c_str(), static_cast<int>(text.size()), result.data(), bytes, nullptr,
                        nullptr);
    return result;
}

bool allZero(const char* bytes, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0)
            return false;
    }
    return true;
}

class FileDescriptorsTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegisterDataFormats();
        target = TestDataObject::create();
    }

    Microsoft::WRL::ComPtr<TestDataObject> target;
};

TEST_F(FileDescriptorsTest, WideBlockNamesEachFileWithoutItsFolder)
{
    const PathList paths{L"C:\\T\\1700000000\\Re  offer.msg", L"C:\\T\\1700000000\\\u00e9t\u00e9 \u20ac.pdf"};
    ASSERT_EQ(setFileGroupDescriptors(paths, target.Get()), S_OK);

    const TestDataObject::Received* received = target->receivedFormat(clipboardFormats().fileGroupDescriptorW);
    ASSERT_NE(received, nullptr);
    EXPECT_TRUE(received->release);
    EXPECT_EQ(received->format.lindex, -1);
    EXPECT_EQ(received->format.tymed, static_cast<DWORD>(TYMED_HGLOBAL));

    const std::string block = target->receivedBytes(clipboardFormats().fileGroupDescriptorW);
    ASSERT_EQ(block.size(), 2u * 592 + 596);
    const auto* group = reinterpret_cast<const FILEGROUPDESCRIPTORW*>(block.data());
    EXPECT_EQ(group->cItems, 2u);
    const FILEDESCRIPTORW* descriptors = group->fgd;
    EXPECT_STREQ(descriptors[0].cFileName, L"Re  offer.msg");
    EXPECT_STREQ(descriptors[1].cFileName, L"\u00e9t\u00e9 \u20ac.pdf");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(descriptors[i].dwFlags, 0u);
        // Nothing but the name is declared or written.
        EXPECT_TRUE(allZero(reinterpret_cast<const char*>(&descriptors[i]) + 4, 68)) << i;
    }
    // The spare descriptor behind the last stays zero.
    EXPECT_TRUE(allZero(block.data() + 4 + 2 * 592, 592));
}

TEST_F(FileDescriptorsTest, AnsiBlockCarriesTheNamesInTheAnsiCodePage)
{
    const std::wstring name = L"r\u00e9sum\u00e9 \u00fcber.msg";
    ASSERT_EQ(setFileGroupDescriptors({L"C:\\T\\" + name, L"C:\\T\\b.txt", L"C:\\T\\c"}, target.Get()), S_OK);

    const std::string block = target->receivedBytes(clipboardFormats().fileGroupDescriptor);
    ASSERT_EQ(block.size(), 3u * 332 + 336);
    const auto* group = reinterpret_cast<const FILEGROUPDESCRIPTORA*>(block.data());
    EXPECT_EQ(group->cItems, 3u);
    const FILEDESCRIPTORA* descriptors = group->fgd;
    EXPECT_EQ(std::string(descriptors[0].cFileName), ansi(name));
    EXPECT_STREQ(descriptors[1].cFileName, "b.txt");
    EXPECT_STREQ(descriptors[2].cFileName, "c");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(allZero(reinterpret_cast<const char*>(&descriptors[i]), 72)) << i;
    EXPECT_TRUE(allZero(block.data() + 4 + 3 * 332, 332));
}

TEST_F(FileDescriptorsTest, ANameLongerThanTheFieldIsCutAndStillEnds)
{
    const std::wstring name = std::wstring(300, L'x') + L".msg";
    ASSERT_EQ(setFileGroupDescriptors({L"C:\\T\\" + name}, target.Get()), S_OK);

    const std::string wide = target->receivedBytes(clipboardFormats().fileGroupDescriptorW);
    ASSERT_EQ(wide.size(), 592u + 596);
    const FILEDESCRIPTORW& wideDescriptor = reinterpret_cast<const FILEGROUPDESCRIPTORW*>(wide.data())->fgd[0];
    EXPECT_EQ(std::wstring(wideDescriptor.cFileName), name.substr(0, 259));

    const std::string narrow = target->receivedBytes(clipboardFormats().fileGroupDescriptor);
    const FILEDESCRIPTORA& ansiDescriptor = reinterpret_cast<const FILEGROUPDESCRIPTORA*>(narrow.data())->fgd[0];
    EXPECT_EQ(std::string(ansiDescriptor.cFileName), std::string(259, 'x'));
}

TEST_F(FileDescriptorsTest, AnEmptyListGivesBlocksWithNoDescriptors)
{
    ASSERT_EQ(setFileGroupDescriptors({}, target.Get()), S_OK);
    const std::string wide = target->receivedBytes(clipboardFormats().fileGroupDescriptorW);
    ASSERT_EQ(wide.size(), 596u);
    EXPECT_TRUE(allZero(wide.data(), wide.size()));
    EXPECT_EQ(target->receivedBytes(clipboardFormats().fileGroupDescriptor).size(), 336u);
}

TEST_F(FileDescriptorsTest, ARefusingDataObjectReportsTheFailure)
{
    target->setDataResult = E_ACCESSDENIED;
    EXPECT_EQ(setFileGroupDescriptors({L"C:\\T\\a.msg"}, target.Get()), E_ACCESSDENIED);
    EXPECT_EQ(setFileNames({L"C:\\T\\a.msg"}, target.Get()), E_ACCESSDENIED);
    EXPECT_TRUE(target->received().empty());
}

TEST_F(FileDescriptorsTest, FileNamesComeFromTheFirstPathOnly)
{
    const std::wstring first = L"C:\\T\\1700000000\\r\u00e9sum\u00e9.msg";
    ASSERT_EQ(setFileNames({first, L"C:\\T\\1700000000\\other.msg"}, target.Get()), S_OK);

    const TestDataObject::Received* narrow = target->receivedFormat(clipboardFormats().fileNameA);
    ASSERT_NE(narrow, nullptr);
    EXPECT_TRUE(narrow->release);
    EXPECT_EQ(target->receivedBytes(clipboardFormats().fileNameA), ansi(first) + '\0');

    const std::string wide = target->receivedBytes(clipboardFormats().fileNameW);
    ASSERT_EQ(wide.size(), 2 * first.size() + 2);
    EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(wide.data()), first.size() + 1), first + L'\0');
    EXPECT_EQ(target->received().size(), 2u);
}

TEST_F(FileDescriptorsTest, NoPathsNoFileNames)
{
    EXPECT_EQ(setFileNames({}, target.Get()), S_OK);
    EXPECT_TRUE(target->received().empty());
}

TEST_F(FileDescriptorsTest, FileContentsOpensTheFilesAndLeavesTheDataObjectAsItWas)
{
    ScratchFolder scratch;
    writeBytes(scratch.file(L"a.txt"), "abc");
    ASSERT_EQ(setFileContents({scratch.file(L"a.txt"), scratch.file(L"missing.txt")}, target.Get()), S_OK);
    EXPECT_TRUE(target->received().empty());
    // The walk holds no file open afterwards.
    EXPECT_TRUE(DeleteFileW(scratch.file(L"a.txt").c_str()));
}

TEST_F(FileDescriptorsTest, SetHGlobalGivesTheBlockAwayOnlyWhenTheCallSucceeds)
{
    HGLOBAL taken = GlobalAlloc(GMEM_MOVEABLE, 8);
    ASSERT_EQ(SetHGLOBAL(clipboardFormats().csv, taken, target.Get()), S_OK);
    const TestDataObject::Received* received = target->receivedFormat(clipboardFormats().csv);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(received->medium.hGlobal, taken);
    EXPECT_TRUE(received->release);

    target->setDataResult = E_FAIL;
    UniqueGlobal kept(GlobalAlloc(GMEM_MOVEABLE, 8));
    EXPECT_EQ(SetHGLOBAL(clipboardFormats().csv, kept.get(), target.Get()), E_FAIL);
    // Still the caller's: it can be locked and freed.
    EXPECT_TRUE(static_cast<bool>(GlobalLockGuard(kept.get())));
}

} // namespace
