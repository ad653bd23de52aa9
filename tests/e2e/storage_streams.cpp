#include "storage_streams.h"

#include <objbase.h>
#include <wrl/client.h>

namespace {

using Microsoft::WRL::ComPtr;

HRESULT readAll(IStorage* storage, const std::wstring& prefix, std::map<std::wstring, std::string>& streams)
{
    ComPtr<IEnumSTATSTG> entries;
    HRESULT hr = storage->EnumElements(0, nullptr, 0, &entries);
    if (FAILED(hr))
        return hr;
    STATSTG entry{};
    while (entries->Next(1, &entry, nullptr) == S_OK) {
        const std::wstring name = entry.pwcsName ? entry.pwcsName : L"";
        CoTaskMemFree(entry.pwcsName);
        if (entry.type == STGTY_STORAGE) {
            ComPtr<IStorage> child;
            hr = storage->OpenStorage(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &child);
            if (FAILED(hr) || FAILED(hr = readAll(child.Get(), prefix + name + L"/", streams)))
                return hr;
        } else if (entry.type == STGTY_STREAM) {
            ComPtr<IStream> stream;
            hr = storage->OpenStream(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
            if (FAILED(hr))
                return hr;
            std::string bytes(static_cast<size_t>(entry.cbSize.QuadPart), '\0');
            ULONG read = 0;
            if (!bytes.empty() && FAILED(hr = stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read)))
                return hr;
            bytes.resize(read);
            streams[prefix + name] = bytes;
        }
    }
    return S_OK;
}

} // namespace

HRESULT readStorageStreams(const std::wstring& path, std::map<std::wstring, std::string>& streams)
{
    ComPtr<IStorage> storage;
    HRESULT hr = StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_STORAGE, 0, nullptr,
                                  nullptr, IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf()));
    if (FAILED(hr))
        return hr;
    return readAll(storage.Get(), L"", streams);
}
