#pragma once
// Building the data object a drop target receives: real files offered as
// CF_HDROP, "Shell IDList Array", file group descriptors and file names, with
// Outlook's own object behind a filtering wrapper; plus text, copying of
// formats and format dumps for the log.
#include <objidl.h>
#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "items/dd_item.h"

using PathList = std::vector<std::wstring>;

// The new data object over the files, wrapping Outlook's object (with its
// text and descriptor formats hidden); `option` is the wrapper's own text
// (none when empty), and the wrapper keeps `items` alive for as long as the
// target holds the object.
HRESULT CreateDataObjectForFiles(IDataObject* outlookDataObject, const std::wstring& option, const PathList& paths,
                                 Microsoft::WRL::ComPtr<IDataObject>& dataObjectNew,
                                 std::shared_ptr<DDItems> items = nullptr);

HGLOBAL CreateHDROP(const PathList& paths);
HRESULT CreateCF_HDROP(const PathList& paths, IDataObject* dataObject);
HGLOBAL CreateSHELLIDLIST(const PathList& paths);
HRESULT setShellIdList(const PathList& paths, IDataObject* dataObject);

// The three file-format steps of a drag, in this order.
HRESULT setFileGroupDescriptors(const PathList& paths, IDataObject* dataObject); // wide and ANSI
HRESULT setFileNames(const PathList& paths, IDataObject* dataObject);            // "FileName", "FileNameW"
HRESULT setFileContents(const PathList& paths, IDataObject* dataObject);

HRESULT SetHGLOBAL(CLIPFORMAT format, HGLOBAL memory, IDataObject* dataObject);

std::wstring getText(IDataObject* dataObject);
HRESULT setText(IDataObject* dataObject, const std::wstring& text);
HRESULT copyText(IDataObject* from, IDataObject* to);

HRESULT copy(IDataObject* source, IDataObject* destination);
HRESULT copyFormat(const FORMATETC& format, IDataObject* source, IDataObject* destination);

void dumpFormats(IDataObject* dataObject, DWORD direction);
std::wstring clipboardFormatName(CLIPFORMAT format);
