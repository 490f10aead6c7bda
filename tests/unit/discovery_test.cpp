// Identities, the registry readers (under fresh GUIDs), type libraries, type names and the catalogue.

#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contract/host_environment.h"
#include "discovery/type_library.h"
#include "discovery/type_names.h"
#include "host/reference_host.h"
#include "identity/com_identity.h"
#include "identity/object_identity.h"
#include "metaobj/records.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/registry_fixture.h"

using namespace MetaObj;

namespace {

std::string Narrow(const CMetaString& text) { return text.GetNarrow() ? text.GetNarrow() : ""; }

// A value under the class key (or, for a path that begins with "/", under the root); "$" is the braced class id.
struct Entry { std::string path; const char* name; std::string value; };

std::string Expand(std::string text, const ScratchClass& scratch)
{
    for (std::size_t at; (at = text.find('$')) != std::string::npos;)
        text.replace(at, 1, scratch.braced);
    return text;
}

void WriteAll(ScratchClass& scratch, const std::vector<Entry>& entries)
{
    for (const Entry& entry : entries) {
        const std::string path = Expand(entry.path, scratch);
        if (!path.empty() && path[0] == '/')
            scratch.Write(path.substr(1), entry.name, Expand(entry.value, scratch));
        else
            scratch.WriteClass(path, entry.name, Expand(entry.value, scratch));
    }
}

using Rows = std::vector<std::pair<std::string, std::string>>;

TEST(ClassRegistryTest, ServerProbeOrderDecidesKindPathThreadingModelAndRows)
{
    const std::string tooLong(MAX_PATH, 'p');
    const struct {
        const char* label;
        std::vector<Entry> entries;
        bool found;
        ServerKind kind;
        std::string path, threadingModel;
        Rows rows;  // after the class identifier's
    } rows[] = {
        {"inproc before local",
         {{"LocalServer32", nullptr, "l.exe"}, {"InprocServer32", nullptr, "i.dll"},
          {"InprocServer32", "ThreadingModel", "Both"}, {"LocalServer32", "ThreadingModel", "Free"},
          {"ProgID", nullptr, "Scratch.Row.1"}, {"Version", nullptr, "1.5"}, {"TypeLib", nullptr, "$"}},
         true, ServerKindInproc, "i.dll", "Both",
         {{"Prog ID", "Scratch.Row.1"}, {"Version", "1.5"}, {"Type Library", "$"}, {"InprocServer32", "i.dll"},
          {"Threading Model", "Both"}}},
        {"handler before local",
         {{"InprocHandler32", nullptr, "ole32.dll"}, {"LocalServer32", nullptr, "l.exe"},
          {"LocalServer32", "ThreadingModel", "Free"}},
         true, ServerKindHandler, "ole32.dll", "", {}},
        {"empty inproc value", {{"InprocServer32", nullptr, ""}}, true, ServerKindInproc, "", "", {}},
        {"too long a path counts as missing", {{"InprocServer32", nullptr, tooLong}, {"InprocHandler32", nullptr, "h.dll"}},
         true, ServerKindHandler, "h.dll", "", {}},
        {"service", {{"LocalService", nullptr, "svc"}}, true, ServerKindService, "svc", "", {{"Server Location", "svc"}}},
        {"local", {{"LocalServer32", nullptr, "l.exe"}, {"LocalServer32", "ThreadingModel", "Apartment"}}, true,
         ServerKindLocal, "l.exe", "Apartment", {{"LocalServer32", "l.exe"}, {"Threading Model", "Apartment"}}},
        {"remote by application id", {{"", "AppID", "$"}, {"/AppID\\$", "RemoteServerName", "alpha"}}, true,
         ServerKindRemote, "alpha", "", {}},
        {"application id without its key", {{"", "AppID", "{no-such-appid}"}}, false, ServerKindInproc, "", "", {}},
        {"no server at all", {}, false, ServerKindInproc, "", "", {}},
    };
    CMetaObjectCOMHandler handler;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchClass scratch;
        WriteAll(scratch, row.entries);
        const CCOMIdentity identity(scratch.bare.c_str(), 0);
        std::string path = "untouched", model;
        ServerKind kind = static_cast<ServerKind>(99);
        ASSERT_EQ(identity.GetServerPath(path, kind), row.found);
        EXPECT_EQ(kind, row.found ? row.kind : static_cast<ServerKind>(99));
        EXPECT_EQ(path, row.found ? row.path : "untouched");
        EXPECT_EQ(identity.IsInprocServer(), row.found && row.kind == ServerKindInproc);
        EXPECT_EQ(identity.IsLocalServer(), row.found && row.kind == ServerKindLocal);
        EXPECT_EQ(identity.IsRemoteServer(), row.found && row.kind == ServerKindRemote);
        EXPECT_EQ(identity.GetThreadingModel(model), !row.threadingModel.empty());
        EXPECT_EQ(model, row.threadingModel);
        if (row.kind == ServerKindHandler || row.kind == ServerKindRemote || !row.found)
            continue;  // no rows pinned for these
        CObjectInfo* info = nullptr;
        ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + scratch.bare).c_str(), true), MetaStatusOk);
        EXPECT_EQ(info->objectKind, 1u);
        EXPECT_EQ(info->isRegistered, 1);
        Rows expected{{"Class ID", scratch.braced}};
        for (const auto& [name, value] : row.rows)
            expected.emplace_back(name, Expand(value, scratch));
        Rows shown;
        for (const CObjectProperty* property : info->properties)
            shown.emplace_back(Narrow(property->name), Narrow(property->value));
        EXPECT_TRUE(row.path.empty() || shown == expected);
        handler.FreeObjectInfo(info);
    }
}

