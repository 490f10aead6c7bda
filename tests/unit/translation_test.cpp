// Items to VARIANTs and SAFEARRAYs and back, row by row, without a server: the
// call object is made without an object, which these translations don't need.

#include <gtest/gtest.h>

#include <oleauto.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "invoke/method_invoke.h"
#include "invoke/variant_owner.h"
#include "metaobj/compound_items.h"
#include "metaobj/scalar_items.h"
#include "platform/platform_handles.h"
#include "plugin/com_handler.h"

using namespace MetaObj;

namespace {

// Clears before it deletes, as a host does: object items give their use back.
struct ClearingDelete {
    void operator()(CMetaObjectItem* item) const
    {
        CMetaObjectHandler* handler = nullptr;
        if (auto* object = dynamic_cast<CMetaObjectObject*>(item))
            handler = object->handler;
        item->Clear();
        delete item;
        if (handler && handler->GetUseCount() == 0)
            delete handler;
    }
};
using ItemPtr = std::unique_ptr<CMetaObjectItem, ClearingDelete>;
using Bounds = std::vector<std::pair<std::int32_t, std::int32_t>>;  // lower bound, count

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

std::wstring ValueOf(CMetaObjectItem* item)
{
    CMetaString out;
    item->GetValue(out);
    return Wide(out);
}

enum Kind { Int, Char, Real, Bool, Enum, Unknown, Text, Currency, Date };
enum Flags { NullTag = 1, Optional = 2, Omitted = 4, OutOnly = 8 };

// An item of a kind with a number or a text, typed by a signature.
struct ItemShape {
    Kind kind;
    double number;
    const wchar_t* signature;
    int byRef = 0, flags = 0;
    const wchar_t* text = L"";
};

ItemPtr Make(const ItemShape& shape)
{
    CMetaObjectItem* item = nullptr;
    const auto whole = static_cast<std::int32_t>(static_cast<long long>(shape.number));
    switch (shape.kind) {
    case Int: item = new CMetaObjectInt(whole); break;
    case Char: item = new CMetaObjectChar(static_cast<wchar_t>(shape.number)); break;
    case Real: item = new CMetaObjectReal(shape.number); break;
    case Bool: item = new CMetaObjectBool(static_cast<unsigned char>(shape.number)); break;
    case Enum: item = new CMetaObjectEnum(whole); break;
    case Unknown: item = new CMetaObjectUnknown(static_cast<std::uint32_t>(shape.number)); break;
    case Text: item = new CMetaObjectString; break;
    case Currency: item = new CMetaObjectCurrency; break;
    case Date: item = new CMetaObjectDate; break;
    }
    if (auto* string = dynamic_cast<CMetaObjectString*>(item))
        string->value = CMetaString(shape.text);
    if (shape.kind == Enum || shape.kind == Unknown)
        item->GetTypeDesc().type = shape.kind == Enum ? MetaTypeEnum : MetaTypeUnknown;
    item->GetTypeDesc().signature = CMetaString(shape.signature);
    item->GetTypeDesc().isByRef = shape.byRef;
    if (shape.flags & NullTag)
        item->SetTagText(CMetaString(L"<@nullobject>"));
    item->SetOptional((shape.flags & Optional) != 0);
    item->SetOmitted((shape.flags & Omitted) != 0);
    item->SetDirection(shape.flags & OutOnly ? 1 : shape.byRef ? 2 : 0);
    return ItemPtr(item);
}

// What a VARIANT holds, or what its cell holds: whole numbers in decimal,
// others as to_wstring writes them, texts as they are, a null BSTR as "(null)"
// and a VARIANT cell as <its type:what it holds>.
std::wstring Held(const VARIANT& v)
{
    const VARTYPE type = v.vt & ~VT_BYREF;
    const void* at = (v.vt & VT_BYREF) ? v.byref : &v.llVal;
    double n = 0;
    switch (type) {
    case VT_VARIANT: return L"<" + std::to_wstring(v.pvarVal->vt) + L":" + Held(*v.pvarVal) + L">";
    case VT_BSTR: return *static_cast<const BSTR*>(at) ? *static_cast<const BSTR*>(at) : L"(null)";
    case VT_EMPTY: case VT_NULL: case VT_DISPATCH: case VT_UNKNOWN: return L"";
    case VT_I1: n = *static_cast<const signed char*>(at); break;
    case VT_UI1: n = *static_cast<const unsigned char*>(at); break;
    case VT_I2: case VT_BOOL: n = *static_cast<const SHORT*>(at); break;
    case VT_UI2: n = *static_cast<const USHORT*>(at); break;
    case VT_UI4: case VT_UINT: n = *static_cast<const ULONG*>(at); break;
    case VT_R4: n = *static_cast<const float*>(at); break;
    case VT_R8: case VT_DATE: n = *static_cast<const double*>(at); break;
    case VT_I8: case VT_CY: n = static_cast<double>(*static_cast<const LONGLONG*>(at)); break;
    default: n = *static_cast<const LONG*>(at); break;  // I4, INT, ERROR, and the word of VT_VOID
    }
    return n == std::floor(n) ? std::to_wstring(static_cast<long long>(n)) : std::to_wstring(n);
}

// A translated argument, released as the call releases it.
struct Argument {
    CCOMMethodInvoke call{nullptr, CMetaString(L"Invoke:Nothing")};
    VARIANT value;
    bool translated = false;
    explicit Argument(CMetaObjectItem* item)
    {
        std::memset(&value, 0xCD, sizeof value);  // ItemToVariant must initialise it
        translated = call.ItemToVariant(item, value);
    }
    ~Argument() { ReleaseArgument(value); }
};

CCOMMethodInvoke& Call()
{
    static CCOMMethodInvoke call(nullptr, 0, MethodKindInvoke);
    return call;
}

TEST(ItemToVariantTest, ByValueAndByReferenceRows)
{
    const struct {
        const char* name;
        ItemShape item;
        VARTYPE vt;  // VT_ILLEGAL: refused
        const wchar_t* held;
    } rows[] = {
        {"char as VT_I1", {Char, 0x1FF, L"VT_I1"}, VT_I1, L"-1"},
        {"int as VT_I2 keeps 16 bits", {Int, 0x12345, L"VT_I2"}, VT_I2, L"9029"},
        {"real as VT_R4", {Real, 2.5, L"VT_R4"}, VT_R4, L"2.500000"},
        {"bool 1 is true", {Bool, 1, L"VT_BOOL"}, VT_BOOL, L"-1"},
        {"bool 2 is false", {Bool, 2, L"VT_BOOL"}, VT_BOOL, L"0"},
        {"empty text is an empty BSTR", {Text, 0, L"VT_BSTR"}, VT_BSTR, L""},
        {"text to a VARIANT goes as VT_BSTR", {Text, 0, L"VT_VARIANT", 0, 0, L"hi"}, VT_BSTR, L"hi"},
        {"int to a VARIANT goes as itself", {Int, 9, L"VT_VARIANT"}, VT_I4, L"9"},
        {"currency by the system locale", {Currency, 0, L"VT_CY", 0, 0, L"12.5"}, VT_CY, L"125000"},
        {"a currency text that doesn't parse still goes", {Currency, 0, L"VT_CY", 0, 0, L"lots"}, VT_CY, nullptr},
        {"date loses its time of day", {Date, 0, L"VT_DATE", 0, 0, L"2024-01-02 13:00:00"}, VT_DATE, L"45293"},
        {"user-defined without an enumeration", {Int, 5, L"VT_USERDEFINED"}, VT_VOID, L"5"},
        {"enumeration signed VT_BYREF goes as VT_I4", {Enum, 7, L"VT_BYREF"}, VT_I4, L"7"},
        {"a suffix has no by-value row", {Int, 1, L"VT_I4|VT_PTR"}, VT_ILLEGAL, nullptr},
        {"VT_I8 has no row", {Int, 1, L"VT_I8"}, VT_ILLEGAL, nullptr},
        {"float named as the host names it has no row", {Real, 1, L"VT_REAL"}, VT_ILLEGAL, nullptr},
        {"wrong item class for the row", {Text, 0, L"VT_I4", 0, 0, L"1"}, VT_ILLEGAL, nullptr},
        {"unknown goes as its word, never by reference", {Unknown, 0xBEEF, L"VT_I4|VT_PTR"}, VT_I4, L"48879"},
        {"null object tag in small letters wins over the type", {Int, 3, L"VT_I4", 0, NullTag}, VT_NULL, L""},
        {"omitted optional wins over everything", {Int, 3, L"VT_I8", 0, Optional | Omitted}, VT_ERROR, L"-2147352572"},
        {"omitted but not optional goes by the table", {Int, 3, L"VT_I8", 0, Omitted}, VT_ILLEGAL, nullptr},
        {"byte cell", {Char, 'A', L"VT_UI1|VT_PTR", 1}, VT_UI1 | VT_BYREF, L"65"},
        {"double cell", {Real, 0.25, L"VT_R8|VT_BYREF", 1}, VT_R8 | VT_BYREF, L"0.250000"},
        {"empty text gives a null BSTR in its cell", {Text, 0, L"VT_BSTR|VT_PTR", 1}, VT_BSTR | VT_BYREF, L"(null)"},
        {"text cell", {Text, 0, L"VT_BSTR|VT_PTR", 1, 0, L"abc"}, VT_BSTR | VT_BYREF, L"abc"},
        {"enumeration cell", {Enum, 2, L"VT_BYREF", 1}, VT_I4 | VT_BYREF, L"2"},
        {"an out-only text goes out empty", {Text, 0, L"VT_BSTR|VT_PTR", 1, OutOnly, L"stale"}, VT_BSTR | VT_BYREF, L"(null)"},
        {"an out-only variant goes out empty", {Text, 0, L"VT_VARIANT|VT_PTR", 1, OutOnly, L"x"}, VT_VARIANT | VT_BYREF, L"<0:>"},
        {"variant cell holds text", {Text, 0, L"VT_VARIANT|VT_PTR", 1, 0, L"x"}, VT_VARIANT | VT_BYREF, L"<8:x>"},
        {"date cell by the user's locale", {Date, 0, L"VT_DATE|VT_PTR", 1, 0, L"2024-01-02"}, VT_DATE | VT_BYREF, L"45293"},
        {"error cell", {Int, -2147467259.0, L"VT_ERROR|VT_PTR", 1}, VT_ERROR | VT_BYREF, L"-2147467259"},
        {"a by-reference unknown has no cell to give", {Unknown, 1, L"VT_BYREF", 1}, VT_ILLEGAL, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ItemPtr item = Make(row.item);
        Argument argument(item.get());
        ASSERT_EQ(argument.translated, row.vt != VT_ILLEGAL);
        if (!argument.translated)
            continue;
        EXPECT_EQ(argument.value.vt, row.vt);
        EXPECT_TRUE(!row.held || Held(argument.value) == row.held) << Held(argument.value);
    }
}

TEST(VariantIntoItemTest, OutArgumentsAreReadByTheItemsSignature)
{
    const struct {
        const char* name;
        ItemShape item;           // as it went out
        std::function<void(VARIANT&)> changed;  // what the object did to the argument
        bool written;
        const wchar_t* shown;
    } rows[] = {
        {"VT_I1 -1 is 0xFFFF by reference", {Char, 'a', L"VT_I1|VT_PTR", 1},
         [](VARIANT& v) { *v.pcVal = -1; }, true, L"\xFFFF"},
        {"VT_BOOL only 0xFFFF is true", {Bool, 1, L"VT_BOOL|VT_PTR", 1},
         [](VARIANT& v) { *v.pboolVal = 1; }, true, L"false"},
        {"a BSTR the object left null is an empty text", {Text, 0, L"VT_BSTR|VT_PTR", 1, 0, L"before"},
         [](VARIANT& v) { SysFreeString(*v.pbstrVal); *v.pbstrVal = nullptr; }, true, L""},
        {"a variant cell becomes text", {Text, 0, L"VT_VARIANT|VT_PTR", 1, 0, L"in"},
         [](VARIANT& v) { VariantClear(v.pvarVal); v.pvarVal->vt = VT_I4; v.pvarVal->lVal = 42; }, true, L"42"},
        {"a variant cell the object emptied gives an empty text",
         {Text, 0, L"VT_VARIANT|VT_PTR", 1, 0, L"in"}, [](VARIANT& v) { VariantClear(v.pvarVal); },
         true, L""},
        {"a variant cell of another plain type becomes text by the platform's conversion",
         {Text, 0, L"VT_VARIANT|VT_PTR", 1, 0, L"in"},
         [](VARIANT& v) { VariantClear(v.pvarVal); v.pvarVal->vt = VT_I8; v.pvarVal->llVal = 5000000000LL; }, true,
         L"5000000000"},
        {"a flag in a variant cell reads back by its own type", {Bool, 0, L"VT_VARIANT|VT_PTR", 1},
         [](VARIANT& v) { VariantClear(v.pvarVal); v.pvarVal->vt = VT_BOOL; v.pvarVal->boolVal = VARIANT_TRUE; }, true,
         L"true"},
        {"enumeration by any signature", {Enum, 1, L"VT_BYREF", 1}, [](VARIANT& v) { *v.plVal = 99; },
         true, L"99"},
        {"a signature without a row keeps the value", {Int, 4, L"VT_I8"}, nullptr, false, L"4"},
        {"an omitted by-reference argument has no cell to read",
         {Int, 4, L"VT_I4|VT_PTR", 1, Optional | Omitted}, nullptr, false, L"4"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ItemPtr item = Make(row.item);
        Argument argument(item.get());
        if (row.changed)
            row.changed(argument.value);
        EXPECT_EQ(argument.call.VariantIntoItem(argument.value, item.get()), row.written);
        EXPECT_EQ(ValueOf(item.get()), row.shown);
    }
}

// Arrays

std::unique_ptr<CMetaObjectArray, ClearingDelete> MakeArray(const wchar_t* signature, const Bounds& bounds)
{
    std::unique_ptr<CMetaObjectArray, ClearingDelete> array(new CMetaObjectArray);
    array->SetValue(CMetaString(signature));
    CTypeDesc type;
    type.signature = CMetaString(signature);
    type.EnsureBounds();
    for (const auto& bound : bounds)
        type.bounds->Add(bound.first, bound.second);
    array->InitElements(type);
    return array;
}

TEST(ArrayTranslationTest, EachElementRowWritesItsValue)
{
    const struct { const wchar_t* signature; ItemShape element; VARTYPE type; const wchar_t* held; } rows[] = {
        {L"VT_I1|VT_ARRAY", {Char, 0x1FF, L""}, VT_I1, L"-1"}, {L"VT_UI1|VT_ARRAY", {Char, 0x141, L""}, VT_UI1, L"65"},
        {L"VT_I2|VT_ARRAY", {Int, 0x12345, L""}, VT_I2, L"9029"},
        {L"VT_UI4|VT_ARRAY", {Int, -1, L""}, VT_UI4, L"4294967295"},
        {L"VT_ERROR|VT_ARRAY", {Int, E_FAIL, L""}, VT_ERROR, L"-2147467259"},
        {L"VT_I4|VT_ARRAY", {Enum, 3, L""}, VT_I4, L"3"}, {L"VT_R8|VT_ARRAY", {Real, 0.1, L""}, VT_R8, L"0.100000"},
        {L"VT_BOOL|VT_ARRAY", {Bool, 1, L""}, VT_BOOL, L"-1"}, {L"VT_BOOL|VT_ARRAY", {Bool, 2, L""}, VT_BOOL, L"0"},
        {L"VT_BSTR|VT_ARRAY", {Text, 0, L"", 0, 0, L"h\u00e4j"}, VT_BSTR, L"h\u00e4j"},
        {L"VT_VARIANT|VT_ARRAY", {Text, 0, L"", 0, 0, L"12"}, VT_VARIANT, L"<8:12>"},
        {L"VT_VARIANT|VT_ARRAY", {Int, 5, L""}, VT_VARIANT, L"<3:5>"},
        {L"VT_CY|VT_ARRAY", {Currency, 0, L"", 0, 0, L"12.5"}, VT_CY, L"125000"},
        {L"VT_CY|VT_ARRAY", {Currency, 0, L"", 0, 0, L"twelve"}, VT_CY, L"0"},  // stays 0
        {L"VT_DATE|VT_ARRAY", {Date, 0, L"", 0, 0, L"1/2/2020 6:00:00 AM"}, VT_DATE,
         L"43832.250000"},  // keeps its time
        {L"VT_I4|VT_ARRAY", {Text, 0, L"", 0, 0, L"9"}, VT_I4, L"0"},  // wrong class: the default
        {L"VT_I8|VT_ARRAY", {Int, 9, L""}, VT_I8, L"0"},              // no row: the default
        {L"VT_I2", {Int, 4, L""}, VT_I2, L"4"},                       // without |VT_ARRAY
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "row " << (&row - rows));
        auto array = MakeArray(row.signature, {{0, 1}});
        array->elements[0] = Make(row.element).release();
        CVariant out;
        ASSERT_TRUE(Call().ArrayItemToVariant(array.get(), out.Get()));
        ASSERT_EQ(out.Get().vt, VT_ARRAY | row.type);
        CVariant element;
        LONG index = 0;
        VARIANT cell{};
        ASSERT_EQ(SafeArrayGetElement(out.Get().parray, &index, row.type == VT_VARIANT ? static_cast<void*>(&element.Get())
                                                                                       : &element.Get().llVal), S_OK);
        cell.vt = row.type | VT_BYREF;
        cell.byref = row.type == VT_VARIANT ? static_cast<void*>(&element.Get()) : &element.Get().llVal;
        EXPECT_EQ(Held(cell), row.held);
        if (row.type == VT_BSTR)
            element.Get().vt = VT_BSTR;  // freed with the VARIANT
    }
}

TEST(ArrayTranslationTest, EachElementRowMakesItsItem)
{
    const struct {
        VARTYPE type;
        std::function<void(VARIANT&)> value;  // the element; for VT_VARIANT the VARIANT itself
        const char* itemClass;
        const wchar_t* shown;
    } rows[] = {
        {VT_I1, [](VARIANT& v) { v.cVal = -1; }, "Char", L"\xFFFF"},  // sign-extended
        {VT_UI1, [](VARIANT& v) { v.bVal = 0xFF; }, "Char", L"\xFF"},
        {VT_UI2, [](VARIANT& v) { v.uiVal = 0xFFFF; }, "Int", L"65535"},
        {VT_UI4, [](VARIANT& v) { v.ulVal = 0xFFFFFFFF; }, "Int", L"-1"},
        {VT_ERROR, [](VARIANT& v) { v.scode = E_FAIL; }, "Int", L"-2147467259"},
        {VT_R8, [](VARIANT& v) { v.dblVal = 0.1; }, "Real", L"0.100000"},
        {VT_BOOL, [](VARIANT& v) { v.boolVal = VARIANT_TRUE; }, "Bool", L"true"},
        {VT_BSTR, [](VARIANT& v) { v.bstrVal = SysAllocString(L"text"); }, "String", L"text"},
        {VT_CY, [](VARIANT& v) { v.cyVal.int64 = 125000; }, "Currency", L"12.5"},
        {VT_VARIANT, [](VARIANT& v) { v.vt = VT_I4; v.lVal = 8; }, "Int", L"8"},
        {VT_VARIANT, [](VARIANT& v) { v.vt = VT_BSTR; v.bstrVal = SysAllocString(L"in"); }, "String", L"in"},
        {VT_VARIANT, [](VARIANT&) {}, "Void", L""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "type " << row.type << " " << row.itemClass);
        SAFEARRAYBOUND bound{1, 0};
        SafeArray array(SafeArrayCreate(row.type, 1, &bound));
        CVariant element;
        row.value(element.Get());
        LONG index = 0;
        SafeArrayPutElement(array.Get(), &index,
                            row.type == VT_VARIANT ? static_cast<void*>(&element.Get())
                            : row.type == VT_BSTR  ? static_cast<void*>(element.Get().bstrVal)
                                                   : &element.Get().lVal);
        if (row.type == VT_BSTR)
            element.Get().vt = VT_BSTR;  // the text the row made goes with the VARIANT
        CVariant value;
        value.Get().vt = VT_ARRAY | row.type;
        value.Get().parray = array.Release();
        ItemPtr item(Call().VariantToItem(value.Get()));
        auto* read = dynamic_cast<CMetaObjectArray*>(item.get());
        ASSERT_NE(read, nullptr);
        ASSERT_EQ(read->elementCount, 1);
        CVariant empty;
        if (row.type == VT_VARIANT && element.Get().vt == VT_EMPTY) {
            ItemPtr expected(Call().VariantToItem(empty.Get()));
            ASSERT_EQ(read->elements[0] == nullptr, expected == nullptr);
            continue;
        }
        EXPECT_NE(std::string(typeid(*read->elements[0]).name()).find(row.itemClass), std::string::npos);
        EXPECT_EQ(ValueOf(read->elements[0]), row.shown);
    }
}

TEST(ArrayTranslationTest, ShapesThatCantBeTranslatedAreRefused)
{
    const struct { const char* name; Bounds bounds; const wchar_t* signature; } refusedOut[] = {
        {"101 dimensions", Bounds(101, {0, 1}), L"VT_I4|VT_ARRAY"},
        {"65536 dimensions", Bounds(65536, {0, 1}), L"VT_I4|VT_ARRAY"},
        {"count that overflows", {{0, 0x10000}, {0, 0x10000}}, L"VT_I4|VT_ARRAY"},
        {"count left open", {{0, -1}}, L"VT_I4|VT_ARRAY"}, {"by-reference element", {{0, 1}}, L"VT_I4|VT_PTR|VT_ARRAY"},
        {"no signature", {{0, 1}}, L""},
    };
    for (const auto& row : refusedOut) {
        SCOPED_TRACE(row.name);
        std::unique_ptr<CMetaObjectArray, ClearingDelete> array(new CMetaObjectArray);
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

}  // namespace
