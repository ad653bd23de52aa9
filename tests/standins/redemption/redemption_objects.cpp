#include "redemption_objects.h"

#include "redemption_standin.h"

#include "addin/log.h"
#include "common/strings.h"
#include "common/unique_resource.h"
#include "items/msg_storage.h"
#include "items/property_text.h"
#include "e2e_shared/dispatch_standin.h"
#include "e2e_shared/fake_decryption.h"

#include <objbase.h>

#include <memory>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("RedemptionStandIn");

constexpr uint16_t idMessageClass = 0x001A;
constexpr uint16_t idSubject = 0x0037;
constexpr uint16_t idBody = 0x1000;

bool switchSays(const wchar_t* value)
{
    wchar_t text[64] = {};
    const DWORD length = GetEnvironmentVariableW(standInRedemptionSwitch, text, 64);
    return length > 0 && length < 64 && lstrcmpiW(text, value) == 0;
}

// One mail as opened from its file. The file stays open (shared for reading,
// as the real library holds it) for as long as a mail object uses it.
struct OpenedMail {
    std::wstring path;
    ComPtr<IStorage> storage;
    StoredMessage message;
};

// DispatchStandIn::create hands its object over with ComPtr::Attach, which in
// MinGW's WRL adds a reference of its own (Microsoft's does not). A mail
// object holds its .msg file open, so a surplus reference would keep the file
// locked after the caller let go; it is taken back here.
ComPtr<DispatchStandIn> newObject(const wchar_t* typeName)
{
    ComPtr<DispatchStandIn> object = DispatchStandIn::create(typeName);
    object->AddRef();
    if (object->Release() > 1)
        object->Release();
    return object;
}

std::wstring textOf(const StoredMessage& message, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(message.properties, id);
    return property ? propertyText(property->tag, property->bytes) : std::wstring();
}

std::wstring classOf(const OpenedMail& mail, bool decrypted)
{
    const std::wstring messageClass = textOf(mail.message, idMessageClass);
    return decrypted && messageClass.find(L".SMIME") != std::wstring::npos ? std::wstring(L"IPM.Note")
                                                                           : messageClass;
}

HRESULT writeTextFile(const std::wstring& path, const std::string& text)
{
    UniqueFile file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return HRESULT_FROM_WIN32(GetLastError());
    DWORD written = 0;
    if (!WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr))
        return HRESULT_FROM_WIN32(GetLastError());
    return written == text.size() ? S_OK : STG_E_WRITEFAULT;
}

HRESULT saveMail(const OpenedMail& mail, bool decrypted, const std::vector<VARIANT>& args)
{
    if (switchSays(standInRedemptionFailSaveAs)) {
        KV_INFO(logger) << "SaveAs fails as " << standInRedemptionSwitch << " asks";
        return standInRedemptionSaveAsError;
    }
    if (args.empty() || args.size() > 2)
        return DISP_E_BADPARAMCOUNT;
    std::wstring target;
    if (FAILED(argumentText(args[0], target)) || target.empty())
        return DISP_E_TYPEMISMATCH;
    LONG type = standInRedemptionSaveAsMsg;
    if (args.size() == 2 && !argumentMissing(args[1]) && FAILED(argumentNumber(args[1], type)))
        return DISP_E_TYPEMISMATCH;

    HRESULT hr = S_OK;
    if (type == standInRedemptionSaveAsMsg)
        hr = decrypted ? writeDecryptedCopy(mail.path, target) : copyMsgFile(mail.path, target);
    else
        hr = writeTextFile(target, "Subject: " + wideToUtf8(textOf(mail.message, idSubject)) + "\r\n\r\n" +
                                       wideToUtf8(textOf(mail.message, idBody)) + "\r\n");
    KV_DEBUG(logger) << "SaveAs " << target << ", type=" << type << ", decrypted=" << decrypted << ", hr=" << hr;
    return hr;
}

ComPtr<IDispatch> createMail(std::shared_ptr<const OpenedMail> mail, bool decrypted)
{
    ComPtr<DispatchStandIn> object = newObject(decrypted ? L"RDOMail (decrypted)" : L"RDOMail");
    object->property(L"Subject", [mail] { return variant(textOf(mail->message, idSubject)); });
    object->property(L"Body", [mail] { return variant(textOf(mail->message, idBody)); });
    object->property(L"MessageClass", [mail, decrypted] { return variant(classOf(*mail, decrypted)); });
    object->method(L"GetDecryptedMessage", [mail](const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
        if (!args.empty())
            return DISP_E_BADPARAMCOUNT;
        if (switchSays(standInRedemptionFailDecrypt)) {
            KV_INFO(logger) << "GetDecryptedMessage fails as " << standInRedemptionSwitch << " asks";
            return standInRedemptionDecryptError;
        }
        return variant(createMail(mail, true).Get()).copyTo(result);
    });
    object->method(L"SaveAs", [mail, decrypted](const std::vector<VARIANT>& args, VARIANT*) {
        return saveMail(*mail, decrypted, args);
    });
    return object;
}

HRESULT openMailFile(const std::vector<VARIANT>& args, VARIANT* result)
{
    if (args.size() != 1)
        return DISP_E_BADPARAMCOUNT;
    auto mail = std::make_shared<OpenedMail>();
    if (FAILED(argumentText(args[0], mail->path)) || mail->path.empty())
        return DISP_E_TYPEMISMATCH;
    HRESULT hr = StgOpenStorageEx(mail->path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr,
                                  nullptr, IID_IStorage, reinterpret_cast<void**>(mail->storage.GetAddressOf()));
    if (FAILED(hr)) {
        KV_WARN(logger) << "GetMessageFromMsgFile: " << mail->path << " doesn't open as a storage, hr=" << hr;
        return hr;
    }
    hr = readStoredMessage(mail->storage.Get(), mail->message);
    // A compound file without message properties opens as an empty mail, the
    // way MAPI opens a new message on an empty storage.
    if (FAILED(hr) && hr != STG_E_FILENOTFOUND) {
        KV_WARN(logger) << "GetMessageFromMsgFile: " << mail->path << " is no readable message, hr=" << hr;
        return standInRedemptionCorruptMessage;
    }
    return variant(createMail(std::move(mail), false).Get()).copyTo(result);
}

} // namespace

ComPtr<IDispatch> createRedemptionSession()
{
    ComPtr<DispatchStandIn> session = newObject(L"RDOSession");
    session->settable(L"MAPIOBJECT");
    session->method(L"GetMessageFromMsgFile", openMailFile);
    return session;
}
