#include "support/converter_standin.h"
#include "common/com_ptr.h"

#include "common/hresult.h"
#include "support/converter_mime.h"

#include <mapicode.h>
#include <mapitags.h>

#include <utility>

using Microsoft::WRL::ComPtr;

namespace {

constexpr ULONG tagSubject = 0x0037001F;
constexpr ULONG tagSenderName = 0x0C1A001F;
constexpr ULONG tagSenderEmailAddress = 0x0C1F001F;
constexpr ULONG tagBody = 0x1000001F;
constexpr ULONG tagClientSubmitTime = 0x00390040;
constexpr ULONG tagRecipientType = 0x0C150003;
constexpr ULONG tagDisplayName = 0x3001001F;
constexpr ULONG tagEmailAddress = 0x3003001F;

// A block that the message's MAPI allocated; freed with that MAPI's
// MAPIFreeBuffer, which also frees everything allocated "more" on it.
class MapiBuffer {
public:
    MapiBuffer(LPFREEBUFFER freeBuffer, void* block) : freeBuffer_(freeBuffer), block_(block) {}
    ~MapiBuffer()
    {
        if (block_ && freeBuffer_)
            freeBuffer_(block_);
    }
    MapiBuffer(const MapiBuffer&) = delete;
    MapiBuffer& operator=(const MapiBuffer&) = delete;

private:
    LPFREEBUFFER freeBuffer_;
    void* block_;
};

// A row set from QueryRows: each row's values are a block of their own,
// then the set itself (what FreeProws does).
class RowSetHolder {
public:
    RowSetHolder(LPFREEBUFFER freeBuffer, SRowSet* rows) : freeBuffer_(freeBuffer), rows_(rows) {}
    ~RowSetHolder()
    {
        if (!rows_ || !freeBuffer_)
            return;
        for (ULONG i = 0; i < rows_->cRows; ++i)
            if (rows_->aRow[i].lpProps)
                freeBuffer_(rows_->aRow[i].lpProps);
        freeBuffer_(rows_);
    }
    RowSetHolder(const RowSetHolder&) = delete;
    RowSetHolder& operator=(const RowSetHolder&) = delete;

private:
    LPFREEBUFFER freeBuffer_;
    SRowSet* rows_;
};

bool sameProperty(ULONG tag, ULONG wanted) { return PROP_ID(tag) == PROP_ID(wanted); }

// Unicode or 8-bit string values as text; errors and other types are empty.
std::wstring propertyText(const SPropValue& value)
{
    switch (PROP_TYPE(value.ulPropTag)) {
    case PT_UNICODE:
        return value.Value.lpszW ? value.Value.lpszW : L"";
    case PT_STRING8: {
        if (!value.Value.lpszA)
            return std::wstring();
        const int length = MultiByteToWideChar(CP_ACP, 0, value.Value.lpszA, -1, nullptr, 0);
        if (length <= 1)
            return std::wstring();
        std::wstring text(static_cast<std::size_t>(length), L'\0');
        MultiByteToWideChar(CP_ACP, 0, value.Value.lpszA, -1, text.data(), length);
        text.resize(static_cast<std::size_t>(length - 1));
        return text;
    }
    default:
        return std::wstring();
    }
}

// A body too large for GetProps is read the MAPI way, as a stream.
std::wstring readBodyStream(IMessage* message)
{
    ComPtr<IUnknown> unknown;
    if (FAILED(message->OpenProperty(tagBody, &IID_IStream, 0, 0, unknown.GetAddressOf())) || !unknown)
        return std::wstring();
    ComPtr<IStream> stream;
    if (FAILED(unknown.As(&stream)))
        return std::wstring();
    std::wstring body;
    wchar_t buffer[2048];
    for (;;) {
        ULONG read = 0;
        const HRESULT hr = stream->Read(buffer, sizeof buffer, &read);
        if (FAILED(hr) || read == 0)
            break;
        body.append(buffer, read / sizeof(wchar_t));
    }
    return body;
}

HRESULT readProperties(IMessage* message, LPFREEBUFFER freeBuffer, MimeMail& mail)
{
    SizedSPropTagArray(5, tags) = {5, {tagSubject, tagSenderName, tagSenderEmailAddress, tagBody, tagClientSubmitTime}};
    ULONG count = 0;
    SPropValue* values = nullptr;
    const HRESULT hr = message->GetProps(reinterpret_cast<SPropTagArray*>(&tags), MAPI_UNICODE, &count, &values);
    MapiBuffer holder(freeBuffer, values);
    if (FAILED(hr))
        return hr;
    if (!values)
        return MAPI_E_CALL_FAILED;

    bool bodyTooLarge = false;
    for (ULONG i = 0; i < count; ++i) {
        const SPropValue& value = values[i];
        const ULONG tag = value.ulPropTag;
        if (sameProperty(tag, tagSubject))
            mail.subject = propertyText(value);
        else if (sameProperty(tag, tagSenderName))
            mail.sender.name = propertyText(value);
        else if (sameProperty(tag, tagSenderEmailAddress))
            mail.sender.address = propertyText(value);
        else if (sameProperty(tag, tagBody)) {
            mail.body = propertyText(value);
            bodyTooLarge = PROP_TYPE(tag) == PT_ERROR && value.Value.err == MAPI_E_NOT_ENOUGH_MEMORY;
        } else if (tag == tagClientSubmitTime)
            mail.submitTime = value.Value.ft;
    }
    if (bodyTooLarge)
        mail.body = readBodyStream(message);
    return S_OK;
}

HRESULT readRecipients(IMessage* message, LPFREEBUFFER freeBuffer, MimeMail& mail)
{
    ComPtr<IMAPITable> table;
    RETURN_IF_FAILED(message->GetRecipientTable(MAPI_UNICODE, table.GetAddressOf()));
    if (!table)
        return MAPI_E_CALL_FAILED;
    ULONG rowCount = 0;
    RETURN_IF_FAILED(table->GetRowCount(0, &rowCount));
    if (rowCount == 0)
        return S_OK;
    SRowSet* rows = nullptr;
    const HRESULT hr = table->QueryRows(static_cast<LONG>(rowCount), 0, &rows);
    RowSetHolder holder(freeBuffer, rows);
    if (FAILED(hr))
        return hr;
    if (!rows)
        return MAPI_E_CALL_FAILED;

    for (ULONG r = 0; r < rows->cRows; ++r) {
        const SRow& row = rows->aRow[r];
        LONG type = 0;
        MimeAddress address;
        for (ULONG c = 0; row.lpProps && c < row.cValues; ++c) {
            const SPropValue& value = row.lpProps[c];
            if (value.ulPropTag == tagRecipientType)
                type = value.Value.l;
            else if (sameProperty(value.ulPropTag, tagDisplayName))
                address.name = propertyText(value);
            else if (sameProperty(value.ulPropTag, tagEmailAddress))
                address.address = propertyText(value);
        }
        if (type == MAPI_TO)
            mail.to.push_back(std::move(address));
        else if (type == MAPI_CC)
            mail.cc.push_back(std::move(address));
        else if (type == MAPI_BCC)
            mail.bcc.push_back(std::move(address));
    }
    return S_OK;
}

HRESULT writeAll(IStream* stream, const char* data, std::size_t size)
{
    while (size > 0) {
        ULONG written = 0;
        const ULONG chunk = size > 0x10000 ? 0x10000 : static_cast<ULONG>(size);
        RETURN_IF_FAILED(stream->Write(data, chunk, &written));
        if (written == 0)
            return STG_E_MEDIUMFULL;
        data += written;
        size -= written;
    }
    return S_OK;
}

class ConverterFactory final : public ComObject<IClassFactory> {
public:
    ConverterFactory(LPFREEBUFFER freeBuffer, std::shared_ptr<ConverterActivity> activity)
        : freeBuffer_(freeBuffer), activity_(std::move(activity))
    {
    }

    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        // As on a machine without Outlook: the class is not there.
        if (activity_->creationFailure == ConverterCreationFailure::ClassNotRegistered)
            return REGDB_E_CLASSNOTREG;
        auto converter = ConverterStandIn::create(freeBuffer_, activity_);
        ++activity_->instancesCreated;
        return converter->QueryInterface(riid, object);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    bool offers(REFIID riid) const override { return riid == IID_IClassFactory; }

