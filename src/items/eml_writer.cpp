#include "items/eml_writer.h"

#include "core/log.h"
#include "common/hresult.h"
#include "common/strings.h"
#include "items/mime_body_encoding.h"
#include "items/mime_header_text.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

const Logger logger("MailItem");

constexpr size_t flushSize = size_t(1) << 20;

// Collects small pieces and hands the stream large writes; a piece that is
// large by itself goes straight through.
class StreamSink {
public:
    explicit StreamSink(IStream* stream) : stream_(stream) { buffer_.reserve(flushSize * 2); }

    HRESULT write(std::string_view text)
    {
        if (text.size() < flushSize && buffer_.size() + text.size() < flushSize * 2) {
            buffer_.append(text);
            return buffer_.size() >= flushSize ? flush() : S_OK;
        }
        RETURN_IF_FAILED(flush());
        return writeThrough(text);
    }

    HRESULT flush()
    {
        const HRESULT hr = writeThrough(buffer_);
        buffer_.clear();
        return hr;
    }

    ULONGLONG written() const { return written_; }

private:
    HRESULT writeThrough(std::string_view text)
    {
        while (!text.empty()) {
            const auto chunk = static_cast<ULONG>(std::min<size_t>(text.size(), 0x40000000));
            ULONG done = 0;
            const HRESULT hr = stream_->Write(text.data(), chunk, &done);
            if (FAILED(hr))
                return hr;
            if (done == 0)
                return STG_E_WRITEFAULT;
            text.remove_prefix(done);
            written_ += done;
        }
        return S_OK;
    }

    IStream* stream_;
    std::string buffer_;
    ULONGLONG written_ = 0;
};

// "----=_KvPart_1_0000002A_0001": "=_" can't occur in quoted-printable or
// base64 text, so no part's content can ever contain the boundary.
std::string newBoundary(int level)
{
    static std::atomic<unsigned> counter{0};
    char text[64] = {};
    std::snprintf(text, sizeof text, "----=_KvPart_%d_%08lX_%04X", level, static_cast<unsigned long>(GetTickCount()),
                  (counter++) & 0xFFFFu);
    return text;
}

std::string withFinalLineBreak(std::string text)
{
    if (!text.empty() && !std::string_view(text).ends_with("\r\n"))
        text += "\r\n";
    return text;
}

HRESULT writeTextPart(StreamSink& sink, const char* subtype, const std::string& utf8)
{
    std::string part = "Content-Type: text/";
    part += subtype;
    part += "; charset=\"utf-8\"\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n";
    part += withFinalLineBreak(encodeQuotedPrintable(normalizeLineBreaks(utf8)));
    return sink.write(part);
}

HRESULT writeRtfPart(StreamSink& sink, const std::string& rtf)
{
    // The RTF names its own code pages.
    std::string part = "Content-Type: text/rtf\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n";
    part += withFinalLineBreak(encodeQuotedPrintable(normalizeLineBreaks(rtf)));
    return sink.write(part);
}

// A multipart: each writer in `parts` writes one part's headers and content.
HRESULT writeMultipart(StreamSink& sink, int level, const std::string& type,
                       const std::vector<std::function<HRESULT()>>& parts, std::string_view preamble = {})
{
    const std::string boundary = newBoundary(level);
    RETURN_IF_FAILED(sink.write("Content-Type: multipart/" + type + ";\r\n boundary=\"" + boundary + "\"\r\n\r\n"));
    RETURN_IF_FAILED(sink.write(preamble));
    for (const auto& part : parts) {
        RETURN_IF_FAILED(sink.write("--" + boundary + "\r\n"));
        RETURN_IF_FAILED(part());
    }
    // An empty epilogue line: strict readers want a byte behind the last
    // delimiter before they take it as one.
    return sink.write("--" + boundary + "--\r\n\r\n");
}

std::string contentIdHeader(const std::wstring& contentId)
{
    std::wstring clean = cleanHeaderText(contentId);
    if (clean.size() >= 2 && clean.front() == L'<' && clean.back() == L'>')
        clean = clean.substr(1, clean.size() - 2);
    const std::string header = identifierHeader("Content-ID", L"<" + clean + L">");
    return clean.empty() || clean.find(L' ') != std::wstring::npos ? std::string() : header;
}

HRESULT writeMessage(StreamSink& sink, const EmlMessage& message, int depth);

