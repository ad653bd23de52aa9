#pragma once
// A real storage (or stream) seen through a wrapper that misbehaves as a
// damaged medium or a hostile implementation can, as StorageFaults says;
// everything else is passed to the real one.
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
