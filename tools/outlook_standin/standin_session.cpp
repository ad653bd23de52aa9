#include "standin_session.h"

#include "e2e_shared/sample_mailbox.h"

#include "common/strings.h"
#include "common/unique_resource.h"

#include <sstream>

namespace {

std::string narrow(const std::wstring& text)
{
    return wideToUtf8(text);
}

std::string milliseconds(double ms)
{
    std::ostringstream out;
    out.precision(3);
    out << std::fixed << ms;
    return out.str();
}

// The file name a person would see for a sample entry on disk.
std::wstring plainFileName(const std::wstring& name)
{
    std::wstring plain = name;
    for (wchar_t& c : plain) {
        if (wcschr(L"\\/:*?\"<>|", c))
            c = L'_';
    }
    return plain;
}

} // namespace

std::wstring addinSettingsKey()
{
    return L"Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook";
}

StandInSession::StandInSession(StandInOptions options)
    : options_(std::move(options)), result_(options_.resultPath)
{
    // The Exchange sender of the sample mailbox is known to Outlook's address book.
    outlook_.addExchangeUser(sampleExchangeEntryIdHex, 0, sampleExchangeSmtpAddress);
}

StandInSession::~StandInSession()
{
    if (clipboardSource_)
        OleSetClipboard(nullptr);
}

HWND StandInSession::target(DWORD timeoutMs) const
{
    HWND window = nullptr;
    pumpUntil(timeoutMs, [&] {
        window = FindWindowW(L"KorvaneDropTargetWindow", options_.targetTitle.c_str());
        return window && IsWindowVisible(window);
    });
    return window;
}

size_t StandInSession::targetEvents() const
{
    return options_.targetReport.empty() ? 0 : readDropReport(options_.targetReport).size();
}

bool StandInSession::run(const std::wstring& step)
{
    const size_t colon = step.find(L':');
    const std::wstring name = step.substr(0, colon);
    const std::wstring argument = colon == std::wstring::npos ? L"" : step.substr(colon + 1);
    if (name == L"connect")
        return connect();
    if (name == L"ribbon")
        return loadRibbon();
    if (name == L"press")
        return press(argument);
    if (name == L"drag")
        return dragStep(argument, false);
    if (name == L"drag-shift")
        return dragStep(argument, true);
    if (name == L"copy")
        return copyStep(argument);
    if (name == L"paste")
        return pasteStep();
    if (name == L"set")
        return setSetting(argument);
    if (name == L"reset-settings")
        return resetSettings();
    if (name == L"mailbox")
        return writeMailbox(argument);
    if (name == L"wait") {
        pumpUntil(static_cast<DWORD>(parseLeadingInt(argument)), [] { return false; });
        return true;
    }
    if (name == L"shutdown")
        return shutdown();
    if (name == L"bench") {
        benchmarked_ = true;
        return runBenchmark(*this, argument);
    }
    result_.write("unknown", {{"argument", narrow(step)}});
    return false;
}

