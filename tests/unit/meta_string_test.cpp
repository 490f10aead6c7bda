#include <gtest/gtest.h>

#include <cstdint>

#include "text/meta_string.h"

using MetaObj::CMetaString;

namespace {

// A string whose wide buffer is non-null but of length 0: only Append makes one.
CMetaString EmptyButNotNull()
{
    CMetaString text;
    text.Append(L"");
    return text;
}

TEST(MetaStringTest, NullAndEmptyAssignmentsHoldNothing)
{
    CMetaString assignedNullWide(L"x"), assignedEmptyNarrow("x");
    assignedNullWide.AssignWide(nullptr);
    assignedEmptyNarrow.AssignNarrow("");
    const struct { const char* name; CMetaString text; } rows[] = {
        {"default", CMetaString()}, {"wide empty", CMetaString(L"")}, {"narrow empty", CMetaString("")},
        {"wide null", CMetaString(static_cast<const wchar_t*>(nullptr))},
        {"narrow null", CMetaString(static_cast<const char*>(nullptr))}, {"AssignWide(null)", assignedNullWide},
        {"AssignNarrow(\"\")", assignedEmptyNarrow},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.text.GetWide(), nullptr);
        EXPECT_EQ(row.text.GetNarrow(), nullptr);
        EXPECT_TRUE(row.text.IsEmpty());
        EXPECT_EQ(row.text.GetLength(), 0u);
    }
    const CMetaString appended = EmptyButNotNull();
    ASSERT_NE(appended.GetWide(), nullptr);
    EXPECT_TRUE(appended.IsEmpty());
}

TEST(MetaStringTest, AppendsCopiesAndTheCachedNarrowCopy)
{
    CMetaString text(L"ab");
    text.Append(L"cd");
    text.Append(text.GetWide());  // may append itself
    EXPECT_STREQ(text.GetWide(), L"abcdabcd");
    EXPECT_EQ(text.GetLength(), 8u);

    const char* first = text.GetNarrow();
    EXPECT_STREQ(first, "abcdabcd");
    EXPECT_EQ(text.GetNarrow(), first);  // cached until the text changes
    text.Append(nullptr);               // no change at all: the cache survives
    EXPECT_EQ(text.GetNarrow(), first);
    text.Append(L"s");
    EXPECT_STREQ(text.GetNarrow(), "abcdabcds");
    text.AssignNarrow("Other");
    EXPECT_STREQ(text.GetNarrow(), "Other");

    CMetaString copy(text);
    text.Append(L"!");
    EXPECT_STREQ(copy.GetWide(), L"Other");
    CMetaString assigned;
    assigned = text;
    assigned = assigned;  // self-assignment keeps the text
    EXPECT_STREQ(assigned.GetWide(), L"Other!");
    EXPECT_NE(assigned.GetWide(), text.GetWide());
}

TEST(MetaStringTest, CompareFollowsThePointerRulesThenTheTexts)
{
    const struct {
        const wchar_t *own, *other;  // null own: a string that holds nothing
        size_t count;
        int compare, compareNoCase;
    } rows[] = {
        {nullptr, nullptr, 0, 0, 0},
        {nullptr, L"", 0, -1, -1},  // pointers first: a non-null empty text is more
        {nullptr, L"a", 0, -1, -1},   {L"a", nullptr, 0, 1, 1},      {L"abc", L"abc", 0, 0, 0},
        {L"abc", L"ABC", 0, 1, 0},    {L"abc", L"abd", 0, -1, -1},   {L"abd", L"abc", 0, 1, 1},
        {L"ab", L"abc", 0, -1, -1},   {L"abc", L"ab", 0, 1, 1},
        {L"abc", L"abd", 2, 0, 0},    {L"ABx", L"aby", 2, -1, 0},    // a count limits both
        {L"\xFFFF", L"a", 0, 1, 1},  // units compare unsigned
    };
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "own=" << (row.own ? row.own : L"(null)")
                                          << " other=" << (row.other ? row.other : L"(null)") << " count=" << row.count);
        CMetaString text(row.own);
        EXPECT_EQ(sign(text.Compare(row.other, row.count)), row.compare);
        EXPECT_EQ(sign(text.CompareNoCase(row.other, row.count)), row.compareNoCase);
    }
}

TEST(MetaStringTest, FindAndMidKeepToTheText)
{
    const struct { const wchar_t *own, *needle; int index; } finds[] = {
        {nullptr, L"", -1}, {nullptr, L"a", -1},  // holds nothing: -1 whatever the needle
        {L"Get:Name", L":", 3}, {L"Get:Name", L"Name", 4}, {L"abab", L"b", 1}, {L"abc", L"x", -1}, {L"abc", L"", 0},
    };
    for (const auto& row : finds) {
        SCOPED_TRACE(::testing::Message() << (row.own ? row.own : L"(null)") << " / " << row.needle);
        EXPECT_EQ(CMetaString(row.own).Find(row.needle), row.index);
    }
    constexpr std::uint32_t kRest = 0xFFFFFFFFu;
    const struct {
        const wchar_t* own;
        int start;
        std::uint32_t count;
        const wchar_t* expected;  // null: holds nothing
    } mids[] = {
        {L"Get:Name", 4, kRest, L"Name"}, {L"Get:Name", 0, 3, L"Get"},
        {L"Get:Name", 7, 1, L"e"},      // start at length minus one: the last unit
        {L"Get:Name", 8, 1, nullptr},   // start at the length: empty
        {L"Get:Name", 5, 100, L"ame"},  // count past the end: what remains
        {L"Get:Name", -1, 2, nullptr},  {L"Get:Name", 2, 0, nullptr},  // an empty piece holds nothing
        {nullptr, 0, kRest, nullptr},
    };
    for (const auto& row : mids) {
        SCOPED_TRACE(::testing::Message() << "start=" << row.start << " count=" << row.count);
        const CMetaString piece = CMetaString(row.own).Mid(row.start, row.count);
        if (row.expected == nullptr)
            EXPECT_EQ(piece.GetWide(), nullptr);
        else
            EXPECT_STREQ(piece.GetWide(), row.expected);
    }
    EXPECT_EQ(EmptyButNotNull().Mid(0, kRest).GetWide(), nullptr);
}

TEST(MetaStringTest, ConversionsOfEmptyTextsSucceed)
{
    for (const wchar_t* wide : {L"", L"VT_BSTR"}) {
        char* narrow = nullptr;
        EXPECT_TRUE(MetaObj::WideToAnsi(wide, &narrow));
        wchar_t* back = nullptr;
        EXPECT_TRUE(MetaObj::AnsiToWide(narrow, &back));
        EXPECT_STREQ(back, wide);
        delete[] narrow;
        delete[] back;
    }
}

}  // namespace
