#include "items/decrypt_mail.h"

#include "core/globals.h"
#include "core/log.h"
#include "common/com_variant.h"
#include "common/module_path.h"
#include "items/outlook_objects.h"

#include <type_traits>

namespace {

Logger logger("DecryptMail");
Logger redemptionLogger("Redemption");

constexpr LONG olMSG = 3;
constexpr LONG olFolderDeletedItems = 3;
constexpr const wchar_t* securityFlagsSchemaName = L"http://schemas.microsoft.com/mapi/proptag/0x6E010003";
constexpr const wchar_t* redemptionSessionClass = L"{29AB7A12-B531-450E-8F7A-EA94C2F3C05F}";

using DllGetClassObjectFunction = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
static_assert(std::is_same_v<DllGetClassObjectFunction, decltype(&DllGetClassObject)>);

} // namespace

const wchar_t* redemptionFileName()
{
    return sizeof(void*) == 8 ? L"Redemption64.dll" : L"Redemption.dll";
}

HRESULT DecryptMail::decryptMailItem(bool withRedemption, IDispatch* application,
                                     const std::wstring& fileNameEncrypted, const std::wstring& fileNameDecrypted)
{
    KV_DEBUG(logger) << "decryptMail(withRedemption=" << withRedemption << ", fileNameEncrypted=" << fileNameEncrypted
                     << ", fileNameDecrypted=" << fileNameDecrypted;
    const DWORD start = GetTickCount();
    HRESULT hr = E_FAIL;
    if (withRedemption)
        hr = decryptMailItemRedemption(application, fileNameEncrypted, fileNameDecrypted);
    if (hr != S_OK)
        hr = decryptMailItemOutlook(application, fileNameEncrypted, fileNameDecrypted);
    KV_DEBUG(logger) << ")decryptMail=" << hr << ", ms=" << (GetTickCount() - start);
    return hr;
}

HRESULT DecryptMail::attachOutlookSession(IDispatch* redemptionSession, IDispatch* application)
{
    auto session = getPropertyObjectByName(application, L"Session");
    auto mapiObject = session ? getPropertyUnknownByName(session.Get(), L"MAPIOBJECT") : nullptr;
    HRESULT hr = E_FAIL;
    if (mapiObject) {
        UniqueVariant value;
        value->vt = VT_UNKNOWN;
        value->punkVal = mapiObject.Get();
        mapiObject->AddRef();
        hr = invokeByName(redemptionSession, L"MAPIOBJECT", DISPATCH_PROPERTYPUT, {value.get()}, nullptr);
    }
    KV_DEBUG(redemptionLogger) << "assing MAPIOBJECT, hr=" << hr;
    return hr;
}

HRESULT DecryptMail::decryptMailItemRedemption(IDispatch* application, const std::wstring& fileNameEncrypted,
                                               const std::wstring& fileNameDecrypted)
{
    auto session = newRedemptionSession();
    if (!session)
        return E_FAIL;
    HRESULT hr = attachOutlookSession(session.Get(), application);
    if (FAILED(hr))
        return hr;

    UniqueVariant encrypted(fileNameEncrypted);
    auto mail = callForObject(session.Get(), L"GetMessageFromMsgFile", {encrypted.get()}, hr);
    KV_DEBUG(redemptionLogger) << "GetMessageFromMsgFile, hr=" << hr;
    if (!mail)
        return hr;
    auto decrypted = callForObject(mail.Get(), L"GetDecryptedMessage", {}, hr);
    KV_DEBUG(redemptionLogger) << "GetDecryptedMessage, hr=" << hr;
    if (!decrypted)
        return hr;

    // Reading the body makes the decryption complete before the message is saved.
    UniqueVariant body;
    hr = invokeByName(decrypted.Get(), L"Body", DISPATCH_PROPERTYGET, {}, &body);
    KV_DEBUG(redemptionLogger) << "get body, hr=" << hr << ", bstr.avail=" << (body->vt == VT_BSTR && body->bstrVal);
    if (FAILED(hr))
        return hr;

    UniqueVariant target(fileNameDecrypted);
    UniqueVariant type(olMSG);
    hr = invokeByName(decrypted.Get(), L"SaveAs", DISPATCH_METHOD, {target.get(), type.get()}, nullptr);
    KV_DEBUG(redemptionLogger) << "Decrypted message: SaveAs " << fileNameDecrypted << ", ret=" << hr;
    return hr;
}

