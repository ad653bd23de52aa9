// The MIME converter stand-in, reached the way the add-in reaches Outlook's
// converter: a real CoCreateInstance of CLSID_KvConverterSession, then
// MAPIToMIMEStm on a message that is read only through IMessage calls.
#include "e2e_shared/com_object.h"
#include "common/com_ptr.h"
#include "support/converter_standin.h"
#include "e2e_shared/msg_builder.h"

#include <mapicode.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

// Every block handed out, so a test sees that the converter freed them all.
LONG liveBlocks = 0;

void* allocateBlock(std::size_t size)
{
    InterlockedIncrement(&liveBlocks);
    return CoTaskMemAlloc(size);
}

ULONG WINAPI freeBlock(void* block)
{
    if (block) {
        InterlockedDecrement(&liveBlocks);
        CoTaskMemFree(block);
    }
    return 0;
}

// The whole of IMessage and IMAPITable answer "not supported" but for the few
// methods a minimal message overrides.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-parameter"
#define KV_NOT_SUPPORTED override { return MAPI_E_NO_SUPPORT; }
struct UnsupportedMessage : IMessage {
    MAPI_IMAPIPROP_METHODS(KV_NOT_SUPPORTED)
    MAPI_IMESSAGE_METHODS(KV_NOT_SUPPORTED)
};
struct UnsupportedTable : IMAPITable {
    MAPI_IMAPITABLE_METHODS(KV_NOT_SUPPORTED)
};
#undef KV_NOT_SUPPORTED
#pragma GCC diagnostic pop

struct Recipient {
    LONG type;
    std::wstring name, address;
};

// Copies wide strings into the tail of a block after its value array.
wchar_t* placeText(wchar_t*& tail, const std::wstring& text)
{
    wchar_t* start = tail;
    text.copy(start, text.size());
    start[text.size()] = L'\0';
    tail += text.size() + 1;
    return start;
}

class RecipientTable final : public ComObject<UnsupportedTable> {
public:
    explicit RecipientTable(std::vector<Recipient> rows) : rows_(std::move(rows)) {}

    HRESULT STDMETHODCALLTYPE GetRowCount(ULONG, ULONG* count) override
    {
        *count = static_cast<ULONG>(rows_.size());
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE QueryRows(LONG wanted, ULONG, LPSRowSet* result) override
    {
        const std::size_t count = std::min<std::size_t>(static_cast<std::size_t>(wanted), rows_.size() - next_);
        auto* set = static_cast<SRowSet*>(allocateBlock(CbNewSRowSet(count ? count : 1)));
        set->cRows = static_cast<ULONG>(count);
        for (std::size_t i = 0; i < count; ++i, ++next_) {
            const Recipient& row = rows_[next_];
            const std::size_t size = 3 * sizeof(SPropValue) + (row.name.size() + row.address.size() + 2) * 2;
            auto* values = static_cast<SPropValue*>(allocateBlock(size));
            wchar_t* tail = reinterpret_cast<wchar_t*>(values + 3);
            values[0].ulPropTag = 0x0C150003;
            values[0].Value.l = row.type;
            values[1].ulPropTag = 0x3001001F;
            values[1].Value.lpszW = placeText(tail, row.name);
            values[2].ulPropTag = 0x3003001F;
            values[2].Value.lpszW = placeText(tail, row.address);
            set->aRow[i] = SRow{0, 3, values};
        }
        *result = set;
        return S_OK;
    }

private:
    std::vector<Recipient> rows_;
    std::size_t next_ = 0;
};

class MinimalMessage final : public ComObject<UnsupportedMessage> {
public:
    std::map<ULONG, std::wstring> texts;  // string properties by PT_UNICODE tag
    FILETIME submitTime{};
    std::vector<Recipient> recipients;

    HRESULT STDMETHODCALLTYPE GetProps(LPSPropTagArray tags, ULONG, ULONG* count, LPSPropValue* result) override
    {
        std::size_t size = tags->cValues * sizeof(SPropValue);
        for (const auto& [tag, text] : texts)
            size += (text.size() + 1) * 2;
        auto* values = static_cast<SPropValue*>(allocateBlock(size));
        wchar_t* tail = reinterpret_cast<wchar_t*>(values + tags->cValues);
        HRESULT hr = S_OK;
        for (ULONG i = 0; i < tags->cValues; ++i) {
            const ULONG tag = tags->aulPropTag[i];
            const auto text = texts.find(tag);
            if (text != texts.end()) {
                values[i].ulPropTag = tag;
                values[i].Value.lpszW = placeText(tail, text->second);
            } else if (tag == 0x00390040) {
                values[i].ulPropTag = tag;
                values[i].Value.ft = submitTime;
            } else {
                values[i].ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(tag));
                values[i].Value.err = MAPI_E_NOT_FOUND;
                hr = MAPI_W_ERRORS_RETURNED;
            }
        }
        *count = tags->cValues;
        *result = values;
        return hr;
    }

    HRESULT STDMETHODCALLTYPE GetRecipientTable(ULONG, LPMAPITABLE* table) override
    {
        *table = new RecipientTable(recipients);
        return S_OK;
    }
};

ComPtr<MinimalMessage> makeMessage()
{
    ComPtr<MinimalMessage> message;
    message = adoptCom(new MinimalMessage());
    message->texts[0x0037001F] = L"Quarterly report";
    message->texts[0x0C1A001F] = L"Ann Example";
    message->texts[0x0C1F001F] = L"ann@example.com";
    message->texts[0x1000001F] = L"Line one\nGr\u00fc\u00dfe";
    message->submitTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    message->recipients = {{MAPI_TO, L"Bob", L"bob@example.com"},
                           {MAPI_BCC, L"Eve", L"eve@example.com"},
                           {MAPI_TO, L"Carol Doe", L"carol@example.com"},
                           {MAPI_CC, L"Dan", L"dan@example.com"}};
    return message;
}

