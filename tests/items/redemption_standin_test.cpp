// The Redemption stand-in as the add-in uses it: loaded from a folder by file
// name, the session made straight from DllGetClassObject, and driven by name
// through IDispatch: open a .msg, decrypt it, save it as .msg or as a MIME text.
#include "standins/redemption/redemption_standin.h"

#include "common/com_variant.h"
#include "common/strings.h"
#include "common/unique_resource.h"
#include "core/base64.h"
#include "items/msg_storage.h"
#include "items/property_text.h"
#include "e2e_shared/dispatch_standin.h"
#include "support/environment_switch.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <wrl/client.h>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

using GetClassObjectFunction = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, LPVOID*);

std::wstring builtStandIn()
{
    return testProgramFolder() + L"\\standins\\" + standInRedemptionFileName;
}

MsgContent encryptedMail()
{
    MsgContent content;
    content.subject = L"Payroll";
    content.messageClass = L"IPM.Note.SMIME";
    content.senderName = L"Anna Berg";
    content.senderAddress = L"anna@example.com";
    content.senderAddrType = L"SMTP";
    content.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    content.body = L"Line one\nLine two";
    content.recipients = {MsgRecipient{1, L"Bo Lind", L"bo@example.com", L"SMTP", {}},
                          MsgRecipient{2, L"Cy Moor", L"cy@example.com", L"SMTP", {}},
                          MsgRecipient{3, L"Hidden", L"hidden@example.com", L"SMTP", {}}};
    return content;
}

std::wstring messageClassOfFile(const std::wstring& path)
{
    ComPtr<IStorage> storage;
    if (FAILED(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                                IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf()))))
        return L"(no storage)";
    StoredMessage message;
    if (FAILED(readStoredMessage(storage.Get(), message)))
        return L"(no message)";
    const StoredProperty* property = findStoredProperty(message.properties, 0x001A);
    return property ? propertyText(property->tag, property->bytes) : L"(no class)";
}

// The error code an automation call failed with: DISP_E_EXCEPTION carries it
// in EXCEPINFO, as the add-in's callers see it.
HRESULT failureOf(IDispatch* object, const wchar_t* name, std::initializer_list<const VARIANT*> args)
{
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_SYSTEM_DEFAULT, &id);
    if (FAILED(hr))
        return hr;
    std::vector<VARIANT> reversed;
    for (auto it = std::rbegin(args); it != std::rend(args); ++it)
        reversed.push_back(**it);
    DISPPARAMS params{reversed.empty() ? nullptr : reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
    UniqueVariant result;
    EXCEPINFO exception{};
    hr = object->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params, result.put(), &exception,
                        nullptr);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
    if (hr == DISP_E_EXCEPTION)
        return exception.scode;
    return SUCCEEDED(hr) ? S_OK : hr;
}

ComPtr<IDispatch> objectOf(const UniqueVariant& value)
{
    return value->vt == VT_DISPATCH ? ComPtr<IDispatch>(value->pdispVal) : nullptr;
}

