// The Outlook object-model stand-in, driven through real IDispatch calls as
// the add-in drives Outlook: names resolved with GetIDsOfNames, then Invoke.
#include "e2e_shared/outlook_standin.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include "common/com_variant.h"
#include "items/msg_storage.h"

#include <mapicode.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

// A call by name that also reports Outlook's exception record.
HRESULT invokeWithException(IDispatch* object, const wchar_t* name, VARIANT* argument, EXCEPINFO& exception)
{
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_SYSTEM_DEFAULT, &id);
    if (FAILED(hr))
        return hr;
    DISPPARAMS params{argument, nullptr, argument ? 1u : 0u, 0};
    UniqueVariant result;
    return object->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params, result.put(), &exception,
                          nullptr);
}

void clearException(EXCEPINFO& exception)
{
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
    exception = EXCEPINFO{};
}

ComPtr<IDispatch> objectOf(const UniqueVariant& value)
{
    return value->vt == VT_DISPATCH ? value->pdispVal : nullptr;
}

ComPtr<IDispatch> sessionOf(const OutlookStandIn& outlook)
{
    UniqueVariant session;
    getDispatchProperty(outlook.application(), L"Session", nullptr, 0, session);
    return objectOf(session);
}

std::wstring messageClassOf(const std::wstring& path)
{
    ComPtr<IStorage> storage;
    if (FAILED(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                                IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf()))))
        return L"(no storage)";
    StoredMessage message;
    readStoredMessage(storage.Get(), message);
    const StoredProperty* found = findStoredProperty(message.properties, 0x001A);
    if (!found)
        return L"(no class)";
    return std::wstring(reinterpret_cast<const wchar_t*>(found->bytes.data()), found->bytes.size() / 2);
}

}  // namespace

TEST(DispatchStandIn, HandsArgumentsOverInCallOrderAndRecordsThem)
{
    auto object = DispatchStandIn::create(L"Thing");
    std::wstring seen;
    object->method(L"Join", [&seen](const std::vector<VARIANT>& args, VARIANT* result) {
        for (const VARIANT& argument : args) {
            std::wstring text;
            argumentText(argument, text);
            seen += text + L";";
        }
        return variant(static_cast<int>(args.size())).copyTo(result);
    });

    UniqueVariant first(std::wstring(L"a")), second(std::wstring(L"b")), result;
    ASSERT_EQ(invokeByName(object.Get(), L"join", DISPATCH_METHOD, {first.get(), second.get()}, &result), S_OK);

    EXPECT_EQ(seen, L"a;b;");
    EXPECT_EQ(result->lVal, 2);
    const DispatchCall* call = object->lastCall(L"Join");
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(call->flags, DISPATCH_METHOD);
    ASSERT_EQ(call->args.size(), 2u);
    first.put();  // the record keeps its own copies
    EXPECT_EQ(call->args[0].text(), L"a");
    EXPECT_EQ(call->args[1].text(), L"b");
}

TEST(DispatchStandIn, RefusesUnknownNamesAndPutsOnReadOnlyProperties)
{
    auto object = DispatchStandIn::create(L"Thing");
    object->property(L"Fixed", [] { return variant(L"x"); });

    DISPID id = 0;
    LPOLESTR unknown[] = {const_cast<LPOLESTR>(L"Missing")};
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, unknown, 1, LOCALE_SYSTEM_DEFAULT, &id), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(id, DISPID_UNKNOWN);
    EXPECT_EQ(object->namesLookedUp(), std::vector<std::wstring>{L"Missing"});

    UniqueVariant value(std::wstring(L"y"));
    EXPECT_EQ(invokeByName(object.Get(), L"Fixed", DISPATCH_PROPERTYPUT, {value.get()}, nullptr),
              DISP_E_MEMBERNOTFOUND);
    EXPECT_FALSE(object->wasCalled(L"Missing"));
}

TEST(DispatchStandIn, SettableKeepsWhatWasPutWithItsOwnReference)
{
    auto holder = DispatchStandIn::create(L"Holder");
    holder->settable(L"MAPIOBJECT");
    auto stored = DispatchStandIn::create(L"Stored");
    const ULONG referencesBefore = (stored->AddRef(), stored->Release());

    {
        UniqueVariant value(static_cast<IDispatch*>(stored.Get()));
        ASSERT_EQ(invokeByName(holder.Get(), L"MAPIOBJECT", DISPATCH_PROPERTYPUTREF, {value.get()}, nullptr), S_OK);
    }
    UniqueVariant read;
    ASSERT_EQ(invokeByName(holder.Get(), L"MAPIOBJECT", DISPATCH_PROPERTYGET, {}, &read), S_OK);
    EXPECT_EQ(read->pdispVal, static_cast<IDispatch*>(stored.Get()));
    read.put();
    holder->clearCalls();  // the call record held a copy too
    // The stored value holds exactly one reference of its own.
    EXPECT_EQ((stored->AddRef(), stored->Release()), referencesBefore + 1);
}

