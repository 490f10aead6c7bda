// Arrays between items and SAFEARRAYs, row by row and shape by shape, without
// a server: the call object is made without an object.

#include <gtest/gtest.h>

#include <oleauto.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "invoke/method_invoke.h"
#include "invoke/variant_owner.h"
#include "metaobj/compound_items.h"
#include "metaobj/scalar_items.h"
#include "platform/platform_handles.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/leak_check.h"

using namespace MetaObj;

namespace {

// Clears before it deletes, as a host does: object elements give their use back.
struct ClearingDelete {
    void operator()(CMetaObjectItem* item) const
    {
        item->Clear();
        delete item;
    }
};
using ItemPtr = std::unique_ptr<CMetaObjectItem, ClearingDelete>;
using ArrayPtr = std::unique_ptr<CMetaObjectArray, ClearingDelete>;
using Bounds = std::vector<std::pair<std::int32_t, std::int32_t>>;  // lower bound, count

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

ArrayPtr MakeArray(const wchar_t* signature, const Bounds& bounds, std::int32_t direction = 0)
{
    ArrayPtr array(new CMetaObjectArray);
    array->SetValue(CMetaString(signature));
    CTypeDesc type;
    type.signature = CMetaString(signature);
    type.EnsureBounds();
    for (const auto& bound : bounds)
        type.bounds->Add(bound.first, bound.second);
    array->InitElements(type);
    array->SetDirection(direction);
    return array;
}

// A one-element array holding the item.
ArrayPtr Single(const wchar_t* signature, CMetaObjectItem* element)
{
    ArrayPtr array = MakeArray(signature, {{0, 1}});
    array->elements[0] = element;
    return array;
}

template <typename Item, typename Value>
CMetaObjectItem* TextItem(Value value)
{
    auto* item = new Item;
    item->value = CMetaString(value);
    return item;
}

Bounds BoundsOf(const CTypeDesc& type)
{
    Bounds bounds;
    if (type.bounds) {
        for (const CArrayBound* bound : *type.bounds)
            bounds.emplace_back(bound->lowerBound, bound->elementCount);
    }
    return bounds;
}

Bounds BoundsOf(const CMetaObjectItem& item)
{
    return BoundsOf(item.GetTypeDesc());
}

// The element of a one-element array, as a VARIANT of the array's type.
void ReadFirst(SAFEARRAY* array, VARTYPE type, VARIANT& out)
{
    LONG index = 0;
    if (type == VT_VARIANT) {
        ASSERT_EQ(SafeArrayGetElement(array, &index, &out), S_OK);
        return;
    }
    ASSERT_EQ(SafeArrayGetElement(array, &index, &out.lVal), S_OK);
    out.vt = type;
}

CCOMMethodInvoke& Call()
{
    static CCOMMethodInvoke call(nullptr, 0, MethodKindInvoke);
    return call;
}

struct OutRow {
    const char* name;
    const wchar_t* signature;
    std::function<CMetaObjectItem*()> element;
    VARTYPE type;
    std::function<void(const VARIANT&)> check;
};

TEST(ArrayItemToVariantTest, EachElementRowWritesItsValue)
{
    const OutRow rows[] = {
        {"I1 low byte", L"VT_I1|VT_ARRAY", [] { return new CMetaObjectChar(0x1FF); }, VT_I1,
         [](const VARIANT& v) { EXPECT_EQ(v.cVal, -1); }},
        {"UI1 low byte", L"VT_UI1|VT_ARRAY", [] { return new CMetaObjectChar(0x141); }, VT_UI1,
         [](const VARIANT& v) { EXPECT_EQ(v.bVal, 0x41); }},
        {"I2 low 16 bits", L"VT_I2|VT_ARRAY", [] { return new CMetaObjectInt(0x12345); }, VT_I2,
         [](const VARIANT& v) { EXPECT_EQ(v.iVal, 0x2345); }},
        {"UI2 of -1", L"VT_UI2|VT_ARRAY", [] { return new CMetaObjectInt(-1); }, VT_UI2,
         [](const VARIANT& v) { EXPECT_EQ(v.uiVal, 0xFFFF); }},
        {"I4", L"VT_I4|VT_ARRAY", [] { return new CMetaObjectInt(-7); }, VT_I4,
         [](const VARIANT& v) { EXPECT_EQ(v.lVal, -7); }},
        {"UI4 of -1", L"VT_UI4|VT_ARRAY", [] { return new CMetaObjectInt(-1); }, VT_UI4,
         [](const VARIANT& v) { EXPECT_EQ(v.ulVal, 0xFFFFFFFFu); }},
        {"ERROR", L"VT_ERROR|VT_ARRAY", [] { return new CMetaObjectInt(E_FAIL); }, VT_ERROR,
         [](const VARIANT& v) { EXPECT_EQ(v.scode, E_FAIL); }},
        {"enumeration as I4", L"VT_I4|VT_ARRAY", [] { return new CMetaObjectEnum(3); }, VT_I4,
         [](const VARIANT& v) { EXPECT_EQ(v.lVal, 3); }},
        {"R4 narrowed", L"VT_R4|VT_ARRAY", [] { return new CMetaObjectReal(1.5); }, VT_R4,
         [](const VARIANT& v) { EXPECT_EQ(v.fltVal, 1.5f); }},
        {"R8", L"VT_R8|VT_ARRAY", [] { return new CMetaObjectReal(0.1); }, VT_R8,
         [](const VARIANT& v) { EXPECT_EQ(v.dblVal, 0.1); }},
        {"BOOL 1", L"VT_BOOL|VT_ARRAY", [] { return new CMetaObjectBool(1); }, VT_BOOL,
         [](const VARIANT& v) { EXPECT_EQ(v.boolVal, VARIANT_TRUE); }},
        {"BOOL 2 is false", L"VT_BOOL|VT_ARRAY", [] { return new CMetaObjectBool(2); }, VT_BOOL,
         [](const VARIANT& v) { EXPECT_EQ(v.boolVal, VARIANT_FALSE); }},
        {"BSTR", L"VT_BSTR|VT_ARRAY", [] { return TextItem<CMetaObjectString>(L"h\u00e4j"); }, VT_BSTR,
         [](const VARIANT& v) { EXPECT_STREQ(v.bstrVal, L"h\u00e4j"); }},
        {"VARIANT carries text", L"VT_VARIANT|VT_ARRAY", [] { return TextItem<CMetaObjectString>(L"12"); },
         VT_VARIANT,
         [](const VARIANT& v) {
             ASSERT_EQ(v.vt, VT_BSTR);
             EXPECT_STREQ(v.bstrVal, L"12");
         }},
        {"VARIANT of a number", L"VT_VARIANT|VT_ARRAY", [] { return new CMetaObjectInt(5); }, VT_VARIANT,
         [](const VARIANT& v) {
             ASSERT_EQ(v.vt, VT_I4);
             EXPECT_EQ(v.lVal, 5);
         }},
        {"CY", L"VT_CY|VT_ARRAY", [] { return TextItem<CMetaObjectCurrency>(L"12.5"); }, VT_CY,
         [](const VARIANT& v) { EXPECT_EQ(v.cyVal.int64, 125000); }},
        {"CY that doesn't parse stays 0", L"VT_CY|VT_ARRAY",
         [] { return TextItem<CMetaObjectCurrency>(L"twelve"); }, VT_CY,
         [](const VARIANT& v) { EXPECT_EQ(v.cyVal.int64, 0); }},
        {"DATE keeps its time", L"VT_DATE|VT_ARRAY",
         [] { return TextItem<CMetaObjectDate>(L"1/2/2020 6:00:00 AM"); }, VT_DATE,
         [](const VARIANT& v) { EXPECT_DOUBLE_EQ(v.date, 43832.25); }},
        {"wrong class leaves the default", L"VT_I4|VT_ARRAY", [] { return TextItem<CMetaObjectString>(L"9"); },
         VT_I4, [](const VARIANT& v) { EXPECT_EQ(v.lVal, 0); }},
        {"no row: I8 at its default", L"VT_I8|VT_ARRAY", [] { return new CMetaObjectInt(9); }, VT_I8,
         [](const VARIANT& v) { EXPECT_EQ(v.llVal, 0); }},
        {"signature without |VT_ARRAY", L"VT_I2", [] { return new CMetaObjectInt(4); }, VT_I2,
         [](const VARIANT& v) { EXPECT_EQ(v.iVal, 4); }},
    };
    for (const OutRow& row : rows) {
        SCOPED_TRACE(row.name);
        ArrayPtr array = Single(row.signature, row.element());
        CVariant out;
        ASSERT_TRUE(Call().ArrayItemToVariant(array.get(), out.Get()));
        ASSERT_EQ(out.Get().vt, VT_ARRAY | row.type);
        VARTYPE stored = VT_EMPTY;
        EXPECT_EQ(SafeArrayGetVartype(out.Get().parray, &stored), S_OK);
        EXPECT_EQ(stored, row.type);
        CVariant element;
        ReadFirst(out.Get().parray, row.type, element.Get());
        row.check(element.Get());
    }
}

// An empty element is what the call makes of an empty VARIANT anywhere.
void ExpectLikeAnEmptyResult(CMetaObjectItem* item)
{
    CVariant empty;
    ItemPtr expected(Call().VariantToItem(empty.Get()));
    ASSERT_EQ(item == nullptr, expected == nullptr);
    if (item) {
        EXPECT_EQ(typeid(*item), typeid(*expected));
    }
}

struct InRow {
    const char* name;
    VARTYPE type;
    std::function<void(VARIANT&)> value;  // the element; for VT_VARIANT the VARIANT itself
    std::function<void(CMetaObjectItem*)> check;
};

TEST(ArrayVariantToItemTest, EachElementRowMakesItsItem)
{
    const InRow rows[] = {
        {"I1 sign-extended", VT_I1, [](VARIANT& v) { v.cVal = -1; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectChar&>(*item).value, 0xFFFF); }},
        {"UI1 zero-extended", VT_UI1, [](VARIANT& v) { v.bVal = 0xFF; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectChar&>(*item).value, 0xFF); }},
        {"I2", VT_I2, [](VARIANT& v) { v.iVal = -2; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, -2); }},
        {"UI2", VT_UI2, [](VARIANT& v) { v.uiVal = 0xFFFF; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, 0xFFFF); }},
        {"UI4", VT_UI4, [](VARIANT& v) { v.ulVal = 0xFFFFFFFF; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, -1); }},
        {"ERROR", VT_ERROR, [](VARIANT& v) { v.scode = E_FAIL; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, E_FAIL); }},
        {"R4", VT_R4, [](VARIANT& v) { v.fltVal = 1.5f; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectReal&>(*item).value, 1.5); }},
        {"R8", VT_R8, [](VARIANT& v) { v.dblVal = 0.1; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectReal&>(*item).value, 0.1); }},
        {"BOOL", VT_BOOL, [](VARIANT& v) { v.boolVal = VARIANT_TRUE; },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*item).value, 1); }},
        {"BSTR", VT_BSTR, [](VARIANT& v) { v.bstrVal = SysAllocString(L"text"); },
         [](CMetaObjectItem* item) { EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*item).value), L"text"); }},
        {"CY in the user's locale", VT_CY, [](VARIANT& v) { v.cyVal.int64 = 125000; },
         [](CMetaObjectItem* item) { EXPECT_EQ(Wide(dynamic_cast<CMetaObjectCurrency&>(*item).value), L"12.5"); }},
        {"DATE keeps its time", VT_DATE, [](VARIANT& v) { v.date = 43832.25; },
         [](CMetaObjectItem* item) {
             const std::wstring text = Wide(dynamic_cast<CMetaObjectDate&>(*item).value);
             EXPECT_NE(text.find(L"2020"), std::wstring::npos) << std::string(text.begin(), text.end());
             EXPECT_NE(text.find(L"6:00:00"), std::wstring::npos) << std::string(text.begin(), text.end());
         }},
        {"VARIANT of a number", VT_VARIANT,
         [](VARIANT& v) {
             v.vt = VT_I4;
             v.lVal = 8;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, 8); }},
        {"VARIANT of a text", VT_VARIANT,
         [](VARIANT& v) {
             v.vt = VT_BSTR;
             v.bstrVal = SysAllocString(L"in");
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*item).value), L"in"); }},
        {"VARIANT of an array nests", VT_VARIANT,
         [](VARIANT& v) {
             SAFEARRAYBOUND bound{2, 3};
             v.vt = VT_ARRAY | VT_I4;
             v.parray = SafeArrayCreate(VT_I4, 1, &bound);
         },
         [](CMetaObjectItem* item) {
             auto& nested = dynamic_cast<CMetaObjectArray&>(*item);
             EXPECT_EQ(BoundsOf(nested), (Bounds{{3, 2}}));
             EXPECT_EQ(nested.elementCount, 2);
         }},
        {"VARIANT left empty is read as an empty result", VT_VARIANT, [](VARIANT&) {},
         [](CMetaObjectItem* item) { ExpectLikeAnEmptyResult(item); }},
    };
    for (const InRow& row : rows) {
        SCOPED_TRACE(row.name);
        SAFEARRAYBOUND bound{1, 0};
        SafeArray array(SafeArrayCreate(row.type, 1, &bound));
        ASSERT_TRUE(array);
        CVariant element;
        row.value(element.Get());
        LONG index = 0;
        if (row.type == VT_VARIANT)
            SafeArrayPutElement(array.Get(), &index, &element.Get());
        else if (row.type == VT_BSTR)
            SafeArrayPutElement(array.Get(), &index, element.Get().bstrVal);
        else
            SafeArrayPutElement(array.Get(), &index, &element.Get().lVal);
        if (row.type == VT_BSTR)
            element.Get().vt = VT_BSTR;  // the text the row made goes with the VARIANT

        CVariant value;
        value.Get().vt = VT_ARRAY | row.type;
        value.Get().parray = array.Release();
        ItemPtr item(Call().VariantToItem(value.Get()));
        auto* read = dynamic_cast<CMetaObjectArray*>(item.get());
        ASSERT_NE(read, nullptr);
        ASSERT_EQ(read->elementCount, 1);
        row.check(read->elements[0]);
    }
}

