#include "install/msi_session.h"

#include <vector>

namespace {

template <typename Function>
bool bind(HMODULE library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
    return function != nullptr;
}

} // namespace

MsiSession::MsiSession(MSIHANDLE install) : install_(install), library_(LoadLibraryW(L"msi.dll"))
{
    const HMODULE msi = library_.get();
    bound_ = msi && bind(msi, "MsiGetPropertyW", functions_.getProperty) &&
             bind(msi, "MsiCreateRecord", functions_.createRecord) &&
             bind(msi, "MsiRecordSetStringW", functions_.recordSetString) &&
             bind(msi, "MsiProcessMessage", functions_.processMessage) &&
             bind(msi, "MsiCloseHandle", functions_.closeHandle);
}

std::wstring MsiSession::customActionData() const
{
    if (!bound_)
        return {};
    DWORD length = 0;
    wchar_t none[1] = {};
    if (functions_.getProperty(install_, L"CustomActionData", none, &length) != ERROR_MORE_DATA)
        return {};
    std::vector<wchar_t> value(length + 1, L'\0');
    length = static_cast<DWORD>(value.size());
    if (functions_.getProperty(install_, L"CustomActionData", value.data(), &length) != ERROR_SUCCESS)
        return {};
    return std::wstring(value.data(), length);
}

void MsiSession::log(const std::wstring& text) const
{
    if (!bound_)
        return;
    const MSIHANDLE record = functions_.createRecord(1);
    if (!record)
        return;
    // The text goes in as a field, so brackets in it are not taken for
    // the installer's formatting.
    functions_.recordSetString(record, 0, L"Korvane: [1]");
    functions_.recordSetString(record, 1, text.c_str());
    functions_.processMessage(install_, INSTALLMESSAGE_INFO, record);
    functions_.closeHandle(record);
}
