#include <gtest/gtest.h>

#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "identity/com_identity.h"
#include "tests/support/leak_check.h"
#include "text/meta_string.h"
#include "text/mox_data.h"

using namespace MetaObj;

namespace {

// A string whose wide buffer is non-null but of length 0: only Append makes one.
CMetaString EmptyButNotNull()
{
    CMetaString text;
    text.Append(L"");
    return text;
}

TEST(MetaStringTest, WhatEachTextHoldsHowItComparesAppendsAndCopies)
{
    CMetaString assignedNullWide(L"x"), assignedEmptyNarrow("x"), name(L"Get:Name");
    assignedNullWide.AssignWide(nullptr);
    assignedEmptyNarrow.AssignNarrow("");
    constexpr std::uint32_t kRest = 0xFFFFFFFFu;
    const struct { const char* label; CMetaString text; const wchar_t* expected; } rows[] = {  // null: holds nothing
        {"default", CMetaString(), nullptr}, {"wide empty", CMetaString(L""), nullptr},
        {"narrow empty", CMetaString(""), nullptr},
        {"wide null", CMetaString(static_cast<const wchar_t*>(nullptr)), nullptr},
        {"narrow null", CMetaString(static_cast<const char*>(nullptr)), nullptr},
        {"AssignWide(null)", assignedNullWide, nullptr}, {"AssignNarrow(\"\")", assignedEmptyNarrow, nullptr},
        {"Mid(4, rest)", name.Mid(4, kRest), L"Name"}, {"Mid(0, 3)", name.Mid(0, 3), L"Get"},
        {"Mid from the last unit", name.Mid(7, 1), L"e"}, {"Mid from the length", name.Mid(8, 1), nullptr},
        {"Mid past the end", name.Mid(5, 100), L"ame"}, {"Mid from -1", name.Mid(-1, 2), nullptr},
        {"Mid of no units", name.Mid(2, 0), nullptr}, {"Mid of nothing", CMetaString().Mid(0, kRest), nullptr},
        {"Mid of an empty buffer", EmptyButNotNull().Mid(0, kRest), nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        if (row.expected) {
            EXPECT_STREQ(row.text.GetWide(), row.expected);
            EXPECT_EQ(row.text.GetLength(), std::wcslen(row.expected));
            continue;
        }
        EXPECT_EQ(row.text.GetWide(), nullptr);
        EXPECT_EQ(row.text.GetNarrow(), nullptr);
        EXPECT_TRUE(row.text.IsEmpty());
        EXPECT_EQ(row.text.GetLength(), 0u);
    }
    const CMetaString appended = EmptyButNotNull();
    ASSERT_NE(appended.GetWide(), nullptr);
    EXPECT_TRUE(appended.IsEmpty());
    const struct { const wchar_t *own, *needle; int index; } finds[] = {
        {nullptr, L"", -1}, {L"Get:Name", L"Name", 4}, {L"abab", L"b", 1}, {L"abc", L"x", -1}, {L"abc", L"", 0},
    };
    for (const auto& row : finds)
        EXPECT_EQ(CMetaString(row.own).Find(row.needle), row.index) << "find row " << (&row - finds);

    // A null own text: a string that holds nothing.
    const struct { const wchar_t *own, *other; size_t count; int compare, compareNoCase; } compares[] = {
        {nullptr, nullptr, 0, 0, 0},  {nullptr, L"", 0, -1, -1},  // pointers first: a non-null empty text is more
        {L"a", nullptr, 0, 1, 1},     {L"abc", L"abc", 0, 0, 0},    {L"abc", L"ABC", 0, 1, 0},
        {L"abc", L"abd", 0, -1, -1},  {L"ab", L"abc", 0, -1, -1},   {L"abc", L"ab", 0, 1, 1},
        {L"abc", L"abd", 2, 0, 0},    {L"ABx", L"aby", 2, -1, 0},   {L"\xFFFF", L"a", 0, 1, 1},  // units unsigned
    };
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    for (const auto& row : compares) {
        SCOPED_TRACE(::testing::Message() << "row " << (&row - compares));
        CMetaString text(row.own);
        EXPECT_EQ(sign(text.Compare(row.other, row.count)), row.compare);
        EXPECT_EQ(sign(text.CompareNoCase(row.other, row.count)), row.compareNoCase);
    }

    // Appends, copies and the cached narrow copy.
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

// A released short text's buffer serves the next text of its length, and only of its length.
TEST(MetaStringTest, AShortTextsBufferIsKeptForItsLengthAlone)
{
    ExpectNoBlocksLeft([] {
        CMetaString format(L"%d");
        const wchar_t* const held = format.GetWide();
        format.AssignWide(nullptr);
        CMetaString same(L"%f");
        EXPECT_EQ(same.GetWide(), held);
        same.AssignWide(L"%.3f");  // longer: a buffer of its own
        EXPECT_NE(same.GetWide(), held);
        EXPECT_STREQ(same.GetWide(), L"%.3f");
    });
}

TEST(MoxDataTest, ReserveGrowsByGrainsBytesMoveInTheOwnStorageAndRangesAreCut)
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
        ASSERT_TRUE(buffer.Reserve(row.capacity));
        ASSERT_EQ(buffer.capacity, row.capacity);
        buffer.SetLength(row.length);
        EXPECT_TRUE(buffer.Reserve(row.request));
        EXPECT_EQ(buffer.capacity, row.expectedCapacity);
        EXPECT_EQ(buffer.length, row.expectedLength);
        EXPECT_EQ(buffer.data == nullptr, row.expectedCapacity == 0);
    }

    MoxData buffer;
    buffer.SetBytes("0123456789", 10, 0);
    char* const storage = buffer.data;
    buffer.SetBytes(buffer.data + 4, 6, 0);
    EXPECT_EQ(buffer.data, storage);
    EXPECT_TRUE(buffer.EqualsBytes("456789", 6));

    const struct { std::uint32_t position, count; const char* source; const char* expected; } replaces[] = {
        {0, 1, "ab", "ab1234"}, {4, 9, "xyz", "0123xyz"}, {99, 0, "!", "01234!"},
        {1, 3, "", "04"},      {2, 0, "--", "01--234"},
    };
    for (const auto& row : replaces) {
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

TEST(MoxTextTest, KeepsItsTerminatorInsideTheLengthReplacesAndCompares)
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
    EXPECT_EQ(std::string(second.GetText()), "xyz");
    char out[3];
    EXPECT_EQ(copy.Read(out, sizeof out), 2u);  // a full target loses its last byte to the NUL
    EXPECT_STREQ(out, "xy");
    char counted[8];
    EXPECT_EQ(copy.ReadPascal(counted, sizeof counted), 4u);
    EXPECT_EQ(counted[0], 3);

    enum Op { All, AllExact, Nth1, Nth2, Nth4 };
    const struct { Op op; unsigned char exact; const char *subject, *find, *replacement, *expected; } rows[] = {
        {AllExact, 1, "aba", "a", "aa", "aabaa"},  {All, 0, "abcB", "B", "x", "axcx"},
        {All, 1, "abcB", "B", "x", "abcx"},        {All, 0, "aXbxc", "x", "--", "a--b--c"},
        {Nth2, 1, "aXaXa", "a", "x", "aXxXa"},      {Nth2, 0, "AbaB", "b", "", "Aba"},
        {Nth4, 1, "aaa", "a", "x", "aaa"},          {Nth1, 1, "abc", "", "x", "abc"},
        {AllExact, 1, "abc", "abc", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.subject << " / " << row.find);
        MoxText subject, find, replacement;
        subject.AssignText(row.subject);
        find.AssignText(row.find);
        replacement.AssignText(row.replacement);
        switch (row.op) {
        case All: subject.ReplaceAll(find, replacement, row.exact); break;
        case AllExact: subject.ReplaceAllExact(find, replacement); break;
        case Nth1: subject.ReplaceNth(find, replacement, 1, row.exact); break;
        case Nth2: subject.ReplaceNth(find, replacement, 2, row.exact); break;
        case Nth4: subject.ReplaceNth(find, replacement, 4, row.exact); break;
        }
        EXPECT_EQ(std::string(subject.GetText()), row.expected);
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
    for (const auto& [from, to] :
         {std::pair<int, int>{'a', 'A'}, {'{', '{'}, {224, 192}, {255, 223}, {201, 'e'}, {233, 'e'}})
        EXPECT_EQ(kUpperCaseTable[from], static_cast<std::uint32_t>(to)) << from;
    const char* haystack = "xxAbC";
    EXPECT_EQ(FindTextNoCase(haystack, "abc"), haystack + 2);
    EXPECT_EQ(FindTextNoCase("ab", "abc"), nullptr);
    EXPECT_EQ(FindTextNoCase(nullptr, "a"), nullptr);
}

// Generated input, every case leaving no heap block: a generator per case (seed, index) lets one run alone.
class TextGenerator {
public:
    TextGenerator(std::uint32_t seed, std::uint32_t caseIndex)
    {
        std::seed_seq sequence{seed, caseIndex};
        engine_.seed(sequence);
    }
    std::size_t Below(std::size_t bound)
    {
        return bound == 0 ? 0 : std::uniform_int_distribution<std::size_t>(0, bound - 1)(engine_);
    }
    std::size_t Between(std::size_t low, std::size_t high) { return low + Below(high - low + 1); }
    bool OneIn(std::size_t n) { return Below(n) == 0; }
    std::uint32_t Word() { return static_cast<std::uint32_t>(engine_()); }
    std::string From(const std::string& alphabet, std::size_t minLength, std::size_t maxLength)
    {
        std::string text(Between(minLength, maxLength), '\0');
        for (char& c : text)
            c = alphabet[Below(alphabet.size())];
        return text;
    }
    std::string OddNarrow(std::size_t maxLength)  // any byte but NUL
    {
        std::string text(Between(0, maxLength), '\0');
        for (char& c : text)
            c = static_cast<char>(Between(1, 255));
        return text;
    }
    // One to three edits: a cut, a removed or repeated piece, specials, a NUL, a high byte, a long run.
    std::string Mutate(std::string text, const std::string& specials)
    {
        for (std::size_t edit = Between(1, 3); edit > 0; --edit) {
            const std::size_t at = Below(text.size() + 1);
            const char special = specials[Below(specials.size())];
            switch (Below(8)) {
            case 0: text.resize(at); break;
            case 1: text.erase(at, Between(1, 8)); break;
            case 2: { const auto piece = text.substr(at, Between(1, 12)); text.insert(at, piece + piece); break; }
            case 3: case 4: text.insert(at, 1, special); break;
            case 5: text.insert(at, 1, '\0'); break;
            case 6: text.insert(at, 1, static_cast<char>(Between(0x80, 0xFF))); break;
            default: text.insert(at, Between(1000, 12000), special); break;
            }
        }
        return text;
    }

private:
    std::mt19937 engine_;
};

constexpr std::size_t kFormatLimit = 10240;  // what one MoxText format call adds at most

std::string Trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t\n\v\f\r");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t\n\v\f\r") - begin + 1);
}