// Elements are numbered by their position in the walk, so the check below
// also proves the order: the last dimension moves fastest.
TEST(ArrayRoundTripTest, ShapesAndBoundsSurviveBothWays)
{
    const struct {
        const char* name;
        Bounds bounds;
    } shapes[] = {
        {"1-D", {{0, 5}}},
        {"2x3", {{0, 2}, {0, 3}}},
        {"2x2x2", {{0, 2}, {0, 2}, {0, 2}}},
        {"lower bounds -1, 0, 5", {{-1, 2}, {0, 3}, {5, 2}}},
        {"single element", {{7, 1}}},
        {"empty dimension", {{0, 2}, {0, 0}}},
    };
    for (const auto& shape : shapes) {
        SCOPED_TRACE(shape.name);
        ArrayPtr array = MakeArray(L"VT_I4|VT_ARRAY", shape.bounds);
        for (std::int32_t at = 0; at < array->elementCount; ++at)
            array->elements[at] = new CMetaObjectInt(at * 10);

        CVariant out;
        ASSERT_TRUE(Call().ArrayItemToVariant(array.get(), out.Get()));
        SAFEARRAY* made = out.Get().parray;
        ASSERT_EQ(SafeArrayGetDim(made), shape.bounds.size());
        std::int32_t lower[kMaxArrayDimensions];
        std::int32_t upper[kMaxArrayDimensions];
        std::int32_t current[kMaxArrayDimensions];
        CTypeDesc seen;
        seen.EnsureBounds();
        ReadArrayBounds(made, SafeArrayGetDim(made), seen, lower, upper);
        EXPECT_EQ(BoundsOf(seen), shape.bounds);
        if (array->elementCount > 0) {
            CArrayWalker walker(SafeArrayGetDim(made), lower, upper, current);
            walker.Start();
            while (!walker.IsFinished()) {
                LONG value = -1;
                EXPECT_EQ(SafeArrayGetElement(made, reinterpret_cast<LONG*>(current), &value), S_OK);
                EXPECT_EQ(value, static_cast<LONG>(walker.position) * 10);
                walker.Advance();
            }
        }

        ItemPtr back(Call().VariantToItem(out.Get()));
        auto* read = dynamic_cast<CMetaObjectArray*>(back.get());
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(BoundsOf(*read), shape.bounds);
        if (array->elementCount == 0) {
            EXPECT_EQ(read->elements, nullptr);
            continue;
        }
        ASSERT_EQ(read->elementCount, array->elementCount);
        for (std::int32_t at = 0; at < read->elementCount; ++at)
            EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*read->elements[at]).value, at * 10) << "position " << at;
    }
}

