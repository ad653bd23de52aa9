// The fake decryption the Redemption and Outlook stand-ins apply to a .msg
// file: a copy whose class no longer says S/MIME, everything else as it was.
#include "e2e_shared/fake_decryption.h"

#include "items/msg_storage.h"
#include "items/property_text.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <wrl/client.h>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

constexpr uint16_t idMessageClass = 0x001A;
constexpr uint16_t idSubject = 0x0037;
constexpr uint16_t idBody = 0x1000;

MsgContent encryptedMail(const std::wstring& messageClass = L"IPM.Note.SMIME")
{
    MsgContent content;
    content.subject = L"Payroll";
    content.messageClass = messageClass;
    content.senderName = L"Anna Berg";
    content.senderAddress = L"anna@example.com";
    content.body = L"Encrypted body stand-in";
    content.recipients = {MsgRecipient{1, L"Bo Lind", L"bo@example.com", L"SMTP", {}},
                          MsgRecipient{2, L"Cy Moor", L"cy@example.com", L"SMTP", {}}};
    return content;
}

// The message read back from a file, with the read's result.
struct ReadBack {
    HRESULT hr = E_FAIL;
    StoredMessage message;
    std::wstring text(uint16_t id) const
    {
        const StoredProperty* property = findStoredProperty(message.properties, id);
        return property ? propertyText(property->tag, property->bytes) : std::wstring();
    }
};

ReadBack readMsgFile(const std::wstring& path)
{
    ReadBack result;
    ComPtr<IStorage> storage;
    result.hr = StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                                 IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf()));
    if (SUCCEEDED(result.hr))
        result.hr = readStoredMessage(storage.Get(), result.message);
    return result;
}

} // namespace

TEST(FakeDecryption, CopyReadsAsAPlainNoteAndKeepsEverythingElse)
{
    ScratchFolder folder;
    const std::wstring encrypted = folder.file(L"a.eml.encrypted.msg");
    const std::wstring decrypted = folder.file(L"a.eml.decrypted.msg");
    ASSERT_EQ(writeMsgFile(encrypted, encryptedMail()), S_OK);

    ASSERT_EQ(writeDecryptedCopy(encrypted, decrypted), S_OK);

    const ReadBack copy = readMsgFile(decrypted);
    ASSERT_EQ(copy.hr, S_OK);
    EXPECT_EQ(copy.text(idMessageClass), L"IPM.Note");
    EXPECT_EQ(copy.text(idSubject), L"Payroll");
    EXPECT_EQ(copy.text(idBody), L"Encrypted body stand-in");
    EXPECT_EQ(copy.message.recipients.size(), 2u);
    // The encrypted original is only read.
    EXPECT_EQ(readMsgFile(encrypted).text(idMessageClass), L"IPM.Note.SMIME");
}

TEST(FakeDecryption, AnySmimeClassBecomesAPlainNote)
{
    ScratchFolder folder;
    const std::wstring signedMail = folder.file(L"signed.msg");
    ASSERT_EQ(writeMsgFile(signedMail, encryptedMail(L"IPM.Note.SMIME.MultipartSigned")), S_OK);
    ASSERT_EQ(writeDecryptedCopy(signedMail, folder.file(L"out.msg")), S_OK);
    EXPECT_EQ(readMsgFile(folder.file(L"out.msg")).text(idMessageClass), L"IPM.Note");
}

TEST(FakeDecryption, NarrowClassIsRewrittenAndReadsCleanly)
{
    ScratchFolder folder;
    MsgContent content = encryptedMail();
    content.unicodeStrings = false;
    ASSERT_EQ(writeMsgFile(folder.file(L"narrow.msg"), content), S_OK);
    ASSERT_EQ(writeDecryptedCopy(folder.file(L"narrow.msg"), folder.file(L"out.msg")), S_OK);
    const ReadBack copy = readMsgFile(folder.file(L"out.msg"));
    // S_OK, not S_FALSE: the size recorded for the class fits its new stream.
    EXPECT_EQ(copy.hr, S_OK);
    EXPECT_EQ(copy.text(idMessageClass), L"IPM.Note");
    EXPECT_EQ(copy.text(idSubject), L"Payroll");
}

TEST(FakeDecryption, AClassWithoutSmimeIsLeftAsItIs)
{
    ScratchFolder folder;
    ASSERT_EQ(writeMsgFile(folder.file(L"plain.msg"), encryptedMail(L"IPM.Note.Custom")), S_OK);
    ASSERT_EQ(writeDecryptedCopy(folder.file(L"plain.msg"), folder.file(L"out.msg")), S_OK);
    EXPECT_EQ(readMsgFile(folder.file(L"out.msg")).text(idMessageClass), L"IPM.Note.Custom");
}

TEST(FakeDecryption, PlainCopyKeepsTheClass)
{
    ScratchFolder folder;
    ASSERT_EQ(writeMsgFile(folder.file(L"enc.msg"), encryptedMail()), S_OK);
    ASSERT_EQ(copyMsgFile(folder.file(L"enc.msg"), folder.file(L"copy.msg")), S_OK);
    const ReadBack copy = readMsgFile(folder.file(L"copy.msg"));
    EXPECT_EQ(copy.text(idMessageClass), L"IPM.Note.SMIME");
    EXPECT_EQ(copy.message.recipients.size(), 2u);
}

TEST(FakeDecryption, SourceThatIsNoCompoundFileFailsAndWritesNothing)
{
    ScratchFolder folder;
    writeBytes(folder.file(L"text.msg"), "From: nobody\r\n\r\nnot a compound file\r\n");
    EXPECT_TRUE(FAILED(writeDecryptedCopy(folder.file(L"text.msg"), folder.file(L"out.msg"))));
    EXPECT_FALSE(fileExists(folder.file(L"out.msg")));

    EXPECT_EQ(writeDecryptedCopy(folder.file(L"missing.msg"), folder.file(L"out.msg")), STG_E_FILENOTFOUND);
    EXPECT_FALSE(fileExists(folder.file(L"out.msg")));
}
