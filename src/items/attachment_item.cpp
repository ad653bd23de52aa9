#include "items/attachment_item.h"

#include "core/log.h"
#include "common/unique_resource.h"
#include "items/file_beside.h"
#include "items/stream_copy.h"

#include <shlwapi.h>

namespace {

Logger logger("AttachmentItem");

ULONGLONG streamSize(IStream* stream, HRESULT& hr)
{
    STATSTG stat{};
    hr = stream->Stat(&stat, STATFLAG_NONAME);
    return SUCCEEDED(hr) ? stat.cbSize.QuadPart : 0;
}

void rewind(IStream* stream)
{
    LARGE_INTEGER zero{};
    stream->Seek(zero, STREAM_SEEK_SET, nullptr);
}

} // namespace

AttachmentItem::AttachmentItem(std::wstring fileName, IStream* stream) : DDItem(std::move(fileName)), stream_(stream)
{
}

AttachmentItem::~AttachmentItem() = default;

HRESULT AttachmentItem::save()
{
    if (saved_) {
        KV_DEBUG(logger) << "already saved";
        return S_OK;
    }
    if (!stream_) {
        saved_ = true;
        return E_POINTER;
    }

    HRESULT hr = S_OK;
    ULARGE_INTEGER size{};
    size.QuadPart = streamSize(stream_.Get(), hr);
    KV_DEBUG(logger) << "IStream.Stat=" << hr;

    hr = writeBesideThenMove(fileName_, [&](const std::wstring& beside) {
        KV_DEBUG(logger) << "SHCreateStreamOnFileEx, fileNameWithIdx=" << beside;
        Microsoft::WRL::ComPtr<IStream> target;
        HRESULT written = openStreamForWriting(beside, target);
        KV_DEBUG(logger) << "SHCreateStreamOnFileEx=" << written;
        if (FAILED(written))
            return written;
        // Copy from the start even if a reader moved Outlook's stream before us.
        rewind(stream_.Get());
        KV_DEBUG(logger) << "strm->CopyTo... size=" << size.QuadPart;
        ULONGLONG copied = 0;
        written = copyStreamBytes(stream_.Get(), target.Get(), size.QuadPart, copied);
        KV_DEBUG(logger) << "strm->CopyTo=" << written << ", #bytes=" << copied;
        if (SUCCEEDED(written)) {
            KV_DEBUG(logger) << "strm->Commit...";
            written = target->Commit(STGC_DEFAULT);
            KV_DEBUG(logger) << "strm->Commit=" << written;
        }
        // The drop target may read Outlook's stream after us and must get all of it.
        rewind(stream_.Get());
        return written;
    });
    if (FAILED(hr)) {
        KV_ERROR(logger) << "save \"" << fileName_ << "\" failed, hr=" << hr;
    }
    saved_ = true;
    return hr;
}

HRESULT AttachmentItem::prepareFile()
{
    if (saved_) {
        KV_DEBUG(logger) << "already saved";
        return S_OK;
    }
    if (!stream_)
        return E_POINTER;

    HRESULT hr = S_OK;
    LARGE_INTEGER size{};
    size.QuadPart = static_cast<LONGLONG>(streamSize(stream_.Get(), hr));
    if (FAILED(hr))
        return hr;
    KV_DEBUG(logger) << "stream size=" << size.QuadPart;

    UniqueFile file(CreateFileW(fileName_.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    KV_DEBUG(logger) << "opened , hfile=" << file.get() << " " << fileName_;
    if (file) {
        // The file gets its final length now; the system fills it with zeros.
        BOOL succ = SetFilePointerEx(file.get(), size, nullptr, FILE_BEGIN);
        KV_DEBUG(logger) << "SetFilePointerEx, succ=" << succ << ", err=" << GetLastError();
        succ = SetEndOfFile(file.get());
        KV_DEBUG(logger) << "SetEndOfFile, succ=" << succ << ", err=" << GetLastError();
    } else {
        KV_WARN(logger) << "cannot create " << fileName_ << ", err=" << GetLastError();
    }
    return hr;
}

void AttachmentItem::writeJson(std::wostream& out, int indent)
{
    DDItem::writeJson(out, indent);
    out << std::endl;
}
