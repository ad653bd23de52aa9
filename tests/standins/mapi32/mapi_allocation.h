#pragma once
// MAPI's linked allocation: a block from MAPIAllocateBuffer owns every block
// allocated "more" on it, and MAPIFreeBuffer on the parent frees them all.
// Callers free a whole GetProps result or one row of a table with one call,
// so the values inside must hang off the block that carries the array.
#include <windows.h>
#include <mapidefs.h>

// The allocation functions a message was opened with. OpenIMsgOnIStg takes
// them from its caller and uses them for everything it hands back.
struct MapiAllocators {
    LPALLOCATEBUFFER allocateBuffer = nullptr;
    LPALLOCATEMORE allocateMore = nullptr;
    LPFREEBUFFER freeBuffer = nullptr;
};

// Blocks allocated and not yet freed, parents and "more" blocks alike.
ULONG liveAllocationCount();
