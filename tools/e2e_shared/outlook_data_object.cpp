#include "e2e_shared/outlook_data_object.h"
#include "common/com_ptr.h"

#include "dataobject/stg_medium.h"

#include <ole2.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

using Microsoft::WRL::ComPtr;

constexpr size_t nameUnits = 260;

CLIPFORMAT registered(const wchar_t* name)
{
    return static_cast<CLIPFORMAT>(RegisterClipboardFormatW(name));
}

FORMATETC hglobalFormatEtc(CLIPFORMAT format)
{
    return FORMATETC{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
}

template <typename T>
void append(std::string& bytes, const T& value)
{
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// The block cut, or padded with zeros, to the size a hostile switch asks for.
std::string resized(std::string block, const std::optional<size_t>& size)
{
    if (size)
        block.resize(*size, '\0');
    return block;
}

FILEDESCRIPTORW fieldsOf(const OutlookEntry& entry)
{
    if (entry.fields)
        return *entry.fields;
    FILEDESCRIPTORW fields{};
    fields.dwFlags = FD_FILESIZE | FD_PROGRESSUI;
    fields.nFileSizeLow = static_cast<DWORD>(entry.bytes.size());
    return fields;
}

std::string wideBlock(const std::vector<OutlookEntry>& entries, const OutlookDataObjectOptions& options)
{
    std::string block;
    append(block, options.declaredCount.value_or(static_cast<uint32_t>(entries.size())));
    for (const OutlookEntry& entry : entries) {
        FILEDESCRIPTORW descriptor = fieldsOf(entry);
        std::memset(descriptor.cFileName, 0, sizeof descriptor.cFileName);
        std::wstring name = entry.fileName.substr(0, nameUnits - 1);
        if (options.namesWithoutNul)
            name.resize(nameUnits, L'x');
        std::memcpy(descriptor.cFileName, name.data(), name.size() * sizeof(wchar_t));
        append(block, descriptor);
    }
    return resized(std::move(block), options.wideBlockSize);
}

std::string ansiBlock(const std::vector<OutlookEntry>& entries, const OutlookDataObjectOptions& options)
{
    std::string block;
    append(block, options.declaredCount.value_or(static_cast<uint32_t>(entries.size())));
    for (const OutlookEntry& entry : entries) {
        const FILEDESCRIPTORW wide = fieldsOf(entry);
        FILEDESCRIPTORA descriptor{};
        static_assert(offsetof(FILEDESCRIPTORA, cFileName) == offsetof(FILEDESCRIPTORW, cFileName));
        std::memcpy(&descriptor, &wide, offsetof(FILEDESCRIPTORW, cFileName));
        char name[nameUnits] = {};
        WideCharToMultiByte(CP_ACP, 0, entry.fileName.c_str(), -1, name, nameUnits - 1, nullptr, nullptr);
        name[nameUnits - 1] = '\0';
        if (options.namesWithoutNul)
            std::fill(name + std::strlen(name), name + nameUnits, 'x');
        std::memcpy(descriptor.cFileName, name, nameUnits);
        append(block, descriptor);
    }
    return resized(std::move(block), options.ansiBlockSize);
}

std::string wideBytes(const std::wstring& text)
{
    return std::string(reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t));
}

// What Outlook's private formats roughly carry: entry ids and counts. Nobody
// reads them; they only have to be there, the way Outlook offers them.
std::string sourceFolderBlock()
{
    std::string bytes;
    append(bytes, uint32_t{1});
    bytes += std::string("\x00\x00\x00\x00KorvaneTestStoreFolder", 26);
    return bytes;
}

std::string messagesBlock(size_t count)
{
    std::string bytes;
    append(bytes, static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; ++i) {
        append(bytes, uint32_t{24});
        bytes += std::string(4, '\0') + "KorvaneTestEntry" + std::string(4, static_cast<char>('0' + i % 10));
    }
    return bytes;
}

std::string objectDescriptorBlock()
{
    const std::wstring typeName = L"Outlook Message";
    const std::wstring source = L"Microsoft Outlook";
    OBJECTDESCRIPTOR descriptor{};
    descriptor.cbSize = static_cast<ULONG>(sizeof descriptor + (typeName.size() + source.size() + 2) * sizeof(wchar_t));
    descriptor.dwDrawAspect = DVASPECT_CONTENT;
    descriptor.dwFullUserTypeName = sizeof descriptor;
    descriptor.dwSrcOfCopy = static_cast<DWORD>(sizeof descriptor + (typeName.size() + 1) * sizeof(wchar_t));
    std::string bytes;
    append(bytes, descriptor);
    return bytes + wideBytes(typeName) + wideBytes(source);
}

std::wstring receivedText(const std::optional<FILETIME>& time)
{
    SYSTEMTIME st{};
    if (!time || !FileTimeToSystemTime(&*time, &st))
        return L"";
    wchar_t text[32];
    std::swprintf(text, 32, L"%04u-%02u-%02u %02u:%02u", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute);
    return text;
}

std::wstring sizeText(const MsgContent& content)
{
    size_t bytes = content.body.size() * sizeof(wchar_t) + content.html.size();
    for (const MsgAttachment& attachment : content.attachments)
        bytes += attachment.bytes.size();
    return std::to_wstring(std::max<size_t>(1, (bytes + 1023) / 1024)) + L" KB";
}

HGLOBAL globalWith(const std::string& bytes)
{
    // GlobalAlloc of 0 bytes gives a handle that can't be locked: exactly the
    // empty block a hostile source hands out.
    HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, bytes.size());
    if (!memory || bytes.empty())
        return memory;
    void* data = GlobalLock(memory);
    if (!data) {
        GlobalFree(memory);
        return nullptr;
    }
    std::memcpy(data, bytes.data(), bytes.size());
    GlobalUnlock(memory);
    return memory;
}

