// The stand-in mapi32.dll as the add-in meets it: found by name beside the
// program, bound by ordinal, its allocation linked like MAPI's, and messages
// opened on .msg storages answering GetProps.
#include "items_mapi/standin_mapi.h"

#include "common/module_path.h"
#include "common/strings.h"
#include "support/environment_switch.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <mapicode.h>
#include <mapitags.h>

#include <cstring>

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

namespace {

constexpr ULONG tagSubjectW = 0x0037001F;
constexpr ULONG tagSubjectA = 0x0037001E;
constexpr ULONG tagDeliveryTime = 0x0E060040;
constexpr ULONG tagSenderEmailW = 0x0C1F001F;
constexpr ULONG tagSenderNameW = 0x0C1A001F;
constexpr ULONG tagSenderAddrTypeW = 0x0C1E001F;
constexpr ULONG tagSenderEntryId = 0x0C190102;
constexpr ULONG tagMessageClassW = 0x001A001F;
constexpr ULONG tagBodyW = 0x1000001F;
constexpr ULONG tagInternetMessageIdW = 0x1035001F;
constexpr ULONG tagClientSubmitTime = 0x00390040;

MsgContent sampleMail()
{
    MsgContent content;
    content.subject = L"Quarterly figures \u2014 Q3";
    content.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    content.submitTime = utcFileTime(2024, 3, 5, 7, 0, 1);
    content.senderName = L"Anna Berg";
    content.senderAddress = L"anna@example.com";
    content.senderAddrType = L"SMTP";
    content.senderEntryId = std::string("\x00\x01\xAB\xFF", 4);
    content.messageClass = L"IPM.Note";
    content.body = L"Hello\r\nsecond line";
    content.internetMessageId = L"<q3@example.com>";
    return content;
}

ComPtr<IMessage> openMessage(IStorage* storage)
{
    ComPtr<IMessage> message;
    EXPECT_EQ(standInMapi().open(storage, message), S_OK);
    return message;
}

bool sameTime(const FILETIME& a, const FILETIME& b)
{
    return a.dwLowDateTime == b.dwLowDateTime && a.dwHighDateTime == b.dwHighDateTime;
}

class MapiStandIn : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(standInMapi().complete()) << "mapi32.dll beside the program is not the stand-in"; }
    const StandInMapi& mapi = standInMapi();
};

} // namespace

TEST_F(MapiStandIn, IsTheMapi32BesideTheProgram)
{
    const std::wstring loaded = modulePath(mapi.module, 32768);
    EXPECT_TRUE(equalsIgnoreCase(replaceFileName(loaded, L""), testProgramFolder() + L"\\")) << loaded;
}

TEST_F(MapiStandIn, MoreBlocksAreFreedWithTheirParent)
{
    const ULONG before = mapi.liveAllocations();
    void* parent = nullptr;
    ASSERT_EQ(mapi.allocateBuffer(64, &parent), S_OK);
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(mapi.allocateMore(1000, parent, &first), S_OK);
    ASSERT_EQ(mapi.allocateMore(0, parent, &second), S_OK);
    EXPECT_NE(first, second);
    std::memset(parent, 0x5A, 64);
    std::memset(first, 0x5A, 1000);
    EXPECT_EQ(mapi.liveAllocations(), before + 3);

    EXPECT_EQ(mapi.freeBuffer(parent), 0u);
    EXPECT_EQ(mapi.liveAllocations(), before);
}

