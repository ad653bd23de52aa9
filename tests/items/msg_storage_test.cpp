// Reading mails straight from their .msg compound storage: what the builder
// writes comes back as written, and damaged or hostile storages end in a
// clear result and a log line instead of a crash or an over-read.
#include "items/msg_storage.h"

#include "core/log.h"
#include "items/msg_layout.h"
#include "items/property_text.h"
#include "support/faulty_storage.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <wrl/client.h>

#include <cstring>
#include <iterator>
#include <map>
#include <random>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

namespace Id = MsgPropertyId;

constexpr uint32_t tagOf(uint16_t id, uint16_t type)
{
    return static_cast<uint32_t>(id) << 16 | type;
}

namespace Tag {
constexpr uint32_t messageClass = tagOf(Id::messageClass, PropertyType::Unicode);
constexpr uint32_t subject = tagOf(Id::subject, PropertyType::Unicode);
constexpr uint32_t subject8 = tagOf(Id::subject, PropertyType::String8);
constexpr uint32_t body = tagOf(Id::body, PropertyType::Unicode);
constexpr uint32_t senderEntryId = tagOf(Id::senderEntryId, PropertyType::Binary);
constexpr uint32_t recipientType = tagOf(Id::recipientType, PropertyType::Long);
constexpr uint32_t rowId = tagOf(Id::rowId, PropertyType::Long);
constexpr uint32_t attachDataBin = tagOf(Id::attachDataBin, PropertyType::Binary);
} // namespace Tag

const std::wstring missing = L"<missing>";

// The value as the item list shows it, or "<missing>".
std::wstring textOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    return property ? propertyText(property->tag, property->bytes) : missing;
}

uint32_t longOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    uint32_t value = 0xDEADBEEF;
    if (property && property->bytes.size() >= 4)
        std::memcpy(&value, property->bytes.data(), 4);
    return value;
}

uint16_t typeOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    return property ? propertyTypeOf(property->tag) : 0;
}

std::string bytesOfStream(IStorage* storage, const std::wstring& name)
{
    ComPtr<IStream> stream;
    if (FAILED(storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream)))
        return "<no stream>";
    std::string bytes;
    char buffer[4096];
    ULONG got = 0;
    while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &got)) && got > 0)
        bytes.append(buffer, got);
    return bytes;
}

uint32_t le32At(const std::string& bytes, size_t offset)
{
    uint32_t value = 0;
    if (offset + 4 <= bytes.size())
        std::memcpy(&value, bytes.data() + offset, 4);
    return value;
}

MsgContent ordinaryMail()
{
    MsgContent content;
    content.subject = L"Quarterly numbers";
    content.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    content.submitTime = utcFileTime(2024, 3, 5, 7, 6, 0);
    content.senderName = L"Ann Smith";
    content.senderAddress = L"ann@example.com";
    content.senderAddrType = L"SMTP";
    content.body = L"Hello,\r\nsee the numbers.\r\n";
    content.html = "<html><body><p>Hello</p></body></html>";
    content.internetMessageId = L"<1234@mail.example.com>";
    content.inReplyTo = L"<1200@mail.example.com>";
    content.recipients = {
        {1, L"Bob To", L"bob@example.com", L"SMTP", ""},
        {2, L"Carol Cc", L"carol@example.com", L"SMTP", ""},
        {3, L"Dave Bcc", L"dave@example.com", L"SMTP", ""},
    };
    return content;
}

StoredMessage readOrFail(IStorage* storage, HRESULT expected = S_OK)
{
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(storage, message), expected);
    return message;
}

// A message storage whose properties stream is exactly `entries` after a
// zero header.
ComPtr<IStorage> messageWithEntries(const std::string& entries)
{
    ComPtr<IStorage> storage = makeStorageInMemory();
    EXPECT_TRUE(storage);
    EXPECT_EQ(writeRawPropertiesStream(storage.Get(), MsgLayout::messageHeaderSize, entries), S_OK);
    return storage;
}

