// The exports of the stand-in mapi32.dll. The add-in binds the MAPI functions
// by ordinal (59, 198, 13, 15, 17), so the .def file pins those; the
// StandIn* functions let a test see that a call really came through here.
#include "mapi_allocation.h"
#include "message_on_storage.h"

#include "core/log.h"

#include <mapicode.h>
#include <mapiutil.h>

#include <atomic>

namespace {

const Logger logger("MapiStandIn");

std::atomic<ULONG> openCount{0};

// KORVANE_STANDIN_MAPI_OPEN=fail, read at every call so that one test can
// switch it on and off again.
bool openIsToFail()
{
    wchar_t value[32] = {};
    const DWORD length = GetEnvironmentVariableW(L"KORVANE_STANDIN_MAPI_OPEN", value, 32);
    return length > 0 && length < 32 && lstrcmpiW(value, L"fail") == 0;
}

} // namespace

extern "C" LPMALLOC STDAPICALLTYPE MAPIGetDefaultMalloc()
{
    // The task allocator lives as long as the process; like MAPI's own
    // allocator it is handed out without a reference for the caller.
    LPMALLOC malloc = nullptr;
    if (FAILED(CoGetMalloc(1, &malloc)))
        return nullptr;
    malloc->Release();
    return malloc;
}

extern "C" SCODE STDAPICALLTYPE OpenIMsgOnIStg(LPMSGSESS, LPALLOCATEBUFFER allocateBuffer,
                                               LPALLOCATEMORE allocateMore, LPFREEBUFFER freeBuffer,
                                               LPMALLOC malloc, LPVOID, LPSTORAGE storage,
                                               MSGCALLRELEASE* onRelease, ULONG callerData, ULONG flags,
                                               LPMESSAGE* message)
{
    ++openCount;
    if (!message)
        return MAPI_E_INVALID_PARAMETER;
    *message = nullptr;
    if (openIsToFail()) {
        KV_INFO(logger) << "OpenIMsgOnIStg fails as KORVANE_STANDIN_MAPI_OPEN asks";
        return MAPI_E_CORRUPT_DATA;
    }
    if (!allocateBuffer || !allocateMore || !freeBuffer || !storage)
        return MAPI_E_INVALID_PARAMETER;
    MessageOpenOptions options;
    options.allocators = MapiAllocators{allocateBuffer, allocateMore, freeBuffer};
    options.malloc = malloc;
    options.onRelease = onRelease;
    options.callerData = callerData;
    options.flags = flags;
    return openMessageOnStorage(storage, options, message);
}

// Calls of OpenIMsgOnIStg so far, failed ones included.
extern "C" ULONG WINAPI StandInOpenCount()
{
    return openCount.load();
}

// Blocks from MAPIAllocateBuffer/MAPIAllocateMore not yet freed.
extern "C" ULONG WINAPI StandInLiveAllocations()
{
    return liveAllocationCount();
}
