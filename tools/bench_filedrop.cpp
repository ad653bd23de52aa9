// Measures the drop handling against plain file operations made in the same
// run, and prints a table:
//   bench_filedrop [folder]
// - building the data object for a drag of 1,000 attachments whose files are
//   only prepared, against creating the same empty files of the same sizes;
// - one cleanup pass over 10,000 old files in 10 drag folders, against
//   deleting the same files one by one.
#include "bench_timing.h"

#include "core/globals.h"
#include "core/log.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/data_object_writer.h"
#include "filedrop/cleanup.h"
#include "filedrop/file_drop_state.h"
#include "common/unique_resource.h"
#include "e2e_shared/outlook_data_object.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

using Microsoft::WRL::ComPtr;

constexpr int rounds = 5;
constexpr int attachmentCount = 1000;
constexpr int cleanupFolders = 10;
constexpr int cleanupFilesPerFolder = 1000;

double medianOf(const std::function<void()>& prepare, const std::function<void()>& work)
{
    return ::medianOf(rounds, prepare, work);
}

void deleteTree(const std::wstring& path)
{
    WIN32_FIND_DATAW found{};
    UniqueFindHandle search(FindFirstFileW((path + L"\\*").c_str(), &found));
    if (search) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring child = path + L"\\" + name;
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                deleteTree(child);
            } else {
                SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
                DeleteFileW(child.c_str());
            }
        } while (FindNextFileW(search.get(), &found));
    }
    search.reset();
    RemoveDirectoryW(path.c_str());
}

// What prepareFile does for an attachment, done directly.
bool createEmptyFileOfSize(const std::wstring& path, LONGLONG size)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    LARGE_INTEGER end{};
    end.QuadPart = size;
    return SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN) && SetEndOfFile(file.get());
}

FILETIME daysAgo(int days)
{
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER units{};
    units.LowPart = now.dwLowDateTime;
    units.HighPart = now.dwHighDateTime;
    units.QuadPart -= static_cast<ULONGLONG>(days) * 24 * 60 * 600000000ULL;
    return FILETIME{units.LowPart, units.HighPart};
}

void setTimes(const std::wstring& path, const FILETIME& time)
{
    UniqueFile file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (file)
        SetFileTime(file.get(), &time, nullptr, &time);
}

// 10 drag folders of 1,000 files, two days old. Folders are aged after their
// files are in: on Linux, Wine reports a folder's last-write time as its
// creation time.
std::vector<std::wstring> makeOldDragFolders(const std::wstring& root)
{
    std::vector<std::wstring> files;
    CreateDirectoryW(root.c_str(), nullptr);
    const FILETIME old = daysAgo(2);
    for (int f = 0; f < cleanupFolders; ++f) {
        const std::wstring folder = root + L"\\" + std::to_wstring(1700000000 + f);
        CreateDirectoryW(folder.c_str(), nullptr);
        for (int i = 0; i < cleanupFilesPerFolder; ++i) {
            const std::wstring path = folder + L"\\mail " + std::to_wstring(i) + L".msg";
            UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        i % 10 == 0 ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL, nullptr));
            DWORD written = 0;
            WriteFile(file.get(), "x", 1, &written, nullptr);
            SetFileTime(file.get(), &old, nullptr, &old);
            files.push_back(path);
        }
        setTimes(folder, old);
    }
    return files;
}

size_t countEntries(const std::wstring& root)
{
    size_t count = 0;
    WIN32_FIND_DATAW found{};
    UniqueFindHandle search(FindFirstFileW((root + L"\\*").c_str(), &found));
    if (!search)
        return 0;
    do {
        const std::wstring name = found.cFileName;
        if (name != L"." && name != L"..")
            ++count;
    } while (FindNextFileW(search.get(), &found));
    return count;
}

void row(const char* what, double korvane, double reference, const char* target)
{
    printComparisonRow(58, what, korvane, reference, target);
}

} // namespace