using Parts = std::vector<std::string>;  // scheme, object name, then attribute names and values

Parts PartsOf(const CObjectIdentity& identity)
{
    Parts parts{identity.GetScheme(), identity.GetObjectName()};
    for (const CIdentityAttribute* attribute : identity.GetAttributes())
        parts.insert(parts.end(), {attribute->GetName(), attribute->GetValue()});
    return parts;
}

std::string Compose(const Parts& parts)
{
    std::string text = parts[0] + "://" + parts[1];
    for (std::size_t i = 2; i < parts.size(); i += 2)
        text += "?" + parts[i] + "=" + parts[i + 1];
    return text;
}

// Composed texts parse into their parts; mutated ones split as documented and print back the same.
void IdentityTexts(TextGenerator& gen)
{
    Parts parts{gen.OneIn(3) ? "COM" : gen.From(std::string("COMcomX09+-._ :/?=\xe9"), 0, 12),
                gen.From(std::string("Sample.Object{}-0123456789abcdef:/= \t\xe9\xff"), 0, gen.OneIn(10) ? 400 : 40)};
    for (std::size_t at; (at = parts[0].find("://")) != std::string::npos;)
        parts[0].erase(at, 1);
    if (gen.OneIn(8))
        parts[1].insert(gen.Below(parts[1].size() + 1), 1, '\0');
    for (std::size_t i = gen.OneIn(4) ? 0 : gen.Between(1, gen.OneIn(10) ? 60 : 5); i > 0; --i) {
        std::string name = Trimmed(gen.From(std::string("HostUserTypeLibDomain_x.:/{} \t\xa0"), 1, 12));
        if (parts.size() > 2 && gen.OneIn(5))  // repeated names are kept in order
            name = parts[2 + 2 * gen.Below((parts.size() - 2) / 2)];
        const std::size_t valueLength = gen.OneIn(20) ? 3000 : 16;
        const std::string value = gen.From(std::string("alpha{}=://\\.- \t0123456789\x80\xff"), 0, valueLength);
        parts.insert(parts.end(), {name.empty() ? "n" : name, Trimmed(value)});
    }
    const bool composed = gen.OneIn(2);
    std::string text = Compose(parts);
    if (!composed)
        text = gen.Mutate(gen.OneIn(5) ? gen.OddNarrow(80) : text, std::string("?=:/ \t{}\"'\0", 11));
    ExpectNoBlocksLeft([&] {
        CObjectIdentity identity;
        identity.SetText(text);
        EXPECT_EQ(identity.GetText(), text);
        const std::size_t schemeEnd = text.find("://");
        if (schemeEnd == std::string::npos) {
            EXPECT_EQ(PartsOf(identity), Parts(2));
            EXPECT_TRUE(identity.GetBaseText().empty());
            EXPECT_FALSE(identity.IsComplete());
        } else {
            const Parts split = PartsOf(identity);
            EXPECT_EQ(split[0], text.substr(0, schemeEnd));
            EXPECT_EQ(identity.GetBaseText(), text.substr(0, text.find('?')));
            EXPECT_EQ(text.compare(schemeEnd + 3, split[1].size(), split[1]), 0);
            EXPECT_EQ(identity.IsComplete(), !split[0].empty() && !split[1].empty());
            CObjectIdentity again;  // parse, print, parse: parts hold no delimiter, no blank end
            again.SetText(Compose(split));
            EXPECT_EQ(PartsOf(again), split);
        }
        if (composed) {
            EXPECT_EQ(PartsOf(identity), parts);
            identity.SetObjectName(parts[1]);
            identity.SetScheme(parts[0]);
            EXPECT_EQ(identity.GetText(), text);
        }
        const CCOMIdentity com(text.c_str(), 1);  // a whole narrow text ends at its first NUL
        EXPECT_EQ(com.GetText(), std::string(text.c_str()));
    });
}

