#include "support/faulty_storage.h"
#include "common/com_ptr.h"

#include <algorithm>
#include <atomic>

using Microsoft::WRL::ComPtr;

namespace {

template <typename Interface>
class RefCounted : public Interface {
public:
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
            delete this;
        return left;
    }

protected:
    virtual ~RefCounted() = default;
    HRESULT queryFor(REFIID iid, const IID& own, void** object)
    {
        if (!object)
            return E_POINTER;
        if (iid == IID_IUnknown || iid == own) {
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }

private:
    std::atomic<ULONG> references_{1};
};

class FaultyStream final : public RefCounted<IStream> {
public:
    FaultyStream(ComPtr<IStream> real, const StorageFaults& faults) : real_(std::move(real)), faults_(faults) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (iid == IID_ISequentialStream && object) {
            *object = static_cast<IStream*>(this);
            AddRef();
            return S_OK;
        }
        return queryFor(iid, IID_IStream, object);
    }

    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override
    {
        if (read)
            *read = 0;
        const ULONGLONG left = faults_.failAfterBytes - std::min(delivered_, faults_.failAfterBytes);
        if (left == 0)
            return faults_.readFailure;
        ULONG want = static_cast<ULONG>(std::min<ULONGLONG>(size, left));
        if (faults_.maxBytesPerRead)
            want = std::min(want, faults_.maxBytesPerRead);
        ULONG got = 0;
        const HRESULT hr = real_->Read(buffer, want, &got);
        delivered_ += got;
        if (read)
            *read = got;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) override
    {
        if (written)
            *written = 0;
        const ULONGLONG left = faults_.failWritesAfterBytes - std::min(taken_, faults_.failWritesAfterBytes);
        if (left == 0)
            return faults_.writeFailure;
        ULONG put = 0;
        const HRESULT hr = real_->Write(buffer, static_cast<ULONG>(std::min<ULONGLONG>(size, left)), &put);
        taken_ += put;
        if (written)
            *written = put;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) override
    {
        return real_->Seek(move, origin, position);
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override { return real_->SetSize(size); }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                                     ULARGE_INTEGER* written) override
    {
        return real_->CopyTo(target, size, read, written);
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override { return real_->Commit(flags); }
    HRESULT STDMETHODCALLTYPE Revert() override { return real_->Revert(); }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) override
    {
        return real_->LockRegion(offset, size, type);
    }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) override
    {
        return real_->UnlockRegion(offset, size, type);
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override
    {
        const HRESULT hr = real_->Stat(stat, flags);
        if (SUCCEEDED(hr) && stat)
            stat->cbSize.QuadPart += faults_.statExtraBytes;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream** clone) override { return real_->Clone(clone); }

private:
    ComPtr<IStream> real_;
    StorageFaults faults_;
    ULONGLONG delivered_ = 0;
    ULONGLONG taken_ = 0;
};

class FaultyStorage final : public RefCounted<IStorage> {
public:
    FaultyStorage(ComPtr<IStorage> real, const StorageFaults& faults, bool active)
        : real_(std::move(real)), faults_(faults), active_(active)
    {
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        return queryFor(iid, IID_IStorage, object);
    }

    HRESULT STDMETHODCALLTYPE CreateStream(const OLECHAR* name, DWORD mode, DWORD reserved1, DWORD reserved2,
                                           IStream** stream) override
    {
        return real_->CreateStream(name, mode, reserved1, reserved2, stream);
    }
    HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* name, void* reserved1, DWORD mode, DWORD reserved2,
                                         IStream** stream) override
    {
        if (!stream)
            return E_POINTER;
        *stream = nullptr;
        ComPtr<IStream> real;
        const HRESULT hr = real_->OpenStream(name, reserved1, mode, reserved2, &real);
        if (FAILED(hr))
            return hr;
        if (!active_ || (!faults_.onlyStream.empty() && (!name || faults_.onlyStream != name))) {
            *stream = real.Detach();
            return hr;
        }
        *stream = new FaultyStream(real, faults_);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE CreateStorage(const OLECHAR* name, DWORD mode, DWORD reserved1, DWORD reserved2,
                                            IStorage** storage) override
    {
        return real_->CreateStorage(name, mode, reserved1, reserved2, storage);
    }
    HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode, SNB exclude,
                                          DWORD reserved, IStorage** storage) override
    {
        if (!storage)
            return E_POINTER;
        *storage = nullptr;
        ComPtr<IStorage> real;
        const HRESULT hr = real_->OpenStorage(name, priority, mode, exclude, reserved, &real);
        if (FAILED(hr))
            return hr;
        const bool active = faults_.onlyInside.empty() || (name && faults_.onlyInside == name);
        *storage = new FaultyStorage(real, faults_, active);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE CopyTo(DWORD excludeCount, const IID* excludeIids, SNB excludeNames,
                                     IStorage* target) override
    {
        return real_->CopyTo(excludeCount, excludeIids, excludeNames, target);
    }
    HRESULT STDMETHODCALLTYPE MoveElementTo(const OLECHAR* name, IStorage* target, const OLECHAR* newName,
                                            DWORD flags) override
    {
        return real_->MoveElementTo(name, target, newName, flags);
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override { return real_->Commit(flags); }
    HRESULT STDMETHODCALLTYPE Revert() override { return real_->Revert(); }
    HRESULT STDMETHODCALLTYPE EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3,
                                           IEnumSTATSTG** elements) override
    {
        if (FAILED(faults_.enumFailure)) {
            if (elements)
                *elements = nullptr;
            return faults_.enumFailure;
        }
        return real_->EnumElements(reserved1, reserved2, reserved3, elements);
    }
    HRESULT STDMETHODCALLTYPE DestroyElement(const OLECHAR* name) override { return real_->DestroyElement(name); }
    HRESULT STDMETHODCALLTYPE RenameElement(const OLECHAR* oldName, const OLECHAR* newName) override
    {
        return real_->RenameElement(oldName, newName);
    }
    HRESULT STDMETHODCALLTYPE SetElementTimes(const OLECHAR* name, const FILETIME* created, const FILETIME* accessed,
                                              const FILETIME* modified) override
    {
        return real_->SetElementTimes(name, created, accessed, modified);
    }
    HRESULT STDMETHODCALLTYPE SetClass(REFCLSID clsid) override { return real_->SetClass(clsid); }
    HRESULT STDMETHODCALLTYPE SetStateBits(DWORD bits, DWORD mask) override { return real_->SetStateBits(bits, mask); }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override { return real_->Stat(stat, flags); }

private:
    ComPtr<IStorage> real_;
    StorageFaults faults_;
    bool active_; // whether this storage's streams misbehave
};

} // namespace

ComPtr<IStorage> wrapWithFaults(IStorage* real, const StorageFaults& faults)
{
    if (!real)
        return nullptr;
    ComPtr<IStorage> wrapper;
    wrapper = adoptCom(new FaultyStorage(real, faults, faults.onlyInside.empty()));
    return wrapper;
}

ComPtr<IStream> wrapStreamWithFaults(IStream* real, const StorageFaults& faults)
{
    ComPtr<IStream> wrapper;
    if (real)
        wrapper = adoptCom(new FaultyStream(real, faults));
    return wrapper;
}
