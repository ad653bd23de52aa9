// Gathering a mail's .eml content from its property maps: which attachments
// can be written and as what, names and types when the mail lacks them, the
// HTML body's code page, the date and the From address.
#include "items/eml_message.h"

#include "common/strings.h"
#include "items/property_text.h"
#include "e2e_shared/msg_builder.h"

#include <gtest/gtest.h>

namespace {

namespace Id = EmlPropertyId;

void put(StoredProperties& properties, const StoredProperty& property)
{
    properties[propertyIdOf(property.tag)] = property;
}

StoredProperty binaryProperty(uint16_t id, std::string bytes)
{
    return StoredProperty{static_cast<uint32_t>(id) << 16 | PropertyType::Binary, std::move(bytes)};
}

EmlAttachmentSource attachmentRow(uint32_t method, const std::wstring& longName, const std::string* data)
{
    EmlAttachmentSource source;
    StoredProperties& row = source.properties;
    put(row, longProperty(Id::attachMethod, method));
    if (!longName.empty())
        put(row, unicodeProperty(Id::attachLongFileName, longName));
    if (data)
        put(row, binaryProperty(Id::attachDataBin, *data));
    return source;
}

MailProperties someAddresses()
{
    MailProperties addresses;
    addresses.sender = {L"Anna", L"anna@example.org", L"", L"SMTP"};
    addresses.bcc = {{L"Dora", L"dora@example.org", L"", L"SMTP"}};
    return addresses;
}

} // namespace

TEST(EmlMessageCollection, OnlyAttachmentsWithTheirOwnBytesAreWritten)
{
    const std::string bytes = "data";
    const std::string empty;
    std::vector<EmlAttachmentSource> rows = {
        attachmentRow(1, L"by value.pdf", &bytes),
        attachmentRow(4, L"link.lnk", nullptr),      // by reference, without its path
        attachmentRow(5, L"embedded.msg", nullptr),  // an attached message that could not be read
        attachmentRow(1, L"empty.txt", &empty),
        attachmentRow(1, L"unreadable.bin", nullptr), // its bytes were left out by the reader
        attachmentRow(4, L"plan.pdf", nullptr),
        attachmentRow(6, L"Picture", nullptr),
        attachmentRow(5, L"", nullptr),
        attachmentRow(6, L"Kept as bytes", &bytes),
    };
    put(rows[5].properties, unicodeProperty(Id::attachLongPathName, L"\\\\server\\plan.pdf"));
    rows[6].objectBytes = "compound file";
    rows[7].message = std::make_shared<EmlMessageSource>();
    put(rows[7].message->properties, unicodeProperty(Id::subject, L"Inner"));
    put(rows[7].properties, unicodeProperty(Id::displayName, L"Inner"));
    const EmlMessage eml = collectEmlMessage({}, std::move(rows), someAddresses());
    ASSERT_EQ(eml.attachments.size(), 6u);
    EXPECT_EQ(eml.attachments[0].fileName, L"by value.pdf");
    EXPECT_EQ(eml.attachments[0].bytes, "data");
    EXPECT_EQ(eml.attachments[0].mimeType, L"application/pdf");
    EXPECT_EQ(eml.attachments[1].fileName, L"empty.txt");
    EXPECT_EQ(eml.attachments[1].bytes, "");
    EXPECT_EQ(eml.attachments[2].reference, L"\\\\server\\plan.pdf");
    EXPECT_EQ(eml.attachments[3].bytes, "compound file");
    EXPECT_EQ(eml.attachments[3].mimeType, L"application/octet-stream");
    ASSERT_TRUE(eml.attachments[4].message);
    EXPECT_EQ(eml.attachments[4].message->subject, L"Inner");
    EXPECT_EQ(eml.attachments[4].fileName, L"Inner.eml");
    EXPECT_EQ(eml.attachments[5].bytes, "data");
    EXPECT_EQ(eml.attachmentsLeftOut, 3u);
    EXPECT_EQ(eml.bcc.size(), 1u);
}

TEST(EmlMessageCollection, AnAttachmentWithADataStreamKeepsItOpenForTheWriter)
{
    std::vector<EmlAttachmentSource> rows;
    rows.push_back(attachmentRow(1, L"big.bin", nullptr));
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &rows[0].dataStream), S_OK);
    const Microsoft::WRL::ComPtr<IStream> stream = rows[0].dataStream;
    const EmlMessage eml = collectEmlMessage({}, std::move(rows), {});
    ASSERT_EQ(eml.attachments.size(), 1u);
    EXPECT_EQ(eml.attachments[0].dataStream.Get(), stream.Get());
    EXPECT_EQ(eml.attachmentsLeftOut, 0u);
}

