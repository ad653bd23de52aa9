// Base64 text and the exported file tools of the DLL.
#include "core/base64.h"

#include "support/scratch.h"

#include <gtest/gtest.h>

TEST(Base64, EncodesTheRfcVectors)
{
    EXPECT_EQ(encodeBase64(""), "");
    EXPECT_EQ(encodeBase64("f"), "Zg==");
    EXPECT_EQ(encodeBase64("fo"), "Zm8=");
    EXPECT_EQ(encodeBase64("foo"), "Zm9v");
    EXPECT_EQ(encodeBase64("foob"), "Zm9vYg==");
    EXPECT_EQ(encodeBase64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(encodeBase64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(encodeBase64(std::string("\xFF\xFE\x00", 3)), "//4A");
}

TEST(Base64, DecodesWithLineBreaksAndRoundTripsEveryByte)
{
    EXPECT_EQ(decodeBase64("Zm9v\r\nYmFy"), "foobar");
    EXPECT_EQ(decodeBase64("Zm9vYg=="), "foob");
    EXPECT_EQ(decodeBase64("Zm9vYmE="), "fooba");
    EXPECT_EQ(decodeBase64("Zm9vYg"), "foob"); // padding may be left out
    std::string all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(i);
    EXPECT_EQ(decodeBase64(encodeBase64(all)), all);
}

TEST(Base64, RejectsWhatIsNotBase64)
{
    EXPECT_FALSE(decodeBase64("Zm9v!"));
    EXPECT_FALSE(decodeBase64("Z"));
    EXPECT_FALSE(decodeBase64("Zm9v=Zm9v"));
    EXPECT_FALSE(decodeBase64("Zg==="));
    EXPECT_FALSE(decodeBase64("Zm9=="));
}

namespace {

using FileTool = HRESULT(WINAPI*)(const wchar_t*, const wchar_t*);

} // namespace

TEST(Base64FileTools, ExportedByTheDllAndRoundTripAFile)
{
    ScratchFolder folder;
    AddinCopy addin(folder);
    ASSERT_NE(addin.module(), nullptr);
    auto encode = reinterpret_cast<FileTool>(GetProcAddress(addin.module(), "EncodeBase64"));
    auto decode = reinterpret_cast<FileTool>(GetProcAddress(addin.module(), "DecodeBase64"));
    ASSERT_NE(encode, nullptr);
    ASSERT_NE(decode, nullptr);

    std::string image;
    for (int i = 0; i < 70000; ++i)
        image += static_cast<char>((i * 7919) & 0xFF);
    writeBytes(folder.file(L"button.png"), image);
    ASSERT_EQ(encode(folder.file(L"button.png").c_str(), folder.file(L"button.b64").c_str()), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"button.b64")), encodeBase64(image));
    ASSERT_EQ(decode(folder.file(L"button.b64").c_str(), folder.file(L"back.png").c_str()), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"back.png")), image);
}

TEST(Base64FileTools, FailuresAreReportedAndWriteNothing)
{
    ScratchFolder folder;
    AddinCopy addin(folder);
    auto decode = reinterpret_cast<FileTool>(GetProcAddress(addin.module(), "DecodeBase64"));
    ASSERT_NE(decode, nullptr);
    EXPECT_TRUE(FAILED(decode(folder.file(L"missing.b64").c_str(), folder.file(L"out.bin").c_str())));
    writeBytes(folder.file(L"bad.b64"), "not base64 at all!");
    EXPECT_TRUE(FAILED(decode(folder.file(L"bad.b64").c_str(), folder.file(L"out.bin").c_str())));
    EXPECT_FALSE(fileExists(folder.file(L"out.bin")));
    EXPECT_EQ(decode(nullptr, nullptr), E_POINTER);
}
