// Whether a Firefox runs: such a drop target reads the dropped files while
// the drag is still going on, so they have to be written when it begins.
#include "hook/drag_entry.h"

#include "core/log.h"
#include "common/unique_resource.h"

#include <psapi.h>

#include <vector>

namespace {

Logger logger("HookDD");

enum class Answer { Unknown, Yes, No };

// Once a Firefox has been seen, the answer stays "yes" for the session:
// writing files at the start of a drag is always right, only slower, and the
// user who runs Firefox once is likely to run it again. "No" is asked anew at
// every drag, since Firefox may be started at any time after Outlook.
Answer cachedAnswer = Answer::Unknown;

constexpr DWORD maxProcesses = 10000;
constexpr DWORD queryAccess = PROCESS_QUERY_INFORMATION | PROCESS_VM_READ; // 0x410

std::wstring executablePath(HANDLE process)
{
    wchar_t path[261] = {};
    DWORD length = GetModuleFileNameExW(process, nullptr, path, 261);
    if (length == 0) {
        // A process still starting has no module list yet; its image name is there.
        length = 261;
        if (!QueryFullProcessImageNameW(process, 0, path, &length))
            length = 0;
    }
    return std::wstring(path, length);
}

bool isFirefox(DWORD processId)
{
    UniqueHandle process(OpenProcess(queryAccess, FALSE, processId));
    if (!process)
        return false;
    const std::wstring path = executablePath(process.get());
    const size_t slash = path.find_last_of(L'\\');
    const std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
    return _wcsicmp(name.c_str(), L"firefox.exe") == 0;
}

} // namespace

bool isFirefoxRunning(Globals&)
{
    const ULONGLONG start = GetTickCount64();
    bool running = cachedAnswer == Answer::Yes;
    if (!running) {
        std::vector<DWORD> processIds(maxProcesses);
        DWORD bytes = 0;
        const BOOL listed = EnumProcesses(processIds.data(), maxProcesses * sizeof(DWORD), &bytes);
        const DWORD count = listed ? bytes / sizeof(DWORD) : 0;
        KV_DEBUG(logger) << "succ=" << listed << ", #processes=" << count;
        for (DWORD index = 0; index < count && !running; ++index)
            running = processIds[index] != 0 && isFirefox(processIds[index]);
        cachedAnswer = running ? Answer::Yes : Answer::No;
    }
    KV_DEBUG(logger) << "isFirefoxRunning=" << running << ", ms=" << (GetTickCount64() - start);
    return running;
}

void forgetFirefoxAnswer()
{
    cachedAnswer = Answer::Unknown;
}
