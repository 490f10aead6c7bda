// Values and objects through the module's calls on the call fixture: out and
// in/out parameters written back into their items, results of VARIANT types
// made into items, records both ways, and objects as results, out and in/out
// parameters, taken in and held. The translation of each type on its own is
// the unit tests'; these rows take the road through a real Invoke.

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"

using namespace MetaObj;
using namespace FixtureValues;

namespace {

using CallValuesTest = CallTest;
using CallObjectsTest = CallTest;

// A currency or date text read back in the locale the module wrote it in.
double NumberOf(CMetaObjectItem* item, LCID locale)
{
    Bstr text(SysAllocString(ValueText(item).c_str()));
    CY amount{};
    DATE date = -1;
    if (dynamic_cast<const CMetaObjectCurrency*>(item)) {
        EXPECT_EQ(VarCyFromStr(text.Get(), locale, 0, &amount), S_OK) << "currency text";
        return static_cast<double>(amount.int64);
    }
    EXPECT_EQ(VarDateFromStr(text.Get(), locale, 0, &date), S_OK) << "date text";
    return date;
}

// Each row's item as its text shows it; currency and dates as the numbers
// their texts give in the user's locale, where the module wrote them.
TEST_F(CallValuesTest, OutAndInOutParametersAreWrittenBack)
{
    const struct {
        const char* label;
        const wchar_t* key;
        std::function<Param()> item;
        const wchar_t* text;
        double number = 0;
    } rows[] = {
        // In/out: the object changes what went in.
        {"I1 comes back sign-extended", L"Invoke:RefI1", [] { return ByRef(Char(0xFE, L"VT_I1"), kInOut); }, L"\xFFFF"},
        {"I4", L"Invoke:RefI4", [] { return ByRef(Int(41), kInOut); }, L"42"},
        {"R4", L"Invoke:RefR4", [] { return ByRef(Real(2.5, L"VT_R4"), kInOut); }, L"3.500000"},
        {"R8", L"Invoke:RefR8", [] { return ByRef(Real(-0.5), kInOut); }, L"0.500000"},
        {"BOOL", L"Invoke:RefBool", [] { return ByRef(Bool(1), kInOut); }, L"false"},
        {"BSTR", L"Invoke:RefBstr", [] { return ByRef(Text(L"abc"), kInOut); }, L"abc!"},
        {"an empty BSTR goes as null", L"Invoke:RefBstr", [] { return ByRef(Text(L""), kInOut); }, L"!"},
        {"CY", L"Invoke:RefCy", [] { return ByRef(Currency(L"1.5"), kInOut); }, nullptr, 25000},
        {"DATE", L"Invoke:RefDate", [] { return ByRef(Date(L"2024-02-28"), kInOut); }, nullptr, 45351.0},
        {"VARIANT holding a text", L"Invoke:RefVariant", [] { return ByRef(Text(L"abc", L"VT_VARIANT"), kInOut); },
         L"abc!"},
        {"enumeration", L"Invoke:RefColour", [] { return ByRef(Colour(2), kInOut); }, L"7"},

        // Out: the object writes its value over whatever the item held.
        {"out I1", L"Invoke:OutI1", [] { return ByRef(Char(L'x', L"VT_I1"), kOut); }, L"\xFFFB"},
        {"out BOOL", L"Invoke:OutBool", [] { return ByRef(Bool(0), kOut); }, L"true"},
        {"out BSTR", L"Invoke:OutBstr", [] { return ByRef(Text(L"stale"), kOut); }, kOutBstr},
        {"out CY", L"Invoke:OutCy", [] { return ByRef(Currency(L"0"), kOut); }, nullptr, kOutCy},
        {"out DATE loses its time of day", L"Invoke:OutDate", [] { return ByRef(Date(L""), kOut); }, nullptr,
         45351.0},
        {"out VARIANT as text", L"Invoke:OutVariant", [] { return ByRef(Text(L"stale", L"VT_VARIANT"), kOut); },
         L"-7"},
        {"out VARIANT read back as the flag that went", L"Invoke:OutVariant",
         [] {
             Param flag = Bool(0);
             flag->GetTypeDesc().signature = CMetaString(L"VT_VARIANT");
             return ByRef(std::move(flag), kOut);
         },
         L"true"},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            const Param item = row.item();
            ASSERT_EQ(Call(handler, row.key, {item.get()}).status, MetaStatusOk);
            if (row.text) {
                EXPECT_EQ(ValueText(item.get()), row.text);
            } else {
                EXPECT_EQ(NumberOf(item.get(), GetUserDefaultLCID()), row.number);
            }
        }
        // A failed call writes nothing back, whatever the object left in the cells.
        const Param number = ByRef(Int(11), kOut), real = ByRef(Real(2.5), kOut);
        EXPECT_EQ(Call(handler, L"Invoke:FailWithGarbage", {number.get(), real.get()}).status, MetaStatusInvokeFailed);
        EXPECT_EQ(ValueText(number.get()), L"11");
        EXPECT_EQ(ValueText(real.get()), L"2.500000");
    });
}

