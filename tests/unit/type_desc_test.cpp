#include <gtest/gtest.h>

#include <memory>

#include "metaobj/type_desc.h"
#include "tests/support/leak_check.h"

using namespace MetaObj;

namespace {

// An enumeration array inside a struct inside a struct: every container at once.
std::unique_ptr<CTypeDesc> MakeNestedType()
{
    auto outer = std::make_unique<CTypeDesc>(MetaTypeStruct, 0, 0);
    outer->SetStructName(L"Outer");
    auto inner = new CTypeDesc(MetaTypeStruct, 0, 0);
    inner->SetStructName(L"Inner");
    inner->memberName = L"inner";
    auto colours = new CTypeDesc(MetaTypeEnum, 1, 1);
    colours->typeName = L"Colour";
    colours->memberName = L"colours";
    colours->enumValues->Add(L"Red", 1);
    colours->enumValues->Add(L"Blue", -7);
    colours->bounds->Add(1, 3);
    EXPECT_TRUE(inner->AddStructMember(colours));
    EXPECT_TRUE(outer->AddStructMember(inner));
    return outer;
}

const CTypeDesc& OnlyMember(const CTypeDesc& type)
{
    EXPECT_EQ(type.structBody->members.size(), 1u);
    return *type.structBody->members.front();
}

void ExpectNestedType(const CTypeDesc& outer)
{
    ASSERT_NE(outer.structBody, nullptr);
    EXPECT_EQ(outer.GetStructName().Compare(L"Outer", 0), 0);
    const CTypeDesc& inner = OnlyMember(outer);
    EXPECT_EQ(inner.memberName.Compare(L"inner", 0), 0);
    const CTypeDesc& colours = OnlyMember(inner);
    EXPECT_EQ(colours.type, MetaTypeEnum);
    EXPECT_EQ(colours.isByRef, 1);
    ASSERT_NE(colours.enumValues, nullptr);
    ASSERT_EQ(colours.enumValues->size(), 2u);
    EXPECT_EQ(colours.enumValues->back()->name.Compare(L"Blue", 0), 0);
    EXPECT_EQ(colours.enumValues->back()->value, -7);
    std::int32_t lower = 0, count = 0;
    EXPECT_TRUE(colours.bounds->GetBound(0, &lower, &count));
    EXPECT_EQ(lower, 1);
    EXPECT_EQ(count, 3);
}

TEST(TypeDescTest, CopiesAreDeepAndOutliveTheirSource)
{
    auto source = MakeNestedType();
    CTypeDesc copy(*source);
    ExpectNestedType(copy);

    // Changing the source's innermost list leaves the copy alone.
    CTypeDesc& sourceColours = *source->structBody->members.front()->structBody->members.front();
    sourceColours.enumValues->front()->name = L"Green";
    sourceColours.bounds->Add(0, 2);
    source.reset();
    ExpectNestedType(copy);

    CTypeDesc assigned;
    assigned.typeName = L"old";
    assigned.EnsureBounds();
    assigned = copy;
    ExpectNestedType(assigned);
    EXPECT_EQ(assigned.bounds, nullptr);
}

TEST(TypeDescTest, AssignReplacesEverythingAndKeepsTheEnumerationCode)
{
    auto target = MakeNestedType();
    target->Assign(CTypeDesc());
    EXPECT_EQ(target->type, MetaTypeVoid);
    EXPECT_EQ(target->structBody, nullptr);
    EXPECT_TRUE(target->GetStructName().IsEmpty());

    CTypeDesc changed(MetaTypeEnum, 0, 0);
    changed.enumValues->Add(L"One", 1);
    changed.type = MetaTypeInt;  // by hand, as a sloppy caller might
    CTypeDesc copy(changed);
    EXPECT_EQ(copy.type, MetaTypeEnum);

    copy = copy;  // no-op rather than self-destruction
    ASSERT_NE(copy.enumValues, nullptr);
    EXPECT_EQ(copy.enumValues->size(), 1u);
}

TEST(TypeDescTest, RefusalsLeaveArgumentsWithTheCaller)
{
    CTypeDesc plain(MetaTypeInt, 0, 1);
    auto member = std::make_unique<CTypeDesc>(MetaTypeInt, 0, 0);
    EXPECT_FALSE(plain.AddStructMember(member.get()));
    EXPECT_FALSE(plain.AddStructMember(nullptr));

    plain.bounds->Add(0, 4);
    std::int32_t lower = 12345, count = 12345;
    EXPECT_FALSE(plain.bounds->GetBound(1, &lower, &count));
    EXPECT_EQ(lower, 12345);
    EXPECT_EQ(count, 12345);
    EXPECT_TRUE(plain.GetStructName().IsEmpty());
}

TEST(TypeDescTest, BuildingCopyingAndDroppingTreesFreesEveryBlock)
{
    EXPECT_EQ(BlocksLeftBy([] {
                  for (int round = 0; round < 20; ++round) {
                      auto source = MakeNestedType();
                      CTypeDesc copy(*source);
                      copy.Assign(*source);
                      source->Clear();
                      copy.structBody->Clear();
                  }
              }),
              0);
}

}  // namespace
