#pragma once
// VARIANT that clears itself, and calls into automation objects by name.
#include <oaidl.h>
#include <oleauto.h>

#include <initializer_list>
#include <string>

class UniqueVariant {
public:
    UniqueVariant() { VariantInit(&value_); }
    explicit UniqueVariant(const std::wstring& text);
    explicit UniqueVariant(LONG number);
    explicit UniqueVariant(IDispatch* object); // adds its own reference
    UniqueVariant(const UniqueVariant&) = delete;
    UniqueVariant& operator=(const UniqueVariant&) = delete;
    ~UniqueVariant() { VariantClear(&value_); }

    VARIANT* get() { return &value_; }
    const VARIANT* get() const { return &value_; }
    VARIANT* operator->() { return &value_; }
    const VARIANT* operator->() const { return &value_; }
    // Clears the old content before an API writes a new one.
    VARIANT* put()
    {
        VariantClear(&value_);
        return &value_;
    }

    // The value as text (VariantChangeType to BSTR); empty when it has none.
    std::wstring text() const;

private:
    VARIANT value_;
};

// Calls the member `name` of an automation object: names resolved with
// GetIDsOfNames, LOCALE_SYSTEM_DEFAULT, the arguments given in their natural
// order (IDispatch wants them last to first; this does the turning).
// flags: DISPATCH_PROPERTYGET, DISPATCH_METHOD, DISPATCH_PROPERTYPUT(REF).
HRESULT invokeByName(IDispatch* object, const wchar_t* name, WORD flags, std::initializer_list<const VARIANT*> args,
                     UniqueVariant* result);

// A property get with arguments.
HRESULT getDispatchProperty(IDispatch* object, const wchar_t* name, VARIANT* args, UINT argCount,
                            UniqueVariant& result);
