// Reading mails straight from their .msg storage where MAPI can't be used:
// what a mail holds comes back as its text, and damaged or hostile storages
// end in a clear result and a log line, never in a crash or an over-read.
#include "item_files.h"

#include "core/log.h"
#include "common/strings.h"
#include "items/msg_layout.h"
#include "items/property_text.h"
#include "support/faulty_storage.h"

#include <functional>

using Microsoft::WRL::ComPtr;

namespace {

constexpr uint32_t tagSubject = 0x0037001F, tagSubject8 = 0x0037001E, tagClass = 0x001A001F, tagBody = 0x1000001F;
constexpr uint32_t tagType = 0x0C150003, tagRowId = 0x30000003, tagData = 0x37010102, tagEntryId = 0x0C190102;

std::wstring recipient(uint32_t number)
{
    return MsgLayout::rowStorageName(MsgLayout::recipientPrefix, number);
}

std::wstring textOf(const StoredProperties& properties, uint16_t id)
{
    const StoredProperty* property = findStoredProperty(properties, id);
    return property ? propertyText(property->tag, property->bytes) : L"<missing>";
}

std::string skip(const std::wstring& where, uint32_t tag, HRESULT hr)
{
    return wideToUtf8(where + L":" + MsgLayout::hex8(tag) + L":" + MsgLayout::hex8(static_cast<uint32_t>(hr))) + " ";
}

std::string skippedOf(const StoredMessage& message)
{
    std::string text;
    for (const SkippedValue& skipped : message.skipped)
        text += skip(skipped.where, skipped.tag, skipped.hr);
    return text;
}

// A message whose properties stream is `entries` behind a zero header, with these value streams.
ComPtr<IStorage> withEntries(const std::string& entries, const std::vector<std::pair<uint32_t, std::string>>& values = {})
{
    ComPtr<IStorage> storage = makeStorageInMemory();
    EXPECT_EQ(writeRawPropertiesStream(storage.Get(), MsgLayout::messageHeaderSize, entries), S_OK);
    for (const auto& [tag, bytes] : values)
        EXPECT_EQ(writeRawSubstorageStream(storage.Get(), tag, bytes), S_OK);
    return storage;
}

} // namespace

TEST_F(ItemFiles, PropertiesComeInEitherStringWidthWithExchangeAddressesAskedOfOutlook)
{
    outlook.addExchangeUser(L"00DCA7", kOlExchangeUserAddressEntry, L"boss@corp.example");
    outlook.addExchangeUser(L"AB", kOlExchangeRemoteUserAddressEntry, L"remote@corp.example");
    outlook.addExchangeUser(L"CD", kOlSmtpAddressEntry, L"contact@corp.example");
    for (const bool unicode : {true, false}) {
        MsgContent mail = sampleMail();
        mail.unicodeStrings = unicode;
        mail.subject = unicode ? L"Gr\u00FC\u00DFe \U0001F600 \U0001D11E" : L"Quarterly numbers";
        mail.senderAddrType = L"EX";
        mail.senderAddress = L"/O=CORP/CN=BOSS";
        mail.senderEntryId = std::string("\x00\xDC\xA7", 3);
        mail.recipients = {{1, L"Remote", L"/O=CORP/CN=REMOTE", L"EX", "\xAB"},
                           {2, L"Contact", L"/O=CORP/CN=CONTACT", L"EX", "\xCD"},
                           {3, L"Gone", L"/O=CORP/CN=GONE", L"EX", "\xEF"},
                           {1, L"Plain", L"plain@example.org", L"SMTP", "\x01\x02"}};
        auto item = mailItem(mail);
        ASSERT_EQ(item->readMessage(), S_OK);
        EXPECT_STREQ(item->readWay(), L"storage");
        const MailProperties& read = item->properties();
        EXPECT_EQ(read.subject, mail.subject);
        EXPECT_EQ(read.receivedAtIso + L" " + read.messageClass, L"2024-03-05T07:08:09Z IPM.Note");
        EXPECT_EQ(read.sender.name + L"|" + read.sender.mailAddress + L"|" + read.sender.entryId,
                  L"Anna Sender|boss@corp.example|00DCA7");
        ASSERT_EQ(read.to.size() * 100 + read.cc.size() * 10 + read.bcc.size(), 211u);
        EXPECT_EQ(read.to[0].mailAddress + L"|" + read.to[1].mailAddress + L"|" + read.to[1].entryId,
                  L"remote@corp.example|plain@example.org|0102");
        EXPECT_EQ(read.cc[0].mailAddress, L"contact@corp.example");
        EXPECT_EQ(read.bcc[0].mailAddress, L"") << "never the X.500 path";
    }
}

