// Values and objects through the module's calls on the call fixture: out and
// in/out parameters written back into their items, results of VARIANT types
// and records made into items, and objects as results, out and in/out
// parameters, taken in and held. The translation of each type on its own is
// the unit tests'; these rows take the road through a real Invoke.

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"

using namespace MetaObj;
using namespace FixtureValues;

namespace {

using CallValuesTest = CallTest;
using CallObjectsTest = CallTest;

// A currency or date text read back in the locale the module wrote it in.
double NumberOf(CMetaObjectItem* item)
{
    ScopedVariant text, number;
    V_VT(text.Get()) = VT_BSTR;
    V_BSTR(text.Get()) = SysAllocString(ValueText(item).c_str());
    const VARTYPE type = dynamic_cast<const CMetaObjectCurrency*>(item) ? VT_CY : VT_DATE;
    EXPECT_EQ(VariantChangeTypeEx(number.Get(), text.Get(), GetUserDefaultLCID(), 0, type), S_OK);
    return type == VT_CY ? static_cast<double>(V_CY(number.Get()).int64) : V_DATE(number.Get());
}

Param Signed(Param item, const wchar_t* signature)
{
    item->GetTypeDesc().signature = CMetaString(signature);
    return item;
}

// An in/out or out item is read back after the call, an in item gives the result's text;
// currency and dates as the numbers their texts give in the user's locale, where the module wrote them.
TEST_F(CallValuesTest, ValuesComeBackIntoTheirItems)
{
    const struct {
        const char* label;
        const wchar_t* key;
        std::function<Param()> item;
        const wchar_t* text;
        double number = 0;
    } rows[] = {
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
        {"out DATE loses its time of day", L"Invoke:OutDate", [] { return ByRef(Date(L""), kOut); }, nullptr, 45351.0},
        {"out VARIANT as text", L"Invoke:OutVariant", [] { return ByRef(Text(L"stale", L"VT_VARIANT"), kOut); }, L"-7"},
        {"out VARIANT read back as the flag that went", L"Invoke:OutVariant",
         [] { return ByRef(Signed(Bool(0), L"VT_VARIANT"), kOut); }, L"true"},
        // Results: VT_NULL is no null item, VT_I8 keeps its low half, VT_BOOL 1 is not VARIANT_TRUE.
        {"VT_NULL", L"Invoke:Shape", [] { return Int(ShapeNull); }, L"0"},
        {"VT_I8", L"Invoke:Shape", [] { return Int(ShapeI8); }, L"5"},
        {"VT_BOOL 1", L"Invoke:Shape", [] { return Int(ShapeBoolOne); }, L"false"},
        {"VT_ERROR", L"Invoke:Shape", [] { return Int(ShapeError); }, L"-2147024809"},
        // The signature a record parameter of a type library gets in the catalogue, and the documented one.
        {"a record in", L"Invoke:SumPoint", [] { return Point(30, 12); }, L"42"},
        {"a record in as VT_BYREF", L"Invoke:SumPoint", [] { return Signed(Point(30, 12), L"VT_BYREF"); }, L"42"},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            const Param item = row.item();
            const Outcome outcome = Call(handler, row.key, {item.get()});
            ASSERT_EQ(outcome.status, MetaStatusOk);
            CMetaObjectItem* const read = item->GetDirection() == kIn ? outcome.result.get() : item.get();
            ASSERT_NE(read, nullptr);
            if (row.text) {
                EXPECT_EQ(ValueText(read), row.text);
            } else {
                EXPECT_EQ(NumberOf(read), row.number);
            }
        }
        // A failed call writes nothing back, whatever the object left in the cells.
        const Param number = ByRef(Int(11), kOut), real = ByRef(Real(2.5), kOut);
        EXPECT_EQ(Call(handler, L"Invoke:FailWithGarbage", {number.get(), real.get()}).status, MetaStatusInvokeFailed);
        EXPECT_EQ(ValueText(number.get()) + L" " + ValueText(real.get()), L"11 2.500000");
        // A record result, its members named.
        const Param x = Int(5), y = Int(-6);
        const Outcome made = Call(handler, L"Invoke:MakePoint", {x.get(), y.get()});
        ASSERT_EQ(made.status, MetaStatusOk);
        std::wstring members;
        for (CMetaObjectItem* member : dynamic_cast<CMetaObjectStruct&>(*made.result).members)
            members += std::wstring(member->GetTypeDesc().memberName.GetWide()) + L"=" + ValueText(member) + L" ";
        EXPECT_EQ(members, L"x=5 y=-6 ");
    });
}

LONG IdOf(IDispatch* child)
{
    ScopedVariant id;
    if (FAILED(CallByName(child, L"Id", DISPATCH_PROPERTYGET, {}, id.Get())) || V_VT(id.Get()) != VT_I4)
        return -1;
    return V_I4(id.Get());
}