TEST(EmlMessageCollection, NamesAndTypesWhenTheAttachmentLacksThem)
{
    const std::string bytes = "x";
    EmlAttachmentSource shortOnly = attachmentRow(1, L"", &bytes);
    put(shortOnly.properties, unicodeProperty(Id::attachFileName, L"REPORT~1.PNG"));
    EmlAttachmentSource nameless = attachmentRow(1, L"", &bytes);
    put(nameless.properties, unicodeProperty(Id::attachExtension, L".csv"));
    EmlAttachmentSource declared = attachmentRow(1, L"a.bin", &bytes);
    put(declared.properties, unicodeProperty(Id::attachMimeTag, L" image/svg+xml "));
    EmlAttachmentSource broken = attachmentRow(1, L"b.unknown", &bytes);
    put(broken.properties, unicodeProperty(Id::attachMimeTag, L"text/plain\r\nX-Evil: 1"));
    const EmlMessage eml = collectEmlMessage({}, {shortOnly, nameless, declared, broken}, someAddresses());
    ASSERT_EQ(eml.attachments.size(), 4u);
    EXPECT_EQ(eml.attachments[0].fileName, L"REPORT~1.PNG");
    EXPECT_EQ(eml.attachments[0].mimeType, L"image/png");
    EXPECT_EQ(eml.attachments[1].fileName, L"attachment2.csv");
    EXPECT_EQ(eml.attachments[1].mimeType, L"text/csv");
    EXPECT_EQ(eml.attachments[2].mimeType, L"image/svg+xml");
    EXPECT_EQ(eml.attachments[3].mimeType, L"application/octet-stream");
}

TEST(EmlMessageCollection, HtmlBodyBecomesUtf8FromItsCodePage)
{
    StoredProperties message;
    put(message, binaryProperty(Id::html, "<p>Gr\xFC\xDF" "e \x80</p>"));
    put(message, longProperty(Id::internetCodepage, 1252));
    EXPECT_EQ(collectEmlMessage(message, {}, {}).htmlUtf8, "<p>Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC</p>");

    // Without a code page: UTF-8 stays as it is, anything else is read as Windows-1252.
    StoredProperties utf8;
    put(utf8, binaryProperty(Id::html, "<p>\xC3\xA4</p>"));
    EXPECT_EQ(collectEmlMessage(utf8, {}, {}).htmlUtf8, "<p>\xC3\xA4</p>");
    StoredProperties latin;
    put(latin, binaryProperty(Id::html, "<p>\xE4</p>"));
    EXPECT_EQ(collectEmlMessage(latin, {}, {}).htmlUtf8, "<p>\xC3\xA4</p>");
    EXPECT_EQ(collectEmlMessage({}, {}, {}).htmlUtf8, "");
}

TEST(EmlMessageCollection, DateIsTheDeliveryElseTheSubmitElseTheCreationTime)
{
    StoredProperties message;
    EXPECT_FALSE(collectEmlMessage(message, {}, {}).date.has_value());
    put(message, timeProperty(0x3007, utcFileTime(2024, 1, 1, 9, 0, 0))); // PR_CREATION_TIME: a draft
    EXPECT_EQ(isoTimeOf(*collectEmlMessage(message, {}, {}).date), L"2024-01-01T09:00:00Z");
    put(message, timeProperty(Id::clientSubmitTime, utcFileTime(2024, 1, 2, 3, 0, 0)));
    EXPECT_EQ(isoTimeOf(*collectEmlMessage(message, {}, {}).date), L"2024-01-02T03:00:00Z");
    put(message, timeProperty(Id::deliveryTime, utcFileTime(2024, 1, 2, 3, 4, 5)));
    EXPECT_EQ(isoTimeOf(*collectEmlMessage(message, {}, {}).date), L"2024-01-02T03:04:05Z");
}

TEST(EmlMessageCollection, FromIsTheRepresentedPersonWhenAnSmtpAddressIsKnown)
{
    StoredProperties exchange;
    put(exchange, unicodeProperty(Id::sentRepresentingName, L"Boss"));
    put(exchange, unicodeProperty(Id::sentRepresentingAddrType, L"EX"));
    put(exchange, unicodeProperty(Id::sentRepresentingEmail, L"/O=CORP/CN=BOSS"));
    // An Exchange entry without its SMTP address: the sender stands in.
    EXPECT_EQ(collectEmlMessage(exchange, {}, someAddresses()).from.mailAddress, L"anna@example.org");
    put(exchange, unicodeProperty(Id::sentRepresentingSmtpAddress, L"boss@corp.example"));
    const EmlMessage eml = collectEmlMessage(exchange, {}, someAddresses());
    EXPECT_EQ(eml.from.name, L"Boss");
    EXPECT_EQ(eml.from.mailAddress, L"boss@corp.example");
    EXPECT_EQ(eml.sender.mailAddress, L"anna@example.org");
}
