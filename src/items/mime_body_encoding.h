#pragma once
// The transfer encodings of the .eml writer's parts: quoted-printable for
// text (readable, lines of at most 76 characters whatever the text's own
// lines), base64 in lines of 76 characters for attachments. Both give CRLF
// line ends only.
#include <windows.h>
#include <objidl.h>

#include <functional>
#include <string>
#include <string_view>

// Every CR, LF and CR LF of the text as CR LF.
std::string normalizeLineBreaks(std::string_view text);

// RFC 2045 6.7 quoted-printable of 8-bit text whose line breaks are CR LF:
// those stay hard line breaks, longer lines get soft breaks ("=" CR LF),
// "=", control characters and bytes above 126 become =XX, as does a blank or
// tab that would end a line. A final line without line break keeps none.
std::string encodeQuotedPrintable(std::string_view text);

// Receives the encoded text piece by piece; a failure stops the encoding.
using TextSink = std::function<HRESULT(std::string_view)>;

// Base64 of `bytes` in lines of 76 characters, each ending in CR LF (the
// last one too, unless there are no bytes at all), handed to `sink` in
// pieces of about a megabyte so that a large attachment is never held twice.
HRESULT writeBase64Lines(std::string_view bytes, const TextSink& sink);

// The same for bytes read from `stream` (from its current position to its
// end) a chunk at a time, so that the bytes are never all in memory. A
// stream that delivers fewer bytes than asked is read again until it ends;
// `bytesRead` tells how many were encoded.
HRESULT writeBase64LinesFromStream(IStream* stream, const TextSink& sink, ULONGLONG& bytesRead);
