// Sources that fail, lie about their sizes, nest without end or hold more
// than any mail: the writer either writes what the source really delivered
// or fails with a clear result and a log line, and a failure never leaves a
// partial file under the target name nor touches a file already there.
#include "items/compound_file_writer.h"

#include "core/log.h"
#include "compound_file_check.h"
#include "generated_storage.h"
#include "support/faulty_storage.h"
#include "e2e_shared/msg_builder.h"
#include "support/scratch.h"

#include <psapi.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

std::string patternBytes(size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 11 + seed * 17 + i / 257) & 0xFF);
    return bytes;
}

std::string streamOf(IStorage* storage, const std::wstring& name)
{
    ComPtr<IStream> stream;
    if (FAILED(storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream)))
        return "<missing>";
    return readWholeStream(stream.Get());
}

GeneratedStorageLayout flatStreams(ULONGLONG count, ULONGLONG bytes)
{
    GeneratedStorageLayout layout;
    layout.count = count;
    layout.element = [bytes](ULONGLONG index) {
        return GeneratedElement{L"s" + std::to_wstring(index), false, bytes};
    };
    return layout;
}

GeneratedStorageLayout namedStreams(std::vector<std::wstring> names)
{
    GeneratedStorageLayout layout;
    layout.count = names.size();
    layout.element = [names](ULONGLONG index) { return GeneratedElement{names[index], false, 10}; };
    return layout;
}

class HostileSourceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(real);
        ASSERT_HRESULT_SUCCEEDED(writeRawStream(real.Get(), L"big", bigBytes));
        ASSERT_HRESULT_SUCCEEDED(writeRawStream(real.Get(), L"small", smallBytes));
        ASSERT_HRESULT_SUCCEEDED(writeRawStream(real.Get(), L"edge", edgeBytes));
    }

    // Fails, leaves only what was there before, and says so in the log.
    void expectCleanFailure(IStorage* source, HRESULT expected, const char* logged,
                            const CompoundFileLimits& limits = {})
    {
        const std::vector<std::wstring> before = filesIn(folder.path());
        LogCapture log(LOG_ERROR);
        EXPECT_EQ(writeCompoundFile(source, target, limits), expected);
        EXPECT_EQ(filesIn(folder.path()), before);
        const std::string text = log.contents();
        EXPECT_NE(text.find("writeCompoundFile"), std::string::npos) << text;
        EXPECT_NE(text.find(logged), std::string::npos) << text;
    }

    ScratchFolder folder;
    std::wstring target = folder.file(L"mail.msg");
    ComPtr<IStorage> real = makeStorageInMemory();
    const std::string bigBytes = patternBytes(3 * 1024 * 1024 + 17, 1);
    const std::string smallBytes = patternBytes(100, 2);
    const std::string edgeBytes = patternBytes(4100, 3);
};

TEST_F(HostileSourceTest, StreamFailingHalfWayLeavesNoFile)
{
    StorageFaults faults;
    faults.onlyStream = L"big";
    faults.failAfterBytes = 1536 * 1024;
    expectCleanFailure(wrapWithFaults(real.Get(), faults).Get(), STG_E_READFAULT, "big");
}

TEST_F(HostileSourceTest, FailureLeavesAnExistingTargetUntouched)
{
    writeBytes(target, "the file saved before");
    StorageFaults faults;
    faults.onlyStream = L"small";
    faults.failAfterBytes = 10;
    faults.readFailure = E_ACCESSDENIED;
    expectCleanFailure(wrapWithFaults(real.Get(), faults).Get(), E_ACCESSDENIED, "small");
    EXPECT_EQ(readBytes(target), "the file saved before");
}

TEST_F(HostileSourceTest, FailingEnumerationIsReported)
{
    StorageFaults faults;
    faults.enumFailure = STG_E_INSUFFICIENTMEMORY;
    expectCleanFailure(wrapWithFaults(real.Get(), faults).Get(), STG_E_INSUFFICIENTMEMORY, "EnumElements");
}

