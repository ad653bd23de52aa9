// SetProps and SaveChanges on a message opened through the stand-in
// mapi32.dll: what the add-in's setSecurityFlagDecrypted does must land in
// the storage, where anyone reading the storage again finds it.
#include "items_mapi/standin_mapi.h"

#include "items/msg_layout.h"
#include "items/property_text.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <mapicode.h>
#include <mapitags.h>

#include <cstring>
#include <optional>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

constexpr ULONG tagSecurity = 0x00340003;
constexpr ULONG tagSubjectW = 0x0037001F;
constexpr uint16_t idSecurity = 0x0034;
constexpr uint16_t idSubject = 0x0037;

MsgContent encryptedMail()
{
    MsgContent content;
    content.subject = L"Secret";
    content.messageClass = L"IPM.Note.SMIME";
    content.senderName = L"Anna Berg";
    content.senderAddress = L"anna@example.com";
    content.extraProperties = {longProperty(idSecurity, 3)};
    return content;
}

HRESULT setLong(IMessage* message, ULONG tag, LONG value)
{
    SPropValue property{};
    property.ulPropTag = tag;
    property.Value.l = value;
    return message->SetProps(1, &property, nullptr);
}

std::optional<uint32_t> storedLong(IStorage* storage, uint16_t id)
{
    StoredMessage stored;
    if (FAILED(readStoredMessage(storage, stored)))
        return std::nullopt;
    const StoredProperty* property = findStoredProperty(stored.properties, id);
    if (!property || propertyTypeOf(property->tag) != PropertyType::Long)
        return std::nullopt;
    uint32_t value = 0;
    std::memcpy(&value, property->bytes.data(), 4);
    return value;
}

// Entries of the message's properties stream with this property id.
int entriesWithId(IStorage* storage, uint16_t id)
{
    ComPtr<IStream> stream;
    if (FAILED(storage->OpenStream(MsgLayout::propertiesStream, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0,
                                   &stream)))
        return -1;
    char header[MsgLayout::messageHeaderSize];
    ULONG read = 0;
    stream->Read(header, sizeof header, &read);
    int found = 0;
    char entry[MsgLayout::entrySize];
    while (SUCCEEDED(stream->Read(entry, sizeof entry, &read)) && read == sizeof entry) {
        uint32_t tag = 0;
        std::memcpy(&tag, entry, 4);
        found += propertyIdOf(tag) == id;
    }
    return found;
}

LONG securityThroughMapi(IStorage* storage)
{
    ComPtr<IMessage> message;
    if (FAILED(standInMapi().open(storage, message)))
        return -1;
    TagList tags{tagSecurity};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    if (message->GetProps(tags.get(), 0, &count, values.put()) != S_OK)
        return -1;
    return values[0].Value.l;
}

class MessageChanges : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mapi.complete());
        storage = makeMsgInMemory(encryptedMail());
        ASSERT_TRUE(storage);
        ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
    }

    const StandInMapi& mapi = standInMapi();
    ComPtr<IStorage> storage;
    ComPtr<IMessage> message;
};

} // namespace

TEST_F(MessageChanges, SecurityFlagSavedWithKeepOpenLandsInTheStorage)
{
    ASSERT_EQ(storedLong(storage.Get(), idSecurity), 3u);
    ASSERT_EQ(setLong(message.Get(), tagSecurity, 0), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);

    EXPECT_EQ(storedLong(storage.Get(), idSecurity), 0u);
    EXPECT_EQ(entriesWithId(storage.Get(), idSecurity), 1);
    EXPECT_EQ(securityThroughMapi(storage.Get()), 0);
    // The rest of the message is untouched.
    StoredMessage stored;
    ASSERT_TRUE(SUCCEEDED(readStoredMessage(storage.Get(), stored)));
    const StoredProperty* subject = findStoredProperty(stored.properties, idSubject);
    ASSERT_NE(subject, nullptr);
    EXPECT_EQ(propertyText(subject->tag, subject->bytes), L"Secret");
    // Kept open for writing: a second change is taken too.
    EXPECT_EQ(setLong(message.Get(), tagSecurity, 2), S_OK);
    EXPECT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_EQ(storedLong(storage.Get(), idSecurity), 2u);
}

TEST_F(MessageChanges, UnsavedChangesAreSeenOnlyByTheSameMessage)
{
    ASSERT_EQ(setLong(message.Get(), tagSecurity, 0), S_OK);
    TagList tags{tagSecurity};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), 0, &count, values.put()), S_OK);
    EXPECT_EQ(values[0].Value.l, 0);
    EXPECT_EQ(storedLong(storage.Get(), idSecurity), 3u);
    EXPECT_EQ(securityThroughMapi(storage.Get()), 3);
}

