// Generated input for the parsers the host's texts reach: identity texts, tag
// texts and MoxText formats. Each property is a row:
// its seed, its number of cases (COMHANDLER_SOAK_CASES raises it) and its body;
// every case must leave no heap block behind.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cwctype>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "identity/com_identity.h"
#include "metaobj/scalar_items.h"
#include "tests/support/leak_check.h"
#include "tests/support/text_generator.h"
#include "text/mox_data.h"

using namespace MetaObj;
using textgen::Printable;
using textgen::TextGenerator;

namespace {

constexpr wchar_t kUntouched[] = L"untouched";
constexpr std::size_t kFormatLimit = 10240;  // what one MoxText format call adds at most

std::string Narrow(const CMetaString& text) { return text.GetNarrow() ? text.GetNarrow() : ""; }
std::wstring Wide(const CMetaString& text) { return text.IsEmpty() ? std::wstring() : text.GetWide(); }
std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

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

// Composed texts (parts that parse back as they are) parse into their parts;
// mutated ones split as documented; parse then print prints and parses the same.
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
    SCOPED_TRACE(Printable(text));
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
            EXPECT_EQ(split[1].find('?'), std::string::npos);
            EXPECT_EQ(text.compare(schemeEnd + 3, split[1].size(), split[1]), 0);
            for (std::size_t i = 2; i < split.size(); i += 2) {
                EXPECT_FALSE(split[i].empty());
                EXPECT_EQ(split[i].find_first_of("?="), std::string::npos);
                EXPECT_EQ(split[i + 1].find('?'), std::string::npos);
                EXPECT_EQ(Trimmed(split[i]), split[i]);
                EXPECT_EQ(Trimmed(split[i + 1]), split[i + 1]);
            }
            EXPECT_EQ(identity.IsComplete(), !split[0].empty() && !split[1].empty());
            CObjectIdentity again;  // what parse then print gives parses the same
            again.SetText(Compose(split));
            EXPECT_EQ(PartsOf(again), split);
        }
        if (composed) {
            EXPECT_EQ(PartsOf(identity), parts);
            for (std::size_t i = 2; i < parts.size(); i += 2) {  // the first of a name, in any case, is found
                const CIdentityAttribute* found = identity.FindAttribute(parts[i]);
                ASSERT_NE(found, nullptr);
                EXPECT_EQ(_stricmp(found->GetName().c_str(), parts[i].c_str()), 0);
            }
            identity.SetObjectName(parts[1]);
            identity.SetScheme(parts[0]);
            EXPECT_EQ(identity.GetText(), text);
        }
        CObjectIdentity narrow;
        narrow.SetText(text.c_str());
        EXPECT_EQ(narrow.GetText(), std::string(text.c_str()));
        const CCOMIdentity com(text.c_str(), 1);
        EXPECT_EQ(PartsOf(com), PartsOf(narrow));
        EXPECT_EQ(com.GetText(), narrow.GetText());
    });
}

