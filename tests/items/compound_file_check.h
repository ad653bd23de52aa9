#pragma once
// Checks for written compound files: a parser of our own that walks the raw
// bytes the way the format is documented (so a lenient system reader can't
// hide a broken FAT or an ill-formed sibling tree), and a comparison of two
// storage trees through the system's structured storage.
#include <objidl.h>
#include <wrl/client.h>

#include <string>

// Every problem found in the bytes of a version 3 compound file, one a line;
// empty when the file is well-formed: header fields, the DIFAT and FAT, every
// chain (in range, ended, no sector used twice, none left over), the
// directory (names, lengths, types) and each storage's children forming one
// red-black tree in the documented sibling order, mini stream and mini FAT.
std::string compoundFileProblems(const std::string& bytes);

// The file opened read-only with StgOpenStorageEx; null when that fails.
Microsoft::WRL::ComPtr<IStorage> openCompoundFile(const std::wstring& path);

// Adds a test failure, with the element's path, for each difference between
// the trees: names present on one side only, element types, stream bytes,
// and the class id and state bits of every storage including the root.
void expectSameTree(IStorage* expected, IStorage* actual);

// The whole content of a stream from its current position.
std::string readWholeStream(IStream* stream);