TEST_F(MapiStandIn, RefusesBlocksItDidNotHandOut)
{
    const ULONG before = mapi.liveAllocations();
    int notABlock = 0;
    void* more = reinterpret_cast<void*>(1);
    EXPECT_EQ(mapi.allocateMore(16, &notABlock, &more), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(more, nullptr);

    void* parent = nullptr;
    ASSERT_EQ(mapi.allocateBuffer(8, &parent), S_OK);
    ASSERT_EQ(mapi.allocateMore(8, parent, &more), S_OK);
    // A "more" block belongs to its parent and can't be freed on its own.
    EXPECT_NE(mapi.freeBuffer(more), 0u);
    EXPECT_EQ(mapi.liveAllocations(), before + 2);
    EXPECT_EQ(mapi.freeBuffer(parent), 0u);
    // Freeing twice is refused instead of corrupting the heap.
    EXPECT_NE(mapi.freeBuffer(parent), 0u);
    EXPECT_EQ(mapi.freeBuffer(nullptr), 0u);
    EXPECT_EQ(mapi.liveAllocations(), before);
}

TEST_F(MapiStandIn, DefaultMallocIsTheTaskAllocator)
{
    ComPtr<IMalloc> task;
    ASSERT_EQ(CoGetMalloc(1, &task), S_OK);
    LPMALLOC malloc = mapi.getDefaultMalloc();
    ASSERT_EQ(malloc, task.Get());
    void* block = malloc->Alloc(32);
    ASSERT_NE(block, nullptr);
    malloc->Free(block);
}

TEST_F(MapiStandIn, EveryOpenIsCounted)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    ASSERT_TRUE(storage);
    const ULONG before = mapi.openCount();
    ComPtr<IMessage> message = openMessage(storage.Get());
    EXPECT_TRUE(message);
    EXPECT_EQ(mapi.openCount(), before + 1);
}

TEST_F(MapiStandIn, FailSwitchMakesTheOpenFailUntilItIsGone)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    ASSERT_TRUE(storage);
    ComPtr<IMessage> message;
    {
        EnvironmentSwitch fail(standInMapiOpenSwitch, L"fail");
        const ULONG before = mapi.openCount();
        EXPECT_EQ(mapi.open(storage.Get(), message), MAPI_E_CORRUPT_DATA);
        EXPECT_FALSE(message);
        EXPECT_EQ(mapi.openCount(), before + 1);
    }
    EXPECT_EQ(mapi.open(storage.Get(), message), S_OK);
    EXPECT_TRUE(message);
}

TEST_F(MapiStandIn, MissingArgumentsAreRefused)
{
    ComPtr<IMessage> message;
    EXPECT_EQ(mapi.open(nullptr, message), MAPI_E_INVALID_PARAMETER);
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    EXPECT_EQ(mapi.openIMsgOnIStg(nullptr, nullptr, mapi.allocateMore, mapi.freeBuffer, nullptr, nullptr,
                                  storage.Get(), nullptr, 0, 0, &message),
              MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(mapi.openIMsgOnIStg(nullptr, mapi.allocateBuffer, mapi.allocateMore, mapi.freeBuffer, nullptr, nullptr,
                                  storage.Get(), nullptr, 0, 0, nullptr),
              MAPI_E_INVALID_PARAMETER);
}

TEST_F(MapiStandIn, BrokenPropertiesStreamIsCorruptData)
{
    const ComPtr<IStorage> storage = makeStorageInMemory();
    ASSERT_TRUE(storage);
    ASSERT_EQ(writeRawPropertiesStream(storage.Get(), 16, "\x01\x02\x03"), S_OK); // shorter than its header
    ComPtr<IMessage> message;
    EXPECT_EQ(mapi.open(storage.Get(), message), MAPI_E_CORRUPT_DATA);
    EXPECT_FALSE(message);
}

TEST_F(MapiStandIn, StorageWithoutPropertiesOpensAsANewEmptyMessage)
{
    const ComPtr<IStorage> storage = makeStorageInMemory();
    ASSERT_TRUE(storage);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{tagSubjectW};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    EXPECT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), MAPI_W_ERRORS_RETURNED);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(values[0].ulPropTag, PROP_TAG(PT_ERROR, 0x0037));
}

TEST_F(MapiStandIn, MessageHoldsItsOwnReferenceToTheStorage)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    ASSERT_TRUE(storage);
    const auto references = [&] {
        storage->AddRef();
        return storage->Release();
    };
    const ULONG alone = references();
    ComPtr<IMessage> message = openMessage(storage.Get());
    EXPECT_EQ(references(), alone + 1);
    message.Reset();
    EXPECT_EQ(references(), alone);
}