bool StandInSession::connect()
{
    const std::vector<AddinKey> keys = findAddinKeys();
    void* const systemDoDragDrop = importedDoDragDrop();
    systemDoDragDrop_ = systemDoDragDrop;
    void* const systemOleSetClipboard = importedOleSetClipboard();
    for (const AddinKey& key : keys) {
        LoadedAddin addin;
        const HRESULT created = createAddin(key, addin);
        HRESULT connected = E_FAIL;
        if (SUCCEEDED(created))
            connected = connectAddin(addin, outlook_.application(), times_);
        result_.write("connect", {{"progId", narrow(key.progId)},
                                  {"key", narrow(key.keyPath)},
                                  {"create", hexResult(created)},
                                  {"hr", hexResult(connected)},
                                  {"onConnectionMs", milliseconds(times_.onConnection)},
                                  {"onAddInsUpdateMs", milliseconds(times_.onAddInsUpdate)},
                                  {"onStartupCompleteMs", milliseconds(times_.onStartupComplete)}});
        if (SUCCEEDED(connected))
            addins_.push_back(addin);
    }
    if (addins_.empty()) {
        result_.write("hooks", {{"live", "0"}, {"reason", keys.empty() ? "no add-in key" : "no add-in connected"}});
        return false;
    }
    // The add-in rewrites this program's import slots a while after the
    // add-ins update; a drag before that would be Outlook's own.
    const int64_t start = performanceTicks();
    const bool live = pumpUntil(15000, [&] { return importedDoDragDrop() != systemDoDragDrop; });
    // The add-in's own thread rewrites OleSetClipboard's slot just after
    // DoDragDrop's, when clipboard capture is on.
    if (live)
        pumpUntil(500, [&] { return importedOleSetClipboard() != systemOleSetClipboard; });
    result_.write("hooks", {{"live", live ? "1" : "0"},
                            {"clipboard", importedOleSetClipboard() != systemOleSetClipboard ? "1" : "0"},
                            {"ms", milliseconds(ticksToMilliseconds(performanceTicks() - start))}});
    return live;
}

bool StandInSession::shutdown()
{
    ribbon_.reset();
    bool ok = true;
    for (LoadedAddin& addin : addins_) {
        const HRESULT hr = disconnectAddin(addin, times_);
        ok = ok && SUCCEEDED(hr);
        result_.write("shutdown", {{"progId", narrow(addin.progId)},
                                   {"hr", hexResult(hr)},
                                   {"onBeginShutdownMs", milliseconds(times_.onBeginShutdown)},
                                   {"onDisconnectionMs", milliseconds(times_.onDisconnection)},
                                   {"slotRestored", importedDoDragDrop() == systemDoDragDrop_ ? "1" : "0"}});
    }
    addins_.clear();
    return ok;
}

bool StandInSession::loadRibbon()
{
    for (LoadedAddin& addin : addins_) {
        if (!addin.ribbon)
            continue;
        ribbon_ = std::make_unique<RibbonDriver>(addin);
        const HRESULT hr = ribbon_->load();
        std::wstring ids;
        for (const std::wstring& id : ribbon_->controlIds())
            ids += (ids.empty() ? L"" : L",") + id;
        result_.write("ribbon", {{"hr", hexResult(hr)},
                                 {"xmlLength", std::to_string(ribbon_->xml().size())},
                                 {"title", narrow(ribbon_->tabLabel())},
                                 {"controls", narrow(ids)}});
        return SUCCEEDED(hr);
    }
    result_.write("ribbon", {{"hr", hexResult(E_NOINTERFACE)}});
    return false;
}

bool StandInSession::press(const std::wstring& argument)
{
    const size_t equals = argument.find(L'=');
    const std::wstring control = argument.substr(0, equals);
    const std::wstring value = equals == std::wstring::npos ? L"true" : argument.substr(equals + 1);
    if (!ribbon_ && !loadRibbon())
        return false;
    const HRESULT hr = ribbon_->press(control, value);
    result_.write("press", {{"control", narrow(control)},
                            {"value", narrow(value)},
                            {"hr", hexResult(hr)},
                            {"state", narrow(ribbon_->state(control))},
                            {"invalidated", std::to_string(ribbon_->invalidations(control))}});
    return SUCCEEDED(hr);
}

