#pragma once
// Taking ownership of a COM pointer that already carries one reference (from
// `new`, or from an API that returns an owned pointer). MinGW's ComPtr::Attach
// adds a reference of its own, unlike the Windows SDK's, so it would leak one.
#include <wrl/client.h>

template <typename T>
Microsoft::WRL::ComPtr<T> adoptCom(T* owned)
{
    Microsoft::WRL::ComPtr<T> pointer;
    *pointer.ReleaseAndGetAddressOf() = owned;
    return pointer;
}