TEST(OutlookStandIn, AnswersVersionNameAndLanguage)
{
    OutlookStandIn outlook;
    outlook.setLanguageId(1031);

    UniqueVariant version, name, languageSettings, languageId;
    ASSERT_EQ(getDispatchProperty(outlook.application(), L"Version", nullptr, 0, version), S_OK);
    EXPECT_EQ(version.text(), L"16.0.0.0");
    ASSERT_EQ(getDispatchProperty(outlook.application(), L"Name", nullptr, 0, name), S_OK);
    EXPECT_EQ(name.text(), L"Outlook");

    ASSERT_EQ(getDispatchProperty(outlook.application(), L"LanguageSettings", nullptr, 0, languageSettings), S_OK);
    VARIANT which;
    VariantInit(&which);
    which.vt = VT_UI4;
    which.ulVal = 2;
    ASSERT_EQ(getDispatchProperty(languageSettings->pdispVal, L"LanguageID", &which, 1, languageId), S_OK);
    EXPECT_EQ(languageId->vt, VT_I4);
    EXPECT_EQ(languageId->lVal, 1031);
    const DispatchCall* call = outlook.languageSettingsObject().lastCall(L"LanguageID");
    ASSERT_NE(call, nullptr);
    ASSERT_EQ(call->args.size(), 1u);
    EXPECT_EQ(call->args[0].type(), VT_UI4);
    EXPECT_EQ(call->args[0].number(), 2);

    outlook.setVersion(L"15.0.4569.1506");
    ASSERT_EQ(getDispatchProperty(outlook.application(), L"Version", nullptr, 0, version), S_OK);
    EXPECT_EQ(version.text(), L"15.0.4569.1506");
}

TEST(OutlookStandIn, SessionHandsOutItsOwnMapiObject)
{
    OutlookStandIn outlook;
    auto session = sessionOf(outlook);
    ASSERT_TRUE(session);

    UniqueVariant mapiObject;
    ASSERT_EQ(getDispatchProperty(session.Get(), L"MAPIOBJECT", nullptr, 0, mapiObject), S_OK);
    ASSERT_EQ(mapiObject->vt, VT_UNKNOWN);
    EXPECT_EQ(mapiObject->punkVal, outlook.mapiObject());
}

TEST(OutlookStandIn, FindsExchangeUsersAndOtherEntriesByTheirEntryId)
{
    OutlookStandIn outlook;
    outlook.addExchangeUser(L"00ABCD", kOlExchangeUserAddressEntry, L"jane@corp.example");
    outlook.addExchangeUser(L"00EF01", kOlSmtpAddressEntry, L"joe@mail.example");
    auto session = sessionOf(outlook);

    UniqueVariant exchangeId(std::wstring(L"00abcd")), entry, type, user, smtp;
    ASSERT_EQ(invokeByName(session.Get(), L"GetAddressEntryFromID", DISPATCH_METHOD, {exchangeId.get()}, &entry),
              S_OK);
    ASSERT_EQ(getDispatchProperty(entry->pdispVal, L"AddressEntryUserType", nullptr, 0, type), S_OK);
    EXPECT_EQ(type->lVal, kOlExchangeUserAddressEntry);
    ASSERT_EQ(invokeByName(entry->pdispVal, L"GetExchangeUser", DISPATCH_METHOD, {}, &user), S_OK);
    ASSERT_EQ(getDispatchProperty(user->pdispVal, L"PrimarySmtpAddress", nullptr, 0, smtp), S_OK);
    EXPECT_EQ(smtp.text(), L"jane@corp.example");

    UniqueVariant otherId(std::wstring(L"00EF01")), other, accessor, schema{std::wstring(kSmtpAddressSchemaName)},
        address, nothing;
    ASSERT_EQ(invokeByName(session.Get(), L"GetAddressEntryFromID", DISPATCH_METHOD, {otherId.get()}, &other), S_OK);
    ASSERT_EQ(invokeByName(other->pdispVal, L"GetExchangeUser", DISPATCH_METHOD, {}, &nothing), S_OK);
    EXPECT_EQ(nothing->pdispVal, nullptr);
    ASSERT_EQ(getDispatchProperty(other->pdispVal, L"PropertyAccessor", nullptr, 0, accessor), S_OK);
    ASSERT_EQ(invokeByName(accessor->pdispVal, L"GetProperty", DISPATCH_METHOD, {schema.get()}, &address), S_OK);
    EXPECT_EQ(address.text(), L"joe@mail.example");
    EXPECT_FALSE(outlook.addressPropertyAccessor(L"00ABCD")->wasCalled(L"GetProperty"));
}

