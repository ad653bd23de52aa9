#pragma once
// A real structured storage seen through a wrapper that misbehaves the way a
// damaged medium or a hostile storage implementation can: streams that fail
// half way, deliver a few bytes a call or claim more than they delivered,
// report a size they don't have, an element listed under a name no real
// storage holds; and streams written to that fill up half way.
// Everything else is passed to the real storage.
#include <objidl.h>
#include <wrl/client.h>

#include <climits>
#include <string>

struct StorageFaults {
    std::wstring onlyInside;               // the child storage whose streams misbehave; empty: all of them
    std::wstring onlyStream;               // the stream name that misbehaves; empty: every stream
    ULONGLONG failAfterBytes = ULLONG_MAX; // Read fails (STG_E_READFAULT) once this many bytes were delivered
    ULONG maxBytesPerRead = 0;             // each Read delivers at most this much (0: no limit)
    ULONG readOverclaim = 0;               // each Read reports this many bytes more than it delivered
    ULONGLONG statExtraBytes = 0;          // Stat reports this much more than the stream holds
    HRESULT statFailure = S_OK;            // Stat of a stream fails with this unless S_OK
    HRESULT enumFailure = S_OK;            // EnumElements fails with this unless S_OK
    std::wstring renamedFrom, renamedTo;   // the element renamedFrom is listed and opened as renamedTo
    ULONGLONG failWritesAfterBytes = ULLONG_MAX; // Write fails (STG_E_MEDIUMFULL) once it took this many bytes
};

// The wrapper over `real` (and, through OpenStorage, over its children).
Microsoft::WRL::ComPtr<IStorage> wrapWithFaults(IStorage* real, const StorageFaults& faults);

// One stream seen through the same misbehaviour (a file stream on a disk
// that fills up, say).
Microsoft::WRL::ComPtr<IStream> wrapStreamWithFaults(IStream* real, const StorageFaults& faults);
