#pragma once
// Checks for written compound files: a parser of our own that walks the raw
// bytes the way the format is documented (so a lenient system reader can't
// hide a broken FAT or an ill-formed sibling tree), and a comparison of two
// storage trees through the system's structured storage.
#include <objidl.h>
#include <wrl/client.h>

#include <cstdint>
#include <string>
#include <vector>

// Every problem found in the bytes of a version 3 compound file, one a line;
// empty when the file is well-formed: header fields, the DIFAT and FAT, every
// chain (in range, ended, no sector used twice, none left over), the
// directory (names, lengths, types) and each storage's children forming one
// red-black tree in the documented sibling order, mini stream and mini FAT.
std::string compoundFileProblems(const std::string& bytes);

// What the directory entry of one storage holds; `path` is "" for the root
// and "a/b" below it.
struct RawStorageEntry {
    std::wstring path;
    CLSID clsid{};
    uint32_t stateBits = 0;
};

// Every storage of a well-formed file as its directory entry records it,
// read from the bytes (the system's reader on some platforms doesn't report
// state bits).
std::vector<RawStorageEntry> storageEntriesOf(const std::string& bytes);

// The file opened read-only with StgOpenStorageEx; null when that fails.
Microsoft::WRL::ComPtr<IStorage> openCompoundFile(const std::wstring& path);

// Adds a test failure, with the element's path, for each difference between
// the trees: names present on one side only, element types, stream bytes,
// and the class id of every storage including the root.
void expectSameTree(IStorage* expected, IStorage* actual);

// Adds a test failure for each storage whose directory entry in `bytes`
// holds another class id or other state bits than the source's Stat reports.
void expectStorageEntriesMatch(IStorage* source, const std::string& bytes);

// The whole content of a stream from its current position.
std::string readWholeStream(IStream* stream);