// VT_NULL is no null item, VT_I8 keeps its low half, and VT_BOOL 1 is not VARIANT_TRUE.
TEST_F(CallValuesTest, ResultsOfVariantTypes)
{
    const std::pair<ShapeRow, const wchar_t*> rows[] = {
        {ShapeNull, L"0"}, {ShapeI8, L"5"}, {ShapeBoolOne, L"false"}, {ShapeError, L"-2147024809"}};
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const auto& [which, text] : rows) {
            SCOPED_TRACE(which);
            const Param argument = Int(which);
            const Outcome outcome = Call(handler, L"Invoke:Shape", {argument.get()});
            ASSERT_EQ(outcome.status, MetaStatusOk);
            ASSERT_NE(outcome.result, nullptr);
            EXPECT_EQ(ValueText(outcome.result.get()), text);
        }
        // An object given as IUnknown is held by the item's handler alone.
        const Param argument = Int(ShapeUnknown);
        const Outcome outcome = Call(handler, L"Invoke:Shape", {argument.get()});
        ASSERT_NE(ObjectOf(outcome.result.get()), nullptr);
        EXPECT_EQ(RefCount(ObjectOf(outcome.result.get())), 1u);
    });
}

TEST_F(CallValuesTest, RecordsInAndOut)
{
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        // The documented signature, and the one a record parameter of a type
        // library gets in the catalogue. An in record stays as it went.
        for (const wchar_t* signature : {L"VT_RECORD", L"VT_BYREF"}) {
            SCOPED_TRACE(Narrow(CMetaString(signature)));
            const Param point = Point(30, 12);
            point->GetTypeDesc().signature = CMetaString(signature);
            const Outcome sum = Call(handler, L"Invoke:SumPoint", {point.get()});
            ASSERT_EQ(sum.status, MetaStatusOk);
            EXPECT_EQ(ValueText(sum.result.get()), L"42");
            EXPECT_EQ(dynamic_cast<CMetaObjectStruct&>(*point).members.size(), 2u);
        }
        const Param x = Int(5), y = Int(-6);
        const Outcome made = Call(handler, L"Invoke:MakePoint", {x.get(), y.get()});
        ASSERT_EQ(made.status, MetaStatusOk);
        const auto& point = dynamic_cast<CMetaObjectStruct&>(*made.result);
        ASSERT_EQ(point.members.size(), 2u);
        EXPECT_EQ(Narrow(point.members.front()->GetTypeDesc().memberName), "x");
        EXPECT_EQ(ValueText(point.members.front()), L"5");
        EXPECT_EQ(Narrow(point.members.back()->GetTypeDesc().memberName), "y");
        EXPECT_EQ(ValueText(point.members.back()), L"-6");
    });
}