TEST_F(HostileSourceTest, OverstatedSizesGiveTheBytesTheStreamsReallyHad)
{
    StorageFaults faults;
    faults.statExtraBytes = 5000;
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(wrapWithFaults(real.Get(), faults).Get(), target));

    // "small" claimed 5100 bytes and had 100: it must sit in the mini stream,
    // which the layout check proves from its recorded size.
    EXPECT_EQ(compoundFileProblems(readBytes(target)), "");
    ComPtr<IStorage> written = openCompoundFile(target);
    ASSERT_TRUE(written);
    expectSameTree(real.Get(), written.Get());
}

TEST_F(HostileSourceTest, UnderstatedSizesCopyAsMuchAsStatReports)
{
    StorageFaults faults;
    faults.statExtraBytes = static_cast<ULONGLONG>(-60); // every Stat reports 60 bytes less
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(wrapWithFaults(real.Get(), faults).Get(), target));

    EXPECT_EQ(compoundFileProblems(readBytes(target)), "");
    ComPtr<IStorage> written = openCompoundFile(target);
    ASSERT_TRUE(written);
    EXPECT_TRUE(streamOf(written.Get(), L"big") == bigBytes.substr(0, bigBytes.size() - 60));
    EXPECT_EQ(streamOf(written.Get(), L"small"), smallBytes.substr(0, 40));
    // 4040 bytes are below the cutoff now: moved to the mini stream.
    EXPECT_EQ(streamOf(written.Get(), L"edge"), edgeBytes.substr(0, 4040));
}

TEST_F(HostileSourceTest, StreamsDeliveringAFewBytesAtATimeAreCopiedWhole)
{
    StorageFaults faults;
    faults.onlyStream = L"edge";
    faults.maxBytesPerRead = 7;
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(wrapWithFaults(real.Get(), faults).Get(), target));

    ComPtr<IStorage> written = openCompoundFile(target);
    ASSERT_TRUE(written);
    expectSameTree(real.Get(), written.Get());
}

TEST_F(HostileSourceTest, ReadClaimingMoreThanAskedIsRefused)
{
    GeneratedStorageLayout layout = flatStreams(2, 10000);
    layout.readOverclaim = 4096;
    expectCleanFailure(makeGeneratedStorage(layout).Get(), STG_E_DOCFILECORRUPT, "asked");
}

TEST_F(HostileSourceTest, SixtyFourLevelsAreWrittenAndEndlessNestingIsRefused)
{
    ComPtr<IStorage> deep = makeStorageInMemory();
    ASSERT_TRUE(deep);
    std::vector<ComPtr<IStorage>> chain{deep};
    for (int level = 1; level <= 64; ++level) {
        chain.push_back(createChildStorage(chain.back().Get(), L"level" + std::to_wstring(level)));
        ASSERT_TRUE(chain.back()) << level;
    }
    ASSERT_HRESULT_SUCCEEDED(writeRawStream(chain.back().Get(), L"bottom", "deepest bytes"));
    for (size_t i = chain.size(); i-- > 1;) {
        ASSERT_HRESULT_SUCCEEDED(chain[i]->Commit(STGC_DEFAULT));
        chain[i].Reset();
    }
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(deep.Get(), target));
    EXPECT_EQ(compoundFileProblems(readBytes(target)), "");
    ComPtr<IStorage> written = openCompoundFile(target);
    ASSERT_TRUE(written);
    expectSameTree(deep.Get(), written.Get());

    GeneratedStorageLayout endless;
    endless.count = 1;
    endless.element = [](ULONGLONG) { return GeneratedElement{L"again", true, 0}; };
    expectCleanFailure(makeGeneratedStorage(endless).Get(), STG_E_DOCFILECORRUPT, "nested deeper than 64");
}

TEST_F(HostileSourceTest, MoreThanHundredThousandElementsAreRefused)
{
    expectCleanFailure(makeGeneratedStorage(flatStreams(100001, 1)).Get(), STG_E_DOCFILECORRUPT,
                       "more than 100000 elements");
}