TEST(ArrayRoundTripTest, TwoByTwoFlagsGoOutTrueAndComeBackOne)
{
    ArrayPtr array = MakeArray(L"VT_BOOL|VT_ARRAY", {{0, 2}, {0, 2}});
    for (std::int32_t at = 0; at < 4; ++at)
        array->elements[at] = new CMetaObjectBool(1);
    CVariant out;
    ASSERT_TRUE(Call().ArrayItemToVariant(array.get(), out.Get()));
    ItemPtr back(Call().VariantToItem(out.Get()));
    auto& read = dynamic_cast<CMetaObjectArray&>(*back);
    ASSERT_EQ(read.elementCount, 4);
    for (std::int32_t at = 0; at < 4; ++at)
        EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*read.elements[at]).value, 1);
}

TEST(ArrayRoundTripTest, NestedVariantArraysGoOutAndComeBack)
{
    ArrayPtr inner = MakeArray(L"VT_BSTR|VT_ARRAY", {{1, 2}});
    inner->elements[0] = TextItem<CMetaObjectString>(L"a");
    inner->elements[1] = TextItem<CMetaObjectString>(L"b");
    ArrayPtr outer = MakeArray(L"VT_VARIANT|VT_ARRAY", {{0, 2}});
    outer->elements[0] = new CMetaObjectInt(1);
    outer->elements[1] = inner.release();

    CVariant out;
    ASSERT_TRUE(Call().ArrayItemToVariant(outer.get(), out.Get()));
    ItemPtr back(Call().VariantToItem(out.Get()));
    auto& read = dynamic_cast<CMetaObjectArray&>(*back);
    ASSERT_EQ(read.elementCount, 2);
    EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*read.elements[0]).value, 1);
    auto& nested = dynamic_cast<CMetaObjectArray&>(*read.elements[1]);
    EXPECT_EQ(BoundsOf(nested), (Bounds{{1, 2}}));
    EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*nested.elements[1]).value), L"b");
}