class RedemptionStandIn : public testing::Test {
protected:
    void SetUp() override
    {
        library.reset(LoadLibraryW(builtStandIn().c_str()));
        ASSERT_TRUE(library) << "not built: " << wideToUtf8(builtStandIn());
        const auto getClassObject =
            reinterpret_cast<GetClassObjectFunction>(GetProcAddress(library.get(), "DllGetClassObject"));
        ASSERT_NE(getClassObject, nullptr);
        ASSERT_EQ(getClassObject(standInRedemptionSessionClsid, IID_IClassFactory,
                                 reinterpret_cast<void**>(factory.GetAddressOf())),
                  S_OK);
        ASSERT_EQ(factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(session.GetAddressOf())),
                  S_OK);
        encryptedFile = folder.file(L"a.eml.encrypted.msg");
        ASSERT_EQ(writeMsgFile(encryptedFile, encryptedMail()), S_OK);
    }

    void TearDown() override
    {
        session.Reset();
        factory.Reset();
    }

    ComPtr<IDispatch> openMail(const std::wstring& path)
    {
        UniqueVariant name(path);
        UniqueVariant mail;
        EXPECT_EQ(invokeByName(session.Get(), L"GetMessageFromMsgFile", DISPATCH_METHOD, {name.get()}, &mail), S_OK);
        return objectOf(mail);
    }

    ComPtr<IDispatch> decrypt(IDispatch* mail)
    {
        UniqueVariant decrypted;
        EXPECT_EQ(invokeByName(mail, L"GetDecryptedMessage", DISPATCH_METHOD, {}, &decrypted), S_OK);
        return objectOf(decrypted);
    }

    static std::wstring textProperty(IDispatch* object, const wchar_t* name)
    {
        UniqueVariant value;
        EXPECT_EQ(invokeByName(object, name, DISPATCH_PROPERTYGET, {}, &value), S_OK);
        EXPECT_EQ(value->vt, VT_BSTR);
        return value.text();
    }

    static HRESULT saveAs(IDispatch* mail, const std::wstring& path, LONG type)
    {
        UniqueVariant target(path);
        UniqueVariant format(type);
        return invokeByName(mail, L"SaveAs", DISPATCH_METHOD, {target.get(), format.get()}, nullptr);
    }

    ScratchFolder folder;
    UniqueLibrary library;
    ComPtr<IClassFactory> factory;
    ComPtr<IDispatch> session;
    std::wstring encryptedFile;
};

} // namespace

TEST(RedemptionStandInLoading, LoadingTheLibrarySetsTheMarker)
{
    // A copy of its own, so that no other test's hold on the library hides the load.
    ScratchFolder folder;
    const std::wstring copy = folder.file(standInRedemptionFileName);
    ASSERT_TRUE(CopyFileW(builtStandIn().c_str(), copy.c_str(), FALSE));
    EnvironmentSwitch noMarker(standInRedemptionLoadedMarker, nullptr);
    wchar_t value[8] = {};
    ASSERT_EQ(GetEnvironmentVariableW(standInRedemptionLoadedMarker, value, 8), 0u);
    {
        UniqueLibrary library(LoadLibraryW(copy.c_str()));
        ASSERT_TRUE(library);
        ASSERT_EQ(GetEnvironmentVariableW(standInRedemptionLoadedMarker, value, 8), 1u);
        EXPECT_STREQ(value, L"1");
    }
}

