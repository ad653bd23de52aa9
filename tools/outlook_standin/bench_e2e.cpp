// The end-to-end benchmark: drags of 1, 100 and 1,000 items from the stand-in
// into the drop target process, saving at the drop and at the drag's start,
// against the same drag with the add-in locked (Outlook's own object, no
// files); the connection times; attachment saving against a plain copy.
#include "standin_session.h"

#include "e2e_shared/sample_mailbox.h"

#include "common/unique_resource.h"

#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

struct DragTiming {
    double toDrop = -1, toComplete = -1, releaseToDrop = -1;
    size_t files = 0;
    HRESULT result = E_FAIL;
};

DragTiming timedDrag(StandInSession& session, const std::vector<OutlookEntry>& entries)
{
    DropEvent received;
    const DragOutcome outcome = session.drag(entries, {}, false, received);
    DragTiming timing;
    timing.result = outcome.result;
    if (received.kind.empty())
        return timing;
    timing.toDrop = ticksToMilliseconds(received.dropTicks - outcome.startTicks);
    timing.toComplete = ticksToMilliseconds(received.completeTicks - outcome.startTicks);
    if (outcome.releaseTicks)
        timing.releaseToDrop = ticksToMilliseconds(received.dropTicks - outcome.releaseTicks);
    timing.files = received.files.size();
    return timing;
}

// The same bytes from a memory stream into a file, with the reads a careful
// copy makes: what saving an attachment can't beat.
double plainCopyMs(const std::string& bytes, const std::wstring& path)
{
    // The source stream exists before the clock starts, as Outlook's does.
    Microsoft::WRL::ComPtr<IStream> stream;
    stream.Attach(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    const int64_t start = performanceTicks();
    {
        UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!stream || !file)
            return -1;
        std::vector<char> buffer(1 << 20);
        ULONG read = 0;
        while (SUCCEEDED(stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &read)) && read > 0) {
            DWORD written = 0;
            WriteFile(file.get(), buffer.data(), read, &written, nullptr);
        }
    }
    const double ms = ticksToMilliseconds(performanceTicks() - start);
    DeleteFileW(path.c_str());
    return ms;
}

std::string number(double value, int decimals = 0)
{
    if (value < 0)
        return "-";
    char text[32];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::vector<size_t> parseSizes(const std::wstring& text)
{
    std::vector<size_t> sizes;
    std::wstringstream stream(text.empty() ? L"1,100,1000" : text);
    std::wstring part;
    while (std::getline(stream, part, L','))
        if (!part.empty())
            sizes.push_back(std::stoul(part));
    return sizes;
}

} // namespace

bool runBenchmark(StandInSession& session, const std::wstring& sizesText)
{
    if (!session.target())
        return false;
    std::vector<size_t> sizes;
    try {
        sizes = parseSizes(sizesText);
    } catch (const std::exception&) {
        return false;
    }
    std::printf("\n| Drag | Files written | DoDragDrop to Drop (ms) | DoDragDrop to files complete (ms) |\n");
    std::printf("|---|---|---|---|\n");
    for (size_t count : sizes) {
        const std::vector<OutlookEntry> entries = benchmarkEntries(count);
        struct Mode {
            const char* label;
            const wchar_t* locked;
            const wchar_t* saveOnBeginDrag;
        };
        for (const Mode& mode : {Mode{"Outlook's own object (add-in locked)", L"true", L"false"},
                                 Mode{"saved at the drop", L"false", L"false"},
                                 Mode{"saved at drag start", L"false", L"true"}}) {
            session.run(std::wstring(L"set:Locked=") + mode.locked);
            session.run(std::wstring(L"set:SaveOnBeginDrag=") + mode.saveOnBeginDrag);
            const DragTiming timing = timedDrag(session, entries);
            std::printf("| %zu item(s), %s | %zu | %s | %s |\n", count, mode.label, timing.files,
                        number(timing.toDrop).c_str(), number(timing.toComplete).c_str());
            std::fflush(stdout);
            session.result().write("bench-drag", {{"items", std::to_string(count)},
                                                  {"mode", mode.label},
                                                  {"hr", hexResult(timing.result)},
                                                  {"files", std::to_string(timing.files)},
                                                  {"toDropMs", number(timing.toDrop, 1)},
                                                  {"toCompleteMs", number(timing.toComplete, 1)}});
        }
    }
    session.run(L"set:Locked=false");
    session.run(L"set:SaveOnBeginDrag=false");

    // Saving one large attachment: the add-in saves between the user's
    // release and the target's Drop.
    std::vector<OutlookEntry> large;
    for (OutlookEntry& entry : selectSample(L"attachments"))
        if (entry.fileName == L"archive.zip")
            large.push_back(std::move(entry));
    if (large.empty())
        return false;
    const std::string& bytes = large.front().bytes;
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, temp);
    const std::wstring copyPath = std::wstring(temp) + L"korvane-bench-plain-copy.bin";
    double bestSave = -1, bestCopy = -1;
    for (int round = 0; round < 3; ++round) {
        const DragTiming timing = timedDrag(session, large);
        if (timing.releaseToDrop >= 0 && (bestSave < 0 || timing.releaseToDrop < bestSave))
            bestSave = timing.releaseToDrop;
        const double copy = plainCopyMs(bytes, copyPath);
        if (copy >= 0 && (bestCopy < 0 || copy < bestCopy))
            bestCopy = copy;
    }
    const double mebibytes = static_cast<double>(bytes.size()) / (1 << 20);
    std::printf("\n| Attachment of %.0f MiB | ms (best of 3) | MiB/s |\n|---|---|---|\n", mebibytes);
    std::printf("| saved by the add-in during the drop | %s | %s |\n", number(bestSave, 1).c_str(),
                bestSave > 0 ? number(mebibytes * 1000 / bestSave).c_str() : "-");
    std::printf("| plain copy of the same bytes | %s | %s |\n", number(bestCopy, 1).c_str(),
                bestCopy > 0 ? number(mebibytes * 1000 / bestCopy).c_str() : "-");
    std::printf("| ratio add-in / plain copy | %s | |\n", bestSave > 0 && bestCopy > 0 ? number(bestSave / bestCopy, 2).c_str() : "-");
    std::fflush(stdout);
    session.result().write("bench-attachment", {{"mib", number(mebibytes, 1)},
                                                {"saveMs", number(bestSave, 1)},
                                                {"copyMs", number(bestCopy, 1)}});
    return bestSave > 0 && bestCopy > 0;
}
