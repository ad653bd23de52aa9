// Transfer encodings of the .eml writer's parts, decoded independently.
#include "items/mime_body_encoding.h"

#include "eml_inspection.h"
#include "core/base64.h"

#include <wrl/client.h>

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

TEST(MimeBodyEncoding, EveryKindOfLineBreakBecomesCrLf)
{
    EXPECT_EQ(normalizeLineBreaks("a\nb\rc\r\nd\n\re"), "a\r\nb\r\nc\r\nd\r\n\r\ne");
    EXPECT_EQ(normalizeLineBreaks(""), "");
}

TEST(MimeBodyEncoding, QuotedPrintableKeepsLinesShortAndDecodesBack)
{
    std::string text = "Gr\xC3\xBC\xC3\x9F" "e = 5\xE2\x82\xAC\r\n";
    text += std::string(300, 'x') + "\r\n";
    text += "trailing blank \r\n";
    text += "tab\t\r\n";
    text += std::string(100, '=');
    const std::string encoded = encodeQuotedPrintable(text);
    EXPECT_TRUE(hasOnlyCrLf(encoded));
    EXPECT_LE(longestLine(encoded), 76u) << encoded;
    for (char c : encoded)
        EXPECT_TRUE(c == '\r' || c == '\n' || (c >= 32 && c <= 126)) << static_cast<int>(c);
    EXPECT_EQ(decodeQuotedPrintable(encoded), text);
    EXPECT_NE(encoded.find("blank=20\r\n"), std::string::npos) << encoded;
    EXPECT_NE(encoded.find("tab=09\r\n"), std::string::npos) << encoded;
}

TEST(MimeBodyEncoding, QuotedPrintableOfEmptyText)
{
    EXPECT_EQ(encodeQuotedPrintable(""), "");
    EXPECT_EQ(encodeQuotedPrintable("\r\n\r\n"), "\r\n\r\n");
}

TEST(MimeBodyEncoding, Base64LinesOfSeventySixThatDecodeBack)
{
    std::string bytes(3 * 1024 * 1024 + 5, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    std::string text;
    int pieces = 0;
    ASSERT_EQ(writeBase64Lines(bytes,
                               [&](std::string_view piece) {
                                   ++pieces;
                                   text += piece;
                                   return S_OK;
                               }),
              S_OK);
    EXPECT_GT(pieces, 1); // handed over in pieces, not as one string
    EXPECT_TRUE(hasOnlyCrLf(text));
    EXPECT_EQ(longestLine(text), 76u);
    EXPECT_TRUE(text.ends_with("\r\n"));
    const auto decoded = decodeBase64(text);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, bytes);
}

TEST(MimeBodyEncoding, Base64StopsAtTheFirstFailedWrite)
{
    int pieces = 0;
    const HRESULT hr = writeBase64Lines(std::string(4 * 1024 * 1024, 'a'), [&](std::string_view) {
        ++pieces;
        return STG_E_MEDIUMFULL;
    });
    EXPECT_EQ(hr, STG_E_MEDIUMFULL);
    EXPECT_EQ(pieces, 1);
    EXPECT_EQ(writeBase64Lines("", [](std::string_view) { return E_FAIL; }), S_OK);
}


TEST(MimeBodyEncoding, Base64FromAStreamEqualsBase64OfItsBytes)
{
    std::string bytes(2 * 1024 * 1024 + 11, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 13 + i / 509);
    Microsoft::WRL::ComPtr<IStream> stream;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
    ULONG written = 0;
    ASSERT_EQ(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written), S_OK);
    ASSERT_EQ(stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr), S_OK);
    std::string fromStream, fromBytes;
    ULONGLONG read = 0;
    ASSERT_EQ(writeBase64LinesFromStream(stream.Get(), [&](std::string_view t) { fromStream += t; return S_OK; }, read),
              S_OK);
    ASSERT_EQ(writeBase64Lines(bytes, [&](std::string_view t) { fromBytes += t; return S_OK; }), S_OK);
    EXPECT_EQ(read, bytes.size());
    EXPECT_EQ(fromStream, fromBytes);
    EXPECT_EQ(longestLine(fromStream), 76u);
}

TEST(MimeBodyEncoding, Base64FromAStreamThatFailsStopsWithItsError)
{
    struct FailingStream : IStream {
        ULONG reads = 0;
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
        ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
        ULONG STDMETHODCALLTYPE Release() override { return 1; }
        HRESULT STDMETHODCALLTYPE Read(void* into, ULONG wanted, ULONG* got) override
        {
            if (++reads > 2)
                return STG_E_READFAULT;
            const ULONG count = std::min<ULONG>(wanted, 1000);
            std::memset(into, 'x', count);
            *got = count;
            return S_OK;
        }
        HRESULT STDMETHODCALLTYPE Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override
        {
            return E_NOTIMPL;
        }
        HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
        HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }
    } stream;
    int pieces = 0;
    ULONGLONG read = 0;
    EXPECT_EQ(writeBase64LinesFromStream(&stream, [&](std::string_view) { ++pieces; return S_OK; }, read),
              STG_E_READFAULT);
    EXPECT_EQ(pieces, 0); // nothing half-read was handed on
    EXPECT_EQ(writeBase64LinesFromStream(nullptr, [](std::string_view) { return S_OK; }, read), E_POINTER);
}