    LPFREEBUFFER freeBuffer_;
    std::shared_ptr<ConverterActivity> activity_;
};

}  // namespace

ComPtr<ConverterStandIn> ConverterStandIn::create(LPFREEBUFFER freeBuffer, std::shared_ptr<ConverterActivity> activity)
{
    ComPtr<ConverterStandIn> converter;
    converter = adoptCom(new ConverterStandIn(freeBuffer, std::move(activity)));
    return converter;
}

ConverterStandIn::ConverterStandIn(LPFREEBUFFER freeBuffer, std::shared_ptr<ConverterActivity> activity)
    : freeBuffer_(freeBuffer), activity_(activity ? std::move(activity) : std::make_shared<ConverterActivity>())
{
}

bool ConverterStandIn::offers(REFIID riid) const
{
    return riid == IID_KvConverterSession &&
           activity_->creationFailure != ConverterCreationFailure::NoConverterInterface;
}

HRESULT STDMETHODCALLTYPE ConverterStandIn::SetAdrBook(LPADRBOOK) { return S_OK; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::SetEncoding(int) { return S_OK; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::PlaceHolder1() { return E_NOTIMPL; }

HRESULT STDMETHODCALLTYPE ConverterStandIn::MIMEToMAPI(LPSTREAM, LPMESSAGE, LPCSTR, ULONG)
{
    return MAPI_E_NO_SUPPORT;  // the add-in only ever converts to MIME
}

HRESULT STDMETHODCALLTYPE ConverterStandIn::MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags)
{
    ++activity_->conversionCalls;
    activity_->conversionFlags.push_back(flags);
    if (!message || !stream)
        return E_INVALIDARG;
    if (!freeBuffer_)
        return MAPI_E_CALL_FAILED;  // without the message's MAPIFreeBuffer nothing can be read safely

    MimeMail mail;
    RETURN_IF_FAILED(readProperties(message, freeBuffer_, mail));
    RETURN_IF_FAILED(readRecipients(message, freeBuffer_, mail));
    activity_->lastMime = composeMime(mail, flags);

    const std::string& mime = activity_->lastMime;
    if (activity_->conversionFails) {
        // A converter that breaks down mid-way leaves a truncated mail behind.
        RETURN_IF_FAILED(writeAll(stream, mime.data(), mime.size() / 2));
        return MAPI_E_CALL_FAILED;
    }
    return writeAll(stream, mime.data(), mime.size());
}

HRESULT STDMETHODCALLTYPE ConverterStandIn::PlaceHolder2() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::PlaceHolder3() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::PlaceHolder4() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::SetTextWrapping(BOOL, ULONG) { return S_OK; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::SetSaveFormat(int) { return S_OK; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::PlaceHolder5() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE ConverterStandIn::SetCharset(BOOL, void*, int) { return S_OK; }

ConverterRegistration::ConverterRegistration(LPFREEBUFFER freeBuffer)
    : activity_(std::make_shared<ConverterActivity>())
{
    ComPtr<IClassFactory> factory;
    factory = adoptCom(new ConverterFactory(freeBuffer, activity_));
    // COM keeps its own reference to the factory until the class is revoked.
    registrationResult_ = CoRegisterClassObject(CLSID_KvConverterSession, factory.Get(), CLSCTX_INPROC_SERVER,
                                                REGCLS_MULTIPLEUSE, &cookie_);
}

ConverterRegistration::~ConverterRegistration()
{
    if (SUCCEEDED(registrationResult_))
        CoRevokeClassObject(cookie_);
}
