// Measures how fast dragged items become files, against plain copies of the
// same bytes made in the same run, and prints a table:
//   bench_items [folder]
// Run it under Wine with mapi32 switched off (WINEDLLOVERRIDES=mapi32=), as
// `make bench` does, so mails are read from their storage.
#include "bench_timing.h"

#include "core/globals.h"
#include "core/log.h"
#include "common/unique_resource.h"
#include "items/attachment_item.h"
#include "items/mail_item.h"
#include "items/mail_properties.h"
#include "items/property_text.h"
#include "items/rtf_compressed.h"
#include "items/rtf_text.h"
#include "e2e_shared/msg_builder.h"

#include <shlwapi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

using Microsoft::WRL::ComPtr;

constexpr int rounds = 5;

double medianOf(const std::function<void()>& work)
{
    return ::medianOf(rounds, [] {}, work);
}

bool writeFileOfSize(const std::wstring& path, ULONGLONG size)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    if (!file)
        return false;
    std::string block(1024 * 1024, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 131 + 17);
    for (ULONGLONG done = 0; done < size; done += block.size()) {
        DWORD written = 0;
        if (!WriteFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &written, nullptr))
            return false;
    }
    return true;
}

void row(const char* what, double korvane, double reference, const char* target)
{
    printComparisonRow(52, what, korvane, reference, target);
}

} // namespace

