#pragma once
// Small late-bound steps through Outlook's object model.
#include <oaidl.h>
#include <wrl/client.h>

#include <initializer_list>

// The property `name` of an automation object when it is an object (its own
// reference), else empty.
Microsoft::WRL::ComPtr<IDispatch> getPropertyObjectByName(IDispatch* object, const wchar_t* name);

// The same for properties that hand out a plain COM object (VT_UNKNOWN), such
// as a namespace's MAPIOBJECT; an object given as VT_DISPATCH is taken too.
Microsoft::WRL::ComPtr<IUnknown> getPropertyUnknownByName(IDispatch* object, const wchar_t* name);

// Calls a method that returns an object; hr receives the call's result, and
// a result that is no object gives E_NOINTERFACE.
Microsoft::WRL::ComPtr<IDispatch> callForObject(IDispatch* object, const wchar_t* name,
                                                std::initializer_list<const VARIANT*> args, HRESULT& hr);
