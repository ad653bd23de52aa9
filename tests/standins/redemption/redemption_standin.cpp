// The Redemption stand-in, loaded from the add-in's folder through its own
// DllGetClassObject. RDOSession (MAPIOBJECT, GetMessageFromMsgFile) and RDOMail
// (GetDecryptedMessage, Body, SaveAs: type 3 the .msg, others subject and body
// as text) are reached only through IDispatch by name, as the add-in reaches them.
#include "redemption_standin.h"

#include "core/log.h"
#include "common/com_ptr.h"
#include "common/strings.h"
#include "common/unique_resource.h"
#include "e2e_shared/com_object.h"
#include "e2e_shared/dispatch_standin.h"
#include "e2e_shared/fake_decryption.h"
#include "items/msg_storage.h"
#include "items/property_text.h"

#include <objbase.h>

#include <memory>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("RedemptionStandIn");

constexpr uint16_t idSubject = 0x0037;
constexpr uint16_t idBody = 0x1000;

bool switchSays(const wchar_t* value)
{
    wchar_t text[64] = {};
    const DWORD length = GetEnvironmentVariableW(standInRedemptionSwitch, text, 64);
    return length > 0 && length < 64 && lstrcmpiW(text, value) == 0;
}

// One mail as opened from its file, which stays open (shared for reading, as
// the real library holds it) for as long as a mail object uses it.
struct OpenedMail {
    std::wstring path;
    ComPtr<IStorage> storage;
    StoredMessage message;
};

// DispatchStandIn::create hands its object over with ComPtr::Attach, which in
// MinGW's WRL adds a reference of its own (Microsoft's does not); a mail
// object holding its file open would keep it locked, so it is taken back here.
ComPtr<DispatchStandIn> newObject(const wchar_t* typeName)
{
    ComPtr<DispatchStandIn> object = DispatchStandIn::create(typeName);
    object->AddRef();
    if (object->Release() > 1)
        object->Release();
    return object;
}

std::string textOf(const StoredMessage& message, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(message.properties, id);
    return property ? wideToUtf8(propertyText(property->tag, property->bytes)) : std::string();
}

HRESULT saveMail(const OpenedMail& mail, bool decrypted, const std::vector<VARIANT>& args)
{
    std::wstring target;
    LONG type = 0;
    if (switchSays(standInRedemptionFailSaveAs))
        return STG_E_CANTSAVE;
    if (args.size() != 2 || FAILED(argumentText(args[0], target)) || FAILED(argumentNumber(args[1], type)))
        return DISP_E_TYPEMISMATCH;
    if (type == 3) // olMSG
        return decrypted ? writeDecryptedCopy(mail.path, target) : copyMsgFile(mail.path, target);
    const std::string text = "Subject: " + textOf(mail.message, idSubject) + "\r\n\r\n" + textOf(mail.message, idBody);
    UniqueFile file(CreateFileW(target.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    return file && WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr)
               ? S_OK
               : HRESULT_FROM_WIN32(GetLastError());
}

ComPtr<IDispatch> createMail(std::shared_ptr<const OpenedMail> mail, bool decrypted)
{
    ComPtr<DispatchStandIn> object = newObject(decrypted ? L"RDOMail (decrypted)" : L"RDOMail");
    object->property(L"Body", [mail] { return variant(utf8ToWide(textOf(mail->message, idBody))); });
    object->method(L"GetDecryptedMessage", [mail](const std::vector<VARIANT>&, VARIANT* result) -> HRESULT {
        if (switchSays(standInRedemptionFailDecrypt))
            return E_ACCESSDENIED;
        return variant(createMail(mail, true).Get()).copyTo(result);
    });
    object->method(L"SaveAs", [mail, decrypted](const std::vector<VARIANT>& args, VARIANT*) {
        return saveMail(*mail, decrypted, args);
    });
    return object;
}

HRESULT openMailFile(const std::vector<VARIANT>& args, VARIANT* result)
{
    auto mail = std::make_shared<OpenedMail>();
    if (args.size() != 1 || FAILED(argumentText(args[0], mail->path)))
        return DISP_E_TYPEMISMATCH;
    HRESULT hr = StgOpenStorageEx(mail->path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr,
                                  nullptr, IID_IStorage, reinterpret_cast<void**>(mail->storage.GetAddressOf()));
    if (SUCCEEDED(hr))
        hr = readStoredMessage(mail->storage.Get(), mail->message);
    if (FAILED(hr)) {
        KV_WARN(logger) << "GetMessageFromMsgFile: " << mail->path << " is no readable message, hr=" << hr;
        return hr;
    }
    return variant(createMail(std::move(mail), false).Get()).copyTo(result);
}

ComPtr<IDispatch> createSession()
{
    ComPtr<DispatchStandIn> session = newObject(L"RDOSession");
    session->settable(L"MAPIOBJECT");
    session->method(L"GetMessageFromMsgFile", openMailFile);
    return session;
}

class SessionFactory final : public ComObject<IClassFactory> {
public:
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** object) override
    {
        *object = nullptr;
        return outer ? CLASS_E_NOAGGREGATION : createSession()->QueryInterface(riid, object);
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }

private:
    bool offers(REFIID iid) const override { return iid == IID_IClassFactory; }
};

} // namespace

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* object)
{
    *object = nullptr;
    if (clsid != standInRedemptionSessionClsid)
        return CLASS_E_CLASSNOTAVAILABLE;
    ComPtr<IClassFactory> factory;
    factory = adoptCom(new SessionFactory);
    return factory->QueryInterface(riid, object);
}

// The add-in never unloads the library: it stays.
extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return S_FALSE;
}