int main(int argc, char** argv)
{
    OleInitialize(nullptr);
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH, temp);
    std::wstring folder = std::wstring(temp) + L"korvane-bench";
    if (argc > 1) {
        const std::string given = argv[1];
        folder.assign(given.begin(), given.end());
    }
    CreateDirectoryW(folder.c_str(), nullptr);
    Globals settings(L"KorvaneBench", L"Bench");

    std::printf("| %-52s | %12s | %12s | %5s | %-8s |\n", "operation", "Korvane", "reference", "ratio", "target");
    std::printf("|%s|%s|%s|%s|%s|\n", std::string(54, '-').c_str(), std::string(14, '-').c_str(),
                std::string(14, '-').c_str(), std::string(7, '-').c_str(), std::string(10, '-').c_str());

    // An attachment of 100 MiB, from a file stream as Outlook hands large ones over.
    const std::wstring source = folder + L"\\attachment.bin";
    writeFileOfSize(source, 100ULL * 1024 * 1024);
    const double attachment = medianOf([&] {
        ComPtr<IStream> stream;
        SHCreateStreamOnFileEx(source.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, 0, FALSE, nullptr, &stream);
        AttachmentItem item(folder + L"\\attachment-saved.bin", stream.Get());
        item.save();
    });
    const double attachmentCopy = medianOf([&] {
        CopyFileW(source.c_str(), (folder + L"\\attachment-copied.bin").c_str(), FALSE);
    });
    row("save a 100 MiB attachment vs CopyFileW", attachment, attachmentCopy, "<= 1.3");

    // Many small attachments: what writing each beside its name and moving it
    // there costs per file, against writing the files in place.
    const std::string small(16 * 1024, 's');
    const std::wstring smallFolder = folder + L"\\small";
    CreateDirectoryW(smallFolder.c_str(), nullptr);
    const double smallSaves = medianOf([&] {
        for (int i = 0; i < 1000; ++i) {
            ComPtr<IStream> stream;
            const auto* bytes = reinterpret_cast<const BYTE*>(small.data());
            stream.Attach(SHCreateMemStream(bytes, static_cast<UINT>(small.size())));
            AttachmentItem(smallFolder + L"\\saved" + std::to_wstring(i) + L".bin", stream.Get()).save();
        }
    });
    const double smallWrites = medianOf([&] {
        for (int i = 0; i < 1000; ++i) {
            const std::wstring path = smallFolder + L"\\written" + std::to_wstring(i) + L".bin";
            UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
            DWORD written = 0;
            WriteFile(file.get(), small.data(), static_cast<DWORD>(small.size()), &written, nullptr);
        }
    });
    row("save 1,000 attachments of 16 KiB vs writing them", smallSaves, smallWrites, "report");

    // A mail holding a 20 MiB attachment, as a storage in memory like Outlook's.
    MsgContent mail;
    mail.subject = L"Quarterly figures";
    mail.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    mail.senderName = L"Anna";
    mail.senderAddress = L"anna@example.org";
    mail.senderAddrType = L"SMTP";
    mail.recipients = {{1, L"Bob", L"bob@example.org", L"SMTP", ""}};
    mail.attachments = {{L"figures.bin", std::string(20 * 1024 * 1024, 'f'), L"application/octet-stream"}};
    auto storage = makeMsgInMemory(mail);
    const std::wstring msgReference = folder + L"\\reference.msg";
    writeMsgFile(msgReference, mail);
    const double msg = medianOf([&] {
        MailItem item(folder + L"\\mail-saved.msg", storage.Get(), settings);
        item.save();
    });
    const double msgCopy = medianOf([&] {
        CopyFileW(msgReference.c_str(), (folder + L"\\mail-copied.msg").c_str(), FALSE);
    });
    row("save a .msg with a 20 MiB attachment vs CopyFileW", msg, msgCopy, "<= 2");

    // The same mail as .eml: without Outlook's MIME converter (none under
    // Wine) Korvane's own writer makes it, base64 and all.
    settings.setFormat(L"eml");
    const double eml = medianOf([&] {
        MailItem item(folder + L"\\mail-saved.msg", storage.Get(), settings);
        item.save();
    });
    settings.setFormat(L"msg");
    row("save an .eml with a 20 MiB attachment vs .msg copy", eml, msgCopy, "report");
    row("save an .eml with a 20 MiB attachment vs .msg save", eml, msg, "<= 2");

    // A plain mail as .eml, and the same mail as an ANSI Outlook keeps it:
    // 8-bit strings in code page 1251, the body also as compressed RTF.
    MsgContent plain = mail;
    plain.attachments.clear();
    for (int i = 0; i < 200; ++i)
        plain.body += L"Line " + std::to_wstring(i) + L" of the report, with the figures of the quarter.\n";
    MsgContent rtfMail = plain;
    rtfMail.rtfBody = true;
    const std::string rtf = compressRtf(rtfBodyOf(rtfMail));
    MsgContent ansi = plain;
    ansi.unicodeStrings = false;
    ansi.codePage = 1251;
    ansi.extraProperties = {longProperty(MsgPropertyId::messageCodepage, 1251), StoredProperty{0x10090102, rtf}};
    auto plainStorage = makeMsgInMemory(plain);
    auto ansiStorage = makeMsgInMemory(ansi);
    settings.setFormat(L"eml");
    // Twenty saves a sample: one takes about a millisecond.
    const auto saveEml = [&](IStorage* storage) {
        return medianOf([&] {
                   for (int i = 0; i < 20; ++i) {
                       MailItem item(folder + L"\\plain-saved.msg", storage, settings);
                       item.save();
                   }
               }) /
               20;
    };
    const double plainEml = saveEml(plainStorage.Get());
    const double ansiEml = saveEml(ansiStorage.Get());
    settings.setFormat(L"msg");
    row("save .eml: 8-bit cp1251 + RTF body vs Unicode mail", ansiEml, plainEml, "~ 1");
    const double decode = medianOf([&] { readRtfBody(decompressRtf(rtf).rtf, codePageDecoder()); });
    const std::string what = "decompress and read its RTF (" + std::to_string(rtfBodyOf(rtfMail).size() / 1024) +
                             " KiB, " + std::to_string(rtf.size() / 1024) + " KiB packed)";
    std::printf("| %-52s | %9.3f ms | %12s | %5s | %-8s |\n", what.c_str(), decode, "-", "-", "-");

    // Reading the properties and 1,000 recipients straight from the storage.
    MsgContent crowded = mail;
    crowded.attachments.clear();
    crowded.recipients.clear();
    for (int i = 0; i < 1000; ++i) {
        const std::wstring n = std::to_wstring(i);
        crowded.recipients.push_back({static_cast<ULONG>(1 + i % 3), L"Recipient " + n,
                                      L"recipient" + n + L"@example.org", L"SMTP", "\x01\x02\x03\x04"});
    }
    auto crowdedStorage = makeMsgInMemory(crowded);
    size_t recipients = 0;
    const double read = medianOf([&] {
        MailProperties properties;
        readPropertiesFromStorage(crowdedStorage.Get(), properties);
        recipients = properties.to.size() + properties.cc.size() + properties.bcc.size();
    });
    std::printf("| %-52s | %9.1f ms | %12s | %5s | %-8s |\n", "read properties and 1,000 recipients (storage)", read,
                "-", "-", "< 50 ms");
    std::printf("\n%zu recipients read; median of %d runs each\n", recipients, rounds);

    for (const wchar_t* name : {L"attachment.bin", L"attachment-saved.bin", L"attachment-copied.bin",
                                L"mail-saved.msg", L"mail-saved.eml", L"mail-copied.msg", L"reference.msg",
                                L"plain-saved.eml"})
        DeleteFileW((folder + L"\\" + name).c_str());
    RemoveDirectoryW(folder.c_str());
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\KorvaneBench");
    OleUninitialize();
    return 0;
}
