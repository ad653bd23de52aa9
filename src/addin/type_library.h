#pragma once
// The add-in's type library (korvaneLib), read from the TYPELIB resource of
// the file that holds this code, so that no registration is needed to use it.
#include <windows.h>
#include <oaidl.h>

enum class TypeInfoKind {
    Dispatch, // what IDispatch::GetTypeInfo hands out for a dual interface
    Vtable,   // the interface itself, what DispInvoke calls through
};

HRESULT loadAddinTypeInfo(REFIID iid, TypeInfoKind kind, ITypeInfo** typeInfo);
