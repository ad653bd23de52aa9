#pragma once
// The sample mailbox of the end-to-end runs, made by our own .msg writer:
// mails with Unicode subjects, names with characters that files can't carry,
// equal subjects, To/Cc/Bcc and other recipient kinds, an Exchange sender, an
// S/MIME mail, HTML and plain bodies, and attachments from 0 bytes to tens of
// MiB. Entries are what Outlook's data object offers for a selection: mails
// as storages, attachments as streams.
#include "e2e_shared/outlook_data_object.h"

#include <string>
#include <vector>

// The Exchange sender of the sample: its entry id in upper-case hex (as
// Outlook's Session.GetAddressEntryFromID is given it) and its SMTP address.
extern const wchar_t* const sampleExchangeEntryIdHex;
extern const wchar_t* const sampleExchangeSmtpAddress;

// Every entry: the mails first, then the attachments.
std::vector<OutlookEntry> sampleMailbox();

// A named selection of the mailbox:
//   "all", "mails", "attachments", "small" (everything below 1 MiB),
//   "mail:<i>" (the i-th mail), or indexes such as "0,3,9".
// Unknown names select nothing.
std::vector<OutlookEntry> selectSample(const std::wstring& selection);

// `count` generated items for timing: every fourth a small mail, the others
// attachments of 16 KiB, all with distinct names.
std::vector<OutlookEntry> benchmarkEntries(size_t count);

// Deterministic bytes of a given size (an attachment's content).
std::string patternBytes(size_t size, unsigned seed);
