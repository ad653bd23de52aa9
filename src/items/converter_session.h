#pragma once
// Outlook's MIME converter (IConverterSession), as Outlook documents it for
// add-ins. It exists only inside an installed Outlook; the add-in creates it
// by class id and converts an open MAPI message into an Internet mail.
#include <windows.h>
#include <ole2.h>
#include <mapidefs.h>

// {4E3A7680-B77A-11D0-9DA5-00C04FD65685}
inline constexpr CLSID CLSID_KvConverterSession = {
    0x4e3a7680, 0xb77a, 0x11d0, {0x9d, 0xa5, 0x00, 0xc0, 0x4f, 0xd6, 0x56, 0x85}};
// {4B401570-B77B-11D0-9DA5-00C04FD65685}
inline constexpr IID IID_KvConverterSession = {
    0x4b401570, 0xb77b, 0x11d0, {0x9d, 0xa5, 0x00, 0xc0, 0x4f, 0xd6, 0x56, 0x85}};

// Conversion flags of MAPIToMIMEStm.
constexpr ULONG CCSF_SMTP = 0x0002;
constexpr ULONG CCSF_NOHEADERS = 0x0004;
constexpr ULONG CCSF_USE_TNEF = 0x0010;
constexpr ULONG CCSF_INCLUDE_BCC = 0x0020;
constexpr ULONG CCSF_8BITHEADERS = 0x0040;
constexpr ULONG CCSF_USE_RTF = 0x0080;

struct IConverterSession : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE SetAdrBook(LPADRBOOK addressBook) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetEncoding(int encoding) = 0;
    virtual HRESULT STDMETHODCALLTYPE PlaceHolder1() = 0;
    virtual HRESULT STDMETHODCALLTYPE MIMEToMAPI(LPSTREAM stream, LPMESSAGE message, LPCSTR sourceServer,
                                                 ULONG flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE PlaceHolder2() = 0;
    virtual HRESULT STDMETHODCALLTYPE PlaceHolder3() = 0;
    virtual HRESULT STDMETHODCALLTYPE PlaceHolder4() = 0;
    virtual HRESULT STDMETHODCALLTYPE SetTextWrapping(BOOL wrapText, ULONG wrapWidth) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetSaveFormat(int saveFormat) = 0;
    virtual HRESULT STDMETHODCALLTYPE PlaceHolder5() = 0;
    virtual HRESULT STDMETHODCALLTYPE SetCharset(BOOL apply, void* charset, int applyType) = 0;
};