TEST(OutlookStandIn, UnknownEntryIdFailsWithOutlooksException)
{
    OutlookStandIn outlook;
    auto session = sessionOf(outlook);
    UniqueVariant id(std::wstring(L"0badf00d"));
    EXCEPINFO exception{};

    EXPECT_EQ(invokeWithException(session.Get(), L"GetAddressEntryFromID", id.get(), exception), DISP_E_EXCEPTION);
    EXPECT_EQ(exception.scode, MAPI_E_NOT_FOUND);
    clearException(exception);
}

TEST(OutlookStandIn, OpensMovesFlagsAndSavesASharedItemDecrypted)
{
    ScratchFolder folder;
    MsgContent content;
    content.subject = L"Secret";
    content.messageClass = L"IPM.Note.SMIME";
    const std::wstring encrypted = folder.file(L"mail.encrypted.msg");
    const std::wstring decrypted = folder.file(L"mail.msg");
    ASSERT_EQ(writeMsgFile(encrypted, content), S_OK);
    OutlookStandIn outlook;
    auto session = sessionOf(outlook);

    UniqueVariant path(encrypted), item, folderType(kOlFolderDeletedItems), deletedItems, moved;
    ASSERT_EQ(invokeByName(session.Get(), L"OpenSharedItem", DISPATCH_METHOD, {path.get()}, &item), S_OK);
    ASSERT_EQ(invokeByName(session.Get(), L"GetDefaultFolder", DISPATCH_METHOD, {folderType.get()}, &deletedItems),
              S_OK);
    EXPECT_EQ(deletedItems->pdispVal, static_cast<IDispatch*>(&outlook.defaultFolder(kOlFolderDeletedItems)));
    ASSERT_EQ(invokeByName(item->pdispVal, L"Move", DISPATCH_METHOD, {deletedItems.get()}, &moved), S_OK);
    EXPECT_EQ(moved->pdispVal, item->pdispVal);
    EXPECT_EQ(outlook.lastMoveTarget(), deletedItems->pdispVal);

    UniqueVariant accessor, schema{std::wstring(kSecurityFlagsSchemaName)}, flags, cleared(0L);
    ASSERT_EQ(getDispatchProperty(moved->pdispVal, L"PropertyAccessor", nullptr, 0, accessor), S_OK);
    ASSERT_EQ(invokeByName(accessor->pdispVal, L"GetProperty", DISPATCH_METHOD, {schema.get()}, &flags), S_OK);
    EXPECT_EQ(flags->lVal, 1);
    ASSERT_EQ(invokeByName(accessor->pdispVal, L"SetProperty", DISPATCH_METHOD, {schema.get(), cleared.get()},
                           nullptr),
              S_OK);

    UniqueVariant target(decrypted), type(kOlMsg);
    ASSERT_EQ(invokeByName(moved->pdispVal, L"SaveAs", DISPATCH_METHOD, {target.get(), type.get()}, nullptr), S_OK);

    EXPECT_EQ(messageClassOf(decrypted), L"IPM.Note");
    EXPECT_EQ(messageClassOf(encrypted), L"IPM.Note.SMIME");
    const SharedMailItem* opened = outlook.lastSharedItem();
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened->path, encrypted);
    EXPECT_EQ(opened->savedAs, std::vector<std::wstring>{decrypted});
    EXPECT_EQ(opened->securityFlagsWhenSaved, std::vector<LONG>{0});
}

TEST(OutlookStandIn, ItemNeverMovedIntoAStoreIsSavedStillEncrypted)
{
    ScratchFolder folder;
    MsgContent content;
    content.messageClass = L"IPM.Note.SMIME";
    const std::wstring encrypted = folder.file(L"mail.encrypted.msg");
    ASSERT_EQ(writeMsgFile(encrypted, content), S_OK);
    OutlookStandIn outlook;
    auto session = sessionOf(outlook);

    UniqueVariant path(encrypted), item, target(folder.file(L"copy.msg")), type(kOlMsg);
    ASSERT_EQ(invokeByName(session.Get(), L"OpenSharedItem", DISPATCH_METHOD, {path.get()}, &item), S_OK);
    ASSERT_EQ(invokeByName(item->pdispVal, L"SaveAs", DISPATCH_METHOD, {target.get(), type.get()}, nullptr), S_OK);

    EXPECT_EQ(messageClassOf(folder.file(L"copy.msg")), L"IPM.Note.SMIME");
}

