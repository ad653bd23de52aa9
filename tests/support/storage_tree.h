#pragma once
// Compound files read back element by element, to compare two of them.
#include <objidl.h>
#include <wrl/client.h>

#include <map>
#include <string>

// A compound file opened read-only; null when it is none.
Microsoft::WRL::ComPtr<IStorage> openStorageFile(const std::wstring& path);
// A stream from its position to its end.
std::string restOf(IStream* stream);
// Every element below `storage` by its path ("/__substg1.0_0037001F"): a
// storage's class id, a stream's size and the hash of its bytes.
std::map<std::string, std::string> treeOf(IStorage* storage, const std::string& where = "");
