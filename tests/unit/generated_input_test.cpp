// Generated input for the parsers the host's texts reach: identity texts, tag
// texts, signatures and type words, method keys and MoxText formats. Each
// property runs a fixed number of seeded cases (COMHANDLER_SOAK_CASES raises
// it); every case must leave no heap block behind.

#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "discovery/type_names.h"
#include "identity/com_identity.h"
#include "identity/object_identity.h"
#include "metaobj/scalar_items.h"
#include "platform/platform_handles.h"
#include "tests/support/leak_check.h"
#include "tests/support/text_generator.h"
#include "text/meta_string.h"
#include "text/mox_data.h"

using namespace MetaObj;
using textgen::Printable;
using textgen::TextGenerator;

namespace {

std::size_t g_casesRun = 0;

// The README quotes this figure for the default run.
class GeneratedCaseCount : public ::testing::Environment {
public:
    void TearDown() override
    {
        if (g_casesRun != 0)
            std::cout << "[ generated ] " << g_casesRun << " cases" << std::endl;
    }
};
::testing::Environment* const kCaseCountReport = ::testing::AddGlobalTestEnvironment(new GeneratedCaseCount);

// Counted apart from the assertion, whose message would otherwise print the whole case.
template <typename Scenario>
void ExpectNoBlocksLeft(Scenario scenario)
{
    const long left = BlocksLeftBy(scenario);
    EXPECT_EQ(left, 0) << "heap blocks left behind by the case";
}

template <typename Body>
void RunCases(std::uint32_t seed, std::size_t defaultCount, Body body)
{
    g_casesRun += textgen::ForEachCase(seed, defaultCount, body);
}

std::string Narrow(const CMetaString& text)
{
    const char* narrow = text.GetNarrow();
    return narrow ? narrow : "";
}

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string Trimmed(const std::string& text)
{
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && IsSpace(text[begin]))
        ++begin;
    while (end > begin && IsSpace(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

bool ContainsNoCase(std::string text, std::string wanted)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (char& c : wanted)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text.find(wanted) != std::string::npos;
}

// Identity texts

struct IdentityParts {
    std::string scheme;
    std::string objectName;
    std::vector<std::pair<std::string, std::string>> attributes;
    bool operator==(const IdentityParts& other) const
    {
        return scheme == other.scheme && objectName == other.objectName && attributes == other.attributes;
    }
};

IdentityParts PartsOf(const CObjectIdentity& identity)
{
    IdentityParts parts{identity.GetScheme(), identity.GetObjectName(), {}};
    for (const CIdentityAttribute* attribute : identity.GetAttributes())
        parts.attributes.emplace_back(attribute->GetName(), attribute->GetValue());
    return parts;
}

// The documented print form.
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
    static const std::string kSchemeChars = "COMcomX09+-._ :/?=\xe9";
    static const std::string kNameChars = "Sample.Object{}-0123456789abcdef:/= \t\xe9\xff";
    static const std::string kAttributeChars = "HostUserTypeLibDomain_x.:/{} \t\xa0";
    static const std::string kValueChars = "alpha{}=://\\.- \t0123456789\x80\xff";
    IdentityParts parts;
    parts.scheme = gen.OneIn(3) ? "COM" : gen.From(kSchemeChars, 0, 12);
    for (std::size_t at; (at = parts.scheme.find("://")) != std::string::npos;)
        parts.scheme.erase(at, 1);
    parts.objectName = gen.From(kNameChars, 0, gen.OneIn(10) ? 400 : 40);
    if (gen.OneIn(8))
        parts.objectName.insert(gen.Below(parts.objectName.size() + 1), 1, '\0');
    const std::size_t count = gen.OneIn(4) ? 0 : gen.Between(1, gen.OneIn(10) ? 60 : 5);
    for (std::size_t i = 0; i < count; ++i) {
        std::string name = Trimmed(gen.From(kAttributeChars, 1, 12));
        if (name.empty())
            name = "n";
        std::string value = Trimmed(gen.From(kValueChars, 0, gen.OneIn(20) ? 3000 : 16));
        // Repeated names, in other cases, are kept in order.
        if (i > 0 && gen.OneIn(5))
            name = parts.attributes[gen.Below(i)].first;
        parts.attributes.emplace_back(name, value);
    }
    return parts;
}

// What must hold for any text, as the documentation describes the split.
void ExpectIdentityInvariants(const CObjectIdentity& identity, const std::string& text)
{
    EXPECT_EQ(identity.GetText(), text);
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string::npos) {
        EXPECT_TRUE(identity.GetScheme().empty());
        EXPECT_TRUE(identity.GetObjectName().empty());
        EXPECT_TRUE(identity.GetBaseText().empty());
        EXPECT_TRUE(identity.GetAttributes().empty());
        EXPECT_FALSE(identity.IsComplete());
        return;
    }
    EXPECT_EQ(identity.GetScheme(), text.substr(0, schemeEnd));
    EXPECT_EQ(identity.GetBaseText(), text.substr(0, text.find('?')));
    const std::string& objectName = identity.GetObjectName();
    EXPECT_EQ(objectName.find('?'), std::string::npos);
    EXPECT_EQ(text.compare(schemeEnd + 3, objectName.size(), objectName), 0);
    std::size_t marks = 0;
    for (std::size_t at = schemeEnd + 3; (at = text.find('?', at)) != std::string::npos; ++at)
        ++marks;
    EXPECT_LE(identity.GetAttributes().size(), marks);
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

TEST(GeneratedIdentityTest, ComposedTextsParseIntoTheirPartsAndPrintBack)
{
    RunCases(1101, 2000, [](TextGenerator& gen) {
        const IdentityParts parts = RandomParts(gen);
        const std::string text = Compose(parts);
        SCOPED_TRACE(Printable(text));
        ExpectNoBlocksLeft([&] {
            CObjectIdentity identity;
            identity.SetText(text);
            ExpectIdentityInvariants(identity, text);
            EXPECT_TRUE(PartsOf(identity) == parts);
            // The first attribute of a name, in any case, is the one found.
            for (std::size_t i = 0; i < parts.attributes.size(); ++i) {
                const CIdentityAttribute* found = identity.FindAttribute(parts.attributes[i].first);
                ASSERT_NE(found, nullptr);
                EXPECT_EQ(_stricmp(found->GetName().c_str(), parts.attributes[i].first.c_str()), 0);
            }
            // Setting a part to itself rebuilds the same text, where the part is accepted.
            identity.SetObjectName(parts.objectName);
            EXPECT_EQ(identity.GetText(), text);
            identity.SetScheme(parts.scheme);
            EXPECT_EQ(identity.GetText(), text);
        });
    });
}

TEST(GeneratedIdentityTest, HostileTextsSplitAsDocumentedAndPrintToAFixedPoint)
{
    static const std::string kSpecials = std::string("?=:/ \t{}\"'", 10) + std::string(1, '\0');
    RunCases(1102, 2000, [](TextGenerator& gen) {
        std::string text = gen.OneIn(5) ? gen.OddNarrow(80) : Compose(RandomParts(gen));
        text = gen.Mutate(text, kSpecials);
        SCOPED_TRACE(Printable(text));
        ExpectNoBlocksLeft([&] {
            CObjectIdentity identity;
            identity.SetText(text);
            ExpectIdentityInvariants(identity, text);

            // What parse then print gives is printed and parsed the same again:
            // dropped pairs and trimmed blanks stay away, nothing else changes.
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
            const std::string cut(text.c_str());
            CObjectIdentity narrow;
            narrow.SetText(text.c_str());
            ExpectIdentityInvariants(narrow, cut);
            const CCOMIdentity com(text.c_str(), 1);
            EXPECT_TRUE(PartsOf(com) == PartsOf(narrow));
            EXPECT_EQ(com.GetText(), narrow.GetText());
        });
    });
}

TEST(GeneratedIdentityTest, BareObjectNamesGiveComIdentitiesOrAreRefused)
{
    static const char* const kNames[] = {"Scripting.Dictionary", "VBScript.RegExp",
                                         "0002DF01-0000-0000-C000-000000000046", "x"};
    static const std::string kSpecials = "?=:/.{}- ";
    RunCases(1103, 1000, [](TextGenerator& gen) {
        const std::string raw = gen.Mutate(std::string(gen.Pick(kNames)), kSpecials);
        const std::string name(raw.c_str());
        SCOPED_TRACE(Printable(raw));
        ExpectNoBlocksLeft([&] {
            const CCOMIdentity identity(raw.c_str(), 0);
            EXPECT_EQ(identity.GetScheme(), "COM");
            if (HasDelimiter(name)) {
                EXPECT_EQ(identity.GetText(), "COM://");
                EXPECT_FALSE(identity.IsComplete());
                return;
            }
            EXPECT_EQ(identity.GetText(), "COM://" + name);
            EXPECT_EQ(identity.GetObjectName(), name);
            EXPECT_EQ(identity.IsComplete(), !name.empty());
            EXPECT_EQ(identity.IsClassIdName(), name.size() == 36 && name.find('.') == std::string::npos);
        });
    });
}

GUID RandomGuid(TextGenerator& gen)
{
    GUID guid;
    guid.Data1 = gen.Word();
    guid.Data2 = static_cast<unsigned short>(gen.Word());
    guid.Data3 = static_cast<unsigned short>(gen.Word());
    for (unsigned char& byte : guid.Data4)
        byte = static_cast<unsigned char>(gen.Word());
    return guid;
}

std::string BracedText(const GUID& guid)
{
    CoTaskMemText text;
    if (FAILED(StringFromCLSID(guid, text.Put())))
        return std::string();
    return Narrow(CMetaString(text.Get()));
}

TEST(GeneratedIdentityTest, ClassIdentifiersGoThroughTheIdentityAndBack)
{
    RunCases(1104, 300, [](TextGenerator& gen) {
        const GUID guid = RandomGuid(gen);
        const std::string braced = BracedText(guid);
        SCOPED_TRACE(braced);
        ExpectNoBlocksLeft([&] {
            const CCOMIdentity identity(guid);
            EXPECT_EQ(identity.GetObjectName(), braced.substr(1, 36));
            EXPECT_EQ(identity.GetText(), "COM://" + braced.substr(1, 36));
            EXPECT_TRUE(identity.IsClassIdName());
            CLSID back = GUID_NULL;
            EXPECT_TRUE(identity.GetClassId(back));
            EXPECT_TRUE(IsEqualGUID(back, guid));
            std::string text;
            EXPECT_TRUE(identity.GetClassIdText(text, true));
            EXPECT_EQ(text, braced);
            CLSID fromText = GUID_NULL;
            EXPECT_TRUE(ClassIdFromText(identity.GetObjectName().c_str(), &fromText));
            EXPECT_TRUE(IsEqualGUID(fromText, guid));
        });
    });
}

TEST(GeneratedIdentityTest, NearlyClassIdentifiersNeverReadAsAnotherClass)
{
    static const std::string kSpecials = "gG-{}xZ0 .";
    RunCases(1105, 300, [](TextGenerator& gen) {
        std::string name = BracedText(RandomGuid(gen)).substr(1, 36);
        if (gen.OneIn(2))
            name[gen.Below(name.size())] = kSpecials[gen.Below(kSpecials.size())];
        else
            name = gen.Mutate(name, kSpecials);
        name = std::string(name.c_str());
        if (HasDelimiter(name))
            return;
        SCOPED_TRACE(Printable(name));
        ExpectNoBlocksLeft([&] {
            const CCOMIdentity identity(name.c_str(), 0);
            CLSID classId = GUID_NULL;
            // A text taken as a class identifier must be exactly the one it names.
            if (identity.IsClassIdName() && identity.GetClassId(classId)) {
                EXPECT_EQ(_stricmp(BracedText(classId).c_str(), ("{" + name + "}").c_str()), 0);
            }
            CLSID fromText = GUID_NULL;
            if (identity.IsClassIdName() && ClassIdFromText(name.c_str(), &fromText)) {
                EXPECT_EQ(_stricmp(BracedText(fromText).c_str(), ("{" + name + "}").c_str()), 0);
            }
        });
    });
}

// Tag texts

constexpr wchar_t kUntouched[] = L"untouched";
// What one MoxText format call adds at most.
constexpr std::size_t kFormatLimit = 10240;

// ASCII names and odd Unicode, without the double quote that would end the value.
std::wstring RandomTagValue(TextGenerator& gen)
{
    static const std::wstring kPlain = L"abcXYZ_019.$# '>=<@-%";
    std::wstring value = gen.OneIn(3) ? gen.OddWide(60) : gen.From(kPlain, 0, gen.OneIn(50) ? 12000 : 60);
    if (gen.OneIn(10))
        value.insert(gen.Below(value.size() + 1), gen.OneIn(2) ? L"scope=" : L"NAME=");
    for (wchar_t& c : value) {
        if (c == L'"')
            c = L'\'';
    }
    return value;
}

TEST(GeneratedTagTextTest, MadeTagsParseBackWhereTheTextsFit)
{
    RunCases(2101, 2000, [](TextGenerator& gen) {
        const std::wstring name = RandomTagValue(gen);
        const std::wstring scope = RandomTagValue(gen);
        SCOPED_TRACE("name " + Printable(name) + " scope " + Printable(scope));
        ExpectNoBlocksLeft([&] {
            // The tag carries the narrow forms; a text the conversion refuses goes as empty.
            const std::string narrowName = Narrow(CMetaString(name.c_str()));
            const std::string narrowScope = Narrow(CMetaString(scope.c_str()));
            CMetaObjectString item;
            EXPECT_TRUE(item.MakeVarParam(CMetaString(name.c_str()), CMetaString(scope.c_str())));
            EXPECT_TRUE(item.IsVarParam());
            CMetaString nameOut(kUntouched);
            CMetaString scopeOut(kUntouched);
            const bool parsed = item.ParseVarParam(nameOut, scopeOut);
            // One format call gives at most kFormatLimit characters, and a value
            // cut off there has no end: a missing scope is then no failure.
            if (Narrow(item.GetTagText()).size() >= kFormatLimit)
                return;
            const bool fits = narrowName.size() <= kMaxVarParamText && narrowScope.size() <= kMaxVarParamText;
            // The search for SCOPE= is a plain substring search: a name that holds
            // it moves the scope there. No promise is made for such a name.
            if (ContainsNoCase(narrowName, "scope=")) {
                if (parsed) {
                    EXPECT_EQ(Narrow(nameOut), narrowName);
                }
                return;
            }
            EXPECT_EQ(parsed, fits);
            if (!parsed) {
                EXPECT_EQ(Wide(nameOut), kUntouched);
                EXPECT_EQ(Wide(scopeOut), kUntouched);
                return;
            }
            EXPECT_EQ(Narrow(nameOut), narrowName);
            EXPECT_EQ(Narrow(scopeOut), narrowScope);
        });
    });
}

std::string RandomCase(TextGenerator& gen, std::string text)
{
    for (char& c : text) {
        if (gen.OneIn(2))
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// A well-formed tag in one of its written forms, with where each value ends.
struct TagLayout {
    std::string text;
    std::string name;
    std::string scope;
    bool hasScope = false;
    std::size_t nameEnd = 0;   // index of the character that ends the name's value
    std::size_t scopeEnd = 0;  // the same for the scope
};

TagLayout RandomTag(TextGenerator& gen)
{
    static const std::string kValueChars = "abcXYZ_019.$#-";
    static const char kQuotes[] = {'"', '\'', 0};
    TagLayout tag;
    const char quote = gen.Pick(kQuotes);
    tag.name = gen.From(kValueChars, quote ? 0 : 1, 30);
    tag.hasScope = !gen.OneIn(4);
    tag.scope = tag.hasScope ? gen.From(kValueChars, quote ? 0 : 1, 30) : std::string();
    tag.text = RandomCase(gen, "<@VARPARAM");
    // Appends one attribute and gives the index of the character that ends its value.
    auto add = [&](const std::string& key, const std::string& value) {
        tag.text += " " + RandomCase(gen, key);
        if (quote)
            tag.text += quote;
        tag.text += value;
        const std::size_t end = tag.text.size();
        if (quote)
            tag.text += quote;
        return end;
    };
    if (tag.hasScope && gen.OneIn(2)) {
        tag.scopeEnd = add("SCOPE=", tag.scope);
        tag.nameEnd = add("NAME=", tag.name);
    } else {
        tag.nameEnd = add("NAME=", tag.name);
        if (tag.hasScope)
            tag.scopeEnd = add("SCOPE=", tag.scope);
    }
    tag.text += ">";
    return tag;
}

TEST(GeneratedTagTextTest, TagsCutAtEveryPositionGiveWhatTheirWholeValuesSay)
{
    RunCases(2102, 400, [](TextGenerator& gen) {
        const TagLayout tag = RandomTag(gen);
        SCOPED_TRACE(tag.text);
        for (std::size_t cut = 0; cut <= tag.text.size(); ++cut) {
            const std::string text = tag.text.substr(0, cut);
            SCOPED_TRACE("cut at " + std::to_string(cut));
            ExpectNoBlocksLeft([&] {
                CMetaObjectString item;
                item.SetTagText(CMetaString(text.c_str()));
                CMetaString nameOut(kUntouched);
                CMetaString scopeOut(kUntouched);
                // A value counts once the character that ends it is there.
                const bool nameWhole = cut > tag.nameEnd;
                EXPECT_EQ(item.ParseVarParam(nameOut, scopeOut), nameWhole);
                EXPECT_EQ(Narrow(nameOut), nameWhole ? tag.name : "untouched");
                const bool scopeWritten = nameWhole && tag.hasScope && cut > tag.scopeEnd;
                EXPECT_EQ(Narrow(scopeOut), scopeWritten ? tag.scope : "untouched");
            });
            if (::testing::Test::HasFailure())
                return;
        }
    });
}

TEST(GeneratedTagTextTest, MutatedTagsGiveValuesFromTheTextOrNothing)
{
    static const std::string kSpecials = std::string("\"' >=<@", 7) + std::string(1, '\0');
    RunCases(2103, 2000, [](TextGenerator& gen) {
        std::string text = gen.Mutate(RandomTag(gen).text, kSpecials);
        if (gen.OneIn(4))
            text = gen.Mutate(text, std::string("NAME=SCOPE="));
        SCOPED_TRACE(Printable(text));
        ExpectNoBlocksLeft([&] {
            CMetaObjectString item;
            item.SetTagText(CMetaString(text.c_str()));
            const std::string tag = Narrow(item.GetTagText());
            CMetaString nameOut(kUntouched);
            CMetaString scopeOut(kUntouched);
            if (!item.ParseVarParam(nameOut, scopeOut)) {
                EXPECT_EQ(Wide(nameOut), kUntouched);
                EXPECT_EQ(Wide(scopeOut), kUntouched);
                return;
            }
            EXPECT_TRUE(item.IsVarParam());
            const std::string name = Narrow(nameOut);
            EXPECT_LE(name.size(), kMaxVarParamText);
            EXPECT_NE(tag.find(name), std::string::npos);
            if (Wide(scopeOut) != kUntouched) {
                const std::string scope = Narrow(scopeOut);
                EXPECT_LE(scope.size(), kMaxVarParamText);
                EXPECT_NE(tag.find(scope), std::string::npos);
            }
        });
    });
}

TEST(GeneratedTagTextTest, WideTagsThatHaveNoNarrowFormParseToNothing)
{
    static const std::wstring kSpecials = L"\"' >=<@\u0130\u212a\xe9";
    RunCases(2104, 1000, [](TextGenerator& gen) {
        std::wstring text = L"<@VARPARAM NAME=\"" + gen.OddWide(40) + L"\" SCOPE=\"" + gen.OddWide(40) + L"\">";
        text = gen.Mutate(text, kSpecials);
        SCOPED_TRACE(Printable(text));
        ExpectNoBlocksLeft([&] {
            CMetaObjectString item;
            item.SetTagText(CMetaString(text.c_str()));
            CMetaString nameOut(kUntouched);
            CMetaString scopeOut(kUntouched);
            const bool parsed = item.ParseVarParam(nameOut, scopeOut);
            if (!item.GetTagText().GetNarrow()) {
                EXPECT_FALSE(parsed);
            }
            if (!parsed) {
                EXPECT_EQ(Wide(nameOut), kUntouched);
                EXPECT_EQ(Wide(scopeOut), kUntouched);
            }
        });
    });
}

// Signatures and type words

struct SignatureRow {
    const wchar_t* signature;
    VARTYPE vt;  // what the signature reads back as
};

// The signatures that read back, and what they read back as.
constexpr SignatureRow kSignatures[] = {
    {L"VT_I2", VT_I2},         {L"VT_I4", VT_I4},         {L"VT_R4", VT_R4},
    {L"VT_R8", VT_R8},         {L"VT_CY", VT_CY},         {L"VT_DATE", VT_DATE},
    {L"VT_BSTR", VT_BSTR},     {L"VT_DISPATCH", VT_DISPATCH}, {L"VT_ERROR", VT_ERROR},
    {L"VT_BOOL", VT_BOOL},     {L"VT_VARIANT", VT_VARIANT}, {L"VT_UNKNOWN", VT_UNKNOWN},
    {L"VT_DECIMAL", VT_DECIMAL}, {L"VT_I1", VT_I1},       {L"VT_UI1", VT_UI1},
    {L"VT_UI2", VT_UI2},       {L"VT_UI4", VT_UI4},       {L"VT_I8", VT_I8},
    {L"VT_UI8", VT_UI8},       {L"VT_INT", VT_INT},       {L"VT_UINT", VT_UINT},
    {L"VT_VOID", VT_VOID},     {L"VT_HRESULT", VT_HRESULT}, {L"VT_LPSTR", VT_LPSTR},
    {L"VT_LPWSTR", VT_LPWSTR}, {L"VT_RECORD", VT_RECORD}, {L"VT_BYREF", VT_DISPATCH},
};

const SignatureRow* SignatureRowOf(const std::wstring& text)
{
    for (const SignatureRow& row : kSignatures) {
        if (text == row.signature)
            return &row;
    }
    return nullptr;
}

// The signature of a leaf type; those with no row of their own write "VT_BYREF".
std::wstring LeafSignature(VARTYPE vt)
{
    for (const SignatureRow& row : kSignatures) {
        if (row.vt == vt && std::wcscmp(row.signature, L"VT_BYREF") != 0)
            return row.signature;
    }
    return L"VT_BYREF";
}

TEST(GeneratedSignatureTest, TypeChainsPrintWithinTheLimitAndReadBack)
{
    RunCases(3101, 1500, [](TextGenerator& gen) {
        // Innermost first; the leaf is any 16-bit type, table types more often.
        // A pointer or array as the leaf has no target, and prints as the default.
        // Some chains are deeper than a thread's stack has room for frames.
        std::vector<TYPEDESC> chain(gen.OneIn(100) ? gen.Between(100000, 300000) : gen.Between(1, 16));
        TYPEDESC& leaf = chain.front();
        leaf.vt = gen.OneIn(2) ? gen.Pick(kSignatures).vt : static_cast<VARTYPE>(gen.Word());
        leaf.lptdesc = nullptr;
        std::wstring expected = LeafSignature(leaf.vt);
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
            const VARTYPE byRef = chain.size() > 1 ? VT_BYREF : 0;
            EXPECT_EQ(VarTypeFromSignature(Wide(TypeSignatureText(&outer)).c_str()), row->vt | byRef);
            // Without type information the type is unresolved, with the same signature.
            CTypeDesc built;
            EXPECT_FALSE(BuildTypeDesc(built, nullptr, &outer));
            EXPECT_EQ(built.type, MetaTypeObject);
            EXPECT_EQ(Wide(built.signature), expected);
        });
    });
}

TEST(GeneratedSignatureTest, MutatedSignaturesReadAsTheirWordBeforeTheBar)
{
    static const std::wstring kSpecials = std::wstring(L"|_VTvtIPRA ", 11) + std::wstring(1, L'\0');
    RunCases(3102, 2500, [](TextGenerator& gen) {
        std::wstring text = gen.Pick(kSignatures).signature;
        for (std::size_t i = gen.Below(4); i > 0; --i)
            text += gen.OneIn(2) ? L"|VT_PTR" : L"|VT_ARRAY";
        text = gen.OneIn(6) ? gen.OddWide(80) : gen.Mutate(text, kSpecials);
        SCOPED_TRACE(Printable(text));
        // Read as a C text, and no further than a signature may go.
        std::wstring head = std::wstring(text.c_str()).substr(0, kSignatureChars - 1);
        const std::size_t bar = head.find(L'|');
        const SignatureRow* row = SignatureRowOf(head.substr(0, bar));
        const VARTYPE expected = row ? row->vt | (bar != std::wstring::npos ? VT_BYREF : 0) : VT_VOID;
        ExpectNoBlocksLeft([&] { EXPECT_EQ(VarTypeFromSignature(text.c_str()), expected); });
    });
}

struct TypeWordRow {
    const char* word;
    const wchar_t* signature;
    VARTYPE readBack;  // VT_VOID where the signature is a word of the host's direction only
};

constexpr TypeWordRow kTypeWords[] = {
    {"INT", L"VT_I4", VT_I4},
    {"FLOAT", L"VT_REAL", VT_VOID},
    {"TEXT", L"VT_BSTR", VT_BSTR},
    {"BOOL", L"VT_BOOL", VT_BOOL},
    {"CHAR", L"VT_UI1", VT_UI1},
    {"STRUCTURE", L"VT_USERDEFINED", VT_VOID},
    {"CURRENCY", L"VT_CY", VT_CY},
    {"DATE", L"VT_DATE", VT_DATE},
    {"ENUMERATION", L"VT_USERDEFINED", VT_VOID},
    {"OBJECT", L"VT_BYREF", VT_DISPATCH},
};

TEST(GeneratedSignatureTest, TypeWordsInAnyCaseMapAndReadBackWhereTheirSignatureHasARow)
{
    static const std::string kSpecials = "_ 1ILNTx";
    RunCases(3103, 1500, [](TextGenerator& gen) {
        std::string word = RandomCase(gen, gen.Pick(kTypeWords).word);
        if (gen.OneIn(2))
            word = gen.Mutate(word, kSpecials);
        if (gen.OneIn(20))
            word.append(gen.Between(50, 200), 'T');
        const bool byRef = gen.OneIn(2);
        SCOPED_TRACE(Printable(word) + (byRef ? " by reference" : ""));
        const std::string cut(word.c_str());
        const TypeWordRow* expected = nullptr;
        for (const TypeWordRow& row : kTypeWords) {
            if (_stricmp(cut.c_str(), row.word) == 0)
                expected = &row;
        }
        ExpectNoBlocksLeft([&] {
            CMetaString signature(kUntouched);
            const bool mapped = SignatureOfTypeWord(CMetaString(cut.c_str()), signature, byRef);
            ASSERT_EQ(mapped, expected != nullptr);
            if (!expected) {
                EXPECT_EQ(Wide(signature), kUntouched);
                return;
            }
            EXPECT_EQ(Wide(signature), std::wstring(expected->signature) + (byRef ? L"|VT_BYREF" : L""));
            const VARTYPE flag = byRef && expected->readBack != VT_VOID ? VT_BYREF : 0;
            EXPECT_EQ(VarTypeFromSignature(signature.GetWide()), expected->readBack | flag);
        });
    });
}

// Method keys

struct KindRow {
    std::uint32_t kind;
    const wchar_t* prefix;
};
constexpr KindRow kKinds[] = {
    {MethodKindInvoke, L"Invoke:"}, {MethodKindGet, L"Get:"}, {MethodKindSet, L"Set:"}, {MethodKindSetRef, L"Setref:"}};

std::wstring RandomMemberName(TextGenerator& gen)
{
    static const std::wstring kPlain = L"abcXYZ_019:";
    std::wstring name = gen.OneIn(3) ? gen.OddWide(40) : gen.From(kPlain, 0, 30);
    if (gen.OneIn(20))
        name.append(gen.Between(500, 1000), L'n');
    return std::wstring(name.c_str());
}

TEST(GeneratedMethodKeyTest, MadeKeysSplitIntoTheirNameAndKind)
{
    RunCases(4101, 2000, [](TextGenerator& gen) {
        const std::wstring name = RandomMemberName(gen);
        // Values beyond the four kinds are made as Invoke.
        const std::uint32_t kind = gen.OneIn(5) ? gen.Word() : gen.Pick(kKinds).kind;
        const std::wstring prefix = kind < 4 ? kKinds[kind].prefix : L"Invoke:";
        SCOPED_TRACE(Printable(name) + " kind " + std::to_string(kind));
        ExpectNoBlocksLeft([&] {
            CMetaString key;
            MakeMethodKey(key, CMetaString(name.c_str()), static_cast<MethodKind>(kind));
            EXPECT_EQ(Wide(key), prefix + name);
            CMetaString split(kUntouched);
            MethodKind splitKind = MethodKindSetRef;
            SplitMethodKey(key, split, splitKind);
            EXPECT_EQ(Wide(split), name);
            EXPECT_EQ(splitKind, kind < 4 ? kind : MethodKindInvoke);
        });
    });
}

TEST(GeneratedMethodKeyTest, AnyKeySplitsAtItsFirstColonAndMakesAKeyThatSplitsTheSame)
{
    static const char* const kPrefixes[] = {"Invoke", "Get", "Set", "Setref", "", "Put", "GetX", "SetRef "};
    static const std::wstring kSpecials = std::wstring(L": \u0130\u212a\xe9", 5) + std::wstring(1, L'\0');
    RunCases(4102, 2000, [](TextGenerator& gen) {
        const std::string prefix = RandomCase(gen, gen.Pick(kPrefixes));
        std::wstring key = std::wstring(prefix.begin(), prefix.end()) + L":" + RandomMemberName(gen);
        if (gen.OneIn(2))
            key = gen.Mutate(key, kSpecials);
        key = std::wstring(key.c_str());
        SCOPED_TRACE(Printable(key));
        const std::size_t colon = key.find(L':');
        ExpectNoBlocksLeft([&] {
            CMetaString name(kUntouched);
            MethodKind kind = MethodKindSetRef;
            SplitMethodKey(CMetaString(key.c_str()), name, kind);
            if (colon == std::wstring::npos) {
                EXPECT_EQ(Wide(name), kUntouched);
                EXPECT_EQ(kind, MethodKindInvoke);
                return;
            }
            EXPECT_EQ(Wide(name), key.substr(colon + 1));
            std::string head(key.begin(), key.begin() + static_cast<std::ptrdiff_t>(colon));
            for (char& c : head)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            const bool plain = std::all_of(key.begin(), key.begin() + static_cast<std::ptrdiff_t>(colon),
                                           [](wchar_t c) { return c < 0x80; });
            if (plain) {
                const MethodKind expected = head == "get"      ? MethodKindGet
                                            : head == "set"    ? MethodKindSet
                                            : head == "setref" ? MethodKindSetRef
                                                               : MethodKindInvoke;
                EXPECT_EQ(kind, expected);
            }
            // Make then split again: the same name and kind, so a split key is a fixed point.
            CMetaString made;
            MakeMethodKey(made, name, kind);
            CMetaString again(kUntouched);
            MethodKind againKind = MethodKindSetRef;
            SplitMethodKey(made, again, againKind);
            EXPECT_EQ(Wide(again), Wide(name));
            EXPECT_EQ(againKind, kind);
            if (key.compare(0, colon + 1, kKinds[kind].prefix) == 0) {
                EXPECT_EQ(Wide(made), key);
            }
        });
    });
}

TEST(GeneratedMethodKeyTest, AccessorNamesArePrefixedOnce)
{
    RunCases(4103, 1500, [](TextGenerator& gen) {
        static const wchar_t* const kHeads[] = {L"", L"get", L"Set", L"is", L"Is", L"GE", L"i"};
        const std::wstring name = gen.Pick(kHeads) + RandomMemberName(gen);
        const MethodKind kind = static_cast<MethodKind>(gen.Below(4));
        const bool isBool = gen.OneIn(2);
        SCOPED_TRACE(Printable(name) + " kind " + std::to_string(kind) + (isBool ? " bool" : ""));
        ExpectNoBlocksLeft([&] {
            CMetaString once(name.c_str());
            PrefixPropertyName(kind, isBool, once);
            const std::wstring shown = Wide(once);
            ASSERT_GE(shown.size(), name.size());
            EXPECT_EQ(shown.substr(shown.size() - name.size()), name);
            const std::wstring added = shown.substr(0, shown.size() - name.size());
            EXPECT_TRUE(added.empty() || added == L"get" || added == L"set" || added == L"is")
                << Printable(added);
            CMetaString twice(once);
            PrefixPropertyName(kind, isBool, twice);
            EXPECT_EQ(Wide(twice), shown);
        });
    });
}

// MoxText format requests

// The same run-time formatting, into a buffer large enough for any request here.
std::string Formatted(const char* format, ...)
{
    std::vector<char> buffer(1 << 16, 0);
    va_list args;
    va_start(args, format);
    _vsnprintf(buffer.data(), buffer.size() - 1, format, args);
    va_end(args);
    return buffer.data();
}

void AppendFormatted(MoxText& text, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    text.AppendFormat(format, args);
    va_end(args);
}

// One conversion with its argument, and literal text around it.
struct FormatRequest {
    std::string format;
    enum { Text, Number, Character, None } argument = None;
    std::string text;
    std::int32_t number = 0;
    std::string Expected() const
    {
        switch (argument) {
        case Text:
            return Formatted(format.c_str(), text.c_str());
        case Number:
        case Character:
            return Formatted(format.c_str(), number);
        default:
            return Formatted(format.c_str());
        }
    }
    void FormatInto(MoxText& out) const
    {
        switch (argument) {
        case Text:
            out.FormatText(format.c_str(), text.c_str());
            break;
        case Number:
        case Character:
            out.FormatText(format.c_str(), number);
            break;
        default:
            out.FormatText(format.c_str());
            break;
        }
    }
    void AppendInto(MoxText& out) const
    {
        switch (argument) {
        case Text:
            AppendFormatted(out, format.c_str(), text.c_str());
            break;
        case Number:
        case Character:
            AppendFormatted(out, format.c_str(), number);
            break;
        default:
            AppendFormatted(out, format.c_str());
            break;
        }
    }
};

std::string Literal(TextGenerator& gen)
{
    std::string text = gen.OddNarrow(gen.OneIn(10) ? 12000 : 20);
    std::string escaped;
    for (char c : text)
        escaped += c == '%' ? std::string("%%") : std::string(1, c);
    return escaped;
}

FormatRequest RandomFormat(TextGenerator& gen)
{
    static const char* const kTextConversions[] = {"%s", "%-12s", "%.3s", "%40s", "%20000s", "%.0s"};
    static const char* const kNumberConversions[] = {"%d", "%ld", "%i", "%u", "%x", "%X", "%08x", "%-9d", "%+d", "%o",
                                               "%15000d"};
    FormatRequest request;
    const std::string before = Literal(gen);
    std::string conversion;
    switch (gen.Below(4)) {
    case 0:
    case 1:
        request.argument = FormatRequest::Text;
        conversion = gen.Pick(kTextConversions);
        request.text = gen.OneIn(8) ? std::string(gen.Between(9000, 30000), 'w') : gen.OddNarrow(40);
        break;
    case 2:
        request.argument = FormatRequest::Number;
        conversion = gen.Pick(kNumberConversions);
        request.number = static_cast<std::int32_t>(gen.Word());
        break;
    default:
        request.argument = gen.OneIn(2) ? FormatRequest::Character : FormatRequest::None;
        conversion = request.argument == FormatRequest::Character ? "%c" : "";
        request.number = static_cast<std::int32_t>(gen.Between(1, 255));
        break;
    }
    request.format = before + conversion + Literal(gen);
    return request;
}

void ExpectWellFormed(MoxText& text, const std::string& expected)
{
    EXPECT_EQ(std::string(text.GetText()), expected);
    EXPECT_EQ(text.GetLength(), expected.size());
    EXPECT_EQ(text.length, expected.empty() ? text.length : expected.size() + 1);
    EXPECT_LE(text.length, text.capacity);
    if (text.length > 0) {
        EXPECT_EQ(text.data[text.length - 1], '\0');
    }
}

TEST(GeneratedMoxTextTest, FormatRequestsGiveTheFormattedTextCutAtTheLimit)
{
    RunCases(5101, 1500, [](TextGenerator& gen) {
        const FormatRequest request = RandomFormat(gen);
        const std::string expected = request.Expected().substr(0, kFormatLimit);
        SCOPED_TRACE(Printable(request.format, 80));
        ExpectNoBlocksLeft([&] {
            MoxText text;
            text.AssignText("left over");
            request.FormatInto(text);
            ExpectWellFormed(text, expected);
        });
    });
}

TEST(GeneratedMoxTextTest, AppendedFormatsFollowTheTextBeforeThem)
{
    RunCases(5102, 600, [](TextGenerator& gen) {
        const std::string start = gen.OneIn(3) ? std::string() : gen.OddNarrow(gen.OneIn(5) ? 5000 : 30);
        std::vector<FormatRequest> requests(gen.Between(1, 4));
        std::string expected = start;
        for (FormatRequest& request : requests) {
            request = RandomFormat(gen);
            expected += request.Expected().substr(0, kFormatLimit);
        }
        // Then the text appended to itself, plainly and through a format: the
        // source lies in the storage that the append may move.
        const bool appendItself = gen.OneIn(3);
        if (appendItself) {
            expected += expected;
            expected += expected.substr(0, kFormatLimit);
        }
        SCOPED_TRACE(Printable(start, 40) + " then " + std::to_string(requests.size()) + " formats" +
                     (appendItself ? " and itself" : ""));
        ExpectNoBlocksLeft([&] {
            MoxText text;
            text.AssignText(start.c_str());
            for (const FormatRequest& request : requests)
                request.AppendInto(text);
            if (appendItself) {
                text.AppendText(text.GetText());
                AppendFormatted(text, "%s", text.GetText());
            }
            ExpectWellFormed(text, expected);
        });
    });
}

}  // namespace
