#pragma once
// The .eml writer's properties straight from the .msg storage, for when
// Extended MAPI can't be used. The attachments' bytes stay in their streams,
// which are handed over open, so a large attachment is read once, while the
// mail is written, and never held in memory.
#include "items/eml_message.h"

#include <objidl.h>

#include <vector>

// The message's properties and its attachments, with their attached
// messages and OLE objects (readAttachedObjects). An attachment whose data
// stream can't be opened keeps its properties without data (and is then
// left out of the mail by collectEmlMessage). Values the reader had to leave
// out are logged.
HRESULT readEmlSourcesFromStorage(IStorage* storage, StoredProperties& message,
                                  std::vector<EmlAttachmentSource>& attachments);

// The attached messages (attach method 5) and OLE objects (6) of the
// attachments of the message in `storage`, from each attachment's storage
// (by `storageName`, else by its PR_ATTACH_NUM) and the object storage in it.
// An attached message's own attached messages are read too, as deep as
// maxEmbeddedMessageDepth and as many as a fixed limit for the whole mail;
// beyond, and where a storage can't be read, the attachment is left without
// its object and the reason logged.
void readAttachedObjects(IStorage* storage, std::vector<EmlAttachmentSource>& attachments);
