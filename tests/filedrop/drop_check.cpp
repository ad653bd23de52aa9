#include "drop_check.h"

#include "common/unique_resource.h"
#include "items/msg_storage.h"

#include <shellapi.h>
#include <wrl/client.h>

#include <algorithm>

namespace {

// The medium of one GetData, released whatever happens.
class Medium {
public:
    Medium() = default;
    ~Medium() { ReleaseStgMedium(&medium_); }
    Medium(const Medium&) = delete;
    Medium& operator=(const Medium&) = delete;
    STGMEDIUM* put() { return &medium_; }
    const STGMEDIUM& get() const { return medium_; }

private:
    STGMEDIUM medium_{};
};

} // namespace

std::vector<std::wstring> pathsOfHdrop(HDROP drop)
{
    std::vector<std::wstring> paths;
    const UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0);
    for (UINT i = 0; i < count; ++i) {
        const UINT length = DragQueryFileW(drop, i, nullptr, 0);
        std::wstring path(length + 1, L'\0');
        DragQueryFileW(drop, i, path.data(), length + 1);
        path.resize(length);
        paths.push_back(path);
    }
    return paths;
}

std::vector<std::wstring> hdropPathsOf(IDataObject* dataObject)
{
    FORMATETC format{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    Medium medium;
    if (!dataObject || FAILED(dataObject->GetData(&format, medium.put())) || medium.get().tymed != TYMED_HGLOBAL)
        return {};
    return pathsOfHdrop(static_cast<HDROP>(medium.get().hGlobal));
}

std::wstring unicodeTextOf(IDataObject* dataObject)
{
    FORMATETC format{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    Medium medium;
    if (!dataObject || FAILED(dataObject->GetData(&format, medium.put())) || medium.get().tymed != TYMED_HGLOBAL)
        return L"";
    const SIZE_T bytes = GlobalSize(medium.get().hGlobal);
    const auto* text = static_cast<const wchar_t*>(GlobalLock(medium.get().hGlobal));
    if (!text)
        return L"";
    const size_t units = bytes / sizeof(wchar_t);
    const std::wstring result(text, std::find(text, text + units, L'\0'));
    GlobalUnlock(medium.get().hGlobal);
    return result;
}

bool offersFormat(IDataObject* dataObject, CLIPFORMAT format)
{
    FORMATETC request{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    return dataObject && dataObject->QueryGetData(&request) == S_OK;
}

namespace {

std::vector<std::wstring> listFolder(const std::wstring& folder, bool foldersOnly, bool fullPaths)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found{};
    UniqueFindHandle search(FindFirstFileW((folder + L"\\*").c_str(), &found));
    if (!search)
        return names;
    do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..")
            continue;
        if (foldersOnly && !(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            continue;
        names.push_back(fullPaths ? folder + L"\\" + name : name);
    } while (FindNextFileW(search.get(), &found));
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

std::vector<std::wstring> entriesOf(const std::wstring& folder)
{
    return listFolder(folder, false, false);
}

std::vector<std::wstring> subfoldersOf(const std::wstring& folder)
{
    return listFolder(folder, true, true);
}

ULONGLONG fileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

HRESULT subjectOfMsgFile(const std::wstring& path, std::wstring& subject)
{
    Microsoft::WRL::ComPtr<IStorage> storage;
    HRESULT hr = StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_STORAGE, 0, nullptr,
                                  nullptr, IID_IStorage, reinterpret_cast<void**>(storage.GetAddressOf()));
    if (FAILED(hr))
        return hr;
    StoredMessage message;
    hr = readStoredMessage(storage.Get(), message);
    if (FAILED(hr))
        return hr;
    const StoredProperty* property = findStoredProperty(message.properties, 0x0037);
    if (!property)
        return STG_E_FILENOTFOUND;
    subject.assign(reinterpret_cast<const wchar_t*>(property->bytes.data()), property->bytes.size() / sizeof(wchar_t));
    return S_OK;
}
