#include "dataobject/item_id_list.h"

#include "core/log.h"

namespace {

Logger logger("DataObjectHelper");

} // namespace

std::wstring parentFolderOf(const std::wstring& path)
{
    const size_t slash = path.find_last_of(L"\\/");
    if (slash == std::wstring::npos)
        return std::wstring();
    std::wstring folder = path.substr(0, slash);
    // A drive alone is the current folder of that drive; its root is meant.
    if (folder.size() == 2 && folder[1] == L':')
        folder += L'\\';
    return folder;
}

bool makeFileIdLists(const PathList& paths, FileIdLists& lists)
{
    lists = FileIdLists{};
    if (paths.empty())
        return false;

    const std::wstring parentDir = parentFolderOf(paths.front());
    lists.parent.reset(ILCreateFromPathW(parentDir.c_str()));
    KV_DEBUG(logger) << "parent dir=" << parentDir << ", pidlParent=" << lists.parent.get();
    if (!lists.parent)
        return false;

    for (const std::wstring& path : paths) {
        UniquePidl file(ILCreateFromPathW(path.c_str()));
        if (!file) {
            KV_WARN(logger) << "no item-id list for " << path;
            continue;
        }
        auto child = reinterpret_cast<PCUITEMID_CHILD>(ILFindChild(lists.parent.get(), file.get()));
        if (child)
            lists.children.push_back(child);
        else
            KV_DEBUG(logger) << "not below the parent folder: " << path;
        lists.files.push_back(std::move(file));
        lists.filePaths.push_back(path);
    }
    return !lists.files.empty();
}
