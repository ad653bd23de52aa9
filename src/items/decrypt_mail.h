#pragma once
// Turns an S/MIME-encrypted .msg file into a decrypted .msg file, through the
// Redemption library beside the add-in or through Outlook's object model.
#include <windows.h>
#include <oaidl.h>
#include <wrl/client.h>

#include <string>

class Globals;

class DecryptMail {
public:
    explicit DecryptMail(const Globals& settings) : settings_(settings) {}
    DecryptMail(const DecryptMail&) = delete;
    DecryptMail& operator=(const DecryptMail&) = delete;

    // Redemption first when withRedemption is set and it works, else Outlook.
    HRESULT decryptMailItem(bool withRedemption, IDispatch* application, const std::wstring& fileNameEncrypted,
                            const std::wstring& fileNameDecrypted);
    HRESULT decryptMailItemRedemption(IDispatch* application, const std::wstring& fileNameEncrypted,
                                      const std::wstring& fileNameDecrypted);
    HRESULT decryptMailItemOutlook(IDispatch* application, const std::wstring& fileNameEncrypted,
                                   const std::wstring& fileNameDecrypted);

    // Redemption64.dll (Redemption.dll in the 32-bit add-in) from the add-in's
    // own folder and nowhere else; loaded once and kept.
    HMODULE loadRedemption();
    // A new Redemption session made straight from the library's class factory.
    Microsoft::WRL::ComPtr<IDispatch> newRedemptionSession();
    // Makes the session work inside Outlook's own MAPI session.
    HRESULT attachOutlookSession(IDispatch* redemptionSession, IDispatch* application);

    std::wstring notifyDecryptionFailed() const;
    std::wstring notifyErrorTitle() const;

private:
    const Globals& settings_;
    HMODULE redemption_ = nullptr;
};

// "Redemption64.dll" or "Redemption.dll", by the add-in's own bitness.
const wchar_t* redemptionFileName();
