#include "e2e_shared/outlook_standin.h"
#include "common/com_ptr.h"

#include "e2e_shared/fake_decryption.h"

#include <mapicode.h>

#include <utility>

using Microsoft::WRL::ComPtr;

namespace {

// Outlook compares entry ids, paths and DASL names without regard to case.
std::wstring upper(std::wstring text)
{
    if (!text.empty())
        CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

HRESULT expectArgumentCount(const std::vector<VARIANT>& args, std::size_t least, std::size_t most)
{
    return args.size() < least || args.size() > most ? DISP_E_BADPARAMCOUNT : S_OK;
}

// Stands for the MAPI session behind Outlook's namespace: an object with an
// identity and nothing else, so a test can see where it was handed on.
class MapiSessionToken final : public ComObject<IUnknown> {};

const wchar_t* folderName(LONG folderType)
{
    switch (folderType) {
    case 3: return L"Deleted Items";
    case 4: return L"Outbox";
    case 5: return L"Sent Items";
    case 6: return L"Inbox";
    case 9: return L"Calendar";
    case 10: return L"Contacts";
    case 16: return L"Drafts";
    default: return nullptr;
    }
}

}  // namespace

LONG SharedMailItem::securityFlags() const
{
    const auto found = properties.find(upper(kSecurityFlagsSchemaName));
    return found == properties.end() ? 0 : found->second.number();
}

struct OutlookStandIn::State {
    struct AddressEntryObjects {
        ComPtr<DispatchStandIn> entry;
        ComPtr<DispatchStandIn> user;
        ComPtr<DispatchStandIn> accessor;
    };
    struct TemplateDetails {
        std::wstring senderName;
        OwnedVariant receivedTime;
    };

    std::wstring version = L"16.0.0.0";
    LONG languageId = 1033;
    LONG nextSecurityFlags = 1;
    bool openSharedItemFails = false;
    bool moveFails = false;
    bool saveAsFails = false;

    ComPtr<DispatchStandIn> application;
    ComPtr<DispatchStandIn> session;
    ComPtr<DispatchStandIn> languageSettings;
    ComPtr<DispatchStandIn> explorer;
    ComPtr<IUnknown> mapiObject;
    std::map<std::wstring, AddressEntryObjects> addressEntries;  // by upper-cased entry id
    std::map<std::wstring, TemplateDetails> templates;            // by upper-cased path
    std::map<LONG, ComPtr<DispatchStandIn>> folders;
    std::vector<std::shared_ptr<SharedMailItem>> items;
    std::vector<ComPtr<DispatchStandIn>> templateItems;
    ComPtr<IDispatch> lastMoveTarget;

    DispatchStandIn& folder(LONG folderType)
    {
        ComPtr<DispatchStandIn>& slot = folders[folderType];
        if (!slot) {
            const wchar_t* name = folderName(folderType);
            const std::wstring text = name ? name : L"Folder " + std::to_wstring(folderType);
            slot = DispatchStandIn::create(L"Folder");
            slot->property(L"Name", [text] { return variant(text); });
        }
        return *slot.Get();
    }
};

namespace {

using State = OutlookStandIn::State;

// Handlers hold the state weakly: the objects belong to the state, and an
// add-in that keeps an object past the test gets Outlook's "disconnected"
// answer instead of touching freed memory.
template <typename Body>
DispatchStandIn::Handler withState(const std::weak_ptr<State>& weak, Body body)
{
    return [weak, body](const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
        const std::shared_ptr<State> state = weak.lock();
        return state ? body(*state, args, result) : RPC_E_DISCONNECTED;
    };
}

HRESULT openSharedItem(State& state, const std::weak_ptr<State>& weakState, const std::vector<VARIANT>& args,
                       VARIANT* result);

ComPtr<DispatchStandIn> makeTemplateItem(State& state, const std::wstring& path)
{
    auto item = DispatchStandIn::create(L"MailItem");
    std::wstring senderName;
    OwnedVariant receivedTime;
    VARIANT* noDate = receivedTime.put();
    noDate->vt = VT_DATE;
    noDate->date = 0;
    const auto found = state.templates.find(upper(path));
    if (found != state.templates.end()) {
        senderName = found->second.senderName;
        receivedTime = found->second.receivedTime;
    }
    item->property(L"SenderName", [senderName] { return variant(senderName); });
    item->property(L"ReceivedTime", [receivedTime] { return receivedTime; });
    return item;
}

void buildApplication(State& state, const std::weak_ptr<State>& weak)
{
    state.languageSettings = DispatchStandIn::create(L"LanguageSettings");
    state.languageSettings->method(
        L"LanguageID", withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
            if (FAILED(expectArgumentCount(args, 1, 1)))
                return DISP_E_BADPARAMCOUNT;
            LONG which = 0;
            if (FAILED(argumentNumber(args[0], which)))
                return DISP_E_TYPEMISMATCH;
            return variant(s.languageId).copyTo(result);
        }));