std::wstring recipientName(uint32_t number)
{
    return MsgLayout::rowStorageName(MsgLayout::recipientPrefix, number);
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

// --- What the builder writes reads back as written ---

TEST(MsgStorageRoundTrip, MailPropertiesReadBackAsTextIncludingCharactersBeyondTheBasicPlane)
{
    MsgContent content = ordinaryMail();
    content.subject = L"Gr\u00FC\u00DFe \U0001F600 aus K\u00F6ln \U0001D11E";
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const StoredMessage message = readOrFail(storage.Get());
    const StoredProperties& properties = message.properties;
    EXPECT_EQ(textOf(properties, Id::subject), content.subject);
    EXPECT_EQ(typeOf(properties, Id::subject), PropertyType::Unicode);
    EXPECT_EQ(findStoredProperty(properties, Id::subject)->bytes.size(), content.subject.size() * 2);
    EXPECT_EQ(textOf(properties, Id::deliveryTime), L"2024-03-05T07:08:09Z");
    EXPECT_EQ(textOf(properties, Id::clientSubmitTime), L"2024-03-05T07:06:00Z");
    EXPECT_EQ(textOf(properties, Id::senderName), L"Ann Smith");
    EXPECT_EQ(textOf(properties, Id::senderEmail), L"ann@example.com");
    EXPECT_EQ(textOf(properties, Id::senderAddrType), L"SMTP");
    EXPECT_EQ(textOf(properties, Id::messageClass), L"IPM.Note");
    EXPECT_EQ(textOf(properties, Id::body), content.body);
    EXPECT_EQ(findStoredProperty(properties, Id::html)->bytes, content.html);
    EXPECT_EQ(typeOf(properties, Id::html), PropertyType::Binary);
    EXPECT_EQ(textOf(properties, Id::internetMessageId), L"<1234@mail.example.com>");
    EXPECT_EQ(textOf(properties, Id::inReplyTo), L"<1200@mail.example.com>");
    EXPECT_TRUE(message.skipped.empty());
}

TEST(MsgStorageRoundTrip, RecipientsKeepOrderTypeAndAddressIncludingUnusualTypes)
{
    MsgContent content = ordinaryMail();
    content.recipients = {
        {3, L"Dave Bcc", L"dave@example.com", L"SMTP", ""},
        {1, L"Bob To", L"bob@example.com", L"SMTP", std::string("\x00\x01\xFE\xFF", 4)},
        {0x10000000, L"P1 Resend", L"p1@example.com", L"SMTP", ""},
        {2, L"Carol \U0001F600", L"carol@example.com", L"SMTP", ""},
        {0, L"Originator", L"orig@example.com", L"X400", ""},
    };
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const StoredMessage message = readOrFail(storage.Get());
    ASSERT_EQ(message.recipients.size(), content.recipients.size());
    for (size_t i = 0; i < content.recipients.size(); ++i) {
        SCOPED_TRACE(i);
        const StoredProperties& row = message.recipients[i];
        EXPECT_EQ(longOf(row, Id::recipientType), content.recipients[i].type);
        EXPECT_EQ(longOf(row, Id::rowId), i);
        EXPECT_EQ(textOf(row, Id::displayName), content.recipients[i].name);
        EXPECT_EQ(textOf(row, Id::emailAddress), content.recipients[i].address);
        EXPECT_EQ(textOf(row, Id::addrType), content.recipients[i].addrType);
    }
    EXPECT_EQ(textOf(message.recipients[1], Id::entryId), L"0001FEFF");
    EXPECT_EQ(textOf(message.recipients[0], Id::entryId), missing);
}

TEST(MsgStorageRoundTrip, ExchangeSenderKeepsItsEntryIdAndLegacyAddress)
{
    MsgContent content = ordinaryMail();
    content.senderAddrType = L"EX";
    content.senderAddress = L"/O=EXCHANGELABS/OU=EXCHANGE ADMINISTRATIVE GROUP/CN=RECIPIENTS/CN=ANN";
    content.senderEntryId =
        std::string("\x00\x00\x00\x00\xDC\xA7\x40\xC8\xC0\x42\x10\x1A\xB4\xB9\x08\x00\x2B\x2F\xE1\x82", 20);
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const StoredMessage message = readOrFail(storage.Get());
    EXPECT_EQ(textOf(message.properties, Id::senderAddrType), L"EX");
    EXPECT_EQ(textOf(message.properties, Id::senderEmail), content.senderAddress);
    EXPECT_EQ(textOf(message.properties, Id::senderEntryId), L"00000000DCA740C8C042101AB4B908002B2FE182");
    EXPECT_EQ(findStoredProperty(message.properties, Id::senderEntryId)->bytes, content.senderEntryId);
}

TEST(MsgStorageRoundTrip, SmimeMailKeepsItsClassAndItsSignedAttachment)
{
    MsgContent content = ordinaryMail();
    content.messageClass = L"IPM.Note.SMIME";
    std::string pkcs7("\x30\x82\x01\x00\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x07\x03", 15);
    pkcs7 += std::string(300, '\0');
    content.attachments = {{L"smime.p7m", pkcs7, L"application/pkcs7-mime"}};
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const StoredMessage message = readOrFail(storage.Get());
    EXPECT_EQ(textOf(message.properties, Id::messageClass), L"IPM.Note.SMIME");
    ASSERT_EQ(message.attachments.size(), 1u);
    const StoredProperties& attachment = message.attachments[0];
    EXPECT_EQ(textOf(attachment, Id::attachLongFileName), L"smime.p7m");
    EXPECT_EQ(textOf(attachment, Id::attachFileName), L"smime.p7m");
    EXPECT_EQ(textOf(attachment, Id::attachMimeTag), L"application/pkcs7-mime");
    EXPECT_EQ(longOf(attachment, Id::attachMethod), 1u);
    EXPECT_EQ(longOf(attachment, Id::attachSize), pkcs7.size());
    EXPECT_EQ(findStoredProperty(attachment, Id::attachDataBin)->bytes, pkcs7);
}

TEST(MsgStorageRoundTrip, MissingPropertiesAreAbsentAndAnEmptySubjectIsPresent)
{
    MsgContent bare;
    bare.messageClass.clear();
    const ComPtr<IStorage> storage = makeMsgInMemory(bare);
    ASSERT_TRUE(storage);
    StoredMessage message = readOrFail(storage.Get());
    for (uint16_t id : {Id::subject, Id::deliveryTime, Id::senderName, Id::senderEmail, Id::senderAddrType,
                        Id::senderEntryId, Id::messageClass, Id::body, Id::html})
        EXPECT_EQ(findStoredProperty(message.properties, id), nullptr) << std::hex << id;
    EXPECT_TRUE(message.recipients.empty());
    EXPECT_TRUE(message.attachments.empty());

    MsgContent emptySubject;
    emptySubject.extraProperties = {unicodeProperty(Id::subject, L"")};
    message = readOrFail(makeMsgInMemory(emptySubject).Get());
    ASSERT_NE(findStoredProperty(message.properties, Id::subject), nullptr);
    EXPECT_EQ(textOf(message.properties, Id::subject), L"");
}

TEST(MsgStorageRoundTrip, String8PropertiesReadAsText)
{
    MsgContent content = ordinaryMail();
    content.unicodeStrings = false;
    content.attachments = {{L"report.txt", "numbers", L"text/plain"}};
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const StoredMessage message = readOrFail(storage.Get());
    EXPECT_EQ(typeOf(message.properties, Id::subject), PropertyType::String8);
    EXPECT_EQ(findStoredProperty(message.properties, Id::subject)->tag, Tag::subject8);
    EXPECT_EQ(textOf(message.properties, Id::subject), L"Quarterly numbers");
    EXPECT_EQ(textOf(message.properties, Id::senderEmail), L"ann@example.com");
    EXPECT_EQ(textOf(message.properties, Id::body), content.body);
    ASSERT_EQ(message.recipients.size(), 3u);
    EXPECT_EQ(typeOf(message.recipients[2], Id::displayName), PropertyType::String8);
    EXPECT_EQ(textOf(message.recipients[2], Id::displayName), L"Dave Bcc");
    EXPECT_EQ(textOf(message.attachments[0], Id::attachLongFileName), L"report.txt");
    // A string stream that still carries its terminator reads the same.
    EXPECT_EQ(findStoredProperty(message.properties, Id::subject)->bytes, "Quarterly numbers");
}

TEST(MsgStorageRoundTrip, FileReopenedWithStgOpenStorageExReadsLikeTheStorageInMemory)
{
    ScratchFolder folder;
    const std::wstring path = folder.file(L"mail.msg");
    MsgContent content = ordinaryMail();
    content.attachments = {{L"a.txt", "alpha", L"text/plain"}, {L"b.txt", "beta", L"text/plain"}};
    ASSERT_EQ(writeMsgFile(path, content), S_OK);
    EXPECT_EQ(readBytes(path).substr(0, 8), std::string("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8));

    ComPtr<IStorage> file;
    ASSERT_EQ(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                               IID_IStorage, reinterpret_cast<void**>(file.GetAddressOf())),
              S_OK);
    const StoredMessage fromFile = readOrFail(file.Get());
    const StoredMessage fromMemory = readOrFail(makeMsgInMemory(content).Get());
    EXPECT_EQ(textOf(fromFile.properties, Id::subject), L"Quarterly numbers");
    EXPECT_EQ(textOf(fromFile.properties, Id::deliveryTime), L"2024-03-05T07:08:09Z");
    ASSERT_EQ(fromFile.recipients.size(), fromMemory.recipients.size());
    ASSERT_EQ(fromFile.attachments.size(), 2u);
    EXPECT_EQ(findStoredProperty(fromFile.attachments[1], Id::attachDataBin)->bytes, "beta");
    ASSERT_EQ(fromFile.properties.size(), fromMemory.properties.size());
    for (const auto& [id, property] : fromMemory.properties) {
        const StoredProperty* same = findStoredProperty(fromFile.properties, id);
        ASSERT_NE(same, nullptr) << std::hex << id;
        EXPECT_EQ(same->tag, property.tag);
        EXPECT_EQ(same->bytes, property.bytes);
    }
}

TEST(MsgStorageRoundTrip, AttachmentOfTensOfMegabytesComesBackWhole)
{
    std::string data(size_t(20) << 20, '\0');
    uint32_t state = 12345;
    for (char& byte : data) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 24);
    }
    MsgContent content = ordinaryMail();
    content.attachments = {{L"large.bin", data, L"application/octet-stream"}};
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const StoredMessage message = readOrFail(storage.Get());
    ASSERT_EQ(message.attachments.size(), 1u);
    const StoredProperty* bytes = findStoredProperty(message.attachments[0], Id::attachDataBin);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(bytes->bytes.size(), data.size());
    EXPECT_TRUE(bytes->bytes == data);
}

