// The list of one drag's items: order, failure stops, release, JSON text.
#include "items/dd_item.h"
#include "common/com_ptr.h"

#include "items/attachment_item.h"
#include "support/scratch.h"

#include <shlwapi.h>

#include <gtest/gtest.h>

namespace {

// An item whose save and prepare answer what the test says and note the call.
class ScriptedItem : public DDItem {
public:
    ScriptedItem(std::wstring name, HRESULT result, std::vector<std::wstring>& journal)
        : DDItem(std::move(name)), result_(result), journal_(journal)
    {
    }
    ~ScriptedItem() override { journal_.push_back(L"delete " + fileName_); }
    HRESULT save() override
    {
        journal_.push_back(L"save " + fileName_);
        return result_;
    }
    HRESULT prepareFile() override
    {
        journal_.push_back(L"prepare " + fileName_);
        return result_;
    }
    void writeJson(std::wostream& out, int indent) override
    {
        DDItem::writeJson(out, indent);
        out << std::endl;
    }

protected:
    const char* typeName() const override { return "ScriptedItem"; }

private:
    HRESULT result_;
    std::vector<std::wstring>& journal_;
};

Microsoft::WRL::ComPtr<IStream> memoryStream(const std::string& bytes)
{
    Microsoft::WRL::ComPtr<IStream> stream;
    stream = adoptCom(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    return stream;
}

} // namespace

TEST(DDItemList, EmptyListIsFourLinesAndSucceeds)
{
    DDItems items;
    EXPECT_EQ(items.toJson(), L"{\n  \"items\" : [\n  ]\n}\n");
    EXPECT_EQ(items.save(), S_OK);
    EXPECT_EQ(items.prepareFiles(), S_OK);
}

TEST(DDItemList, AFailingSaveStopsTheListThere)
{
    std::vector<std::wstring> journal;
    {
        DDItems items;
        items.add(std::make_unique<ScriptedItem>(L"a", S_OK, journal));
        items.add(std::make_unique<ScriptedItem>(L"b", STG_E_MEDIUMFULL, journal));
        items.add(std::make_unique<ScriptedItem>(L"c", S_OK, journal));
        EXPECT_EQ(items.save(), STG_E_MEDIUMFULL);
        EXPECT_EQ(items.prepareFiles(), STG_E_MEDIUMFULL);
        items.release();
        EXPECT_TRUE(items.empty());
    }
    const std::vector<std::wstring> expected = {L"save a",   L"save b",   L"prepare a", L"prepare b",
                                                L"delete a", L"delete b", L"delete c"};
    EXPECT_EQ(journal, expected);
}

TEST(DDItemList, WarningResultsDoNotStopTheList)
{
    std::vector<std::wstring> journal;
    DDItems items;
    items.add(std::make_unique<ScriptedItem>(L"a", S_FALSE, journal));
    items.add(std::make_unique<ScriptedItem>(L"b", S_OK, journal));
    EXPECT_EQ(items.save(), S_OK);
    EXPECT_EQ(journal.size(), 2u);
}

TEST(JsonText, EscapesOnlyTheListedCharacters)
{
    EXPECT_EQ(escapeJson(L"a\"b\\c\td\ne\rf\bg"), L"a\\\"b\\\\c\\td\\ne\\rf\\bg");
    // Form feed, other controls and non-ASCII stay as they are.
    EXPECT_EQ(escapeJson(L"\f\x01\u00E9\u20AC/"), L"\f\x01\u00E9\u20AC/");
}

TEST(JsonText, ItemsAreSeparatedAndEndWithAnEmptyLine)
{
    ScratchFolder folder;
    DDItems items;
    items.add(std::make_unique<AttachmentItem>(folder.file(L"offer.pdf"), memoryStream("x").Get()));
    items.add(std::make_unique<AttachmentItem>(folder.file(L"Say \"hi\".txt"), memoryStream("y").Get()));
    EXPECT_EQ(items.toJson(),
              L"{\n"
              L"  \"items\" : [\n"
              L"    {\n"
              L"      \"type\" : \"class AttachmentItem\",\n"
              L"      \"fileName\" : \"offer.pdf\"\n"
              L"\n"
              L"    },\n"
              L"    {\n"
              L"      \"type\" : \"class AttachmentItem\",\n"
              L"      \"fileName\" : \"Say \\\"hi\\\".txt\"\n"
              L"\n"
              L"    }\n"
              L"  ]\n"
              L"}\n");
}

TEST(JsonText, FileNameIsTheLastPathComponent)
{
    EXPECT_EQ(fileNameOfPath(L"C:\\Temp\\Korvane\\1700000000\\a.msg"), L"a.msg");
    EXPECT_EQ(fileNameOfPath(L"a.msg"), L"a.msg");
}