// An object item with its own handler around a counting object.
CMetaObjectObject* ObjectElement(CCountingDispatch& object)
{
    auto* item = new CMetaObjectObject;
    object.AddRef();  // the handler's reference
    WrapObject(&object, *item, nullptr);
    return item;
}

TEST(ArrayObjectsTest, ReferencesAreExactAfterPutGetAndRelease)
{
    CCountingDispatch object;
    {
        ArrayPtr array = MakeArray(L"VT_DISPATCH|VT_ARRAY", {{0, 3}});
        for (std::int32_t at = 0; at < 3; ++at)
            array->elements[at] = ObjectElement(object);
        EXPECT_EQ(object.References(), 4);  // the creator and three handlers
        {
            CVariant out;
            ASSERT_TRUE(Call().ArrayItemToVariant(array.get(), out.Get()));
            EXPECT_EQ(object.References(), 7);  // one for each place of the SAFEARRAY
            ItemPtr back(Call().VariantToItem(out.Get()));
            EXPECT_EQ(object.References(), 10);  // and one for each new handler
            auto& read = dynamic_cast<CMetaObjectArray&>(*back);
            EXPECT_EQ(dynamic_cast<CMetaObjectObject&>(*read.elements[2]).handler->GetDispatchPointer(), &object);
        }
        EXPECT_EQ(object.References(), 4);  // the SAFEARRAY and the read items are gone
        // An argument goes through the call's release, which destroys the array.
        VARIANT argument;
        VariantInit(&argument);
        ASSERT_TRUE(Call().ArrayItemToVariant(array.get(), argument));
        EXPECT_EQ(object.References(), 7);
        ReleaseArgument(argument);
        EXPECT_EQ(object.References(), 4);
    }
    EXPECT_EQ(object.References(), 1);
}

