// Values through the module's calls on the call fixture: out and in/out
// parameters written back into their items, results of every VARIANT type
// made into items, and records both ways.

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"

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

// A currency or date text read back in the locale the write-back used.
std::int64_t CurrencyOf(const CMetaObjectItem* item, LCID locale)
{
    CY amount{};
    Bstr text(SysAllocString(TextOf(item).c_str()));
    EXPECT_EQ(VarCyFromStr(text.Get(), locale, 0, &amount), S_OK) << "currency text";
    return amount.int64;
}

DATE DateOf(const CMetaObjectItem* item, LCID locale)
{
    DATE date = -1;
    Bstr text(SysAllocString(TextOf(item).c_str()));
    EXPECT_EQ(VarDateFromStr(text.Get(), locale, 0, &date), S_OK) << "date text";
    return date;
}

struct WriteBackRow {
    const char* label;
    const wchar_t* key;
    std::function<Param()> item;
    std::function<void(const CMetaObjectItem*)> check;
};

TEST_F(CallValuesTest, OutAndInOutParametersAreWrittenBack)
{
    const LCID user = GetUserDefaultLCID();
    const auto charIs = [](wchar_t expected) {
        return [expected](const CMetaObjectItem* item) {
            const auto* character = As<CMetaObjectChar>(item);
            EXPECT_EQ(character ? character->value : 0, expected);
        };
    };
    const auto intIs = [](std::int32_t expected) {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(IntOf(item), expected); };
    };
    const auto realIs = [](double expected) {
        return [expected](const CMetaObjectItem* item) {
            const auto* real = As<CMetaObjectReal>(item);
            EXPECT_EQ(real ? real->value : 0, expected);
        };
    };
    const auto boolIs = [](unsigned char expected) {
        return [expected](const CMetaObjectItem* item) {
            const auto* flag = As<CMetaObjectBool>(item);
            EXPECT_EQ(flag ? flag->value : 99, expected);
        };
    };
    const auto textIs = [](const wchar_t* expected) {
        return [expected](const CMetaObjectItem* item) { EXPECT_EQ(TextOf(item), expected); };
    };
    const auto enumIs = [](std::int32_t expected) {
        return [expected](const CMetaObjectItem* item) {
            const auto* enumeration = As<CMetaObjectEnum>(item);
            EXPECT_EQ(enumeration ? enumeration->value : -1, expected);
        };
    };
    const WriteBackRow rows[] = {
        // In/out: the object changes what went in.
        {"I1 comes back sign-extended", L"Invoke:RefI1", [] { return ByRef(Char(0xFE, L"VT_I1"), kInOut); },
         charIs(0xFFFF)},
        {"UI1 comes back zero-extended", L"Invoke:RefUI1", [] { return ByRef(Char(0xFE, L"VT_UI1"), kInOut); },
         charIs(0xFF)},
        {"I2 sign-extended", L"Invoke:RefI2", [] { return ByRef(Int(-2, L"VT_I2"), kInOut); }, intIs(-1)},
        {"UI2 zero-extended", L"Invoke:RefUI2", [] { return ByRef(Int(0xFFFE, L"VT_UI2"), kInOut); },
         intIs(0xFFFF)},
        {"I4", L"Invoke:RefI4", [] { return ByRef(Int(41), kInOut); }, intIs(42)},
        {"UI4 keeps its 32 bits", L"Invoke:RefUI4", [] { return ByRef(Int(-2, L"VT_UI4"), kInOut); }, intIs(-1)},
        {"INT", L"Invoke:RefInt", [] { return ByRef(Int(41, L"VT_INT"), kInOut); }, intIs(42)},
        {"UINT", L"Invoke:RefUInt", [] { return ByRef(Int(41, L"VT_UINT"), kInOut); }, intIs(42)},
        {"R4", L"Invoke:RefR4", [] { return ByRef(Real(2.5, L"VT_R4"), kInOut); }, realIs(3.5)},
        {"R8", L"Invoke:RefR8", [] { return ByRef(Real(-0.5), kInOut); }, realIs(0.5)},
        {"BOOL true to false", L"Invoke:RefBool", [] { return ByRef(Bool(1), kInOut); }, boolIs(0)},
        {"BOOL false to true", L"Invoke:RefBool", [] { return ByRef(Bool(0), kInOut); }, boolIs(1)},
        {"BSTR", L"Invoke:RefBstr", [] { return ByRef(Text(L"abc"), kInOut); }, textIs(L"abc!")},
        {"an empty BSTR goes as null", L"Invoke:RefBstr", [] { return ByRef(Text(L""), kInOut); }, textIs(L"!")},
        {"CY, text in the user's locale", L"Invoke:RefCy", [] { return ByRef(Currency(L"1.5"), kInOut); },
         [user](const CMetaObjectItem* item) { EXPECT_EQ(CurrencyOf(item, user), 25000); }},
        {"DATE, text in the user's locale", L"Invoke:RefDate", [] { return ByRef(Date(L"2024-02-28"), kInOut); },
         [user](const CMetaObjectItem* item) { EXPECT_EQ(DateOf(item, user), 45351.0); }},
        {"VARIANT holding a text", L"Invoke:RefVariant", [] { return ByRef(Text(L"abc", L"VT_VARIANT"), kInOut); },
         textIs(L"abc!")},
        {"enumeration", L"Invoke:RefColour", [] { return ByRef(Colour(2), kInOut); }, enumIs(7)},

        // Out: the object writes its value over whatever the item held.
        {"out I1", L"Invoke:OutI1", [] { return ByRef(Char(L'x', L"VT_I1"), kOut); }, charIs(0xFFFB)},
        {"out UI1", L"Invoke:OutUI1", [] { return ByRef(Char(L'x', L"VT_UI1"), kOut); }, charIs(kOutUI1)},
        {"out I2", L"Invoke:OutI2", [] { return ByRef(Int(0, L"VT_I2"), kOut); }, intIs(kOutI2)},
        {"out UI2", L"Invoke:OutUI2", [] { return ByRef(Int(0, L"VT_UI2"), kOut); }, intIs(kOutUI2)},
        {"out I4", L"Invoke:OutI4", [] { return ByRef(Int(0), kOut); }, intIs(kOutI4)},
        {"out UI4", L"Invoke:OutUI4", [] { return ByRef(Int(0, L"VT_UI4"), kOut); },
         intIs(static_cast<std::int32_t>(kOutUI4))},
        {"out INT", L"Invoke:OutInt", [] { return ByRef(Int(0, L"VT_INT"), kOut); }, intIs(kOutInt)},
        {"out UINT", L"Invoke:OutUInt", [] { return ByRef(Int(0, L"VT_UINT"), kOut); },
         intIs(static_cast<std::int32_t>(kOutUInt))},
        {"out R4", L"Invoke:OutR4", [] { return ByRef(Real(0, L"VT_R4"), kOut); }, realIs(kOutR4)},
        {"out R8", L"Invoke:OutR8", [] { return ByRef(Real(0), kOut); }, realIs(kOutR8)},
        {"out BOOL", L"Invoke:OutBool", [] { return ByRef(Bool(0), kOut); }, boolIs(1)},
        {"out BSTR", L"Invoke:OutBstr", [] { return ByRef(Text(L"stale"), kOut); }, textIs(kOutBstr)},
        {"out CY", L"Invoke:OutCy", [] { return ByRef(Currency(L"0"), kOut); },
         [user](const CMetaObjectItem* item) { EXPECT_EQ(CurrencyOf(item, user), kOutCy); }},
        {"out DATE loses its time of day", L"Invoke:OutDate", [] { return ByRef(Date(L""), kOut); },
         [user](const CMetaObjectItem* item) { EXPECT_EQ(DateOf(item, user), 45351.0); }},
        {"out VARIANT as text", L"Invoke:OutVariant", [] { return ByRef(Text(L"stale", L"VT_VARIANT"), kOut); },
         textIs(L"-7")},
        {"out enumeration", L"Invoke:OutColour", [] { return ByRef(Colour(1), kOut); }, enumIs(kOutColour)},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const WriteBackRow& row : rows) {
            SCOPED_TRACE(row.label);
            const Param item = row.item();
            const Outcome outcome = Call(handler, row.key, {item.get()});
            ASSERT_EQ(outcome.status, MetaStatusOk);
            row.check(item.get());
        }
    });
}

