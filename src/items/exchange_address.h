#pragma once
// The SMTP address of an Exchange ("EX") address entry, from Outlook.
#include <oaidl.h>

#include <string>

// Empty when Outlook can't tell (every failing step is logged).
std::wstring getMailAddressFromExchange(IDispatch* application, const std::wstring& entryId);
