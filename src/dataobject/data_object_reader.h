#pragma once
// Reading what Outlook puts into its data object: the file group descriptor
// that names the virtual files, and one "FileContents" medium per file, which
// become drag items with unique, safe paths in the drag folder.
#include <objidl.h>
#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "items/dd_item.h"

class Globals;

// A new movable block holding a wide file group descriptor (the caller owns
// it), converted from the ANSI one when only that is offered; null when the
// data object is null or offers neither.
HGLOBAL getFileGroupDescriptorFromDataObject(IDataObject* dataObject);

// Appends one unique, sanitised full path per descriptor to `paths`.
void getFileNamesFromGroupDescr(HGLOBAL descriptor, const std::wstring& tempDir, std::vector<std::wstring>& paths);

// Forbidden characters dropped at the ends and made blanks inside; an empty
// result becomes "temp<n>.unk".
std::wstring sanitizeFileName(const std::wstring& name);

// The whole reading pipeline; appends the items to `items`.
HRESULT createDDItems(IDataObject* dataObject, DDItems& items, const std::wstring& tempDir, Globals& settings);
HRESULT saveFileContentsFromDataObject(IDataObject* dataObject, const std::vector<std::wstring>& paths, DDItems& items,
                                       Globals& settings);
HRESULT createDDItemForFile(IDataObject* dataObject, LONG fileIndex, const std::wstring& fileName,
                            std::unique_ptr<DDItem>& item, Globals& settings);

bool isOutlookDataAvail(IDataObject* dataObject);
HGLOBAL getFileContentFromDataObject(LONG fileIndex, IDataObject* dataObject);
Microsoft::WRL::ComPtr<IStorage> streamToStorage(IStream* stream);