TEST_F(RedemptionStandIn, ServesOnlyTheSessionClass)
{
    const auto getClassObject =
        reinterpret_cast<GetClassObjectFunction>(GetProcAddress(library.get(), "DllGetClassObject"));
    ComPtr<IClassFactory> other;
    EXPECT_EQ(getClassObject(IID_IDispatch, IID_IClassFactory, reinterpret_cast<void**>(other.GetAddressOf())),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_FALSE(other);
    ComPtr<IDispatch> aggregated;
    EXPECT_EQ(factory->CreateInstance(session.Get(), IID_IDispatch, reinterpret_cast<void**>(aggregated.GetAddressOf())),
              CLASS_E_NOAGGREGATION);
    EXPECT_NE(GetProcAddress(library.get(), "DllCanUnloadNow"), nullptr);
}

TEST_F(RedemptionStandIn, MapiObjectHoldsWhatWasPut)
{
    ComPtr<DispatchStandIn> outlooksMapiObject = DispatchStandIn::create(L"MAPIOBJECT");
    UniqueVariant value(static_cast<IDispatch*>(outlooksMapiObject.Get()));
    ASSERT_EQ(invokeByName(session.Get(), L"MAPIOBJECT", DISPATCH_PROPERTYPUT, {value.get()}, nullptr), S_OK);
    UniqueVariant got;
    ASSERT_EQ(invokeByName(session.Get(), L"MAPIOBJECT", DISPATCH_PROPERTYGET, {}, &got), S_OK);
    EXPECT_EQ(objectOf(got).Get(), outlooksMapiObject.Get());

    ComPtr<DispatchStandIn> another = DispatchStandIn::create(L"another MAPIOBJECT");
    UniqueVariant byReference(static_cast<IDispatch*>(another.Get()));
    ASSERT_EQ(invokeByName(session.Get(), L"MAPIOBJECT", DISPATCH_PROPERTYPUTREF, {byReference.get()}, nullptr), S_OK);
    ASSERT_EQ(invokeByName(session.Get(), L"MAPIOBJECT", DISPATCH_PROPERTYGET, {}, &got), S_OK);
    EXPECT_EQ(objectOf(got).Get(), another.Get());
}

TEST_F(RedemptionStandIn, DecryptedMailSavedAsMsgReadsAsAPlainNote)
{
    const std::wstring decryptedFile = folder.file(L"a.eml.decrypted.msg");
    {
        ComPtr<IDispatch> mail = openMail(encryptedFile);
        ASSERT_TRUE(mail);
        EXPECT_EQ(textProperty(mail.Get(), L"MessageClass"), L"IPM.Note.SMIME");
        ComPtr<IDispatch> decrypted = decrypt(mail.Get());
        ASSERT_TRUE(decrypted);
        EXPECT_EQ(textProperty(decrypted.Get(), L"Body"), L"Line one\nLine two");
        EXPECT_EQ(textProperty(decrypted.Get(), L"MessageClass"), L"IPM.Note");
        ASSERT_EQ(saveAs(decrypted.Get(), decryptedFile, standInRedemptionSaveAsMsg), S_OK);
    }
    EXPECT_EQ(messageClassOfFile(decryptedFile), L"IPM.Note");
    EXPECT_EQ(messageClassOfFile(encryptedFile), L"IPM.Note.SMIME");
    // Once the objects are gone the add-in deletes the encrypted file.
    EXPECT_TRUE(DeleteFileW(encryptedFile.c_str())) << GetLastError();
}

TEST_F(RedemptionStandIn, MailNotDecryptedIsSavedAsItIs)
{
    ComPtr<IDispatch> mail = openMail(encryptedFile);
    ASSERT_TRUE(mail);
    ASSERT_EQ(saveAs(mail.Get(), folder.file(L"copy.msg"), standInRedemptionSaveAsMsg), S_OK);
    EXPECT_EQ(messageClassOfFile(folder.file(L"copy.msg")), L"IPM.Note.SMIME");
}

TEST_F(RedemptionStandIn, OtherSaveAsTypesWriteAnInternetMail)
{
    ComPtr<IDispatch> mail = openMail(encryptedFile);
    ASSERT_TRUE(mail);
    const std::wstring eml = folder.file(L"a.eml");
    ASSERT_EQ(saveAs(mail.Get(), eml, 1024), S_OK);
    const std::string text = readBytes(eml);
    const size_t blank = text.find("\r\n\r\n");
    ASSERT_NE(blank, std::string::npos);
    const std::string headers = text.substr(0, blank + 2);
    EXPECT_EQ(headers.rfind("From: \"Anna Berg\" <anna@example.com>\r\n", 0), 0u) << headers;
    EXPECT_NE(headers.find("\r\nTo: \"Bo Lind\" <bo@example.com>\r\n"), std::string::npos) << headers;
    EXPECT_NE(headers.find("\r\nCc: \"Cy Moor\" <cy@example.com>\r\n"), std::string::npos) << headers;
    EXPECT_EQ(headers.find("hidden@example.com"), std::string::npos) << headers;
    EXPECT_NE(headers.find("\r\nSubject: Payroll\r\n"), std::string::npos) << headers;
    EXPECT_NE(headers.find("\r\nDate: Tue, 05 Mar 2024 07:08:09 +0000\r\n"), std::string::npos) << headers;
    EXPECT_NE(headers.find("\r\nMIME-Version: 1.0\r\n"), std::string::npos) << headers;
    EXPECT_NE(headers.find("\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n"), std::string::npos) << headers;
    EXPECT_EQ(text.substr(blank + 4), "Line one\r\nLine two\r\n");
}

TEST_F(RedemptionStandIn, NonAsciiSubjectIsAnEncodedWordAndNoHeaderBreaks)
{
    MsgContent content = encryptedMail();
    content.subject = L"Gr\u00fc\u00dfe\r\nBcc: evil@example.com";
    ASSERT_EQ(writeMsgFile(folder.file(L"umlaut.msg"), content), S_OK);
    ComPtr<IDispatch> mail = openMail(folder.file(L"umlaut.msg"));
    ASSERT_TRUE(mail);
    ASSERT_EQ(saveAs(mail.Get(), folder.file(L"umlaut.eml"), 1024), S_OK);
    const std::string text = readBytes(folder.file(L"umlaut.eml"));
    const std::string prefix = "\r\nSubject: =?utf-8?B?";
    const size_t start = text.find(prefix);
    ASSERT_NE(start, std::string::npos) << text;
    const size_t end = text.find("?=\r\n", start);
    ASSERT_NE(end, std::string::npos);
    const auto decoded = decodeBase64(text.substr(start + prefix.size(), end - start - prefix.size()));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, "Gr\xC3\xBC\xC3\x9F" "e  Bcc: evil@example.com");
    EXPECT_EQ(text.find("\r\nBcc:"), std::string::npos);
}

