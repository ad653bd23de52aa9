#pragma once
// An IMessage over a .msg compound storage, as OpenIMsgOnIStg gives it: the
// properties and recipient rows come from the storage; SetProps changes stay
// in memory until SaveChanges writes them into the storage.
#include "mapi_allocation.h"

#include <windows.h>
#include <ole2.h>
#include <mapidefs.h>
#include <imessage.h>

struct MessageOpenOptions {
    MapiAllocators allocators;          // used for everything handed out
    LPMALLOC malloc = nullptr;          // kept referenced, as MAPI does
    MSGCALLRELEASE* onRelease = nullptr; // called when the last reference goes
    ULONG callerData = 0;               // passed to onRelease
    ULONG flags = 0;                    // IMSG_NO_ISTG_COMMIT: SaveChanges doesn't commit the storage
};

// Reads the storage (a storage without a properties stream is an empty, new
// message) and returns the message with one reference; the message holds its
// own reference to the storage. A storage that can't be read as a message
// gives MAPI_E_CORRUPT_DATA.
HRESULT openMessageOnStorage(IStorage* storage, const MessageOpenOptions& options, IMessage** message);