    state.explorer = DispatchStandIn::create(L"Explorer");
    state.explorer->property(L"Caption", [] { return variant(L"Inbox - Outlook"); });

    state.application = DispatchStandIn::create(L"Application");
    DispatchStandIn& application = *state.application.Get();
    application.property(L"Name", [] { return variant(L"Outlook"); });
    application.method(L"Version", withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) {
        return args.empty() ? variant(s.version).copyTo(result) : DISP_E_BADPARAMCOUNT;
    }));
    application.method(L"LanguageSettings",
                       withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) {
                           return args.empty() ? variant(s.languageSettings.Get()).copyTo(result)
                                               : DISP_E_BADPARAMCOUNT;
                       }));
    application.method(L"Session", withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) {
        return args.empty() ? variant(s.session.Get()).copyTo(result) : DISP_E_BADPARAMCOUNT;
    }));
    application.method(L"GetNamespace",
                       withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
                           std::wstring type;
                           if (args.size() != 1)
                               return DISP_E_BADPARAMCOUNT;
                           if (FAILED(argumentText(args[0], type)))
                               return DISP_E_TYPEMISMATCH;
                           return upper(type) == L"MAPI" ? variant(s.session.Get()).copyTo(result) : E_INVALIDARG;
                       }));
    application.method(L"ActiveExplorer",
                       withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) {
                           return args.empty() ? variant(s.explorer.Get()).copyTo(result) : DISP_E_BADPARAMCOUNT;
                       }));
    application.method(
        L"CreateItemFromTemplate",
        withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
            if (FAILED(expectArgumentCount(args, 1, 2)))
                return DISP_E_BADPARAMCOUNT;
            std::wstring path;
            if (FAILED(argumentText(args[0], path)))
                return DISP_E_TYPEMISMATCH;
            if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
                return STG_E_FILENOTFOUND;
            auto item = makeTemplateItem(s, path);
            s.templateItems.push_back(item);
            return variant(item.Get()).copyTo(result);
        }));
}

