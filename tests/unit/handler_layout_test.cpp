// The host reaches the handler's operations and fields by position: these tests
// pin both, so a reordering in the headers fails here.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/support/slot_of.h"

using MetaObj::CMetaObjectHandler;

namespace {

struct SlotRow {
    const char* name;
    std::ptrdiff_t slot;
};

#define BASE_SLOT(op) SlotRow{#op, SlotOf(&CMetaObjectHandler::op)}
#define COM_SLOT(op) SlotRow{#op, SlotOf(&CMetaObjectCOMHandler::op)}

TEST(HandlerLayoutTest, VirtualOperationsKeepTheHostsOrder)
{
    // The virtual destructor sits between IsObjectAttached and SetIdentity and
    // takes two slots (complete and deleting), so SetIdentity is slot 7.
    const SlotRow rows[] = {
        BASE_SLOT(OpenObject),          BASE_SLOT(CloseObject),         BASE_SLOT(OnObjectOpened),
        BASE_SLOT(OnObjectClosing),     BASE_SLOT(IsObjectAttached),    BASE_SLOT(SetIdentity),
        BASE_SLOT(IsOpen),              BASE_SLOT(Open),                BASE_SLOT(AddUse),
        BASE_SLOT(FreeObjectInfo),      BASE_SLOT(FreeMethodInfo),      BASE_SLOT(FreeItem),
        BASE_SLOT(FreeParamInfo),       BASE_SLOT(FreeRecordList1),     BASE_SLOT(FreeRecordList2),
        BASE_SLOT(FreeRecordList3),     BASE_SLOT(FreeMethodNameList),  BASE_SLOT(Release),
        BASE_SLOT(GetUseCount),         BASE_SLOT(CanLoadObjectInfo),   BASE_SLOT(GetObjectPointer),
        BASE_SLOT(GetDispatchPointer),  BASE_SLOT(LoadObjectInfo),      BASE_SLOT(UnloadObjectInfo),
        BASE_SLOT(GetMethodNames),      BASE_SLOT(GetMethodCount),      BASE_SLOT(GetMethodInfo),
        BASE_SLOT(GetParamInfo),        BASE_SLOT(GetObjectInfo),       BASE_SLOT(SplitMethodName),
        BASE_SLOT(MakeMethodName),      BASE_SLOT(GetTypeSignature),    BASE_SLOT(CreateMethodInvoke),
        BASE_SLOT(SetInvokeParams),     BASE_SLOT(SetInvokeResultType), BASE_SLOT(ExecuteInvoke),
        BASE_SLOT(FreeMethodInvoke),    BASE_SLOT(OpenEnumerator),      BASE_SLOT(ResetEnumerator),
        BASE_SLOT(NextElements),        BASE_SLOT(SkipElements),        BASE_SLOT(CountElements),
        BASE_SLOT(CloseEnumerator),     BASE_SLOT(GetErrorText),        BASE_SLOT(GetHandlerInfo),
        COM_SLOT(AttachObject),         COM_SLOT(DetachObject),
    };
    std::ptrdiff_t expected = 0;
    for (const SlotRow& row : rows) {
        if (expected == 5)
            expected = 7;  // the destructor's two slots
        EXPECT_EQ(row.slot, expected) << row.name;
        ++expected;
    }
    EXPECT_EQ(expected, 49);  // 46 operations of the base, two of them the destructor's, and two more
}

TEST(HandlerLayoutTest, FieldsFollowTheVirtualTablePointerInOrder)
{
    CMetaObjectCOMHandler handler;
    EXPECT_EQ(OffsetIn(handler, handler.useCount), static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_LT(OffsetIn(handler, handler.useCount), OffsetIn(handler, handler.lock));
    EXPECT_LT(OffsetIn(handler, handler.lock), OffsetIn(handler, handler.identity));
    EXPECT_LT(OffsetIn(handler, handler.identity), OffsetIn(handler, handler.dcomEnabled));
    EXPECT_LT(OffsetIn(handler, handler.dcomEnabled), OffsetIn(handler, handler.object));

    MetaObj::CMetaLock& lock = handler.lock;
    EXPECT_EQ(OffsetIn(lock, lock.kind), 0);
    EXPECT_EQ(OffsetIn(lock, lock.section), static_cast<std::ptrdiff_t>(sizeof(void*)));

    const MetaObj::CObjectIdentity& identity = handler.identity;
    EXPECT_EQ(OffsetIn(identity, identity.identityText), static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_LT(OffsetIn(identity, identity.identityText), OffsetIn(identity, identity.scheme));
    EXPECT_LT(OffsetIn(identity, identity.scheme), OffsetIn(identity, identity.objectName));
    EXPECT_LT(OffsetIn(identity, identity.objectName), OffsetIn(identity, identity.baseText));
    EXPECT_LT(OffsetIn(identity, identity.baseText), OffsetIn(identity, identity.attributes));
}

TEST(HandlerLayoutTest, InfoRecordFieldsInOrder)
{
    CCOMHandlerInfo info;
    EXPECT_EQ(OffsetIn(info, info.name), static_cast<std::ptrdiff_t>(sizeof(void*)));
    const std::ptrdiff_t offsets[] = {OffsetIn(info, info.name),        OffsetIn(info, info.typeName),
                                      OffsetIn(info, info.description), OffsetIn(info, info.modulePath),
                                      OffsetIn(info, info.moduleDirectory), OffsetIn(info, info.smallIcon),
                                      OffsetIn(info, info.standardIcon),    OffsetIn(info, info.moduleHandle)};
    for (std::size_t i = 1; i < sizeof offsets / sizeof offsets[0]; ++i)
        EXPECT_EQ(offsets[i] - offsets[i - 1], static_cast<std::ptrdiff_t>(i <= 5 ? sizeof(MetaObj::CMetaString)
                                                                                  : sizeof(void*)))
            << "field " << i;
    // A CMetaString is its two pointers, wide then narrow.
    EXPECT_EQ(sizeof(MetaObj::CMetaString), 2 * sizeof(void*));
    MetaObj::CMetaString text(L"x");
    EXPECT_EQ(*reinterpret_cast<const wchar_t* const*>(&text), text.GetWide());
}

}  // namespace
