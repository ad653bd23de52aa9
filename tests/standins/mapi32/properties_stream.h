#pragma once
// Writing changed values back into a .msg storage's "__properties_version1.0"
// stream (and the value streams beside it), so that what SetProps and
// SaveChanges did can be read again from the storage by anyone: another
// IMessage, readStoredMessage, a test.
#include "items/msg_storage.h"

#include <objidl.h>

#include <cstdint>
#include <vector>

// Every value in `values` replaces the entries of its property id (whatever
// their type); the entries of `removedIds` are dropped. Fixed-size values go
// into their entry, strings, binaries and GUIDs into a "__substg1.0_" stream
// of their own. Streams of replaced or dropped values are removed. A storage
// without a properties stream gets one. Committing the storage is the caller's.
HRESULT writePropertyChanges(IStorage* storage, const std::vector<StoredProperty>& values,
                             const std::vector<uint16_t>& removedIds);