HRESULT writeAttachmentPart(StreamSink& sink, const EmlAttachment& attachment, int depth)
{
    const char* disposition = attachment.placement == EmlPlacement::Attachment ? "attachment" : "inline";
    if (attachment.message) {
        std::string headers = "Content-Type: message/rfc822\r\nContent-Disposition: attachment";
        headers += mimeParameter("filename", attachment.fileName);
        headers += "\r\n\r\n";
        RETURN_IF_FAILED(sink.write(headers));
        return writeMessage(sink, *attachment.message, depth + 1);
    }
    if (!attachment.reference.empty()) {
        // RFC 2046 5.2.3: the part names where the content is, and carries
        // the headers the content would have.
        const bool url = startsWith(attachment.reference, L"http://") || startsWith(attachment.reference, L"https://");
        std::string headers = "Content-Type: message/external-body;";
        headers += url ? "\r\n access-type=\"URL\"" : "\r\n access-type=\"local-file\"";
        headers += mimeParameter(url ? "URL" : "name", attachment.reference);
        headers += "\r\nContent-Disposition: attachment";
        headers += mimeParameter("filename", attachment.fileName);
        headers += "\r\n\r\nContent-Type: " + wideToUtf8(attachment.mimeType) + "\r\n\r\n";
        return sink.write(headers);
    }
    std::string headers = "Content-Type: " + wideToUtf8(attachment.mimeType);
    headers += mimeParameter("name", attachment.fileName);
    headers += "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: ";
    headers += disposition;
    headers += mimeParameter("filename", attachment.fileName);
    headers += "\r\n";
    headers += contentIdHeader(attachment.contentId);
    headers += "\r\n";
    RETURN_IF_FAILED(sink.write(headers));
    const TextSink toSink = [&sink](std::string_view text) { return sink.write(text); };
    if (!attachment.dataStream)
        return writeBase64Lines(attachment.bytes, toSink);
    ULONGLONG bytesRead = 0;
    const HRESULT hr = writeBase64LinesFromStream(attachment.dataStream.Get(), toSink, bytesRead);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "reading attachment " << attachment.fileName << " failed after " << bytesRead
                         << " bytes, hr=" << hr;
    }
    return hr;
}

// A meeting request's calendar, beside the bodies, with the method the
// calendar names (as calendar clients look for it there).
HRESULT writeCalendarPart(StreamSink& sink, const EmlAttachment& calendar)
{
    std::string text = calendar.bytes;
    if (calendar.dataStream) {
        Microsoft::WRL::ComPtr<IStream> stream = calendar.dataStream;
        char buffer[4096];
        ULONG read = 0;
        while (text.size() < (size_t(16) << 20) && SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read > 0)
            text.append(buffer, read);
    }
    std::string method;
    const size_t at = text.find("\nMETHOD:");
    if (at != std::string::npos) {
        const size_t end = text.find_first_of("\r\n", at + 8);
        for (char c : text.substr(at + 8, end == std::string::npos ? std::string::npos : end - at - 8)) {
            if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-')
                method += c;
        }
    }
    std::string headers = "Content-Type: text/calendar; charset=\"utf-8\"";
    if (!method.empty())
        headers += ";\r\n method=" + method;
    headers += "\r\nContent-Transfer-Encoding: base64\r\n\r\n";
    RETURN_IF_FAILED(sink.write(headers));
    return writeBase64Lines(text, [&sink](std::string_view piece) { return sink.write(piece); });
}

bool hasPlaced(const EmlMessage& message, EmlPlacement placement)
{
    return std::any_of(message.attachments.begin(), message.attachments.end(),
                       [placement](const EmlAttachment& attachment) { return attachment.placement == placement; });
}

// The HTML, with the pictures it shows beside it when there are any.
HRESULT writeHtmlEntity(StreamSink& sink, const EmlMessage& message, int depth)
{
    if (!hasPlaced(message, EmlPlacement::Related))
        return writeTextPart(sink, "html", message.htmlUtf8);
    std::vector<std::function<HRESULT()>> parts{[&] { return writeTextPart(sink, "html", message.htmlUtf8); }};
    for (const EmlAttachment& attachment : message.attachments) {
        if (attachment.placement == EmlPlacement::Related)
            parts.push_back([&, depth] { return writeAttachmentPart(sink, attachment, depth); });
    }
    return writeMultipart(sink, depth * 4 + 3, "related; type=\"text/html\"", parts);
}

