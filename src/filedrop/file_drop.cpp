// The drag path of the file-drop unit: start and stop, and the routine that
// turns Outlook's data object into one that carries real files.
#include "filedrop/file_drop.h"

#include "core/globals.h"
#include "core/log.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/data_object_reader.h"
#include "dataobject/data_object_writer.h"
#include "filedrop/cleanup.h"
#include "filedrop/file_drop_state.h"

namespace FileDrop {

namespace {

Logger logger("FileDrop");

using Microsoft::WRL::ComPtr;

void makeFolder(const std::wstring& folder, const std::wstring& nameInLog)
{
    if (!CreateDirectoryW(folder.c_str(), nullptr)) {
        const DWORD err = GetLastError();
        KV_ERROR(logger) << "Cannot create temporary directory=" << nameInLog << ", error=" << err;
    }
}

// TextFormat "json": the item list; "table": what Outlook itself offers as
// text for the selection; anything else: no text.
std::wstring textFor(const std::wstring& textFormat, const DDItems& items, IDataObject* outlookDataObject)
{
    if (textFormat == L"json") {
        KV_DEBUG(logger) << "add JSON text";
        return items.toJson();
    }
    if (textFormat == L"table") {
        KV_DEBUG(logger) << "add table text";
        return getText(outlookDataObject);
    }
    return L"";
}

PathList pathsOf(const DDItems& items)
{
    PathList paths;
    paths.reserve(items.size());
    for (size_t i = 0; i < items.size(); ++i)
        paths.push_back(items.at(i)->fileName());
    return paths;
}

// Steps 9 to 12: the new object over the item files, its text and the file
// formats. On failure `resultDataObject` is left alone.
HRESULT buildFileDataObject(IDataObject* outlookDataObject, const std::shared_ptr<DDItems>& items,
                            ComPtr<IDataObject>& resultDataObject, Globals& settings)
{
    const PathList paths = pathsOf(*items);

    // The text goes to the filtering wrapper, which gives it to no one over
    // the SAP logon pad; set on the outer object it would pass by the filter.
    const std::wstring text = textFor(settings.getTextFormat(), *items, outlookDataObject);
    ComPtr<IDataObject> dataObjectNew;
    const HRESULT created = CreateDataObjectForFiles(outlookDataObject, text, paths, dataObjectNew, items);
    KV_DEBUG(logger) << "pDataObjectNew=" << dataObjectNew.Get() << ", hr=" << created << ", #text=" << text.size();
    if (!dataObjectNew)
        return E_FAIL;

    // The targets that read descriptors, file names or contents find the
    // files there as well; a format that can't be added leaves the others.
    HRESULT hr = setFileGroupDescriptors(paths, dataObjectNew.Get());
    KV_DEBUG(logger) << "setFileGroupDescriptors hr=" << hr;
    hr = setFileNames(paths, dataObjectNew.Get());
    KV_DEBUG(logger) << "setFileNames hr=" << hr;
    hr = setFileContents(paths, dataObjectNew.Get());
    KV_DEBUG(logger) << "setFileContents hr=" << hr;

    resultDataObject = dataObjectNew;
    return S_OK;
}

} // namespace

void init()
{
    KV_DEBUG(logger) << "init(";
    FileDropState& state = fileDropState();
    RegisterDataFormats();
    // A worker of an earlier switch-on still finishing its pass reads
    // tempDir; let it end before the folder name is written again. One that
    // was never told to stop (a switch-on cut short) is told now.
    if (state.cleanupWorker.joinable()) {
        stopCleanupLoop(state);
        state.cleanupWorker.join();
    }
    initTempDir(state.tempDir);
    startCleanupWorker(state);
    KV_DEBUG(logger) << ")init";
}

void done()
{
    KV_DEBUG(logger) << "done(";
    stopCleanupLoop(fileDropState());
    KV_DEBUG(logger) << ")done";
}

HRESULT handleDataObject(IDataObject* sourceDataObject, IDataObject* outlookDataObject,
                         const std::shared_ptr<DDItems>& items, bool saveOnBeginDrag,
                         ComPtr<IDataObject>& resultDataObject, Globals& settings)
{
    // Both objects stay alive for the whole call, whatever Outlook does meanwhile.
    const ComPtr<IDataObject> source(sourceDataObject);
    const ComPtr<IDataObject> outlook(outlookDataObject);
    return internalHandleDataObject(fileDropState(), source.Get(), outlook.Get(), items, saveOnBeginDrag,
                                    resultDataObject, settings);
}

HRESULT internalHandleDataObject(FileDropState& state, IDataObject* sourceDataObject,
                                 IDataObject* outlookDataObject, const std::shared_ptr<DDItems>& items,
                                 bool saveOnBeginDrag, ComPtr<IDataObject>& resultDataObject, Globals& settings)
{
    KV_DEBUG(logger) << "internalHandleDataObject(sourceDataObject=" << sourceDataObject
                     << ", outlookDataObject=" << outlookDataObject << ", saveOnBeginDrag=" << saveOnBeginDrag;
    // From here on every early exit leaves the caller with Outlook's object.
    resultDataObject = outlookDataObject;

    HRESULT hr = S_OK;
    if (!outlookDataObject || !items) {
        KV_ERROR(logger) << "internalHandleDataObject without " << (items ? "data object" : "item list");
        hr = E_INVALIDARG;
        KV_DEBUG(logger) << ")internalHandleDataObject=" << hr;
        return hr;
    }

    // The folder may have been deleted since start-up.
    if (GetFileAttributesW(state.tempDir.c_str()) == INVALID_FILE_ATTRIBUTES)
        makeFolder(state.tempDir, state.tempDir);

    // Two drags in the same second share the folder; the second creation
    // fails with "already exists", which does no harm.
    const std::wstring dragFolder = dragFolderName(state.tempDir, secondsSinceEpoch());
    makeFolder(dragFolder, state.tempDir);

    hr = createDDItems(outlookDataObject, *items, dragFolder, settings);
    if (hr != S_OK) {
        KV_DEBUG(logger) << ")internalHandleDataObject=" << hr;
        return hr;
    }

    const int maxFiles = settings.maxFiles();
    KV_INFO(logger) << "maxFiles=" << maxFiles;
    if (maxFiles >= 0 && items->size() > static_cast<size_t>(maxFiles)) {
        KV_INFO(logger) << "Skip creating HDROP, because more files than maxFiles are selected. #selected="
                        << items->size() << ", #maxFiles=" << maxFiles;
        // The drag goes on with Outlook's object alone; without items the
        // drop source has nothing to save at the drop either.
        items->release();
        KV_DEBUG(logger) << ")internalHandleDataObject=" << S_OK;
        return S_OK;
    }

    // createDDItems gave every item a name that is unique within the drag.
    KV_DEBUG(logger) << "make unique file names";

    if (saveOnBeginDrag) {
        KV_DEBUG(logger) << "save on begin drop";
        hr = items->save();
    } else {
        KV_DEBUG(logger) << "prepare files";
        hr = items->prepareFiles();
    }
    if (hr != S_OK) {
        KV_DEBUG(logger) << ")internalHandleDataObject=" << hr;
        return hr;
    }

    hr = buildFileDataObject(outlookDataObject, items, resultDataObject, settings);

    if (SUCCEEDED(hr) && logger.isDebugEnabled()) {
        KV_DEBUG(logger) << "MyDataObject formats:";
        dumpFormats(resultDataObject.Get(), DATADIR_GET);
        dumpFormats(resultDataObject.Get(), DATADIR_SET);
    }
    KV_DEBUG(logger) << ")internalHandleDataObject=" << hr;
    return hr;
}

} // namespace FileDrop
