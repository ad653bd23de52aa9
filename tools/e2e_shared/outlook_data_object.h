#pragma once
// A real COM data object shaped like the one Outlook hands to DoDragDrop (and
// OleSetClipboard) when the user drags mails and attachments:
// - "FileGroupDescriptorW" and/or "FileGroupDescriptor": one descriptor per
//   entry, in entry order;
// - "FileContents" by `lindex`: an IStorage for a mail (a new compound file
//   in memory made from its MsgContent at every GetData, or a storage the test
//   gives), an IStream for an attachment (a new memory stream over its bytes);
// - CF_UNICODETEXT: Outlook's tab-separated table of the selected mails
//   ("From\tSubject\tReceived\tSize" and one line per mail, each ending CR LF);
// - Outlook's private formats "RenPrivateSourceFolder", "RenPrivateMessages",
//   "RenPrivateItem" and the OLE "Object Descriptor", as small memory blocks.
// EnumFormatEtc lists everything offered plus what SetData left; SetData is
// accepted and kept (a later GetData of that format answers with a copy).
// Every GetData is counted per format, so a test can check what was asked.
//
// The hostile switches make the object misbehave the way a broken or hostile
// source can: counts larger than the block, names without a terminator,
// blocks of odd sizes, contents that fail or come in the wrong medium, and
// streams whose Stat lies.
//
//   OutlookEntry mail{L"Hello.msg"};
//   mail.mail = MsgContent{.subject = L"Hello"};
//   auto object = OutlookDataObject::create({mail, OutlookEntry::attachment(L"a.txt", "abc")});
//   IDataObject* dataObject = object.Get();
//   ... object->getDataCalls(L"FileContents") ...
#include "e2e_shared/com_object.h"
#include "e2e_shared/msg_builder.h"

#include <windows.h>
#include <objidl.h>
#include <shlobj.h>
#include <wrl/client.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct OutlookEntry {
    std::wstring fileName; // the descriptor's cFileName

    // What "FileContents" holds for this index: a mail when `mail` or
    // `storage` is set (the storage is handed out with one more reference),
    // else an attachment stream over `bytes`.
    std::optional<MsgContent> mail;
    Microsoft::WRL::ComPtr<IStorage> storage;
    std::string bytes;

    // Every descriptor field but the name, copied into both descriptor
    // blocks as it stands. Unset: FD_FILESIZE | FD_PROGRESSUI and the size of
    // `bytes`.
    std::optional<FILEDESCRIPTORW> fields;

    // ---- hostile switches for this entry's "FileContents" ----
    // GetData's answer. A failure hands out no medium; a success code other
    // than S_OK (S_FALSE) hands out the medium along with it.
    HRESULT contentsResult = S_OK;
    // The bytes in an HGLOBAL instead of a stream or storage, whatever was asked.
    bool contentsAsHGlobal = false;
    // The attachment stream's Stat reports this size instead of the real one.
    std::optional<ULONGLONG> reportedStreamSize;

    static OutlookEntry attachment(std::wstring fileName, std::string bytes);
    static OutlookEntry mailItem(std::wstring fileName, MsgContent content);
    bool isMail() const { return mail.has_value() || storage; }
};

// Which descriptor formats are offered; None stands for a drag of something
// that is not a file (Outlook dragging a folder, say).
enum class DescriptorForms { WideOnly, AnsiOnly, Both, None };

struct OutlookDataObjectOptions {
    DescriptorForms descriptors = DescriptorForms::Both;
    bool offerText = true;             // CF_UNICODETEXT
    std::optional<std::wstring> text;  // instead of the table made from the entries
    bool offerPrivateFormats = true;   // the three "RenPrivate..." formats and "Object Descriptor"

    // ---- hostile switches for the descriptor blocks ----
    std::optional<uint32_t> declaredCount;  // cItems written into both blocks instead of the entry count
    std::optional<size_t> wideBlockSize;    // the wide block cut, or padded with zeros, to this many bytes
    std::optional<size_t> ansiBlockSize;    // the same for the ANSI block (0 gives an empty block)
    bool namesWithoutNul = false;           // each name followed by 'x' up to all 260 units, no terminator
};

class OutlookDataObject : public ComObject<IDataObject> {
public:
    static Microsoft::WRL::ComPtr<OutlookDataObject> create(std::vector<OutlookEntry> entries,
                                                             OutlookDataObjectOptions options = {});

    // GetData calls for a format, counted whatever the answer was.
    unsigned getDataCalls(CLIPFORMAT format) const;
    unsigned getDataCalls(const wchar_t* formatName) const;
    // The `lindex` of every "FileContents" GetData, in order.
    const std::vector<LONG>& contentsRequests() const { return contentsRequests_; }
    // The number of SetData calls, and whether a format was set.
    unsigned setDataCalls() const { return setDataCalls_; }
    bool wasSet(CLIPFORMAT format) const;

    // The blocks exactly as offered (also when a form is not offered).
    const std::string& wideDescriptorBlock() const { return wideBlock_; }
    const std::string& ansiDescriptorBlock() const { return ansiBlock_; }
    // The text offered as CF_UNICODETEXT (without its NUL).
    const std::wstring& text() const { return text_; }

    // Outlook's table text for these entries (mails only).
    static std::wstring tableText(const std::vector<OutlookEntry>& entries);

    // IDataObject
    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) override;
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC* format, STGMEDIUM* medium) override;
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* format) override;
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out) override;
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release) override;
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD direction, IEnumFORMATETC** formats) override;
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) override;
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) override;
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) override;

protected:
    bool offers(REFIID riid) const override { return riid == IID_IDataObject; }

private:
    OutlookDataObject(std::vector<OutlookEntry> entries, OutlookDataObjectOptions options);
    ~OutlookDataObject() override;

    struct Offered {
        FORMATETC format;      // as enumerated
        std::string bytes;     // the HGLOBAL's contents (not for "FileContents")
    };
    struct SetFormat {
        FORMATETC format;
        STGMEDIUM medium;
    };

    const Offered* findOffered(CLIPFORMAT format) const;
    SetFormat* findSet(CLIPFORMAT format);
    HRESULT contents(const FORMATETC& format, STGMEDIUM& medium) const;

    std::vector<OutlookEntry> entries_;
    OutlookDataObjectOptions options_;
    std::string wideBlock_, ansiBlock_;
    std::wstring text_;
    CLIPFORMAT fileContents_ = 0;
    std::vector<Offered> offered_;
    std::vector<SetFormat> set_;
    std::map<CLIPFORMAT, unsigned> getDataCalls_;
    std::vector<LONG> contentsRequests_;
    unsigned setDataCalls_ = 0;
};
