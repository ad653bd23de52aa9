// Copying formats between data objects, one medium kind at a time.
#include "dataobject/data_object_writer.h"

#include "test_data_object.h"

#include "core/log.h"
#include "dataobject/clipboard_formats.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

ComPtr<IStream> memoryStream(const std::string& bytes)
{
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    ULONG written = 0;
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
    return stream;
}

ComPtr<IStorage> memoryStorage()
{
    ComPtr<ILockBytes> bytes;
    CreateILockBytesOnHGlobal(nullptr, TRUE, &bytes);
    ComPtr<IStorage> storage;
    StgCreateDocfileOnILockBytes(bytes.Get(), STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, &storage);
    return storage;
}

class FormatCopyTest : public testing::Test {
protected:
    void SetUp() override
    {
        RegisterDataFormats();
        source = TestDataObject::create();
        target = TestDataObject::create();
    }

    ComPtr<TestDataObject> source;
    ComPtr<TestDataObject> target;
};

TEST_F(FormatCopyTest, EveryCopyableFormatArrivesWithTheReleaseFlag)
{
    const CLIPFORMAT streamFormat = static_cast<CLIPFORMAT>(RegisterClipboardFormatW(L"Korvane test stream"));
    const CLIPFORMAT storageFormat = static_cast<CLIPFORMAT>(RegisterClipboardFormatW(L"Korvane test storage"));
    const CLIPFORMAT fileFormat = static_cast<CLIPFORMAT>(RegisterClipboardFormatW(L"Korvane test file"));
    ComPtr<IStream> stream = memoryStream("stream bytes");
    ComPtr<IStorage> storage = memoryStorage();
    ASSERT_TRUE(stream && storage);
    source->offerBytes(clipboardFormats().csv, "a;b\r\n1;2\r\n");
    source->offerStream(streamFormat, stream.Get());
    source->offerStorage(storageFormat, storage.Get());
    source->offerFile(fileFormat, L"C:\\T\\file medium.bin");

    ASSERT_EQ(copy(source.Get(), target.Get()), S_OK);
    ASSERT_EQ(target->received().size(), 4u);
    for (const TestDataObject::Received& received : target->received()) {
        EXPECT_TRUE(received.release);
        EXPECT_EQ(received.format.tymed, received.medium.tymed);
        EXPECT_EQ(received.medium.pUnkForRelease, nullptr);
    }

    EXPECT_EQ(target->receivedBytes(clipboardFormats().csv), "a;b\r\n1;2\r\n");
    EXPECT_EQ(target->receivedFormat(streamFormat)->medium.pstm, stream.Get());
    EXPECT_EQ(target->receivedFormat(storageFormat)->medium.pstg, storage.Get());
    const STGMEDIUM& file = target->receivedFormat(fileFormat)->medium;
    EXPECT_EQ(file.tymed, static_cast<DWORD>(TYMED_FILE));
    EXPECT_STREQ(file.lpszFileName, L"C:\\T\\file medium.bin");
}

TEST_F(FormatCopyTest, TheCopiesAreTheDestinationsOwn)
{
    const CLIPFORMAT streamFormat = static_cast<CLIPFORMAT>(RegisterClipboardFormatW(L"Korvane test stream"));
    ComPtr<IStream> stream = memoryStream("s");
    source->offerBytes(clipboardFormats().csv, "abc");
    source->offerStream(streamFormat, stream.Get());

    FORMATETC csv{clipboardFormats().csv, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    ASSERT_EQ(copyFormat(csv, source.Get(), target.Get()), S_OK);
    FORMATETC streamEtc{streamFormat, nullptr, DVASPECT_CONTENT, -1, TYMED_ISTREAM};
    ASSERT_EQ(copyFormat(streamEtc, source.Get(), target.Get()), S_OK);

    // The source's medium was released: the test, the source's offer and the
    // destination hold one reference each.
    stream->AddRef();
    EXPECT_EQ(stream->Release(), 3u);

    // A second copy is another block.
    auto second = TestDataObject::create();
    ASSERT_EQ(copyFormat(csv, source.Get(), second.Get()), S_OK);
    EXPECT_NE(second->receivedFormat(clipboardFormats().csv)->medium.hGlobal,
              target->receivedFormat(clipboardFormats().csv)->medium.hGlobal);
}

TEST_F(FormatCopyTest, AMediumThatCannotBeCopiedIsSkippedAndTheRestGoesOn)
{
    LogCapture log(LOG_DEBUG);
    source->offerBitmap(CF_BITMAP);
    source->offerBytes(clipboardFormats().csv, "after the bitmap");

    ASSERT_EQ(copy(source.Get(), target.Get()), S_OK);
    ASSERT_EQ(target->received().size(), 1u);
    EXPECT_EQ(target->receivedBytes(clipboardFormats().csv), "after the bitmap");
    EXPECT_NE(log.contents().find("cannot copy this tymed:16"), std::string::npos);
}

TEST_F(FormatCopyTest, AFailingGetDataOrSetDataIsReportedAndNothingLeaks)
{
    source->offerBytes(clipboardFormats().csv, "abc");
    FORMATETC csv{clipboardFormats().csv, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};

    source->getDataResult = E_OUTOFMEMORY;
    EXPECT_EQ(copyFormat(csv, source.Get(), target.Get()), E_OUTOFMEMORY);
    EXPECT_TRUE(target->received().empty());

    source->getDataResult = S_OK;
    target->setDataResult = E_ACCESSDENIED;
    EXPECT_EQ(copyFormat(csv, source.Get(), target.Get()), E_ACCESSDENIED);
    EXPECT_TRUE(target->received().empty());
}

TEST_F(FormatCopyTest, AnUnenumerableSourceCopiesNothing)
{
    source->offerBytes(clipboardFormats().csv, "abc");
    source->enumResult = E_NOTIMPL;
    EXPECT_EQ(copy(source.Get(), target.Get()), E_NOTIMPL);
    EXPECT_TRUE(target->received().empty());
}

} // namespace