TEST(ArrayObjectsTest, UnknownElementsComeInAsNumbersAndKeepNoReference)
{
    CCountingDispatch object;
    SAFEARRAYBOUND bound{1, 0};
    SafeArray array(SafeArrayCreate(VT_UNKNOWN, 1, &bound));
    LONG index = 0;
    SafeArrayPutElement(array.Get(), &index, static_cast<IUnknown*>(&object));
    EXPECT_EQ(object.References(), 2);
    CVariant value;
    value.Get().vt = VT_ARRAY | VT_UNKNOWN;
    value.Get().parray = array.Release();
    ItemPtr item(Call().VariantToItem(value.Get()));
    auto& read = dynamic_cast<CMetaObjectArray&>(*item);
    auto& number = dynamic_cast<CMetaObjectUnknown&>(*read.elements[0]);
    EXPECT_EQ(number.value, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&object)));
    EXPECT_EQ(object.References(), 2);
}

// In/out goes by reference; what the object puts in the cell comes back into
// the item, and the call's release destroys it.
TEST(ArrayInOutTest, TheReturnedArrayReplacesTheItemsElements)
{
    ArrayPtr array = MakeArray(L"VT_I4|VT_ARRAY|VT_PTR", {{0, 2}}, 2);
    array->elements[0] = new CMetaObjectInt(1);
    array->elements[1] = new CMetaObjectInt(2);
    VARIANT argument;
    VariantInit(&argument);
    ASSERT_TRUE(Call().ItemToVariant(array.get(), argument));
    ASSERT_EQ(argument.vt, VT_ARRAY | VT_BYREF | VT_I4);
    ASSERT_NE(*argument.pparray, nullptr);
    EXPECT_EQ((*argument.pparray)->rgsabound[0].cElements, 2u);

    // The object replaces the array with one of three elements from 5.
    SafeArrayDestroy(*argument.pparray);
    SAFEARRAYBOUND bound{3, 5};
    *argument.pparray = SafeArrayCreate(VT_I4, 1, &bound);
    for (LONG index = 5; index < 8; ++index) {
        LONG value = index * 2;
        SafeArrayPutElement(*argument.pparray, &index, &value);
    }
    EXPECT_TRUE(Call().VariantIntoItem(argument, array.get()));
    ReleaseArgument(argument);

    EXPECT_EQ(BoundsOf(*array), (Bounds{{5, 3}}));
    EXPECT_EQ(Wide(array->GetTypeDesc().signature), L"VT_I4|VT_ARRAY|VT_PTR");
    ASSERT_EQ(array->elementCount, 3);
    EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*array->elements[2]).value, 14);
}