namespace {
ULONG releasedCallerData = 0;
LPMESSAGE releasedMessage = nullptr;
void WINAPI onMessageReleased(ULONG callerData, LPMESSAGE message)
{
    releasedCallerData = callerData;
    releasedMessage = message;
}
} // namespace

TEST_F(MapiStandIn, ReleaseCallbackHearsOfTheLastRelease)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    IMessage* message = nullptr;
    ASSERT_EQ(mapi.openIMsgOnIStg(nullptr, mapi.allocateBuffer, mapi.allocateMore, mapi.freeBuffer,
                                  mapi.getDefaultMalloc(), nullptr, storage.Get(), &onMessageReleased, 4711, 0,
                                  &message),
              S_OK);
    releasedMessage = nullptr;
    message->AddRef();
    message->Release();
    EXPECT_EQ(releasedMessage, nullptr);
    message->Release();
    EXPECT_EQ(releasedMessage, message);
    EXPECT_EQ(releasedCallerData, 4711u);
}

TEST_F(MapiStandIn, GetPropsAnswersTheAddinsTagsAsStored)
{
    const MsgContent content = sampleMail();
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{tagSubjectW,        tagDeliveryTime,  tagSenderEmailW, tagSenderNameW,
                 tagSenderAddrTypeW, tagSenderEntryId, tagMessageClassW};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), S_OK);
    ASSERT_EQ(count, 7u);
    for (ULONG i = 0; i < count; ++i)
        EXPECT_EQ(values[i].ulPropTag, tags.get()->aulPropTag[i]) << i;
    EXPECT_STREQ(values[0].Value.lpszW, content.subject.c_str());
    EXPECT_TRUE(sameTime(values[1].Value.ft, *content.deliveryTime));
    EXPECT_STREQ(values[2].Value.lpszW, L"anna@example.com");
    EXPECT_STREQ(values[3].Value.lpszW, L"Anna Berg");
    EXPECT_STREQ(values[4].Value.lpszW, L"SMTP");
    ASSERT_EQ(values[5].Value.bin.cb, 4u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(values[5].Value.bin.lpb), 4), content.senderEntryId);
    EXPECT_STREQ(values[6].Value.lpszW, L"IPM.Note");
}

TEST_F(MapiStandIn, MissingValuesAreErrorRowsBesideTheOthers)
{
    MsgContent content = sampleMail();
    content.subject.clear();
    content.senderEntryId.clear();
    content.deliveryTime.reset();
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{tagSubjectW, tagDeliveryTime, tagSenderNameW, tagSenderEntryId};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), MAPI_W_ERRORS_RETURNED);
    ASSERT_EQ(count, 4u);
    for (ULONG i : {0u, 1u, 3u}) {
        EXPECT_EQ(values[i].ulPropTag, PROP_TAG(PT_ERROR, PROP_ID(tags.get()->aulPropTag[i]))) << i;
        EXPECT_EQ(values[i].Value.err, MAPI_E_NOT_FOUND) << i;
    }
    EXPECT_EQ(values[2].ulPropTag, tagSenderNameW);
    EXPECT_STREQ(values[2].Value.lpszW, L"Anna Berg");
}

TEST_F(MapiStandIn, NarrowStoredStringsComeBackWide)
{
    MsgContent content = sampleMail();
    content.unicodeStrings = false;
    content.subject = L"Plain ASCII subject";
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{tagSubjectW, tagSenderNameW};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), S_OK);
    EXPECT_EQ(values[0].ulPropTag, tagSubjectW);
    EXPECT_STREQ(values[0].Value.lpszW, L"Plain ASCII subject");
    EXPECT_STREQ(values[1].Value.lpszW, L"Anna Berg");
}

TEST_F(MapiStandIn, StringsComeNarrowWhenAskedNarrow)
{
    MsgContent content = sampleMail();
    content.subject = L"Wide stored";
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{tagSubjectA, PROP_TAG(PT_UNSPECIFIED, 0x0037)};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), 0, &count, values.put()), S_OK);
    EXPECT_EQ(values[0].ulPropTag, tagSubjectA);
    EXPECT_STREQ(values[0].Value.lpszA, "Wide stored");
    // Without MAPI_UNICODE an unspecified string type is the narrow one.
    EXPECT_EQ(values[1].ulPropTag, tagSubjectA);
    EXPECT_STREQ(values[1].Value.lpszA, "Wide stored");
}

