#pragma once
// Outlook's MIME converter (IConverterSession) for tests, where no Outlook is
// installed, registered with COM for as long as a ConverterRegistration
// lives, so that the add-in's own CoCreateInstance finds it. MAPIToMIMEStm
// reads the message it is given (subject, sender, body through GetProps; the
// recipient table) and writes a plain-text Internet mail the way the
// converter shapes one: "Name" <address>, lists folded with a tab, Bcc only
// with CCSF_INCLUDE_BCC, CRLF everywhere.
#include "items/converter_session.h"

#include <windows.h>
#include <mapidefs.h>

#include <memory>
#include <string>
#include <vector>

enum class ConverterCreationFailure {
    None,
    ClassNotRegistered,   // the class factory answers REGDB_E_CLASSNOTREG
    NoConverterInterface, // the object exists but refuses IID_KvConverterSession
};

struct ConverterActivity {
    ConverterCreationFailure creationFailure = ConverterCreationFailure::None;
    bool conversionFails = false;       // MAPIToMIMEStm writes half the mail, then fails
    ULONG conversionCalls = 0;          // failed ones included
    std::vector<ULONG> conversionFlags; // of each call
    std::string lastMime;               // the whole mail of the last call
};

class ConverterRegistration {
public:
    // `freeBuffer`: the MAPIFreeBuffer of the MAPI the messages come from.
    explicit ConverterRegistration(LPFREEBUFFER freeBuffer);
    ~ConverterRegistration();
    ConverterRegistration(const ConverterRegistration&) = delete;
    ConverterRegistration& operator=(const ConverterRegistration&) = delete;

    void setCreationFailure(ConverterCreationFailure failure) { activity_->creationFailure = failure; }
    void setConversionFails(bool fails) { activity_->conversionFails = fails; }
    const ConverterActivity& activity() const { return *activity_; }

private:
    std::shared_ptr<ConverterActivity> activity_;
    HRESULT registration_ = E_FAIL;
    DWORD cookie_ = 0;
};
