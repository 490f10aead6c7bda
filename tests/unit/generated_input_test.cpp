// Generated input for the parsers the host's texts reach: identity texts, tag
// texts, signatures, method keys and MoxText formats. Each property is a row:
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

#include "discovery/type_names.h"
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
        // The narrow entry reads up to the first NUL, as does the COM identity's.
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
            // The tag carries the narrow forms; a text the conversion refuses goes as empty.
            const std::string narrowName = Narrow(name.c_str()), narrowScope = Narrow(scope.c_str());
            EXPECT_TRUE(item.MakeVarParam(CMetaString(name.c_str()), CMetaString(scope.c_str())));
            EXPECT_TRUE(item.IsVarParam());
            const bool parsed = item.ParseVarParam(nameOut, scopeOut);
            // A value cut at the format limit has no end; SCOPE= is searched as a
            // plain substring, so a name that holds it moves the scope.
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

constexpr const wchar_t* kSignatures[] = {
    L"VT_I2",   L"VT_I4",    L"VT_R4",   L"VT_R8",    L"VT_CY",   L"VT_DATE",    L"VT_BSTR",  L"VT_DISPATCH",
    L"VT_ERROR", L"VT_BOOL", L"VT_VARIANT", L"VT_UNKNOWN", L"VT_DECIMAL", L"VT_I1", L"VT_UI1", L"VT_UI2",
    L"VT_UI4",  L"VT_I8",    L"VT_UI8",  L"VT_INT",   L"VT_UINT", L"VT_VOID",    L"VT_HRESULT", L"VT_LPSTR",
    L"VT_LPWSTR", L"VT_RECORD",
};
constexpr VARTYPE kSignatureTypes[] = {VT_I2,   VT_I4,   VT_R4,   VT_R8,   VT_CY,   VT_DATE,    VT_BSTR,  VT_DISPATCH,
                                       VT_ERROR, VT_BOOL, VT_VARIANT, VT_UNKNOWN, VT_DECIMAL, VT_I1, VT_UI1, VT_UI2,
                                       VT_UI4,  VT_I8,   VT_UI8,  VT_INT,  VT_UINT, VT_VOID,    VT_HRESULT, VT_LPSTR,
                                       VT_LPWSTR, VT_RECORD};

// The type a signature's first word names (VT_BYREF stands for VT_DISPATCH), or VT_ILLEGAL.
VARTYPE TypeOfWord(const std::wstring& word)
{
    if (word == L"VT_BYREF")
        return VT_DISPATCH;
    for (std::size_t i = 0; i < std::size(kSignatures); ++i) {
        if (word == kSignatures[i])
            return kSignatureTypes[i];
    }
    return VT_ILLEGAL;
}

// Type chains print within the limit and read back; some are deeper than a
// thread's stack has room for frames. Mutated signatures read as their word before the bar.
void Signatures(TextGenerator& gen)
{
    std::vector<TYPEDESC> chain(gen.OneIn(400) ? gen.Between(100000, 300000) : gen.Between(1, 16));
    const std::size_t row = gen.Below(std::size(kSignatures));
    chain.front() = {};
    chain.front().vt = gen.OneIn(2) ? kSignatureTypes[row] : static_cast<VARTYPE>(gen.Word());
    std::wstring expected = L"VT_BYREF";  // for leaves without a row of their own, pointers and arrays too
    for (std::size_t i = 0; i < std::size(kSignatures); ++i) {
        if (kSignatureTypes[i] == chain.front().vt) {
            expected = kSignatures[i];
            break;
        }
    }
    for (std::size_t i = 1; i < chain.size(); ++i) {
        chain[i].vt = gen.OneIn(2) ? VT_PTR : VT_SAFEARRAY;
        chain[i].lptdesc = &chain[i - 1];
        expected += chain[i].vt == VT_PTR ? L"|VT_PTR" : L"|VT_ARRAY";
    }
    expected.resize(std::min(expected.size(), kSignatureChars - 1));
    const std::wstring specials(L"|_VTvtIPRA \0", 12);
    const std::wstring mutated = gen.OneIn(6) ? gen.OddWide(80) : gen.Mutate(expected.substr(0, 60), specials);
    SCOPED_TRACE(Printable(expected) + " depth " + std::to_string(chain.size()) + " mutated " + Printable(mutated));
    // Read as a C text, and no further than a signature may go.
    const std::wstring head = std::wstring(mutated.c_str()).substr(0, kSignatureChars - 1);
    const VARTYPE word = TypeOfWord(head.substr(0, head.find(L'|')));
    ExpectNoBlocksLeft([&] {
        EXPECT_EQ(Wide(TypeSignatureText(&chain.back())), expected);
        EXPECT_EQ(VarTypeFromSignature(expected.c_str()),
                  TypeOfWord(expected.substr(0, expected.find(L'|'))) | (chain.size() > 1 ? VT_BYREF : 0));
        CTypeDesc built;  // without type information: unresolved, with the same signature
        EXPECT_FALSE(BuildTypeDesc(built, nullptr, &chain.back()));
        EXPECT_EQ(built.type, MetaTypeObject);
        EXPECT_EQ(Wide(built.signature), expected);
        EXPECT_EQ(VarTypeFromSignature(mutated.c_str()),
                  word == VT_ILLEGAL ? VT_VOID : word | (head.find(L'|') != std::wstring::npos ? VT_BYREF : 0));
    });
}

