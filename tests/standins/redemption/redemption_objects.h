#pragma once
// The late-bound objects of the Redemption stand-in: a session (RDOSession)
// and the mails it opens from .msg files (RDOMail), reached only through
// IDispatch by name, as the add-in reaches the real library.
#include <windows.h>
#include <oaidl.h>
#include <wrl/client.h>

// Session members:
//   MAPIOBJECT                  put, putref and get: holds what was put.
//   GetMessageFromMsgFile(path) a mail object over that .msg file.
// Mail members:
//   GetDecryptedMessage()       a mail object that reads as decrypted.
//   Body                        property get, as text.
//   SaveAs(path, type)          type 3: the .msg (decrypted when the mail is);
//                               any other type: the subject and body as Internet mail text.
Microsoft::WRL::ComPtr<IDispatch> createRedemptionSession();
