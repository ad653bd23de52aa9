// Format names and the format dump in the log.
#include "dataobject/data_object_writer.h"

#include "test_data_object.h"

#include "core/log.h"
#include "dataobject/clipboard_formats.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

TEST(ClipboardFormatNames, StandardFormatsAreNamedByTheirConstants)
{
    const std::pair<UINT, const wchar_t*> expected[] = {
        {1, L"CF_TEXT"},           {2, L"CF_BITMAP"},           {3, L"CF_METAFILEPICT"},
        {4, L"CF_SYLK"},           {5, L"CF_DIF"},              {6, L"CF_TIFF"},
        {7, L"CF_OEMTEXT"},        {8, L"CF_DIB"},              {9, L"CF_PALETTE"},
        {10, L"CF_PENDATA"},       {11, L"CF_RIFF"},            {12, L"CF_WAVE"},
        {13, L"CF_UNICODETEXT"},   {14, L"CF_ENHMETAFILE"},     {15, L"CF_HDROP"},
        {16, L"CF_LOCALE"},        {17, L"CF_DIBV5"},           {0x80, L"CF_OWNERDISPLAY"},
        {0x81, L"CF_DSPTEXT"},     {0x82, L"CF_DSPBITMAP"},     {0x83, L"CF_DSPMETAFILEPICT"},
        {0x8E, L"CF_DSPENHMETAFILE"}, {0x200, L"CF_PRIVATEFIRST"}, {0x2FF, L"CF_PRIVATELAST"},
        {0x300, L"CF_GDIOBJFIRST"}, {0x3FF, L"CF_GDIOBJLAST"},
    };
    for (const auto& [id, name] : expected)
        EXPECT_EQ(clipboardFormatName(static_cast<CLIPFORMAT>(id)), name) << id;
}

TEST(ClipboardFormatNames, RegisteredFormatsAreNamedByTheSystem)
{
    RegisterDataFormats();
    EXPECT_EQ(clipboardFormatName(clipboardFormats().shellIdList), L"Shell IDList Array");
    EXPECT_EQ(clipboardFormatName(clipboardFormats().fileGroupDescriptorW), L"FileGroupDescriptorW");
    EXPECT_EQ(clipboardFormatName(clipboardFormats().renPrivateItem), L"RenPrivateItem");
    // Neither a standard nor a registered id.
    EXPECT_EQ(clipboardFormatName(0x201), L"");
}

TEST(FormatDump, ListsEveryFormatWithItsNameAndFields)
{
    RegisterDataFormats();
    auto source = TestDataObject::create();
    source->offerText(L"text");
    source->offerBytes(clipboardFormats().fileContents, "x", 3);

    LogCapture log(LOG_DEBUG);
    dumpFormats(source.Get(), DATADIR_GET);
    const std::string text = log.contents();
    EXPECT_NE(text.find("DATADIR_GET"), std::string::npos);
    EXPECT_NE(text.find("cfFormat=13, name=CF_UNICODETEXT, dwAspect=1, tymed=1, lindex=-1, pdt="), std::string::npos);
    EXPECT_NE(text.find("cfFormat=" + std::to_string(clipboardFormats().fileContents) +
                        ", name=FileContents, dwAspect=1, tymed=1, lindex=3, pdt="),
              std::string::npos);
}

TEST(FormatDump, ADirectionTheObjectRefusesListsNothing)
{
    auto source = TestDataObject::create();
    source->offerText(L"text");
    LogCapture log(LOG_DEBUG);
    dumpFormats(source.Get(), DATADIR_SET);
    const std::string text = log.contents();
    EXPECT_NE(text.find("DATADIR_SET"), std::string::npos);
    EXPECT_EQ(text.find("cfFormat="), std::string::npos);
}

} // namespace
