#pragma once
// The .eml writer's properties read through Extended MAPI, into the same
// property maps the storage reader gives, so that the writer sees one shape
// whichever way the mail item read its message.
#include "items/eml_message.h"
#include "items/mapi_library.h"
#include "items/msg_storage.h"

#include <vector>

// `tags` of a message or attachment, with MAPI_UNICODE. A value too large for
// GetProps (MAPI_E_NOT_ENOUGH_MEMORY) is read through OpenProperty as a stream.
// Missing values are left out; at most `maxValueBytes` are read of one value.
HRESULT readPropertyMapThroughMapi(IMAPIProp* object, const MapiFunctions& mapi, const std::vector<ULONG>& tags,
                                   StoredProperties& properties, size_t maxValueBytes = size_t(64) << 20);

// Every attachment of the message, through its attachment table, in table
// order: `tags` but PR_ATTACH_DATA_BIN with GetProps, the data opened as a
// stream (OpenProperty) to be read while the mail is written, or read with
// the other values when it can't be opened. Fails with the table's error
// when the message offers none.
HRESULT readAttachmentsThroughMapi(IMessage* message, const MapiFunctions& mapi, const std::vector<ULONG>& tags,
                                   std::vector<EmlAttachmentSource>& attachments);