// Made keys split into their name and kind (kinds beyond the four are made as
// Invoke); any key splits at its first colon into a name and kind that make a
// key that splits the same.
void MethodKeys(TextGenerator& gen)
{
    static const wchar_t* const kKinds[] = {L"Invoke:", L"Get:", L"Set:", L"Setref:"};
    static const wchar_t* const kHeads[] = {L"Invoke", L"get", L"SET", L"SetRef", L"", L"Put", L"GetX", L"SetRef "};
    auto member = [&gen] {
        std::wstring name = gen.OneIn(3) ? gen.OddWide(40) : gen.From(std::wstring(L"abcXYZ_019:"), 0, 30);
        return std::wstring(name.append(gen.OneIn(20) ? gen.Between(500, 1000) : 0, L'n').c_str());
    };
    const std::wstring name = member();
    const std::uint32_t madeKind = gen.OneIn(5) ? gen.Word() : static_cast<std::uint32_t>(gen.Below(4));
    std::wstring key = gen.Pick(kHeads) + (L":" + member());
    key = (gen.OneIn(2) ? gen.Mutate(key, std::wstring(L": \u0130\u212a\xe9\0", 6)) : key).c_str();
    SCOPED_TRACE(Printable(name) + " kind " + std::to_string(madeKind) + " key " + Printable(key));
    const std::size_t colon = key.find(L':');
    ExpectNoBlocksLeft([&] {
        CMetaString made, nameOut(kUntouched);
        MethodKind kind = MethodKindSetRef;
        MakeMethodKey(made, CMetaString(name.c_str()), static_cast<MethodKind>(madeKind));
        EXPECT_EQ(Wide(made), kKinds[madeKind < 4 ? madeKind : 0] + name);
        SplitMethodKey(made, nameOut, kind);
        EXPECT_EQ(Wide(nameOut), name);
        EXPECT_EQ(kind, madeKind < 4 ? madeKind : MethodKindInvoke);

        nameOut = CMetaString(kUntouched);
        kind = MethodKindSetRef;
        SplitMethodKey(CMetaString(key.c_str()), nameOut, kind);
        if (colon == std::wstring::npos) {
            EXPECT_EQ(Wide(nameOut), kUntouched);
            EXPECT_EQ(kind, MethodKindInvoke);
            return;
        }
        EXPECT_EQ(Wide(nameOut), key.substr(colon + 1));
        const std::wstring head = key.substr(0, colon);
        if (std::all_of(head.begin(), head.end(), [](wchar_t c) { return c < 0x80; })) {
            const std::string lower = Lower(std::string(head.begin(), head.end()));
            EXPECT_EQ(kind, lower == "get" ? MethodKindGet : lower == "set" ? MethodKindSet
                            : lower == "setref" ? MethodKindSetRef : MethodKindInvoke);
        }
        MakeMethodKey(made, nameOut, kind);  // made keys split back, as above
        EXPECT_TRUE(key.compare(0, colon + 1, kKinds[kind]) != 0 || Wide(made) == key);
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
    {"Signatures", 3101, 5500, Signatures},       {"MethodKeys", 4101, 5500, MethodKeys},
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