TEST(ArrayInOutTest, AnOutArrayGoesAsAnEmptyCellAndAnEmptyAnswerLeavesTheItem)
{
    ArrayPtr array = MakeArray(L"VT_BSTR|VT_ARRAY|VT_PTR", {{0, 1}}, 1);
    array->elements[0] = TextItem<CMetaObjectString>(L"kept");
    VARIANT argument;
    VariantInit(&argument);
    ASSERT_TRUE(Call().ItemToVariant(array.get(), argument));
    EXPECT_EQ(argument.vt, VT_ARRAY | VT_BYREF | VT_BSTR);
    EXPECT_EQ(*argument.pparray, nullptr);
    EXPECT_FALSE(Call().VariantIntoItem(argument, array.get()));
    ReleaseArgument(argument);
    ASSERT_EQ(array->elementCount, 1);
    EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*array->elements[0]).value), L"kept");
}

TEST(ArrayVariantToItemTest, AByReferenceArrayIsReadAndLeftToItsOwner)
{
    SAFEARRAYBOUND bound{2, -1};
    SafeArray array(SafeArrayCreate(VT_R8, 1, &bound));
    SAFEARRAY* held = array.Get();
    VARIANT value;
    value.vt = VT_ARRAY | VT_BYREF | VT_R8;
    value.pparray = &held;
    ItemPtr item(Call().VariantToItem(value));
    auto& read = dynamic_cast<CMetaObjectArray&>(*item);
    EXPECT_EQ(BoundsOf(read), (Bounds{{-1, 2}}));
    EXPECT_EQ(read.elementCount, 2);
    EXPECT_EQ(SafeArrayGetDim(array.Get()), 1u);  // still whole, still ours
}

