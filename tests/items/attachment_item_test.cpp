// An attachment's stream becomes its file, unchanged.
#include "items/attachment_item.h"
#include "common/com_ptr.h"

#include "core/log.h"
#include "common/unique_resource.h"
#include "support/scratch.h"

#include <psapi.h>
#include <shlwapi.h>

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

ComPtr<IStream> memoryStream(const std::string& bytes)
{
    ComPtr<IStream> stream;
    stream = adoptCom(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    return stream;
}

std::string readRest(IStream* stream)
{
    std::string bytes;
    char buffer[4096];
    ULONG read = 0;
    while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read > 0)
        bytes.append(buffer, read);
    return bytes;
}

ULONGLONG fileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return ~0ULL;
    return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// A stream that delegates to a real one but can fail Stat, or fail reading
// after a number of bytes, the way a broken Outlook stream would.
class FaultyStream : public IStream {
public:
    FaultyStream(ComPtr<IStream> inner, bool failStat, ULONGLONG failAfter)
        : inner_(std::move(inner)), failStat_(failStat), failAfter_(failAfter)
    {
    }
    virtual ~FaultyStream() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (iid == IID_IUnknown || iid == IID_IStream || iid == IID_ISequentialStream) {
            *out = static_cast<IStream*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override
    {
        if (position_ + size > failAfter_)
            return STG_E_READFAULT;
        ULONG got = 0;
        const HRESULT hr = inner_->Read(buffer, size, &got);
        position_ += got;
        if (read)
            *read = got;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Write(const void*, ULONG, ULONG*) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) override
    {
        ULARGE_INTEGER position{};
        const HRESULT hr = inner_->Seek(move, origin, &position);
        position_ = position.QuadPart;
        if (newPosition)
            *newPosition = position;
        ++seeks;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER count, ULARGE_INTEGER* read,
                                     ULARGE_INTEGER* written) override
    {
        ULONGLONG done = 0;
        char buffer[8192];
        HRESULT hr = S_OK;
        while (done < count.QuadPart) {
            ULONG got = 0;
            const ULONG want = static_cast<ULONG>(std::min<ULONGLONG>(sizeof buffer, count.QuadPart - done));
            hr = Read(buffer, want, &got);
            if (FAILED(hr) || got == 0)
                break;
            ULONG put = 0;
            hr = target->Write(buffer, got, &put);
            done += put;
            if (FAILED(hr))
                break;
        }
        if (read)
            read->QuadPart = done;
        if (written)
            written->QuadPart = done;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override
    {
        if (failStat_)
            return STG_E_ACCESSDENIED;
        return inner_->Stat(stat, flags);
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }

    int seeks = 0;

private:
    ULONG references_ = 1;
    ComPtr<IStream> inner_;
    bool failStat_;
    ULONGLONG failAfter_;
    ULONGLONG position_ = 0;
};

} // namespace

TEST(AttachmentSave, WritesTheBytesAndRewindsOutlooksStream)
{
    ScratchFolder folder;
    std::string bytes(100000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 31 + 7);
    auto stream = memoryStream(bytes);
    AttachmentItem item(folder.file(L"offer.pdf"), stream.Get());
    EXPECT_EQ(item.save(), S_OK);
    EXPECT_TRUE(item.isSaved());
    EXPECT_EQ(readBytes(folder.file(L"offer.pdf")), bytes);
    // A drop target reading Outlook's stream afterwards still gets all of it.
    EXPECT_EQ(readRest(stream.Get()), bytes);
    EXPECT_EQ(GetFileAttributesW(folder.file(L"offer.pdf").c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
}

TEST(AttachmentSave, CopiesFromTheStartEvenAfterSomeoneReadTheStream)
{
    ScratchFolder folder;
    auto stream = memoryStream("0123456789");
    char peek[4];
    stream->Read(peek, 4, nullptr);
    AttachmentItem item(folder.file(L"digits.txt"), stream.Get());
    EXPECT_EQ(item.save(), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"digits.txt")), "0123456789");
}

TEST(AttachmentSave, ZeroLengthAttachment)
{
    ScratchFolder folder;
    auto stream = memoryStream("");
    AttachmentItem item(folder.file(L"empty.txt"), stream.Get());
    EXPECT_EQ(item.prepareFile(), S_OK);
    EXPECT_EQ(fileSize(folder.file(L"empty.txt")), 0u);
    EXPECT_EQ(item.save(), S_OK);
    EXPECT_EQ(fileSize(folder.file(L"empty.txt")), 0u);
}

TEST(AttachmentSave, PreparedFileHasTheFinalSizeThenTheContents)
{
    ScratchFolder folder;
    const std::string bytes(5000, 'z');
    auto stream = memoryStream(bytes);
    AttachmentItem item(folder.file(L"z.bin"), stream.Get());
    EXPECT_EQ(item.prepareFile(), S_OK);
    EXPECT_FALSE(item.isSaved());
    EXPECT_EQ(readBytes(folder.file(L"z.bin")), std::string(5000, '\0'));
    EXPECT_EQ(item.save(), S_OK);
    EXPECT_EQ(readBytes(folder.file(L"z.bin")), bytes);
}

TEST(AttachmentSave, SecondSaveTouchesNothing)
{
    ScratchFolder folder;
    LogCapture log(LOG_DEBUG);
    auto stream = memoryStream("once");
    AttachmentItem item(folder.file(L"once.txt"), stream.Get());
    ASSERT_EQ(item.save(), S_OK);
    DeleteFileW(folder.file(L"once.txt").c_str());
    EXPECT_EQ(item.save(), S_OK);
    EXPECT_EQ(item.prepareFile(), S_OK);
    EXPECT_FALSE(fileExists(folder.file(L"once.txt")));
    EXPECT_NE(log.contents().find("AttachmentItem:"), std::string::npos);
    EXPECT_NE(log.contents().find("already saved"), std::string::npos);
}

TEST(AttachmentFaults, FailedStatGivesNoPlaceholder)
{
    ScratchFolder folder;
    ComPtr<IStream> stream;
    stream = adoptCom(new FaultyStream(memoryStream("abc"), true, ~0ULL));
    AttachmentItem item(folder.file(L"a.txt"), stream.Get());
    EXPECT_EQ(item.prepareFile(), STG_E_ACCESSDENIED);
    EXPECT_FALSE(fileExists(folder.file(L"a.txt")));
}

TEST(AttachmentFaults, StreamFailingHalfWayIsReportedAndStillRewound)
{
    ScratchFolder folder;
    auto* faulty = new FaultyStream(memoryStream(std::string(100000, 'q')), false, 50000);
    ComPtr<IStream> stream;
    stream = adoptCom(faulty);
    AttachmentItem item(folder.file(L"broken.bin"), stream.Get());
    ASSERT_EQ(item.prepareFile(), S_OK);
    EXPECT_EQ(item.save(), STG_E_READFAULT);
    // Never half a file under its name: the placeholder as it was, nothing beside it.
    EXPECT_EQ(readBytes(folder.file(L"broken.bin")), std::string(100000, '\0'));
    EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"broken.bin"});
    EXPECT_TRUE(item.isSaved()); // not tried again by a later save of the list
    EXPECT_EQ(item.save(), S_OK);
    EXPECT_GE(faulty->seeks, 2); // rewound after the failed copy too
    ULARGE_INTEGER position{};
    LARGE_INTEGER zero{};
    faulty->Seek(zero, STREAM_SEEK_CUR, &position);
    EXPECT_EQ(position.QuadPart, 0u);
}

