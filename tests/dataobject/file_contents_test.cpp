// The toolkit conversions: one file's contents as a memory block (a stream's
// bytes, a storage as a compound file), and a stream's bytes opened as a
// storage.
#include "reader_fixture.h"
#include "common/com_ptr.h"

#include "core/log.h"

#include <shlwapi.h>

namespace {

using Microsoft::WRL::ComPtr;

ComPtr<IStream> streamOver(const std::string& bytes)
{
    ComPtr<IStream> stream;
    stream = adoptCom(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    return stream;
}

// Opens a memory block as a compound file, read-only, without taking it over.
ComPtr<IStorage> openStorageOn(HGLOBAL memory)
{
    ComPtr<ILockBytes> lockBytes;
    if (FAILED(CreateILockBytesOnHGlobal(memory, FALSE, &lockBytes)))
        return nullptr;
    ComPtr<IStorage> storage;
    if (FAILED(StgOpenStorageOnILockBytes(lockBytes.Get(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                          &storage)))
        return nullptr;
    return storage;
}

std::vector<std::wstring> elementNames(IStorage* storage)
{
    std::vector<std::wstring> names;
    ComPtr<IEnumSTATSTG> elements;
    if (!storage || FAILED(storage->EnumElements(0, nullptr, 0, &elements)))
        return names;
    STATSTG stat{};
    while (elements->Next(1, &stat, nullptr) == S_OK) {
        names.push_back(stat.pwcsName);
        CoTaskMemFree(stat.pwcsName);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string msgFileBytes(const ScratchFolder& folder, const MsgContent& content)
{
    const std::wstring path = folder.file(L"source.msg");
    EXPECT_EQ(writeMsgFile(path, content), S_OK);
    return readBytes(path);
}

TEST_F(ReaderTest, ContentsOfAStreamAreItsBytes)
{
    std::string bytes(70000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7);
    auto object = OutlookDataObject::create({OutlookEntry::attachment(L"a.txt", "first"),
                                             OutlookEntry::attachment(L"big.bin", bytes)});
    UniqueGlobal block(getFileContentFromDataObject(1, object.Get()));
    ASSERT_TRUE(block);
    EXPECT_EQ(GlobalSize(block.get()), bytes.size());
    EXPECT_EQ(globalBytes(block.get()), bytes);
    EXPECT_EQ(object->contentsRequests(), std::vector<LONG>{1});
}

TEST_F(ReaderTest, ContentsOfAStorageAreACompoundFileWithTheSameMessage)
{
    const MsgContent content = mailWithSubject(L"Quarterly figures");
    ComPtr<IStorage> original = makeMsgInMemory(content);
    ASSERT_TRUE(original);
    OutlookEntry entry;
    entry.fileName = L"Quarterly figures.msg";
    entry.storage = original;
    auto object = OutlookDataObject::create({entry});

    UniqueGlobal block(getFileContentFromDataObject(0, object.Get()));
    ASSERT_TRUE(block);
    ComPtr<IStorage> reopened = openStorageOn(block.get());
    ASSERT_TRUE(reopened);
    EXPECT_EQ(elementNames(reopened.Get()), elementNames(original.Get()));
    EXPECT_EQ(subjectOf(reopened.Get()), L"Quarterly figures");
}

TEST_F(ReaderTest, ContentsThatCannotBeHadGiveNull)
{
    OutlookEntry failing = OutlookEntry::attachment(L"f.txt", "x");
    failing.contentsResult = STG_E_READFAULT;
    OutlookEntry inMemory = OutlookEntry::attachment(L"g.txt", "hglobal bytes");
    inMemory.contentsAsHGlobal = true;
    auto object = OutlookDataObject::create({failing, inMemory});
    LogCapture log(LOG_WARN);
    EXPECT_EQ(getFileContentFromDataObject(0, object.Get()), nullptr);
    EXPECT_EQ(getFileContentFromDataObject(1, object.Get()), nullptr);
    EXPECT_EQ(getFileContentFromDataObject(2, object.Get()), nullptr);
    EXPECT_EQ(getFileContentFromDataObject(0, nullptr), nullptr);
    EXPECT_NE(log.contents().find("FileContents of index 1 came as tymed=1"), std::string::npos);
}

TEST_F(ReaderTest, ContentsOfAStreamWhoseStatClaimsMoreStopAtItsEnd)
{
    OutlookEntry entry = OutlookEntry::attachment(L"short.bin", "twelve bytes");
    entry.reportedStreamSize = 5000;
    auto object = OutlookDataObject::create({entry});
    UniqueGlobal block(getFileContentFromDataObject(0, object.Get()));
    ASSERT_TRUE(block);
    const std::string bytes = globalBytes(block.get());
    ASSERT_EQ(bytes.size(), 5000u);
    EXPECT_EQ(bytes.substr(0, 12), "twelve bytes");
    EXPECT_EQ(bytes.substr(12), std::string(5000 - 12, '\0'));
}

TEST_F(ReaderTest, ContentsOfAStreamWhoseStatClaimsLessAreCutThere)
{
    OutlookEntry entry = OutlookEntry::attachment(L"long.bin", "twelve bytes");
    entry.reportedStreamSize = 6;
    auto object = OutlookDataObject::create({entry});
    UniqueGlobal block(getFileContentFromDataObject(0, object.Get()));
    ASSERT_TRUE(block);
    EXPECT_EQ(globalBytes(block.get()), "twelve");
}

TEST_F(ReaderTest, ContentsOfAStreamWhoseStatClaimsTerabytesGiveNull)
{
    OutlookEntry entry = OutlookEntry::attachment(L"huge.bin", "tiny");
    entry.reportedStreamSize = (1ULL << 40) + 0xFFFFFFF0ULL; // the low 32 bits ask for almost 4 GB
    auto object = OutlookDataObject::create({entry});
    LogCapture quiet(LOG_ERROR);
    UniqueGlobal block(getFileContentFromDataObject(0, object.Get()));
    // Either the block can't be had, or it holds the four real bytes first:
    // never a read beyond what the stream gave.
    if (block) {
        GlobalLockGuard lock(block.get());
        ASSERT_TRUE(lock);
        EXPECT_EQ(std::string(static_cast<const char*>(lock.data()), 4), "tiny");
    }
}

TEST_F(ReaderTest, StreamOfACompoundFileOpensAsItsStorage)
{
    const std::string bytes = msgFileBytes(folder, mailWithSubject(L"From a stream"));
    ComPtr<IStorage> storage = streamToStorage(streamOver(bytes).Get());
    ASSERT_TRUE(storage);
    EXPECT_EQ(subjectOf(storage.Get()), L"From a stream");
}

TEST_F(ReaderTest, StreamThatIsNoCompoundFileGivesNullAndSaysWhy)
{
    LogCapture log(LOG_ERROR);
    EXPECT_EQ(streamToStorage(streamOver(std::string(4096, 'x')).Get()), nullptr);
    EXPECT_NE(log.contents().find("StgOpenStorageOnILockBytes failed, hr="), std::string::npos);
    EXPECT_EQ(streamToStorage(nullptr), nullptr);
}

TEST_F(ReaderTest, StreamWhoseStatClaimsTerabytesNeverGivesAWrongStorage)
{
    const std::string bytes = msgFileBytes(folder, mailWithSubject(L"Lying"));
    OutlookEntry entry = OutlookEntry::attachment(L"lying.msg", bytes);
    entry.reportedStreamSize = 1ULL << 40;
    auto object = OutlookDataObject::create({entry});
    FORMATETC request{clipboardFormats().fileContents, nullptr, DVASPECT_CONTENT, 0, TYMED_ISTREAM};
    STGMEDIUM medium{};
    ASSERT_EQ(object->GetData(&request, &medium), S_OK);
    LogCapture log(LOG_ERROR);
    ComPtr<IStorage> storage = streamToStorage(medium.pstm);
    ReleaseStgMedium(&medium);
    // Windows refuses to size a memory stream beyond 4 GB; Wine sizes it by
    // the low 32 bits and the copy then brings the real bytes. Either way:
    // a failure said in the log, or the message itself.
    if (storage)
        EXPECT_EQ(subjectOf(storage.Get()), L"Lying");
    else
        EXPECT_NE(log.contents().find(" failed, hr="), std::string::npos) << log.contents();
}

TEST_F(ReaderTest, StreamWhoseStatClaimsABitMoreStillOpens)
{
    // The stream's true bytes are all there; the claimed rest is zeros that
    // the compound file doesn't use.
    const std::string bytes = msgFileBytes(folder, mailWithSubject(L"Padded"));
    OutlookEntry entry = OutlookEntry::attachment(L"padded.msg", bytes);
    entry.reportedStreamSize = bytes.size() + 1000;
    auto object = OutlookDataObject::create({entry});
    FORMATETC request{clipboardFormats().fileContents, nullptr, DVASPECT_CONTENT, 0, TYMED_ISTREAM};
    STGMEDIUM medium{};
    ASSERT_EQ(object->GetData(&request, &medium), S_OK);
    ComPtr<IStorage> storage = streamToStorage(medium.pstm);
    ReleaseStgMedium(&medium);
    ASSERT_TRUE(storage);
    EXPECT_EQ(subjectOf(storage.Get()), L"Padded");
}

} // namespace
