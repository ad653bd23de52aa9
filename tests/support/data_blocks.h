#pragma once
// What a data object gives, read back the way a drop target reads it.
#include <windows.h>
#include <objidl.h>
#include <shellapi.h>

#include <optional>
#include <string>
#include <vector>

// GetData's bytes in a memory block, or nothing.
inline std::optional<std::string> fetch(IDataObject* object, CLIPFORMAT format)
{
    FORMATETC request{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    if (!object || FAILED(object->GetData(&request, &medium)) || medium.tymed != TYMED_HGLOBAL)
        return std::nullopt;
    std::string bytes(static_cast<const char*>(GlobalLock(medium.hGlobal)), GlobalSize(medium.hGlobal));
    GlobalUnlock(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return bytes;
}

// The paths of a CF_HDROP block.
inline std::vector<std::wstring> filesOfDrop(HDROP drop)
{
    std::vector<std::wstring> files(DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0));
    for (UINT i = 0; i < files.size(); ++i) {
        wchar_t path[MAX_PATH * 2] = {};
        DragQueryFileW(drop, i, path, MAX_PATH * 2);
        files[i] = path;
    }
    return files;
}

// The files a data object offers as CF_HDROP, none when it offers none.
inline std::vector<std::wstring> droppedFiles(IDataObject* object)
{
    FORMATETC request{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    if (!object || FAILED(object->GetData(&request, &medium)))
        return {};
    std::vector<std::wstring> files = filesOfDrop(static_cast<HDROP>(medium.hGlobal));
    ReleaseStgMedium(&medium);
    return files;
}