TEST_F(RedemptionStandIn, AFileThatIsNoStorageFailsWithTheStorageError)
{
    writeBytes(folder.file(L"text.msg"), "just text, no compound file");
    ComPtr<IStorage> probe;
    const HRESULT storageError =
        StgOpenStorageEx(folder.file(L"text.msg").c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr,
                         nullptr, IID_IStorage, reinterpret_cast<void**>(probe.GetAddressOf()));
    ASSERT_TRUE(FAILED(storageError));
    UniqueVariant text(folder.file(L"text.msg"));
    EXPECT_EQ(failureOf(session.Get(), L"GetMessageFromMsgFile", {text.get()}), storageError);
    UniqueVariant missing(folder.file(L"missing.msg"));
    EXPECT_EQ(failureOf(session.Get(), L"GetMessageFromMsgFile", {missing.get()}), STG_E_FILENOTFOUND);
}

TEST_F(RedemptionStandIn, BrokenMessageInAStorageFailsAsCorrupt)
{
    const std::wstring path = folder.file(L"broken.msg");
    {
        ComPtr<IStorage> storage;
        ASSERT_EQ(StgCreateDocfile(path.c_str(), STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, &storage),
                  S_OK);
        ASSERT_EQ(writeRawPropertiesStream(storage.Get(), 16, "\x01\x02\x03"), S_OK); // shorter than its header
        ASSERT_EQ(storage->Commit(STGC_DEFAULT), S_OK);
    }
    UniqueVariant name(path);
    EXPECT_EQ(failureOf(session.Get(), L"GetMessageFromMsgFile", {name.get()}), standInRedemptionCorruptMessage);
}

TEST_F(RedemptionStandIn, DecryptSwitchMakesDecryptionFail)
{
    ComPtr<IDispatch> mail = openMail(encryptedFile);
    ASSERT_TRUE(mail);
    {
        EnvironmentSwitch failing(standInRedemptionSwitch, standInRedemptionFailDecrypt);
        EXPECT_EQ(failureOf(mail.Get(), L"GetDecryptedMessage", {}), standInRedemptionDecryptError);
    }
    EXPECT_TRUE(decrypt(mail.Get()));
}

TEST_F(RedemptionStandIn, SaveAsSwitchMakesSavingFailAndWritesNothing)
{
    ComPtr<IDispatch> mail = openMail(encryptedFile);
    ASSERT_TRUE(mail);
    ComPtr<IDispatch> decrypted = decrypt(mail.Get());
    ASSERT_TRUE(decrypted);
    EnvironmentSwitch failing(standInRedemptionSwitch, standInRedemptionFailSaveAs);
    UniqueVariant target(folder.file(L"out.msg"));
    UniqueVariant format(standInRedemptionSaveAsMsg);
    EXPECT_EQ(failureOf(decrypted.Get(), L"SaveAs", {target.get(), format.get()}), standInRedemptionSaveAsError);
    EXPECT_FALSE(fileExists(folder.file(L"out.msg")));
}
