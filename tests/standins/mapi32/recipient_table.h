#pragma once
// The recipient table of a message opened on a .msg storage: a static
// snapshot of the recipient storages, one row each, in storage order.
#include "mapi_allocation.h"

#include "items/msg_storage.h"

#include <windows.h>
#include <mapidefs.h>

#include <vector>

// Columns until SetColumns says otherwise: PR_ROWID, PR_RECIPIENT_TYPE,
// PR_ENTRYID, PR_DISPLAY_NAME, PR_ADDRTYPE, PR_EMAIL_ADDRESS, the strings wide
// when `flags` has MAPI_UNICODE. Rows come back the way MAPI hands them out:
// each row's properties one MAPIAllocateBuffer block (its strings allocated
// "more" on it), the row set another, so FreeProws frees them.
HRESULT createRecipientTable(std::vector<StoredProperties> rows, ULONG flags, const MapiAllocators& allocators,
                             IMAPITable** table);
