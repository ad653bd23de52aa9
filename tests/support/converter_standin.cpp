#include "support/converter_standin.h"

#include "common/com_ptr.h"
#include "common/hresult.h"
#include "common/strings.h"
#include "e2e_shared/com_object.h"

#include <mapicode.h>

using Microsoft::WRL::ComPtr;

namespace {

struct Mailbox {
    std::string name, address;
};

std::string textOf(const SPropValue& value)
{
    return PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW ? wideToUtf8(value.Value.lpszW) : "";
}

std::string addressLine(const char* header, const std::vector<Mailbox>& list)
{
    std::string line;
    for (const Mailbox& box : list)
        line += (line.empty() ? std::string(header) + ": " : ",\r\n\t") + "\"" + box.name + "\" <" + box.address + ">";
    return line.empty() ? line : line + "\r\n";
}

HRESULT composeMime(IMessage* message, LPFREEBUFFER freeBuffer, ULONG flags, std::string& mime)
{
    SizedSPropTagArray(4, tags) = {4, {0x0037001F, 0x0C1A001F, 0x0C1F001F, 0x1000001F}};
    ULONG count = 0;
    LPSPropValue values = nullptr;
    RETURN_IF_FAILED(message->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), MAPI_UNICODE, &count, &values));
    const std::string subject = textOf(values[0]), sender = "\"" + textOf(values[1]) + "\" <" + textOf(values[2]) + ">";
    const std::string body = textOf(values[3]);
    freeBuffer(values);

    ComPtr<IMAPITable> table;
    RETURN_IF_FAILED(message->GetRecipientTable(MAPI_UNICODE, &table));
    ULONG rowCount = 0;
    LPSRowSet rows = nullptr;
    RETURN_IF_FAILED(table->GetRowCount(0, &rowCount));
    RETURN_IF_FAILED(table->QueryRows(static_cast<LONG>(rowCount), 0, &rows));
    std::vector<Mailbox> lists[4];
    for (ULONG r = 0; r < rows->cRows; ++r) {
        LONG type = 0;
        Mailbox box;
        for (ULONG c = 0; c < rows->aRow[r].cValues; ++c) {
            const SPropValue& value = rows->aRow[r].lpProps[c];
            if (value.ulPropTag == 0x0C150003)
                type = value.Value.l;
            else if (value.ulPropTag == 0x3001001F)
                box.name = textOf(value);
            else if (value.ulPropTag == 0x3003001F)
                box.address = textOf(value);
        }
        if (type >= MAPI_TO && type <= MAPI_BCC)
            lists[type].push_back(box);
        freeBuffer(rows->aRow[r].lpProps);
    }
    freeBuffer(rows);
    mime = "From: " + sender + "\r\n" + addressLine("To", lists[MAPI_TO]) + addressLine("Cc", lists[MAPI_CC]) +
           ((flags & CCSF_INCLUDE_BCC) ? addressLine("Bcc", lists[MAPI_BCC]) : "") + "Subject: " + subject +
           "\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n\r\n" + body + "\r\n";
    return S_OK;
}

class ConverterStandIn final : public ComObject<IConverterSession> {
public:
    explicit ConverterStandIn(std::shared_ptr<ConverterActivity> activity) : activity_(std::move(activity)) {}

    HRESULT STDMETHODCALLTYPE MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags) override
    {
        activity_->conversionFlags.push_back(flags);
        if (!message || !stream || !activity_->freeBuffer)
            return E_INVALIDARG;
        RETURN_IF_FAILED(composeMime(message, activity_->freeBuffer, flags, activity_->lastMime));
        const std::string& mime = activity_->lastMime;
        // A converter that breaks down mid-way leaves half a mail behind.
        const ULONG size = static_cast<ULONG>(activity_->conversionFails ? mime.size() / 2 : mime.size());
        ULONG written = 0;
        RETURN_IF_FAILED(stream->Write(mime.data(), size, &written));
        return activity_->conversionFails ? MAPI_E_CALL_FAILED : S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetAdrBook(LPADRBOOK) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE SetEncoding(int) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PlaceHolder1() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MIMEToMAPI(LPSTREAM, LPMESSAGE, LPCSTR, ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PlaceHolder2() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PlaceHolder3() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PlaceHolder4() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetTextWrapping(BOOL, ULONG) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE SetSaveFormat(int) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PlaceHolder5() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetCharset(BOOL, void*, int) override { return S_OK; }

private:
    bool offers(REFIID iid) const override { return iid == IID_KvConverterSession; }

    std::shared_ptr<ConverterActivity> activity_;
};

class ConverterFactory final : public ComObject<IClassFactory> {
public:
    explicit ConverterFactory(std::shared_ptr<ConverterActivity> activity) : activity_(std::move(activity)) {}
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID iid, void** object) override
    {
        ComPtr<IConverterSession> converter;
        converter = adoptCom(new ConverterStandIn(activity_));
        return converter->QueryInterface(iid, object);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    bool offers(REFIID iid) const override { return iid == IID_IClassFactory; }

    std::shared_ptr<ConverterActivity> activity_;
};

} // namespace

ConverterRegistration::ConverterRegistration(LPFREEBUFFER freeBuffer)
    : activity_(std::make_shared<ConverterActivity>(ConverterActivity{freeBuffer}))
{
    factory_ = adoptCom(new ConverterFactory(activity_));
    setRegistered(true);
}

void ConverterRegistration::setRegistered(bool registered)
{
    if (cookie_)
        CoRevokeClassObject(cookie_);
    cookie_ = 0;
    if (registered)
        CoRegisterClassObject(CLSID_KvConverterSession, factory_.Get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie_);
}
