// The formats every part of the add-in uses are registered with the system
// under their exact names, and the ones that matter are logged with their ids.
#include "dataobject/clipboard_formats.h"

#include "core/log.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

std::wstring registeredName(CLIPFORMAT format)
{
    wchar_t name[128] = {};
    const int length = GetClipboardFormatNameW(format, name, 128);
    return std::wstring(name, length > 0 ? length : 0);
}

TEST(ClipboardFormats, AllThirteenAreRegisteredUnderTheirNames)
{
    RegisterDataFormats();
    const ClipboardFormats& formats = clipboardFormats();
    const std::pair<CLIPFORMAT, const wchar_t*> expected[] = {
        {formats.fileContents, L"FileContents"},
        {formats.fileGroupDescriptorW, L"FileGroupDescriptorW"},
        {formats.fileGroupDescriptor, L"FileGroupDescriptor"},
        {formats.fileNameA, L"FileName"},
        {formats.fileNameW, L"FileNameW"},
        {formats.shellIdList, L"Shell IDList Array"},
        {formats.dragContext, L"DragContext"},
        {formats.objectDescriptor, L"Object Descriptor"},
        {formats.renPrivateSourceFolder, L"RenPrivateSourceFolder"},
        {formats.renPrivateItem, L"RenPrivateItem"},
        {formats.renPrivateLatestMessages, L"RenPrivateLatestMessages"},
        {formats.renPrivateMessages, L"RenPrivateMessages"},
        {formats.csv, L"CSV"},
    };
    for (const auto& [format, name] : expected) {
        EXPECT_GE(format, 0xC000) << name;
        EXPECT_EQ(registeredName(format), name);
        EXPECT_EQ(format, RegisterClipboardFormatW(name));
    }
}

TEST(ClipboardFormats, RegisteringAgainKeepsTheIds)
{
    RegisterDataFormats();
    const ClipboardFormats first = clipboardFormats();
    RegisterDataFormats();
    EXPECT_EQ(clipboardFormats().fileContents, first.fileContents);
    EXPECT_EQ(clipboardFormats().csv, first.csv);
}

TEST(ClipboardFormats, TheFirstSevenAreLoggedWithTheirIds)
{
    LogCapture log(LOG_INFO);
    RegisterDataFormats();
    const ClipboardFormats& formats = clipboardFormats();
    const std::string text = log.contents();
    const std::pair<const char*, CLIPFORMAT> labels[] = {
        {"file contents format =", formats.fileContents},
        {"file group descriptor UNICODE format =", formats.fileGroupDescriptorW},
        {"file group descriptor ASCII format =", formats.fileGroupDescriptor},
        {"CF_FILENAMEA=", formats.fileNameA},
        {"CF_FILENAMEW=", formats.fileNameW},
        {"CF_IDLIST=", formats.shellIdList},
        {"DragContext=", formats.dragContext},
    };
    for (const auto& [label, id] : labels)
        EXPECT_NE(text.find(std::string(label) + std::to_string(id) + "\r\n"), std::string::npos) << label;
}

} // namespace
