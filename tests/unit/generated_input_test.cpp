// Generated input for the parsers the host's texts reach: identity texts, tag
// texts, signatures and type words, method keys and MoxText formats. Each
// property is a row: its seed, its number of cases (COMHANDLER_SOAK_CASES
// raises it) and its body; every case must leave no heap block behind.

#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cwchar>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "discovery/type_names.h"
#include "identity/com_identity.h"
#include "identity/object_identity.h"
#include "metaobj/scalar_items.h"
#include "tests/support/leak_check.h"
#include "tests/support/text_generator.h"
#include "text/meta_string.h"
#include "text/mox_data.h"

using namespace MetaObj;
using textgen::Printable;
using textgen::TextGenerator;

namespace {

constexpr wchar_t kUntouched[] = L"untouched";
constexpr std::size_t kFormatLimit = 10240;  // what one MoxText format call adds at most

std::string Narrow(const CMetaString& text)
{
    const char* narrow = text.GetNarrow();
    return narrow ? narrow : "";
}

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

std::string Trimmed(const std::string& text)
{
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    std::size_t begin = 0, end = text.size();
    while (begin < end && blank(text[begin]))
        ++begin;
    while (end > begin && blank(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

std::string Lower(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string RandomCase(TextGenerator& gen, std::string text)
{
    for (char& c : text) {
        if (gen.OneIn(2))
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// Identity texts

struct IdentityParts {
    std::string scheme, objectName;
    std::vector<std::pair<std::string, std::string>> attributes;
    bool operator==(const IdentityParts& o) const
    {
        return scheme == o.scheme && objectName == o.objectName && attributes == o.attributes;
    }
};

IdentityParts PartsOf(const CObjectIdentity& identity)
{
    IdentityParts parts{identity.GetScheme(), identity.GetObjectName(), {}};
    for (const CIdentityAttribute* attribute : identity.GetAttributes())
        parts.attributes.emplace_back(attribute->GetName(), attribute->GetValue());
    return parts;
}

std::string Compose(const IdentityParts& parts)
{
    std::string text = parts.scheme + "://" + parts.objectName;
    for (const auto& [name, value] : parts.attributes)
        text += "?" + name + "=" + value;
    return text;
}

bool HasDelimiter(const std::string& text)
{
    return text.find("://") != std::string::npos || text.find_first_of("?=") != std::string::npos;
}

// Parts that parse back as they are: a scheme without "://", no "?" after it,
// attribute names without "=" that keep nothing to trim.
IdentityParts RandomParts(TextGenerator& gen)
{
    IdentityParts parts;
    parts.scheme = gen.OneIn(3) ? "COM" : gen.From(std::string("COMcomX09+-._ :/?=\xe9"), 0, 12);
    for (std::size_t at; (at = parts.scheme.find("://")) != std::string::npos;)
        parts.scheme.erase(at, 1);
    parts.objectName = gen.From(std::string("Sample.Object{}-0123456789abcdef:/= \t\xe9\xff"), 0, gen.OneIn(10) ? 400 : 40);
    if (gen.OneIn(8))
        parts.objectName.insert(gen.Below(parts.objectName.size() + 1), 1, '\0');
    const std::size_t count = gen.OneIn(4) ? 0 : gen.Between(1, gen.OneIn(10) ? 60 : 5);
    for (std::size_t i = 0; i < count; ++i) {
        std::string name = Trimmed(gen.From(std::string("HostUserTypeLibDomain_x.:/{} \t\xa0"), 1, 12));
        std::string value = Trimmed(gen.From(std::string("alpha{}=://\\.- \t0123456789\x80\xff"), 0, gen.OneIn(20) ? 3000 : 16));
        if (i > 0 && gen.OneIn(5))  // repeated names are kept in order
            name = parts.attributes[gen.Below(i)].first;
        parts.attributes.emplace_back(name.empty() ? "n" : name, value);
    }
    return parts;
}

// What must hold for any text, as the documentation describes the split.
void ExpectIdentityInvariants(const CObjectIdentity& identity, const std::string& text)
{
    EXPECT_EQ(identity.GetText(), text);
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string::npos) {
        EXPECT_TRUE(identity.GetScheme().empty() && identity.GetObjectName().empty() &&
                    identity.GetBaseText().empty() && identity.GetAttributes().empty());
        EXPECT_FALSE(identity.IsComplete());
        return;
    }
    EXPECT_EQ(identity.GetScheme(), text.substr(0, schemeEnd));
    EXPECT_EQ(identity.GetBaseText(), text.substr(0, text.find('?')));
    const std::string& objectName = identity.GetObjectName();
    EXPECT_EQ(objectName.find('?'), std::string::npos);
    EXPECT_EQ(text.compare(schemeEnd + 3, objectName.size(), objectName), 0);
    EXPECT_LE(identity.GetAttributes().size(), static_cast<std::size_t>(std::count(text.begin() + schemeEnd, text.end(), '?')));
    for (const CIdentityAttribute* attribute : identity.GetAttributes()) {
        const std::string& name = attribute->GetName();
        const std::string& value = attribute->GetValue();
        EXPECT_FALSE(name.empty());
        EXPECT_EQ(name.find_first_of("?="), std::string::npos);
        EXPECT_EQ(value.find('?'), std::string::npos);
        EXPECT_EQ(Trimmed(name), name);
        EXPECT_EQ(Trimmed(value), value);
    }
    EXPECT_EQ(identity.IsComplete(), !identity.GetScheme().empty() && !objectName.empty());
}

// Composed texts parse into their parts; mutated ones split as documented; and
// what parse then print gives prints and parses the same again.
void IdentityTexts(TextGenerator& gen)
{
    const IdentityParts parts = RandomParts(gen);
    const bool composed = gen.OneIn(2);
    std::string text = Compose(parts);
    if (!composed)
        text = gen.Mutate(gen.OneIn(5) ? gen.OddNarrow(80) : text, std::string("?=:/ \t{}\"'\0", 11));
    SCOPED_TRACE(Printable(text));
    ExpectNoBlocksLeft([&] {
        CObjectIdentity identity;
        identity.SetText(text);
        ExpectIdentityInvariants(identity, text);
        if (composed) {
            EXPECT_TRUE(PartsOf(identity) == parts);
            for (const auto& attribute : parts.attributes) {  // the first of a name, in any case, is found
                const CIdentityAttribute* found = identity.FindAttribute(attribute.first);
                ASSERT_NE(found, nullptr);
                EXPECT_EQ(_stricmp(found->GetName().c_str(), attribute.first.c_str()), 0);
            }
            identity.SetObjectName(parts.objectName);
            identity.SetScheme(parts.scheme);
            EXPECT_EQ(identity.GetText(), text);
        }
        if (text.find("://") != std::string::npos) {
            const std::string printed = Compose(PartsOf(identity));
            CObjectIdentity again;
            again.SetText(printed);
            EXPECT_TRUE(PartsOf(again) == PartsOf(identity)) << Printable(printed);
            EXPECT_EQ(again.GetText(), printed);
            if (!HasDelimiter(identity.GetObjectName())) {
                identity.SetObjectName(std::string(identity.GetObjectName()));
                EXPECT_EQ(identity.GetText(), printed);
            }
        }
        // The narrow entry reads up to the first NUL, as does the COM identity's.
        CObjectIdentity narrow;
        narrow.SetText(text.c_str());
        ExpectIdentityInvariants(narrow, std::string(text.c_str()));
        const CCOMIdentity com(text.c_str(), 1);
        EXPECT_TRUE(PartsOf(com) == PartsOf(narrow));
        EXPECT_EQ(com.GetText(), narrow.GetText());
    });
}

// Tag texts

// Made tags parse back where the narrow texts fit.
void MadeTags(TextGenerator& gen)
{
    auto value = [&gen] {  // without the double quote that would end the value
        std::wstring v = gen.OneIn(3) ? gen.OddWide(60) : gen.From(std::wstring(L"abcXYZ_019.$# '>=<@-%"), 0, gen.OneIn(50) ? 12000 : 60);
        if (gen.OneIn(10))
            v.insert(gen.Below(v.size() + 1), gen.OneIn(2) ? L"scope=" : L"NAME=");
        std::replace(v.begin(), v.end(), L'"', L'\'');
        return v;
    };
    const std::wstring name = value(), scope = value();
    SCOPED_TRACE("name " + Printable(name) + " scope " + Printable(scope));
    ExpectNoBlocksLeft([&] {
        // The tag carries the narrow forms; a text the conversion refuses goes as empty.
        const std::string narrowName = Narrow(CMetaString(name.c_str()));
        const std::string narrowScope = Narrow(CMetaString(scope.c_str()));
        CMetaObjectString item;
        EXPECT_TRUE(item.MakeVarParam(CMetaString(name.c_str()), CMetaString(scope.c_str())));
        EXPECT_TRUE(item.IsVarParam());
        CMetaString nameOut(kUntouched), scopeOut(kUntouched);
        const bool parsed = item.ParseVarParam(nameOut, scopeOut);
        // A value cut off at the format limit has no end: a missing scope is then no failure.
        if (Narrow(item.GetTagText()).size() >= kFormatLimit)
            return;
        // SCOPE= is searched as a plain substring: a name that holds it moves the scope.
        if (Lower(narrowName).find("scope=") != std::string::npos) {
            if (parsed) {
                EXPECT_EQ(Narrow(nameOut), narrowName);
            }
            return;
        }
        EXPECT_EQ(parsed, narrowName.size() <= kMaxVarParamText && narrowScope.size() <= kMaxVarParamText);
        EXPECT_EQ(Narrow(nameOut), parsed ? narrowName : "untouched");
        EXPECT_EQ(Narrow(scopeOut), parsed ? narrowScope : "untouched");
    });
}

// Mutated tags, narrow or wide, give values from the text or nothing; a wide
// tag with no narrow form parses to nothing.
void MutatedTags(TextGenerator& gen)
{
    CMetaString text;
    if (gen.OneIn(3)) {
        const std::wstring wide = L"<@VARPARAM NAME=\"" + gen.OddWide(40) + L"\" SCOPE=\"" + gen.OddWide(40) + L"\">";
        text = CMetaString(gen.Mutate(wide, std::wstring(L"\"' >=<@\u0130\u212a\xe9")).c_str());
    } else {
        const std::string value = "abcXYZ_019.$#-";
        std::string narrow = RandomCase(gen, "<@VARPARAM NAME=\"") + gen.From(value, 0, 30) + "\" " +
                             RandomCase(gen, "SCOPE='") + gen.From(value, 0, 30) + "'>";
        narrow = gen.Mutate(narrow, std::string("\"' >=<@\0", 8));
        if (gen.OneIn(4))
            narrow = gen.Mutate(narrow, std::string("NAME=SCOPE="));
        text = CMetaString(narrow.c_str());
    }
    SCOPED_TRACE(Printable(Wide(text)));
    ExpectNoBlocksLeft([&] {
        CMetaObjectString item;
        item.SetTagText(text);
        const char* tag = item.GetTagText().GetNarrow();
        CMetaString nameOut(kUntouched), scopeOut(kUntouched);
        const bool parsed = item.ParseVarParam(nameOut, scopeOut);
        if (!parsed || !tag) {
            EXPECT_FALSE(parsed);
            EXPECT_EQ(Wide(nameOut), kUntouched);
            EXPECT_EQ(Wide(scopeOut), kUntouched);
            return;
        }
        EXPECT_TRUE(item.IsVarParam());
        for (const CMetaString* value : {&nameOut, &scopeOut}) {
            if (Wide(*value) == kUntouched)
                continue;
            EXPECT_LE(Narrow(*value).size(), kMaxVarParamText);
            EXPECT_NE(std::string(tag).find(Narrow(*value)), std::string::npos);
        }
    });
}

// Signatures and type words

struct SignatureRow {
    const wchar_t* signature;
    VARTYPE vt;  // what the signature reads back as
};

constexpr SignatureRow kSignatures[] = {
    {L"VT_I2", VT_I2},           {L"VT_I4", VT_I4},         {L"VT_R4", VT_R4},           {L"VT_R8", VT_R8},
    {L"VT_CY", VT_CY},           {L"VT_DATE", VT_DATE},     {L"VT_BSTR", VT_BSTR},       {L"VT_DISPATCH", VT_DISPATCH},
    {L"VT_ERROR", VT_ERROR},     {L"VT_BOOL", VT_BOOL},     {L"VT_VARIANT", VT_VARIANT}, {L"VT_UNKNOWN", VT_UNKNOWN},
    {L"VT_DECIMAL", VT_DECIMAL}, {L"VT_I1", VT_I1},         {L"VT_UI1", VT_UI1},         {L"VT_UI2", VT_UI2},
    {L"VT_UI4", VT_UI4},         {L"VT_I8", VT_I8},         {L"VT_UI8", VT_UI8},         {L"VT_INT", VT_INT},
    {L"VT_UINT", VT_UINT},       {L"VT_VOID", VT_VOID},     {L"VT_HRESULT", VT_HRESULT}, {L"VT_LPSTR", VT_LPSTR},
    {L"VT_LPWSTR", VT_LPWSTR},   {L"VT_RECORD", VT_RECORD}, {L"VT_BYREF", VT_DISPATCH},
};

const SignatureRow* SignatureRowOf(const std::wstring& text)
{
    for (const SignatureRow& row : kSignatures) {
        if (text == row.signature)
            return &row;
    }
    return nullptr;
}

// Type chains print within the limit and read back.
void TypeChains(TextGenerator& gen)
{
    // Innermost first; the leaf is any 16-bit type, table types more often. A
    // pointer or array as the leaf has no target and prints as the default.
    // Some chains are deeper than a thread's stack has room for frames.
    std::vector<TYPEDESC> chain(gen.OneIn(100) ? gen.Between(100000, 300000) : gen.Between(1, 16));
    chain.front().vt = gen.OneIn(2) ? gen.Pick(kSignatures).vt : static_cast<VARTYPE>(gen.Word());
    chain.front().lptdesc = nullptr;
    std::wstring expected = L"VT_BYREF";  // for leaves without a row of their own
    for (const SignatureRow& row : kSignatures) {
        if (row.vt == chain.front().vt && std::wcscmp(row.signature, L"VT_BYREF") != 0) {
            expected = row.signature;
            break;
        }
    }
    for (std::size_t i = 1; i < chain.size(); ++i) {
        chain[i].vt = gen.OneIn(2) ? VT_PTR : VT_SAFEARRAY;
        chain[i].lptdesc = &chain[i - 1];
        expected += chain[i].vt == VT_PTR ? L"|VT_PTR" : L"|VT_ARRAY";
    }
    expected.resize(std::min(expected.size(), kSignatureChars - 1));
    const TYPEDESC& outer = chain.back();
    SCOPED_TRACE(Printable(expected) + " depth " + std::to_string(chain.size()));
    ExpectNoBlocksLeft([&] {
        EXPECT_EQ(Wide(TypeSignatureText(&outer)), expected);
        const SignatureRow* row = SignatureRowOf(expected.substr(0, expected.find(L'|')));
        ASSERT_NE(row, nullptr);
        EXPECT_EQ(VarTypeFromSignature(expected.c_str()), row->vt | (chain.size() > 1 ? VT_BYREF : 0));
        CTypeDesc built;  // without type information: unresolved, with the same signature
        EXPECT_FALSE(BuildTypeDesc(built, nullptr, &outer));
        EXPECT_EQ(built.type, MetaTypeObject);
        EXPECT_EQ(Wide(built.signature), expected);
    });
}

// Mutated signatures read as their word before the bar.
void MutatedSignatures(TextGenerator& gen)
{
    std::wstring text = gen.Pick(kSignatures).signature;
    for (std::size_t i = gen.Below(4); i > 0; --i)
        text += gen.OneIn(2) ? L"|VT_PTR" : L"|VT_ARRAY";
    text = gen.OneIn(6) ? gen.OddWide(80) : gen.Mutate(text, std::wstring(L"|_VTvtIPRA \0", 12));
    SCOPED_TRACE(Printable(text));
    // Read as a C text, and no further than a signature may go.
    const std::wstring head = std::wstring(text.c_str()).substr(0, kSignatureChars - 1);
    const std::size_t bar = head.find(L'|');
    const SignatureRow* row = SignatureRowOf(head.substr(0, bar));
    const VARTYPE expected = row ? row->vt | (bar != std::wstring::npos ? VT_BYREF : 0) : VT_VOID;
    ExpectNoBlocksLeft([&] { EXPECT_EQ(VarTypeFromSignature(text.c_str()), expected); });
}

// Method keys

constexpr const wchar_t* kKindPrefixes[] = {L"Invoke:", L"Get:", L"Set:", L"Setref:"};

std::wstring RandomMemberName(TextGenerator& gen)
{
    std::wstring name = gen.OneIn(3) ? gen.OddWide(40) : gen.From(std::wstring(L"abcXYZ_019:"), 0, 30);
    if (gen.OneIn(20))
        name.append(gen.Between(500, 1000), L'n');
    return std::wstring(name.c_str());
}

// Made keys split into their name and kind (kinds beyond the four are made as
// Invoke); any key splits at its first colon into a name and kind that make a
// key that splits the same.
void MethodKeys(TextGenerator& gen)
{
    const std::wstring member = RandomMemberName(gen);
    const std::uint32_t madeKind = gen.OneIn(5) ? gen.Word() : static_cast<std::uint32_t>(gen.Below(4));
    static const char* const kPrefixes[] = {"Invoke", "Get", "Set", "Setref", "", "Put", "GetX", "SetRef "};
    const std::string prefix = RandomCase(gen, gen.Pick(kPrefixes));
    std::wstring key = std::wstring(prefix.begin(), prefix.end()) + L":" + RandomMemberName(gen);
    if (gen.OneIn(2))
        key = gen.Mutate(key, std::wstring(L": \u0130\u212a\xe9\0", 6));
    key = std::wstring(key.c_str());
    SCOPED_TRACE(Printable(member) + " kind " + std::to_string(madeKind) + " key " + Printable(key));
    const std::size_t colon = key.find(L':');
    ExpectNoBlocksLeft([&] {
        CMetaString made, name(kUntouched);
        MethodKind kind = MethodKindSetRef;
        MakeMethodKey(made, CMetaString(member.c_str()), static_cast<MethodKind>(madeKind));
        EXPECT_EQ(Wide(made), (madeKind < 4 ? kKindPrefixes[madeKind] : L"Invoke:") + member);
        SplitMethodKey(made, name, kind);
        EXPECT_EQ(Wide(name), member);
        EXPECT_EQ(kind, madeKind < 4 ? madeKind : MethodKindInvoke);

        name = CMetaString(kUntouched);
        kind = MethodKindSetRef;
        SplitMethodKey(CMetaString(key.c_str()), name, kind);
        if (colon == std::wstring::npos) {
            EXPECT_EQ(Wide(name), kUntouched);
            EXPECT_EQ(kind, MethodKindInvoke);
            return;
        }
        EXPECT_EQ(Wide(name), key.substr(colon + 1));
        const std::wstring head = key.substr(0, colon);
        if (std::all_of(head.begin(), head.end(), [](wchar_t c) { return c < 0x80; })) {
            const std::string lower = Lower(std::string(head.begin(), head.end()));
            EXPECT_EQ(kind, lower == "get"      ? MethodKindGet
                            : lower == "set"    ? MethodKindSet
                            : lower == "setref" ? MethodKindSetRef
                                                : MethodKindInvoke);
        }
        MakeMethodKey(made, name, kind);
        CMetaString again(kUntouched);
        MethodKind againKind = MethodKindSetRef;
        SplitMethodKey(made, again, againKind);
        EXPECT_EQ(Wide(again), Wide(name));
        EXPECT_EQ(againKind, kind);
        if (key.compare(0, colon + 1, kKindPrefixes[kind]) == 0) {
            EXPECT_EQ(Wide(made), key);
        }
    });
}

// MoxText format requests

// A format with one text or number conversion and literal text around it,
// as the run-time formats it, cut at the limit of one call.
struct FormatRequest {
    std::string format, text;
    bool isText = false;
    std::int32_t number = 0;
};

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

FormatRequest RandomFormat(TextGenerator& gen)
{
    static const char* const kTextConversions[] = {"%s", "%-12s", "%.3s", "%40s", "%20000s", "%.0s"};
    static const char* const kNumberConversions[] = {"%d", "%ld", "%i", "%u", "%x", "%X", "%08x", "%-9d", "%+d", "%o",
                                                     "%15000d", "%c", ""};
    const auto literal = [&gen] {
        std::string escaped;
        for (char c : gen.OddNarrow(gen.OneIn(10) ? 12000 : 20))
            escaped += c == '%' ? std::string("%%") : std::string(1, c);
        return escaped;
    };
    FormatRequest request;
    const std::string before = literal();
    request.isText = gen.OneIn(2);
    if (request.isText)
        request.text = gen.OneIn(8) ? std::string(gen.Between(9000, 30000), 'w') : gen.OddNarrow(40);
    const std::string conversion = request.isText ? gen.Pick(kTextConversions) : gen.Pick(kNumberConversions);
    request.number = static_cast<std::int32_t>(conversion == "%c" ? gen.Between(1, 255) : gen.Word());
    request.format = before + conversion + literal();
    return request;
}

// Formats replace or follow the text before them, cut at the limit per call;
// the text appended to itself, plainly and through a format, reads its source
// from the storage that the append may move.
void MoxTextFormats(TextGenerator& gen)
{
    const std::string start = gen.OneIn(3) ? std::string() : gen.OddNarrow(gen.OneIn(5) ? 5000 : 30);
    std::vector<FormatRequest> requests(gen.Between(1, 4));
    const bool replaceFirst = gen.OneIn(2);
    std::string expected = replaceFirst ? std::string() : start;
    for (FormatRequest& r : requests) {
        r = RandomFormat(gen);
        expected += r.isText ? Expected(r.format.c_str(), r.text.c_str()) : Expected(r.format.c_str(), r.number);
    }
    const bool appendItself = gen.OneIn(3);
    if (appendItself) {
        expected += expected;
        expected += expected.substr(0, kFormatLimit);
    }
    SCOPED_TRACE(Printable(start, 40) + (replaceFirst ? " replaced by " : " then ") + std::to_string(requests.size()) +
                 " formats, the first " + Printable(requests.front().format, 80) + (appendItself ? ", then itself" : ""));
    ExpectNoBlocksLeft([&] {
        MoxText text;
        text.AssignText(start.c_str());
        for (const FormatRequest& r : requests) {
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

void PrintTo(const Property& property, std::ostream* out)
{
    *out << property.name;
}

const Property kProperties[] = {
    {"IdentityTexts", 1101, 5600, IdentityTexts},
    {"MadeTags", 2101, 2000, MadeTags},                {"MutatedTags", 2103, 3400, MutatedTags},          {"TypeChains", 3101, 1500, TypeChains},
    {"MutatedSignatures", 3102, 4000, MutatedSignatures},
    {"MethodKeys", 4101, 5500, MethodKeys},
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
