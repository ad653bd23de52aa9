#pragma once
// Reads everything a drop or a paste offers into a report event: the names of
// the formats, the virtual file names of a file group descriptor, the files
// of CF_HDROP (size, hash, last-write time, each read to its end) and the text.
#include "e2e_shared/drop_report.h"

#include <objidl.h>

DropEvent readReceivedData(IDataObject* dataObject, const char* kind, int64_t startTicks);
