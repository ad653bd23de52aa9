#pragma once
// VARIANT that clears itself, and a property read through late binding.
#include <oaidl.h>
#include <oleauto.h>

class UniqueVariant {
public:
    UniqueVariant() { VariantInit(&value_); }
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

private:
    VARIANT value_;
};

// Gets the property `name` of an automation object (names resolved with
// GetIDsOfNames, LOCALE_SYSTEM_DEFAULT, a property get with the arguments in
// their natural order).
HRESULT getDispatchProperty(IDispatch* object, const wchar_t* name, VARIANT* args, UINT argCount,
                            UniqueVariant& result);
