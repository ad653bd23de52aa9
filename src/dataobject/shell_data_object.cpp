#include "dataobject/shell_data_object.h"

#include "core/log.h"

#include <wrl/client.h>

#include <type_traits>

static_assert(std::is_same_v<SHCreateDataObjectFunction, decltype(&SHCreateDataObject)>,
              "bound by name: the type alone says how it is called");

namespace {

Logger logger("DataObjectHelper");

SHCreateDataObjectFunction replacement = nullptr;

SHCreateDataObjectFunction bindFromShell32()
{
    // shell32 is one of the add-in's imports, so it stays loaded for the
    // life of the process and the address stays valid.
    HMODULE shell32 = GetModuleHandleW(L"shell32.dll");
    if (!shell32)
        return nullptr;
    auto shellFunction = reinterpret_cast<SHCreateDataObjectFunction>(GetProcAddress(shell32, "SHCreateDataObject"));
    if (!shellFunction)
        return nullptr;
    // Asked once for an empty object: a shell that only answers E_NOTIMPL
    // (Wine's) counts as having none, and a drag then skips the item-id
    // lists that only the shell's object needs.
    Microsoft::WRL::ComPtr<IDataObject> empty;
    const HRESULT hr = shellFunction(nullptr, 0, nullptr, nullptr, IID_IDataObject,
                                     reinterpret_cast<void**>(empty.GetAddressOf()));
    KV_INFO(logger) << "SHCreateDataObject of an empty object=" << hr;
    return SUCCEEDED(hr) && empty ? shellFunction : nullptr;
}

} // namespace

SHCreateDataObjectFunction shellCreateDataObject()
{
    if (replacement)
        return replacement;
    static const SHCreateDataObjectFunction shellFunction = bindFromShell32();
    return shellFunction;
}

void setShellCreateDataObject(SHCreateDataObjectFunction function)
{
    replacement = function;
}
