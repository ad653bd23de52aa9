#pragma once
// What the file-drop tests share: a scratch folder as the temporary folder, a
// file-drop record and settings of their own, and ageing real files and
// folders (both times set, after the contents: Wine reports a folder's
// last-write time, which each new entry changes, as its creation time).
#include "filedrop/cleanup.h"
#include "filedrop/file_drop.h"
#include "filedrop/file_drop_state.h"

#include "core/globals.h"
#include "core/log.h"
#include "common/unique_resource.h"
#include "core/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

#include <memory>

class FileDropTest : public testing::Test {
protected:
    FileDropTest() { state.tempDir = folder.path(); }

    // The settings read their values when they are made; null keeps the default.
    Globals& settingsWith(const wchar_t* name, const wchar_t* value)
    {
        EXPECT_TRUE(!value || RegUtil::setRegValue(keys.userPath(name), L"", value));
        settings = std::make_unique<Globals>(TestSettingsKeys::company, keys.product());
        state.settings = settings.get();
        return *settings;
    }

    // A file (or, with `isFolder`, a folder) whose times lie `minutes` in the past.
    static bool age(const std::wstring& path, double minutes)
    {
        FILETIME now{};
        GetSystemTimeAsFileTime(&now);
        ULARGE_INTEGER units{{now.dwLowDateTime, now.dwHighDateTime}};
        units.QuadPart -= static_cast<ULONGLONG>(minutes * 600000000.0);
        const FILETIME time{units.LowPart, units.HighPart};
        const UniqueFile handle(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        return handle && SetFileTime(handle.get(), &time, nullptr, &time);
    }

    ScratchFolder folder;
    TestSettingsKeys keys;
    std::unique_ptr<Globals> settings;
    // Last: its worker, if any, is stopped before the folder goes.
    FileDrop::FileDropState state;
};
