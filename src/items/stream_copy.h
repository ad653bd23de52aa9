#pragma once
// Copying streams and whole compound storages with large reads and writes.
// The system's own IStream::CopyTo and IStorage::CopyTo move the bytes in
// small pieces on some platforms, which makes a mail with a large attachment
// many times slower to save than a plain file copy; these keep one buffer of
// a fixed size, whatever the size of the data.
#include <objidl.h>

// Copies up to `size` bytes from the source's current position; `copied`
// tells how many arrived. A source that ends early is no error.
HRESULT copyStreamBytes(IStream* source, IStream* target, ULONGLONG size, ULONGLONG& copied);

// Copies every stream and storage of `source` into `target`, with the class
// ids and state bits of the storages, like IStorage::CopyTo into an empty one.
HRESULT copyStorageContents(IStorage* source, IStorage* target);