HRESULT DecryptMail::decryptMailItemOutlook(IDispatch* application, const std::wstring& fileNameEncrypted,
                                            const std::wstring& fileNameDecrypted)
{
    auto session = getPropertyObjectByName(application, L"Session");
    if (!session) {
        KV_WARN(logger) << "no Outlook session to decrypt with";
        return E_FAIL;
    }

    HRESULT hr = S_OK;
    UniqueVariant encrypted(fileNameEncrypted);
    auto item = callForObject(session.Get(), L"OpenSharedItem", {encrypted.get()}, hr);
    KV_DEBUG(logger) << "OpenSharedItem, ret=" << hr;
    if (!item)
        return hr;

    // Outlook decrypts only an item that lives in a store.
    UniqueVariant folderId(olFolderDeletedItems);
    auto folder = callForObject(session.Get(), L"GetDefaultFolder", {folderId.get()}, hr);
    KV_DEBUG(logger) << "GetDefaultFolder, ret=" << hr;
    if (!folder)
        return hr;
    UniqueVariant folderArgument(folder.Get());
    UniqueVariant moved;
    hr = invokeByName(item.Get(), L"Move", DISPATCH_METHOD, {folderArgument.get()}, &moved);
    KV_DEBUG(logger) << "Move, ret=" << hr;
    if (FAILED(hr))
        return hr;
    if (moved->vt == VT_DISPATCH && moved->pdispVal)
        item = moved->pdispVal;

    auto accessor = getPropertyObjectByName(item.Get(), L"PropertyAccessor");
    if (!accessor)
        return E_FAIL;
    UniqueVariant schemaName{std::wstring(securityFlagsSchemaName)};
    UniqueVariant flags;
    hr = invokeByName(accessor.Get(), L"GetProperty", DISPATCH_METHOD, {schemaName.get()}, &flags);
    KV_DEBUG(logger) << "get PR_SECURITY_FLAG, ret=" << hr;
    if (FAILED(hr))
        return hr;
    const LONG securityFlags =
        SUCCEEDED(VariantChangeType(flags.get(), flags.get(), 0, VT_I4)) ? flags->lVal : 0;
    KV_DEBUG(logger) << "PR_SECURITY_FLAG=" << securityFlags;

    // The saved copy is marked neither encrypted (bit 0) nor signed (bit 1).
    if (securityFlags & 3) {
        UniqueVariant cleared(0L);
        hr = invokeByName(accessor.Get(), L"SetProperty", DISPATCH_METHOD, {schemaName.get(), cleared.get()},
                          nullptr);
        KV_DEBUG(logger) << "set PR_SECURITY_FLAG, ret=" << hr;
        if (FAILED(hr))
            return hr;
    }

    UniqueVariant target(fileNameDecrypted);
    UniqueVariant type(olMSG);
    hr = invokeByName(item.Get(), L"SaveAs", DISPATCH_METHOD, {target.get(), type.get()}, nullptr);
    KV_DEBUG(logger) << "SaveAs " << fileNameDecrypted << ", ret=" << hr;
    item.Reset();
    KV_DEBUG(logger) << "release mailItem";
    return hr;
}

HMODULE DecryptMail::loadRedemption()
{
    if (redemption_)
        return redemption_;
    const std::wstring addinPath = modulePath(settings_.module(), 260);
    if (addinPath.empty())
        return nullptr;
    const std::wstring path = replaceFileName(addinPath, redemptionFileName());
    // Kept for the life of the process: sessions and messages hold its code.
    redemption_ = LoadLibraryW(path.c_str());
    if (redemption_) {
        KV_INFO(redemptionLogger) << "Load " << path << " " << redemption_;
    } else {
        KV_INFO(redemptionLogger) << "Load " << path << " " << redemption_ << ", err=" << GetLastError();
    }
    return redemption_;
}

Microsoft::WRL::ComPtr<IDispatch> DecryptMail::newRedemptionSession()
{
    Microsoft::WRL::ComPtr<IDispatch> session;
    CLSID sessionClass{};
    CLSIDFromString(redemptionSessionClass, &sessionClass);
    HMODULE module = loadRedemption();
    if (!module)
        return session;

    auto getClassObject = reinterpret_cast<DllGetClassObjectFunction>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    if (!getClassObject) {
        KV_WARN(redemptionLogger) << "GetProcAddress for DllGetClassObject failed, err=" << GetLastError();
        return session;
    }
    Microsoft::WRL::ComPtr<IClassFactory> factory;
    HRESULT hr = getClassObject(sessionClass, IID_IClassFactory, reinterpret_cast<void**>(factory.GetAddressOf()));
    if (FAILED(hr)) {
        KV_WARN(redemptionLogger) << "DllGetClassObject failed, err=" << hr;
        return session;
    }
    hr = factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(session.GetAddressOf()));
    if (FAILED(hr)) {
        KV_WARN(redemptionLogger) << "CreateInstance failed, err=" << hr;
        session.Reset();
    }
    KV_DEBUG(redemptionLogger) << ")newRedemptionSession=" << session.Get();
    return session;
}

std::wstring DecryptMail::notifyDecryptionFailed() const
{
    return settings_.getText(L"notifyDecryptionFailed");
}

std::wstring DecryptMail::notifyErrorTitle() const
{
    return settings_.getText(L"notifyErrorTitle");
}