TEST(ClassRegistryTest, TextEntriesUserTypeNamesAndNamesByTheirForm)
{
    ScratchClass scratch;
    const CCOMIdentity identity(scratch.bare.c_str(), 0);
    std::string text;
    scratch.WriteClass("Version", nullptr, std::string(49, '1'));
    EXPECT_TRUE(identity.GetVersion(text));
    scratch.WriteClass("Version", nullptr, std::string(50, '2'));  // beyond the limit: false, and text untouched
    EXPECT_FALSE(identity.GetVersion(text));
    EXPECT_EQ(text, std::string(49, '1'));
    scratch.WriteClass("VersionIndependentProgID", nullptr, "Scratch.Thing");
    EXPECT_TRUE(identity.GetVersionIndependentProgId(text));
    EXPECT_EQ(text, "Scratch.Thing");
    EXPECT_TRUE(identity.IsRegistered());
    EXPECT_FALSE(identity.GetProgId(text));

    CMetaString name(L"before");
    scratch.WriteClass("", nullptr, "Scratch Class");
    EXPECT_TRUE(identity.GetUserTypeName(name, nullptr));
    EXPECT_EQ(name.Compare(L"Scratch Class", 0), 0);
    IID iid;
    CoCreateGuid(&iid);
    char* iidText = nullptr;
    ASSERT_TRUE(ClassIdToText(&iid, &iidText));
    EXPECT_FALSE(identity.GetUserTypeName(name, &iid));
    scratch.Write(std::string("Interface\\") + iidText, nullptr, "IScratch");  // the interface's name
    delete[] iidText;
    EXPECT_TRUE(CCOMIdentity().GetUserTypeName(name, &iid));
    EXPECT_EQ(name.Compare(L"IScratch", 0), 0);

    const CCOMIdentity arbitrary(std::string(36, 'z').c_str(), 0);  // taken as an identifier by its form
    EXPECT_TRUE(arbitrary.GetClassIdText(text, true));
    EXPECT_EQ(text, "{" + std::string(36, 'z') + "}");
    CLSID classId;
    EXPECT_FALSE(arbitrary.GetClassId(classId));
    EXPECT_FALSE(arbitrary.IsRegistered());
    CMetaObjectCOMHandler handler;
    CObjectInfo* info = nullptr;
    ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + std::string(36, 'z')).c_str(), true), MetaStatusOk);
    EXPECT_EQ(info->isRegistered, 0);
    EXPECT_EQ(info->properties.size(), 2u);  // an empty class identifier and server location
    handler.FreeObjectInfo(info);
    EXPECT_EQ(handler.GetObjectInfo(&info, "COM://Not.Registered", true), MetaStatusNoClass);
    EXPECT_EQ(info->objectKind, 2u);
    handler.FreeObjectInfo(info);
    info = reinterpret_cast<CObjectInfo*>(&handler);  // a marker: must stay
    EXPECT_EQ(handler.GetObjectInfo(&info, nullptr, true), MetaStatusNoClass);
    EXPECT_EQ(info, reinterpret_cast<CObjectInfo*>(&handler));
    scratch.WriteClass("InprocServer32", nullptr, "C:\\scratch.dll");
    ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + scratch.bare).c_str(), false), MetaStatusOk);
    EXPECT_TRUE(info->properties.empty());  // no rows asked for: the location only
    EXPECT_EQ(info->location.Compare(L"C:\\scratch.dll", 0), 0);
    handler.FreeObjectInfo(info);

    EXPECT_TRUE(CCOMIdentity("Not.Registered", 0).GetProgId(text));  // a real class's are the comtool check's
    EXPECT_EQ(text, "Not.Registered");
    const struct { const char* text; bool converts; } conversions[] = {
        {"Scripting.Dictionary", true}, {"{EE09B103-97E0-11CF-978F-00A02463E06F}", true},
        {"EE09B103-97E0-11CF-978F-00A02463E06F", true},
        {"{EE09B103-97E0-11CF-978F-00A02463E06.}", false},  // braces win over the dot, and it is no identifier
        {"EE09B103-97E0-11CF-978F-00A02463E06.", false},    // a dot makes it a ProgID, an unknown one
        {"", false},
    };
    for (const auto& row : conversions)
        EXPECT_EQ(ClassIdFromText(row.text, &classId), row.converts) << row.text;
    EXPECT_FALSE(ClassIdFromText(nullptr, &classId));
    EXPECT_FALSE(ClassIdFromText("Scripting.Dictionary", nullptr));
}

const char kScriptingLibrary[] = "{420B2830-E718-11CF-893D-00A0C9054228}";
const char kStdOleLibrary[] = "{00020430-0000-0000-C000-000000000046}";

