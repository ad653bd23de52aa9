// The data object a drop target receives: the files of the drag, with
// Outlook's own object behind the filtering wrapper.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "common/com_ptr.h"
#include "dataobject/file_data_object.h"
#include "dataobject/format_etc.h"
#include "dataobject/item_id_list.h"
#include "dataobject/shell_data_object.h"
#include "dataobject/filter_data_object.h"

#include <new>

namespace {

Logger logger("DataObjectHelper");

// What Outlook's object must not offer next to the real files: its virtual
// files. Its text never passes the wrapper, which offers its own instead.
std::set<CLIPFORMAT> hiddenOutlookFormats()
{
    const ClipboardFormats& ids = registeredFormats();
    return {ids.fileGroupDescriptor, ids.fileGroupDescriptorW, ids.fileContents};
}

HRESULT createWithShell(SHCreateDataObjectFunction shellFunction, FileIdLists& lists, IDataObject* inner,
                        Microsoft::WRL::ComPtr<IDataObject>& object)
{
    const HRESULT hr = shellFunction(lists.parent.get(), static_cast<UINT>(lists.children.size()),
                                     lists.children.data(), inner, IID_IDataObject,
                                     reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
    KV_DEBUG(logger) << "SHCreateDataObject=" << hr << ", pDataObjectNew=" << object.Get();
    if (SUCCEEDED(hr) && !object)
        return E_UNEXPECTED;
    return hr;
}

// The paths whose files are there, for the add-in's own object.
PathList existingFiles(const PathList& paths)
{
    PathList files;
    for (const std::wstring& path : paths) {
        if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
            files.push_back(path);
        else
            KV_WARN(logger) << "no file " << path;
    }
    return files;
}

} // namespace

HRESULT CreateDataObjectForFiles(IDataObject* outlookDataObject, const std::wstring& option, const PathList& paths,
                                 Microsoft::WRL::ComPtr<IDataObject>& dataObjectNew, std::shared_ptr<DDItems> items)
{
    KV_DEBUG(logger) << "CreateDataObjectForFiles(outlookDataObject=" << outlookDataObject
                     << ", #paths=" << paths.size();
    dataObjectNew.Reset();

    Microsoft::WRL::ComPtr<IDataObject> filter = adoptCom(new (std::nothrow) MyDataObjectFilterFormat(
        outlookDataObject, hiddenOutlookFormats(), option, std::move(items)));
    KV_DEBUG(logger) << "MyDataObjectFilterFormat=" << filter.Get();
    if (!filter)
        return E_OUTOFMEMORY;

    Microsoft::WRL::ComPtr<IDataObject> object;
    HRESULT hr = E_NOTIMPL;
    if (const SHCreateDataObjectFunction shellFunction = shellCreateDataObject()) {
        FileIdLists lists;
        if (!makeFileIdLists(paths, lists)) {
            KV_ERROR(logger) << "CreateDataObjectForFiles: no item-id lists for the files";
            return E_FAIL;
        }
        hr = createWithShell(shellFunction, lists, filter.Get(), object);
    }
    if (FAILED(hr)) {
        // Where the shell cannot make the object, the add-in's own offers the
        // same file formats around the same wrapper.
        KV_INFO(logger) << "SHCreateDataObject failed, hr=" << hr << ", using FileDataObject";
        PathList files = existingFiles(paths);
        if (files.empty()) {
            KV_ERROR(logger) << "CreateDataObjectForFiles: none of the files is there";
            return E_FAIL;
        }
        object = adoptCom(new (std::nothrow) FileDataObject(filter.Get(), std::move(files)));
        if (!object)
            return E_OUTOFMEMORY;
        hr = S_OK;
    } else {
        KV_INFO(logger) << "using the shell's data object";
    }

    FORMATETC hdrop{CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    const HRESULT query = object->QueryGetData(&hdrop);
    KV_DEBUG(logger) << "QueryGetData(CF_HDROP)=" << query;
    if (query != S_OK) {
        const HRESULT added = CreateCF_HDROP(paths, object.Get());
        KV_DEBUG(logger) << "Added HDROP, hr=" << added;
    }

    KV_DEBUG(logger) << "free pidls";
    dataObjectNew = object;
    KV_DEBUG(logger) << ")CreateDataObjectForFiles=" << hr << ", pDataObjectNew=" << dataObjectNew.Get();
    return hr;
}