// A stream that answers Stat with a size of its own choosing and passes
// everything else to a real memory stream.
class LyingStatStream : public ComObject<IStream> {
public:
    static ComPtr<IStream> wrap(ComPtr<IStream> inner, ULONGLONG reportedSize)
    {
        ComPtr<IStream> stream;
        stream = adoptCom(new LyingStatStream(std::move(inner), reportedSize));
        return stream;
    }

    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override
    {
        return inner_->Read(buffer, size, read);
    }
    HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) override
    {
        return inner_->Write(buffer, size, written);
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) override
    {
        return inner_->Seek(move, origin, position);
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override { return inner_->SetSize(size); }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                                     ULARGE_INTEGER* written) override
    {
        return inner_->CopyTo(target, size, read, written);
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override { return inner_->Commit(flags); }
    HRESULT STDMETHODCALLTYPE Revert() override { return inner_->Revert(); }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) override
    {
        return inner_->LockRegion(offset, size, type);
    }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) override
    {
        return inner_->UnlockRegion(offset, size, type);
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override
    {
        const HRESULT hr = inner_->Stat(stat, flags);
        if (SUCCEEDED(hr))
            stat->cbSize.QuadPart = reportedSize_;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream** clone) override
    {
        if (!clone)
            return E_POINTER;
        *clone = nullptr;
        ComPtr<IStream> inner;
        const HRESULT hr = inner_->Clone(&inner);
        if (FAILED(hr))
            return hr;
        *clone = wrap(std::move(inner), reportedSize_).Detach();
        return S_OK;
    }

protected:
    bool offers(REFIID riid) const override { return riid == IID_IStream || riid == IID_ISequentialStream; }

private:
    LyingStatStream(ComPtr<IStream> inner, ULONGLONG reportedSize) : inner_(std::move(inner)), reportedSize_(reportedSize)
    {
    }

    ComPtr<IStream> inner_;
    ULONGLONG reportedSize_;
};

ComPtr<IStream> memoryStream(const std::string& bytes)
{
    ComPtr<IStream> stream;
    stream = adoptCom(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    return stream;
}

} // namespace

OutlookEntry OutlookEntry::attachment(std::wstring fileName, std::string bytes)
{
    OutlookEntry entry;
    entry.fileName = std::move(fileName);
    entry.bytes = std::move(bytes);
    return entry;
}

OutlookEntry OutlookEntry::mailItem(std::wstring fileName, MsgContent content)
{
    OutlookEntry entry;
    entry.fileName = std::move(fileName);
    entry.mail = std::move(content);
    return entry;
}

ComPtr<OutlookDataObject> OutlookDataObject::create(std::vector<OutlookEntry> entries, OutlookDataObjectOptions options)
{
    ComPtr<OutlookDataObject> object;
    object = adoptCom(new OutlookDataObject(std::move(entries), std::move(options)));
    return object;
}

