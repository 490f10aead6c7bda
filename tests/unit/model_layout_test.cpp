// Host and module both reach items and records by position: these tests pin the
// order of the item table and of the fields that cross.

#include <gtest/gtest.h>

#include "metaobj/array_walker.h"
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "tests/support/slot_of.h"

using namespace MetaObj;

namespace {

struct SlotRow {
    const char* name;
    std::ptrdiff_t slot;
};

#define ITEM_SLOT(op) SlotRow{#op, SlotOf(&CMetaObjectItem::op)}

TEST(ModelLayoutTest, ItemOperationsKeepTheHostsOrder)
{
    using Mutable = CTypeDesc& (CMetaObjectItem::*)();
    using Constant = const CTypeDesc& (CMetaObjectItem::*)() const;
    const SlotRow rows[] = {
        ITEM_SLOT(Clear),
        ITEM_SLOT(Clone),
        {"GetTypeDesc", SlotOf(static_cast<Mutable>(&CMetaObjectItem::GetTypeDesc))},
        {"GetTypeDesc const", SlotOf(static_cast<Constant>(&CMetaObjectItem::GetTypeDesc))},
        ITEM_SLOT(IsType),        ITEM_SLOT(GetValue),       ITEM_SLOT(SetValue),       ITEM_SLOT(GetValueWide),
        ITEM_SLOT(SetValueWide),  ITEM_SLOT(GetValueNarrow), ITEM_SLOT(SetValueNarrow), ITEM_SLOT(SetName),
        ITEM_SLOT(GetName),       ITEM_SLOT(SetTagText),     ITEM_SLOT(GetTagText),     ITEM_SLOT(SetDirection),
        ITEM_SLOT(GetDirection),  ITEM_SLOT(HasTagText),     ITEM_SLOT(IsVarParam),     ITEM_SLOT(GetHostFlagOne),
        ITEM_SLOT(SetHostFlagOne), ITEM_SLOT(SetOptional),   ITEM_SLOT(GetOptional),    ITEM_SLOT(SetOmitted),
        ITEM_SLOT(GetOmitted),    ITEM_SLOT(GetNewObject),   ITEM_SLOT(SetNewObject),   ITEM_SLOT(GetHostFlagTwo),
        ITEM_SLOT(SetHostFlagTwo), ITEM_SLOT(ParseVarParam), ITEM_SLOT(MakeVarParam),
    };
    std::ptrdiff_t expected = 2;  // the destructor's two slots come first
    for (const SlotRow& row : rows)
        EXPECT_EQ(row.slot, expected++) << row.name;
    EXPECT_EQ(expected, 33);  // 32 entries, the destructor counted once
}

TEST(ModelLayoutTest, ItemFieldsFollowTheTablePointerInOrder)
{
    CMetaObjectInt item(0);
    const std::ptrdiff_t offsets[] = {
        OffsetIn(item, item.name),        OffsetIn(item, item.tagText),     OffsetIn(item, item.direction),
        OffsetIn(item, item.hostFlagOne), OffsetIn(item, item.optional),    OffsetIn(item, item.newObject),
        OffsetIn(item, item.hostFlagTwo), OffsetIn(item, item.omitted),     OffsetIn(item, item.typeDesc),
        OffsetIn(item, item.valueFormat), OffsetIn(item, item.value),
    };
    EXPECT_EQ(offsets[0], static_cast<std::ptrdiff_t>(sizeof(void*)));
    for (std::size_t field = 1; field < sizeof offsets / sizeof offsets[0]; ++field)
        EXPECT_LT(offsets[field - 1], offsets[field]) << field;
    // The five flags are single bytes side by side.
    EXPECT_EQ(offsets[7] - offsets[3], 4);
}

TEST(ModelLayoutTest, TypeDescriptorAndRecordFieldsInOrder)
{
    CTypeDesc type;
    EXPECT_EQ(OffsetIn(type, type.enumValues), static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_LT(OffsetIn(type, type.enumValues), OffsetIn(type, type.bounds));
    EXPECT_LT(OffsetIn(type, type.bounds), OffsetIn(type, type.structBody));
    EXPECT_LT(OffsetIn(type, type.structBody), OffsetIn(type, type.type));
    EXPECT_LT(OffsetIn(type, type.isByRef), OffsetIn(type, type.typeName));
    EXPECT_LT(OffsetIn(type, type.signature), OffsetIn(type, type.memberName));

    CParamInfo param;
    EXPECT_EQ(OffsetIn(param, param.reserved), static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_LT(OffsetIn(param, param.index), OffsetIn(param, param.name));
    EXPECT_LT(OffsetIn(param, param.type), OffsetIn(param, param.direction));
    EXPECT_EQ(OffsetIn(param, param.isAny) - OffsetIn(param, param.isOptional), 1);

    CMethodEntry entry;
    EXPECT_EQ(OffsetIn(entry, entry.displayName), 0);  // no table pointer
    EXPECT_LT(OffsetIn(entry, entry.kind), OffsetIn(entry, entry.params));

    std::int32_t vector[1] = {};
    CArrayWalker walker(1, vector, vector, vector);
    EXPECT_EQ(OffsetIn(walker, walker.dimensionCount), 0);
    EXPECT_LT(OffsetIn(walker, walker.isFinished), OffsetIn(walker, walker.lower));
    EXPECT_LT(OffsetIn(walker, walker.upper), OffsetIn(walker, walker.current));
}

}  // namespace
