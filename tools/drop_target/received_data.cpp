#include "received_data.h"

#include <shellapi.h>
#include <shlobj.h>
#include <wrl/client.h>

#include <string>

namespace {

using Microsoft::WRL::ComPtr;

// A medium handed out by GetData, released on every way out.
class Medium {
public:
    Medium() = default;
    ~Medium()
    {
        if (got_)
            ReleaseStgMedium(&medium_);
    }
    Medium(const Medium&) = delete;
    Medium& operator=(const Medium&) = delete;

    bool get(IDataObject* dataObject, CLIPFORMAT format)
    {
        FORMATETC request{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
        got_ = SUCCEEDED(dataObject->GetData(&request, &medium_)) && medium_.tymed == TYMED_HGLOBAL;
        return got_ && medium_.hGlobal;
    }
    HGLOBAL memory() const { return medium_.hGlobal; }

private:
    STGMEDIUM medium_{};
    bool got_ = false;
};

class Locked {
public:
    explicit Locked(HGLOBAL memory) : memory_(memory), data_(GlobalLock(memory)) {}
    ~Locked()
    {
        if (data_)
            GlobalUnlock(memory_);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    const void* data() const { return data_; }
    size_t size() const { return data_ ? GlobalSize(memory_) : 0; }

private:
    HGLOBAL memory_;
    void* data_;
};

std::wstring formatName(CLIPFORMAT format)
{
    switch (format) {
    case CF_TEXT: return L"CF_TEXT";
    case CF_UNICODETEXT: return L"CF_UNICODETEXT";
    case CF_OEMTEXT: return L"CF_OEMTEXT";
    case CF_HDROP: return L"CF_HDROP";
    case CF_LOCALE: return L"CF_LOCALE";
    default: break;
    }
    wchar_t name[256] = {};
    if (GetClipboardFormatNameW(format, name, 256) > 0)
        return name;
    return L"#" + std::to_wstring(format);
}

void readFormats(IDataObject* dataObject, DropEvent& event)
{
    ComPtr<IEnumFORMATETC> formats;
    if (FAILED(dataObject->EnumFormatEtc(DATADIR_GET, &formats)) || !formats)
        return;
    FORMATETC format{};
    ULONG fetched = 0;
    // Bounded: a broken enumerator must not keep the target busy for ever.
    for (int i = 0; i < 1000 && formats->Next(1, &format, &fetched) == S_OK && fetched == 1; ++i) {
        if (format.ptd)
            CoTaskMemFree(format.ptd);
        event.formats.push_back(formatName(format.cfFormat));
    }
}

void readDescriptorNames(IDataObject* dataObject, DropEvent& event)
{
    Medium medium;
    if (!medium.get(dataObject, static_cast<CLIPFORMAT>(RegisterClipboardFormatW(CFSTR_FILEDESCRIPTORW))))
        return;
    Locked block(medium.memory());
    if (block.size() < sizeof(UINT))
        return;
    const auto* group = static_cast<const FILEGROUPDESCRIPTORW*>(block.data());
    const size_t room = (block.size() - sizeof(UINT)) / sizeof(FILEDESCRIPTORW);
    const size_t count = group->cItems < room ? group->cItems : room;
    for (size_t i = 0; i < count; ++i) {
        const wchar_t* name = group->fgd[i].cFileName;
        size_t length = 0;
        while (length < MAX_PATH && name[length])
            ++length;
        event.descriptorNames.emplace_back(name, length);
    }
}

void readFiles(IDataObject* dataObject, DropEvent& event)
{
    Medium medium;
    if (!medium.get(dataObject, CF_HDROP))
        return;
    const auto drop = static_cast<HDROP>(medium.memory());
    const UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0);
    for (UINT i = 0; i < count; ++i) {
        const UINT length = DragQueryFileW(drop, i, nullptr, 0);
        std::wstring path(length + 1, L'\0');
        DragQueryFileW(drop, i, path.data(), length + 1);
        path.resize(length);
        ReceivedFile file;
        file.path = path;
        file.hash = fileHash(path, &file.size);
        if (file.hash.empty())
            event.error += "unreadable file " + std::to_string(i) + "; ";
        WIN32_FILE_ATTRIBUTE_DATA attributes{};
        if (GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attributes))
            file.lastWrite = (static_cast<uint64_t>(attributes.ftLastWriteTime.dwHighDateTime) << 32) |
                             attributes.ftLastWriteTime.dwLowDateTime;
        event.files.push_back(file);
    }
}

void readText(IDataObject* dataObject, DropEvent& event)
{
    Medium medium;
    if (!medium.get(dataObject, CF_UNICODETEXT))
        return;
    Locked block(medium.memory());
    const auto* text = static_cast<const wchar_t*>(block.data());
    if (!text)
        return;
    const size_t units = block.size() / sizeof(wchar_t);
    size_t length = 0;
    while (length < units && text[length])
        ++length;
    event.hasText = true;
    event.text.assign(text, length);
}

} // namespace

DropEvent readReceivedData(IDataObject* dataObject, const char* kind, int64_t startTicks)
{
    DropEvent event;
    event.kind = kind;
    event.dropTicks = startTicks;
    if (!dataObject) {
        event.error = "no data object";
        event.completeTicks = performanceTicks();
        return event;
    }
    readFiles(dataObject, event);
    event.completeTicks = performanceTicks();
    readFormats(dataObject, event);
    readDescriptorNames(dataObject, event);
    readText(dataObject, event);
    return event;
}
