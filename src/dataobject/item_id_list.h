#pragma once
// Shell item-id lists of the files of a drag: the first file's folder as the
// parent, each file's absolute list, and the parts below the parent.
#include <windows.h>
#include <shlobj.h>

#include <string>
#include <vector>

#include "common/unique_resource.h"
#include "dataobject/data_object_writer.h"

struct PidlTraits {
    using Type = PIDLIST_ABSOLUTE;
    static PIDLIST_ABSOLUTE invalid() { return nullptr; }
    static void close(PIDLIST_ABSOLUTE pidl) { ::ILFree(pidl); }
};
using UniquePidl = UniqueResource<PidlTraits>;

struct FileIdLists {
    UniquePidl parent;                     // the folder of the first path
    std::vector<UniquePidl> files;         // one absolute list per path that has one
    std::vector<std::wstring> filePaths;   // the paths of `files`, index for index
    std::vector<PCUITEMID_CHILD> children; // the parts of `files` below `parent`; they point into `files`
};

// The folder part of a path ("C:\T" for "C:\T\a.msg", "C:\" for "C:\a.msg").
std::wstring parentFolderOf(const std::wstring& path);

// Builds the lists ("parent dir=", ", pidlParent=" in the log). A path whose
// list cannot be made is skipped, a file outside the parent has no child part.
// False when the parent or every file list failed.
bool makeFileIdLists(const PathList& paths, FileIdLists& lists);
