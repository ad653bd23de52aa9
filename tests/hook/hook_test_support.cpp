#include "hook_test_support.h"
#include "common/com_ptr.h"

#include <gtest/gtest.h>
#include <shellapi.h>

#include <map>

void* systemDoDragDrop()
{
    return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ole32.dll"), "DoDragDrop"));
}

void* systemOleSetClipboard()
{
    return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ole32.dll"), "OleSetClipboard"));
}

HookSettings::HookSettings()
    : settings_(std::make_unique<Globals>(TestSettingsKeys::company, keys_.product()))
{
    setHookSettings(settings_.get());
}

HookSettings::~HookSettings()
{
    setHookSettings(nullptr);
}

RecordedDoDragDrop* RecordedDoDragDrop::current_ = nullptr;

RecordedDoDragDrop::RecordedDoDragDrop(During during) : saved_(g_DoDragDrop), during_(std::move(during))
{
    current_ = this;
    g_DoDragDrop = &RecordedDoDragDrop::record;
}

RecordedDoDragDrop::~RecordedDoDragDrop()
{
    g_DoDragDrop = saved_;
    current_ = nullptr;
}

HRESULT WINAPI RecordedDoDragDrop::record(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects,
                                          DWORD* effect)
{
    RecordedDoDragDrop& self = *current_;
    ++self.calls_;
    self.last_ = DragCall{dataObject, dropSource, okEffects, effect, currentDragDataObject()};
    if (self.during_)
        return self.during_(self.last_);
    if (effect)
        *effect = DROPEFFECT_NONE;
    return DRAGDROP_S_CANCEL;
}

Microsoft::WRL::ComPtr<TestDropSource> TestDropSource::create()
{
    Microsoft::WRL::ComPtr<TestDropSource> source;
    source = adoptCom(new TestDropSource());
    return source;
}

HRESULT STDMETHODCALLTYPE TestDropSource::QueryInterface(REFIID riid, void** object)
{
    if (!object)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDropSource) {
        *object = static_cast<IDropSource*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE TestDropSource::AddRef()
{
    return InterlockedIncrement(&references_);
}

ULONG STDMETHODCALLTYPE TestDropSource::Release()
{
    const LONG remaining = InterlockedDecrement(&references_);
    if (remaining == 0)
        delete this;
    return remaining;
}

HRESULT STDMETHODCALLTYPE TestDropSource::QueryContinueDrag(BOOL escapePressed, DWORD keyState)
{
    ++queries_;
    if (escapePressed)
        return DRAGDROP_S_CANCEL;
    if (!(keyState & (MK_LBUTTON | MK_RBUTTON)))
        return DRAGDROP_S_DROP;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE TestDropSource::GiveFeedback(DWORD)
{
    return DRAGDROP_S_USEDEFAULTCURSORS;
}

HMODULE probeModule(const wchar_t* fileName)
{
    static std::map<std::wstring, HMODULE> loaded;
    HMODULE& module = loaded[fileName];
    if (!module) {
        const std::wstring path = testProgramFolder() + L"\\hook_probes\\" + fileName;
        module = LoadLibraryW(path.c_str());
        if (!module)
            ADD_FAILURE() << "cannot load the probe module (built by tests/standins/hook_probes), err="
                          << GetLastError();
    }
    return module;
}

void* slotValue(void* const* slot)
{
    return *static_cast<void* const volatile*>(slot);
}

DWORD pageProtection(const void* address)
{
    MEMORY_BASIC_INFORMATION information{};
    if (!VirtualQuery(address, &information, sizeof information))
        return 0;
    return information.Protect;
}

HMODULE moduleOf(const void* address)
{
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       static_cast<LPCWSTR>(address), &module);
    return module;
}

std::vector<std::wstring> droppedFiles(IDataObject* dataObject)
{
    std::vector<std::wstring> files;
    FORMATETC format{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    if (!dataObject || FAILED(dataObject->GetData(&format, &medium)))
        return files;
    if (medium.tymed == TYMED_HGLOBAL && medium.hGlobal) {
        auto drop = static_cast<HDROP>(medium.hGlobal);
        const UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0);
        for (UINT index = 0; index < count; ++index) {
            wchar_t path[MAX_PATH * 4] = {};
            DragQueryFileW(drop, index, path, MAX_PATH * 4);
            files.emplace_back(path);
        }
    }
    ReleaseStgMedium(&medium);
    return files;
}

size_t occurrences(const std::string& haystack, const std::string& text)
{
    size_t count = 0;
    for (size_t at = haystack.find(text); at != std::string::npos; at = haystack.find(text, at + text.size()))
        ++count;
    return count;
}
