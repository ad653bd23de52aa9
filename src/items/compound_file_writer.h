#pragma once
// Saves a compound storage (a dragged mail, as Outlook hands it over) as a
// .msg compound file, written by us front to back with large writes. The
// system's docfile implementation writes such a file a 512-byte sector at a
// time on some platforms, which makes a mail with a large attachment take
// seconds where a file copy takes milliseconds.
//
// The file is a version 3 compound file: 512-byte sectors, 64-byte mini
// sectors, streams below 4096 bytes in the mini stream. Every storage keeps
// its class id and state bits (the root's from the source itself), every
// element its exact name; storages keep their times, streams have none.
// Memory stays bounded whatever the streams hold: large streams pass
// through a 1 MiB buffer, and only the directory, the FAT and the mini FAT
// are kept until the end.
//
// A stream is copied as far as it goes, but never beyond the size its Stat
// reports: one that ends early is written with the bytes it delivered, and
// bytes beyond its reported size are not read. A stream whose Read fails
// fails the whole save with that error.
//
// The file is written beside `path` and moved over it only when it is
// complete (writeBesideThenMove), so a failure leaves an existing file
// untouched and no partial file behind. Failures are logged and returned:
// - the source's own errors (EnumElements, OpenStorage, OpenStream, Stat,
//   Read) as the source returned them;
// - STG_E_DOCFILECORRUPT: storages nested deeper than the depth limit, more
//   elements than the element limit, two siblings with the same name, or a
//   Read claiming more bytes than were asked for;
// - STG_E_INVALIDNAME: a name the format can't hold (empty, longer than 31
//   characters, or holding '/', '\', ':' or '!');
// - HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE): a stream beyond 2 GiB (the
//   most a version 3 directory entry may record) or a file beyond 4 GiB;
// - the system's file errors (HRESULT_FROM_WIN32) for creating, writing
//   and renaming the file.
#include <objidl.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct CompoundFileLimits {
    uint64_t maxFileBytes = uint64_t(4) << 30;
    uint64_t maxStreamBytes = uint64_t(2) << 30;
    // Elements below the root, storages and streams alike.
    size_t maxElements = 100000;
    // Levels of storages below the root.
    int maxDepth = 64;
};

HRESULT writeCompoundFile(IStorage* source, const std::wstring& path);

// The same with other limits, so that the limits can be proved without
// writing gigabytes.
HRESULT writeCompoundFile(IStorage* source, const std::wstring& path, const CompoundFileLimits& limits);