TEST(MsgStorageRoundTrip, ExtraPropertyReplacesTheOrdinaryOneOfItsId)
{
    MsgContent content = ordinaryMail();
    content.extraProperties = {string8Property(Id::subject, "Plain subject"),
                               longProperty(0x0E17, 7)}; // PR_MESSAGE_STATUS
    const StoredMessage message = readOrFail(makeMsgInMemory(content).Get());
    EXPECT_EQ(findStoredProperty(message.properties, Id::subject)->tag, Tag::subject8);
    EXPECT_EQ(textOf(message.properties, Id::subject), L"Plain subject");
    EXPECT_EQ(longOf(message.properties, 0x0E17), 7u);
}

// --- The builder's layout is the documented one ---

TEST(MsgBuilderLayout, HeaderCountsEntriesAndStreamsAreWhereOutlookPutsThem)
{
    MsgContent content = ordinaryMail();
    content.attachments = {{L"a very long file name.docx", "doc", L""}};
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    const std::string properties = bytesOfStream(storage.Get(), MsgLayout::propertiesStream);
    ASSERT_GE(properties.size(), MsgLayout::messageHeaderSize);
    EXPECT_EQ((properties.size() - MsgLayout::messageHeaderSize) % MsgLayout::entrySize, 0u);
    EXPECT_EQ(le32At(properties, MsgLayout::nextRecipientIdOffset), 3u);
    EXPECT_EQ(le32At(properties, MsgLayout::nextAttachmentIdOffset), 1u);
    EXPECT_EQ(le32At(properties, MsgLayout::recipientCountOffset), 3u);
    EXPECT_EQ(le32At(properties, MsgLayout::attachmentCountOffset), 1u);

    // A Unicode string's entry counts its terminator; its stream doesn't hold it.
    bool subjectSeen = false;
    for (size_t at = MsgLayout::messageHeaderSize; at < properties.size(); at += MsgLayout::entrySize) {
        if (le32At(properties, at) != Tag::subject)
            continue;
        subjectSeen = true;
        EXPECT_EQ(le32At(properties, at + 8), content.subject.size() * 2 + 2);
    }
    EXPECT_TRUE(subjectSeen);
    EXPECT_EQ(bytesOfStream(storage.Get(), L"__substg1.0_0037001F").size(), content.subject.size() * 2);

    {
        ComPtr<IStorage> nameIds;
        ASSERT_EQ(storage->OpenStorage(MsgLayout::nameIdStorage, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                       &nameIds),
                  S_OK);
        for (const wchar_t* name : {L"__substg1.0_00020102", L"__substg1.0_00030102", L"__substg1.0_00040102"})
            EXPECT_EQ(bytesOfStream(nameIds.Get(), name), "") << name;

        ComPtr<IStorage> recipient;
        ASSERT_EQ(storage->OpenStorage(L"__recip_version1.0_#00000002", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE,
                                       nullptr, 0, &recipient),
                  S_OK);
        const std::string rowProperties = bytesOfStream(recipient.Get(), MsgLayout::propertiesStream);
        EXPECT_EQ((rowProperties.size() - MsgLayout::rowHeaderSize) % MsgLayout::entrySize, 0u);
    } // closed again before reading: an element can be open only once

    const StoredMessage message = readOrFail(storage.Get());
    EXPECT_EQ(textOf(message.attachments[0], Id::attachFileName), L"a very~1.doc");
    EXPECT_EQ(findStoredProperty(message.attachments[0], Id::attachMimeTag), nullptr);
}

