#include "hook_fixture.h"

namespace {

RecordedDoDragDrop* recording = nullptr;

HRESULT WINAPI record(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect)
{
    recording->calls.push_back(DragCall{dataObject, dropSource, okEffects, effect});
    if (recording->during)
        return recording->during(recording->calls.back());
    *effect = DROPEFFECT_NONE;
    return DRAGDROP_S_CANCEL;
}

} // namespace

RecordedDoDragDrop::RecordedDoDragDrop(During during) : during(std::move(during)), saved_(g_DoDragDrop)
{
    recording = this;
    g_DoDragDrop = &record;
}

HMODULE delayProbe()
{
    static const HMODULE probe = LoadLibraryW((testProgramFolder() + L"\\hook_probes\\hook_delay_probe.dll").c_str());
    EXPECT_NE(probe, nullptr) << "built by tests/standins/hook_probes";
    return probe;
}

size_t occurrences(const std::string& haystack, const std::string& text)
{
    size_t count = 0;
    for (size_t at = haystack.find(text); at != std::string::npos; at = haystack.find(text, at + text.size()))
        ++count;
    return count;
}
