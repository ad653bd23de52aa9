#pragma once
// The Outlook Application object the add-in is connected to, for the parts
// that call back into Outlook (Exchange addresses, decryption, Redemption).
#include <oaidl.h>
#include <wrl/client.h>

Microsoft::WRL::ComPtr<IDispatch> outlookApplication();
void setOutlookApplication(IDispatch* application);