// --- Finding the rows ---

TEST(MsgStorageRows, RowsComeInTheOrderOfTheirHexNumbersAndOtherElementsAreIgnored)
{
    LogCapture log(LOG_DEBUG);
    const ComPtr<IStorage> storage = messageWithEntries(propertyEntry(Tag::messageClass, 0));
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::messageClass, ""), S_OK);
    for (uint32_t number : {0x0Au, 0x02u, 0x1Fu, 0x01u}) {
        const ComPtr<IStorage> row = createChildStorage(storage.Get(), recipientName(number));
        ASSERT_EQ(writeRawPropertiesStream(row.Get(), MsgLayout::rowHeaderSize, propertyEntry(Tag::rowId, number)),
                  S_OK);
    }
    // Look-alikes that are not recipient storages.
    ASSERT_EQ(writeRawStream(storage.Get(), recipientName(0), "a stream, not a storage"), S_OK);
    ASSERT_TRUE(createChildStorage(storage.Get(), L"__recip_version1.0_#0000001G"));
    ASSERT_TRUE(createChildStorage(storage.Get(), L"__recip_version1.0_#000000001"));

    const StoredMessage message = readOrFail(storage.Get());
    ASSERT_EQ(message.recipients.size(), 4u);
    EXPECT_EQ(longOf(message.recipients[0], Id::rowId), 0x01u);
    EXPECT_EQ(longOf(message.recipients[1], Id::rowId), 0x02u);
    EXPECT_EQ(longOf(message.recipients[2], Id::rowId), 0x0Au);
    EXPECT_EQ(longOf(message.recipients[3], Id::rowId), 0x1Fu);
    EXPECT_EQ(textOf(message.properties, Id::messageClass), L"");
    // The header says there are none; the storages count, the mismatch is noted.
    EXPECT_TRUE(contains(log.contents(), "the message header counts 0 recipients, the storage holds 4"));
}

