// The recipient table of a message opened through the stand-in mapi32.dll:
// the rows the add-in reads with GetRowCount and QueryRows, handed out so that
// FreeProws frees them.
#include "items_mapi/standin_mapi.h"

#include "e2e_shared/msg_builder.h"

#include <mapicode.h>
#include <mapitags.h>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

constexpr ULONG tagRowId = 0x30000003;
constexpr ULONG tagRecipientType = 0x0C150003;
constexpr ULONG tagEntryId = 0x0FFF0102;
constexpr ULONG tagDisplayNameW = 0x3001001F;
constexpr ULONG tagAddrTypeW = 0x3002001F;
constexpr ULONG tagEmailAddressW = 0x3003001F;

MsgContent mailToThree()
{
    MsgContent content;
    content.subject = L"Three recipients";
    content.recipients = {
        MsgRecipient{1, L"Bo Lind", L"bo@example.com", L"SMTP", std::string("\x10\x11", 2)},
        MsgRecipient{2, L"Cy Moor", L"cy@example.com", L"SMTP", std::string("\x20", 1)},
        MsgRecipient{3, L"Di Ek", L"/o=Example/cn=di", L"EX", std::string("\x00\x30\x31", 3)},
    };
    return content;
}

class RecipientTable : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mapi.complete());
        storage = makeMsgInMemory(mailToThree());
        ASSERT_TRUE(storage);
        ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
        ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, &table), S_OK);
    }

    const SPropValue* column(const SRow& row, ULONG tag)
    {
        for (ULONG c = 0; c < row.cValues; ++c)
            if (row.lpProps[c].ulPropTag == tag)
                return &row.lpProps[c];
        return nullptr;
    }

    const StandInMapi& mapi = standInMapi();
    ComPtr<IStorage> storage;
    ComPtr<IMessage> message;
    ComPtr<IMAPITable> table;
};

} // namespace

TEST_F(RecipientTable, HasOneRowPerRecipientStorageInOrder)
{
    ULONG count = 0;
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    ASSERT_EQ(count, 3u);
    LPSRowSet rows = nullptr;
    ASSERT_EQ(table->QueryRows(static_cast<LONG>(count), 0, &rows), S_OK);
    ASSERT_NE(rows, nullptr);
    ASSERT_EQ(rows->cRows, 3u);

    const MsgContent content = mailToThree();
    for (ULONG r = 0; r < 3; ++r) {
        const SRow& row = rows->aRow[r];
        const MsgRecipient& expected = content.recipients[r];
        ASSERT_NE(column(row, tagRowId), nullptr);
        ASSERT_NE(column(row, tagRecipientType), nullptr);
        EXPECT_EQ(static_cast<ULONG>(column(row, tagRecipientType)->Value.l), expected.type);
        const SPropValue* entryId = column(row, tagEntryId);
        ASSERT_NE(entryId, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(entryId->Value.bin.lpb), entryId->Value.bin.cb),
                  expected.entryId);
        ASSERT_NE(column(row, tagDisplayNameW), nullptr);
        EXPECT_EQ(std::wstring(column(row, tagDisplayNameW)->Value.lpszW), expected.name);
        ASSERT_NE(column(row, tagAddrTypeW), nullptr);
        EXPECT_EQ(std::wstring(column(row, tagAddrTypeW)->Value.lpszW), expected.addrType);
        ASSERT_NE(column(row, tagEmailAddressW), nullptr);
        EXPECT_EQ(std::wstring(column(row, tagEmailAddressW)->Value.lpszW), expected.address);
    }
    freeRows(mapi, rows);
}

TEST_F(RecipientTable, RowsAreFreedTheWayFreeProwsFreesThem)
{
    const ULONG before = mapi.liveAllocations();
    LPSRowSet rows = nullptr;
    ASSERT_EQ(table->QueryRows(3, 0, &rows), S_OK);
    // The set and each row's properties are blocks of their own.
    EXPECT_GE(mapi.liveAllocations(), before + 4);
    freeRows(mapi, rows);
    EXPECT_EQ(mapi.liveAllocations(), before);
}

