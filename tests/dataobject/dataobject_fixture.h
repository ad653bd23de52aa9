#pragma once
// What the data object tests share: the registered formats, settings of
// their own, a scratch folder as the drag folder, and reading blocks back.
#include "core/globals.h"
#include "core/log.h"
#include "common/com_ptr.h"
#include "dataobject/clipboard_formats.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/data_blocks.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

class DataObjectTest : public testing::Test {
protected:
    void SetUp() override { RegisterDataFormats(); }

    TestSettingsKeys keys;
    Globals settings{TestSettingsKeys::company, keys.product()};
    ScratchFolder folder;
};

// A format by the name it is registered under.
inline CLIPFORMAT formatNamed(const wchar_t* name)
{
    return static_cast<CLIPFORMAT>(RegisterClipboardFormatW(name));
}

// A text's bytes with its NUL, wide or in the ANSI code page.
inline std::string wideBytes(const std::wstring& text)
{
    return std::string(reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t));
}

inline std::string ansiBytes(const std::wstring& text)
{
    std::string ansi(WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, ansi.data(), static_cast<int>(ansi.size()), nullptr, nullptr);
    return ansi;
}