TEST(MsgStorageRows, RowLimitKeepsTheLowestNumbers)
{
    LogCapture log(LOG_INFO);
    MsgContent content = ordinaryMail();
    content.recipients.clear();
    for (ULONG i = 0; i < 8; ++i)
        content.recipients.push_back(
            {1, L"R" + std::to_wstring(i), L"r" + std::to_wstring(i) + L"@x.org", L"SMTP", ""});
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ASSERT_TRUE(storage);

    StoredReadLimits limits;
    limits.maxRows = 5;
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(storage.Get(), message, limits), S_FALSE);
    ASSERT_EQ(message.recipients.size(), 5u);
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(textOf(message.recipients[i], Id::displayName), L"R" + std::to_wstring(i));
    ASSERT_EQ(message.skipped.size(), 1u);
    EXPECT_EQ(message.skipped[0].where, recipientName(5));
    EXPECT_EQ(message.skipped[0].tag, 0u);
    EXPECT_EQ(message.skipped[0].hr, STG_E_DOCFILETOOLARGE);
    EXPECT_TRUE(contains(log.contents(), "the message has 8 recipient storages, only the first 5 are read"));
}

TEST(MsgStorageRows, RowThatCannotBeOpenedIsLeftOutWithItsError)
{
    LogCapture log(LOG_INFO);
    const ComPtr<IStorage> storage = makeMsgInMemory(ordinaryMail());
    ASSERT_TRUE(storage);
    // Someone else holds the Cc row open; storages open only once.
    ComPtr<IStorage> held;
    ASSERT_EQ(
        storage->OpenStorage(recipientName(1).c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &held),
        S_OK);

    const StoredMessage message = readOrFail(storage.Get(), S_FALSE);
    ASSERT_EQ(message.recipients.size(), 2u);
    EXPECT_EQ(longOf(message.recipients[0], Id::recipientType), 1u);
    EXPECT_EQ(longOf(message.recipients[1], Id::recipientType), 3u);
    ASSERT_EQ(message.skipped.size(), 1u);
    EXPECT_EQ(message.skipped[0].where, recipientName(1));
    EXPECT_TRUE(FAILED(message.skipped[0].hr));
    EXPECT_TRUE(contains(log.contents(), "OpenStorage __recip_version1.0_#00000001 failed"));
}

// --- Hostile and damaged storages ---

TEST(MsgStorageHostile, StorageWithoutPropertiesStreamIsNotAMessage)
{
    LogCapture log(LOG_INFO);
    const ComPtr<IStorage> storage = makeStorageInMemory();
    ASSERT_TRUE(createChildStorage(storage.Get(), recipientName(0)));
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(storage.Get(), message), STG_E_FILENOTFOUND);
    EXPECT_TRUE(message.recipients.empty());
    const std::string text = log.contents();
    EXPECT_TRUE(contains(text, "WARN MailItem:"));
    EXPECT_TRUE(contains(text, "no properties stream in message"));
    EXPECT_TRUE(contains(text, "not a message storage"));

    EXPECT_EQ(readStoredMessage(nullptr, message), E_POINTER);
}

TEST(MsgStorageHostile, PropertiesStreamShorterThanItsHeaderIsCorruptBytesAfterTheLastEntryAreIgnored)
{
    LogCapture log(LOG_INFO);
    const std::string entry = propertyEntry(Tag::recipientType, 1);
    const struct {
        std::string bytes;
        HRESULT hr;
        size_t properties;
    } rows[] = {
        {std::string(20, '\0'), STG_E_DOCFILECORRUPT, 0},
        {std::string(32 + 5, '\0'), S_OK, 0},
        {std::string(32, '\0') + entry + "xyz", S_OK, 1},
        {std::string(32, '\0') + entry + entry.substr(0, 15), S_OK, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes.size());
        const ComPtr<IStorage> storage = makeStorageInMemory();
        ASSERT_EQ(writeRawPropertiesStream(storage.Get(), 0, row.bytes), S_OK);
        StoredMessage message;
        EXPECT_EQ(readStoredMessage(storage.Get(), message), row.hr);
        EXPECT_EQ(message.properties.size(), row.properties);
    }
    EXPECT_TRUE(contains(log.contents(), "properties stream of message has 20 bytes, not a header of 32"));
    EXPECT_TRUE(contains(log.contents(), "properties stream of message has 15 bytes after its last whole entry"));
}

TEST(MsgStorageHostile, OverlongPropertiesStreamIsRefusedWithoutParsing)
{
    // More entries than there are property ids.
    const size_t entries = 0x10000 + 1;
    std::string bytes;
    bytes.reserve(entries * MsgLayout::entrySize);
    for (size_t i = 0; i < entries; ++i)
        bytes += propertyEntry(Tag::recipientType, i);
    const ComPtr<IStorage> storage = messageWithEntries(bytes);
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(storage.Get(), message), STG_E_DOCFILECORRUPT);
    EXPECT_TRUE(message.properties.empty());
}

