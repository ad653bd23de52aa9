#include "items/eml_writer.h"

#include "addin/log.h"
#include "common/hresult.h"
#include "common/strings.h"
#include "items/mime_body_encoding.h"
#include "items/mime_header_text.h"

#include <atomic>
#include <cstdio>

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

HRESULT writeBodyPart(StreamSink& sink, const EmlMessage& message)
{
    const std::string plain = wideToUtf8(message.body);
    if (message.htmlUtf8.empty())
        return writeTextPart(sink, "plain", plain);
    const std::string boundary = newBoundary(2);
    RETURN_IF_FAILED(sink.write("Content-Type: multipart/alternative;\r\n boundary=\"" + boundary + "\"\r\n\r\n"));
    RETURN_IF_FAILED(sink.write("--" + boundary + "\r\n"));
    RETURN_IF_FAILED(writeTextPart(sink, "plain", plain));
    RETURN_IF_FAILED(sink.write("--" + boundary + "\r\n"));
    RETURN_IF_FAILED(writeTextPart(sink, "html", message.htmlUtf8));
    return sink.write("--" + boundary + "--\r\n");
}

std::string contentIdHeader(const std::wstring& contentId)
{
    std::wstring clean = cleanHeaderText(contentId);
    if (clean.size() >= 2 && clean.front() == L'<' && clean.back() == L'>')
        clean = clean.substr(1, clean.size() - 2);
    const std::string header = identifierHeader("Content-ID", L"<" + clean + L">");
    return clean.empty() || clean.find(L' ') != std::wstring::npos ? std::string() : header;
}

HRESULT writeAttachmentPart(StreamSink& sink, const EmlAttachment& attachment)
{
    std::string headers = "Content-Type: " + wideToUtf8(attachment.mimeType);
    headers += mimeParameter("name", attachment.fileName);
    headers += "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment";
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

} // namespace

std::string emlMessageHeaders(const EmlMessage& message)
{
    std::string headers;
    headers += addressHeader("From", {message.from});
    if (!message.sender.mailAddress.empty() && !equalsIgnoreCase(message.sender.mailAddress, message.from.mailAddress))
        headers += addressHeader("Sender", {message.sender});
    headers += addressHeader("To", message.to);
    headers += addressHeader("Cc", message.cc);
    headers += addressHeader("Bcc", message.bcc);
    headers += unstructuredHeader("Subject", message.subject);
    if (message.date) {
        const std::string date = mimeDate(*message.date);
        if (!date.empty())
            headers += "Date: " + date + "\r\n";
    }
    headers += identifierHeader("Message-ID", message.messageId);
    headers += identifierHeader("In-Reply-To", message.inReplyTo);
    headers += identifierHeader("References", message.references);
    headers += "MIME-Version: 1.0\r\n";
    return headers;
}

ULONGLONG emlSizeEstimate(const EmlMessage& message)
{
    // Quoted-printable triples a byte at worst; base64 takes 4 for 3 and a
    // line break for 57.
    ULONGLONG size = 64 * 1024 + 3ULL * (message.body.size() * 3 + message.htmlUtf8.size());
    for (const EmlAttachment& attachment : message.attachments) {
        ULONGLONG bytes = attachment.bytes.size();
        STATSTG stat{};
        if (attachment.dataStream && SUCCEEDED(attachment.dataStream->Stat(&stat, STATFLAG_NONAME)))
            bytes = std::min<ULONGLONG>(stat.cbSize.QuadPart, ULONGLONG(1) << 32);
        size += 2048 + (bytes + 2) / 3 * 4 + (bytes / 57 + 1) * 2;
    }
    return size;
}

HRESULT writeEml(const EmlMessage& message, IStream* stream)
{
    if (!stream)
        return E_POINTER;
    StreamSink sink(stream);
    RETURN_IF_FAILED(sink.write(emlMessageHeaders(message)));
    if (message.attachments.empty()) {
        RETURN_IF_FAILED(writeBodyPart(sink, message));
    } else {
        const std::string boundary = newBoundary(1);
        RETURN_IF_FAILED(sink.write("Content-Type: multipart/mixed;\r\n boundary=\"" + boundary +
                                    "\"\r\n\r\nThis is a multi-part message in MIME format.\r\n"));
        RETURN_IF_FAILED(sink.write("--" + boundary + "\r\n"));
        RETURN_IF_FAILED(writeBodyPart(sink, message));
        for (const EmlAttachment& attachment : message.attachments) {
            RETURN_IF_FAILED(sink.write("--" + boundary + "\r\n"));
            RETURN_IF_FAILED(writeAttachmentPart(sink, attachment));
        }
        RETURN_IF_FAILED(sink.write("--" + boundary + "--\r\n"));
    }
    // An empty epilogue line: strict readers want a byte behind the last
    // delimiter before they take it as one.
    if (!message.attachments.empty() || !message.htmlUtf8.empty())
        RETURN_IF_FAILED(sink.write("\r\n"));
    RETURN_IF_FAILED(sink.flush());
    KV_DEBUG(logger) << "writeEml: " << sink.written() << " bytes, " << message.attachments.size() << " attachments";
    return S_OK;
}
