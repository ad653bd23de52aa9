#pragma once
// The file-drop unit's one record: the add-in's temporary folder and what the
// cleanup worker needs to be stopped. The process-wide record lives until the
// process ends; hosts and tests may make records of their own.
#include <objidl.h>
#include <wrl/client.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "items/dd_item.h"

class Globals;

namespace FileDrop {

struct FileDropState {
    FileDropState() = default;
    FileDropState(const FileDropState&) = delete;
    FileDropState& operator=(const FileDropState&) = delete;
    // A record that still has a worker stops it and waits for it, so that no
    // worker outlives the record it works on.
    ~FileDropState();

    // "%TEMP%\Korvane" without a trailing backslash.
    std::wstring tempDir;
    // Where KeepTempFilesMinutes is read at every pass; null means the
    // process-wide settings.
    Globals* settings = nullptr;

    std::mutex cleanupLock;
    std::condition_variable cleanupWake;
    bool stopped = false; // guarded by cleanupLock
    std::thread cleanupWorker;
};

// The process-wide record. It is never destroyed: a worker that is still
// finishing its pass when Outlook exits must not find it gone.
FileDropState& fileDropState();

// The central routine of a drag or copy; see handleDataObject.
HRESULT internalHandleDataObject(FileDropState& state, IDataObject* sourceDataObject,
                                 IDataObject* outlookDataObject, const std::shared_ptr<DDItems>& items,
                                 bool saveOnBeginDrag, Microsoft::WRL::ComPtr<IDataObject>& resultDataObject,
                                 Globals& settings);

// Whole seconds since 1970-01-01 00:00 UTC by the system clock.
ULONGLONG secondsSinceEpoch();

// tempDir + "\" + the seconds in decimal.
std::wstring dragFolderName(const std::wstring& tempDir, ULONGLONG seconds);

} // namespace FileDrop
