// Values through the module's calls on the call fixture: out and in/out
// parameters written back into their items, results of VARIANT types made
// into items, and records both ways. The translation of each type on its own
// is the unit tests'; these rows take the road through a real Invoke.

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"

using namespace MetaObj;
using namespace FixtureValues;

namespace {

using CallValuesTest = CallTest;

template <typename Item>
const Item* As(const CMetaObjectItem* item)
{
    const auto* typed = dynamic_cast<const Item*>(item);
    EXPECT_NE(typed, nullptr) << "an item of another class";
    return typed;
}

std::int32_t IntOf(const CMetaObjectItem* item)
{
    const auto* number = As<CMetaObjectInt>(item);
    return number ? number->value : -12345;
}

std::wstring TextOf(const CMetaObjectItem* item)
{
    const auto* text = As<CMetaObjectString>(item);
    return text && !text->value.IsEmpty() ? text->value.GetWide() : L"";
}

// A currency or date text read back in the locale the module wrote it in.
double NumberOf(const CMetaObjectItem* item, LCID locale)
{
    Bstr text(SysAllocString(TextOf(item).c_str()));
    CY amount{};
    DATE date = -1;
    if (dynamic_cast<const CMetaObjectCurrency*>(item)) {
        EXPECT_EQ(VarCyFromStr(text.Get(), locale, 0, &amount), S_OK) << "currency text";
        return static_cast<double>(amount.int64);
    }
    EXPECT_EQ(VarDateFromStr(text.Get(), locale, 0, &date), S_OK) << "date text";
    return date;
}

TEST_F(CallValuesTest, OutAndInOutParametersAreWrittenBack)
{
    const LCID user = GetUserDefaultLCID();
    using Check = std::function<void(const CMetaObjectItem*)>;
    const auto charIs = [](wchar_t expected) -> Check {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(As<CMetaObjectChar>(item)->value, expected); };
    };
    const auto intIs = [](std::int32_t expected) -> Check {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(IntOf(item), expected); };
    };
    const auto realIs = [](double expected) -> Check {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(As<CMetaObjectReal>(item)->value, expected); };
    };
    const auto boolIs = [](unsigned char expected) -> Check {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(As<CMetaObjectBool>(item)->value, expected); };
    };
    const auto textIs = [](const wchar_t* expected) -> Check {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(TextOf(item), expected); };
    };
    const auto enumIs = [](std::int32_t expected) -> Check {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(As<CMetaObjectEnum>(item)->value, expected); };
    };
    const auto numberIs = [user](double expected) -> Check {
        return [user, expected](const CMetaObjectItem* item) { EXPECT_EQ(NumberOf(item, user), expected); };
    };
    const struct {
        const char* label;
        const wchar_t* key;
        std::function<Param()> item;
        Check check;
    } rows[] = {
        // In/out: the object changes what went in.
        {"I1 comes back sign-extended", L"Invoke:RefI1", [] { return ByRef(Char(0xFE, L"VT_I1"), kInOut); },
         charIs(0xFFFF)},
        {"I2 sign-extended", L"Invoke:RefI2", [] { return ByRef(Int(-2, L"VT_I2"), kInOut); }, intIs(-1)},
        {"I4", L"Invoke:RefI4", [] { return ByRef(Int(41), kInOut); }, intIs(42)},
        {"R4", L"Invoke:RefR4", [] { return ByRef(Real(2.5, L"VT_R4"), kInOut); }, realIs(3.5)},
        {"R8", L"Invoke:RefR8", [] { return ByRef(Real(-0.5), kInOut); }, realIs(0.5)},
        {"BOOL true to false", L"Invoke:RefBool", [] { return ByRef(Bool(1), kInOut); }, boolIs(0)},
        {"BOOL false to true", L"Invoke:RefBool", [] { return ByRef(Bool(0), kInOut); }, boolIs(1)},
        {"BSTR", L"Invoke:RefBstr", [] { return ByRef(Text(L"abc"), kInOut); }, textIs(L"abc!")},
        {"an empty BSTR goes as null", L"Invoke:RefBstr", [] { return ByRef(Text(L""), kInOut); }, textIs(L"!")},
        {"CY, text in the user's locale", L"Invoke:RefCy", [] { return ByRef(Currency(L"1.5"), kInOut); },
         numberIs(25000)},
        {"DATE, text in the user's locale", L"Invoke:RefDate", [] { return ByRef(Date(L"2024-02-28"), kInOut); },
         numberIs(45351.0)},
        {"VARIANT holding a text", L"Invoke:RefVariant", [] { return ByRef(Text(L"abc", L"VT_VARIANT"), kInOut); },
         textIs(L"abc!")},
        {"enumeration", L"Invoke:RefColour", [] { return ByRef(Colour(2), kInOut); }, enumIs(7)},

        // Out: the object writes its value over whatever the item held.
        {"out I1", L"Invoke:OutI1", [] { return ByRef(Char(L'x', L"VT_I1"), kOut); }, charIs(0xFFFB)},
        {"out I2", L"Invoke:OutI2", [] { return ByRef(Int(0, L"VT_I2"), kOut); }, intIs(kOutNumber)},
        {"out R4", L"Invoke:OutR4", [] { return ByRef(Real(0, L"VT_R4"), kOut); }, realIs(kOutNumber)},
        {"out BOOL", L"Invoke:OutBool", [] { return ByRef(Bool(0), kOut); }, boolIs(1)},
        {"out BSTR", L"Invoke:OutBstr", [] { return ByRef(Text(L"stale"), kOut); }, textIs(kOutBstr)},
        {"out CY", L"Invoke:OutCy", [] { return ByRef(Currency(L"0"), kOut); }, numberIs(kOutCy)},
        {"out DATE loses its time of day", L"Invoke:OutDate", [] { return ByRef(Date(L""), kOut); },
         numberIs(45351.0)},
        {"out VARIANT as text", L"Invoke:OutVariant", [] { return ByRef(Text(L"stale", L"VT_VARIANT"), kOut); },
         textIs(L"-7")},
        {"out enumeration", L"Invoke:OutColour", [] { return ByRef(Colour(1), kOut); }, enumIs(7)},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            const Param item = row.item();
            ASSERT_EQ(Call(handler, row.key, {item.get()}).status, MetaStatusOk);
            row.check(item.get());
        }
        // A failed call writes nothing back, whatever the object left in the cells.
        const Param number = ByRef(Int(11), kOut), real = ByRef(Real(2.5), kOut);
        EXPECT_EQ(Call(handler, L"Invoke:FailWithGarbage", {number.get(), real.get()}).status, MetaStatusInvokeFailed);
        EXPECT_EQ(IntOf(number.get()), 11);
        EXPECT_EQ(As<CMetaObjectReal>(real.get())->value, 2.5);
    });
}

