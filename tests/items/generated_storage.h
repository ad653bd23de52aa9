#pragma once
// A storage that makes its elements up as they are enumerated, for trees no
// real storage could hold in a test's time and memory: a hundred thousand
// streams, storages nested without end, streams of gigabytes, and streams
// whose Read claims more bytes than it delivered.
#include <objidl.h>
#include <wrl/client.h>

#include <functional>
#include <string>

struct GeneratedElement {
    std::wstring name;
    bool storage = false;   // a storage opens as another storage generated from the same layout
    ULONGLONG bytes = 0;    // a stream's size; its bytes are generatedByte(0), generatedByte(1), ...
};

struct GeneratedStorageLayout {
    ULONGLONG count = 0;                                   // elements of every storage
    std::function<GeneratedElement(ULONGLONG index)> element;
    ULONG readOverclaim = 0;                               // each Read reports this many bytes more than it wrote
    int levels = -1;               // storages this many levels below the top hold nothing; -1: no end
    // What Stat reports for a storage `depth` levels down: this class id with
    // `depth` added to its first field, and these state bits plus `depth`.
    CLSID clsid{};
    DWORD stateBits = 0;
};

Microsoft::WRL::ComPtr<IStorage> makeGeneratedStorage(const GeneratedStorageLayout& layout);

// Byte `offset` of every generated stream.
char generatedByte(ULONGLONG offset);