// Made tags parse back where the narrow texts fit; mutated tags, narrow or wide,
// give values from the text or nothing.
void Tags(TextGenerator& gen)
{
    auto value = [&gen] {  // without the double quote that would end the value
        std::wstring v = gen.OneIn(3) ? gen.OddWide(60)
                                      : gen.From(std::wstring(L"abcXYZ_019.$# '>=<@-%"), 0, gen.OneIn(50) ? 12000 : 60);
        if (gen.OneIn(10))
            v.insert(gen.Below(v.size() + 1), gen.OneIn(2) ? L"scope=" : L"NAME=");
        std::replace(v.begin(), v.end(), L'"', L'\'');
        return v;
    };
    const std::wstring name = value(), scope = value();
    const bool made = gen.OneIn(2);
    const std::wstring quote = gen.OneIn(2) ? L"\"" : L"'";
    std::wstring tag = L"<@VARPARAM NAME=\"" + name + L"\" SCOPE=" + quote + scope + quote + L">";
    if (gen.OneIn(3))
        std::transform(tag.begin(), tag.begin() + 10, tag.begin(), [](wchar_t c) { return std::towlower(c); });
    if (!made)
        tag = gen.Mutate(gen.Mutate(tag, std::wstring(L"\"' >=<@\u0130\u212a\xe9\0", 12)), std::wstring(L"NAME=SCOPE="));
    SCOPED_TRACE(made ? "name " + Printable(name) + " scope " + Printable(scope) : Printable(tag));
    ExpectNoBlocksLeft([&] {
        CMetaObjectString item;
        CMetaString nameOut(kUntouched), scopeOut(kUntouched);
        if (made) {
            const std::string narrowName = Narrow(name.c_str()), narrowScope = Narrow(scope.c_str());
            EXPECT_TRUE(item.MakeVarParam(CMetaString(name.c_str()), CMetaString(scope.c_str())));
            EXPECT_TRUE(item.IsVarParam());
            const bool parsed = item.ParseVarParam(nameOut, scopeOut);
            if (Narrow(item.GetTagText()).size() >= kFormatLimit)
                return;
            if (Lower(narrowName).find("scope=") != std::string::npos) {
                EXPECT_TRUE(!parsed || Narrow(nameOut) == narrowName);
                return;
            }
            EXPECT_EQ(parsed, narrowName.size() <= kMaxVarParamText && narrowScope.size() <= kMaxVarParamText);
            EXPECT_EQ(Narrow(nameOut), parsed ? narrowName : "untouched");
            EXPECT_EQ(Narrow(scopeOut), parsed ? narrowScope : "untouched");
            return;
        }
        item.SetTagText(CMetaString(tag.c_str()));
        const char* narrow = item.GetTagText().GetNarrow();
        if (!item.ParseVarParam(nameOut, scopeOut) || !narrow) {  // a wide tag with no narrow form parses to nothing
            EXPECT_EQ(Wide(nameOut) + Wide(scopeOut), std::wstring(kUntouched) + kUntouched);
            return;
        }
        EXPECT_TRUE(item.IsVarParam());
        for (const CMetaString* out : {&nameOut, &scopeOut}) {
            if (Wide(*out) != kUntouched) {
                EXPECT_LE(Narrow(*out).size(), kMaxVarParamText);
                EXPECT_NE(std::string(narrow).find(Narrow(*out)), std::string::npos);
            }
        }
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

// Formats of one text or number conversion with literal text around it replace
// or follow the text before them, cut at the limit per call; the text appended
// to itself, plainly and through a format, reads its source from the storage
// that the append may move.
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
        const std::string conversion = r.isText ? gen.Pick(kTextConversions) : gen.Pick(kNumberConversions);
        r.number = static_cast<std::int32_t>(conversion == "%c" ? gen.Between(1, 255) : gen.Word());
        r.format = before + conversion + literal();
        expected += r.isText ? Expected(r.format.c_str(), r.text.c_str()) : Expected(r.format.c_str(), r.number);
    }
    if (appendItself) {
        expected += expected;
        expected += expected.substr(0, kFormatLimit);
    }
    SCOPED_TRACE(Printable(start, 40) + (replaceFirst ? " replaced by " : " then ") + std::to_string(requests.size()) +
                 " formats, the first " + Printable(requests.front().format, 80) + (appendItself ? ", itself" : ""));
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

// The properties. The README quotes the sum of their cases for the default run.
struct Property {
    const char* name;
    std::uint32_t seed;
    std::size_t cases;
    void (*body)(TextGenerator&);
};
void PrintTo(const Property& property, std::ostream* out) { *out << property.name; }

const Property kProperties[] = {
    {"IdentityTexts", 1101, 5600, IdentityTexts}, {"Tags", 2101, 5400, Tags},
    {"MoxTextFormats", 5101, 2100, MoxTextFormats},
};

std::size_t g_casesRun = 0;

class GeneratedInputTest : public testing::TestWithParam<Property> {
protected:
    static void TearDownTestSuite() { std::cout << "[ generated ] " << g_casesRun << " cases" << std::endl; }
};

TEST_P(GeneratedInputTest, HoldsForEverySeededCase)
{
    g_casesRun += textgen::ForEachCase(GetParam().seed, GetParam().cases, GetParam().body);
}

INSTANTIATE_TEST_SUITE_P(Seeded, GeneratedInputTest, testing::ValuesIn(kProperties),
                         [](const testing::TestParamInfo<Property>& info) { return std::string(info.param.name); });

}  // namespace
