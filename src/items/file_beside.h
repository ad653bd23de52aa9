#pragma once
// Files that appear under their final name only when they are complete.
// Every file a drag item writes (.msg by either writer, .eml, attachments,
// decrypted copies) is written into a new file beside its final path - in
// the same folder, so that the move is a rename - and moved over the final
// path at the end, replacing the placeholder that stands there. A failure
// leaves the final path as it was (the placeholder, or nothing) and removes
// the file beside it: a drop target never finds a truncated file under a
// name it was given.
#include <objidl.h>
#include <wrl/client.h>

#include <functional>
#include <string>

// Makes a new, empty file beside `finalPath`, lets `write` fill it by its
// path, and moves it over `finalPath` once `write` succeeded. A failure of
// any step is logged at ERROR with the final path and returned.
HRESULT writeBesideThenMove(const std::wstring& finalPath, const std::function<HRESULT(const std::wstring& path)>& write);

// The file at `path` opened as a stream for writing, emptied first.
HRESULT openStreamForWriting(const std::wstring& path, Microsoft::WRL::ComPtr<IStream>& stream);

// Test seam: while set, every stream openStreamForWriting hands out is the
// one `filter` makes of the file's stream (a disk that fills up, say).
using WriteStreamFilter = Microsoft::WRL::ComPtr<IStream> (*)(IStream* fileStream);
void filterWriteStreams(WriteStreamFilter filter);