// What a format gives, as the run-time formats it, cut at the limit of one call.
std::string Expected(const char* format, ...)
{
    std::vector<char> buffer(1 << 16, 0);
    va_list args;
    va_start(args, format);
    _vsnprintf(buffer.data(), buffer.size() - 1, format, args);
    va_end(args);
    return std::string(buffer.data()).substr(0, kFormatLimit);
}

void AppendFormatted(MoxText& text, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    text.AppendFormat(format, args);
    va_end(args);
}

// Formats replace or follow the text, cut per call; appended to itself, it reads storage the append may move.
void MoxTextFormats(TextGenerator& gen)
{
    static const char* const kTextConversions[] = {"%s", "%-12s", "%.3s", "%40s", "%20000s", "%.0s"};
    static const char* const kNumberConversions[] = {"%d", "%u", "%x", "%08x", "%-9d", "%+d", "%15000d", "%c", ""};
    auto literal = [&gen] {
        std::string escaped;
        for (char c : gen.OddNarrow(gen.OneIn(10) ? 12000 : 20))
            escaped += c == '%' ? std::string("%%") : std::string(1, c);
        return escaped;
    };
    const std::string start = gen.OneIn(3) ? std::string() : gen.OddNarrow(gen.OneIn(5) ? 5000 : 30);
    const bool replaceFirst = gen.OneIn(2), appendItself = gen.OneIn(3);
    struct Request { std::string format, text; bool isText; std::int32_t number; };
    std::vector<Request> requests(gen.Between(1, 4));
    std::string expected = replaceFirst ? std::string() : start;
    for (Request& r : requests) {
        r.isText = gen.OneIn(2);
        const std::string before = literal();
        r.text = r.isText ? (gen.OneIn(8) ? std::string(gen.Between(9000, 30000), 'w') : gen.OddNarrow(40)) : "";
        const std::string conversion = r.isText ? kTextConversions[gen.Below(std::size(kTextConversions))]
                                                : kNumberConversions[gen.Below(std::size(kNumberConversions))];
        r.number = static_cast<std::int32_t>(conversion == "%c" ? gen.Between(1, 255) : gen.Word());
        r.format = before + conversion + literal();
        expected += r.isText ? Expected(r.format.c_str(), r.text.c_str()) : Expected(r.format.c_str(), r.number);
    }
    if (appendItself) {
        expected += expected;
        expected += expected.substr(0, kFormatLimit);
    }
    ExpectNoBlocksLeft([&] {
        MoxText text;
        text.AssignText(start.c_str());
        for (const Request& r : requests) {
            const char* format = r.format.c_str();
            if (&r == &requests.front() && replaceFirst)
                r.isText ? text.FormatText(format, r.text.c_str()) : text.FormatText(format, r.number);
            else
                r.isText ? AppendFormatted(text, format, r.text.c_str()) : AppendFormatted(text, format, r.number);
        }
        if (appendItself) {
            text.AppendText(text.GetText());
            AppendFormatted(text, "%s", text.GetText());
        }
        EXPECT_EQ(std::string(text.GetText()), expected);
        EXPECT_EQ(text.GetLength(), expected.size());
        EXPECT_EQ(text.length, expected.empty() ? text.length : expected.size() + 1);
        EXPECT_LE(text.length, text.capacity);
        EXPECT_TRUE(text.length == 0 || text.data[text.length - 1] == '\0');
    });
}

// COMHANDLER_SOAK_CASES, when set, is the count of each property; a run stops at the first failing case.
void RunSeeded(const char* property, std::uint32_t seed, std::size_t cases, void (*body)(TextGenerator&))
{
    if (const char* soak = std::getenv("COMHANDLER_SOAK_CASES"))
        cases = std::strtoull(soak, nullptr, 10) > 0 ? std::strtoull(soak, nullptr, 10) : cases;
    std::size_t index = 0;
    for (; index < cases && !testing::Test::HasFailure(); ++index) {
        SCOPED_TRACE(std::string(property) + " seed " + std::to_string(seed) + " case " + std::to_string(index));
        TextGenerator generator(seed, static_cast<std::uint32_t>(index));
        body(generator);
    }
    std::cout << "[ generated ] " << property << ": " << index << " cases" << std::endl;
}

TEST(GeneratedInputTest, IdentityTexts) { RunSeeded("IdentityTexts", 1101, 5600, IdentityTexts); }
TEST(GeneratedInputTest, MoxTextFormats) { RunSeeded("MoxTextFormats", 5101, 2100, MoxTextFormats); }

}  // namespace
