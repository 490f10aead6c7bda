#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "metaobj/records.h"
#include "plugin/com_handler.h"
#include "tests/support/registry_fixture.h"

using namespace MetaObj;

namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

Rows RowsOf(const CObjectInfo& info)
{
    Rows rows;
    for (const CObjectProperty* row : info.properties)
        rows.emplace_back(row->name.GetNarrow() ? row->name.GetNarrow() : "",
                          row->value.GetNarrow() ? row->value.GetNarrow() : "");
    return rows;
}

TEST(ObjectRowsTest, RowsFollowWhatTheRegistryHolds)
{
    struct Row {
        const char* label;
        std::function<void(ScratchClass&)> write;
        std::function<Rows(const ScratchClass&)> expected;
    };
    const Row rows[] = {
        {"in-process with everything",
         [](ScratchClass& c) {
             c.WriteClass("ProgID", nullptr, "Scratch.Row.1");
             c.WriteClass("Version", nullptr, "1.5");
             c.WriteClass("TypeLib", nullptr, c.braced);
             c.WriteClass("InprocServer32", nullptr, "C:\\scratch.dll");
             c.WriteClass("InprocServer32", "ThreadingModel", "Both");
         },
         [](const ScratchClass& c) {
             return Rows{{"Class ID", c.braced},          {"Prog ID", "Scratch.Row.1"},
                         {"Version", "1.5"},              {"Type Library", c.braced},
                         {"InprocServer32", "C:\\scratch.dll"}, {"Threading Model", "Both"}};
         }},
        {"local server",
         [](ScratchClass& c) {
             c.WriteClass("LocalServer32", nullptr, "C:\\scratch.exe");
             c.WriteClass("LocalServer32", "ThreadingModel", "Apartment");
         },
         [](const ScratchClass& c) {
             return Rows{{"Class ID", c.braced}, {"LocalServer32", "C:\\scratch.exe"}, {"Threading Model", "Apartment"}};
         }},
        {"service", [](ScratchClass& c) { c.WriteClass("LocalService", nullptr, "ScratchService"); },
         [](const ScratchClass& c) { return Rows{{"Class ID", c.braced}, {"Server Location", "ScratchService"}}; }},
        {"no server", [](ScratchClass&) {}, [](const ScratchClass& c) { return Rows{{"Class ID", c.braced}}; }},
    };
    CMetaObjectCOMHandler handler;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchClass scratch;
        row.write(scratch);
        CObjectInfo* info = nullptr;
        ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + scratch.bare).c_str(), true), MetaStatusOk);
        EXPECT_EQ(info->objectKind, 1u);
        EXPECT_EQ(info->isRegistered, 1);
        EXPECT_EQ(RowsOf(*info), row.expected(scratch));
        handler.FreeObjectInfo(info);
    }
}

TEST(ObjectRowsTest, NamesWithoutAClass)
{
    CMetaObjectCOMHandler handler;
    CObjectInfo* info = reinterpret_cast<CObjectInfo*>(&handler);  // a marker: must stay
    EXPECT_EQ(handler.GetObjectInfo(&info, nullptr, true), MetaStatusNoClass);
    EXPECT_EQ(info, reinterpret_cast<CObjectInfo*>(&handler));

    EXPECT_EQ(handler.GetObjectInfo(&info, "COM://Not.Registered", true), MetaStatusNoClass);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->objectKind, 2u);
    handler.FreeObjectInfo(info);

    const std::string arbitrary(36, 'z');
    ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + arbitrary).c_str(), true), MetaStatusOk);
    EXPECT_EQ(info->isRegistered, 0);
    EXPECT_EQ(RowsOf(*info), (Rows{{"Class ID", ""}, {"Server Location", ""}}));
    handler.FreeObjectInfo(info);

    ScratchClass scratch;
    scratch.WriteClass("InprocServer32", nullptr, "C:\\scratch.dll");
    ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + scratch.bare).c_str(), false), MetaStatusOk);
    EXPECT_TRUE(info->properties.empty());
    EXPECT_EQ(info->location.Compare(L"C:\\scratch.dll", 0), 0);
    handler.FreeObjectInfo(info);
}

}  // namespace
