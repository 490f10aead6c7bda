// The host reaches the module's operations by virtual slot and its fields by
// offset: these rows pin both, so a reordering in the headers fails here.

#include <gtest/gtest.h>

#include <vector>

#include "metaobj/array_walker.h"
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/support/slot_of.h"
#include "text/mox_data.h"

using namespace MetaObj;

namespace {

struct Slot {
    const char* name;
    std::ptrdiff_t slot;
};
#define SLOT(Class, op) Slot{#op, SlotOf(&Class::op)}
#define H(op) SLOT(CMetaObjectHandler, op)
#define I(op) SLOT(CMetaObjectItem, op)
#define T(op) SLOT(MoxText, op)

TEST(LayoutTest, VirtualOperationsKeepTheHostsOrder)
{
    using Mutable = CTypeDesc& (CMetaObjectItem::*)();
    using Constant = const CTypeDesc& (CMetaObjectItem::*)() const;
    const struct {
        const char* table;
        std::ptrdiff_t first, destructorAt;  // the destructor takes two slots (complete and deleting)
        std::vector<Slot> slots;
    } tables[] = {
        {"handler", 0, 5, {H(OpenObject), H(CloseObject), H(OnObjectOpened), H(OnObjectClosing), H(IsObjectAttached),
          H(SetIdentity), H(IsOpen), H(Open), H(AddUse), H(FreeObjectInfo), H(FreeMethodInfo), H(FreeItem),
          H(FreeParamInfo), H(FreeRecordList1), H(FreeRecordList2), H(FreeRecordList3), H(FreeMethodNameList),
          H(Release), H(GetUseCount), H(CanLoadObjectInfo), H(GetObjectPointer), H(GetDispatchPointer),
          H(LoadObjectInfo), H(UnloadObjectInfo), H(GetMethodNames), H(GetMethodCount), H(GetMethodInfo),
          H(GetParamInfo), H(GetObjectInfo), H(SplitMethodName), H(MakeMethodName), H(GetTypeSignature),
          H(CreateMethodInvoke), H(SetInvokeParams), H(SetInvokeResultType), H(ExecuteInvoke), H(FreeMethodInvoke),
          H(OpenEnumerator), H(ResetEnumerator), H(NextElements), H(SkipElements), H(CountElements),
          H(CloseEnumerator), H(GetErrorText), H(GetHandlerInfo), SLOT(CMetaObjectCOMHandler, AttachObject),
          SLOT(CMetaObjectCOMHandler, DetachObject)}},
        {"item", 2, -1, {I(Clear), I(Clone), {"GetTypeDesc", SlotOf(static_cast<Mutable>(&CMetaObjectItem::GetTypeDesc))},
          {"GetTypeDesc const", SlotOf(static_cast<Constant>(&CMetaObjectItem::GetTypeDesc))}, I(IsType), I(GetValue),
          I(SetValue), I(GetValueWide), I(SetValueWide), I(GetValueNarrow), I(SetValueNarrow), I(SetName), I(GetName),
          I(SetTagText), I(GetTagText), I(SetDirection), I(GetDirection), I(HasTagText), I(IsVarParam),
          I(GetHostFlagOne), I(SetHostFlagOne), I(SetOptional), I(GetOptional), I(SetOmitted), I(GetOmitted),
          I(GetNewObject), I(SetNewObject), I(GetHostFlagTwo), I(SetHostFlagTwo), I(ParseVarParam), I(MakeVarParam)}},
        {"text", 2, -1, {T(SetLength), T(GetLength), T(Reserve), T(Detach), T(Free), T(Empty), T(EqualsBytes),
          T(Equals), T(SetBytes), T(Assign), T(ReadAt), T(Read), T(CopyTo), T(ReplaceNumber), T(ReplaceByte),
          T(Replace), T(ReplaceData), T(ReadPascalAt), T(ReadPascal), T(ReplaceText), T(ReplaceAll),
          T(ReplaceAllExact), T(ReplaceNth), T(EqualsBytesCase), T(EqualsCase), T(MatchesHead)}},
    };
    for (const auto& table : tables) {
        std::ptrdiff_t expected = table.first;
        for (const Slot& slot : table.slots) {
            if (expected == table.destructorAt)
                expected += 2;
            EXPECT_EQ(slot.slot, expected++) << table.table << "::" << slot.name;
        }
    }
    using ReadAtFn = std::uint32_t (MoxData::*)(char*, std::uint32_t, std::uint32_t, std::uint32_t);
    EXPECT_EQ(SlotOf(static_cast<ReadAtFn>(&MoxData::ReadAt)), SlotOf(static_cast<ReadAtFn>(&MoxText::ReadAt)));
}

#define AT(object, field) OffsetIn(object, object.field)

TEST(LayoutTest, FieldsFollowInTheHostsOrder)
{
    CMetaObjectCOMHandler handler;
    CObjectIdentity& identity = handler.identity;
    CCOMHandlerInfo info;
    CMetaObjectInt item(0);
    CTypeDesc type;
    CParamInfo param;
    CMethodEntry entry;
    std::int32_t vector[1] = {};
    CArrayWalker walker(1, vector, vector, vector);
    MoxText text;
    const std::ptrdiff_t word = sizeof(void*), string = sizeof(CMetaString);
    const struct {
        const char* record;
        std::ptrdiff_t first;                 // the first field's offset
        std::vector<std::ptrdiff_t> offsets;  // strictly ascending
    } records[] = {
        {"handler", word, {AT(handler, useCount), AT(handler, lock), AT(handler, identity), AT(handler, dcomEnabled),
                           AT(handler, object)}},
        {"lock", 0, {AT(handler.lock, kind), AT(handler.lock, section)}},
        {"identity", word, {AT(identity, identityText), AT(identity, scheme), AT(identity, objectName),
                            AT(identity, baseText), AT(identity, attributes)}},
        {"item", word, {AT(item, name), AT(item, tagText), AT(item, direction), AT(item, hostFlagOne),
                        AT(item, optional), AT(item, newObject), AT(item, hostFlagTwo), AT(item, omitted),
                        AT(item, typeDesc), AT(item, valueFormat), AT(item, value)}},
        {"type", word, {AT(type, enumValues), AT(type, bounds), AT(type, structBody), AT(type, type),
                        AT(type, isByRef), AT(type, typeName), AT(type, signature), AT(type, memberName)}},
        {"param", word, {AT(param, reserved), AT(param, index), AT(param, name), AT(param, type),
                         AT(param, direction), AT(param, isOptional), AT(param, isAny)}},
        {"method entry", 0, {AT(entry, displayName), AT(entry, kind), AT(entry, params)}},
        {"walker", 0, {AT(walker, dimensionCount), AT(walker, isFinished), AT(walker, lower), AT(walker, upper),
                       AT(walker, current)}},
        {"text", word, {AT(text, data), AT(text, length), AT(text, capacity), AT(text, isFixed)}},
    };
    for (const auto& record : records) {
        SCOPED_TRACE(record.record);
        EXPECT_EQ(record.offsets.front(), record.first);
        for (std::size_t i = 1; i < record.offsets.size(); ++i)
            EXPECT_LT(record.offsets[i - 1], record.offsets[i]) << "field " << i;
    }
    EXPECT_EQ(AT(handler.lock, section), word);
    EXPECT_EQ(AT(item, omitted) - AT(item, hostFlagOne), 4);  // the five flags are bytes side by side
    EXPECT_EQ(AT(param, isAny) - AT(param, isOptional), 1);
    const std::ptrdiff_t infoFields[] = {AT(info, name), AT(info, typeName), AT(info, description),
                                         AT(info, modulePath), AT(info, moduleDirectory), AT(info, smallIcon),
                                         AT(info, standardIcon), AT(info, moduleHandle)};
    EXPECT_EQ(infoFields[0], word);
    for (std::size_t i = 1; i < 8; ++i)
        EXPECT_EQ(infoFields[i] - infoFields[i - 1], i <= 5 ? string : word) << "information field " << i;
    EXPECT_EQ(string, 2 * word);
    CMetaString wide(L"x");
    EXPECT_EQ(*reinterpret_cast<const wchar_t* const*>(&wide), wide.GetWide());
}

}  // namespace