bool StandInSession::dataObjectFor(const std::wstring& selection, std::vector<OutlookEntry>& entries,
                                   OutlookDataObjectOptions& dataOptions) const
{
    if (selection == L"hostile") {
        // What a broken source hands over: more descriptors declared than
        // there are, names without a terminator, a cut ANSI block, a mail in
        // the wrong medium and a stream that lies about its size.
        entries = selectSample(L"0,1,8,9");
        entries[1].contentsAsHGlobal = true;
        entries[2].reportedStreamSize = 1ull << 40;
        dataOptions.declaredCount = 5000;
        dataOptions.namesWithoutNul = true;
        dataOptions.ansiBlockSize = 7;
        return true;
    }
    if (selection == L"unreadable") {
        // A mail whose storage can't be read, between two readable items.
        entries = selectSample(L"0,3,9");
        entries[1].contentsResult = STG_E_ACCESSDENIED;
        return true;
    }
    if (selection.rfind(L"bench:", 0) == 0) {
        entries = benchmarkEntries(static_cast<size_t>(parseLeadingInt(selection.substr(6))));
        return !entries.empty();
    }
    entries = selectSample(selection);
    return !entries.empty();
}

DragOutcome StandInSession::drag(const std::vector<OutlookEntry>& entries, const OutlookDataObjectOptions& dataOptions,
                                 bool holdShift, DropEvent& received, unsigned* sourceSetData)
{
    DragOutcome outcome;
    HWND window = target();
    if (!window) {
        outcome.result = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
        return outcome;
    }
    const size_t before = targetEvents();
    auto source = OutlookDataObject::create(entries, dataOptions);
    DragRequest request;
    request.target = window;
    request.holdShift = holdShift;
    outcome = dragInto(source.Get(), request);
    // The target reports during Drop; a cancelled drag brings nothing.
    pumpUntil(outcome.result == DRAGDROP_S_DROP ? 3000 : 200, [&] { return targetEvents() > before; });
    const std::vector<DropEvent> events = options_.targetReport.empty() ? std::vector<DropEvent>()
                                                                         : readDropReport(options_.targetReport);
    received = events.size() > before ? events[before] : DropEvent();
    if (sourceSetData)
        *sourceSetData = source->setDataCalls();
    return outcome;
}

bool StandInSession::dragStep(const std::wstring& selection, bool holdShift)
{
    std::vector<OutlookEntry> entries;
    OutlookDataObjectOptions dataOptions;
    if (!dataObjectFor(selection, entries, dataOptions)) {
        result_.write("drag", {{"selection", narrow(selection)}, {"hr", hexResult(E_INVALIDARG)}});
        return false;
    }
    const size_t before = targetEvents();
    DropEvent received;
    unsigned setData = 0;
    const DragOutcome outcome = drag(entries, dataOptions, holdShift, received, &setData);
    const bool arrived = !received.kind.empty();
    ReportedTransfer transfer{"drag", selection, outcome.result, outcome.effect,
                              arrived ? static_cast<int>(before) : -1,
                              arrived ? ticksToMilliseconds(received.completeTicks - outcome.startTicks) : 0};
    transfers_.push_back(transfer);
    result_.write("drag",
                  {{"selection", narrow(selection)},
                   {"items", std::to_string(entries.size())},
                   {"shift", holdShift ? "1" : "0"},
                   {"hr", hexResult(outcome.result)},
                   {"effect", std::to_string(outcome.effect)},
                   {"polls", std::to_string(outcome.polls)},
                   {"event", std::to_string(transfer.targetEvent)},
                   {"sourceSetData", std::to_string(setData)},
                   {"dragMs", milliseconds(ticksToMilliseconds(outcome.endTicks - outcome.startTicks))},
                   {"toDropMs", arrived ? milliseconds(ticksToMilliseconds(received.dropTicks - outcome.startTicks)) : ""},
                   {"toCompleteMs", arrived ? milliseconds(transfer.totalMs) : ""},
                   {"releaseToDropMs",
                    arrived && outcome.releaseTicks
                        ? milliseconds(ticksToMilliseconds(received.dropTicks - outcome.releaseTicks))
                        : ""}});
    return true;
}