TEST_F(RecipientTable, QueryRowsMovesThroughTheTable)
{
    LPSRowSet rows = nullptr;
    ASSERT_EQ(table->QueryRows(2, TBL_NOADVANCE, &rows), S_OK);
    EXPECT_EQ(rows->cRows, 2u);
    freeRows(mapi, rows);

    ASSERT_EQ(table->QueryRows(2, 0, &rows), S_OK);
    ASSERT_EQ(rows->cRows, 2u);
    EXPECT_STREQ(column(rows->aRow[0], tagDisplayNameW)->Value.lpszW, L"Bo Lind");
    freeRows(mapi, rows);

    ASSERT_EQ(table->QueryRows(2, 0, &rows), S_OK);
    ASSERT_EQ(rows->cRows, 1u);
    EXPECT_STREQ(column(rows->aRow[0], tagDisplayNameW)->Value.lpszW, L"Di Ek");
    freeRows(mapi, rows);

    ASSERT_EQ(table->QueryRows(2, 0, &rows), S_OK);
    EXPECT_EQ(rows->cRows, 0u);
    freeRows(mapi, rows);

    LONG sought = 0;
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 1, &sought), S_OK);
    EXPECT_EQ(sought, 1);
    ASSERT_EQ(table->QueryRows(1, 0, &rows), S_OK);
    EXPECT_STREQ(column(rows->aRow[0], tagDisplayNameW)->Value.lpszW, L"Cy Moor");
    freeRows(mapi, rows);
}

TEST_F(RecipientTable, SetColumnsChoosesWhatARowHolds)
{
    TagList tags{tagEmailAddressW, PROP_TAG(PT_UNICODE, 0x3A00)};
    ASSERT_EQ(table->SetColumns(tags.get(), 0), S_OK);
    LPSRowSet rows = nullptr;
    ASSERT_EQ(table->QueryRows(1, 0, &rows), S_OK);
    ASSERT_EQ(rows->aRow[0].cValues, 2u);
    EXPECT_STREQ(rows->aRow[0].lpProps[0].Value.lpszW, L"bo@example.com");
    EXPECT_EQ(rows->aRow[0].lpProps[1].ulPropTag, PROP_TAG(PT_ERROR, 0x3A00));
    EXPECT_EQ(rows->aRow[0].lpProps[1].Value.err, MAPI_E_NOT_FOUND);
    freeRows(mapi, rows);
}

TEST(RecipientTableOf, AnUnknownRecipientTypeIsReportedAsItIs)
{
    const StandInMapi& mapi = standInMapi();
    ASSERT_TRUE(mapi.complete());
    MsgContent content;
    content.subject = L"Odd type";
    content.recipients = {MsgRecipient{7, L"Resource", L"room@example.com", L"SMTP", {}}};
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message;
    ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
    ComPtr<IMAPITable> table;
    ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, &table), S_OK);
    LPSRowSet rows = nullptr;
    ASSERT_EQ(table->QueryRows(10, 0, &rows), S_OK);
    ASSERT_EQ(rows->cRows, 1u);
    EXPECT_EQ(rows->aRow[0].lpProps[1].ulPropTag, tagRecipientType);
    EXPECT_EQ(rows->aRow[0].lpProps[1].Value.l, 7);
    // No entry id was written: that column is an error, the others are there.
    EXPECT_EQ(rows->aRow[0].lpProps[2].ulPropTag, PROP_TAG(PT_ERROR, PROP_ID(tagEntryId)));
    EXPECT_STREQ(rows->aRow[0].lpProps[5].Value.lpszW, L"room@example.com");
    freeRows(mapi, rows);
}

TEST(RecipientTableOf, AMailWithoutRecipientsHasNoRows)
{
    const StandInMapi& mapi = standInMapi();
    ASSERT_TRUE(mapi.complete());
    MsgContent content;
    content.subject = L"Draft";
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message;
    ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
    ComPtr<IMAPITable> table;
    ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, &table), S_OK);
    ULONG count = 99;
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 0u);
}

TEST(RecipientTableOf, NarrowTableWithoutUnicodeFlag)
{
    const StandInMapi& mapi = standInMapi();
    ASSERT_TRUE(mapi.complete());
    const ComPtr<IStorage> storage = makeMsgInMemory(mailToThree());
    ComPtr<IMessage> message;
    ASSERT_EQ(mapi.open(storage.Get(), message), S_OK);
    ComPtr<IMAPITable> table;
    ASSERT_EQ(message->GetRecipientTable(0, &table), S_OK);
    LPSRowSet rows = nullptr;
    ASSERT_EQ(table->QueryRows(1, 0, &rows), S_OK);
    EXPECT_EQ(rows->aRow[0].lpProps[3].ulPropTag, PROP_TAG(PT_STRING8, 0x3001));
    EXPECT_STREQ(rows->aRow[0].lpProps[3].Value.lpszA, "Bo Lind");
    freeRows(mapi, rows);
}
