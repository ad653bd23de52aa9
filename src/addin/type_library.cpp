#include "addin/type_library.h"

#include "core/log.h"
#include "common/hresult.h"
#include "common/module_path.h"

#include <wrl/client.h>

using Microsoft::WRL::ComPtr;

namespace {

Logger logger("KVDragDropAddin");

// The interface behind a dual interface's dispatch description.
HRESULT vtableOf(ITypeInfo* dispatchInfo, ITypeInfo** typeInfo)
{
    TYPEATTR* attributes = nullptr;
    RETURN_IF_FAILED(dispatchInfo->GetTypeAttr(&attributes));
    const bool dual = attributes->typekind == TKIND_DISPATCH && (attributes->wTypeFlags & TYPEFLAG_FDUAL);
    dispatchInfo->ReleaseTypeAttr(attributes);
    if (!dual) {
        dispatchInfo->AddRef();
        *typeInfo = dispatchInfo;
        return S_OK;
    }
    HREFTYPE reference = 0;
    RETURN_IF_FAILED(dispatchInfo->GetRefTypeOfImplType(static_cast<UINT>(-1), &reference));
    return dispatchInfo->GetRefTypeInfo(reference, typeInfo);
}

} // namespace

HRESULT loadAddinTypeInfo(REFIID iid, TypeInfoKind kind, ITypeInfo** typeInfo)
{
    if (!typeInfo)
        return E_POINTER;
    *typeInfo = nullptr;
    const std::wstring path = modulePath(thisModule(), 1000);
    if (path.empty())
        return E_FAIL;
    ComPtr<ITypeLib> library;
    HRESULT hr = LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "LoadTypeLibEx failed, hr=" << hr;
        return hr;
    }
    ComPtr<ITypeInfo> info;
    RETURN_IF_FAILED(library->GetTypeInfoOfGuid(iid, &info));
    if (kind == TypeInfoKind::Dispatch)
        return info.CopyTo(typeInfo);
    return vtableOf(info.Get(), typeInfo);
}
