// Renaming saved .msg files so that their names carry the sender's name and
// the received date, read through Outlook's object model.
#include "filedrop/file_drop.h"

#include "core/log.h"
#include "common/com_variant.h"
#include "common/strings.h"

#include <cwchar>

namespace FileDrop {

namespace {

Logger logger("FileDrop");

using Microsoft::WRL::ComPtr;

// The parts of a path as the C library's splitpath gives them, with its
// buffer sizes (drive 3, folder, base name and extension 256 characters
// each, the terminating NUL included).
struct PathParts {
    std::wstring drive, folder, baseName, extension;
};

constexpr size_t driveChars = 3;
constexpr size_t partChars = 256;

bool splitPath(const std::wstring& path, PathParts& parts)
{
    size_t rest = 0;
    if (path.size() >= 2 && path[1] == L':') {
        parts.drive = path.substr(0, 2);
        rest = 2;
    }
    const size_t lastSeparator = path.find_last_of(L"\\/");
    const size_t nameStart = (lastSeparator == std::wstring::npos || lastSeparator < rest) ? rest : lastSeparator + 1;
    parts.folder = path.substr(rest, nameStart - rest);
    const std::wstring name = path.substr(nameStart);
    const size_t dot = name.rfind(L'.');
    parts.baseName = dot == std::wstring::npos ? name : name.substr(0, dot);
    parts.extension = dot == std::wstring::npos ? L"" : name.substr(dot);
    return parts.drive.size() < driveChars && parts.folder.size() < partChars && parts.baseName.size() < partChars &&
           parts.extension.size() < partChars;
}

// A sender name is whatever the mail says; a slash or a colon in it must not
// make the new name point into another folder or stream.
std::wstring safeNamePart(const std::wstring& text)
{
    std::wstring safe = text;
    for (wchar_t& c : safe) {
        if (c < 32 || wcschr(L"\\/:*?\"<>|", c))
            c = L' ';
    }
    return safe;
}

void clearVariant(UniqueVariant& value, const char* which)
{
    KV_DEBUG(logger) << "VariantClear " << which;
    value.put();
}

} // namespace

void insertSenderNameReceiveDateIntoMsgFiles(IDispatch* outlookApplication, std::vector<std::wstring>& fileList)
{
    KV_DEBUG(logger) << "insertSenderNameReceiveDateIntoMsgFiles(#" << fileList.size();
    for (size_t i = 0; i < fileList.size(); ++i) {
        // Always the first entry, on every pass: the list has always been
        // rewritten this way, and callers rely on what it leaves.
        const std::wstring path = fileList[0];
        PathParts parts;
        splitPath(path, parts);
        if (equalsIgnoreCase(parts.extension, L".msg"))
            fileList[i] = insertSenderNameReceiveDateIntoMsgFile(outlookApplication, path);
        else
            KV_DEBUG(logger) << "skip " << path;
    }
    KV_DEBUG(logger) << ")insertSenderNameReceiveDateIntoMsgFiles";
}

std::wstring insertSenderNameReceiveDateIntoMsgFile(IDispatch* outlookApplication, const std::wstring& path)
{
    const ComPtr<IDispatch> mailItem = createMailItem(outlookApplication, path);
    if (!mailItem)
        return path;

    UniqueVariant value;
    if (FAILED(getMailItemProperty(mailItem.Get(), L"SenderName", value.put())))
        return path;
    const std::wstring senderName = variantToString(*value.get());
    KV_INFO(logger) << "sender name=" << senderName;
    value.put();

    if (FAILED(getMailItemProperty(mailItem.Get(), L"ReceivedTime", value.put())))
        return path;
    const std::wstring receiveDateIso = variantToString(*value.get());
    KV_INFO(logger) << "receiveDateIso=" << receiveDateIso;
    value.put();

    return insertParamsIntoFileName(path, senderName, receiveDateIso);
}

ComPtr<IDispatch> createMailItem(IDispatch* outlookApplication, const std::wstring& path)
{
    KV_DEBUG(logger) << "createMailItem(path=" << path;
    ComPtr<IDispatch> mailItem;
    if (outlookApplication) {
        LPOLESTR name = const_cast<LPOLESTR>(L"CreateItemFromTemplate");
        DISPID id = DISPID_UNKNOWN;
        HRESULT hr = outlookApplication->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_SYSTEM_DEFAULT, &id);
        KV_DEBUG(logger) << "outlook->GetIDsOfNames(CreateItemFromTemplate), hr=" << hr;
        if (SUCCEEDED(hr)) {
            UniqueVariant argument(path);
            UniqueVariant result;
            DISPPARAMS params{argument.get(), nullptr, 1, 0};
            hr = outlookApplication->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params,
                                            result.put(), nullptr, nullptr);
            KV_DEBUG(logger) << "outlook->Invoke(CreateItemFromTemplate, " << path << "), hr=" << hr;
            if (SUCCEEDED(hr) && result->vt == VT_DISPATCH && result->pdispVal)
                mailItem = result->pdispVal;
            clearVariant(argument, "arg");
            clearVariant(result, "result");
        }
    }
    if (!mailItem)
        KV_ERROR(logger) << "CreateItemFromTemplate failed for file=" << path;
    KV_DEBUG(logger) << ")createMailItem=" << mailItem.Get();
    return mailItem;
}

