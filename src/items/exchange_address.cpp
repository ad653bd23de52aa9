#include "items/exchange_address.h"

#include "core/log.h"
#include "common/com_variant.h"
#include "items/outlook_objects.h"

namespace {

Logger logger("MailAddressHeader");

constexpr LONG olExchangeUserAddressEntry = 0;
constexpr LONG olExchangeRemoteUserAddressEntry = 5;
constexpr const wchar_t* smtpAddressSchemaName = L"http://schemas.microsoft.com/mapi/proptag/0x39FE001E";

} // namespace

std::wstring getMailAddressFromExchange(IDispatch* application, const std::wstring& entryId)
{
    auto session = getPropertyObjectByName(application, L"Session");
    if (!session) {
        KV_WARN(logger) << "no Outlook session to resolve an Exchange address";
        return L"";
    }

    HRESULT hr = S_OK;
    UniqueVariant id(entryId);
    auto entry = callForObject(session.Get(), L"GetAddressEntryFromID", {id.get()}, hr);
    if (!entry) {
        KV_WARN(logger) << "session.Invoke1(), hr=" << hr;
        return L"";
    }

    UniqueVariant userType;
    hr = invokeByName(entry.Get(), L"AddressEntryUserType", DISPATCH_PROPERTYGET, {}, &userType);
    const LONG type = SUCCEEDED(VariantChangeType(userType.get(), userType.get(), 0, VT_I4)) ? userType->lVal : -1;
    KV_DEBUG(logger) << "sender.AddressEntryUserType=" << type << ", hr=" << hr;

    UniqueVariant address;
    if (type == olExchangeUserAddressEntry || type == olExchangeRemoteUserAddressEntry) {
        auto user = callForObject(entry.Get(), L"GetExchangeUser", {}, hr);
        KV_DEBUG(logger) << "sender.GetExchangeUser(), hr=" << hr;
        if (!user)
            return L"";
        hr = invokeByName(user.Get(), L"PrimarySmtpAddress", DISPATCH_PROPERTYGET, {}, &address);
        KV_DEBUG(logger) << "exchgUser.PrimarySmtpAddress, hr=" << hr;
    } else {
        auto accessor = getPropertyObjectByName(entry.Get(), L"PropertyAccessor");
        KV_DEBUG(logger) << "sender.PropertyAccessor, hr=" << (accessor ? S_OK : E_FAIL);
        if (!accessor)
            return L"";
        UniqueVariant schemaName{std::wstring(smtpAddressSchemaName)};
        hr = invokeByName(accessor.Get(), L"GetProperty", DISPATCH_METHOD, {schemaName.get()}, &address);
        KV_DEBUG(logger) << "propertyAccessor.GetProperty(PR_SMTP_ADDRESS), hr=" << hr;
    }
    if (FAILED(hr))
        return L"";
    const std::wstring mailAddress = address.text();
    KV_DEBUG(logger) << "mailAddress=" << mailAddress;
    return mailAddress;
}
