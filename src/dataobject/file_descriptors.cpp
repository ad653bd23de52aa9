// "FileGroupDescriptorW" and "FileGroupDescriptor" naming the real files, so
// a target that reads descriptors sees the same names as in CF_HDROP.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"

#include <shlobj.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace {

Logger logger("DataObjectHelper");

// The layout every program reading descriptors expects, in both bitnesses.
static_assert(sizeof(FILEDESCRIPTORW) == 592 && sizeof(FILEGROUPDESCRIPTORW) == 596, "wide descriptor layout");
static_assert(sizeof(FILEDESCRIPTORA) == 332 && sizeof(FILEGROUPDESCRIPTORA) == 336, "ANSI descriptor layout");
static_assert(offsetof(FILEGROUPDESCRIPTORW, fgd) == 4 && offsetof(FILEGROUPDESCRIPTORA, fgd) == 4);
static_assert(offsetof(FILEDESCRIPTORW, dwFlags) == 0 && offsetof(FILEDESCRIPTORA, dwFlags) == 0);
static_assert(offsetof(FILEDESCRIPTORW, nFileSizeHigh) == 64 && offsetof(FILEDESCRIPTORA, nFileSizeHigh) == 64);
static_assert(offsetof(FILEDESCRIPTORW, cFileName) == 72 && offsetof(FILEDESCRIPTORA, cFileName) == 72);

constexpr size_t nameRoom = MAX_PATH; // cFileName, with its NUL

// The file name and extension of a path, as the descriptor carries it.
std::wstring descriptorName(const std::wstring& path)
{
    wchar_t name[256] = {};
    wchar_t extension[256] = {};
    if (_wsplitpath_s(path.c_str(), nullptr, 0, nullptr, 0, name, 256, extension, 256) == 0)
        return std::wstring(name) + extension;
    // A name too long for the split buffers: the last component as it stands.
    const size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

// The name in the ANSI code page, cut to whole characters that fit `room` - 1 bytes.
std::string ansiName(const std::wstring& name, size_t room)
{
    const int bytes = WideCharToMultiByte(CP_ACP, 0, name.c_str(), static_cast<int>(name.size()), nullptr, 0,
                                          nullptr, nullptr);
    std::string converted(bytes > 0 ? static_cast<size_t>(bytes) : 0, '\0');
    if (bytes > 0)
        WideCharToMultiByte(CP_ACP, 0, name.c_str(), static_cast<int>(name.size()), converted.data(), bytes,
                            nullptr, nullptr);
    size_t end = 0;
    while (end < converted.size()) {
        const size_t step = IsDBCSLeadByte(static_cast<BYTE>(converted[end])) ? 2 : 1;
        if (end + step > room - 1)
            break;
        end += step;
    }
    converted.resize(end);
    return converted;
}

// The count and one zeroed descriptor per path with only its name written;
// the block keeps one spare zeroed descriptor behind the last.
template <typename Group, typename WriteName>
HGLOBAL createGroup(const PathList& paths, WriteName writeName)
{
    using Descriptor = std::remove_extent_t<decltype(Group::fgd)>;
    const SIZE_T size = sizeof(Group) + paths.size() * sizeof(Descriptor);
    UniqueGlobal memory(GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT | GMEM_SHARE, size));
    GlobalLockGuard lock(memory.get());
    if (!lock) {
        KV_ERROR(logger) << "no memory for a file group descriptor of " << size << " bytes";
        return nullptr;
    }
    auto* group = lock.as<Group>();
    group->cItems = static_cast<UINT>(paths.size());
    // fgd is declared with one element; the block has room for all of them.
    Descriptor* descriptors = group->fgd;
    for (size_t i = 0; i < paths.size(); ++i) {
        descriptors[i].dwFlags = 0;
        writeName(descriptors[i].cFileName, descriptorName(paths[i]));
    }
    lock.unlock();
    return memory.release();
}

HGLOBAL createFileGroupDescriptorW(const PathList& paths)
{
    return createGroup<FILEGROUPDESCRIPTORW>(paths, [](wchar_t* field, const std::wstring& name) {
        const std::wstring cut = name.substr(0, nameRoom - 1);
        std::memcpy(field, cut.c_str(), (cut.size() + 1) * sizeof(wchar_t));
    });
}

HGLOBAL createFileGroupDescriptorA(const PathList& paths)
{
    return createGroup<FILEGROUPDESCRIPTORA>(paths, [](char* field, const std::wstring& name) {
        const std::string ansi = ansiName(name, nameRoom);
        std::memcpy(field, ansi.c_str(), ansi.size() + 1);
    });
}

HRESULT setDescriptor(IDataObject* dataObject, CLIPFORMAT format, HGLOBAL block, const char* name)
{
    UniqueGlobal memory(block);
    const HRESULT hr = setGlobalData(dataObject, format, memory);
    KV_DEBUG(logger) << name << ", SetData hr=" << hr;
    return hr;
}

} // namespace

HRESULT setFileGroupDescriptors(const PathList& paths, IDataObject* dataObject)
{
    KV_DEBUG(logger) << "setFileGroupDescriptors(#paths=" << paths.size();
    if (!dataObject)
        return E_POINTER;
    const ClipboardFormats& formats = registeredFormats();
    const HRESULT wide = setDescriptor(dataObject, formats.fileGroupDescriptorW, createFileGroupDescriptorW(paths),
                                       "FileGroupDescriptorW");
    const HRESULT ansi = setDescriptor(dataObject, formats.fileGroupDescriptor, createFileGroupDescriptorA(paths),
                                       "FileGroupDescriptor");
    const HRESULT hr = FAILED(wide) ? wide : ansi;
    KV_DEBUG(logger) << ")setFileGroupDescriptors=" << hr;
    return hr;
}
