#pragma once
// Turns a drag or copy out of Outlook into real files: the add-in's temporary
// folder, one folder per drag, the items saved (or prepared) there, and the
// data object the drop target receives.
#include <objidl.h>
#include <oaidl.h>
#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "items/dd_item.h"

class Globals;

namespace FileDrop {

// Registers the formats, makes the temporary folder, starts the cleanup worker.
void init();
// Stops the cleanup worker (returns at once; the worker ends after its pass).
void done();

// "%TEMP%\Korvane", created when missing; no trailing backslash.
void initTempDir(std::wstring& tempDir);
const std::wstring& tempDir();

// Builds the new data object for Outlook's; on any failure `resultDataObject`
// is Outlook's own object, so the drag always goes on.
HRESULT handleDataObject(IDataObject* sourceDataObject, IDataObject* outlookDataObject,
                         const std::shared_ptr<DDItems>& items, bool saveOnBeginDrag,
                         Microsoft::WRL::ComPtr<IDataObject>& resultDataObject, Globals& settings);

// Saved .msg files renamed to carry the sender's name and the received date.
void insertSenderNameReceiveDateIntoMsgFiles(IDispatch* outlookApplication, std::vector<std::wstring>& fileList);
std::wstring insertSenderNameReceiveDateIntoMsgFile(IDispatch* outlookApplication, const std::wstring& path);
std::wstring insertParamsIntoFileName(const std::wstring& path, const std::wstring& senderName,
                                      const std::wstring& receiveDate);
std::wstring variantToString(const VARIANT& value);

// The steps of the renaming through Outlook's object model (late bound):
// the mail item that CreateItemFromTemplate makes of a .msg file (null on
// failure), and one of its properties read by name.
Microsoft::WRL::ComPtr<IDispatch> createMailItem(IDispatch* outlookApplication, const std::wstring& path);
HRESULT getMailItemProperty(IDispatch* mailItem, const wchar_t* name, VARIANT* value);

} // namespace FileDrop