TEST_F(MapiStandIn, AValueAskedAsAnotherTypeIsNotFound)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{PROP_TAG(PT_LONG, 0x0037), PROP_TAG(PT_BINARY, 0x0E06)};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), MAPI_W_ERRORS_RETURNED);
    EXPECT_EQ(values[0].ulPropTag, PROP_TAG(PT_ERROR, 0x0037));
    EXPECT_EQ(values[1].ulPropTag, PROP_TAG(PT_ERROR, 0x0E06));
}

TEST_F(MapiStandIn, TheConvertersTagsAreAnsweredToo)
{
    const MsgContent content = sampleMail();
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    TagList tags{tagBodyW, tagInternetMessageIdW, tagClientSubmitTime};
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), S_OK);
    EXPECT_STREQ(values[0].Value.lpszW, L"Hello\r\nsecond line");
    EXPECT_STREQ(values[1].Value.lpszW, L"<q3@example.com>");
    EXPECT_TRUE(sameTime(values[2].Value.ft, *content.submitTime));
}

TEST_F(MapiStandIn, NoTagListGivesEveryProperty)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    ULONG count = 0;
    MapiBlock<SPropValue> values;
    ASSERT_EQ(message->GetProps(nullptr, MAPI_UNICODE, &count, values.put()), S_OK);
    bool sawSubject = false;
    bool sawClass = false;
    for (ULONG i = 0; i < count; ++i) {
        EXPECT_NE(PROP_TYPE(values[i].ulPropTag), PT_ERROR);
        sawSubject |= values[i].ulPropTag == tagSubjectW;
        sawClass |= values[i].ulPropTag == tagMessageClassW && std::wstring(values[i].Value.lpszW) == L"IPM.Note";
    }
    EXPECT_TRUE(sawSubject);
    EXPECT_TRUE(sawClass);
}

TEST_F(MapiStandIn, OneFreeBufferReleasesAllValuesOfGetProps)
{
    const ComPtr<IStorage> storage = makeMsgInMemory(sampleMail());
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    const ULONG before = mapi.liveAllocations();
    {
        TagList tags{tagSubjectW, tagSenderEntryId, tagBodyW, tagSubjectA};
        ULONG count = 0;
        MapiBlock<SPropValue> values;
        ASSERT_EQ(message->GetProps(tags.get(), MAPI_UNICODE, &count, values.put()), S_OK);
        EXPECT_GT(mapi.liveAllocations(), before + 1); // the array and its strings
    }
    EXPECT_EQ(mapi.liveAllocations(), before);
}

TEST_F(MapiStandIn, LargeBodyCanBeReadAsAStream)
{
    MsgContent content = sampleMail();
    content.body.assign(100000, L'x');
    const ComPtr<IStorage> storage = makeMsgInMemory(content);
    ComPtr<IMessage> message = openMessage(storage.Get());
    ASSERT_TRUE(message);
    ComPtr<IUnknown> unknown;
    ASSERT_EQ(message->OpenProperty(tagBodyW, &IID_IStream, 0, 0, &unknown), S_OK);
    ComPtr<IStream> stream;
    ASSERT_EQ(unknown.As(&stream), S_OK);
    std::wstring text(100001, L'\0');
    ULONG read = 0;
    ASSERT_EQ(stream->Read(text.data(), static_cast<ULONG>(text.size() * sizeof(wchar_t)), &read), S_OK);
    EXPECT_EQ(read, 100000u * sizeof(wchar_t));
    text.resize(read / sizeof(wchar_t));
    EXPECT_EQ(text, content.body);
    EXPECT_EQ(message->OpenProperty(tagBodyW, &IID_IStream, 0, MAPI_MODIFY, &unknown), MAPI_E_NO_SUPPORT);
}
