// Values, objects and arrays through the module's calls on the call and array
// fixtures: out and in/out parameters written back into their items, results
// of VARIANT types and records made into items, objects as results, out and
// in/out parameters, taken in and held, and arrays with their shapes. The
// translation of each type on its own is the unit tests'; these rows take the
// road through a real Invoke.

#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <cwchar>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"

using namespace MetaObj;
using namespace FixtureValues;

namespace {

using CallValuesTest = CallTest;
using CallObjectsTest = CallTest;

using Bounds = std::vector<std::pair<std::int32_t, std::int32_t>>;  // lower bound, count

Bounds BoundsOf(const CMetaObjectItem& item)
{
    Bounds bounds;
    if (item.GetTypeDesc().bounds) {
        for (const CArrayBound* bound : *item.GetTypeDesc().bounds)
            bounds.emplace_back(bound->lowerBound, bound->elementCount);
    }
    return bounds;
}

std::vector<std::wstring> Texts(const CMetaObjectItem* item)
{
    const auto* array = dynamic_cast<const CMetaObjectArray*>(item);
    EXPECT_NE(array, nullptr) << "no array";
    std::vector<std::wstring> texts;
    for (std::int32_t at = 0; array && at < array->elementCount; ++at)
        texts.push_back(array->elements[at] ? ValueText(array->elements[at]) : L"<null>");
    return texts;
}

CMetaObjectArray& ArrayOf(const Result& result)
{
    return dynamic_cast<CMetaObjectArray&>(*result);
}

// An array item as a host builds one from a parameter's description.
std::unique_ptr<CMetaObjectArray, ParamDeleter> Array(const wchar_t* signature, const Bounds& bounds)
{
    std::unique_ptr<CMetaObjectArray, ParamDeleter> array(new CMetaObjectArray);
    array->SetValue(CMetaString(signature));
    CTypeDesc type;
    type.signature = CMetaString(signature);
    type.EnsureBounds();
    for (const auto& bound : bounds)
        type.bounds->Add(bound.first, bound.second);
    array->InitElements(type);
    return array;
}

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
        {"R8", L"Invoke:RefR8", [] { return ByRef(Real(-0.5), kInOut); }, L"0.500000"},
        {"BOOL", L"Invoke:RefBool", [] { return ByRef(Bool(1), kInOut); }, L"false"},
        {"BSTR", L"Invoke:RefBstr", [] { return ByRef(Text(L"abc"), kInOut); }, L"abc!"},
        {"CY", L"Invoke:RefCy", [] { return ByRef(Currency(L"1.5"), kInOut); }, nullptr, 25000},
        {"DATE", L"Invoke:RefDate", [] { return ByRef(Date(L"2024-02-28"), kInOut); }, nullptr, 45351.0},
        {"VARIANT holding a text", L"Invoke:RefVariant", [] { return ByRef(Text(L"abc", L"VT_VARIANT"), kInOut); },
         L"abc!"},
        {"enumeration", L"Invoke:RefColour", [] { return ByRef(Colour(2), kInOut); }, L"7"},
        // Out: the object writes its value over whatever the item held.
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
    // The same in the server's own process, where Wine carries no records across.
    for (const bool local : {false, true}) {
        WithObject(FixtureIdentity(local), [&](CMetaObjectCOMHandler& handler) {
            for (const auto& row : rows) {
                SCOPED_TRACE(std::string(row.label) + (local ? " out of process" : ""));
                if (local && std::wcscmp(row.key, L"Invoke:SumPoint") == 0)
                    continue;
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
            EXPECT_EQ(Call(handler, L"Invoke:FailWithGarbage", {number.get(), real.get()}).status,
                      MetaStatusInvokeFailed);
            EXPECT_EQ(ValueText(number.get()) + L" " + ValueText(real.get()), L"11 2.500000");
            if (local)
                return;
            // A record result, its members named.
            const Param x = Int(5), y = Int(-6);
            const Outcome made = Call(handler, L"Invoke:MakePoint", {x.get(), y.get()});
            ASSERT_EQ(made.status, MetaStatusOk);
            std::wstring members;
            for (CMetaObjectItem* member : dynamic_cast<CMetaObjectStruct&>(*made.result).members)
                members += std::wstring(member->GetTypeDesc().memberName.GetWide()) + L"=" + ValueText(member) + L" ";
            EXPECT_EQ(members, L"x=5 y=-6 ");
            // A record in and out comes back into the host's own struct.
            const Param point = ByRef(Point(30, 12), kInOut);
            ASSERT_EQ(Call(handler, L"Invoke:MovePoint", {point.get()}).status, MetaStatusOk);
            members.clear();
            for (CMetaObjectItem* member : dynamic_cast<CMetaObjectStruct&>(*point).members)
                members += ValueText(member) + L" ";
            EXPECT_EQ(members, L"31 13 ");
        });
    }
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
    enum class Gives { Nothing, NewResult, HeldBack, HeldInArray, NullObject, ItsId, NewInParam };
    using MakeParam = std::function<Param(IDispatch*)>;  // from the object the test holds
    const auto in = [this](const wchar_t* signature) -> MakeParam {
        return [this, signature](IDispatch* held) { return ObjectItem(held, signature); };
    };
    const auto byRef = [this](bool holding, const wchar_t* signature, std::int32_t direction) -> MakeParam {
        return [=](IDispatch* held) { return ByRef(ObjectItem(holding ? held : nullptr, signature), direction); };
    };
    const MakeParam none = [](IDispatch*) { return Param(); };
    const auto number = [](std::int32_t which) -> MakeParam { return [=](IDispatch*) { return Int(which); }; };
    const MakeParam thrice = [this](IDispatch* held) {
        auto array = Array(L"VT_DISPATCH|VT_ARRAY", {{0, 3}});
        for (std::int32_t at = 0; at < 3; ++at)
            array->elements[at] = ObjectItem(held).release();
        return Param(array.release());
    };
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
        {"thrice in an array and back: a handler for each", L"Invoke:EchoVariant", thrice, 7, 0, Gives::HeldInArray},
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
                } else if (row.gives == Gives::HeldInArray) {
                    EXPECT_EQ(ObjectOf(ArrayOf(outcome.result).elements[2]), held);
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

using ArrayCallTest = CallTest;
constexpr char kArrayFixture[] = "COM://ComHandlerTest.ArrayFixture";

// Each row: an array the fixture makes, then the same elements sent back to
// it under the row's signature and echoed, compared element by element.
TEST_F(ArrayCallTest, FixtureArraysComeWithTheirShapeAndGoBack)
{
    for (const bool local : {false, true}) {
        WithObject(std::string(kArrayFixture) + (local ? LocalServer::kSuffix : ""), [&](CMetaObjectCOMHandler& fixture) {
            using Spots = std::vector<std::pair<std::size_t, std::wstring>>;  // texts of elements in the walk
            const Bounds three{{0, 3}};
            const struct {
                VARTYPE type;  // Make's element type; VT_EMPTY for the key's own array
                const wchar_t* key;
                const wchar_t* signature;
                Bounds bounds;
                Spots spots;
            } rows[] = {
                {VT_I1, L"Invoke:Make", L"VT_I1|VT_ARRAY", three, {{2, L"\x02"}}},
                {VT_I4, L"Invoke:Make", L"VT_I4|VT_ARRAY", three, {{2, L"2"}}},
                {VT_R8, L"Invoke:Make", L"VT_R8|VT_ARRAY", three, {{2, L"2.000000"}}},
                {VT_BOOL, L"Invoke:Make", L"VT_BOOL|VT_ARRAY", three, {{2, L"true"}}},
                {VT_BSTR, L"Invoke:Make", L"VT_BSTR|VT_ARRAY", three, {{2, L"2"}}},
                {VT_CY, L"Invoke:Make", L"VT_CY|VT_ARRAY", three, {{2, L"2"}}},
                {VT_DATE, L"Invoke:Make", L"VT_DATE|VT_ARRAY", three, {}},
                {VT_VARIANT, L"Invoke:Make", L"VT_VARIANT|VT_ARRAY", three, {{2, L"2"}}},
                {VT_DISPATCH, L"Invoke:Make", L"VT_DISPATCH|VT_ARRAY", three, {}},
                // Element i, j, k holds i * 100 + j * 10 + k: the last index moves fastest.
                {VT_EMPTY, L"Invoke:Cube", L"VT_I4|VT_ARRAY", {{-1, 2}, {0, 3}, {5, 2}},
                 {{1, L"-94"}, {3, L"-84"}, {11, L"26"}}},
                {VT_EMPTY, L"Invoke:EmptyDimension", L"VT_I4|VT_ARRAY", {{0, 2}, {0, 0}}, {}},
            };
            for (const auto& row : rows) {
                SCOPED_TRACE(Narrow(CMetaString(row.key)) + " " + Narrow(CMetaString(row.signature)) +
                             (local ? " out of process" : ""));
                const Param type = Int(row.type), count = Int(3);
                const Outcome made = row.type == VT_EMPTY ? Call(fixture, row.key)
                                                          : Call(fixture, row.key, {type.get(), count.get()});
                ASSERT_EQ(made.status, MetaStatusOk);
                EXPECT_EQ(BoundsOf(*made.result), row.bounds);
                const std::vector<std::wstring> texts = Texts(made.result.get());
                std::size_t elements = 1;
                for (const auto& bound : row.bounds)
                    elements *= static_cast<std::size_t>(bound.second);
                ASSERT_EQ(texts.size(), elements);
                EXPECT_EQ(std::count(texts.begin(), texts.end(), L"<null>"), 0);
                for (const auto& [at, text] : row.spots)
                    EXPECT_EQ(texts[at], text) << "element " << at;
                // A result has no signature of its own: the host gives the parameter's.
                const Result sent(ArrayOf(made.result).Clone(), ResultDeleter{&fixture});
                sent->SetValue(CMetaString(row.signature));
                const Outcome echoed = Call(fixture, L"Invoke:Echo", {sent.get()});
                ASSERT_EQ(echoed.status, MetaStatusOk);
                EXPECT_EQ(BoundsOf(*echoed.result), row.bounds);
                EXPECT_EQ(Texts(echoed.result.get()), texts);
                // Sent back as a result came, with no signature: refused before the call.
                EXPECT_EQ(Call(fixture, L"Invoke:Echo", {made.result.get()}).status, MetaStatusInvokeFailed);
            }
        });
    }
}

TEST_F(ArrayCallTest, FixtureNestingIsFollowedAndCutDeepDown)
{
    WithObject(kArrayFixture, [&](CMetaObjectCOMHandler& fixture) {
        for (const std::int32_t depth : {1, 5, 500}) {
            SCOPED_TRACE(depth);
            const Param levels = Int(depth);
            const Outcome nested = Call(fixture, L"Invoke:Nested", {levels.get()});
            ASSERT_EQ(nested.status, MetaStatusOk);
            int seen = 0;
            CMetaObjectItem* at = nested.result.get();
            for (; auto* array = dynamic_cast<CMetaObjectArray*>(at); ++seen)
                at = array->elementCount == 1 ? array->elements[0] : nullptr;
            // Deep down the walk is cut off, the number never reached.
            EXPECT_TRUE(depth < 10 ? seen == depth : seen < depth) << seen;
            EXPECT_EQ(ValueText(at), depth < 10 ? L"42" : L"");
        }
    });
}

// An in/out array goes by reference and what stands in the cell after the call
// is read back into the item, with its new shape.
TEST_F(ArrayCallTest, FixtureInOutArrayComesBackWithItsNewShape)
{
    WithObject(kArrayFixture, [&](CMetaObjectCOMHandler& fixture) {
        auto array = Array(L"VT_I4|VT_ARRAY|VT_PTR", {{0, 2}});
        array->elements[0] = new CMetaObjectInt(5);
        array->elements[1] = new CMetaObjectInt(6);
        array->GetTypeDesc().isByRef = 1;
        array->SetDirection(kInOut);
        for (const auto& expected : {std::vector<std::wstring>{L"10", L"12", L"99"},
                                     std::vector<std::wstring>{L"20", L"24", L"198", L"99"}}) {
            ASSERT_EQ(Call(fixture, L"Invoke:Grow", {array.get()}).status, MetaStatusOk);
            EXPECT_EQ(BoundsOf(*array), (Bounds{{1, static_cast<std::int32_t>(expected.size())}}));
            EXPECT_EQ(Texts(array.get()), expected);
        }
    });
}

}  // namespace