TEST(MsgStorageHostile, ValueShorterThanItsEntryOrMissingIsLeftOutAndTheRestRead)
{
    LogCapture log(LOG_INFO);
    const std::wstring className = L"IPM.Note";
    const ComPtr<IStorage> storage = messageWithEntries(
        propertyEntry(Tag::subject, 400) + propertyEntry(Tag::messageClass, className.size() * 2 + 2) +
        propertyEntry(Tag::body, 50) + propertyEntry(Tag::attachDataBin, 0) + propertyEntry(Tag::senderEntryId, 12));
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::subject, std::string(10, 'a')), S_OK);
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::messageClass, unicodeProperty(0, className).bytes), S_OK);
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::senderEntryId, std::string(11, 'b')), S_OK);
    // The body's stream is missing; so is that of the empty binary, which is no loss.

    const StoredMessage message = readOrFail(storage.Get(), S_FALSE);
    EXPECT_EQ(textOf(message.properties, Id::messageClass), L"IPM.Note");
    EXPECT_EQ(findStoredProperty(message.properties, Id::subject), nullptr);
    EXPECT_EQ(findStoredProperty(message.properties, Id::body), nullptr);
    EXPECT_EQ(findStoredProperty(message.properties, Id::senderEntryId), nullptr);
    ASSERT_NE(findStoredProperty(message.properties, Id::attachDataBin), nullptr);
    EXPECT_EQ(findStoredProperty(message.properties, Id::attachDataBin)->bytes, "");
    ASSERT_EQ(message.skipped.size(), 3u);
    EXPECT_EQ(message.skipped[0].tag, Tag::subject);
    EXPECT_EQ(message.skipped[1].tag, Tag::body);
    EXPECT_EQ(message.skipped[2].tag, Tag::senderEntryId);
    for (const SkippedValue& skipped : message.skipped) {
        EXPECT_EQ(skipped.where, L"");
        EXPECT_EQ(skipped.hr, STG_E_DOCFILECORRUPT);
    }
    const std::string text = log.contents();
    EXPECT_TRUE(contains(text, "stream __substg1.0_0037001F of message holds 10 bytes, its entry says 400"));
    EXPECT_TRUE(contains(text, "stream __substg1.0_1000001F of message can't be opened"));
}

TEST(MsgStorageHostile, StreamLongerThanItsEntryIsReadOnlyAsFarAsTheEntrySays)
{
    const ComPtr<IStorage> storage = messageWithEntries(propertyEntry(Tag::attachDataBin, 16));
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::attachDataBin, std::string(size_t(3) << 20, 'x')), S_OK);
    const StoredMessage message = readOrFail(storage.Get());
    EXPECT_EQ(findStoredProperty(message.properties, Id::attachDataBin)->bytes, std::string(16, 'x'));
}

TEST(MsgStorageHostile, ValueBeyondTheSizeLimitIsLeftOutWithoutBeingRead)
{
    LogCapture log(LOG_INFO);
    // The default limit: the entry claims just over 64 MiB, nothing that big is read.
    ComPtr<IStorage> storage = messageWithEntries(propertyEntry(Tag::attachDataBin, (size_t(64) << 20) + 1) +
                                                  propertyEntry(Tag::subject, 0xFFFFFFF0));
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::attachDataBin, "small"), S_OK);
    StoredMessage message = readOrFail(storage.Get(), S_FALSE);
    ASSERT_EQ(message.skipped.size(), 2u);
    EXPECT_EQ(message.skipped[0].hr, STG_E_DOCFILETOOLARGE);
    EXPECT_EQ(message.skipped[1].hr, STG_E_DOCFILETOOLARGE);
    EXPECT_TRUE(message.properties.empty());
    EXPECT_TRUE(contains(log.contents(), "claims 67108865 bytes, more than the limit of 67108864, left out"));

    // A real stream above a lower limit.
    storage = messageWithEntries(propertyEntry(Tag::attachDataBin, size_t(2) << 20));
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::attachDataBin, std::string(size_t(2) << 20, 'y')), S_OK);
    StoredReadLimits limits;
    limits.maxValueBytes = size_t(1) << 20;
    EXPECT_EQ(readStoredMessage(storage.Get(), message, limits), S_FALSE);
    EXPECT_EQ(findStoredProperty(message.properties, Id::attachDataBin), nullptr);
    EXPECT_EQ(readStoredMessage(storage.Get(), message), S_OK);
    EXPECT_EQ(findStoredProperty(message.properties, Id::attachDataBin)->bytes.size(), size_t(2) << 20);
}

