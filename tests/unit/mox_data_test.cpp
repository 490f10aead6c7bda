#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "text/mox_data.h"

using namespace MetaObj;

namespace {

std::string TextOf(const MoxText& text)
{
    return text.GetText();
}

TEST(MoxDataTest, ReserveGrowsByTheGrainOfTheOldCapacityAndShrinksOnlyWithSlack)
{
    const struct { std::uint32_t capacity, length, request, expectedCapacity, expectedLength; } rows[] = {
        {0, 0, 100, 100, 0},        {100, 0, 101, 112, 0},      {112, 0, 112, 112, 0},
        {112, 100, 60, 60, 60},     {112, 50, 81, 112, 50},     {112, 50, 80, 80, 50},
        {5000, 0, 5001, 8192, 0},   {4096, 0, 5000, 5008, 0},   {80, 0, 96, 112, 0},
        {4097, 0, 8192, 12288, 0},  {100, 40, 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.capacity << " -> " << row.request);
        MoxData buffer;
        if (row.capacity) {
            ASSERT_TRUE(buffer.Reserve(row.capacity));
        }
        ASSERT_EQ(buffer.capacity, row.capacity);
        buffer.SetLength(row.length);
        EXPECT_TRUE(buffer.Reserve(row.request));
        EXPECT_EQ(buffer.capacity, row.expectedCapacity);
        EXPECT_EQ(buffer.length, row.expectedLength);
        EXPECT_EQ(buffer.data == nullptr, row.expectedCapacity == 0);
    }
}

TEST(MoxDataTest, BytesMoveWithinTheOwnStorageAndRangesAreCut)
{
    MoxData buffer;
    buffer.SetBytes("0123456789", 10, 0);
    char* const storage = buffer.data;
    buffer.SetBytes(buffer.data + 4, 6, 0);
    EXPECT_EQ(buffer.data, storage);
    EXPECT_TRUE(buffer.EqualsBytes("456789", 6));

    const struct { std::uint32_t position, count; const char* source; const char* expected; } rows[] = {
        {0, 1, "ab", "ab1234"}, {4, 9, "xyz", "0123xyz"}, {99, 0, "!", "01234!"},
        {1, 3, "", "04"},      {2, 0, "--", "01--234"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        MoxData target;
        target.SetBytes("01234", 5, 0);
        target.Replace(row.position, row.count, row.source, static_cast<std::uint32_t>(std::strlen(row.source)));
        EXPECT_TRUE(target.EqualsBytes(row.expected, static_cast<std::uint32_t>(std::strlen(row.expected))));
    }

    MoxData number;
    number.SetBytes("[]", 2, 0);
    number.ReplaceNumber(1, 0, -42);
    EXPECT_TRUE(number.EqualsBytes("[-42]", 5));
    char out[3] = {'x', 'x', 'x'};
    EXPECT_EQ(number.ReadAt(out, sizeof out, 1, 10), 3u);
    EXPECT_EQ(number.ReadAt(out, sizeof out, 6, 1), 0u);  // an offset past the end reads nothing
    std::uint32_t length = 0, capacity = 0;
    char* block = number.Detach(&length, &capacity);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(number.data, nullptr);
    std::free(block);
}

TEST(MoxTextTest, KeepsItsTerminatorInsideTheLength)
{
    MoxText text;  // formats and appends are the generated tests'; a null format gives nothing
    text.AssignText("abcd");
    text.FormatText(nullptr);
    EXPECT_EQ(text.GetLength(), 0u);
    text.AssignText("abcd");
    char* const storage = text.data;
    text.AssignText("");
    EXPECT_EQ(text.length, 0u);
    EXPECT_EQ(text.data, storage);

    text.SetLength(2);
    EXPECT_EQ(text.length, 3u);
    EXPECT_EQ(text.data[2], 0);

    MoxText copy;
    copy.AssignText("xyz");
    MoxText second(copy);
    EXPECT_EQ(TextOf(second), "xyz");
    char out[3];
    EXPECT_EQ(copy.Read(out, sizeof out), 2u);  // a full target loses its last byte to the NUL
    EXPECT_STREQ(out, "xy");
    char counted[8];
    EXPECT_EQ(copy.ReadPascal(counted, sizeof counted), 4u);
    EXPECT_EQ(counted[0], 3);
}

TEST(MoxTextTest, ReplacesAndComparesByItsCaseRules)
{
    enum Op { All, AllExact, Nth1, Nth2, Nth4 };
    const struct { Op op; unsigned char exact; const char *text, *find, *replacement, *expected; } rows[] = {
        {AllExact, 1, "aba", "a", "aa", "aabaa"},  {All, 0, "abcB", "B", "x", "axcx"},
        {All, 1, "abcB", "B", "x", "abcx"},        {All, 0, "aXbxc", "x", "--", "a--b--c"},
        {Nth2, 1, "aXaXa", "a", "x", "aXxXa"},      {Nth2, 0, "AbaB", "b", "", "Aba"},
        {Nth4, 1, "aaa", "a", "x", "aaa"},          {Nth1, 1, "abc", "", "x", "abc"},
        {AllExact, 1, "abc", "abc", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.text << " / " << row.find);
        MoxText text, find, replacement;
        text.AssignText(row.text);
        find.AssignText(row.find);
        replacement.AssignText(row.replacement);
        switch (row.op) {
        case All: text.ReplaceAll(find, replacement, row.exact); break;
        case AllExact: text.ReplaceAllExact(find, replacement); break;
        case Nth1: text.ReplaceNth(find, replacement, 1, row.exact); break;
        case Nth2: text.ReplaceNth(find, replacement, 2, row.exact); break;
        case Nth4: text.ReplaceNth(find, replacement, 4, row.exact); break;
        }
        EXPECT_EQ(TextOf(text), row.expected);
    }

    MoxText abc;
    abc.AssignText("abc");
    EXPECT_TRUE(abc.EqualsBytes("ABC", 3));
    EXPECT_FALSE(abc.EqualsBytesCase("ABC", 3, 1));
    EXPECT_TRUE(abc.EqualsBytesCase("abc", 3, 1));
    EXPECT_TRUE(abc.MatchesHead("ABCDE", 5, 0));
    EXPECT_FALSE(abc.MatchesHead("ABCDE", 5, 1));
    EXPECT_FALSE(abc.MatchesHead("ABCDE", 0, 0));
    EXPECT_EQ(abc.CompareText(nullptr, 0), -1);
    EXPECT_EQ(abc.CompareText("x", 0), 1);
    MoxText empty;
    EXPECT_EQ(empty.CompareText(nullptr, 0), 0);
    EXPECT_EQ(empty.CompareText("x", 1), -1);
    EXPECT_TRUE(empty.MatchesHead("x", 0, 1));
    MoxText upper;
    upper.AssignText("ABC");
    EXPECT_TRUE(abc.Equals(upper));
    EXPECT_FALSE(abc.EqualsCase(upper, 1));
    EXPECT_EQ(kUpperCaseTable['a'], static_cast<std::uint32_t>('A'));
    EXPECT_EQ(kUpperCaseTable['{'], static_cast<std::uint32_t>('{'));
    EXPECT_EQ(kUpperCaseTable[224], 192u);
    EXPECT_EQ(kUpperCaseTable[255], 223u);
    EXPECT_EQ(kUpperCaseTable[201], static_cast<std::uint32_t>('e'));
    EXPECT_EQ(kUpperCaseTable[233], static_cast<std::uint32_t>('e'));
    const char* haystack = "xxAbC";
    EXPECT_EQ(FindTextNoCase(haystack, "abc"), haystack + 2);
    EXPECT_EQ(FindTextNoCase("ab", "abc"), nullptr);
    EXPECT_EQ(FindTextNoCase(nullptr, "a"), nullptr);
}


}  // namespace