void buildSession(State& state, const std::weak_ptr<State>& weak)
{
    ComPtr<IUnknown> token;
    token = adoptCom(new MapiSessionToken());
    state.mapiObject = token;

    state.session = DispatchStandIn::create(L"NameSpace");
    DispatchStandIn& session = *state.session.Get();
    session.property(L"Type", [] { return variant(L"MAPI"); });
    session.method(L"MAPIOBJECT", withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) {
        return args.empty() ? variant(s.mapiObject.Get()).copyTo(result) : DISP_E_BADPARAMCOUNT;
    }));
    session.method(
        L"GetAddressEntryFromID",
        withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
            if (FAILED(expectArgumentCount(args, 1, 1)))
                return DISP_E_BADPARAMCOUNT;
            std::wstring entryId;
            if (FAILED(argumentText(args[0], entryId)))
                return DISP_E_TYPEMISMATCH;
            const auto found = s.addressEntries.find(upper(entryId));
            if (found == s.addressEntries.end())
                return MAPI_E_NOT_FOUND;
            return variant(found->second.entry.Get()).copyTo(result);
        }));
    session.method(L"GetDefaultFolder",
                   withState(weak, [](State& s, const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
                       if (FAILED(expectArgumentCount(args, 1, 1)))
                           return DISP_E_BADPARAMCOUNT;
                       LONG folderType = 0;
                       if (FAILED(argumentNumber(args[0], folderType)))
                           return DISP_E_TYPEMISMATCH;
                       return variant(&s.folder(folderType)).copyTo(result);
                   }));
    session.method(L"OpenSharedItem", withState(weak, [weak](State& s, const std::vector<VARIANT>& args,
                                                             VARIANT* result) {
                       return openSharedItem(s, weak, args, result);
                   }));
}

// The item's PropertyAccessor: GetProperty answers what the item holds,
// SetProperty changes it.
ComPtr<DispatchStandIn> makeItemPropertyAccessor(const std::weak_ptr<SharedMailItem>& weak)
{
    auto accessor = DispatchStandIn::create(L"PropertyAccessor");
    accessor->method(L"GetProperty", [weak](const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
        const auto item = weak.lock();
        if (!item)
            return RPC_E_DISCONNECTED;
        if (FAILED(expectArgumentCount(args, 1, 1)))
            return DISP_E_BADPARAMCOUNT;
        std::wstring name;
        if (FAILED(argumentText(args[0], name)))
            return DISP_E_TYPEMISMATCH;
        const auto found = item->properties.find(upper(name));
        return found == item->properties.end() ? MAPI_E_NOT_FOUND : found->second.copyTo(result);
    });
    accessor->method(L"SetProperty", [weak](const std::vector<VARIANT>& args, VARIANT*) -> HRESULT {
        const auto item = weak.lock();
        if (!item)
            return RPC_E_DISCONNECTED;
        if (FAILED(expectArgumentCount(args, 2, 2)))
            return DISP_E_BADPARAMCOUNT;
        std::wstring name;
        if (FAILED(argumentText(args[0], name)))
            return DISP_E_TYPEMISMATCH;
        item->properties[upper(name)] = OwnedVariant(args[1]);
        return S_OK;
    });
    return accessor;
}

HRESULT moveItem(State& state, SharedMailItem& item, const std::vector<VARIANT>& args, VARIANT* result)
{
    if (FAILED(expectArgumentCount(args, 1, 1)))
        return DISP_E_BADPARAMCOUNT;
    ComPtr<IDispatch> folder;
    if (FAILED(argumentObject(args[0], folder)))
        return DISP_E_TYPEMISMATCH;
    if (state.moveFails)
        return E_FAIL;
    item.movedTo = folder;
    state.lastMoveTarget = folder;
    // Outlook hands back the item in its new folder; here it is the same object.
    return variant(static_cast<IDispatch*>(item.item.Get())).copyTo(result);
}

HRESULT saveItem(State& state, SharedMailItem& item, const std::vector<VARIANT>& args)
{
    if (FAILED(expectArgumentCount(args, 1, 2)))
        return DISP_E_BADPARAMCOUNT;
    std::wstring target;
    if (FAILED(argumentText(args[0], target)))
        return DISP_E_TYPEMISMATCH;
    LONG type = kOlMsg;
    if (args.size() == 2 && !argumentMissing(args[1]) && FAILED(argumentNumber(args[1], type)))
        return DISP_E_TYPEMISMATCH;
    const LONG olMsgUnicode = 9;
    if (type != kOlMsg && type != olMsgUnicode)
        return E_INVALIDARG;  // the stand-in writes .msg files only
    if (state.saveAsFails)
        return E_FAIL;

    HRESULT hr = S_OK;
    if (item.movedTo) {
        hr = writeDecryptedCopy(item.path, target);
    } else {
        // Outlook decrypts only an item that lives in a store; one that was
        // never moved into a folder is saved as it came, still encrypted.
        hr = copyMsgFile(item.path, target);
    }
    if (SUCCEEDED(hr)) {
        item.savedAs.push_back(target);
        item.securityFlagsWhenSaved.push_back(item.securityFlags());
    }
    return hr;
}

