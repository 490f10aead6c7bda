#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>

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
    struct Row {
        const char* name;
        CMetaString text;
    };
    CMetaString assignedNullWide(L"x");
    assignedNullWide.AssignWide(nullptr);
    CMetaString assignedEmptyNarrow("x");
    assignedEmptyNarrow.AssignNarrow("");
    const Row rows[] = {
        {"default", CMetaString()},
        {"wide empty", CMetaString(L"")},
        {"narrow empty", CMetaString("")},
        {"wide null", CMetaString(static_cast<const wchar_t*>(nullptr))},
        {"narrow null", CMetaString(static_cast<const char*>(nullptr))},
        {"AssignWide(null)", assignedNullWide},
        {"AssignNarrow(\"\")", assignedEmptyNarrow},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.text.GetWide(), nullptr);
        EXPECT_EQ(row.text.GetNarrow(), nullptr);
        EXPECT_TRUE(row.text.IsEmpty());
        EXPECT_EQ(row.text.GetLength(), 0u);
    }
}

TEST(MetaStringTest, AppendOfEmptyToNothingGivesNonNullEmptyText)
{
    CMetaString text = EmptyButNotNull();
    ASSERT_NE(text.GetWide(), nullptr);
    EXPECT_EQ(text.GetLength(), 0u);
    EXPECT_TRUE(text.IsEmpty());
}

TEST(MetaStringTest, AppendCopiesAndMayAppendItself)
{
    CMetaString text(L"ab");
    text.Append(L"cd");
    EXPECT_STREQ(text.GetWide(), L"abcd");
    text.Append(text.GetWide());
    EXPECT_STREQ(text.GetWide(), L"abcdabcd");
    EXPECT_EQ(text.GetLength(), 8u);
}

TEST(MetaStringTest, NarrowCopyIsCachedUntilTheTextChanges)
{
    CMetaString text(L"Name");
    const char* first = text.GetNarrow();
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first, "Name");
    EXPECT_EQ(text.GetNarrow(), first);

    // Appending null is no change at all: the cache survives.
    text.Append(nullptr);
    EXPECT_EQ(text.GetNarrow(), first);

    text.Append(L"s");
    EXPECT_STREQ(text.GetNarrow(), "Names");
    text.AssignNarrow("Other");
    EXPECT_STREQ(text.GetNarrow(), "Other");
}

TEST(MetaStringTest, CopiesAreIndependent)
{
    CMetaString original("alpha");
    CMetaString copy(original);
    original.Append(L"!");
    EXPECT_STREQ(copy.GetWide(), L"alpha");
    EXPECT_NE(copy.GetWide(), original.GetWide());
    CMetaString assigned;
    assigned = original;
    EXPECT_STREQ(assigned.GetWide(), L"alpha!");
    assigned = assigned;  // self-assignment keeps the text
    EXPECT_STREQ(assigned.GetWide(), L"alpha!");
}

TEST(MetaStringTest, CompareFollowsThePointerRulesThenTheTexts)
{
    struct Row {
        const wchar_t* own;  // null: a string that holds nothing
        const wchar_t* other;
        size_t count;
        int compare;
        int compareNoCase;
    };
    const Row rows[] = {
        {nullptr, nullptr, 0, 0, 0},
        {nullptr, L"", 0, -1, -1},  // pointers first: a non-null empty text is more
        {nullptr, L"a", 0, -1, -1},
        {L"a", nullptr, 0, 1, 1},
        {L"abc", L"abc", 0, 0, 0},
        {L"abc", L"ABC", 0, 1, 0},
        {L"abc", L"abd", 0, -1, -1},
        {L"abd", L"abc", 0, 1, 1},
        {L"ab", L"abc", 0, -1, -1},
        {L"abc", L"ab", 0, 1, 1},
        {L"abc", L"abd", 2, 0, 0},  // a count limits both
        {L"ABx", L"aby", 2, -1, 0},
        {L"\xFFFF", L"a", 0, 1, 1},  // units compare unsigned
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << "own=" << (row.own ? row.own : L"(null)")
                                          << " other=" << (row.other ? row.other : L"(null)")
                                          << " count=" << row.count);
        CMetaString text(row.own);
        auto sign = [](int value) { return (value > 0) - (value < 0); };
        EXPECT_EQ(sign(text.Compare(row.other, row.count)), row.compare);
        EXPECT_EQ(sign(text.CompareNoCase(row.other, row.count)), row.compareNoCase);
    }
}

TEST(MetaStringTest, FindGivesTheUnitIndexOfTheFirstHit)
{
    struct Row {
        const wchar_t* own;
        const wchar_t* needle;
        int index;
    };
    const Row rows[] = {
        {nullptr, L"", -1},  // holds nothing: -1 whatever the needle
        {nullptr, L"a", -1},
        {L"Get:Name", L":", 3},
        {L"Get:Name", L"Name", 4},
        {L"abab", L"b", 1},
        {L"abc", L"x", -1},
        {L"abc", L"", 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << (row.own ? row.own : L"(null)") << " / " << row.needle);
        EXPECT_EQ(CMetaString(row.own).Find(row.needle), row.index);
    }
}

TEST(MetaStringTest, MidCutsAndClampsToTheText)
{
    constexpr std::uint32_t kRest = 0xFFFFFFFFu;
    struct Row {
        const wchar_t* own;
        int start;
        std::uint32_t count;
        const wchar_t* expected;  // null: holds nothing
    };
    const Row rows[] = {
        {L"Get:Name", 4, kRest, L"Name"},
        {L"Get:Name", 0, 3, L"Get"},
        {L"Get:Name", 7, 1, L"e"},      // start at length minus one: the last unit
        {L"Get:Name", 8, 1, nullptr},   // start at the length: empty
        {L"Get:Name", 5, 100, L"ame"},  // count past the end: what remains
        {L"Get:Name", -1, 2, nullptr},
        {L"Get:Name", 2, 0, nullptr},   // an empty piece holds nothing
        {nullptr, 0, kRest, nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << "start=" << row.start << " count=" << row.count);
        CMetaString piece = CMetaString(row.own).Mid(row.start, row.count);
        if (row.expected == nullptr)
            EXPECT_EQ(piece.GetWide(), nullptr);
        else
            EXPECT_STREQ(piece.GetWide(), row.expected);
    }
    EXPECT_EQ(EmptyButNotNull().Mid(0, kRest).GetWide(), nullptr);
}

TEST(MetaStringTest, AnsiConversionsOwnTheirBuffers)
{
    char* narrow = nullptr;
    EXPECT_TRUE(MetaObj::WideToAnsi(L"", &narrow));
    ASSERT_NE(narrow, nullptr);
    EXPECT_EQ(narrow[0], '\0');
    delete[] narrow;

    narrow = nullptr;
    EXPECT_TRUE(MetaObj::WideToAnsi(L"VT_BSTR", &narrow));
    EXPECT_STREQ(narrow, "VT_BSTR");
    delete[] narrow;

    wchar_t* wide = nullptr;
    EXPECT_TRUE(MetaObj::AnsiToWide("Get:Count", &wide));
    EXPECT_STREQ(wide, L"Get:Count");
    delete[] wide;

    wide = nullptr;
    EXPECT_TRUE(MetaObj::AnsiToWide("", &wide));
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(wide[0], L'\0');
    delete[] wide;
}

}  // namespace