// Creates the converter exactly as the add-in does.
HRESULT createConverter(ComPtr<IConverterSession>& converter)
{
    ComPtr<IUnknown> unknown;
    const HRESULT hr = CoCreateInstance(CLSID_KvConverterSession, nullptr, CLSCTX_ALL, IID_IUnknown,
                                        reinterpret_cast<void**>(unknown.GetAddressOf()));
    if (FAILED(hr))
        return hr;
    return unknown->QueryInterface(IID_KvConverterSession, reinterpret_cast<void**>(converter.GetAddressOf()));
}

std::string streamText(IStream* stream)
{
    HGLOBAL memory = nullptr;
    if (FAILED(GetHGlobalFromStream(stream, &memory)))
        return std::string();
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    const char* bytes = static_cast<const char*>(GlobalLock(memory));
    std::string text(bytes, static_cast<std::size_t>(stat.cbSize.QuadPart));
    GlobalUnlock(memory);
    return text;
}

ComPtr<IStream> memoryStream()
{
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, stream.GetAddressOf());
    return stream;
}

constexpr ULONG addinFlags = CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_USE_RTF;

}  // namespace

TEST(ConverterStandIn, IsFoundByCoCreateInstanceOnlyWhileRegistered)
{
    {
        ConverterRegistration registration(freeBlock);
        ASSERT_EQ(registration.registrationResult(), S_OK);
        ComPtr<IConverterSession> converter;
        EXPECT_EQ(createConverter(converter), S_OK);
        EXPECT_TRUE(converter);
        EXPECT_EQ(registration.activity().instancesCreated, 1u);
    }
    ComPtr<IConverterSession> converter;
    EXPECT_EQ(createConverter(converter), REGDB_E_CLASSNOTREG);
}

TEST(ConverterStandIn, WritesTheMailAsOutlookShapesItAndFreesWhatItRead)
{
    ConverterRegistration registration(freeBlock);
    ComPtr<IConverterSession> converter;
    ASSERT_EQ(createConverter(converter), S_OK);
    auto stream = memoryStream();

    const LONG blocksBefore = liveBlocks;
    ASSERT_EQ(converter->MAPIToMIMEStm(makeMessage().Get(), stream.Get(), addinFlags), S_OK);

    EXPECT_EQ(streamText(stream.Get()),
              "From: \"Ann Example\" <ann@example.com>\r\n"
              "Sender: \"Ann Example\" <ann@example.com>\r\n"
              "To: \"Bob\" <bob@example.com>,\r\n\t\"Carol Doe\" <carol@example.com>\r\n"
              "Cc: \"Dan\" <dan@example.com>\r\n"
              "Bcc: \"Eve\" <eve@example.com>\r\n"
              "Subject: Quarterly report\r\n"
              "Date: Tue, 05 Mar 2024 07:08:09 +0000\r\n"
              "MIME-Version: 1.0\r\n"
              "Content-Type: text/plain; charset=\"utf-8\"\r\n"
              "Content-Transfer-Encoding: 8bit\r\n"
              "\r\n"
              "Line one\r\nGr\xC3\xBC\xC3\x9F" "e");
    EXPECT_EQ(liveBlocks, blocksBefore);
    EXPECT_EQ(registration.activity().conversionFlags, std::vector<ULONG>{addinFlags});
}

TEST(ConverterStandIn, LeavesBccOutAndEncodesNonAsciiHeadersWithoutTheirFlags)
{
    auto converter = ConverterStandIn::create(freeBlock);
    auto message = makeMessage();
    message->texts[0x0037001F] = L"K\u00e4se";
    auto stream = memoryStream();

    ASSERT_EQ(converter->MAPIToMIMEStm(message.Get(), stream.Get(), CCSF_SMTP), S_OK);

    const std::string mime = streamText(stream.Get());
    EXPECT_EQ(mime.find("Bcc:"), std::string::npos);
    EXPECT_NE(mime.find("\r\nSubject: =?utf-8?B?S8Okc2U=?=\r\n"), std::string::npos);
}

TEST(ConverterStandIn, CreationFailuresReachTheCaller)
{
    ConverterRegistration registration(freeBlock);
    ComPtr<IConverterSession> converter;

    registration.setCreationFailure(ConverterCreationFailure::ClassNotRegistered);
    EXPECT_EQ(createConverter(converter), REGDB_E_CLASSNOTREG);

    registration.setCreationFailure(ConverterCreationFailure::NoConverterInterface);
    EXPECT_EQ(createConverter(converter), E_NOINTERFACE);
    EXPECT_FALSE(converter);
}

TEST(ConverterStandIn, FailedConversionLeavesHalfAMail)
{
    ConverterRegistration registration(freeBlock);
    registration.setConversionFails(true);
    ComPtr<IConverterSession> converter;
    ASSERT_EQ(createConverter(converter), S_OK);
    auto stream = memoryStream();

    EXPECT_EQ(converter->MAPIToMIMEStm(makeMessage().Get(), stream.Get(), addinFlags), MAPI_E_CALL_FAILED);

    const std::string& whole = registration.activity().lastMime;
    ASSERT_FALSE(whole.empty());
    EXPECT_EQ(streamText(stream.Get()), whole.substr(0, whole.size() / 2));
    EXPECT_EQ(registration.activity().conversionCalls, 1u);
}
