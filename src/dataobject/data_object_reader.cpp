// From Outlook's data object to drag items: one item per descriptor, a mail
// for a stored message, an attachment for a plain stream.
#include "dataobject/data_object_reader.h"

#include "core/log.h"
#include "dataobject/format_etc.h"
#include "dataobject/global_memory.h"
#include "dataobject/stg_medium.h"
#include "items/attachment_item.h"
#include "items/mail_item.h"

namespace {

Logger logger("DataObjectHelper");

using Microsoft::WRL::ComPtr;

HRESULT queryDescriptor(IDataObject* dataObject, CLIPFORMAT format)
{
    FORMATETC request = hglobalFormat(format);
    return dataObject->QueryGetData(&request);
}

} // namespace

HRESULT createDDItems(IDataObject* dataObject, DDItems& items, const std::wstring& tempDir, Globals& settings)
{
    KV_DEBUG(logger) << "createDDItems(dataObject=" << dataObject << ", tempDir=" << tempDir;
    const ComPtr<IDataObject> hold(dataObject);
    UniqueGlobal descriptor(getFileGroupDescriptorFromDataObject(dataObject));
    if (!descriptor) {
        KV_DEBUG(logger) << ")createDDItems=" << S_OK << ", no file group descriptor";
        return S_OK;
    }
    std::vector<std::wstring> paths;
    getFileNamesFromGroupDescr(descriptor.get(), tempDir, paths);
    descriptor.reset();
    const HRESULT hr = saveFileContentsFromDataObject(dataObject, paths, items, settings);
    KV_DEBUG(logger) << ")createDDItems=" << hr;
    return hr;
}

HRESULT saveFileContentsFromDataObject(IDataObject* dataObject, const std::vector<std::wstring>& paths, DDItems& items,
                                       Globals& settings)
{
    KV_DEBUG(logger) << "saveFileContentsFromDataObject(dataObject=" << dataObject << ", #paths=" << paths.size();
    const ComPtr<IDataObject> hold(dataObject);
    HRESULT hr = S_OK;
    for (size_t i = 0; i < paths.size(); ++i) {
        std::unique_ptr<DDItem> item;
        hr = createDDItemForFile(dataObject, static_cast<LONG>(i), paths[i], item, settings);
        if (FAILED(hr)) {
            KV_ERROR(logger) << "FileContents of index " << i << " failed, hr=" << hr << "; keeping " << items.size()
                             << " items";
            break;
        }
        if (item)
            items.add(std::move(item));
    }
    if (SUCCEEDED(hr))
        hr = S_OK;
    KV_DEBUG(logger) << ")saveFileContentsFromDataObject=" << hr;
    return hr;
}

HRESULT createDDItemForFile(IDataObject* dataObject, LONG fileIndex, const std::wstring& fileName,
                            std::unique_ptr<DDItem>& item, Globals& settings)
{
    KV_DEBUG(logger) << "createDDItemForFile(dataObject=" << dataObject << ", fileIndex=" << fileIndex
                     << ", fileName=" << fileName;
    item.reset();
    HRESULT hr = E_FAIL;
    if (!dataObject) {
        KV_DEBUG(logger) << ")createDDItemForFile=" << hr;
        return hr;
    }
    const ComPtr<IDataObject> hold(dataObject);
    FORMATETC request{registeredFormats().fileContents, nullptr, DVASPECT_CONTENT, fileIndex,
                      TYMED_ISTREAM | TYMED_ISTORAGE};
    UniqueStgMedium medium;
    hr = dataObject->GetData(&request, medium.put());
    KV_DEBUG(logger) << "GetData(FileContents, lindex=" << fileIndex << ") hr=" << hr << ", tymed=" << medium->tymed;
    if (FAILED(hr))
        medium.release(); // a failed GetData owes no medium; never release what it may have scribbled
    if (hr != S_OK) {
        KV_DEBUG(logger) << ")createDDItemForFile=" << hr;
        return hr;
    }
    if (medium->tymed == TYMED_ISTREAM && medium->pstm) {
        item = std::make_unique<AttachmentItem>(fileName, medium->pstm);
    } else if (medium->tymed == TYMED_ISTORAGE && medium->pstg) {
        item = std::make_unique<MailItem>(fileName, medium->pstg, settings);
    } else {
        KV_WARN(logger) << "FileContents of index " << fileIndex << " came as tymed=" << medium->tymed
                        << ", no item for " << fileName;
    }
    KV_DEBUG(logger) << ")createDDItemForFile=" << hr << ", item=" << item.get();
    return hr;
}

bool isOutlookDataAvail(IDataObject* dataObject)
{
    KV_DEBUG(logger) << "isOutlookDataAvail(dataObject=" << dataObject;
    bool available = false;
    if (dataObject) {
        const ComPtr<IDataObject> hold(dataObject);
        const ClipboardFormats& formats = registeredFormats();
        HRESULT hr = queryDescriptor(dataObject, formats.fileGroupDescriptorW);
        if (FAILED(hr))
            hr = queryDescriptor(dataObject, formats.fileGroupDescriptor);
        available = hr == S_OK;
    }
    KV_DEBUG(logger) << ")isOutlookDataAvail=" << available;
    return available;
}