// The bodies: plain text, then what renders it more faithfully.
HRESULT writeBodyEntity(StreamSink& sink, const EmlMessage& message, int depth)
{
    const std::string plain = wideToUtf8(message.body);
    std::vector<std::function<HRESULT()>> parts{[&] { return writeTextPart(sink, "plain", plain); }};
    if (!message.rtf.empty())
        parts.push_back([&] { return writeRtfPart(sink, message.rtf); });
    if (!message.htmlUtf8.empty())
        parts.push_back([&, depth] { return writeHtmlEntity(sink, message, depth); });
    for (const EmlAttachment& attachment : message.attachments) {
        if (attachment.placement == EmlPlacement::Alternative)
            parts.push_back([&] { return writeCalendarPart(sink, attachment); });
    }
    if (parts.size() == 1)
        return parts.front()();
    return writeMultipart(sink, depth * 4 + 2, "alternative", parts);
}

HRESULT writeMessage(StreamSink& sink, const EmlMessage& message, int depth)
{
    if (depth > maxEmbeddedMessageDepth)
        return E_UNEXPECTED; // the reader never nests deeper
    RETURN_IF_FAILED(sink.write(emlMessageHeaders(message)));
    if (!hasPlaced(message, EmlPlacement::Attachment))
        return writeBodyEntity(sink, message, depth);
    std::vector<std::function<HRESULT()>> parts{[&, depth] { return writeBodyEntity(sink, message, depth); }};
    for (const EmlAttachment& attachment : message.attachments) {
        if (attachment.placement == EmlPlacement::Attachment)
            parts.push_back([&, depth] { return writeAttachmentPart(sink, attachment, depth); });
    }
    return writeMultipart(sink, depth * 4 + 1, "mixed", parts, "This is a multi-part message in MIME format.\r\n");
}

ULONGLONG sizeEstimate(const EmlMessage& message)
{
    // Quoted-printable triples a byte at worst; base64 takes 4 for 3 and a
    // line break for 57.
    ULONGLONG size = 64 * 1024 + 3ULL * (message.body.size() * 3 + message.htmlUtf8.size() + message.rtf.size());
    for (const EmlAttachment& attachment : message.attachments) {
        if (attachment.message) {
            size += sizeEstimate(*attachment.message);
            continue;
        }
        ULONGLONG bytes = attachment.bytes.size();
        STATSTG stat{};
        if (attachment.dataStream && SUCCEEDED(attachment.dataStream->Stat(&stat, STATFLAG_NONAME)))
            bytes = std::min<ULONGLONG>(stat.cbSize.QuadPart, ULONGLONG(1) << 32);
        size += 2048 + (bytes + 2) / 3 * 4 + (bytes / 57 + 1) * 2;
    }
    return size;
}

} // namespace

std::string emlMessageHeaders(const EmlMessage& message)
{
    std::string headers = addressHeader("From", {message.from});
    if (headers.empty())
        headers = groupHeader("From", message.from.name.empty() ? message.sender.name : message.from.name);
    if (!message.sender.mailAddress.empty() && !equalsIgnoreCase(message.sender.mailAddress, message.from.mailAddress))
        headers += addressHeader("Sender", {message.sender});
    headers += addressHeader("To", message.to);
    headers += addressHeader("Cc", message.cc);
    headers += addressHeader("Bcc", message.bcc);
    headers += addressHeader("Reply-To", message.replyTo);
    headers += unstructuredHeader("Subject", message.subject);
    if (message.date) {
        const std::string date = mimeDate(*message.date);
        if (!date.empty())
            headers += "Date: " + date + "\r\n";
    }
    headers += identifierHeader("Message-ID", message.messageId);
    headers += identifierHeader("In-Reply-To", message.inReplyTo);
    headers += identifierHeader("References", message.references);
    if (message.importance == 2)
        headers += "Importance: high\r\nX-Priority: 1\r\n";
    else if (message.importance == 0)
        headers += "Importance: low\r\nX-Priority: 5\r\n";
    headers += "MIME-Version: 1.0\r\n";
    return headers;
}

ULONGLONG emlSizeEstimate(const EmlMessage& message)
{
    return sizeEstimate(message);
}

HRESULT writeEml(const EmlMessage& message, IStream* stream)
{
    if (!stream)
        return E_POINTER;
    StreamSink sink(stream);
    RETURN_IF_FAILED(writeMessage(sink, message, 0));
    RETURN_IF_FAILED(sink.flush());
    KV_DEBUG(logger) << "writeEml: " << sink.written() << " bytes, " << message.attachments.size() << " attachments";
    return S_OK;
}