// Whatever a call does, once its items are freed every count is back where it
// started and every object it made is gone.
LONG IdOf(IDispatch* child)
{
    ScopedVariant id;
    if (FAILED(CallByName(child, L"Id", DISPATCH_PROPERTYGET, {}, id.Get())) || V_VT(id.Get()) != VT_I4)
        return -1;
    return V_I4(id.Get());
}

TEST_F(CallObjectsTest, EveryReferenceComesBack)
{
    // What the row's call leaves, looked at while its items stand.
    enum class Gives { Nothing, NewResult, HeldBack, NullObject, ItsId, NewChildInParam };
    struct Row {
        const char* label;
        const wchar_t* key;
        // Makes the parameter from the object that the test holds; none without this.
        std::function<Param(IDispatch*)> param;
        ULONG heldAfterCall;  // references on the test's object while the items stand
        long madeByCall;      // fixture objects the call made that are still alive then
        Gives gives;
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
    const Row rows[] = {
        {"a result", L"Invoke:MakeChild", nullptr, 1, 1, Gives::NewResult, nullptr},
        {"a null object result holds nothing", L"Invoke:NullChild", nullptr, 1, 0, Gives::NullObject, nullptr},
        {"taken in and given back", L"Invoke:EchoDispatch", in(L"VT_DISPATCH"), 3, 0, Gives::HeldBack, nullptr},
        {"taken in as IUnknown and given back", L"Invoke:EchoUnknown", in(L"VT_UNKNOWN"), 3, 0, Gives::HeldBack,
         nullptr},
        {"taken in and answered", L"Invoke:ChildId", in(L"VT_DISPATCH"), 2, 0, Gives::ItsId, nullptr},
        {"held until dropped", L"Invoke:Hold", in(L"VT_DISPATCH"), 3, 0, Gives::Nothing, L"Invoke:DropHeld"},
        {"set by reference as the target", L"Setref:Target", in(L"VT_DISPATCH"), 3, 0, Gives::Nothing,
         L"Invoke:DropHeld"},
        {"out into an empty item", L"Invoke:OutDispatch", byRef(Empty, L"VT_DISPATCH", kOut), 1, 1,
         Gives::NewChildInParam, nullptr},
        {"out over an item that held an object", L"Invoke:OutDispatch", byRef(HoldsIt, L"VT_DISPATCH", kOut), 1, 1,
         Gives::NewChildInParam, nullptr},
        {"out as IUnknown", L"Invoke:OutUnknown", byRef(Empty, L"VT_UNKNOWN", kOut), 1, 1, Gives::NewChildInParam,
         nullptr},
        {"in/out swapped for a new child", L"Invoke:RefDispatch", byRef(HoldsIt, L"VT_DISPATCH", kInOut), 1, 1,
         Gives::NewChildInParam, nullptr},
        {"in/out as IUnknown swapped", L"Invoke:RefUnknown", byRef(HoldsIt, L"VT_UNKNOWN", kInOut), 1, 1,
         Gives::NewChildInParam, nullptr},
        {"in/out from an empty item", L"Invoke:RefDispatch", byRef(Empty, L"VT_DISPATCH", kInOut), 1, 1,
         Gives::NewChildInParam, nullptr},
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
                // A new object is held by the new handler of its item alone.
                IDispatch* got = ObjectOf(row.gives == Gives::NewChildInParam ? param.get() : outcome.result.get());
                const auto* object = dynamic_cast<const CMetaObjectObject*>(outcome.result.get());
                switch (row.gives) {
                case Gives::NewResult:
                case Gives::NewChildInParam:
                    EXPECT_TRUE(got && got != held && RefCount(got) == 1u && IdOf(got) > 0);
                    break;
                case Gives::HeldBack:
                    EXPECT_EQ(got, held);
                    break;
                case Gives::NullObject:
                    EXPECT_TRUE(object && object->handler && object->handler->GetDispatchPointer() == nullptr);
                    break;
                case Gives::ItsId:
                    EXPECT_EQ(ValueText(outcome.result.get()), std::to_wstring(IdOf(held)));
                    break;
                case Gives::Nothing:
                    break;
                }
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