TEST(ArrayBadInputTest, ShapesThatCantBeTranslatedAreRefused)
{
    // A descriptor of no dimensions, as no platform call makes one.
    SAFEARRAY none{};
    none.cbElements = 4;
    VARIANT value;
    value.vt = VT_ARRAY | VT_I4;
    value.parray = &none;
    EXPECT_EQ(Call().ArrayVariantToItem(value), nullptr);

    // Elements beyond 32 bits, with no data behind them: refused before any read.
    SAFEARRAY* huge = nullptr;
    ASSERT_EQ(SafeArrayAllocDescriptor(2, &huge), S_OK);
    huge->cbElements = 4;
    huge->rgsabound[0].cElements = 0x10000;
    huge->rgsabound[1].cElements = 0x10000;
    value.parray = huge;
    EXPECT_EQ(Call().ArrayVariantToItem(value), nullptr);
    SafeArrayDestroyDescriptor(huge);

    // More than 100 dimensions.
    std::vector<SAFEARRAYBOUND> many(101, SAFEARRAYBOUND{1, 0});
    SafeArray deep(SafeArrayCreate(VT_I4, 101, many.data()));
    if (deep) {
        value.parray = deep.Get();
        EXPECT_EQ(Call().ArrayVariantToItem(value), nullptr);
    }

    const struct {
        const char* name;
        Bounds bounds;
        const wchar_t* signature;
    } refusedOut[] = {
        {"101 dimensions", Bounds(101, {0, 1}), L"VT_I4|VT_ARRAY"},
        {"65536 dimensions", Bounds(65536, {0, 1}), L"VT_I4|VT_ARRAY"},
        {"count that overflows", {{0, 0x10000}, {0, 0x10000}}, L"VT_I4|VT_ARRAY"},
        {"count left open", {{0, -1}}, L"VT_I4|VT_ARRAY"},
        {"by-reference element", {{0, 1}}, L"VT_I4|VT_PTR|VT_ARRAY"},
        {"no signature", {{0, 1}}, L""},
    };
    for (const auto& row : refusedOut) {
        SCOPED_TRACE(row.name);
        ArrayPtr array(new CMetaObjectArray);
        array->SetValue(CMetaString(row.signature));
        array->GetTypeDesc().EnsureBounds();
        for (const auto& bound : row.bounds)
            array->GetTypeDesc().bounds->Add(bound.first, bound.second);
        VARIANT out;
        out.vt = 0xBEEF;
        EXPECT_FALSE(Call().ArrayItemToVariant(array.get(), out));
        EXPECT_EQ(out.vt, 0xBEEF);
    }
}

