#pragma once
// Small readings of an end-to-end outcome shared by the test files.
#include "e2e_run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

// Stops the test when the run could not happen at all: the add-in not
// registered (a failure) or no display for the target's window (a skip).
#define E2E_REQUIRE_RUN(outcome)                                                                  \
    do {                                                                                          \
        ASSERT_TRUE(addinRegistered()) << "DllRegisterServer of the add-in failed";               \
        if (!(outcome).targetStarted)                                                             \
            GTEST_SKIP() << "the drop target's window needs a display (run under xvfb-run)";      \
        ASSERT_EQ((outcome).step("hooks").value("live"), "1") << "the add-in never intercepted"; \
    } while (0)

inline std::wstring lastComponent(const std::wstring& path)
{
    const size_t slash = path.find_last_of(L'\\');
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

inline std::vector<std::wstring> receivedNames(const DropEvent& event)
{
    std::vector<std::wstring> names;
    for (const ReceivedFile& file : event.files)
        names.push_back(lastComponent(file.path));
    return names;
}

inline bool offersFormat(const DropEvent& event, const std::wstring& name)
{
    return std::find(event.formats.begin(), event.formats.end(), name) != event.formats.end();
}

inline uint64_t fileTimeNumber(const FILETIME& time)
{
    return (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}