OutlookDataObject::OutlookDataObject(std::vector<OutlookEntry> entries, OutlookDataObjectOptions options)
    : entries_(std::move(entries)), options_(std::move(options))
{
    wideBlock_ = wideBlock(entries_, options_);
    ansiBlock_ = ansiBlock(entries_, options_);
    text_ = options_.text.value_or(tableText(entries_));
    fileContents_ = registered(L"FileContents");

    // Outlook's order: its private formats, the descriptors, the contents,
    // then the OLE and text formats.
    size_t mails = 0;
    for (const OutlookEntry& entry : entries_)
        mails += entry.isMail() ? 1 : 0;
    if (options_.offerPrivateFormats) {
        offered_.push_back({hglobalFormatEtc(registered(L"RenPrivateSourceFolder")), sourceFolderBlock()});
        offered_.push_back({hglobalFormatEtc(registered(L"RenPrivateMessages")), messagesBlock(mails)});
        offered_.push_back({hglobalFormatEtc(registered(L"RenPrivateItem")), messagesBlock(mails ? 1 : 0)});
    }
    const DescriptorForms forms = options_.descriptors;
    if (forms == DescriptorForms::AnsiOnly || forms == DescriptorForms::Both)
        offered_.push_back({hglobalFormatEtc(registered(L"FileGroupDescriptor")), ansiBlock_});
    if (forms == DescriptorForms::WideOnly || forms == DescriptorForms::Both)
        offered_.push_back({hglobalFormatEtc(registered(L"FileGroupDescriptorW")), wideBlock_});
    if (forms != DescriptorForms::None)
        offered_.push_back(
            {FORMATETC{fileContents_, nullptr, DVASPECT_CONTENT, -1, TYMED_ISTREAM | TYMED_ISTORAGE}, {}});
    if (options_.offerPrivateFormats)
        offered_.push_back({hglobalFormatEtc(registered(L"Object Descriptor")), objectDescriptorBlock()});
    if (options_.offerText)
        offered_.push_back({hglobalFormatEtc(CF_UNICODETEXT), wideBytes(text_)});
}

OutlookDataObject::~OutlookDataObject()
{
    for (SetFormat& set : set_)
        ReleaseStgMedium(&set.medium);
}

std::wstring OutlookDataObject::tableText(const std::vector<OutlookEntry>& entries)
{
    std::wstring text = L"From\tSubject\tReceived\tSize\r\n";
    for (const OutlookEntry& entry : entries) {
        if (!entry.isMail())
            continue;
        const MsgContent content = entry.mail.value_or(MsgContent{});
        text += content.senderName + L"\t" + content.subject + L"\t" + receivedText(content.deliveryTime) + L"\t" +
                sizeText(content) + L"\r\n";
    }
    return text;
}

unsigned OutlookDataObject::getDataCalls(CLIPFORMAT format) const
{
    const auto found = getDataCalls_.find(format);
    return found == getDataCalls_.end() ? 0 : found->second;
}

unsigned OutlookDataObject::getDataCalls(const wchar_t* formatName) const
{
    return getDataCalls(registered(formatName));
}

bool OutlookDataObject::wasSet(CLIPFORMAT format) const
{
    return std::any_of(set_.begin(), set_.end(), [&](const SetFormat& set) { return set.format.cfFormat == format; });
}

const OutlookDataObject::Offered* OutlookDataObject::findOffered(CLIPFORMAT format) const
{
    for (const Offered& offered : offered_)
        if (offered.format.cfFormat == format)
            return &offered;
    return nullptr;
}

OutlookDataObject::SetFormat* OutlookDataObject::findSet(CLIPFORMAT format)
{
    for (SetFormat& set : set_)
        if (set.format.cfFormat == format)
            return &set;
    return nullptr;
}

