#include "storage_tree.h"

#include "common/strings.h"

using Microsoft::WRL::ComPtr;

ComPtr<IStorage> openStorageFile(const std::wstring& path)
{
    ComPtr<IStorage> storage;
    StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr, IID_IStorage,
                     reinterpret_cast<void**>(storage.GetAddressOf()));
    return storage;
}

std::string restOf(IStream* stream)
{
    std::string bytes, buffer(1 << 20, '\0');
    ULONG read = 0;
    while (SUCCEEDED(stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &read)) && read > 0)
        bytes.append(buffer.data(), read);
    return bytes;
}

std::map<std::string, std::string> treeOf(IStorage* storage, const std::string& where)
{
    std::map<std::string, std::string> tree;
    STATSTG stat{};
    wchar_t clsid[40] = {};
    if (!storage || FAILED(storage->Stat(&stat, STATFLAG_NONAME)) || !StringFromGUID2(stat.clsid, clsid, 40))
        return {{where, "can't be read"}};
    tree[where] = "storage " + wideToUtf8(clsid);
    ComPtr<IEnumSTATSTG> elements;
    storage->EnumElements(0, nullptr, 0, &elements);
    for (STATSTG element{}; elements && elements->Next(1, &element, nullptr) == S_OK; CoTaskMemFree(element.pwcsName)) {
        const std::string path = where + "/" + wideToUtf8(element.pwcsName);
        const DWORD mode = STGM_READ | STGM_SHARE_EXCLUSIVE;
        ComPtr<IStorage> child;
        ComPtr<IStream> stream;
        if (element.type == STGTY_STORAGE) {
            storage->OpenStorage(element.pwcsName, nullptr, mode, nullptr, 0, &child);
            tree.merge(treeOf(child.Get(), path));
        } else if (SUCCEEDED(storage->OpenStream(element.pwcsName, nullptr, mode, 0, &stream))) {
            const std::string bytes = restOf(stream.Get());
            tree[path] = std::to_string(bytes.size()) + " bytes #" + std::to_string(std::hash<std::string>()(bytes));
        } else {
            tree[path] = "can't be read";
        }
    }
    return tree;
}