// A class whose "TypeLib" entry names a library key of its own, both fresh.
struct ScratchLibrary {
    ScratchLibrary()
    {
        ScratchClass other;  // borrows a fresh identifier for the library
        libraryId = other.braced;
        libraryKey = "TypeLib\\" + libraryId;
        owner.WriteClass("TypeLib", nullptr, libraryId);
    }
    void Version(const std::string& version, const std::string& locale = "", const std::string& file = "")
    {
        owner.Write(libraryKey + "\\" + version, nullptr, "Library " + version);
        if (!locale.empty())
            owner.Write(libraryKey + "\\" + version + "\\" + locale + (file.empty() ? "" : "\\win32"), nullptr, file);
    }

    ScratchClass owner;
    std::string libraryId, libraryKey;
};

TEST(TypeLibraryTest, FilesByVersionAndLocaleIdsByTheClassKeyOrTheAttribute)
{
    using Key = std::array<const char*, 3>;  // version, locale (none: ""), file (none: "")
    const struct {
        const char* label;
        std::vector<Key> keys;
        std::uint32_t version;
        bool found;
        std::string name, path;
    } rows[] = {
        {"409 before 0", {{"1.0", "0", "zero.tlb"}, {"1.0", "409", "en.tlb"}}, 0x10000, true, "Library 1.0", "en.tlb"},
        {"9 before 0", {{"1.0", "0", "zero.tlb"}, {"1.0", "9", "nine.tlb"}}, 0x10000, true, "Library 1.0", "nine.tlb"},
        {"any numeric locale", {{"1.0", "FLAGS", "x"}, {"1.0", "407", "de.tlb"}}, 0x10000, true, "Library 1.0",
         "de.tlb"},
        {"no numeric locale", {{"1.0", "FLAGS", "f"}, {"1.0", "HELPDIR", "h"}, {"1.0", "c", "c.tlb"}}, 0x10000, false,
         "Library 1.0", ""},
        {"the first numeric locale decides", {{"1.0", "7", ""}, {"1.0", "8", "eight.tlb"}}, 0x10000, false,
         "Library 1.0", ""},
        {"version 0 tries whole majors", {{"3.0", "0", "three.tlb"}}, 0, true, "Library 3.0", "three.tlb"},
        {"but no minors", {{"1.1", "0", "one.tlb"}, {"a.0", "0", "ten.tlb"}}, 0, false, "", ""},
        {"then 0.0", {{"0.0", "0", "none.tlb"}}, 0, true, "Library 0.0", "none.tlb"},
        {"hexadecimal version text", {{"1.a", "0", "ten.tlb"}}, 0x1000A, true, "Library 1.a", "ten.tlb"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchLibrary library;
        for (const Key& key : row.keys)
            library.Version(key[0], key[1], key[2]);
        std::string name, path;
        EXPECT_EQ(CCOMIdentity(library.owner.bare.c_str(), 0).FindTypeLibFile(row.version, name, path), row.found);
        EXPECT_EQ(name, row.name);
        EXPECT_EQ(path, row.path);
    }

    // Library ids come from the class key or the attribute.
    ScratchLibrary library;
    std::string text;
    const std::string attributeId = std::string(kStdOleLibrary).substr(1, 36);
    const CCOMIdentity both(("COM://" + library.owner.bare + "?TypeLib=" + attributeId).c_str(), 1);
    ASSERT_TRUE(both.GetTypeLibId(text, false, false));
    EXPECT_EQ(text, library.libraryId.substr(1, 36));  // the class key wins here

    const CCOMIdentity unknown("COM://Not.Registered", 1);
    EXPECT_TRUE(unknown.GetTypeLibId(text, true, true));
    EXPECT_EQ(text, "{}");
    GUID guid;
    EXPECT_FALSE(unknown.GetTypeLibGuid(guid, nullptr));
    EXPECT_FALSE(unknown.OpenTypeLibKey(KEY_QUERY_VALUE));

    const CCOMIdentity braced((std::string("COM://Not.Registered?TypeLib=") + kStdOleLibrary).c_str(), 1);
    EXPECT_TRUE(braced.GetTypeLibId(text, true, false));
    EXPECT_EQ(text, std::string("{") + kStdOleLibrary + "}");
    EXPECT_FALSE(braced.GetTypeLibGuid(guid, nullptr));

    const CCOMIdentity bare(("COM://Not.Registered?TypeLib=" + attributeId).c_str(), 1);
    EXPECT_TRUE(bare.GetTypeLibGuid(guid, nullptr));

    // A class's interfaces are the catalogue tests'; here an interface named by its IID, and where nothing is found.
    const char kDictionaryIid[] = "{42C642C1-97E1-11CF-978F-00A02463E06F}";
    CTypeInfoList list;
    EXPECT_EQ(CollectTypeInfos(kDictionaryIid, list, kScriptingLibrary), 1u);
    for (const char* name : {"Scripting.Dictionary", "Not.Registered", static_cast<const char*>(nullptr)}) {
        CTypeInfoList none;
        EXPECT_EQ(CollectTypeInfos(name, none, name ? kStdOleLibrary : nullptr), 0u) << (name ? name : "null");
    }
}

// Splits and round trips are the generated tests'; here lookups and refusals.
TEST(IdentityTest, AttributesPartsRefusalsConstructorsAndClassIdNames)
{
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha?TypeLib=?a=1?A=2");
    EXPECT_EQ(identity.GetAttribute(std::string("HOST")), "alpha");  // found without regard to case
    EXPECT_EQ(identity.FindAttribute("typelib")->GetName(), "TypeLib");
    EXPECT_EQ(identity.GetAttribute(std::string("a")), "1");  // the first one wins
    EXPECT_EQ(identity.FindAttribute("Missing"), nullptr);
    EXPECT_STREQ(identity.GetAttribute("Missing"), "");  // the pointer form never gives null
    identity.SetText(nullptr);
    EXPECT_EQ(identity.GetText(), "");
    EXPECT_TRUE(identity.GetAttributes().empty());

    identity.SetText("COM://x? a = 1 ?flag");
    identity.SetObjectName("Other.Object");  // prints the parts again: blank ends go, and a name without a value
    for (const char* refused : {"a=b", "a?b", "a://b"}) {  // parts with delimiters are refused silently
        SCOPED_TRACE(refused);
        identity.SetObjectName(refused);
        identity.SetScheme(refused);
        EXPECT_EQ(identity.GetText(), "COM://Other.Object?a=1");
    }
    // Bare names: a complete one is prefixed, a refused one leaves the scheme alone.
    const struct { const char* text; bool complete, classId; } rows[] = {
        {"Sample.Object", true, false}, {"Sample?Object", false, false}, {"", false, false},
        {"not-a-guid-but-thirty-six-characters", true, true}, {"{EE09B103-97E0-11CF-978F-00A02463E06F}", true, false},
        {"EE09B103-97E0-11CF-978F-00A02463E06", true, false}, {"EE09B103.97E0-11CF-978F-00A02463E06F", true, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const CCOMIdentity named(row.text, 0);
        EXPECT_EQ(named.GetText(), row.complete ? "COM://" + std::string(row.text) : std::string("COM://"));
        EXPECT_EQ(named.IsComplete(), row.complete);
        EXPECT_EQ(named.IsClassIdName(), row.classId);
    }
    const CLSID classId = {0xEE09B103, 0x97E0, 0x11CF, {0x97, 0x8F, 0x00, 0xA0, 0x24, 0x63, 0xE0, 0x6F}};
    EXPECT_EQ(CCOMIdentity(classId).GetText(), "COM://EE09B103-97E0-11CF-978F-00A02463E06F");
}

// A handler and a reference host whose table the module sees, as after SetEnvironment.
class CatalogueTest : public testing::Test {
protected:
    void SetUp() override { SetEnvironmentTable(host.Table()); }
    void TearDown() override { SetEnvironmentTable(nullptr); }

    CReferenceHost host;
    CMetaObjectCOMHandler handler;
};

const char kLibraryId[] = "{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D01}";
const char kIdentity[] = "COM://6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20?TypeLib={6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D01}";

// Beside the program: the fixture library (every shape of member the platform's classes don't show) and its server.
std::string Beside(const char* file)
{
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    const std::string program(path);
    return program.substr(0, program.find_last_of("\\/") + 1) + file;
}
std::string FixturePath() { return Beside("catalogue_fixture.tlb"); }
std::string ServerPath() { return Beside("fixture_server.dll"); }

// Registers the fixture library's version with a file for both platforms.
void RegisterLibrary(ScratchClass& registration, const std::string& version, const std::string& file)
{
    const std::string key = std::string("TypeLib\\") + kLibraryId + "\\" + version;
    registration.Write(key, nullptr, "Catalogue fixture");
    registration.Write(key + "\\0\\win32", nullptr, file);
    registration.Write(key + "\\0\\win64", nullptr, file);
}

class FixtureLibraryTest : public CatalogueTest {
protected:
    void SetUp() override
    {
        CatalogueTest::SetUp();
        RegisterLibrary(registration, "1.0", FixturePath());
        ASSERT_EQ(handler.LoadObjectInfo(kIdentity), MetaStatusOk);
        CMethodNameList* names = nullptr;
        ASSERT_EQ(handler.GetMethodNames(&names), MetaStatusOk);
        for (const CMetaString& key : *names)
            keys.push_back(Narrow(key));
        handler.FreeMethodNameList(names);
    }
    void TearDown() override
    {
        handler.UnloadObjectInfo();
        CatalogueTest::TearDown();
    }
    bool Has(const std::string& key) const { return std::count(keys.begin(), keys.end(), key) > 0; }
    std::unique_ptr<CMethodInfo> Method(const wchar_t* key)
    {
        CMethodInfo* info = nullptr;
        EXPECT_EQ(handler.GetMethodInfo(key, 31, &info, 0), MetaStatusOk) << CMetaString(key).GetNarrow();
        return std::unique_ptr<CMethodInfo>(info);
    }
    std::unique_ptr<CParamInfo> Param(const wchar_t* key, std::uint32_t index)
    {
        CParamInfo* info = nullptr;
        EXPECT_EQ(handler.GetParamInfo(key, index, 31, &info, 0), MetaStatusOk) << CMetaString(key).GetNarrow();
        return std::unique_ptr<CParamInfo>(info);
    }

    ScratchClass registration;
    std::vector<std::string> keys;
};

TEST_F(CatalogueTest, LoadsThatCannotGoAheadLiveObjectsAndProbes)
{
    EXPECT_EQ(handler.LoadObjectInfo(""), MetaStatusBadIdentity);
    EXPECT_EQ(handler.LoadObjectInfo("Scripting.Dictionary"), MetaStatusBadIdentity);

    // An unknown class is the comtool check's; a library attribute decides before the class.
    EXPECT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary?TypeLib=nonsense"), MetaStatusNoTypeInfo);
    EXPECT_EQ(handler.GetMethodCount(), 0u);
    CMethodNameList* names = nullptr;
    EXPECT_EQ(handler.GetMethodNames(&names), MetaStatusNoTypeInfo);
    EXPECT_EQ(names, nullptr);

    host.AnswerNextLoad(CReferenceHost::LoadAnswer::Refuse);
    EXPECT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary"), MetaStatusNoTypeInfo);
    EXPECT_TRUE(handler.GetErrorText().IsEmpty());
    host.RefuseEnds(true);
    EXPECT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary"), MetaStatusNoTypeInfo);
    host.RefuseEnds(false);

    ASSERT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary"), MetaStatusOk);
    std::size_t calls = host.LoadCalls().size();
    EXPECT_EQ(handler.LoadObjectInfo(""), MetaStatusOk);  // the identity it holds
    EXPECT_EQ(host.LoadCalls().size(), calls + 1);
    handler.UnloadObjectInfo();

    // A live object without type information, and probes.
    CCountingDispatch object;
    handler.AttachObject(&object, "COM://Not.Registered");
    EXPECT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary"), MetaStatusBadIdentity);
    EXPECT_EQ(handler.LoadObjectInfo(nullptr), MetaStatusNoTypeInfo);
    EXPECT_TRUE(handler.GetErrorText().IsEmpty());  // the object was asked, and said nothing
    handler.DetachObject();
    EXPECT_EQ(object.References(), 1);

    calls = host.LoadCalls().size();
    EXPECT_TRUE(handler.CanLoadObjectInfo("COM://Scripting.FileSystemObject"));
    EXPECT_GT(host.LoadCalls().size(), calls);
    EXPECT_EQ(host.LoadCalls().back(), "Release");
    EXPECT_FALSE(handler.CanLoadObjectInfo("COM://No.Such.Class"));
}

TEST_F(FixtureLibraryTest, MembersAreFilteredByFlagsAndExactNames)
{
    for (const char* key : {"Get:Name", "Set:Name", "Get:Visible", "Setref:Target", "Set:Cell", "Invoke:Optional",
                            "Invoke:release", "Invoke:_newenum", "Set:Count", "Get:Count", "Set:Title", "Get:Title"})
        EXPECT_TRUE(Has(key)) << key;
    for (const char* key : {"Invoke:Secret", "Invoke:Internal", "Invoke:Nothing", "Invoke:QueryInterface"})
        EXPECT_FALSE(Has(key)) << key;
    const auto setCount = std::find(keys.begin(), keys.end(), "Set:Count");
    ASSERT_NE(setCount, keys.end());
    EXPECT_EQ(*(setCount + 1), "Get:Count");

    EXPECT_EQ(Narrow(Method(L"Get:Visible")->displayName), "isVisible");
    EXPECT_EQ(Narrow(Method(L"Get:Ready")->displayName), "isReady");
    EXPECT_EQ(Narrow(Method(L"Get:Name")->description), "The name");
    EXPECT_EQ(Method(L"Set:Cell")->paramCount, 2u);
    for (const auto& [key, index] : {std::pair{L"Set:Cell", 0u}, {L"Set:Cell", 1u}, {L"Set:Count", 0u}})
        EXPECT_EQ(Narrow(Param(key, index)->name), Narrow(CMetaString(key + 4)));  // named as the property
    EXPECT_EQ(Param(L"Invoke:Optional", 0)->isOptional, 1);
    EXPECT_EQ(Param(L"Invoke:Optional", 0)->isAny, 1);
}

// Directions and out parameters are the comtool check's, on the call fixture.
TEST_F(FixtureLibraryTest, ParameterTypesAndDirections)
{
    const struct {
        const wchar_t* key;
        std::uint32_t index, direction, type;
        std::int32_t isByRef;
        const char *name, *signature;
    } rows[] = {
        {L"Invoke:Paint", 0, 0, MetaTypeEnum, 0, "Colour", "VT_BYREF"},
        {L"Invoke:Paint", 1, 0, MetaTypeStruct, 1, "Shape", nullptr},
        {L"Invoke:Caption", 0, 0, MetaTypeString, 0, "Text", "VT_BSTR"},  // an alias reads as its target
        {L"Invoke:Arrays", 0, 0, MetaTypeString, 0, "Array of Text", "VT_BSTR|VT_ARRAY"},
        {L"Setref:Target", 0, 0, MetaTypeObject, 0, "", "VT_DISPATCH"},
        {L"Invoke:Hold", 1, 0, MetaTypeObject, 0, "", "VT_DISPATCH"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << CMetaString(row.key).GetNarrow() << " " << row.index);
        const auto param = Param(row.key, row.index);
        ASSERT_NE(param, nullptr);
        EXPECT_EQ(param->direction, row.direction);
        EXPECT_EQ(param->type.type, row.type);
        EXPECT_EQ(param->type.isByRef, row.isByRef);
        EXPECT_EQ(Narrow(param->type.typeName), row.name);
        EXPECT_TRUE(!row.signature || Narrow(param->type.signature) == row.signature) << Narrow(param->type.signature);
    }
    EXPECT_EQ(Param(L"Invoke:Arrays", 1)->isAny, 1);
    const auto colour = Param(L"Invoke:Paint", 0);
    ASSERT_EQ(colour->type.enumValues->size(), 3u);
    EXPECT_EQ(colour->type.enumValues->back()->value, 7);

    const auto shape = Param(L"Invoke:Paint", 1);
    EXPECT_EQ(Narrow(shape->type.GetStructName()), "{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D04}");
    ASSERT_EQ(shape->type.structBody->members.size(), 2u);
    const CTypeDesc& origin = *shape->type.structBody->members.front();  // a struct in a struct
    EXPECT_EQ(Narrow(origin.memberName), "origin");
    EXPECT_EQ(origin.structBody->members.size(), 2u);

    const auto holder = Param(L"Invoke:Hold", 0);
    ASSERT_EQ(holder->type.structBody->members.size(), 3u);
    const CTypeDesc& owner = **std::next(holder->type.structBody->members.begin());
    EXPECT_EQ(Narrow(owner.memberName), "owner");
    EXPECT_TRUE(owner.typeName.IsEmpty());
    EXPECT_EQ(owner.type, MetaTypeObject);
    const CTypeDesc& grid = *holder->type.structBody->members.front();
    EXPECT_EQ(Narrow(grid.typeName), "Array of Int");
    std::int32_t lower = -1, count = 0;
    ASSERT_EQ(grid.GetDimensionCount(), 2);
    EXPECT_TRUE(grid.bounds->GetBound(1, &lower, &count));
    EXPECT_EQ(lower * 10 + count, 3);
    EXPECT_EQ(Narrow(holder->type.structBody->members.back()->memberName), "weight");
}

TEST(RegisteredLibraryTest, TheServerFileWithoutAnEntryAndTheHighestWeighedVersion)
{
    // Versions are hexadecimal, weighed as major + minor / 100; only the pick (1.0, the real file) is loaded.
    const struct { const char* label; std::vector<std::pair<std::string, bool>> versions; bool loads; } rows[] = {
        {"0.63 is 0.99", {{"1.0", true}, {"0.63", false}}, true},
        {"0.ff is 2.55", {{"1.0", true}, {"0.ff", false}}, false},
        {"0.a is 0.10", {{"0.a", false}, {"1.0", true}}, true},
        {"0.64 ties with 1.0, the first listed wins", {{"1.0", true}, {"0.64", false}}, false},
        {"only 0.0", {{"0.0", true}}, false},
        {"a name too long ends the list", {{"1.0", true}, {"1.0000000001", false}}, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchClass scratch;
        for (const auto& version : row.versions)
            RegisterLibrary(scratch, version.first, version.second ? FixturePath() : "C:\\missing\\nothing.tlb");
        EXPECT_EQ(static_cast<bool>(LoadRegisteredTypeLib(kLibraryId)), row.loads);
    }
    EXPECT_FALSE(LoadRegisteredTypeLib(nullptr));

    // The fixture class registered with our server file and no "TypeLib" entry.
    ScratchClass registration;
    registration.Write("CLSID\\{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20}\\InprocServer32", nullptr, ServerPath());
    const CCOMIdentity identity("6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20", 0);

    GUID libraryId;
    CMetaString path, name;
    ASSERT_TRUE(identity.LoadServerTypeLib(0, libraryId, path, name));
    EXPECT_EQ(Narrow(name), "CatalogueFixture");
    EXPECT_EQ(Narrow(path), ServerPath());
    EXPECT_TRUE(identity.LoadServerTypeLib(0x10000, libraryId, path, name));
    EXPECT_FALSE(identity.LoadServerTypeLib(0x20000, libraryId, path, name));

    std::string text;
    EXPECT_TRUE(identity.GetTypeLibId(text, true, true));
    EXPECT_EQ(text, kLibraryId);
    EXPECT_FALSE(identity.GetTypeLibId(text, true, false));
    std::string libraryName, file;
    ASSERT_TRUE(identity.FindTypeLibFile(0, libraryName, file));  // no library key: the server file
    EXPECT_EQ(file, ServerPath());

    CTypeInfoList list;
    EXPECT_EQ(CollectTypeInfos("6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20", list, nullptr), 0u);

    RegisterLibrary(registration, "1.0", ServerPath());
    EXPECT_EQ(CollectTypeInfos("6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20", list, nullptr), 3u);  // IOther's too
}

std::wstring Text(const CMetaString& text) { return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide()); }

TYPEDESC Around(VARTYPE vt, TYPEDESC* inner = nullptr)
{
    TYPEDESC type = {};
    type.vt = vt;
    type.lptdesc = inner;
    return type;
}

TEST(TypeNamesTest, HostTypeWordsMethodKeysAndNamesForPeople)
{
    // A null signature: refused.
    const struct { const wchar_t* word; bool byRef; const wchar_t* signature; VARTYPE readBack; } words[] = {
        {L"int", true, L"VT_I4|VT_BYREF", VT_I4 | VT_BYREF},     {L"Float", false, L"VT_REAL", VT_VOID},
        {L"TEXT", false, L"VT_BSTR", VT_BSTR},                   {L"bool", true, L"VT_BOOL|VT_BYREF", VT_BOOL | VT_BYREF},
        {L"Char", false, L"VT_UI1", VT_UI1},                     {L"structure", false, L"VT_USERDEFINED", VT_VOID},
        {L"CURRENCY", false, L"VT_CY", VT_CY},                   {L"date", false, L"VT_DATE", VT_DATE},
        {L"Enumeration", true, L"VT_USERDEFINED|VT_BYREF", VT_VOID}, {L"object", false, L"VT_BYREF", VT_DISPATCH},
        {L"object", true, L"VT_BYREF|VT_BYREF", VT_DISPATCH | VT_BYREF}, {L"Real", false, nullptr, VT_VOID},
        {L"INTEGER", false, nullptr, VT_VOID},                   {L"", false, nullptr, VT_VOID},
    };
    CMetaObjectCOMHandler handler;
    for (const auto& row : words) {
        SCOPED_TRACE(CMetaString(row.word).GetNarrow() ? CMetaString(row.word).GetNarrow() : "");
        CMetaString signature(L"untouched");
        EXPECT_EQ(handler.GetTypeSignature(row.word, signature, row.byRef), row.signature ? MetaStatusOk : MetaStatusBadType);
        EXPECT_EQ(Text(signature), row.signature ? row.signature : L"untouched");
        EXPECT_EQ(VarTypeFromSignature(signature.GetWide()), row.readBack);
    }
    const std::pair<const wchar_t*, VARTYPE> signatures[] = {
        {L"VT_I4|VT_PTR", VT_I4 | VT_BYREF}, {L"VT_BSTR|VT_ARRAY", VT_BSTR | VT_BYREF}, {L"vt_i4", VT_VOID},
        {nullptr, VT_VOID}, {L"VT_I44", VT_VOID}, {L"VT_BOOL|", VT_BOOL | VT_BYREF}, {L"|VT_PTR", VT_VOID},
    };
    for (const auto& row : signatures)
        EXPECT_EQ(VarTypeFromSignature(row.first), row.second) << "signature row " << (&row - signatures);
    const struct { const wchar_t* key; MethodKind kind; const wchar_t* name; } rows[] = {  // "kept" when untouched
        {L"GET:Name", MethodKindGet, L"Name"},  {L"Set:", MethodKindSet, L""},          {L"Call:A:B", MethodKindInvoke, L"A:B"},
        {L"NoColon", MethodKindInvoke, L"kept"}, {L"Gets:Name", MethodKindInvoke, L"Name"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(CMetaString(row.key).GetNarrow());
        CMetaString name(L"kept");
        MethodKind kind = MethodKindSet;
        EXPECT_EQ(SplitMethodKey(row.key, name, kind), 1);
        EXPECT_EQ(kind, row.kind);
        EXPECT_EQ(Text(name), row.name);
    }
    CMetaString key;
    MethodKind kind = MethodKindSetRef;
    handler.MakeMethodName(key, L"Item", &kind, 0, 0);
    EXPECT_EQ(Text(key), L"Setref:Item");
    MakeMethodKey(key, L"Item", static_cast<MethodKind>(7));
    EXPECT_EQ(Text(key), L"Invoke:Item");
    handler.SplitMethodName(L"Get:Visible", key, kind, true);
    EXPECT_EQ(Text(key), L"isVisible");

    const struct { MethodKind kind; bool isBool; const wchar_t* name; const wchar_t* shown; } accessors[] = {
        {MethodKindGet, false, L"Name", L"getName"},      {MethodKindGet, false, L"GetValue", L"GetValue"},
        {MethodKindGet, false, L"Getter", L"Getter"},     {MethodKindGet, false, L"settings", L"getsettings"},
        {MethodKindGet, true, L"Visible", L"isVisible"},  {MethodKindGet, true, L"IsOpen", L"IsOpen"},
        {MethodKindGet, true, L"Issue", L"Issue"},        {MethodKindGet, true, L"GetFlag", L"GetFlag"},
        {MethodKindSet, true, L"Name", L"setName"},       {MethodKindSet, false, L"SetName", L"SetName"},
        {MethodKindSetRef, false, L"Name", L"Name"},      {MethodKindInvoke, false, L"Name", L"Name"},
    };
    for (const auto& row : accessors) {
        SCOPED_TRACE(CMetaString(row.name).GetNarrow());
        CMetaString name(row.name);
        PrefixPropertyName(row.kind, row.isBool, name);
        EXPECT_EQ(Text(name), row.shown);
    }
    CMetaString param;
    for (const wchar_t* given : {L"", static_cast<const wchar_t*>(nullptr), L"Index"}) {
        MakeParamName(given, param, 3);
        EXPECT_EQ(Text(param), given && *given ? given : L"param3");
    }

    const struct { USHORT flags; std::uint32_t direction; } flagRows[] = {
        {PARAMFLAG_FIN | PARAMFLAG_FOUT, 2}, {PARAMFLAG_FRETVAL, 1}, {PARAMFLAG_FLCID, 0},
        {PARAMFLAG_FOUT | PARAMFLAG_FLCID, 2}, {0, 0},
    };
    for (const auto& row : flagRows) {
        ELEMDESC element = {};
        element.paramdesc.wParamFlags = row.flags;
        EXPECT_EQ(GetParamDirection(&element), row.direction) << row.flags;
    }
    EXPECT_EQ(GetParamDirection(nullptr), 0u);
}

// C arrays are the catalogue fixture's (a struct's grid).
TEST(TypeDescShapesTest, PlainPointerAndArrayTypes)
{
    CTypeInfoList list;
    ASSERT_EQ(CollectTypeInfos("Scripting.Dictionary", list, nullptr), 1u);
    TYPEDESC i4 = Around(VT_I4), bstr = Around(VT_BSTR), dispatch = Around(VT_DISPATCH), voidType = Around(VT_VOID);
    TYPEDESC pointerToI4 = Around(VT_PTR, &i4), pointerToVoid = Around(VT_PTR, &voidType);
    TYPEDESC pointerToPointer = Around(VT_PTR, &pointerToI4);
    TYPEDESC arrayOfObjects = Around(VT_SAFEARRAY, &dispatch);

    const struct {
        const char* label;
        const TYPEDESC* type;
        std::uint32_t metaType;
        std::int32_t isByRef;
        const wchar_t *typeName, *signature;
        std::int32_t dimensions;
    } rows[] = {
        {"pointer to void", &pointerToVoid, MetaTypeVoid, 1, L"None", L"VT_VOID|VT_PTR", 0},
        {"pointer to pointer", &pointerToPointer, MetaTypeObject, 0, L"", L"VT_I4|VT_PTR|VT_PTR", 0},
        {"array of objects", &arrayOfObjects, MetaTypeObject, 0, L"Array of ", L"VT_DISPATCH|VT_ARRAY", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        CTypeDesc out(MetaTypeStruct, 1, 1);  // anything old must go
        EXPECT_TRUE(BuildTypeDesc(out, list.front().Get(), row.type));
        EXPECT_EQ(out.type, row.metaType);
        EXPECT_EQ(out.isByRef, row.isByRef);
        EXPECT_EQ(Text(out.typeName), row.typeName);
        EXPECT_EQ(Text(out.signature), row.signature);
        EXPECT_EQ(out.GetDimensionCount(), row.dimensions);
        EXPECT_EQ(out.structBody, nullptr);
    }
    CTypeDesc out;
    EXPECT_FALSE(BuildTypeDesc(out, nullptr, &bstr));
    EXPECT_EQ(out.type, MetaTypeObject);
}

// An alias of itself and two structs that hold each other, built in memory since no compiler writes them.
TEST(TypeDescCircles, ACircleOfTypesEndsUnresolvedInsteadOfRecursing)
{
    wchar_t directory[MAX_PATH];
    GetTempPathW(MAX_PATH, directory);
    const std::wstring file = std::wstring(directory) + L"comhandler_circles.tlb";
    ComPtr<ICreateTypeLib2> library;
    ASSERT_EQ(CreateTypeLib2(SYS_WIN64, file.c_str(), library.Put()), S_OK);
    const wchar_t* names[] = {L"Itself", L"First", L"Second"};
    ComPtr<ICreateTypeInfo> created[3];
    ComPtr<ITypeInfo> info[3];
    for (int i = 0; i < 3; ++i) {
        const TYPEKIND kind = i == 0 ? TKIND_ALIAS : TKIND_RECORD;
        ASSERT_EQ(library->CreateTypeInfo(const_cast<LPOLESTR>(names[i]), kind, created[i].Put()), S_OK);
        ASSERT_EQ(created[i]->QueryInterface(IID_ITypeInfo, info[i].PutVoid()), S_OK);
    }
    HREFTYPE refs[3] = {};  // each type as the one that holds it refers to it
    ASSERT_EQ(created[0]->AddRefTypeInfo(info[0].Get(), &refs[0]), S_OK);
    ASSERT_EQ(created[1]->AddRefTypeInfo(info[2].Get(), &refs[2]), S_OK);
    ASSERT_EQ(created[2]->AddRefTypeInfo(info[1].Get(), &refs[1]), S_OK);
    TYPEDESC alias{};
    alias.vt = VT_USERDEFINED;
    alias.hreftype = refs[0];
    ASSERT_EQ(created[0]->SetTypeDescAlias(&alias), S_OK);
    for (int i = 1; i < 3; ++i) {
        VARDESC variable{};  // member 0, per instance
        variable.elemdescVar.tdesc = alias;
        variable.elemdescVar.tdesc.hreftype = refs[3 - i];
        ASSERT_EQ(created[i]->AddVarDesc(0, &variable), S_OK);
        ASSERT_EQ(created[i]->SetVarName(0, const_cast<LPOLESTR>(names[3 - i])), S_OK);
    }
    const struct { const char* label; ITypeInfo* owner; HREFTYPE reference; } rows[] = {
        {"an alias of itself", info[0].Get(), refs[0]}, {"two structs that hold each other", info[2].Get(), refs[1]}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        TYPEDESC type = alias;
        type.hreftype = row.reference;
        CTypeDesc out;
        BuildTypeDesc(out, row.owner, &type);  // returns, whatever it makes of the circle
        CTypeDesc again;
        BuildTypeDesc(again, row.owner, &type);  // and the bound starts afresh for the next type
        EXPECT_EQ(again.type, out.type);
    }
}

}  // namespace