TEST(MsgReader, DamagedAndHostileStoragesGiveWhatCanBeReadAndSaySo)
{
    const std::string entry = propertyEntry(tagType, 1);
    std::string tooMany;
    for (size_t i = 0; i <= 0x10000; ++i) // more entries than there are property ids
        tooMany += entry;
    const ComPtr<IStorage> mail = makeMsgInMemory(sampleMail());
    const ComPtr<IStorage> shortHeader = makeStorageInMemory();
    writeRawPropertiesStream(shortHeader.Get(), 0, std::string(20, '\0'));
    const ComPtr<IStorage> held = makeMsgInMemory(sampleMail());
    ComPtr<IStorage> recipientOpen; // a storage opens only once
    held->OpenStorage(recipient(1).c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &recipientOpen);
    const auto faulty = [&mail](auto change) {
        StorageFaults faults;
        change(faults);
        return wrapWithFaults(mail.Get(), faults);
    };
    const auto rows = [](uint32_t lookAlike, const std::vector<uint32_t>& numbers) {
        ComPtr<IStorage> storage = withEntries(propertyEntry(tagClass, 0), {{tagClass, ""}});
        for (uint32_t number : numbers)
            writeRawPropertiesStream(createChildStorage(storage.Get(), recipient(number)).Get(),
                                     MsgLayout::rowHeaderSize, propertyEntry(tagRowId, number));
        writeRawStream(storage.Get(), recipient(lookAlike), "a stream, not a storage");
        createChildStorage(storage.Get(), L"__recip_version1.0_#0000001G");
        return storage;
    };
    const struct {
        const char* name;
        ComPtr<IStorage> source;
        HRESULT hr;
        std::function<void(const StoredMessage&)> check;
        const char* logged;
        StoredReadLimits limits = {};
    } table[] = {
        {"no properties stream", makeStorageInMemory(), STG_E_FILENOTFOUND,
         [](const StoredMessage& m) { EXPECT_TRUE(m.properties.empty()); }, "not a message storage"},
        {"properties stream shorter than its header", shortHeader, STG_E_DOCFILECORRUPT,
         nullptr, "has 20 bytes, not a header of 32"},
        {"bytes after the last whole entry", withEntries(entry + entry.substr(0, 15)), S_OK,
         [](const StoredMessage& m) { EXPECT_EQ(m.properties.size(), 1u); }, "15 bytes after its last whole entry"},
        {"more entries than property ids", withEntries(tooMany), STG_E_DOCFILECORRUPT,
         [](const StoredMessage& m) { EXPECT_TRUE(m.properties.empty()); }, ""},
        {"values shorter than their entries or missing",
         withEntries(propertyEntry(tagSubject, 400) + propertyEntry(tagClass, 18) + propertyEntry(tagBody, 50) +
                         propertyEntry(tagData, 0) + propertyEntry(tagEntryId, 12),
                     {{tagSubject, std::string(10, 'a')}, {tagClass, unicodeProperty(0, L"IPM.Note").bytes},
                      {tagEntryId, std::string(11, 'b')}}),
         S_FALSE,
         [](const StoredMessage& m) {
             EXPECT_EQ(textOf(m.properties, 0x001A), L"IPM.Note");
             EXPECT_EQ(textOf(m.properties, 0x3701), L"") << "an empty binary needs no stream";
             EXPECT_EQ(skippedOf(m), skip(L"", tagSubject, STG_E_DOCFILECORRUPT) + skip(L"", tagBody, STG_E_DOCFILECORRUPT) +
                                       skip(L"", tagEntryId, STG_E_DOCFILECORRUPT));
         },
         "stream __substg1.0_0037001F of message holds 10 bytes, its entry says 400"},
        {"stream longer than its entry", withEntries(propertyEntry(tagData, 16), {{tagData, std::string(1 << 20, 'x')}}),
         S_OK, [](const StoredMessage& m) { EXPECT_EQ(findStoredProperty(m.properties, 0x3701)->bytes, std::string(16, 'x')); },
         ""},
        {"values beyond the size limit",
         withEntries(propertyEntry(tagData, (size_t(64) << 20) + 1) + propertyEntry(tagSubject, 0xFFFFFFF0),
                     {{tagData, "small"}}),
         S_FALSE, [](const StoredMessage& m) {
             EXPECT_EQ(skippedOf(m), skip(L"", tagData, STG_E_DOCFILETOOLARGE) + skip(L"", tagSubject, STG_E_DOCFILETOOLARGE));
         },
         "claims 67108865 bytes, more than the limit of 67108864, left out"},
        {"properties stream failing half way",
         faulty([](StorageFaults& f) { f.onlyStream = MsgLayout::propertiesStream, f.failAfterBytes = 40; }),
         STG_E_READFAULT, nullptr, "reading the properties stream of message failed after 40 bytes"},
        {"value stream failing half way",
         faulty([](StorageFaults& f) { f.onlyStream = L"__substg1.0_0037001F", f.failAfterBytes = 4; }), S_FALSE,
         [](const StoredMessage& m) {
             EXPECT_EQ(textOf(m.properties, 0x0037), L"<missing>");
             EXPECT_EQ(textOf(m.properties, 0x0C1A), L"Anna Sender");
             EXPECT_EQ(m.recipients.size(), 5u);
         },
         ""},
        {"recipient failing half way",
         faulty([](StorageFaults& f) {
             f.onlyInside = recipient(1), f.onlyStream = MsgLayout::propertiesStream, f.failAfterBytes = 8;
         }),
         S_FALSE,
         [](const StoredMessage& m) {
             ASSERT_EQ(m.recipients.size(), 4u);
             EXPECT_EQ(textOf(m.recipients[1], 0x3001), L"Dora Bcc");
             EXPECT_EQ(skippedOf(m), skip(recipient(1), 0, STG_E_READFAULT));
         },
         "recipient __recip_version1.0_#00000001 left out, hr=0x8003001E"},
        {"a recipient held open elsewhere", held, S_FALSE,
         [](const StoredMessage& m) {
             EXPECT_EQ(m.recipients.size(), 4u);
             EXPECT_EQ(skippedOf(m), skip(recipient(1), 0, STG_E_ACCESSDENIED));
         },
         "OpenStorage __recip_version1.0_#00000001 failed"},
        {"sizes that lie and dribbling reads",
         faulty([](StorageFaults& f) { f.statExtraBytes = ULONGLONG(1) << 40, f.maxBytesPerRead = 3; }), S_OK,
         [](const StoredMessage& m) {
             EXPECT_EQ(textOf(m.properties, 0x1000), L"Hello Bob,\nthe figures are attached.\n\nGr\u00FC\u00DFe, Anna");
             EXPECT_EQ(textOf(m.recipients[2], 0x3003), L"dora@example.org");
         },
         ""},
        {"enumeration failing", faulty([](StorageFaults& f) { f.enumFailure = E_ACCESSDENIED; }), E_ACCESSDENIED,
         nullptr, "EnumElements of the message failed, hr=0x80070005"},
        {"rows in the order of their numbers, look-alikes ignored", rows(0, {0x0A, 0x02, 0x1F, 0x01}), S_OK,
         [](const StoredMessage& m) {
             ASSERT_EQ(m.recipients.size(), 4u);
             for (size_t i = 0; i < 4; ++i)
                 EXPECT_EQ(findStoredProperty(m.recipients[i], 0x3000)->bytes[0], "\x01\x02\x0A\x1F"[i]);
         },
         "the message header counts 0 recipients, the storage holds 4"},
        {"rows beyond the limit", rows(9, {0, 1, 2, 3, 4, 5, 6, 7}), S_FALSE,
         [](const StoredMessage& m) {
             ASSERT_EQ(m.recipients.size(), 5u);
             EXPECT_EQ(findStoredProperty(m.recipients[4], 0x3000)->bytes[0], 4);
             EXPECT_EQ(skippedOf(m), skip(recipient(5), 0, STG_E_DOCFILETOOLARGE));
         },
         "the message has 8 recipient storages, only the first 5 are read", {.maxRows = 5}},
        {"fixed, multi-valued and object values; Unicode over 8-bit",
         withEntries(propertyEntry(tagType, 0x1122334455667788ull) + propertyEntry(0x80011003, 8) +
                         propertyEntry(0x8002101F, 8) + propertyEntry(0x3701000D, 0xFFFFFFFF) +
                         propertyEntry(tagSubject8, 2) + propertyEntry(tagSubject, 4),
                     {{0x80011003, std::string("\x01\0\0\0\x02\0\0\0", 8)}, {tagSubject8, "8b"},
                      {tagSubject, std::string("U\0n\0", 4)}}),
         S_OK,
         [](const StoredMessage& m) {
             EXPECT_EQ(findStoredProperty(m.properties, 0x0C15)->bytes, std::string("\x88\x77\x66\x55\x44\x33\x22\x11", 8));
             EXPECT_EQ(findStoredProperty(m.properties, 0x8001)->bytes, std::string("\x01\0\0\0\x02\0\0\0", 8));
             EXPECT_EQ(m.properties.count(0x8002), 0u);
             EXPECT_EQ(findStoredProperty(m.properties, 0x3701)->tag, 0x3701000Du);
             EXPECT_EQ(textOf(m.properties, 0x0037), L"Un");
         },
         ""},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        LogCapture log(LOG_INFO);
        StoredMessage message;
        EXPECT_EQ(readStoredMessage(row.source.Get(), message, row.limits), row.hr) << skippedOf(message);
        EXPECT_EQ(row.hr == S_FALSE, !message.skipped.empty());
        if (row.check)
            row.check(message);
        EXPECT_TRUE(contains(log.contents(), row.logged)) << log.contents();
    }
    StoredMessage message;
    EXPECT_EQ(readStoredMessage(nullptr, message), E_POINTER);
}
