#include <gtest/gtest.h>

#include <type_traits>

#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "plugin/com_handler.h"
#include "tests/support/leak_check.h"

using namespace MetaObj;

namespace {

static_assert(!std::is_polymorphic<CMethodEntry>::value && !std::is_polymorphic<CParamEntry>::value,
              "the host copies catalogue entries field by field");
static_assert(std::has_virtual_destructor<CObjectInfo>::value && std::has_virtual_destructor<CObjectProperty>::value &&
                  std::has_virtual_destructor<CMethodInfo>::value && std::has_virtual_destructor<CParamInfo>::value &&
                  std::has_virtual_destructor<CMethodInvokeStatus>::value &&
                  std::has_virtual_destructor<CMetaObjectSecurityInfo>::value,
              "the host frees these records through their destructor");

CObjectInfo* MakeObjectInfo()
{
    auto info = new CObjectInfo;
    info->location = L"C:\\somewhere";
    info->properties.push_back(new CObjectProperty(L"Name", L"Value", 1));
    info->properties.push_back(new CObjectProperty(L"Other", L"", 1));
    return info;
}

CMethodEntry* MakeEntry()
{
    auto entry = new CMethodEntry;
    entry->displayName = L"Get Item";
    entry->methodName = L"Item";
    entry->returnType = CTypeDesc(MetaTypeEnum, 0, 1);
    entry->kind = 2;
    entry->AddParam(new CParamEntry(L"index", CTypeDesc(MetaTypeInt, 0, 0), 0));
    entry->AddParam(new CParamEntry(L"", CTypeDesc(MetaTypeStruct, 1, 0), 2));
    return entry;
}

TEST(RecordsTest, MethodEntryFindsParametersByIndexAndResetsToNew)
{
    CMethodEntry* entry = MakeEntry();
    ASSERT_NE(entry->GetParam(1), nullptr);
    EXPECT_EQ(entry->GetParam(1)->direction, 2u);
    EXPECT_EQ(entry->GetParam(2), nullptr);

    entry->Reset();
    EXPECT_EQ(entry->params, nullptr);
    EXPECT_EQ(entry->GetParam(0), nullptr);
    EXPECT_EQ(entry->kind, 0u);
    EXPECT_EQ(entry->returnType.type, MetaTypeVoid);
    EXPECT_EQ(entry->returnType.bounds, nullptr);
    EXPECT_TRUE(entry->methodName.IsEmpty());
    delete entry;
}

// The four record frees share one body, so each takes any record or item.
TEST(RecordsTest, AnyRecordFreeDeletesAnyRecordWithWhatItOwns)
{
    CMetaObjectCOMHandler handler;
    EXPECT_EQ(BlocksLeftBy([&] {
                  handler.FreeObjectInfo(MakeObjectInfo());
                  handler.FreeItem(reinterpret_cast<CMetaObjectItem*>(MakeObjectInfo()));
                  auto method = new CMethodInfo;
                  method->returnType = CTypeDesc(MetaTypeStruct, 0, 1);
                  handler.FreeParamInfo(reinterpret_cast<CParamInfo*>(method));
                  auto param = new CParamInfo;
                  param->type = CTypeDesc(MetaTypeEnum, 0, 0);
                  param->type.enumValues->Add(L"A", 1);
                  handler.FreeMethodInfo(reinterpret_cast<CMethodInfo*>(param));
                  handler.FreeItem(new CMetaObjectString);
                  handler.FreeObjectInfo(nullptr);
                  handler.FreeItem(nullptr);
                  delete MakeEntry();
              }),
              0);
}

}  // namespace