HRESULT OutlookDataObject::contents(const FORMATETC& format, STGMEDIUM& medium) const
{
    if (format.lindex < 0 || static_cast<size_t>(format.lindex) >= entries_.size())
        return DV_E_LINDEX;
    const OutlookEntry& entry = entries_[static_cast<size_t>(format.lindex)];
    if (FAILED(entry.contentsResult))
        return entry.contentsResult;

    if (entry.contentsAsHGlobal) {
        medium.hGlobal = globalWith(entry.bytes);
        if (!medium.hGlobal)
            return E_OUTOFMEMORY;
        medium.tymed = TYMED_HGLOBAL;
        return entry.contentsResult;
    }
    if (entry.isMail()) {
        if (!(format.tymed & TYMED_ISTORAGE))
            return DV_E_TYMED;
        ComPtr<IStorage> storage = entry.mail ? makeMsgInMemory(*entry.mail) : entry.storage;
        if (!storage)
            return E_OUTOFMEMORY;
        medium.tymed = TYMED_ISTORAGE;
        medium.pstg = storage.Detach();
        return entry.contentsResult;
    }
    if (!(format.tymed & TYMED_ISTREAM))
        return DV_E_TYMED;
    ComPtr<IStream> stream = memoryStream(entry.bytes);
    if (!stream)
        return E_OUTOFMEMORY;
    if (entry.reportedStreamSize)
        stream = LyingStatStream::wrap(std::move(stream), *entry.reportedStreamSize);
    medium.tymed = TYMED_ISTREAM;
    medium.pstm = stream.Detach();
    return entry.contentsResult;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::GetData(FORMATETC* format, STGMEDIUM* medium)
{
    if (!format || !medium)
        return E_INVALIDARG;
    ++getDataCalls_[format->cfFormat];
    *medium = STGMEDIUM{};
    if (!(format->dwAspect & DVASPECT_CONTENT))
        return DV_E_DVASPECT;

    if (SetFormat* set = findSet(format->cfFormat)) {
        if (!(format->tymed & set->medium.tymed))
            return DV_E_TYMED;
        return duplicateMedium(set->medium, format->cfFormat, *medium);
    }
    if (format->cfFormat == fileContents_) {
        contentsRequests_.push_back(format->lindex);
        if (!findOffered(fileContents_))
            return DV_E_FORMATETC;
        return contents(*format, *medium);
    }
    const Offered* offered = findOffered(format->cfFormat);
    if (!offered)
        return DV_E_FORMATETC;
    if (!(format->tymed & TYMED_HGLOBAL))
        return DV_E_TYMED;
    medium->hGlobal = globalWith(offered->bytes);
    if (!medium->hGlobal)
        return E_OUTOFMEMORY;
    medium->tymed = TYMED_HGLOBAL;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::GetDataHere(FORMATETC*, STGMEDIUM*)
{
    return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::QueryGetData(FORMATETC* format)
{
    if (!format)
        return E_INVALIDARG;
    if (!(format->dwAspect & DVASPECT_CONTENT))
        return DV_E_DVASPECT;
    if (SetFormat* set = findSet(format->cfFormat))
        return (format->tymed & set->medium.tymed) ? S_OK : DV_E_TYMED;
    const Offered* offered = findOffered(format->cfFormat);
    if (!offered)
        return DV_E_FORMATETC;
    return (format->tymed & offered->format.tymed) ? S_OK : DV_E_TYMED;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out)
{
    if (!in || !out)
        return E_INVALIDARG;
    *out = *in;
    out->ptd = nullptr;
    return DATA_S_SAMEFORMATETC;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release)
{
    if (!format || !medium)
        return E_INVALIDARG;
    ++setDataCalls_;
    SetFormat kept{*format, STGMEDIUM{}};
    kept.format.ptd = nullptr;
    if (release) {
        kept.medium = *medium;
    } else {
        const HRESULT hr = duplicateMedium(*medium, format->cfFormat, kept.medium);
        if (FAILED(hr))
            return hr;
    }
    if (SetFormat* earlier = findSet(format->cfFormat)) {
        ReleaseStgMedium(&earlier->medium);
        *earlier = kept;
    } else {
        set_.push_back(kept);
    }
    return S_OK;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::EnumFormatEtc(DWORD direction, IEnumFORMATETC** formats)
{
    if (!formats)
        return E_INVALIDARG;
    *formats = nullptr;
    if (direction != DATADIR_GET)
        return E_NOTIMPL;
    std::vector<FORMATETC> all;
    for (const Offered& offered : offered_)
        if (!findSet(offered.format.cfFormat))
            all.push_back(offered.format);
    for (const SetFormat& set : set_) {
        FORMATETC format = set.format;
        format.tymed = set.medium.tymed;
        all.push_back(format);
    }
    return SHCreateStdEnumFmtEtc(static_cast<UINT>(all.size()), all.data(), formats);
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*)
{
    return OLE_E_ADVISENOTSUPPORTED;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::DUnadvise(DWORD)
{
    return OLE_E_ADVISENOTSUPPORTED;
}

HRESULT STDMETHODCALLTYPE OutlookDataObject::EnumDAdvise(IEnumSTATDATA**)
{
    return OLE_E_ADVISENOTSUPPORTED;
}