TEST(ArrayBadInputTest, EmptyElementsAndDeepNestingAreReadSafely)
{
    SAFEARRAYBOUND bound{3, 0};
    CVariant value;
    value.Get().vt = VT_ARRAY | VT_VARIANT;
    value.Get().parray = SafeArrayCreate(VT_VARIANT, 1, &bound);
    ItemPtr empty(Call().VariantToItem(value.Get()));
    auto& read = dynamic_cast<CMetaObjectArray&>(*empty);
    ASSERT_EQ(read.elementCount, 3);
    for (std::int32_t at = 0; at < 3; ++at)
        ExpectLikeAnEmptyResult(read.elements[at]);

    // 1000 VARIANT arrays, each the only element of the one around it.
    SAFEARRAYBOUND one{1, 0};
    CVariant nested;
    nested.Get().vt = VT_I4;
    nested.Get().lVal = 42;
    for (int level = 0; level < 1000; ++level) {
        SAFEARRAY* around = SafeArrayCreate(VT_VARIANT, 1, &one);
        LONG index = 0;
        SafeArrayPutElement(around, &index, &nested.Get());
        VariantClear(&nested.Get());
        nested.Get().vt = VT_ARRAY | VT_VARIANT;
        nested.Get().parray = around;
    }
    ItemPtr deep(Call().VariantToItem(nested.Get()));
    int levels = 0;
    CMetaObjectItem* at = deep.get();
    while (auto* array = dynamic_cast<CMetaObjectArray*>(at)) {
        ++levels;
        at = array->elementCount == 1 ? array->elements[0] : nullptr;
    }
    EXPECT_EQ(at, nullptr);  // cut off before the number
    EXPECT_GT(levels, 10);
    EXPECT_LT(levels, 1000);
}

TEST(ArrayRoundTripTest, RoundsOfNestedAndInOutArraysLeaveNoBlockBehind)
{
    const long left = BlocksLeftBy([] {
        for (int round = 0; round < 3; ++round) {
            ArrayPtr inner = MakeArray(L"VT_BSTR|VT_ARRAY", {{0, 2}});
            inner->elements[0] = TextItem<CMetaObjectString>(L"a");
            ArrayPtr outer = MakeArray(L"VT_VARIANT|VT_ARRAY", {{-1, 2}, {0, 2}});
            outer->elements[0] = inner.release();
            outer->elements[3] = TextItem<CMetaObjectString>(L"b");
            CVariant out;
            ASSERT_TRUE(Call().ArrayItemToVariant(outer.get(), out.Get()));
            ItemPtr back(Call().VariantToItem(out.Get()));

            // Read back in/out over the array that went out, shape and all.
            outer->SetValue(CMetaString(L"VT_VARIANT|VT_ARRAY|VT_PTR"));
            outer->SetDirection(2);
            VARIANT argument;
            VariantInit(&argument);
            ASSERT_TRUE(Call().ItemToVariant(outer.get(), argument));
            EXPECT_TRUE(Call().VariantIntoItem(argument, outer.get()));
            ReleaseArgument(argument);
            EXPECT_EQ(BoundsOf(*outer), (Bounds{{-1, 2}, {0, 2}}));
        }
    });
    EXPECT_EQ(left, 0);
}

}  // namespace