TEST(MsgStorageHostile, StreamFailingHalfWayEndsWithItsErrorAtTheRightLevel)
{
    LogCapture log(LOG_INFO);
    const ComPtr<IStorage> real = makeMsgInMemory(ordinaryMail());
    ASSERT_TRUE(real);

    // The message's own properties stream: nothing can be read.
    StorageFaults faults;
    faults.onlyStream = MsgLayout::propertiesStream;
    faults.failAfterBytes = 40;
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(wrapWithFaults(real.Get(), faults).Get(), message), STG_E_READFAULT);
    EXPECT_TRUE(contains(log.contents(), "reading the properties stream of message failed after 40 bytes"));

    // One value's stream: that value is left out.
    faults.onlyStream = L"__substg1.0_0037001F";
    faults.failAfterBytes = 4;
    EXPECT_EQ(readStoredMessage(wrapWithFaults(real.Get(), faults).Get(), message), S_FALSE);
    EXPECT_EQ(findStoredProperty(message.properties, Id::subject), nullptr);
    EXPECT_EQ(textOf(message.properties, Id::senderName), L"Ann Smith");
    ASSERT_EQ(message.skipped.size(), 1u);
    EXPECT_EQ(message.skipped[0].tag, Tag::subject);
    EXPECT_EQ(message.skipped[0].hr, STG_E_READFAULT);
    EXPECT_EQ(message.recipients.size(), 3u);

    // One recipient's properties stream: that recipient is left out.
    faults.onlyInside = recipientName(1);
    faults.onlyStream = MsgLayout::propertiesStream;
    faults.failAfterBytes = 8;
    EXPECT_EQ(readStoredMessage(wrapWithFaults(real.Get(), faults).Get(), message), S_FALSE);
    ASSERT_EQ(message.recipients.size(), 2u);
    EXPECT_EQ(textOf(message.recipients[0], Id::displayName), L"Bob To");
    EXPECT_EQ(textOf(message.recipients[1], Id::displayName), L"Dave Bcc");
    EXPECT_EQ(textOf(message.properties, Id::subject), L"Quarterly numbers");
    ASSERT_EQ(message.skipped.size(), 1u);
    EXPECT_EQ(message.skipped[0].where, recipientName(1));
    EXPECT_EQ(message.skipped[0].hr, STG_E_READFAULT);
    EXPECT_TRUE(contains(log.contents(), "recipient __recip_version1.0_#00000001 left out, hr=0x8003001E"));
}

TEST(MsgStorageHostile, LyingStatAndDribblingReadsStillGiveExactValues)
{
    MsgContent content = ordinaryMail();
    content.attachments = {{L"a.bin", std::string(5000, 'q'), L""}};
    const ComPtr<IStorage> real = makeMsgInMemory(content);
    ASSERT_TRUE(real);
    StorageFaults faults;
    faults.statExtraBytes = ULONGLONG(1) << 40;
    faults.maxBytesPerRead = 3;
    const StoredMessage message = readOrFail(wrapWithFaults(real.Get(), faults).Get());
    EXPECT_EQ(textOf(message.properties, Id::subject), L"Quarterly numbers");
    EXPECT_EQ(textOf(message.properties, Id::body), content.body);
    ASSERT_EQ(message.recipients.size(), 3u);
    EXPECT_EQ(textOf(message.recipients[2], Id::emailAddress), L"dave@example.com");
    EXPECT_EQ(findStoredProperty(message.attachments[0], Id::attachDataBin)->bytes, std::string(5000, 'q'));
}

TEST(MsgStorageHostile, FailingEnumerationIsReported)
{
    LogCapture log(LOG_INFO);
    StorageFaults faults;
    faults.enumFailure = E_ACCESSDENIED;
    const ComPtr<IStorage> real = makeMsgInMemory(ordinaryMail());
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(wrapWithFaults(real.Get(), faults).Get(), message), E_ACCESSDENIED);
    EXPECT_TRUE(contains(log.contents(), "EnumElements of the message failed, hr=0x80070005"));
}

TEST(MsgStorageHostile, TenThousandRecipientStoragesAreBoundedByTheRowLimit)
{
    LogCapture log(LOG_ERROR); // thousands of broken rows: only the count matters here
    const ComPtr<IStorage> storage = messageWithEntries("");
    ASSERT_TRUE(storage);
    // Empty storages keep Wine's write time down; each is a broken row.
    for (uint32_t number : balancedCreationOrder(10000))
        ASSERT_TRUE(createChildStorage(storage.Get(), recipientName(number))) << number;

    StoredMessage message;
    EXPECT_EQ(readStoredMessage(storage.Get(), message), S_FALSE);
    EXPECT_TRUE(message.recipients.empty());
    const size_t limit = StoredReadLimits{}.maxRows;
    ASSERT_EQ(message.skipped.size(), limit + 1);
    EXPECT_EQ(message.skipped[0].where, recipientName(static_cast<uint32_t>(limit)));
    EXPECT_EQ(message.skipped[0].hr, STG_E_DOCFILETOOLARGE);
    EXPECT_EQ(message.skipped[1].where, recipientName(0));
    EXPECT_EQ(message.skipped[1].hr, STG_E_FILENOTFOUND);
    EXPECT_EQ(message.skipped.back().where, recipientName(static_cast<uint32_t>(limit - 1)));
}

