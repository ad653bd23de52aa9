// MyEnumFORMATETC: Next, Skip, Reset and Clone as IEnumFORMATETC requires.
#include "dataobject/filter_data_object.h"

#include "common/com_ptr.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Microsoft::WRL::ComPtr;

FORMATETC formatOf(CLIPFORMAT format)
{
    return FORMATETC{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
}

// A target device of its own, as the enumerator takes them over.
DVTARGETDEVICE* targetDevice(BYTE marker)
{
    const DWORD size = sizeof(DVTARGETDEVICE) + 3;
    auto* device = static_cast<DVTARGETDEVICE*>(CoTaskMemAlloc(size));
    std::memset(device, marker, size);
    device->tdSize = size;
    return device;
}

ComPtr<IEnumFORMATETC> enumeratorOf(std::vector<FORMATETC> formats)
{
    ComPtr<IEnumFORMATETC> enumerator = adoptCom(new MyEnumFORMATETC(std::move(formats)));
    return enumerator;
}

ComPtr<IEnumFORMATETC> threeFormats()
{
    return enumeratorOf({formatOf(CF_TEXT), formatOf(CF_HDROP), formatOf(CF_UNICODETEXT)});
}

std::vector<CLIPFORMAT> nextFormats(IEnumFORMATETC* enumerator, ULONG count, HRESULT& hr)
{
    std::vector<FORMATETC> records(count + 1);
    ULONG fetched = 99;
    hr = enumerator->Next(count, records.data(), &fetched);
    std::vector<CLIPFORMAT> formats;
    for (ULONG i = 0; i < fetched; ++i) {
        formats.push_back(records[i].cfFormat);
        CoTaskMemFree(records[i].ptd);
    }
    return formats;
}

TEST(FormatEnumerator, NextHandsOutTheRecordsInOrder)
{
    auto enumerator = threeFormats();
    HRESULT hr = E_FAIL;
    EXPECT_EQ(nextFormats(enumerator.Get(), 2, hr), (std::vector<CLIPFORMAT>{CF_TEXT, CF_HDROP}));
    EXPECT_EQ(hr, S_OK);
    EXPECT_EQ(nextFormats(enumerator.Get(), 1, hr), std::vector<CLIPFORMAT>{CF_UNICODETEXT});
    EXPECT_EQ(hr, S_OK);
}

TEST(FormatEnumerator, FewerRecordsThanAskedForIsSFalse)
{
    auto enumerator = threeFormats();
    HRESULT hr = E_FAIL;
    EXPECT_EQ(nextFormats(enumerator.Get(), 5, hr).size(), 3u);
    EXPECT_EQ(hr, S_FALSE);
    EXPECT_TRUE(nextFormats(enumerator.Get(), 1, hr).empty());
    EXPECT_EQ(hr, S_FALSE);
}

TEST(FormatEnumerator, OneRecordMayBeFetchedWithoutACounter)
{
    auto enumerator = threeFormats();
    FORMATETC format{};
    EXPECT_EQ(enumerator->Next(1, &format, nullptr), S_OK);
    EXPECT_EQ(format.cfFormat, CF_TEXT);
    FORMATETC two[2] = {};
    EXPECT_EQ(enumerator->Next(2, two, nullptr), E_INVALIDARG);
    EXPECT_EQ(enumerator->Next(1, nullptr, nullptr), E_POINTER);
}

TEST(FormatEnumerator, SkipMovesOnAndSaysWhenItRanOut)
{
    auto enumerator = threeFormats();
    EXPECT_EQ(enumerator->Skip(2), S_OK);
    HRESULT hr = E_FAIL;
    EXPECT_EQ(nextFormats(enumerator.Get(), 1, hr), std::vector<CLIPFORMAT>{CF_UNICODETEXT});
    EXPECT_EQ(enumerator->Reset(), S_OK);
    EXPECT_EQ(enumerator->Skip(4), S_FALSE);
    EXPECT_TRUE(nextFormats(enumerator.Get(), 1, hr).empty());
    EXPECT_EQ(enumerator->Skip(0), S_OK);
}

TEST(FormatEnumerator, ResetStartsOver)
{
    auto enumerator = threeFormats();
    HRESULT hr = E_FAIL;
    nextFormats(enumerator.Get(), 3, hr);
    EXPECT_EQ(enumerator->Reset(), S_OK);
    EXPECT_EQ(nextFormats(enumerator.Get(), 3, hr), (std::vector<CLIPFORMAT>{CF_TEXT, CF_HDROP, CF_UNICODETEXT}));
}

TEST(FormatEnumerator, CloneContinuesFromTheSamePlaceOnItsOwn)
{
    auto enumerator = threeFormats();
    EXPECT_EQ(enumerator->Skip(1), S_OK);
    ComPtr<IEnumFORMATETC> clone;
    ASSERT_EQ(enumerator->Clone(&clone), S_OK);
    HRESULT hr = E_FAIL;
    EXPECT_EQ(nextFormats(clone.Get(), 3, hr), (std::vector<CLIPFORMAT>{CF_HDROP, CF_UNICODETEXT}));
    EXPECT_EQ(hr, S_FALSE);
    // The original did not move.
    EXPECT_EQ(nextFormats(enumerator.Get(), 1, hr), std::vector<CLIPFORMAT>{CF_HDROP});
    // The clone outlives the original.
    enumerator.Reset();
    EXPECT_EQ(clone->Reset(), S_OK);
    EXPECT_EQ(nextFormats(clone.Get(), 1, hr), std::vector<CLIPFORMAT>{CF_TEXT});
}

TEST(FormatEnumerator, TargetDevicesAreHandedOutAsCopiesOfTheirOwn)
{
    FORMATETC withDevice = formatOf(CF_DIB);
    withDevice.ptd = targetDevice(0x5A);
    const std::string deviceBytes(reinterpret_cast<const char*>(withDevice.ptd), withDevice.ptd->tdSize);
    auto enumerator = enumeratorOf({withDevice});

    FORMATETC first{}, second{};
    ASSERT_EQ(enumerator->Next(1, &first, nullptr), S_OK);
    enumerator->Reset();
    ASSERT_EQ(enumerator->Next(1, &second, nullptr), S_OK);
    ASSERT_NE(first.ptd, nullptr);
    EXPECT_NE(first.ptd, second.ptd);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(first.ptd), first.ptd->tdSize), deviceBytes);
    CoTaskMemFree(first.ptd);
    CoTaskMemFree(second.ptd);
}

} // namespace
