#pragma once
// The addresses in a FlatEntryList (PR_REPLY_RECIPIENT_ENTRIES): a count and
// a size (4 bytes each), then each entry id as its size (4 bytes) and its
// bytes, padded to a multiple of 4. Of the entry ids, the one-off ones carry
// their address: flags (4), the one-off provider's UID (16), version (2),
// flags (2; 0x8000 for UTF-16 strings), then display name, address type and
// address as NUL-terminated strings. Address-book entry ids (an Exchange
// user's, say) carry no address and are only counted.
//
// Bytes in, strings out, no system calls: the parser is built and fuzzed on
// any platform, and never reads beyond its input.
#include "items/code_page.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct OneOffAddress {
    std::u16string name, addrType, address;
};

struct FlatEntryListAddresses {
    std::vector<OneOffAddress> addresses;
    size_t otherEntries = 0; // entry ids that are not one-off ones
    bool damaged = false;    // the list ends before its count or an entry before its size
};

// 8-bit strings are in `codePage`, decoded by `decode`.
FlatEntryListAddresses addressesOfFlatEntryList(std::string_view list, uint32_t codePage,
                                                const CodePageDecoder& decode);