TEST_F(HostileSourceTest, HundredThousandElementsStillMakeAWellFormedFile)
{
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(makeGeneratedStorage(flatStreams(100000, 1)).Get(), target));
    // The system's reader isn't asked: it needs minutes for a directory this size.
    EXPECT_EQ(compoundFileProblems(readBytes(target)), "");
}

TEST_F(HostileSourceTest, NamesTheFormatCannotHoldAreRefused)
{
    expectCleanFailure(makeGeneratedStorage(namedStreams({L"ok", L"abcdefghijklmnopqrstuvwxyz012345"})).Get(),
                       STG_E_INVALIDNAME, "abcdefghijklmnopqrstuvwxyz012345");
    expectCleanFailure(makeGeneratedStorage(namedStreams({L"a/b"})).Get(), STG_E_INVALIDNAME, "a/b");
    expectCleanFailure(makeGeneratedStorage(namedStreams({L""})).Get(), STG_E_INVALIDNAME, "can't be stored");
}

TEST_F(HostileSourceTest, SiblingsWithTheSameNameAreRefused)
{
    expectCleanFailure(makeGeneratedStorage(namedStreams({L"Body", L"other", L"BODY"})).Get(), STG_E_DOCFILECORRUPT,
                       "two elements named");
}

TEST_F(HostileSourceTest, FileBeyondTheLimitIsRefused)
{
    // The same checks stop a file at 4 GiB and a stream at 2 GiB; smaller
    // limits prove them without writing gigabytes.
    CompoundFileLimits limits;
    limits.maxFileBytes = 2 * 1024 * 1024;
    expectCleanFailure(real.Get(), HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE), "beyond 2097152 bytes", limits);

    limits = {};
    limits.maxStreamBytes = 1024 * 1024;
    expectCleanFailure(real.Get(), HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE), "larger than 1048576", limits);

    // Just inside both limits is fine.
    limits.maxStreamBytes = bigBytes.size();
    limits.maxFileBytes = bigBytes.size() + 64 * 1024;
    EXPECT_HRESULT_SUCCEEDED(writeCompoundFile(real.Get(), target, limits));
}

TEST_F(HostileSourceTest, NoSourceOrNoFolderFailsCleanly)
{
    EXPECT_EQ(writeCompoundFile(nullptr, target), E_POINTER);
    EXPECT_EQ(writeCompoundFile(real.Get(), folder.file(L"missing\\mail.msg")),
              HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(filesIn(folder.path()).empty());
}

TEST_F(HostileSourceTest, MemoryStaysBoundedWhateverTheStreamSize)
{
    PROCESS_MEMORY_COUNTERS before{};
    ASSERT_TRUE(GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof before));
    const ULONGLONG size = 256ull * 1024 * 1024;
    ASSERT_HRESULT_SUCCEEDED(writeCompoundFile(makeGeneratedStorage(flatStreams(1, size)).Get(), target));
    PROCESS_MEMORY_COUNTERS after{};
    ASSERT_TRUE(GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after));
    EXPECT_LT(after.PeakWorkingSetSize, before.PeakWorkingSetSize + 48 * 1024 * 1024);

    // And the stream arrived whole: its first and last bytes read back.
    ComPtr<IStorage> written = openCompoundFile(target);
    ASSERT_TRUE(written);
    ComPtr<IStream> stream;
    ASSERT_HRESULT_SUCCEEDED(written->OpenStream(L"s0", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream));
    STATSTG stat{};
    ASSERT_HRESULT_SUCCEEDED(stream->Stat(&stat, STATFLAG_NONAME));
    EXPECT_EQ(stat.cbSize.QuadPart, size);
    char head[4] = {}, tail[4] = {};
    ULONG read = 0;
    ASSERT_HRESULT_SUCCEEDED(stream->Read(head, 4, &read));
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(size - 4);
    ASSERT_HRESULT_SUCCEEDED(stream->Seek(end, STREAM_SEEK_SET, nullptr));
    ASSERT_HRESULT_SUCCEEDED(stream->Read(tail, 4, &read));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(head[i], generatedByte(i));
        EXPECT_EQ(tail[i], generatedByte(size - 4 + i));
    }
}

} // namespace
