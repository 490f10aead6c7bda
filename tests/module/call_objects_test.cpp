// Objects through the module's calls on the call fixture: as results, out and
// in/out parameters, taken in and held. Whatever a call does, once its items
// are freed every count is back where it started and every object it made is gone.

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"

using namespace MetaObj;

namespace {

using CallObjectsTest = CallTest;

LONG IdOf(IDispatch* child)
{
    ScopedVariant id;
    if (FAILED(CallByName(child, L"Id", DISPATCH_PROPERTYGET, {}, id.Get())) || V_VT(id.Get()) != VT_I4)
        return -1;
    return V_I4(id.Get());
}

TEST_F(CallObjectsTest, EveryReferenceComesBack)
{
    struct Row {
        const char* label;
        const wchar_t* key;
        // Makes the parameter from the object that the test holds; none without this.
        std::function<Param(IDispatch*)> param;
        ULONG heldAfterCall;  // references on the test's object while the items stand
        long madeByCall;      // fixture objects the call made that are still alive then
        std::function<void(IDispatch* held, const CMetaObjectItem* param, const CMetaObjectItem* result)> check;
        const wchar_t* then;  // a call after the items are gone, or null
    };
    const auto in = [this](const wchar_t* signature) {
        return [this, signature](IDispatch* held) { return ObjectItem(held, signature); };
    };
    enum Holding { Empty, HoldsIt };
    const auto byRef = [this](Holding holding, const wchar_t* signature, std::int32_t direction) {
        return [this, holding, signature, direction](IDispatch* held) {
            return ByRef(ObjectItem(holding == HoldsIt ? held : nullptr, signature), direction);
        };
    };
    const auto resultHolds = [](std::function<bool(IDispatch* held, IDispatch* got)> wanted) {
        return [wanted](IDispatch* held, const CMetaObjectItem*, const CMetaObjectItem* result) {
            IDispatch* got = ObjectOf(result);
            EXPECT_TRUE(wanted(held, got));
            if (got && got != held) {
                EXPECT_EQ(RefCount(got), 1u);  // the result's handler alone
            }
        };
    };
    const auto paramHoldsANewChild = [](IDispatch* held, const CMetaObjectItem* param, const CMetaObjectItem*) {
        IDispatch* got = ObjectOf(param);
        ASSERT_NE(got, nullptr);
        EXPECT_NE(got, held);
        EXPECT_EQ(RefCount(got), 1u);  // the parameter's new handler alone
        EXPECT_GT(IdOf(got), 0);
    };
    const Row rows[] = {
        {"a result", L"Invoke:MakeChild", nullptr, 1, 1,
         resultHolds([](IDispatch*, IDispatch* got) { return got != nullptr; }), nullptr},
        {"a null object result holds nothing", L"Invoke:NullChild", nullptr, 1, 0,
         [](IDispatch*, const CMetaObjectItem*, const CMetaObjectItem* result) {
             const auto* object = dynamic_cast<const CMetaObjectObject*>(result);
             ASSERT_TRUE(object && object->handler);
             EXPECT_EQ(object->handler->GetDispatchPointer(), nullptr);
         },
         nullptr},
        {"taken in and given back", L"Invoke:EchoDispatch", in(L"VT_DISPATCH"), 3, 0,
         resultHolds([](IDispatch* held, IDispatch* got) { return got == held; }), nullptr},
        {"taken in as IUnknown and given back", L"Invoke:EchoUnknown", in(L"VT_UNKNOWN"), 3, 0,
         resultHolds([](IDispatch* held, IDispatch* got) { return got == held; }), nullptr},
        {"taken in and answered", L"Invoke:ChildId", in(L"VT_DISPATCH"), 2, 0,
         [](IDispatch* held, const CMetaObjectItem*, const CMetaObjectItem* result) {
             const auto* id = dynamic_cast<const CMetaObjectInt*>(result);
             ASSERT_NE(id, nullptr);
             EXPECT_EQ(id->value, IdOf(held));
         },
         nullptr},
        {"held until dropped", L"Invoke:Hold", in(L"VT_DISPATCH"), 3, 0, nullptr, L"Invoke:DropHeld"},
        {"set by reference as the target", L"Setref:Target", in(L"VT_DISPATCH"), 3, 0, nullptr, L"Invoke:DropHeld"},
        {"out into an empty item", L"Invoke:OutDispatch", byRef(Empty, L"VT_DISPATCH", kOut), 1, 1,
         paramHoldsANewChild, nullptr},
        {"out over an item that held an object", L"Invoke:OutDispatch", byRef(HoldsIt, L"VT_DISPATCH", kOut), 1, 1,
         paramHoldsANewChild, nullptr},
        {"out as IUnknown", L"Invoke:OutUnknown", byRef(Empty, L"VT_UNKNOWN", kOut), 1, 1, paramHoldsANewChild,
         nullptr},
        {"in/out swapped for a new child", L"Invoke:RefDispatch", byRef(HoldsIt, L"VT_DISPATCH", kInOut), 1, 1,
         paramHoldsANewChild, nullptr},
        {"in/out as IUnknown swapped", L"Invoke:RefUnknown", byRef(HoldsIt, L"VT_UNKNOWN", kInOut), 1, 1,
         paramHoldsANewChild, nullptr},
        {"in/out from an empty item", L"Invoke:RefDispatch", byRef(Empty, L"VT_DISPATCH", kInOut), 1, 1,
         paramHoldsANewChild, nullptr},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        ScopedVariant made;
        ASSERT_EQ(CallByName(handler.GetDispatchPointer(), L"MakeChild", DISPATCH_METHOD, {}, made.Get()), S_OK);
        IDispatch* held = V_DISPATCH(made.Get());
        ASSERT_EQ(RefCount(held), 1u);
        const long base = server.LiveObjects();  // the fixture and the test's object
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            {
                const Param param = row.param ? row.param(held) : Param();
                std::vector<CMetaObjectItem*> params;
                if (param)
                    params.push_back(param.get());
                const Outcome outcome = Call(handler, row.key, params);
                ASSERT_EQ(outcome.status, MetaStatusOk);
                EXPECT_EQ(RefCount(held), row.heldAfterCall);
                EXPECT_EQ(server.LiveObjects(), base + row.madeByCall);
                if (row.check)
                    row.check(held, param.get(), outcome.result.get());
            }
            if (row.then) {
                EXPECT_EQ(Call(handler, row.then).status, MetaStatusOk);
            }
            EXPECT_EQ(RefCount(held), 1u);
            EXPECT_EQ(server.LiveObjects(), base);
        }
        // A result nobody asks for is let go at once.
        EXPECT_EQ(Call(handler, L"Invoke:MakeChild", {}, false).status, MetaStatusOk);
        EXPECT_EQ(server.LiveObjects(), base);
    });
}

}  // namespace
