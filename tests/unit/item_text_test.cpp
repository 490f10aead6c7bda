#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "host/item_text.h"

using nlohmann::json;

namespace {

json Scalar(const std::string& text, const char* metaType = "Int")
{
    return {{"metaType", metaType}, {"class", "CMetaObjectInt"}, {"signature", ""}, {"text", text}};
}

// An array of whole numbers 1, 2, ... in the order of the walk, with the
// given (lower, count) bounds.
json Array(const std::vector<std::pair<int, int>>& bounds, int elementCount)
{
    json described = {{"metaType", "Array"}, {"class", "CMetaObjectArray"}, {"signature", "VT_I4|VT_ARRAY"}};
    described["bounds"] = json::array();
    for (const auto& [lower, count] : bounds)
        described["bounds"].push_back({{"lower", lower}, {"upper", lower + count - 1}, {"count", count}});
    described["elements"] = json::array();
    for (int value = 1; value <= elementCount; ++value)
        described["elements"].push_back(Scalar(std::to_string(value)));
    return described;
}

TEST(ItemTextTest, ArraysShowBoundsAndNestByDimension)
{
    struct Row {
        const char* name;
        json item;
        const char* expected;
    };
    json nested = Array({{0, 2}}, 0);
    nested["elements"] = json::array({Scalar("a", "String"), Array({{1, 2}}, 2)});
    const Row rows[] = {
        {"1-D", Array({{0, 3}}, 3), "(0 to 2) [1, 2, 3]"},
        {"single element", Array({{7, 1}}, 1), "(7 to 7) [1]"},
        // The last dimension moves fastest.
        {"2x3", Array({{0, 2}, {0, 3}}, 6), "(0 to 1, 0 to 2) [[1, 2, 3], [4, 5, 6]]"},
        {"2x2x2", Array({{0, 2}, {0, 2}, {0, 2}}, 8), "(0 to 1, 0 to 1, 0 to 1) [[[1, 2], [3, 4]], [[5, 6], [7, 8]]]"},
        {"lower bounds -1, 0, 5", Array({{-1, 1}, {0, 2}, {5, 2}}, 4), "(-1 to -1, 0 to 1, 5 to 6) [[[1, 2], [3, 4]]]"},
        {"empty dimension", Array({{0, 2}, {0, 0}}, 0), "(0 to 1, 0 to -1) []"},
        {"nested Variant array", nested, "(0 to 1) [\"a\", (1 to 2) [1, 2]]"},
        // A size left open doesn't match the table: shown flat rather than guessed.
        {"size left open", Array({{0, -1}}, 2), "(0 to ?) [1, 2]"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Tool::ValueText(row.item), row.expected);
    }
}

TEST(ItemTextTest, ScalarsRecordsAndNothing)
{
    json date = Scalar("1/2/2024", "Date");
    json named = Scalar("1");
    named["enumName"] = "TextCompare";
    json record = {{"metaType", "Struct"}, {"class", "CMetaObjectStruct"}, {"signature", "VT_RECORD"}};
    json x = Scalar("3");
    x["name"] = "x";
    record["members"] = json::array({x});

    EXPECT_EQ(Tool::ValueText(nullptr), "none");
    EXPECT_EQ(Tool::ValueText(Scalar("two\r\nlines\t!", "String")), "\"two\\r\\nlines\\t!\"");
    EXPECT_EQ(Tool::ValueText(date), "\"1/2/2024\"");
    EXPECT_EQ(Tool::ValueText(named), "1 (TextCompare)");
    EXPECT_EQ(Tool::ValueText(record), "{x: 3}");
    EXPECT_EQ(Tool::ItemText(Scalar("5")), "5  [Int, CMetaObjectInt]");
    EXPECT_EQ(Tool::ItemText(Array({{0, 1}}, 1)), "(0 to 0) [1]  [Array, CMetaObjectArray, VT_I4|VT_ARRAY]");
}

}  // namespace
