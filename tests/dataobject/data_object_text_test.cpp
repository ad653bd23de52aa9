// Unicode text on data objects: set, read back, passed on.
#include "dataobject/data_object_writer.h"

#include "test_data_object.h"

#include <gtest/gtest.h>

namespace {

TEST(DataObjectText, SetTextGivesUnicodeTextWithItsNulAndNothingElse)
{
    auto target = TestDataObject::create();
    const std::wstring text = L"{\n  \"items\" : [\n  ]\n}\n\u20ac";
    ASSERT_EQ(setText(target.Get(), text), S_OK);

    ASSERT_EQ(target->received().size(), 1u);
    const TestDataObject::Received& received = target->received().front();
    EXPECT_EQ(received.format.cfFormat, CF_UNICODETEXT);
    EXPECT_EQ(received.format.dwAspect, static_cast<DWORD>(DVASPECT_CONTENT));
    EXPECT_EQ(received.format.lindex, -1);
    EXPECT_EQ(received.format.tymed, static_cast<DWORD>(TYMED_HGLOBAL));
    EXPECT_TRUE(received.release);
    const std::string bytes = target->receivedBytes(CF_UNICODETEXT);
    ASSERT_EQ(bytes.size(), (text.size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), text.size() + 1), text + L'\0');
}

TEST(DataObjectText, GetTextReadsTheUnicodeText)
{
    auto source = TestDataObject::create();
    source->offerText(L"From\tSubject\r\nAnn\tHello \u00e9\r\n");
    EXPECT_EQ(getText(source.Get()), L"From\tSubject\r\nAnn\tHello \u00e9\r\n");
}

TEST(DataObjectText, AnObjectWithoutTextHasEmptyText)
{
    auto source = TestDataObject::create();
    source->offerBytes(CF_TEXT, std::string("ansi only\0", 10));
    EXPECT_EQ(getText(source.Get()), L"");
    EXPECT_EQ(getText(nullptr), L"");
}

TEST(DataObjectText, ABlockWithoutTerminatorIsReadOnlyToItsEnd)
{
    auto source = TestDataObject::create();
    // Three characters and an odd byte, no NUL anywhere.
    source->offerBytes(CF_UNICODETEXT, std::string("a\0b\0c\0d", 7));
    EXPECT_EQ(getText(source.Get()), L"abc");
}

TEST(DataObjectText, CopyTextPassesTheTextOn)
{
    auto source = TestDataObject::create();
    source->offerText(L"the table");
    auto target = TestDataObject::create();
    ASSERT_EQ(copyText(source.Get(), target.Get()), S_OK);
    EXPECT_EQ(target->receivedBytes(CF_UNICODETEXT), std::string("t\0h\0e\0 \0t\0a\0b\0l\0e\0\0\0", 20));
}

TEST(DataObjectText, CopyTextWithNoTextSetsNothing)
{
    auto source = TestDataObject::create();
    auto target = TestDataObject::create();
    EXPECT_EQ(copyText(source.Get(), target.Get()), S_FALSE);
    EXPECT_TRUE(target->received().empty());
}

} // namespace
