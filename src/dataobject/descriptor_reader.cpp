// Reading the file group descriptor out of a data object, and the unique,
// safe paths it names.
#include "dataobject/data_object_reader.h"

#include "core/log.h"
#include "dataobject/descriptor_block.h"
#include "dataobject/file_names.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/stg_medium.h"

#include <shlobj.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

Logger logger("DataObjectHelper");

// descriptor_block reads the system's descriptors by these numbers.
static_assert(offsetof(FILEGROUPDESCRIPTORW, fgd) == descriptor_block::countBytes &&
              offsetof(FILEGROUPDESCRIPTORA, fgd) == descriptor_block::countBytes);
static_assert(sizeof(FILEDESCRIPTORW) == descriptor_block::wideDescriptorBytes &&
              sizeof(FILEDESCRIPTORA) == descriptor_block::ansiDescriptorBytes);
static_assert(offsetof(FILEDESCRIPTORW, cFileName) == descriptor_block::headerBytes &&
              offsetof(FILEDESCRIPTORA, cFileName) == descriptor_block::headerBytes);
static_assert(sizeof(FILEDESCRIPTORW::cFileName) == 2 * descriptor_block::nameUnits &&
              sizeof(FILEDESCRIPTORA::cFileName) == descriptor_block::nameUnits);

using Microsoft::WRL::ComPtr;

std::span<const std::byte> bytesOf(const GlobalLockGuard& lock)
{
    return {static_cast<const std::byte*>(lock.data()), lock.size()};
}

// A descriptor block in an HGLOBAL; anything else a hostile object may answer
// with (another medium, a null handle) counts as not offered.
HRESULT getDescriptorMedium(IDataObject* dataObject, CLIPFORMAT format, UniqueStgMedium& medium)
{
    FORMATETC request = hglobalFormat(format);
    HRESULT hr = dataObject->GetData(&request, medium.put());
    if (FAILED(hr)) {
        medium.release(); // a failed GetData owes no medium; never release what it may have scribbled
        return hr;
    }
    if (medium->tymed != TYMED_HGLOBAL || !medium->hGlobal) {
        KV_WARN(logger) << "descriptor format " << format << " came as tymed=" << medium->tymed
                        << " without a memory block";
        medium.reset();
        return DV_E_TYMED;
    }
    return hr;
}

// The wide block, copied byte for byte into a block the caller owns.
HGLOBAL copyWideDescriptor(HGLOBAL source)
{
    const SIZE_T size = GlobalSize(source);
    UniqueGlobal copy(GlobalAlloc(GMEM_MOVEABLE, size));
    if (!copy) {
        KV_ERROR(logger) << "GlobalAlloc(" << size << ") for the descriptor failed, err=" << GetLastError();
        return nullptr;
    }
    GlobalLockGuard from(source);
    GlobalLockGuard to(copy.get());
    if (from && to)
        std::memcpy(to.data(), from.data(), std::min(from.size(), to.size()));
    return copy.release();
}

size_t ansiNameToWide(std::span<const char> name, std::span<char16_t> out)
{
    static_assert(sizeof(wchar_t) == sizeof(char16_t), "a Windows wide character is a UTF-16 unit");
    const int units = MultiByteToWideChar(CP_ACP, 0, name.data(), static_cast<int>(name.size()),
                                          reinterpret_cast<wchar_t*>(out.data()), static_cast<int>(out.size()));
    return units > 0 ? static_cast<size_t>(units) : 0;
}

// The ANSI block made wide; the new block is sized by the descriptors the
// ANSI block really holds, not by the count it declares.
HGLOBAL convertAnsiDescriptor(HGLOBAL source)
{
    GlobalLockGuard from(source);
    const auto ansi = bytesOf(from);
    const size_t size = descriptor_block::wideSizeForAnsi(ansi);
    UniqueGlobal wide(GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT | GMEM_SHARE, size));
    if (!wide) {
        KV_ERROR(logger) << "GlobalAlloc(" << size << ") for the wide descriptor failed, err=" << GetLastError();
        return nullptr;
    }
    GlobalLockGuard to(wide.get());
    if (!to)
        return nullptr;
    const size_t converted = descriptor_block::convertAnsiToWide(
        ansi, {static_cast<std::byte*>(to.data()), to.size()}, ansiNameToWide);
    KV_DEBUG(logger) << "converted ANSI descriptors=" << converted;
    to.unlock();
    return wide.release();
}

} // namespace

HGLOBAL getFileGroupDescriptorFromDataObject(IDataObject* dataObject)
{
    KV_DEBUG(logger) << "getFileGroupDescriptorFromDataObject(dataObject=" << dataObject;
    if (!dataObject) {
        KV_DEBUG(logger) << ")getFileGroupDescriptorFromDataObject=" << static_cast<void*>(nullptr);
        return nullptr;
    }
    const ComPtr<IDataObject> hold(dataObject);
    const ClipboardFormats& formats = registeredFormats();

    HGLOBAL result = nullptr;
    UniqueStgMedium medium;
    HRESULT hr = getDescriptorMedium(dataObject, formats.fileGroupDescriptorW, medium);
    KV_DEBUG(logger) << "GetData(FileGroupDescriptorW) hr=" << hr;
    if (SUCCEEDED(hr)) {
        result = copyWideDescriptor(medium->hGlobal);
    } else {
        hr = getDescriptorMedium(dataObject, formats.fileGroupDescriptor, medium);
        KV_DEBUG(logger) << "GetData(FileGroupDescriptor) hr=" << hr;
        if (SUCCEEDED(hr))
            result = convertAnsiDescriptor(medium->hGlobal);
    }
    KV_DEBUG(logger) << ")getFileGroupDescriptorFromDataObject=" << result;
    return result;
}

void getFileNamesFromGroupDescr(HGLOBAL descriptor, const std::wstring& tempDir, std::vector<std::wstring>& paths)
{
    KV_DEBUG(logger) << "getFileNamesFromGroupDescr(descriptor=" << descriptor << ", tempDir=" << tempDir;
    GlobalLockGuard lock(descriptor);
    if (!lock) {
        KV_WARN(logger) << "cannot lock the descriptor block " << descriptor;
        KV_DEBUG(logger) << ")getFileNamesFromGroupDescr";
        return;
    }
    const std::vector<std::wstring> givenNames = descriptor_block::readWideNames(bytesOf(lock));
    lock.unlock();

    const long long maxLength = maxFileNameLength(tempDir);
    KV_DEBUG(logger) << "cItems=" << givenNames.size() << ", maxFileNameLength=" << maxLength;
    UniqueFileNames names(maxLength, givenNames.size());
    paths.reserve(paths.size() + givenNames.size());
    for (const std::wstring& givenName : givenNames)
        paths.push_back(joinFolderAndName(tempDir, names.next(givenName)));
    KV_DEBUG(logger) << ")getFileNamesFromGroupDescr";
}