TEST_F(CallValuesTest, ResultsOfVariantTypes)
{
    const struct {
        ShapeRow which;
        std::function<void(const CMetaObjectItem*)> check;
    } rows[] = {
        {ShapeNull,  // no null item
         [](const CMetaObjectItem* item) { EXPECT_EQ(As<CMetaObjectUnknown>(item)->value, 0u); }},
        {ShapeI8, [](const CMetaObjectItem* item) { EXPECT_EQ(IntOf(item), 5); }},  // the low half
        {ShapeBoolOne,  // 1 is not VARIANT_TRUE
         [](const CMetaObjectItem* item) { EXPECT_EQ(As<CMetaObjectBool>(item)->value, 0); }},
        {ShapeError, [](const CMetaObjectItem* item) { EXPECT_EQ(IntOf(item), kShapeError); }},
        {ShapeUnknown,  // held by the item's handler alone
         [](const CMetaObjectItem* item) {
             IDispatch* child = ObjectOf(item);
             ASSERT_NE(child, nullptr);
             EXPECT_EQ(RefCount(child), 1u);
         }},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.which);
            const Param argument = Int(row.which);
            const Outcome outcome = Call(handler, L"Invoke:Shape", {argument.get()});
            ASSERT_EQ(outcome.status, MetaStatusOk);
            ASSERT_NE(outcome.result, nullptr);
            row.check(outcome.result.get());
        }
    });
}

TEST_F(CallValuesTest, RecordsInAndOut)
{
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        // The documented signature, and the one a record parameter of a type
        // library gets in the catalogue.
        for (const wchar_t* signature : {L"VT_RECORD", L"VT_BYREF"}) {
            SCOPED_TRACE(CMetaString(signature).GetNarrow());
            const Param point = Point(30, 12);
            point->GetTypeDesc().signature = CMetaString(signature);
            const Outcome sum = Call(handler, L"Invoke:SumPoint", {point.get()});
            ASSERT_EQ(sum.status, MetaStatusOk);
            EXPECT_EQ(IntOf(sum.result.get()), 42);
            EXPECT_EQ(As<CMetaObjectStruct>(point.get())->members.size(), 2u);  // an in record stays as it went
        }

        const Param x = Int(5), y = Int(-6);
        const Outcome made = Call(handler, L"Invoke:MakePoint", {x.get(), y.get()});
        ASSERT_EQ(made.status, MetaStatusOk);
        const auto* point = As<CMetaObjectStruct>(made.result.get());
        ASSERT_NE(point, nullptr);
        ASSERT_EQ(point->members.size(), 2u);
        EXPECT_EQ(Narrow(point->members.front()->GetTypeDesc().memberName), "x");
        EXPECT_EQ(IntOf(point->members.front()), 5);
        EXPECT_EQ(Narrow(point->members.back()->GetTypeDesc().memberName), "y");
        EXPECT_EQ(IntOf(point->members.back()), -6);
    });
}

}  // namespace
