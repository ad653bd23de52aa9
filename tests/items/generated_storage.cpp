#include "generated_storage.h"
#include "common/com_ptr.h"

#include "e2e_shared/com_object.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

using Microsoft::WRL::ComPtr;

namespace {

struct SharedSpec {
    GeneratedStorageLayout layout;
    // Filled as the enumerator hands names out, so that they can be opened.
    std::map<std::wstring, GeneratedElement> handedOut;
};

wchar_t* taskMemCopy(const std::wstring& text)
{
    auto* copy = static_cast<wchar_t*>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
    if (copy)
        std::memcpy(copy, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    return copy;
}

class GeneratedStream final : public ComObject<IStream> {
public:
    GeneratedStream(ULONGLONG size, ULONG overclaim) : size_(size), overclaim_(overclaim) {}

    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override
    {
        const ULONG count = static_cast<ULONG>(std::min<ULONGLONG>(size, size_ - position_));
        auto* out = static_cast<char*>(buffer);
        for (ULONG i = 0; i < count; ++i)
            out[i] = generatedByte(position_ + i);
        position_ += count;
        if (read)
            *read = count ? count + overclaim_ : 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Write(const void*, ULONG, ULONG*) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD) override
    {
        *stat = STATSTG{};
        stat->type = STGTY_STREAM;
        stat->cbSize.QuadPart = size_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }

protected:
    bool offers(REFIID iid) const override { return iid == IID_IStream || iid == IID_ISequentialStream; }

private:
    ULONGLONG size_;
    ULONG overclaim_;
    ULONGLONG position_ = 0;
};

class GeneratedEnumerator final : public ComObject<IEnumSTATSTG> {
public:
    GeneratedEnumerator(std::shared_ptr<SharedSpec> shared, ULONGLONG count)
        : shared_(std::move(shared)), count_(count)
    {
    }

    HRESULT STDMETHODCALLTYPE Next(ULONG wanted, STATSTG* out, ULONG* fetched) override
    {
        ULONG given = 0;
        for (; given < wanted && next_ < count_; ++given, ++next_) {
            const GeneratedElement element = shared_->layout.element(next_);
            shared_->handedOut[element.name] = element;
            out[given] = STATSTG{};
            out[given].pwcsName = taskMemCopy(element.name);
            out[given].type = element.storage ? STGTY_STORAGE : STGTY_STREAM;
            out[given].cbSize.QuadPart = element.storage ? 0 : element.bytes;
        }
        if (fetched)
            *fetched = given;
        return given == wanted ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override
    {
        next_ += count;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Reset() override
    {
        next_ = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumSTATSTG**) override { return E_NOTIMPL; }

protected:
    bool offers(REFIID iid) const override { return iid == IID_IEnumSTATSTG; }

private:
    std::shared_ptr<SharedSpec> shared_;
    ULONGLONG count_;
    ULONGLONG next_ = 0;
};

class GeneratedStorage final : public ComObject<IStorage> {
public:
    GeneratedStorage(const GeneratedStorageLayout& layout, int depth)
        : shared_(std::make_shared<SharedSpec>()), depth_(depth)
    {
        shared_->layout = layout;
    }

    HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* name, void*, DWORD, DWORD, IStream** stream) override
    {
        *stream = nullptr;
        const GeneratedElement* found = find(name);
        if (!found || found->storage)
            return STG_E_FILENOTFOUND;
        *stream = new GeneratedStream(found->bytes, shared_->layout.readOverclaim);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* name, IStorage*, DWORD, SNB, DWORD,
                                          IStorage** storage) override
    {
        *storage = nullptr;
        const GeneratedElement* found = find(name);
        if (!found || !found->storage)
            return STG_E_FILENOTFOUND;
        *storage = new GeneratedStorage(shared_->layout, depth_ + 1);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** elements) override
    {
        *elements = new GeneratedEnumerator(shared_, elementCount());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD) override
    {
        *stat = STATSTG{};
        stat->type = STGTY_STORAGE;
        stat->clsid = shared_->layout.clsid;
        stat->clsid.Data1 += static_cast<unsigned long>(depth_);
        stat->grfStateBits = shared_->layout.stateBits + static_cast<DWORD>(depth_);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE CreateStream(const OLECHAR*, DWORD, DWORD, DWORD, IStream**) override
    {
        return STG_E_ACCESSDENIED;
    }
    HRESULT STDMETHODCALLTYPE CreateStorage(const OLECHAR*, DWORD, DWORD, DWORD, IStorage**) override
    {
        return STG_E_ACCESSDENIED;
    }
    HRESULT STDMETHODCALLTYPE CopyTo(DWORD, const IID*, SNB, IStorage*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MoveElementTo(const OLECHAR*, IStorage*, const OLECHAR*, DWORD) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE DestroyElement(const OLECHAR*) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE RenameElement(const OLECHAR*, const OLECHAR*) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE SetElementTimes(const OLECHAR*, const FILETIME*, const FILETIME*,
                                              const FILETIME*) override
    {
        return STG_E_ACCESSDENIED;
    }
    HRESULT STDMETHODCALLTYPE SetClass(REFCLSID) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE SetStateBits(DWORD, DWORD) override { return STG_E_ACCESSDENIED; }

protected:
    bool offers(REFIID iid) const override { return iid == IID_IStorage; }

private:
    ULONGLONG elementCount() const
    {
        const bool empty = shared_->layout.levels >= 0 && depth_ >= shared_->layout.levels;
        return empty ? 0 : shared_->layout.count;
    }

    // A name the enumerator handed out, or one not enumerated yet.
    const GeneratedElement* find(const OLECHAR* name)
    {
        const std::wstring wanted = name ? name : L"";
        auto found = shared_->handedOut.find(wanted);
        for (ULONGLONG index = 0; found == shared_->handedOut.end() && index < elementCount(); ++index) {
            GeneratedElement element = shared_->layout.element(index);
            if (element.name == wanted)
                found = shared_->handedOut.emplace(wanted, std::move(element)).first;
        }
        return found == shared_->handedOut.end() ? nullptr : &found->second;
    }

    std::shared_ptr<SharedSpec> shared_;
    int depth_;
};

} // namespace

ComPtr<IStorage> makeGeneratedStorage(const GeneratedStorageLayout& layout)
{
    ComPtr<IStorage> storage;
    storage = adoptCom(new GeneratedStorage(layout, 0));
    return storage;
}

char generatedByte(ULONGLONG offset)
{
    return static_cast<char>((offset * 131 + offset / 509) & 0xFF);
}
