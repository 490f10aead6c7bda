#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "contract/host_environment.h"
#include "discovery/type_library.h"
#include "host/reference_host.h"
#include "identity/com_identity.h"
#include "metaobj/records.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/registry_fixture.h"

using namespace MetaObj;

namespace {

std::string Narrow(const CMetaString& text)
{
    return text.GetNarrow() ? text.GetNarrow() : "";
}

// A handler and a reference host whose table the module sees, as after SetEnvironment.
class CatalogueTest : public testing::Test {
protected:
    void SetUp() override { SetEnvironmentTable(host.Table()); }
    void TearDown() override { SetEnvironmentTable(nullptr); }

    std::vector<std::string> Keys()
    {
        CMethodNameList* names = nullptr;
        if (handler.GetMethodNames(&names) != MetaStatusOk)
            return {};
        std::vector<std::string> keys;
        for (const CMetaString& key : *names)
            keys.push_back(Narrow(key));
        handler.FreeMethodNameList(names);
        return keys;
    }

    CReferenceHost host;
    CMetaObjectCOMHandler handler;
};

bool Holds(const std::vector<std::string>& keys, const std::string& key)
{
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

const char kLibraryId[] = "{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D01}";
const char kIdentity[] = "COM://6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20?TypeLib={6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D01}";

// Beside the program: the library of our own (tests/servers/catalogue_fixture.idl),
// which holds every shape of member that the platform's classes don't show.
std::string FixturePath()
{
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string directory(path);
    return directory.substr(0, directory.find_last_of("\\/") + 1) + "catalogue_fixture.tlb";
}

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
        keys = Keys();
    }
    void TearDown() override
    {
        handler.UnloadObjectInfo();
        CatalogueTest::TearDown();
    }
    bool Has(const std::string& key) const { return Holds(keys, key); }
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

TEST_F(CatalogueTest, StatusesOfLoadsThatCannotGoAhead)
{
    EXPECT_EQ(handler.LoadObjectInfo(""), MetaStatusBadIdentity);
    EXPECT_EQ(handler.LoadObjectInfo("Scripting.Dictionary"), MetaStatusBadIdentity);

    for (const char* identity : {"COM://No.Such.Class", "COM://Scripting.Dictionary?TypeLib=nonsense"}) {
        EXPECT_EQ(handler.LoadObjectInfo(identity), MetaStatusNoTypeInfo) << identity;  // a library attribute decides
        EXPECT_EQ(Narrow(handler.GetErrorText()), "Could not load type library");
    }
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
    const std::size_t callsBefore = host.LoadCalls().size();
    EXPECT_EQ(handler.LoadObjectInfo(""), MetaStatusOk);  // the identity it holds
    EXPECT_EQ(host.LoadCalls().size(), callsBefore + 1);
}

TEST_F(CatalogueTest, LiveObjectsWithoutTypeInformationAndProbes)
{
    CCountingDispatch object;
    handler.AttachObject(&object, "COM://Not.Registered");
    EXPECT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary"), MetaStatusBadIdentity);
    EXPECT_EQ(handler.LoadObjectInfo(nullptr), MetaStatusNoTypeInfo);
    EXPECT_TRUE(handler.GetErrorText().IsEmpty());  // the object was asked, and said nothing
    handler.DetachObject();
    EXPECT_EQ(object.References(), 1);

    EXPECT_TRUE(handler.CanLoadObjectInfo("COM://Scripting.FileSystemObject"));
    EXPECT_FALSE(host.LoadCalls().empty());
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
    EXPECT_EQ(Narrow(Param(L"Set:Cell", 0)->name), "Cell");
    EXPECT_EQ(Narrow(Param(L"Set:Cell", 1)->name), "Cell");
    EXPECT_EQ(Narrow(Param(L"Set:Count", 0)->name), "Count");
    EXPECT_EQ(Param(L"Invoke:Optional", 0)->isOptional, 1);
    EXPECT_EQ(Param(L"Invoke:Optional", 0)->isAny, 1);
}

TEST_F(FixtureLibraryTest, ParameterTypesAndDirections)
{
    const struct {
        const wchar_t* key;
        std::uint32_t index, direction, type;
        std::int32_t isByRef;
        const char *typeName, *signature;
    } rows[] = {
        {L"Invoke:Directions", 0, 1, MetaTypeInt, 1, "Int", "VT_I4|VT_PTR"},
        {L"Invoke:Directions", 1, 2, MetaTypeString, 1, "Text", "VT_BSTR|VT_PTR"},
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
        EXPECT_EQ(Narrow(param->type.typeName), row.typeName);
        EXPECT_TRUE(!row.signature || Narrow(param->type.signature) == row.signature) << Narrow(param->type.signature);
    }
    EXPECT_EQ(Narrow(Method(L"Invoke:Directions")->returnType.typeName), "Double");
    EXPECT_EQ(Param(L"Invoke:Arrays", 1)->isAny, 1);
    const auto colour = Param(L"Invoke:Paint", 0);
    ASSERT_EQ(colour->type.enumValues->size(), 3u);
    EXPECT_EQ(colour->type.enumValues->back()->value, 7);

    const auto shape = Param(L"Invoke:Paint", 1);
    EXPECT_EQ(Narrow(shape->type.GetStructName()), "{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D04}");
    ASSERT_EQ(shape->type.structBody->members.size(), 2u);
    const CTypeDesc& origin = *shape->type.structBody->members.front();
    EXPECT_EQ(Narrow(origin.memberName), "origin");
    ASSERT_NE(origin.structBody, nullptr);
    EXPECT_EQ(origin.structBody->members.size(), 2u);

    const auto holder = Param(L"Invoke:Hold", 0);
    ASSERT_EQ(holder->type.structBody->members.size(), 3u);
    const CTypeDesc& owner = **std::next(holder->type.structBody->members.begin());
    EXPECT_EQ(Narrow(owner.memberName), "owner");
    EXPECT_EQ(owner.type, MetaTypeObject);
    EXPECT_TRUE(owner.typeName.IsEmpty());
    const CTypeDesc& grid = *holder->type.structBody->members.front();
    EXPECT_EQ(Narrow(grid.typeName), "Array of Int");
    std::int32_t lower = -1, count = 0;
    ASSERT_EQ(grid.GetDimensionCount(), 2);
    EXPECT_TRUE(grid.bounds->GetBound(1, &lower, &count));
    EXPECT_EQ(lower * 10 + count, 3);
    EXPECT_EQ(Narrow(holder->type.structBody->members.back()->memberName), "weight");
}

const char kClassKey[] = "CLSID\\{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20}";

std::string ServerPath()
{
    const std::string library = FixturePath();
    return library.substr(0, library.find_last_of("\\/") + 1) + "fixture_server.dll";
}

// The fixture class registered with our server file and no "TypeLib" entry.
TEST(ServerFileRoadTest, TheLibraryIsReadFromTheServerFile)
{
    ScratchClass registration;
    registration.Write(std::string(kClassKey) + "\\InprocServer32", nullptr, ServerPath());
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
    ASSERT_EQ(CollectTypeInfos("6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D20", list, nullptr), 3u);
    TYPEATTR* attributes = nullptr;
    ASSERT_TRUE(SUCCEEDED(list.back()->GetTypeAttr(&attributes)));
    EXPECT_EQ(attributes->typekind, TKIND_INTERFACE);
    list.back()->ReleaseTypeAttr(attributes);
}

// Versions are read in hexadecimal and weighed as major + minor / 100; only
// the version picked is loaded, so a row loads if the pick has the real file.
// The fixture library is version 1.0, so the pick must be "1.0" to load.
TEST(RegisteredVersionTest, TheHighestWeighedVersionIsLoaded)
{
    const struct {
        const char* label;
        std::vector<std::pair<std::string, bool>> versions;  // name, holds the real file
        bool loads;
    } rows[] = {
        {"0.63 is 0.99", {{"1.0", true}, {"0.63", false}}, true},
        {"0.ff is 2.55", {{"1.0", true}, {"0.ff", false}}, false},
        {"0.a is 0.10", {{"0.a", false}, {"1.0", true}}, true},
        {"0.64 ties with 1.0, the first listed wins", {{"1.0", true}, {"0.64", false}}, false},
        {"only 0.0", {{"0.0", true}}, false},
        {"a name too long ends the list", {{"1.0", true}, {"1.0000000001", false}}, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchClass registration;
        for (const auto& version : row.versions)
            RegisterLibrary(registration, version.first, version.second ? FixturePath() : "C:\\missing\\nothing.tlb");
        EXPECT_EQ(static_cast<bool>(LoadRegisteredTypeLib(kLibraryId)), row.loads);
    }
    EXPECT_FALSE(LoadRegisteredTypeLib(nullptr));
}

}  // namespace
