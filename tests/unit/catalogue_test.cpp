#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "contract/host_environment.h"
#include "host/reference_host.h"
#include "metaobj/records.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/leak_check.h"

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

TEST_F(CatalogueTest, DescribesAPlatformClassAtDesignTime)
{
    ASSERT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary"), MetaStatusOk);
    const std::vector<std::string> keys = Keys();
    for (const char* key : {"Invoke:Add", "Get:Count", "Get:Item", "Set:Item", "Invoke:Exists"})
        EXPECT_TRUE(Holds(keys, key)) << key;
    for (const char* key : {"Invoke:_NewEnum", "Invoke:QueryInterface", "Invoke:Invoke"})
        EXPECT_FALSE(Holds(keys, key)) << key;
    EXPECT_EQ(handler.GetMethodCount(), keys.size());

    CMethodInfo* info = nullptr;
    ASSERT_EQ(handler.GetMethodInfo(L"Get:Count", 31, &info, 77), MetaStatusOk);
    EXPECT_EQ(Narrow(info->displayName), "getCount");
    EXPECT_EQ(info->returnType.type, MetaTypeInt);
    EXPECT_EQ(info->kind, MethodKindGet);
    EXPECT_EQ(info->paramCount, 0u);
    EXPECT_EQ(info->clientData, 77u);
    handler.FreeMethodInfo(info);

    ASSERT_EQ(handler.GetMethodInfo(L"Add", 0, &info, 5), MetaStatusOk);  // a bare name is an invocation
    EXPECT_TRUE(info->displayName.IsEmpty());
    EXPECT_EQ(Narrow(info->methodKey), "Add");
    EXPECT_EQ(info->clientData, 5u);
    handler.FreeMethodInfo(info);

    CParamInfo* param = nullptr;
    ASSERT_EQ(handler.GetParamInfo(L"Invoke:Add", 1, 31, &param, 0), MetaStatusOk);
    EXPECT_EQ(Narrow(param->name), "Item");
    EXPECT_EQ(param->isAny, 1);
    EXPECT_EQ(param->direction, 0u);
    EXPECT_EQ(param->index, 1u);
    handler.FreeParamInfo(param);
    EXPECT_EQ(handler.GetParamInfo(L"Invoke:Add", 2, 31, &param, 0), MetaStatusBadIdentity);
    EXPECT_EQ(handler.GetParamInfo(L"Invoke:NoSuchThing", 0, 31, &param, 0), MetaStatusNoTypeInfo);
    EXPECT_EQ(handler.GetMethodInfo(L"set:count", 31, &info, 0), MetaStatusNoTypeInfo);  // names keep their case

    handler.UnloadObjectInfo();
    const std::vector<std::string> expectedEnds = {"End", "Release"};
    const std::vector<std::string> calls = host.LoadCalls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(calls.front(), "Begin");
    EXPECT_EQ(std::vector<std::string>(calls.end() - 2, calls.end()), expectedEnds);
}

TEST_F(CatalogueTest, StatusesOfLoadsThatCannotGoAhead)
{
    EXPECT_EQ(handler.LoadObjectInfo(""), MetaStatusBadIdentity);
    EXPECT_EQ(handler.LoadObjectInfo("Scripting.Dictionary"), MetaStatusBadIdentity);

    EXPECT_EQ(handler.LoadObjectInfo("COM://No.Such.Class"), MetaStatusNoTypeInfo);
    EXPECT_EQ(Narrow(handler.GetErrorText()), "Could not load type library");
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

    // Loaded once, the host says there is nothing to load: no reading at all.
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

TEST_F(CatalogueTest, ALibraryAttributeThatIsNoIdentifierFindsNothing)
{
    EXPECT_EQ(handler.LoadObjectInfo("COM://Scripting.Dictionary?TypeLib=nonsense"), MetaStatusNoTypeInfo);
    EXPECT_EQ(Narrow(handler.GetErrorText()), "Could not load type library");
}

// One design-time round: load, every description, rows, frees, unload, a failed load.
void DescribeOnce()
{
    CReferenceHost host;
    SetEnvironmentTable(host.Table());
    CMetaObjectCOMHandler handler;
    handler.LoadObjectInfo("COM://Scripting.FileSystemObject");
    CMethodNameList* names = nullptr;
    if (handler.GetMethodNames(&names) == MetaStatusOk) {
        for (const CMetaString& key : *names) {
            CMethodInfo* info = nullptr;
            if (handler.GetMethodInfo(key, 31, &info, 0) != MetaStatusOk)
                continue;
            for (std::uint32_t index = 0; index < info->paramCount; ++index) {
                CParamInfo* param = nullptr;
                if (handler.GetParamInfo(key, index, 31, &param, 0) == MetaStatusOk)
                    handler.FreeParamInfo(param);
            }
            handler.FreeMethodInfo(info);
        }
        handler.FreeMethodNameList(names);
    }
    CObjectInfo* rows = nullptr;
    handler.GetObjectInfo(&rows, "COM://Scripting.FileSystemObject", true);
    handler.FreeObjectInfo(rows);
    handler.UnloadObjectInfo();
    handler.LoadObjectInfo("COM://No.Such.Class");
    SetEnvironmentTable(nullptr);
}

TEST(CatalogueLeakTest, DescribingAndFreeingGivesBackEveryBlock)
{
    DescribeOnce();  // makes the thread's error-text map, which lives until the thread ends
    EXPECT_EQ(BlocksLeftBy([] {
                  DescribeOnce();
                  DescribeOnce();
              }),
              0);
}

}  // namespace