HRESULT openSharedItem(State& state, const std::weak_ptr<State>& weakState, const std::vector<VARIANT>& args,
                       VARIANT* result)
{
    if (FAILED(expectArgumentCount(args, 1, 1)))
        return DISP_E_BADPARAMCOUNT;
    std::wstring path;
    if (FAILED(argumentText(args[0], path)))
        return DISP_E_TYPEMISMATCH;
    if (state.openSharedItemFails)
        return E_FAIL;
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
        return STG_E_FILENOTFOUND;
    // Outlook opens only .msg compound files as shared items.
    if (StgIsStorageFile(path.c_str()) != S_OK)
        return STG_E_INVALIDHEADER;

    auto shared = std::make_shared<SharedMailItem>();
    shared->path = path;
    shared->properties[upper(kSecurityFlagsSchemaName)] = variant(state.nextSecurityFlags);
    const std::weak_ptr<SharedMailItem> weakItem = shared;
    shared->propertyAccessor = makeItemPropertyAccessor(weakItem);

    shared->item = DispatchStandIn::create(L"MailItem");
    DispatchStandIn& item = *shared->item.Get();
    item.method(L"PropertyAccessor", [weakItem](const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
        const auto self = weakItem.lock();
        if (!self)
            return RPC_E_DISCONNECTED;
        return args.empty() ? variant(self->propertyAccessor.Get()).copyTo(result) : DISP_E_BADPARAMCOUNT;
    });
    item.method(L"Move", [weakState, weakItem](const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
        const auto state = weakState.lock();
        const auto self = weakItem.lock();
        return state && self ? moveItem(*state, *self, args, result) : RPC_E_DISCONNECTED;
    });
    item.method(L"SaveAs", [weakState, weakItem](const std::vector<VARIANT>& args, VARIANT*) -> HRESULT {
        const auto state = weakState.lock();
        const auto self = weakItem.lock();
        return state && self ? saveItem(*state, *self, args) : RPC_E_DISCONNECTED;
    });

    state.items.push_back(shared);
    return variant(static_cast<IDispatch*>(shared->item.Get())).copyTo(result);
}

}  // namespace

OutlookStandIn::OutlookStandIn() : state_(std::make_shared<State>())
{
    buildApplication(*state_, state_);
    buildSession(*state_, state_);
}

OutlookStandIn::~OutlookStandIn() = default;

IDispatch* OutlookStandIn::application() const { return state_->application.Get(); }

void OutlookStandIn::setVersion(const std::wstring& version) { state_->version = version; }

void OutlookStandIn::setLanguageId(LONG languageId) { state_->languageId = languageId; }