TEST_F(MessageChanges, ANewPropertyIsAdded)
{
    constexpr ULONG tagImportance = 0x00170003;
    ASSERT_EQ(setLong(message.Get(), tagImportance, 2), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_EQ(storedLong(storage.Get(), PROP_ID(tagImportance)), 2u);
    EXPECT_EQ(storedLong(storage.Get(), idSecurity), 3u);
}

TEST_F(MessageChanges, AStringReplacesTheNarrowOneInTheStorage)
{
    MsgContent content = encryptedMail();
    content.unicodeStrings = false;
    storage = makeMsgInMemory(content);
    ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);

    SPropValue subject{};
    subject.ulPropTag = tagSubjectW;
    subject.Value.lpszW = const_cast<LPWSTR>(L"Decrypted \u00e9t\u00e9");
    ASSERT_EQ(message->SetProps(1, &subject, nullptr), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);

    StoredMessage stored;
    ASSERT_EQ(readStoredMessage(storage.Get(), stored), S_OK);
    const StoredProperty* saved = findStoredProperty(stored.properties, idSubject);
    ASSERT_NE(saved, nullptr);
    EXPECT_EQ(saved->tag, tagSubjectW);
    EXPECT_EQ(propertyText(saved->tag, saved->bytes), L"Decrypted \u00e9t\u00e9");
    ComPtr<IStream> oldStream;
    EXPECT_EQ(storage->OpenStream(MsgLayout::substorageStreamName(0x0037001E).c_str(), nullptr,
                                  STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &oldStream),
              STG_E_FILENOTFOUND);
}

TEST_F(MessageChanges, DeletedPropertyIsGoneAfterSaving)
{
    TagList tags{tagSecurity};
    ASSERT_EQ(message->DeleteProps(tags.get(), nullptr), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_EQ(entriesWithId(storage.Get(), idSecurity), 0);
    EXPECT_EQ(securityThroughMapi(storage.Get()), -1);
}

TEST_F(MessageChanges, ValuesThatCannotBeKeptAreReportedAsProblems)
{
    SPropValue values[2] = {};
    values[0].ulPropTag = PROP_TAG(PT_OBJECT, 0x3701);
    values[1].ulPropTag = tagSecurity;
    values[1].Value.l = 0;
    MapiBlock<SPropProblemArray> problems;
    ASSERT_EQ(message->SetProps(2, values, problems.put()), S_OK);
    ASSERT_NE(problems.get(), nullptr);
    ASSERT_EQ(problems->cProblem, 1u);
    EXPECT_EQ(problems->aProblem[0].ulIndex, 0u);
    EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_INVALID_TYPE);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_EQ(storedLong(storage.Get(), idSecurity), 0u);
}

TEST_F(MessageChanges, SavingWithoutKeepOpenEndsWriting)
{
    ASSERT_EQ(setLong(message.Get(), tagSecurity, 0), S_OK);
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_EQ(storedLong(storage.Get(), idSecurity), 0u);
    EXPECT_EQ(setLong(message.Get(), tagSecurity, 1), MAPI_E_NO_ACCESS);
}

TEST(MessageChangesOnFile, ReadOnlyStorageRefusesTheSaveAndStaysAsItWas)
{
    const StandInMapi& mapi = standInMapi();
    ASSERT_TRUE(mapi.complete());
    ScratchFolder folder;
    const std::wstring path = folder.file(L"encrypted.msg");
    ASSERT_EQ(writeMsgFile(path, encryptedMail()), S_OK);
    const std::string before = readBytes(path);
    {
        ComPtr<IStorage> storage;
        ASSERT_EQ(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                                   IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf())),
                  S_OK);
        ComPtr<IMessage> message;
        ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
        // With nothing changed there is nothing to write.
        EXPECT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
        ASSERT_EQ(setLong(message.Get(), tagSecurity, 0), S_OK);
        EXPECT_TRUE(FAILED(message->SaveChanges(KEEP_OPEN_READWRITE)));
    }
    EXPECT_EQ(readBytes(path), before);
}

TEST(MessageChangesOnFile, SavedFlagIsInTheFileAfterCommit)
{
    const StandInMapi& mapi = standInMapi();
    ASSERT_TRUE(mapi.complete());
    ScratchFolder folder;
    const std::wstring path = folder.file(L"mail.msg");
    ASSERT_EQ(writeMsgFile(path, encryptedMail()), S_OK);
    {
        ComPtr<IStorage> storage;
        ASSERT_EQ(StgOpenStorageEx(path.c_str(), STGM_READWRITE | STGM_SHARE_EXCLUSIVE, STGFMT_ANY, 0, nullptr,
                                   nullptr, IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf())),
                  S_OK);
        ComPtr<IMessage> message;
        ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
        ASSERT_EQ(setLong(message.Get(), tagSecurity, 0), S_OK);
        ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    }
    ComPtr<IStorage> reopened;
    ASSERT_EQ(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                               IID_IStorage, reinterpret_cast<void**>(reopened.GetAddressOf())),
              S_OK);
    EXPECT_EQ(storedLong(reopened.Get(), idSecurity), 0u);
}