HRESULT getMailItemProperty(IDispatch* mailItem, const wchar_t* name, VARIANT* value)
{
    if (!value)
        return E_POINTER;
    VariantClear(value);
    HRESULT hr = E_POINTER;
    if (mailItem && name) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        hr = mailItem->GetIDsOfNames(IID_NULL, names, 1, LOCALE_SYSTEM_DEFAULT, &id);
        KV_DEBUG(logger) << "mailItem->GetIDsOfNames(" << name << "), hr=" << hr;
        if (SUCCEEDED(hr)) {
            DISPPARAMS noArguments{nullptr, nullptr, 0, 0};
            hr = mailItem->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_PROPERTYGET, &noArguments, value,
                                  nullptr, nullptr);
            KV_DEBUG(logger) << "mailItem->Invoke(" << name << "), hr=" << hr;
        }
    }
    if (FAILED(hr)) {
        KV_WARN(logger) << "mailItem->get failed for property=" << (name ? name : L"");
        VariantClear(value);
    }
    return hr;
}

std::wstring variantToString(const VARIANT& value)
{
    if (value.vt == VT_DATE && value.date != 0.0) {
        SYSTEMTIME time{};
        if (!VariantTimeToSystemTime(value.date, &time))
            return L"";
        wchar_t text[32] = {};
        std::swprintf(text, 32, L"%4.4d-%2.2d-%2.2d", time.wYear, time.wMonth, time.wDay);
        return text;
    }
    if (value.vt == VT_BSTR && value.bstrVal)
        return std::wstring(value.bstrVal, SysStringLen(value.bstrVal));
    return L"";
}

std::wstring insertParamsIntoFileName(const std::wstring& path, const std::wstring& senderName,
                                      const std::wstring& receiveDate)
{
    KV_DEBUG(logger) << "insertParamsIntoFileName(" << path << ", senderName=" << senderName
                     << ", receiveDate=" << receiveDate;
    std::wstring result = path;
    PathParts parts;
    if (!splitPath(path, parts)) {
        KV_ERROR(logger) << "cannot split path=" << path;
    } else {
        // The pilcrow separates the parts even when one of them is empty.
        const std::wstring newPath = parts.drive + parts.folder + parts.baseName + L"\u00B6" +
                                     safeNamePart(senderName) + L"\u00B6" + safeNamePart(receiveDate) +
                                     parts.extension;
        if (newPath.size() >= MAX_PATH) {
            KV_ERROR(logger) << "new path longer than " << (MAX_PATH - 1) << " characters, keep " << path;
        } else {
            const BOOL succ = MoveFileW(path.c_str(), newPath.c_str());
            const DWORD err = succ ? 0 : GetLastError();
            KV_DEBUG(logger) << "MoveFile(..., " << newPath << ")=" << succ << ", err=" << err;
            if (succ)
                result = newPath;
            else
                KV_ERROR(logger) << "MoveFile(" << path << ", " << newPath << ") failed, err=" << err;
        }
    }
    KV_DEBUG(logger) << ")insertParamsIntoFileName=" << result;
    return result;
}

} // namespace FileDrop
