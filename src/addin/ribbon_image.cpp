#include "addin/ribbon_image.h"

#include "addin/gdiplus_session.h"
#include "core/log.h"
#include "common/com_variant.h"
#include "common/module_path.h"
#include "common/strings.h"
#include "core/base64.h"
#include "core/reg_util.h"

#include <objidl.h>
#include <olectl.h>
#include <gdiplus.h>
#include <wrl/client.h>

using Microsoft::WRL::ComPtr;

namespace {

Logger logger("KVDragDropAddin");

constexpr std::wstring_view registryTagPrefix = L"reg:";
// The registry value starts with a marker of this length ("base64:").
constexpr size_t registryValueMarkerLength = 7;

UniqueGlobal loadImageFromRegistry(const std::wstring& keyPath)
{
    const std::wstring value = RegUtil::readString(keyPath);
    if (value.size() <= registryValueMarkerLength) {
        KV_DEBUG(logger) << "no image in registry value " << keyPath;
        return {};
    }
    const auto bytes = decodeBase64(wideToUtf8(std::wstring_view(value).substr(registryValueMarkerLength)));
    if (!bytes || bytes->empty()) {
        KV_WARN(logger) << "registry value " << keyPath << " is not Base64";
        return {};
    }
    return UniqueGlobal(globalFromBytes(bytes->data(), bytes->size()));
}

} // namespace

std::wstring getRibbonButtonTag(IDispatch* control)
{
    UniqueVariant tag;
    if (!control || FAILED(getDispatchProperty(control, L"Tag", nullptr, 0, tag)))
        return L"";
    return tag.text();
}

UniqueGlobal loadFileIntoMem(const std::wstring& path)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        KV_DEBUG(logger) << "CreateFile failed, err=" << GetLastError() << ", file=" << path;
        return {};
    }
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.get(), &size) || size.QuadPart > MAXDWORD) {
        KV_WARN(logger) << "file too large or size unknown: " << path;
        return {};
    }
    const DWORD total = static_cast<DWORD>(size.QuadPart);
    UniqueGlobal memory(GlobalAlloc(GMEM_MOVEABLE, total ? total : 1));
    if (!memory)
        return {};
    {
        GlobalLockGuard locked(memory.get());
        if (!locked)
            return {};
        auto* bytes = locked.as<BYTE>();
        DWORD done = 0;
        while (done < total) {
            DWORD read = 0;
            if (!ReadFile(file.get(), bytes + done, total - done, &read, nullptr) || read == 0)
                break;
            done += read;
        }
        if (done < total) {
            KV_WARN(logger) << "ReadFile stopped at " << done << " of " << total << " bytes, err=" << GetLastError();
            return {};
        }
    }
    return memory;
}

UniqueGlobal loadImageNamedByTag(const std::wstring& tag, HMODULE module)
{
    if (tag.empty())
        return {};
    if (startsWith(tag, registryTagPrefix))
        return loadImageFromRegistry(tag.substr(registryTagPrefix.size()));
    KV_DEBUG(logger) << "assume buttonTag is fileName=" << tag;
    const std::wstring modulePathText = modulePath(module, 1000);
    if (modulePathText.empty())
        return {};
    return loadFileIntoMem(replaceFileName(modulePathText, tag));
}

HRESULT loadPngResource(HMODULE module, WORD id, UniqueGlobal& memory)
{
    HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(id), L"PNG");
    HGLOBAL loaded = resource ? LoadResource(module, resource) : nullptr;
    const void* bytes = loaded ? LockResource(loaded) : nullptr;
    const DWORD size = resource ? SizeofResource(module, resource) : 0;
    if (!bytes || size == 0) {
        const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
        KV_ERROR(logger) << "PNG resource " << id << " not found, hr=" << hr;
        return FAILED(hr) ? hr : E_FAIL;
    }
    memory.reset(globalFromBytes(bytes, size));
    return memory ? S_OK : E_OUTOFMEMORY;
}

UniqueIcon iconFromImage(UniqueGlobal memory)
{
    if (!memory || !GdiplusSession::instance().ensureStarted())
        return {};
    ComPtr<IStream> stream;
    HRESULT hr = CreateStreamOnHGlobal(memory.get(), TRUE, &stream);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "CreateStreamOnHGlobal failed, hr=" << hr;
        return {};
    }
    memory.release(); // the stream frees it now

    Gdiplus::GpBitmap* bitmap = nullptr;
    Gdiplus::Status status = Gdiplus::DllExports::GdipCreateBitmapFromStream(stream.Get(), &bitmap);
    if (status != Gdiplus::Ok) {
        KV_WARN(logger) << "image can't be decoded, status=" << static_cast<int>(status);
        return {};
    }
    UniqueIcon icon;
    status = Gdiplus::DllExports::GdipCreateHICONFromBitmap(bitmap, icon.put());
    Gdiplus::DllExports::GdipDisposeImage(bitmap);
    if (status != Gdiplus::Ok) {
        KV_WARN(logger) << "GetHICON failed, status=" << static_cast<int>(status);
        return {};
    }
    return icon;
}

HRESULT pictureFromIcon(HICON icon, IPictureDisp** picture)
{
    if (!picture)
        return E_POINTER;
    *picture = nullptr;
    if (!icon)
        return E_FAIL;
    UniqueIcon copy(CopyIcon(icon));
    if (!copy)
        return HRESULT_FROM_WIN32(GetLastError());
    PICTDESC description{};
    description.cbSizeofstruct = sizeof description;
    description.picType = PICTYPE_ICON;
    description.icon.hicon = copy.get();
    const HRESULT hr = OleCreatePictureIndirect(&description, IID_IPictureDisp, TRUE,
                                                reinterpret_cast<void**>(picture));
    if (SUCCEEDED(hr))
        copy.release(); // the picture owns it now
    return hr;
}
