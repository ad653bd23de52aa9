#pragma once
// The few properties of a mail that the item list, the file times and the
// address headers need, read through MAPI or straight from the .msg storage.
#include <objidl.h>
#include <mapidefs.h>

#include <string>
#include <vector>

#include "items/mail_address.h"
#include "items/mapi_library.h"

struct MailProperties {
    std::wstring subject;
    std::wstring receivedAtIso; // YYYY-MM-DDTHH:MM:SSZ, UTC
    std::wstring messageClass;
    MailAddress sender;
    std::vector<MailAddress> to;
    std::vector<MailAddress> cc;
    std::vector<MailAddress> bcc;
};

// Subject, delivery time, sender and class with one GetProps.
HRESULT readPropertiesThroughMapi(IMessage* message, const MapiFunctions& mapi, MailProperties& properties);

// The recipient table, all rows in one QueryRows; rows of a type other than
// To, Cc and Bcc are dropped.
HRESULT readRecipientsThroughMapi(IMessage* message, const MapiFunctions& mapi, MailProperties& properties);

// The same properties and recipients from the storage's own streams.
HRESULT readPropertiesFromStorage(IStorage* storage, MailProperties& properties);

// The text of one MAPI property value.
std::wstring textOfPropValue(const SPropValue& value);