TEST(MsgStorageHostile, ValueKindsObjectsDuplicatesAndMultiValues)
{
    const uint32_t mvLong = 0x80011003;
    const uint32_t mvUnicode = 0x8002101F;
    const uint32_t object = tagOf(Id::attachDataBin, MsgLayout::typeObject); // an embedded message
    const ComPtr<IStorage> storage =
        messageWithEntries(propertyEntry(Tag::recipientType, 0x1122334455667788ull) +
                           propertyEntry(tagOf(Id::recipientType, PropertyType::Binary), 4) + propertyEntry(mvLong, 8) +
                           propertyEntry(mvUnicode, 8) + propertyEntry(object, 0xFFFFFFFF) +
                           propertyEntry(Tag::subject8, 2) + propertyEntry(Tag::subject, 4));
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), mvLong, std::string("\x01\x00\x00\x00\x02\x00\x00\x00", 8)),
              S_OK);
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::subject8, "8b"), S_OK);
    ASSERT_EQ(writeRawSubstorageStream(storage.Get(), Tag::subject, std::string("U\0n\0", 4)), S_OK);

    const StoredMessage message = readOrFail(storage.Get());
    // Fixed-size values keep all 8 bytes; the first entry of an id counts.
    const StoredProperty* fixed = findStoredProperty(message.properties, Id::recipientType);
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(fixed->tag, Tag::recipientType);
    EXPECT_EQ(fixed->bytes, std::string("\x88\x77\x66\x55\x44\x33\x22\x11", 8));
    EXPECT_EQ(findStoredProperty(message.properties, 0x8001)->bytes,
              std::string("\x01\x00\x00\x00\x02\x00\x00\x00", 8));
    EXPECT_EQ(findStoredProperty(message.properties, 0x8002), nullptr);
    ASSERT_NE(findStoredProperty(message.properties, Id::attachDataBin), nullptr);
    EXPECT_EQ(findStoredProperty(message.properties, Id::attachDataBin)->tag, object);
    EXPECT_EQ(findStoredProperty(message.properties, Id::attachDataBin)->bytes, "");
    // A string's Unicode form wins over its 8-bit form, whichever comes first.
    EXPECT_EQ(textOf(message.properties, Id::subject), L"Un");
}

TEST(MsgStorageHostile, RandomPropertiesStreamsNeverYieldMoreThanTheirEntriesSay)
{
    std::mt19937 random(20240305);
    const uint16_t types[] = {0x001F, 0x001E, 0x0102, 0x0048, 0x0003, 0x0040, 0x000D, 0x101F, 0x1003, 0x0000, 0x7777};
    const uint32_t sizes[] = {0, 1, 2, 3, 7, 16, 100, 255, 0x7FFFFFFF, 0xFFFFFFFF};
    std::map<HRESULT, int> outcomes;
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        const ComPtr<IStorage> storage = makeStorageInMemory();
        ASSERT_TRUE(storage);
        std::map<uint32_t, uint32_t> claimed; // tag → size in its first entry
        std::string entries;
        const int count = static_cast<int>(random() % 12);
        for (int i = 0; i < count; ++i) {
            const uint32_t tag = (0x8000u + random() % 6) << 16 | types[random() % std::size(types)];
            const uint32_t size = random() % 2 ? sizes[random() % std::size(sizes)] : random();
            claimed.emplace(tag, size);
            entries += propertyEntry(tag, size, random());
            if (random() % 3) {
                std::string bytes(random() % 300, '\0');
                for (char& byte : bytes)
                    byte = static_cast<char>(random());
                writeRawSubstorageStream(storage.Get(), tag, bytes);
            }
        }
        if (random() % 5 == 0)
            entries += std::string(random() % 16, 'z');
        const size_t headerSize = random() % 8 ? MsgLayout::messageHeaderSize : random() % 40;
        ASSERT_EQ(writeRawPropertiesStream(storage.Get(), headerSize, entries), S_OK);

        StoredMessage message;
        const HRESULT hr = readStoredMessage(storage.Get(), message);
        EXPECT_TRUE(hr == S_OK || hr == S_FALSE || hr == STG_E_DOCFILECORRUPT) << std::hex << hr;
        EXPECT_EQ(hr == S_FALSE, !message.skipped.empty());
        for (const SkippedValue& skipped : message.skipped)
            EXPECT_TRUE(FAILED(skipped.hr));
        ++outcomes[hr];
        if (headerSize != MsgLayout::messageHeaderSize)
            continue; // entries shifted against their header: only safety counts
        for (const auto& [id, property] : message.properties) {
            ASSERT_TRUE(claimed.count(property.tag));
            const uint16_t type = propertyTypeOf(property.tag);
            if (MsgLayout::valueKindOf(type) == MsgLayout::ValueKind::Streamed) {
                EXPECT_LE(property.bytes.size(), claimed[property.tag]);
            } else if (MsgLayout::valueKindOf(type) == MsgLayout::ValueKind::Fixed) {
                EXPECT_EQ(property.bytes.size(), 8u);
            }
        }
    }
    // The rounds reached every kind of outcome.
    EXPECT_GT(outcomes[S_OK], 0);
    EXPECT_GT(outcomes[S_FALSE], 0);
    EXPECT_GT(outcomes[STG_E_DOCFILECORRUPT], 0);
}
