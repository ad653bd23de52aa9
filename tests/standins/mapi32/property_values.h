#pragma once
// Property values between their stored form (the raw bytes a .msg storage
// holds, see items/msg_storage.h) and the SPropValue records MAPI hands out.
#include "mapi_allocation.h"

#include "items/msg_storage.h"

#include <windows.h>
#include <mapidefs.h>

// The tag a stored property is listed under: strings in the width the caller
// asked for (PT_UNICODE with MAPI_UNICODE, PT_STRING8 without), everything
// else as stored.
ULONG reportedTag(const StoredProperty& stored, bool unicode);

// Fills `value` for `requestedTag` from `stored` (null when the message has no
// such property). Strings and binaries are allocated "more" on `parent`, so
// that freeing the parent frees them. A string is given in either width,
// converted as needed; other types must match the stored type.
// Returns S_OK for a value, MAPI_E_NOT_FOUND when `value` became the PT_ERROR
// row MAPI gives for a missing property, or an allocation failure.
HRESULT makePropValue(ULONG requestedTag, const StoredProperty* stored, bool unicode,
                      const MapiAllocators& allocators, void* parent, SPropValue& value);

// The stored form of a value handed to SetProps (fixed-size values as their
// 8 value bytes, strings without terminator). False for types that cannot be
// kept (errors, objects, multi-valued).
bool storedFromPropValue(const SPropValue& value, StoredProperty& stored);

// Types whose value fits the 8 value bytes of a properties-stream entry.
bool isFixedSizeType(ULONG type);
