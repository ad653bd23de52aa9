#pragma once
// Outlook's MIME converter, registered with COM while a ConverterRegistration
// lives: MAPIToMIMEStm writes the message as the converter does ("Name"
// <address>, lists folded with a tab, Bcc only with CCSF_INCLUDE_BCC).
#include "items/converter_session.h"

#include <windows.h>
#include <mapidefs.h>
#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

struct ConverterActivity {
    LPFREEBUFFER freeBuffer = nullptr;  // the MAPIFreeBuffer of the MAPI the messages come from
    bool conversionFails = false;       // MAPIToMIMEStm writes half the mail, then fails
    std::vector<ULONG> conversionFlags; // of each call, failed ones included
    std::string lastMime;               // the whole mail of the last call
};

class ConverterRegistration {
public:
    // `freeBuffer`: the MAPIFreeBuffer of the MAPI the messages come from.
    explicit ConverterRegistration(LPFREEBUFFER freeBuffer);
    ~ConverterRegistration() { setRegistered(false); }
    ConverterRegistration(const ConverterRegistration&) = delete;
    ConverterRegistration& operator=(const ConverterRegistration&) = delete;

    // Unregistered, CoCreateInstance finds no class, as on a machine without Outlook.
    void setRegistered(bool registered);
    void setConversionFails(bool fails) { activity_->conversionFails = fails; }
    const ConverterActivity& activity() const { return *activity_; }

private:
    std::shared_ptr<ConverterActivity> activity_;
    Microsoft::WRL::ComPtr<IClassFactory> factory_;
    DWORD cookie_ = 0;
};
