#include "items/file_beside.h"

#include "core/log.h"
#include "common/unique_resource.h"

#include <shlwapi.h>

#include <atomic>
#include <cwchar>

namespace {

Logger logger("DDItem");

std::atomic<unsigned> besideCounter{0};
std::atomic<WriteStreamFilter> writeStreamFilter{nullptr};

HRESULT lastError()
{
    const DWORD error = GetLastError();
    return error ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

// A short name of its own in the final path's folder: it fits wherever the
// final name fits, and another save into the same folder (or a crashed one,
// whose leftovers the cleanup worker takes) never collides with it.
HRESULT createBeside(const std::wstring& finalPath, std::wstring& created)
{
    const size_t slash = finalPath.find_last_of(L"\\/");
    const std::wstring folder = slash == std::wstring::npos ? std::wstring() : finalPath.substr(0, slash + 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
        wchar_t name[40] = {};
        std::swprintf(name, 40, L"~kv%lx-%x.tmp", GetCurrentProcessId(), ++besideCounter);
        const std::wstring path = folder + name;
        const UniqueFile file(
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file) {
            created = path;
            return S_OK;
        }
        if (GetLastError() != ERROR_FILE_EXISTS && GetLastError() != ERROR_ALREADY_EXISTS)
            return lastError();
    }
    return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
}

// The file beside goes again unless it was moved, also when the writer threw.
class BesideFile {
public:
    explicit BesideFile(std::wstring path) : path_(std::move(path)) {}
    BesideFile(const BesideFile&) = delete;
    BesideFile& operator=(const BesideFile&) = delete;
    ~BesideFile()
    {
        if (!moved_ && !DeleteFileW(path_.c_str()))
            KV_WARN(logger) << "Failed to delete " << path_ << ", error=" << GetLastError();
    }
    const std::wstring& path() const { return path_; }
    void moved() { moved_ = true; }

private:
    std::wstring path_;
    bool moved_ = false;
};

} // namespace

HRESULT writeBesideThenMove(const std::wstring& finalPath, const std::function<HRESULT(const std::wstring& path)>& write)
{
    std::wstring created;
    HRESULT hr = createBeside(finalPath, created);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "cannot create a file beside \"" << finalPath << "\", hr=" << hr;
        return hr;
    }
    BesideFile beside(created);
    KV_DEBUG(logger) << "writing \"" << finalPath << "\" as \"" << beside.path() << "\"";
    hr = write(beside.path());
    if (FAILED(hr)) {
        KV_ERROR(logger) << "writing \"" << finalPath << "\" failed, hr=" << hr << ", the file is left as it was";
        return hr;
    }
    if (!MoveFileExW(beside.path().c_str(), finalPath.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        hr = lastError();
        KV_ERROR(logger) << "moving \"" << beside.path() << "\" over \"" << finalPath << "\" failed, hr=" << hr;
        return hr;
    }
    beside.moved();
    return S_OK;
}

HRESULT openStreamForWriting(const std::wstring& path, Microsoft::WRL::ComPtr<IStream>& stream)
{
    Microsoft::WRL::ComPtr<IStream> file;
    const HRESULT hr = SHCreateStreamOnFileEx(path.c_str(), STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE,
                                              FILE_ATTRIBUTE_NORMAL, TRUE, nullptr, &file);
    if (FAILED(hr))
        return hr;
    const WriteStreamFilter filter = writeStreamFilter.load();
    stream = filter ? filter(file.Get()) : file;
    return stream ? S_OK : E_UNEXPECTED;
}

void filterWriteStreams(WriteStreamFilter filter)
{
    writeStreamFilter = filter;
}