// Whatever a call does, once its items are freed every count is back where it
// started and every object it made is gone.
TEST_F(CallObjectsTest, EveryReferenceComesBack)
{
    // What the row's call leaves, looked at while its items stand.
    enum class Gives { Nothing, NewResult, HeldBack, NullObject, ItsId, NewInParam };
    using MakeParam = std::function<Param(IDispatch*)>;  // from the object the test holds
    const auto in = [this](const wchar_t* signature) -> MakeParam {
        return [this, signature](IDispatch* held) { return ObjectItem(held, signature); };
    };
    const auto byRef = [this](bool holding, const wchar_t* signature, std::int32_t direction) -> MakeParam {
        return [=](IDispatch* held) { return ByRef(ObjectItem(holding ? held : nullptr, signature), direction); };
    };
    const MakeParam none = [](IDispatch*) { return Param(); };
    const auto number = [](std::int32_t which) -> MakeParam { return [=](IDispatch*) { return Int(which); }; };
    const struct {
        const char* label;
        const wchar_t* key;
        MakeParam param;
        ULONG heldAfterCall;  // references on the test's object while the items stand
        long madeByCall;      // fixture objects the call made that are still alive then
        Gives gives;          // Nothing: the object stays held until Invoke:DropHeld
    } rows[] = {
        {"a result", L"Invoke:MakeChild", none, 1, 1, Gives::NewResult},
        {"a result given as IUnknown", L"Invoke:Shape", number(ShapeUnknown), 1, 1, Gives::NewResult},
        {"a null object result holds nothing", L"Get:Target", none, 1, 0, Gives::NullObject},
        {"taken in and given back", L"Invoke:EchoDispatch", in(L"VT_DISPATCH"), 3, 0, Gives::HeldBack},
        {"taken in as IUnknown and given back", L"Invoke:EchoUnknown", in(L"VT_UNKNOWN"), 3, 0, Gives::HeldBack},
        {"taken in and answered", L"Invoke:ChildId", in(L"VT_DISPATCH"), 2, 0, Gives::ItsId},
        {"held until dropped", L"Invoke:Hold", in(L"VT_DISPATCH"), 3, 0, Gives::Nothing},
        {"set by reference as the target", L"Setref:Target", in(L"VT_DISPATCH"), 3, 0, Gives::Nothing},
        {"out into an empty item", L"Invoke:OutDispatch", byRef(false, L"VT_DISPATCH", kOut), 1, 1, Gives::NewInParam},
        {"out over an item that held an object", L"Invoke:OutDispatch", byRef(true, L"VT_DISPATCH", kOut), 1, 1,
         Gives::NewInParam},
        {"out as IUnknown", L"Invoke:OutUnknown", byRef(false, L"VT_UNKNOWN", kOut), 1, 1, Gives::NewInParam},
        {"in/out swapped", L"Invoke:RefDispatch", byRef(true, L"VT_DISPATCH", kInOut), 1, 1, Gives::NewInParam},
        {"in/out as IUnknown swapped", L"Invoke:RefUnknown", byRef(true, L"VT_UNKNOWN", kInOut), 1, 1,
         Gives::NewInParam},
        {"in/out from an empty item", L"Invoke:RefDispatch", byRef(false, L"VT_DISPATCH", kInOut), 1, 1,
         Gives::NewInParam},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        ScopedVariant made;
        ASSERT_EQ(CallByName(handler.GetDispatchPointer(), L"MakeChild", DISPATCH_METHOD, {}, made.Get()), S_OK);
        IDispatch* held = V_DISPATCH(made.Get());
        ASSERT_EQ(RefCount(held), 1u);
        const long base = server.LiveObjects();  // the fixture and the test's object
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            {
                const Param param = row.param(held);
                std::vector<CMetaObjectItem*> params;
                if (param)
                    params.push_back(param.get());
                const Outcome outcome = Call(handler, row.key, params);
                ASSERT_EQ(outcome.status, MetaStatusOk);
                EXPECT_EQ(RefCount(held), row.heldAfterCall);
                EXPECT_EQ(server.LiveObjects(), base + row.madeByCall);
                // A new object is held by the new handler of its item alone.
                IDispatch* got = ObjectOf(row.gives == Gives::NewInParam ? param.get() : outcome.result.get());
                const auto* object = dynamic_cast<const CMetaObjectObject*>(outcome.result.get());
                if (row.gives == Gives::NewResult || row.gives == Gives::NewInParam) {
                    EXPECT_TRUE(got && got != held && RefCount(got) == 1u && IdOf(got) > 0);
                } else if (row.gives == Gives::HeldBack) {
                    EXPECT_EQ(got, held);
                } else if (row.gives == Gives::NullObject) {
                    EXPECT_TRUE(object && object->handler && object->handler->GetDispatchPointer() == nullptr);
                } else if (row.gives == Gives::ItsId) {
                    EXPECT_EQ(ValueText(outcome.result.get()), std::to_wstring(IdOf(held)));
                }
            }
            if (row.gives == Gives::Nothing) {
                EXPECT_EQ(Call(handler, L"Invoke:DropHeld").status, MetaStatusOk);
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
