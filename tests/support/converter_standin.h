#pragma once
// Outlook's MIME converter (IConverterSession) for tests, where no Outlook is
// installed. MAPIToMIMEStm reads the message through the IMessage it is
// given (GetProps, the recipient table) and writes a plain-text Internet
// mail (see converter_mime.h). ConverterRegistration makes the class known
// to COM for as long as it lives, so the add-in's own CoCreateInstance finds it.
#include "items/converter_session.h"
#include "e2e_shared/com_object.h"

#include <windows.h>
#include <mapidefs.h>
#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

enum class ConverterCreationFailure {
    None,
    ClassNotRegistered,    // the class factory answers REGDB_E_CLASSNOTREG
    NoConverterInterface,  // the object exists but refuses IID_KvConverterSession
};

// Switches and records shared by every converter that one registration makes.
struct ConverterActivity {
    ConverterCreationFailure creationFailure = ConverterCreationFailure::None;
    // MAPIToMIMEStm writes the first half of the mail, then answers MAPI_E_CALL_FAILED.
    bool conversionFails = false;

    ULONG instancesCreated = 0;          // converters the factory made
    ULONG conversionCalls = 0;           // MAPIToMIMEStm calls, failed ones included
    std::vector<ULONG> conversionFlags;  // the flags of each MAPIToMIMEStm call
    std::string lastMime;                // the whole text of the last conversion, as composed
};

class ConverterStandIn final : public ComObject<IConverterSession> {
public:
    // `freeBuffer` frees what the message hands out (MAPIFreeBuffer of the
    // MAPI the message was opened with).
    static Microsoft::WRL::ComPtr<ConverterStandIn> create(
        LPFREEBUFFER freeBuffer, std::shared_ptr<ConverterActivity> activity = std::make_shared<ConverterActivity>());

    const ConverterActivity& activity() const { return *activity_; }
    ConverterActivity& activity() { return *activity_; }

    // IConverterSession
    HRESULT STDMETHODCALLTYPE SetAdrBook(LPADRBOOK addressBook) override;
    HRESULT STDMETHODCALLTYPE SetEncoding(int encoding) override;
    HRESULT STDMETHODCALLTYPE PlaceHolder1() override;
    HRESULT STDMETHODCALLTYPE MIMEToMAPI(LPSTREAM stream, LPMESSAGE message, LPCSTR sourceServer,
                                         ULONG flags) override;
    HRESULT STDMETHODCALLTYPE MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags) override;
    HRESULT STDMETHODCALLTYPE PlaceHolder2() override;
    HRESULT STDMETHODCALLTYPE PlaceHolder3() override;
    HRESULT STDMETHODCALLTYPE PlaceHolder4() override;
    HRESULT STDMETHODCALLTYPE SetTextWrapping(BOOL wrapText, ULONG wrapWidth) override;
    HRESULT STDMETHODCALLTYPE SetSaveFormat(int saveFormat) override;
    HRESULT STDMETHODCALLTYPE PlaceHolder5() override;
    HRESULT STDMETHODCALLTYPE SetCharset(BOOL apply, void* charset, int applyType) override;

private:
    ConverterStandIn(LPFREEBUFFER freeBuffer, std::shared_ptr<ConverterActivity> activity);
    ~ConverterStandIn() override = default;
    // Refused only when the test asks for NoConverterInterface.
    bool offers(REFIID riid) const override;

    LPFREEBUFFER freeBuffer_;
    std::shared_ptr<ConverterActivity> activity_;
};

// Registers a class factory for CLSID_KvConverterSession with COM
// (CoRegisterClassObject, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE) and
// revokes it again on destruction. Use it on the thread that will call
// CoCreateInstance, inside an initialised apartment.
class ConverterRegistration {
public:
    explicit ConverterRegistration(LPFREEBUFFER freeBuffer);
    ~ConverterRegistration();
    ConverterRegistration(const ConverterRegistration&) = delete;
    ConverterRegistration& operator=(const ConverterRegistration&) = delete;

    // The result of CoRegisterClassObject; S_OK when the class is available.
    HRESULT registrationResult() const { return registrationResult_; }

    void setCreationFailure(ConverterCreationFailure failure) { activity_->creationFailure = failure; }
    void setConversionFails(bool fails) { activity_->conversionFails = fails; }
    const ConverterActivity& activity() const { return *activity_; }

private:
    std::shared_ptr<ConverterActivity> activity_;
    HRESULT registrationResult_ = E_FAIL;
    DWORD cookie_ = 0;
};