TEST_F(CallValuesTest, AFailedCallWritesNothingBack)
{
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        const Param number = ByRef(Int(11), kOut);
        const Param real = ByRef(Real(2.5), kOut);
        const Outcome outcome = Call(handler, L"Invoke:FailWithGarbage", {number.get(), real.get()});
        EXPECT_EQ(outcome.status, MetaStatusInvokeFailed);
        EXPECT_EQ(IntOf(number.get()), 11);
        EXPECT_EQ(As<CMetaObjectReal>(real.get())->value, 2.5);
    });
}

TEST_F(CallValuesTest, ResultsOfEveryVariantType)
{
    const std::function<void(const CMetaObjectItem*, IDispatch*)> checks[ShapeRowCount] = {
        [](const CMetaObjectItem* item, IDispatch*) { EXPECT_EQ(item, nullptr); },
        [](const CMetaObjectItem* item, IDispatch*) {  // VT_NULL is no null item
            const auto* unknown = As<CMetaObjectUnknown>(item);
            EXPECT_EQ(unknown ? unknown->value : 1u, 0u);
        },
        [](const CMetaObjectItem* item, IDispatch*) {  // VT_I1 -1 is the char 255
            const auto* character = As<CMetaObjectChar>(item);
            EXPECT_EQ(character ? character->value : 0, 255);
        },
        [](const CMetaObjectItem* item, IDispatch*) { EXPECT_EQ(IntOf(item), kShapeUI2); },
        [](const CMetaObjectItem* item, IDispatch*) { EXPECT_EQ(IntOf(item), 5); },  // the low half
        [](const CMetaObjectItem* item, IDispatch*) {  // 1 is not VARIANT_TRUE
            const auto* flag = As<CMetaObjectBool>(item);
            EXPECT_EQ(flag ? flag->value : 99, 0);
        },
        [](const CMetaObjectItem* item, IDispatch* fixture) {  // the pointer as a number
            ScopedVariant raw, which;
            V_VT(which.Get()) = VT_I4;
            V_I4(which.Get()) = ShapeI4ByRef;
            ASSERT_EQ(CallByName(fixture, L"Shape", DISPATCH_METHOD, {*which.Get()}, raw.Get()), S_OK);
            const auto* unknown = As<CMetaObjectUnknown>(item);
            EXPECT_EQ(unknown ? unknown->value : 0u,
                      static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(V_BYREF(raw.Get()))));
            V_VT(raw.Get()) = VT_EMPTY;  // points at the server's static
        },
        [](const CMetaObjectItem* item, IDispatch*) {  // a handler that holds nothing
            const auto* object = As<CMetaObjectObject>(item);
            ASSERT_TRUE(object && object->handler);
            EXPECT_EQ(object->handler->GetDispatchPointer(), nullptr);
        },
        [](const CMetaObjectItem* item, IDispatch*) {
            const auto* real = As<CMetaObjectReal>(item);
            EXPECT_EQ(real ? real->value : 0, kShapeDecimal);
        },
        [](const CMetaObjectItem* item, IDispatch*) {  // held by the item's handler alone
            IDispatch* child = ObjectOf(item);
            ASSERT_NE(child, nullptr);
            EXPECT_EQ(RefCount(child), 1u);
        },
        [](const CMetaObjectItem* item, IDispatch*) { EXPECT_EQ(IntOf(item), kShapeError); },
        [](const CMetaObjectItem* item, IDispatch*) {  // the system's locale, no time of day
            EXPECT_NE(As<CMetaObjectDate>(item), nullptr);
            EXPECT_EQ(DateOf(item, LOCALE_SYSTEM_DEFAULT), 45351.0);
        },
        [](const CMetaObjectItem* item, IDispatch*) {
            EXPECT_NE(As<CMetaObjectCurrency>(item), nullptr);
            EXPECT_EQ(CurrencyOf(item, LOCALE_SYSTEM_DEFAULT), kOutCy);
        },
        [](const CMetaObjectItem* item, IDispatch*) {
            const auto* point = As<CMetaObjectStruct>(item);
            ASSERT_NE(point, nullptr);
            ASSERT_EQ(point->members.size(), 2u);
            EXPECT_EQ(Narrow(point->members.front()->GetTypeDesc().memberName), "x");
            EXPECT_EQ(IntOf(point->members.front()), kPointX);
            EXPECT_EQ(Narrow(point->members.back()->GetTypeDesc().memberName), "y");
            EXPECT_EQ(IntOf(point->members.back()), kPointY);
        },
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (std::int32_t which = 0; which < ShapeRowCount; ++which) {
            SCOPED_TRACE(which);
            const Param argument = Int(which);
            const Outcome outcome = Call(handler, L"Invoke:Shape", {argument.get()});
            ASSERT_EQ(outcome.status, MetaStatusOk);
            EXPECT_EQ(outcome.record.code, 1u);
            checks[which](outcome.result.get(), handler.GetDispatchPointer());
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
        EXPECT_EQ(IntOf(point->members.front()), 5);
        EXPECT_EQ(IntOf(point->members.back()), -6);
    });
}

}  // namespace