void OutlookStandIn::addExchangeUser(const std::wstring& entryIdHex, LONG userType, const std::wstring& smtpAddress)
{
    State::AddressEntryObjects objects;

    objects.accessor = DispatchStandIn::create(L"PropertyAccessor");
    objects.accessor->method(L"GetProperty",
                             [smtpAddress](const std::vector<VARIANT>& args, VARIANT* result) -> HRESULT {
                                 if (FAILED(expectArgumentCount(args, 1, 1)))
                                     return DISP_E_BADPARAMCOUNT;
                                 std::wstring name;
                                 if (FAILED(argumentText(args[0], name)))
                                     return DISP_E_TYPEMISMATCH;
                                 return upper(name) == upper(kSmtpAddressSchemaName)
                                            ? variant(smtpAddress).copyTo(result)
                                            : MAPI_E_NOT_FOUND;
                             });

    // Outlook answers GetExchangeUser with Nothing for entries that are no
    // Exchange users.
    if (userType == kOlExchangeUserAddressEntry || userType == kOlExchangeRemoteUserAddressEntry) {
        objects.user = DispatchStandIn::create(L"ExchangeUser");
        objects.user->property(L"PrimarySmtpAddress", [smtpAddress] { return variant(smtpAddress); });
    }

    objects.entry = DispatchStandIn::create(L"AddressEntry");
    ComPtr<DispatchStandIn> user = objects.user;
    ComPtr<DispatchStandIn> accessor = objects.accessor;
    objects.entry->property(L"AddressEntryUserType", [userType] { return variant(userType); });
    objects.entry->method(L"GetExchangeUser", [user](const std::vector<VARIANT>& args, VARIANT* result) {
        return args.empty() ? variant(static_cast<IDispatch*>(user.Get())).copyTo(result) : DISP_E_BADPARAMCOUNT;
    });
    objects.entry->property(L"PropertyAccessor", [accessor] { return variant(accessor.Get()); });

    state_->addressEntries[upper(entryIdHex)] = std::move(objects);
}

void OutlookStandIn::setNextSecurityFlags(LONG flags) { state_->nextSecurityFlags = flags; }

void OutlookStandIn::setTemplateDetails(const std::wstring& path, const std::wstring& senderName,
                                        const SYSTEMTIME& receivedTime)
{
    state_->templates[upper(path)] = State::TemplateDetails{senderName, dateVariant(receivedTime)};
}

void OutlookStandIn::setOpenSharedItemFails(bool fails) { state_->openSharedItemFails = fails; }

void OutlookStandIn::setMoveFails(bool fails) { state_->moveFails = fails; }

void OutlookStandIn::setSaveAsFails(bool fails) { state_->saveAsFails = fails; }

DispatchStandIn& OutlookStandIn::applicationObject() const { return *state_->application.Get(); }

DispatchStandIn& OutlookStandIn::namespaceObject() const { return *state_->session.Get(); }

DispatchStandIn& OutlookStandIn::languageSettingsObject() const { return *state_->languageSettings.Get(); }

DispatchStandIn& OutlookStandIn::explorerObject() const { return *state_->explorer.Get(); }

IUnknown* OutlookStandIn::mapiObject() const { return state_->mapiObject.Get(); }

DispatchStandIn* OutlookStandIn::addressEntry(const std::wstring& entryIdHex) const
{
    const auto found = state_->addressEntries.find(upper(entryIdHex));
    return found == state_->addressEntries.end() ? nullptr : found->second.entry.Get();
}

DispatchStandIn* OutlookStandIn::exchangeUser(const std::wstring& entryIdHex) const
{
    const auto found = state_->addressEntries.find(upper(entryIdHex));
    return found == state_->addressEntries.end() ? nullptr : found->second.user.Get();
}

DispatchStandIn* OutlookStandIn::addressPropertyAccessor(const std::wstring& entryIdHex) const
{
    const auto found = state_->addressEntries.find(upper(entryIdHex));
    return found == state_->addressEntries.end() ? nullptr : found->second.accessor.Get();
}

DispatchStandIn& OutlookStandIn::defaultFolder(LONG folderType) const { return state_->folder(folderType); }

const std::vector<std::shared_ptr<SharedMailItem>>& OutlookStandIn::sharedItems() const { return state_->items; }

const SharedMailItem* OutlookStandIn::lastSharedItem() const
{
    return state_->items.empty() ? nullptr : state_->items.back().get();
}

IDispatch* OutlookStandIn::lastMoveTarget() const { return state_->lastMoveTarget.Get(); }

const std::vector<ComPtr<DispatchStandIn>>& OutlookStandIn::templateItems() const { return state_->templateItems; }
