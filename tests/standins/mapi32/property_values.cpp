#include "property_values.h"

#include "common/hresult.h"
#include "items/property_text.h"

#include <mapicode.h>

#include <cstring>
#include <string>

namespace {

// Bytes a fixed-size value of this type occupies in the value union; 0 for
// types that are not fixed-size.
size_t fixedSizeOf(ULONG type)
{
    switch (type) {
    case PT_I2:
    case PT_BOOLEAN:
        return 2;
    case PT_LONG:
    case PT_R4:
    case PT_ERROR:
        return 4;
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_I8:
    case PT_SYSTIME:
        return 8;
    default:
        return 0;
    }
}

bool isStringType(ULONG type) { return type == PT_UNICODE || type == PT_STRING8; }

HRESULT notFound(ULONG requestedTag, SPropValue& value)
{
    value.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(requestedTag));
    value.Value.err = MAPI_E_NOT_FOUND;
    return MAPI_E_NOT_FOUND;
}

// A copy allocated "more" on the parent, so that it goes when the parent goes.
template <typename T>
HRESULT copyBytes(const void* bytes, size_t size, const MapiAllocators& allocators, void* parent, T*& copy)
{
    void* block = nullptr;
    RETURN_IF_FAILED(allocators.allocateMore(static_cast<ULONG>(size), parent, &block));
    if (size)
        std::memcpy(block, bytes, size);
    copy = static_cast<T*>(block);
    return S_OK;
}

std::string narrowText(const StoredProperty& stored)
{
    if (propertyTypeOf(stored.tag) == PropertyType::String8)
        return stored.bytes.substr(0, stored.bytes.find('\0'));
    const std::wstring wide = propertyText(stored.tag, stored.bytes);
    if (wide.empty())
        return {};
    const int size = static_cast<int>(wide.size());
    const int bytes = WideCharToMultiByte(CP_ACP, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string narrow(bytes > 0 ? bytes : 0, '\0');
    if (bytes > 0)
        WideCharToMultiByte(CP_ACP, 0, wide.data(), size, narrow.data(), bytes, nullptr, nullptr);
    return narrow;
}

} // namespace

bool isFixedSizeType(ULONG type) { return fixedSizeOf(type) != 0; }

ULONG reportedTag(const StoredProperty& stored, bool unicode)
{
    if (isStringType(PROP_TYPE(stored.tag))) {
        const ULONG type = unicode ? PT_UNICODE : PT_STRING8;
        return CHANGE_PROP_TYPE(stored.tag, type);
    }
    return stored.tag;
}

HRESULT makePropValue(ULONG requestedTag, const StoredProperty* stored, bool unicode,
                      const MapiAllocators& allocators, void* parent, SPropValue& value)
{
    value = SPropValue{};
    if (!stored)
        return notFound(requestedTag, value);
    const ULONG have = PROP_TYPE(stored->tag);
    ULONG wanted = PROP_TYPE(requestedTag);
    if (wanted == PT_UNSPECIFIED)
        wanted = PROP_TYPE(reportedTag(*stored, unicode));
    value.ulPropTag = PROP_TAG(wanted, PROP_ID(requestedTag));

    switch (wanted) {
    case PT_UNICODE: {
        if (!isStringType(have))
            return notFound(requestedTag, value);
        const std::wstring text = propertyText(stored->tag, stored->bytes);
        return copyBytes(text.c_str(), (text.size() + 1) * sizeof(wchar_t), allocators, parent, value.Value.lpszW);
    }
    case PT_STRING8: {
        if (!isStringType(have))
            return notFound(requestedTag, value);
        const std::string text = narrowText(*stored);
        return copyBytes(text.c_str(), text.size() + 1, allocators, parent, value.Value.lpszA);
    }
    case PT_BINARY: {
        if (have != PT_BINARY)
            return notFound(requestedTag, value);
        value.Value.bin.cb = static_cast<ULONG>(stored->bytes.size());
        return copyBytes(stored->bytes.data(), stored->bytes.size(), allocators, parent, value.Value.bin.lpb);
    }
    case PT_CLSID: {
        if (have != PT_CLSID || stored->bytes.size() < sizeof(GUID))
            return notFound(requestedTag, value);
        return copyBytes(stored->bytes.data(), sizeof(GUID), allocators, parent, value.Value.lpguid);
    }
    default: {
        const size_t size = fixedSizeOf(wanted);
        if (size == 0 || have != wanted || stored->bytes.size() < size)
            return notFound(requestedTag, value);
        std::memcpy(&value.Value, stored->bytes.data(), size);
        return S_OK;
    }
    }
}

bool storedFromPropValue(const SPropValue& value, StoredProperty& stored)
{
    const ULONG type = PROP_TYPE(value.ulPropTag);
    stored.tag = value.ulPropTag;
    stored.bytes.clear();
    switch (type) {
    case PT_UNICODE: {
        const wchar_t* text = value.Value.lpszW ? value.Value.lpszW : L"";
        stored.bytes.assign(reinterpret_cast<const char*>(text), std::wcslen(text) * sizeof(wchar_t));
        return true;
    }
    case PT_STRING8:
        stored.bytes = value.Value.lpszA ? value.Value.lpszA : "";
        return true;
    case PT_BINARY:
        if (value.Value.bin.cb && !value.Value.bin.lpb)
            return false;
        stored.bytes.assign(reinterpret_cast<const char*>(value.Value.bin.lpb), value.Value.bin.cb);
        return true;
    case PT_CLSID:
        if (!value.Value.lpguid)
            return false;
        stored.bytes.assign(reinterpret_cast<const char*>(value.Value.lpguid), sizeof(GUID));
        return true;
    default: {
        const size_t size = fixedSizeOf(type);
        if (size == 0 || type == PT_ERROR)
            return false;
        stored.bytes.assign(8, '\0');
        std::memcpy(stored.bytes.data(), &value.Value, size);
        return true;
    }
    }
}