bool StandInSession::copyStep(const std::wstring& selection)
{
    std::vector<OutlookEntry> entries;
    OutlookDataObjectOptions dataOptions;
    if (!dataObjectFor(selection, entries, dataOptions)) {
        result_.write("copy", {{"selection", narrow(selection)}, {"hr", hexResult(E_INVALIDARG)}});
        return false;
    }
    auto source = OutlookDataObject::create(entries, dataOptions);
    clipboardSource_ = source;
    const int64_t start = performanceTicks();
    const HRESULT hr = copyToClipboard(source.Get());
    const double ms = ticksToMilliseconds(performanceTicks() - start);
    // S_OK: Outlook's own object is what a paste gets; S_FALSE: another one.
    const HRESULT own = OleIsCurrentClipboard(source.Get());
    result_.write("copy", {{"selection", narrow(selection)},
                           {"items", std::to_string(entries.size())},
                           {"hr", hexResult(hr)},
                           {"outlooksOwnObject", own == S_OK ? "1" : "0"},
                           {"ms", milliseconds(ms)}});
    return SUCCEEDED(hr);
}

bool StandInSession::pasteStep()
{
    HWND window = target();
    if (!window) {
        result_.write("paste", {{"hr", hexResult(HRESULT_FROM_WIN32(ERROR_NOT_FOUND))}});
        return false;
    }
    const size_t before = targetEvents();
    const int64_t start = performanceTicks();
    PostMessageW(window, WM_APP + 1, 0, 0);
    // The target reads the clipboard from this process: keep answering.
    const bool arrived = pumpUntil(15000, [&] { return targetEvents() > before; });
    const double ms = ticksToMilliseconds(performanceTicks() - start);
    transfers_.push_back({"paste", L"clipboard", arrived ? S_OK : E_FAIL, 0, arrived ? static_cast<int>(before) : -1, ms});
    result_.write("paste", {{"hr", hexResult(arrived ? S_OK : E_FAIL)},
                            {"event", std::to_string(arrived ? static_cast<int>(before) : -1)},
                            {"ms", milliseconds(ms)}});
    return arrived;
}

bool StandInSession::setSetting(const std::wstring& argument)
{
    const size_t equals = argument.find(L'=');
    if (equals == std::wstring::npos || equals == 0)
        return false;
    const std::wstring name = argument.substr(0, equals);
    const std::wstring value = argument.substr(equals + 1);
    // A setting is the unnamed value of a key named after it.
    UniqueRegKey key;
    LSTATUS status = RegCreateKeyExW(HKEY_CURRENT_USER, (addinSettingsKey() + L"\\" + name).c_str(), 0, nullptr, 0,
                                     KEY_WRITE, nullptr, key.put(), nullptr);
    if (status == ERROR_SUCCESS)
        status = RegSetValueExW(key.get(), nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    result_.write("set", {{"name", narrow(name)}, {"value", narrow(value)}, {"status", std::to_string(status)}});
    return status == ERROR_SUCCESS;
}

bool StandInSession::resetSettings()
{
    const LSTATUS status = RegDeleteTreeW(HKEY_CURRENT_USER, addinSettingsKey().c_str());
    result_.write("reset-settings", {{"status", std::to_string(status)}});
    return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
}

bool StandInSession::writeMailbox(const std::wstring& folder)
{
    CreateDirectoryW(folder.c_str(), nullptr);
    int written = 0;
    int index = 0;
    for (const OutlookEntry& entry : sampleMailbox()) {
        // Numbered, so that equal subjects don't overwrite each other.
        wchar_t prefix[8];
        swprintf(prefix, 8, L"%02d ", index++);
        const std::wstring path = folder + L"\\" + prefix + plainFileName(entry.fileName);
        bool ok = false;
        if (entry.mail) {
            ok = SUCCEEDED(writeMsgFile(path, *entry.mail));
        } else {
            UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
            DWORD done = 0;
            ok = file && WriteFile(file.get(), entry.bytes.data(), static_cast<DWORD>(entry.bytes.size()), &done,
                                   nullptr);
        }
        written += ok ? 1 : 0;
    }
    result_.write("mailbox", {{"folder", narrow(folder)}, {"written", std::to_string(written)}});
    return written == index;
}