int main(int argc, char** argv)
{
    OleInitialize(nullptr);
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH, temp);
    std::wstring folder = std::wstring(temp) + L"korvane-bench-filedrop";
    if (argc > 1) {
        const std::string given = argv[1];
        folder.assign(given.begin(), given.end());
    }
    deleteTree(folder);
    CreateDirectoryW(folder.c_str(), nullptr);
    // The log as Outlook has it by default: open, at INFO, so that debug
    // lines are not even built (a closed log builds every line).
    LogFile::instance().open(folder + L"\\bench.log", LOG_INFO, false);
    RegisterDataFormats();
    Globals settings(L"KorvaneBench", L"FileDrop");

    std::printf("| %-58s | %12s | %12s | %5s | %-8s |\n", "operation", "Korvane", "reference", "ratio", "target");
    std::printf("|%s|%s|%s|%s|%s|\n", std::string(60, '-').c_str(), std::string(14, '-').c_str(),
                std::string(14, '-').c_str(), std::string(7, '-').c_str(), std::string(10, '-').c_str());

    // A drag of 1,000 attachments of 1 to 64 KiB, files only prepared.
    std::vector<OutlookEntry> entries;
    std::vector<LONGLONG> sizes;
    for (int i = 0; i < attachmentCount; ++i) {
        const size_t size = 1024 + (static_cast<size_t>(i) * 7919) % (63 * 1024);
        sizes.push_back(static_cast<LONGLONG>(size));
        entries.push_back(OutlookEntry::attachment(L"attachment " + std::to_wstring(i) + L".pdf",
                                                   std::string(size, static_cast<char>('a' + i % 26))));
    }
    auto outlook = OutlookDataObject::create(entries);
    const std::wstring dragRoot = folder + L"\\Korvane";
    const std::wstring directRoot = folder + L"\\direct";
    size_t offered = 0;
    const double build = medianOf([&] { deleteTree(dragRoot); CreateDirectoryW(dragRoot.c_str(), nullptr); }, [&] {
        FileDrop::FileDropState state;
        state.tempDir = dragRoot;
        auto items = std::make_shared<DDItems>();
        ComPtr<IDataObject> result;
        FileDrop::internalHandleDataObject(state, outlook.Get(), outlook.Get(), items, false, result, settings);
        offered = items->size();
    });
    const double direct = medianOf([&] { deleteTree(directRoot); CreateDirectoryW(directRoot.c_str(), nullptr); }, [&] {
        for (int i = 0; i < attachmentCount; ++i)
            createEmptyFileOfSize(directRoot + L"\\attachment " + std::to_wstring(i) + L".pdf", sizes[i]);
    });
    row("data object for 1,000 attachments (prepared files)", build, direct, "<= 2");
    std::printf("| %-58s | %12.0f | %12.0f | %5s | %-8s |\n", "  items per second", offered * 1000.0 / build,
                attachmentCount * 1000.0 / direct, "", "");
    // The one step that asks the shell about every file: its share of the above.
    PathList paths;
    for (int i = 0; i < attachmentCount; ++i)
        paths.push_back(directRoot + L"\\attachment " + std::to_wstring(i) + L".pdf");
    // Rendered only when a target asks for it, so it is not part of the row
    // above; a target that asks pays this at its GetData.
    const double idList = medianOf([] {}, [&] { GlobalFree(CreateSHELLIDLIST(paths)); });
    std::printf("| %-58s | %9.1f ms | %12s | %5s | %-8s |\n", "  \"Shell IDList Array\" on request (CreateSHELLIDLIST)",
                idList, "-", "-", "");

    // One cleanup pass over 10,000 old files in 10 drag folders.
    const std::wstring cleanupRoot = folder + L"\\cleanup";
    std::vector<std::wstring> files;
    size_t left = 0;
    const double pass = medianOf([&] { deleteTree(cleanupRoot); files = makeOldDragFolders(cleanupRoot); }, [&] {
        FileDrop::FileDropState state;
        state.tempDir = cleanupRoot;
        state.settings = &settings;
        FileDrop::cleanupTempDir(state, cleanupRoot);
    });
    left = countEntries(cleanupRoot);
    const double deleting = medianOf([&] { deleteTree(cleanupRoot); files = makeOldDragFolders(cleanupRoot); }, [&] {
        for (const std::wstring& path : files) {
            SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            DeleteFileW(path.c_str());
        }
        for (int f = 0; f < cleanupFolders; ++f)
            RemoveDirectoryW((cleanupRoot + L"\\" + std::to_wstring(1700000000 + f)).c_str());
    });
    row("cleanup pass over 10,000 old files vs DeleteFileW loop", pass, deleting, "report");

    std::printf("\n%zu items offered; %zu entries left after the cleanup pass; median of %d runs each\n", offered,
                left, rounds);

    LogFile::instance().close();
    deleteTree(folder);
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\KorvaneBench");
    OleUninitialize();
    return 0;
}
