#pragma once
// An IMessage over a .msg compound storage, as OpenIMsgOnIStg gives it, for
// reading only: GetProps and the recipient table come from the storage (read
// with the add-in's own .msg reader); attachments, changes and the rest are
// not supported, as the add-in then reads them from the storage itself.
#include <windows.h>
#include <ole2.h>
#include <mapidefs.h>
#include <imessage.h>

// The allocation functions the caller opened the message with; everything
// handed out is allocated with them.
struct MapiAllocators {
    LPALLOCATEBUFFER allocateBuffer = nullptr;
    LPALLOCATEMORE allocateMore = nullptr;
    LPFREEBUFFER freeBuffer = nullptr;
};

// MAPI_E_CORRUPT_DATA for a storage that can't be read as a message.
HRESULT openMessageOnStorage(IStorage* storage, const MapiAllocators& allocators, IMessage** message);