TEST(AttachmentFaults, UnwritableTargetIsReported)
{
    ScratchFolder folder;
    auto stream = memoryStream("data");
    AttachmentItem item(folder.file(L"missing\\folder\\x.txt"), stream.Get());
    EXPECT_TRUE(FAILED(item.save()));
    EXPECT_TRUE(item.isSaved());
    EXPECT_EQ(item.prepareFile(), S_OK);
}

TEST(AttachmentSize, TwoHundredMegabytesInBoundedMemory)
{
    ScratchFolder folder;
    const std::wstring source = folder.file(L"source.bin");
    constexpr ULONGLONG size = 200ULL * 1024 * 1024;
    {
        UniqueFile file(CreateFileW(source.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        ASSERT_TRUE(file.valid());
        std::string block(1024 * 1024, '\0');
        for (ULONGLONG offset = 0; offset < size; offset += block.size()) {
            for (size_t i = 0; i < block.size(); i += 4096)
                block[i] = static_cast<char>(offset / block.size());
            DWORD written = 0;
            ASSERT_TRUE(WriteFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &written, nullptr));
        }
    }
    ComPtr<IStream> stream;
    ASSERT_EQ(SHCreateStreamOnFileEx(source.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, 0, FALSE, nullptr, &stream),
              S_OK);

    PROCESS_MEMORY_COUNTERS before{};
    ASSERT_TRUE(GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof before));
    AttachmentItem item(folder.file(L"big.bin"), stream.Get());
    EXPECT_EQ(item.save(), S_OK);
    PROCESS_MEMORY_COUNTERS after{};
    ASSERT_TRUE(GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after));

    EXPECT_EQ(fileSize(folder.file(L"big.bin")), size);
    // No whole-file buffer: the peak grows by far less than the file.
    EXPECT_LT(after.PeakPagefileUsage - before.PeakPagefileUsage, 64u * 1024 * 1024);
    UniqueFile copy(CreateFileW(folder.file(L"big.bin").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER at{};
    at.QuadPart = 199LL * 1024 * 1024;
    ASSERT_TRUE(SetFilePointerEx(copy.get(), at, nullptr, FILE_BEGIN));
    char byte = 0;
    DWORD read = 0;
    ASSERT_TRUE(ReadFile(copy.get(), &byte, 1, &read, nullptr));
    EXPECT_EQ(byte, char(199));
}
