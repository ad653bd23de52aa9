#pragma once
// Outlook's object model as the add-in sees it through late binding, built
// from DispatchStandIn objects: the Application, its Session (namespace),
// address entries of Exchange users, shared (.msg) mail items that can be
// moved, have their security flags read and set, and be saved decrypted.
// Every object records the calls it got, so a test can check what the add-in
// asked Outlook for.
#include "e2e_shared/dispatch_standin.h"

#include <windows.h>
#include <oaidl.h>
#include <wrl/client.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

// DASL names the add-in asks a PropertyAccessor for.
inline constexpr const wchar_t* kSmtpAddressSchemaName = L"http://schemas.microsoft.com/mapi/proptag/0x39FE001E";
inline constexpr const wchar_t* kSecurityFlagsSchemaName = L"http://schemas.microsoft.com/mapi/proptag/0x6E010003";

// Outlook's numbers for what the add-in passes.
inline constexpr LONG kOlFolderDeletedItems = 3;
inline constexpr LONG kOlMsg = 3;
inline constexpr LONG kOlExchangeUserAddressEntry = 0;
inline constexpr LONG kOlExchangeRemoteUserAddressEntry = 5;
inline constexpr LONG kOlSmtpAddressEntry = 30;

// One mail item that OpenSharedItem handed out, and what happened to it.
struct SharedMailItem {
    std::wstring path;  // the .msg file it was opened from
    Microsoft::WRL::ComPtr<DispatchStandIn> item;
    Microsoft::WRL::ComPtr<DispatchStandIn> propertyAccessor;
    Microsoft::WRL::ComPtr<IDispatch> movedTo;  // the folder of the last Move, empty if never moved
    // Properties by upper-cased DASL name, as SetProperty left them; starts
    // with the security flags.
    std::map<std::wstring, OwnedVariant> properties;
    std::vector<std::wstring> savedAs;         // targets of successful SaveAs calls
    std::vector<LONG> securityFlagsWhenSaved;  // the flags at each of those saves

    LONG securityFlags() const;
};

class OutlookStandIn {
public:
    OutlookStandIn();
    ~OutlookStandIn();
    OutlookStandIn(const OutlookStandIn&) = delete;
    OutlookStandIn& operator=(const OutlookStandIn&) = delete;

    // The Application object, as Outlook hands it to an add-in.
    IDispatch* application() const;

    // ---- configuration; each applies to calls that come after it ----
    void setVersion(const std::wstring& version);  // "Version", default "16.0.0.0"
    void setLanguageId(LONG languageId);            // LanguageSettings.LanguageID(any), default 1033
    // An address entry that Session.GetAddressEntryFromID(entryIdHex) finds
    // (the id compared without regard to case). Types 0 and 5 answer
    // GetExchangeUser() with a user whose PrimarySmtpAddress is `smtpAddress`;
    // every type answers PropertyAccessor.GetProperty(kSmtpAddressSchemaName).
    void addExchangeUser(const std::wstring& entryIdHex, LONG userType, const std::wstring& smtpAddress);
    // Security flags of the items opened from now on (default 1, encrypted).
    void setNextSecurityFlags(LONG flags);
    // What CreateItemFromTemplate(path) reports as "SenderName" and
    // "ReceivedTime" for that file; files not named here give "" and date 0.
    void setTemplateDetails(const std::wstring& path, const std::wstring& senderName, const SYSTEMTIME& receivedTime);
    // Failure switches: the call fails with DISP_E_EXCEPTION (scode E_FAIL).
    void setOpenSharedItemFails(bool fails);
    void setMoveFails(bool fails);
    void setSaveAsFails(bool fails);

    // ---- what happened ----
    DispatchStandIn& applicationObject() const;
    DispatchStandIn& namespaceObject() const;
    DispatchStandIn& languageSettingsObject() const;
    DispatchStandIn& explorerObject() const;
    // The namespace's MAPIOBJECT (handed out as VT_UNKNOWN, as Outlook types it).
    IUnknown* mapiObject() const;
    // The address entry for an id given to addExchangeUser, its Exchange user
    // (null for types other than 0 and 5) and its PropertyAccessor.
    DispatchStandIn* addressEntry(const std::wstring& entryIdHex) const;
    DispatchStandIn* exchangeUser(const std::wstring& entryIdHex) const;
    DispatchStandIn* addressPropertyAccessor(const std::wstring& entryIdHex) const;
    // The folder GetDefaultFolder(folderType) answers with (made on first use,
    // the same object every time).
    DispatchStandIn& defaultFolder(LONG folderType) const;
    // Items in the order OpenSharedItem opened them.
    const std::vector<std::shared_ptr<SharedMailItem>>& sharedItems() const;
    const SharedMailItem* lastSharedItem() const;
    // The folder of the last successful Move of any item, or null.
    IDispatch* lastMoveTarget() const;
    // Items made by CreateItemFromTemplate, in order.
    const std::vector<Microsoft::WRL::ComPtr<DispatchStandIn>>& templateItems() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};