TEST(OutlookStandIn, SwitchesAndMissingFilesMakeTheChainFail)
{
    ScratchFolder folder;
    const std::wstring encrypted = folder.file(L"mail.msg");
    ASSERT_EQ(writeMsgFile(encrypted, MsgContent{}), S_OK);
    OutlookStandIn outlook;
    auto session = sessionOf(outlook);

    UniqueVariant missing(folder.file(L"absent.msg")), item;
    EXPECT_EQ(invokeByName(session.Get(), L"OpenSharedItem", DISPATCH_METHOD, {missing.get()}, &item),
              DISP_E_EXCEPTION);

    UniqueVariant path(encrypted), deletedItems, folderType(kOlFolderDeletedItems);
    ASSERT_EQ(invokeByName(session.Get(), L"OpenSharedItem", DISPATCH_METHOD, {path.get()}, &item), S_OK);
    ASSERT_EQ(invokeByName(session.Get(), L"GetDefaultFolder", DISPATCH_METHOD, {folderType.get()}, &deletedItems),
              S_OK);
    outlook.setMoveFails(true);
    EXPECT_EQ(invokeByName(item->pdispVal, L"Move", DISPATCH_METHOD, {deletedItems.get()}, nullptr), DISP_E_EXCEPTION);
    EXPECT_EQ(outlook.lastMoveTarget(), nullptr);

    outlook.setSaveAsFails(true);
    UniqueVariant target(folder.file(L"out.msg")), type(kOlMsg);
    EXPECT_EQ(invokeByName(item->pdispVal, L"SaveAs", DISPATCH_METHOD, {target.get(), type.get()}, nullptr),
              DISP_E_EXCEPTION);
    EXPECT_FALSE(fileExists(folder.file(L"out.msg")));

    outlook.setOpenSharedItemFails(true);
    EXPECT_EQ(invokeByName(session.Get(), L"OpenSharedItem", DISPATCH_METHOD, {path.get()}, nullptr),
              DISP_E_EXCEPTION);
    EXPECT_EQ(outlook.sharedItems().size(), 1u);
}

TEST(OutlookStandIn, ObjectsKeptPastOutlookAnswerDisconnected)
{
    ComPtr<IDispatch> session;
    {
        OutlookStandIn outlook;
        session = sessionOf(outlook);
    }
    UniqueVariant folderType(kOlFolderDeletedItems);
    EXCEPINFO exception{};
    EXPECT_EQ(invokeWithException(session.Get(), L"GetDefaultFolder", folderType.get(), exception), DISP_E_EXCEPTION);
    EXPECT_EQ(exception.scode, RPC_E_DISCONNECTED);
    clearException(exception);
}

TEST(OutlookStandIn, CreateItemFromTemplateReportsSenderAndReceivedTime)
{
    ScratchFolder folder;
    const std::wstring path = folder.file(L"report.msg");
    ASSERT_EQ(writeMsgFile(path, MsgContent{}), S_OK);
    OutlookStandIn outlook;
    SYSTEMTIME received{2023, 4, 5, 7, 10, 11, 12, 0};
    outlook.setTemplateDetails(path, L"Ann Example", received);

    UniqueVariant file(path), item, sender, time;
    ASSERT_EQ(invokeByName(outlook.application(), L"CreateItemFromTemplate", DISPATCH_METHOD, {file.get()}, &item),
              S_OK);
    ASSERT_EQ(getDispatchProperty(item->pdispVal, L"SenderName", nullptr, 0, sender), S_OK);
    EXPECT_EQ(sender.text(), L"Ann Example");
    ASSERT_EQ(getDispatchProperty(item->pdispVal, L"ReceivedTime", nullptr, 0, time), S_OK);
    ASSERT_EQ(time->vt, VT_DATE);
    SYSTEMTIME back{};
    ASSERT_TRUE(VariantTimeToSystemTime(time->date, &back));
    EXPECT_EQ(back.wYear, 2023);
    EXPECT_EQ(back.wDay, 7);

    UniqueVariant missing(folder.file(L"absent.msg"));
    EXPECT_EQ(invokeByName(outlook.application(), L"CreateItemFromTemplate", DISPATCH_METHOD, {missing.get()}, &item),
              DISP_E_EXCEPTION);
}
