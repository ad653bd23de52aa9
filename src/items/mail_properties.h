#pragma once
// The few properties of a mail that the item list, the file times and the
// address headers need, read through MAPI or straight from the .msg storage.
#include <objidl.h>
#include <mapidefs.h>

#include <string>
#include <vector>

#include "items/mail_address.h"
#include "items/mapi_library.h"
#include "items/msg_storage.h"

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

// The same properties and recipients from the storage's own streams, 8-bit
// strings in the message's code page.
HRESULT readPropertiesFromStorage(IStorage* storage, MailProperties& properties);

// The same from properties already read (an attached message's, say). With
// `smtpOfExchangeEntries`, an "EX" sender or recipient gets the SMTP address
// stored beside it (PR_SENDER_SMTP_ADDRESS, PR_SMTP_ADDRESS), or none, for
// where Outlook is not asked.
void mailPropertiesFromStored(const StoredProperties& message, const std::vector<StoredProperties>& recipients,
                              MailProperties& properties, bool smtpOfExchangeEntries = false);

// The code page of the message's 8-bit strings (stringCodePageOf); one this
// machine can't convert is logged and the machine's is used.
uint32_t stringCodePageOfMessage(const StoredProperties& message);

// The text of one MAPI property value.
std::wstring textOfPropValue(const SPropValue& value);
