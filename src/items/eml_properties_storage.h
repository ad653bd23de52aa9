#pragma once
// The .eml writer's properties straight from the .msg storage, for when
// Extended MAPI can't be used. The attachments' bytes stay in their streams,
// which are handed over open, so a large attachment is read once, while the
// mail is written, and never held in memory.
#include "items/eml_message.h"

#include <objidl.h>

#include <vector>

// The message's properties and its attachments. An attachment whose data
// stream can't be opened keeps its properties without data (and is then
// left out of the mail by collectEmlMessage). Values the reader had to leave
// out are logged.
HRESULT readEmlSourcesFromStorage(IStorage* storage, StoredProperties& message,
                                  std::vector<EmlAttachmentSource>& attachments);
