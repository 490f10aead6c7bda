// Items, type descriptors, records and handlers: text forms, copies, uses, translation to VARIANTs,
// and the layout the host reaches; under the counting allocator, so that leaks fail.

#include <gtest/gtest.h>

#include <windows.h>
#include <oleauto.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "contract/host_environment.h"
#include "host/reference_host.h"
#include "invoke/method_invoke.h"
#include "invoke/variant_owner.h"
#include "metaobj/array_walker.h"
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/block_cache.h"
#include "platform/contained_call.h"
#include "platform/error_text.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/leak_check.h"
#include "text/mox_data.h"

using namespace MetaObj;

namespace {

static_assert(!std::is_polymorphic<CMethodEntry>::value && !std::is_polymorphic<CParamEntry>::value,
              "the host copies catalogue entries field by field");
static_assert(std::has_virtual_destructor<CObjectInfo>::value && std::has_virtual_destructor<CMethodInfo>::value &&
                  std::has_virtual_destructor<CParamInfo>::value && std::has_virtual_destructor<CObjectProperty>::value,
              "the host frees these records through their destructor");

struct ClearingDelete {  // as a host does: Clear frees what an item holds
    void operator()(CMetaObjectItem* item) const
    {
        item->Clear();
        delete item;
    }
};
using ItemPtr = std::unique_ptr<CMetaObjectItem, ClearingDelete>;
using Factory = std::function<CMetaObjectItem*()>;

std::wstring ValueOf(CMetaObjectItem& item)
{
    CMetaString out(L"junk");  // every class must replace what out held
    item.GetValue(out);
    return out.IsEmpty() ? std::wstring() : std::wstring(out.GetWide());
}

CMetaObjectArray* MakeIntArray(std::int32_t rows, std::int32_t columns)
{
    auto array = new CMetaObjectArray;
    CTypeDesc type(MetaTypeInt, 0, 1);
    type.bounds->Add(0, rows);
    type.bounds->Add(1, columns);
    EXPECT_TRUE(array->InitElements(type));
    return array;
}

const std::vector<std::pair<const char*, Factory>>& AllClasses()
{
    static const std::vector<std::pair<const char*, Factory>> classes = {
        {"Bool", [] { return new CMetaObjectBool(1); }},    {"Int", [] { return new CMetaObjectInt(-42); }},
        {"Real", [] { return new CMetaObjectReal(2.5); }},  {"Char", [] { return new CMetaObjectChar(L'q'); }},
        {"Enum", [] { return new CMetaObjectEnum(7); }},    {"Unknown", [] { return new CMetaObjectUnknown(0xBEEF); }},
        {"Void", [] { return new CMetaObjectVoid; }},       {"Object", [] { return new CMetaObjectObject; }},
        {"String", [] { auto item = new CMetaObjectString; item->value = L"text"; return item; }},
        {"Date", [] { auto item = new CMetaObjectDate; item->value = L"2026-11-23"; return item; }},
        {"Currency", [] { auto item = new CMetaObjectCurrency; item->value = L"12.34"; return item; }},
        {"Struct", [] { CMetaObjectInt member(3); CItemList list{&member}; return new CMetaObjectStruct(&list); }},
        {"Array", [] {
             auto array = MakeIntArray(1, 2);
             array->arrayText = L"VT_I4|VT_ARRAY";
             CArrayWalker walker(0, nullptr, nullptr, nullptr);
             array->SetElement(new CMetaObjectInt(9), &walker);
             return array;
         }},
    };
    return classes;
}

TEST(ItemTest, TextFormsAndClonesOfEveryClass)
{
    const struct { const char* itemClass; const wchar_t *set, *expected; } rows[] = {  // set null: read as built
        {"Int", nullptr, L"-42"},       {"Int", L"12abc", L"12"},          {"Int", L"abc", L"0"},
        {"Bool", nullptr, L"true"},     {"Bool", L"false", L"false"},      {"Bool", L"truer", L"false"},
        {"Real", nullptr, L"2.500000"}, {"Real", L"", L"0.000000"},        {"Char", L"xyz", L"x"},
        {"Char", L"", L""},             {"Enum", L"-12", L"-12"},          {"Unknown", nullptr, L"BEEF"},
        {"Unknown", L"0xFF", L"FF"},    {"Unknown", L"FFFFFFFF", L"FFFFFFFF"}, {"Date", L"not a date", L"not a date"},
        {"Void", L"ignored", L""},      {"Struct", L"ignored", L"structure"}, {"Object", L"123", L""},
        {"Array", L"VT_BSTR|VT_ARRAY", L"VT_BSTR|VT_ARRAY"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.itemClass << " row " << (&row - rows));
        ItemPtr item;
        for (const auto& entry : AllClasses())
            if (std::string(entry.first) == row.itemClass)
                item.reset(entry.second());
        if (row.set)
            item->SetValueWide(CMetaString(row.set));
        EXPECT_EQ(ValueOf(*item), row.expected);
    }
    CMetaObjectInt item(0);
    item.SetValueNarrow("314");
    MoxText out;
    item.GetValueNarrow(out);
    EXPECT_STREQ(out.GetText(), "314");
    CMetaObjectReal huge(1e300);
    EXPECT_GT(ValueOf(huge).size(), 300u);
    huge.valueFormat = L"%.3f";
    huge.value = 2.5;
    EXPECT_EQ(ValueOf(*ItemPtr(huge.Clone())), L"2.500");

    for (const auto& entry : AllClasses()) {
        SCOPED_TRACE(entry.first);
        ItemPtr original(entry.second());
        const std::uint32_t ownType = original->GetTypeDesc().type;
        original->SetName(L"name");
        original->SetTagText(L"<@NULLOBJECT>");
        original->SetDirection(2);
        for (auto set : {&CMetaObjectItem::SetHostFlagOne, &CMetaObjectItem::SetOptional, &CMetaObjectItem::SetNewObject,
                         &CMetaObjectItem::SetHostFlagTwo, &CMetaObjectItem::SetOmitted})
            (original.get()->*set)(1);
        original->GetTypeDesc().typeName = L"Type";
        ItemPtr copy(original->Clone());
        EXPECT_EQ(typeid(*copy), typeid(*original));
        EXPECT_TRUE(copy->IsType(ownType));
        EXPECT_EQ(copy->GetName().Compare(L"name", 0) + copy->GetTagText().Compare(L"<@NULLOBJECT>", 0) +
                      copy->GetTypeDesc().typeName.Compare(L"Type", 0), 0);
        EXPECT_EQ(copy->GetDirection(), 2);
        EXPECT_EQ(copy->GetHostFlagOne() + copy->GetOptional() + copy->GetNewObject() + copy->GetHostFlagTwo() +
                      copy->GetOmitted(), 5);
        EXPECT_EQ(ValueOf(*copy), ValueOf(*original));
        copy->Clear();
        original->Clear();
    }
}

TEST(ItemTest, VariableTagsAreReadInEitherOrderAndAnyQuoting)
{
    const struct { const wchar_t* tag; const wchar_t *name, *scope; } rows[] = {  // null name: not parsed
        {L"<@varparam name='x'>", L"x", L"keep"},         {L"<@VARPARAM NAME='a b' SCOPE='c>d'>", L"a b", L"c>d"},
        {L"<@VARPARAM NAME=x SCOPE=\"y>", L"x", L"keep"}, {L"<@VARPARAM NAME=\"\" SCOPE=\"\">", L"", L""},
        {L"<@VARPARAM NAME=x", nullptr, nullptr},         {L"<@VARPARAM NAME=\"x>", nullptr, nullptr},
        {L"<@VARPARAM NAME=", nullptr, nullptr},          {L"<@VARPAX", nullptr, nullptr},
        {L"<@VARPARAM SCOPE=y>", nullptr, nullptr},       {L"<@NULLOBJECT>", nullptr, nullptr},
        {L"", nullptr, nullptr},                          {L"<@VARPARAM SCOPE='s' NAME=n>", L"n", L"s"},
        {L"<@VARPARAM XNAME=b>", L"b", L"keep"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
        CMetaObjectString item;
        item.SetTagText(CMetaString(row.tag));
        CMetaString name(L"keep"), scope(L"keep");
        EXPECT_EQ(item.ParseVarParam(name, scope), row.name != nullptr);
        EXPECT_EQ(std::wstring(name.IsEmpty() ? L"" : name.GetWide()), row.name ? row.name : L"keep");
        EXPECT_EQ(std::wstring(scope.IsEmpty() ? L"" : scope.GetWide()), row.name ? row.scope : L"keep");
    }
    CMetaObjectString item;
    item.SetTagText(L"<@VARPAX");
    EXPECT_TRUE(item.IsVarParam());  // only seven characters count
    item.MakeVarParam(L"a", L"b");
    EXPECT_EQ(item.GetTagText().Compare(L"<@VARPARAM NAME=\"a\" SCOPE=\"b\">", 0), 0);
    for (const std::size_t name : {kMaxVarParamText, kMaxVarParamText + 1}) {  // the host's fields hold 51
        for (const std::size_t scope : {kMaxVarParamText, kMaxVarParamText + 1}) {
            item.MakeVarParam(std::wstring(name, L'n').c_str(), std::wstring(scope, L's').c_str());
            CMetaString nameOut, scopeOut;
            EXPECT_EQ(item.ParseVarParam(nameOut, scopeOut), name + scope == 2 * kMaxVarParamText) << name << scope;
        }
    }
}

TEST(ItemTest, ArraysAreSizedByTheProductOfTheirBoundsAndKeepTheirSlots)
{
    const struct { std::vector<std::pair<int, int>> bounds; bool hasBounds, result; int count; bool block; } rows[] = {
        {{{0, 2}, {0, 3}}, true, true, 6, true}, {{{5, 1}}, true, true, 1, true},
        {{{0, 0}}, true, false, 0, false},       {{{0, 2}, {0, 0}}, true, false, 0, false},
        {{{0, -1}}, true, true, -1, false},      {{}, true, false, 0, false},
        {{}, false, false, 0, false},            {{{0, 65536}, {0, 65536}}, true, false, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
        CTypeDesc type(MetaTypeInt, 0, row.hasBounds ? 1 : 0);
        for (const auto& bound : row.bounds)
            type.bounds->Add(bound.first, bound.second);
        CMetaObjectArray array;
        EXPECT_EQ(array.InitElements(type), row.result);
        EXPECT_EQ(array.elementCount, row.count);
        EXPECT_EQ(array.elements != nullptr, row.block);
    }
    std::unique_ptr<CMetaObjectArray> array(MakeIntArray(2, 3));
    std::int32_t lower[] = {0, 1}, upper[] = {1, 3}, current[2];
    CArrayWalker walker(2, lower, upper, current);
    walker.Start();
    EXPECT_EQ(array->GetElement(&walker), nullptr);
    ItemPtr refused(new CMetaObjectInt(6));  // a refused item stays the caller's
    EXPECT_FALSE(array->SetElement(refused.get(), nullptr));
    walker.position = 6;
    EXPECT_FALSE(array->SetElement(refused.get(), &walker));
    walker.position = 4;
    EXPECT_TRUE(array->SetElement(new CMetaObjectInt(4), &walker));
    ItemPtr copy(array->Clone());
    for (std::uint32_t position = 0; position < 6; ++position) {
        walker.position = position;
        EXPECT_EQ(static_cast<CMetaObjectArray&>(*copy).GetElement(&walker) != nullptr, position == 4) << position;
    }
    array->Clear();
    EXPECT_EQ(array->GetElement(&walker), nullptr);
    EXPECT_EQ(array->GetTypeDesc().GetDimensionCount(), 2);  // Clear keeps the type
}

class RefusingHandler : public CMetaObjectCOMHandler {  // refuses uses as a closing host might
public:
    MetaStatus AddUse() override { return refuse ? MetaStatusDenied : CMetaObjectCOMHandler::AddUse(); }
    bool refuse = false;
};

// Uses held inside arrays and structs are the long runs' (no handler left after a round).
TEST(ItemTest, ObjectItemsHoldOneUseEachOfASharedHandler)
{
    RefusingHandler handler;
    const std::uint32_t start = handler.GetUseCount();
    auto item = std::make_unique<CMetaObjectObject>();
    EXPECT_EQ(item->SetHandler(&handler), MetaStatusOk);
    std::unique_ptr<CMetaObjectItem> copy(item->Clone());
    EXPECT_EQ(handler.GetUseCount(), start + 2);
    copy->Clear();
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    EXPECT_EQ(item->SetHandler(&handler), MetaStatusOk);  // the old use goes first
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    EXPECT_EQ(item->SetHandler(nullptr), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), start);
    handler.refuse = true;
    EXPECT_EQ(item->SetHandler(&handler), MetaStatusDenied);
    EXPECT_EQ(item->handler, nullptr);
    handler.refuse = false;
    item->SetHandler(&handler);
    item.reset();  // without Clear, deleting an item leaves its use with the handler
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    handler.Release();

    CMetaObjectObject member;
    member.SetHandler(&handler);
    CCountingDispatch object;
    EXPECT_EQ(ValueOf(member), L"");
    handler.AttachObject(&object, "COM://Test.Object");
    EXPECT_EQ(ValueOf(member), std::to_wstring(reinterpret_cast<std::uintptr_t>(static_cast<IDispatch*>(&object))));
    member.Clear();
    handler.DetachObject();
}

// An enumeration array inside a struct inside a struct: every container at
// once, and every list a descriptor owns goes with it, from copies too.
TEST(TypeDescTest, CopiesAreDeepAndRefusalsLeaveArgumentsWithTheCaller)
{
    ExpectNoBlocksLeft([] {
        auto source = std::make_unique<CTypeDesc>(MetaTypeStruct, 0, 0);
        source->SetStructName(L"Outer");
        auto inner = new CTypeDesc(MetaTypeStruct, 0, 0);
        auto colours = new CTypeDesc(MetaTypeEnum, 1, 1);
        colours->memberName = L"colours";
        colours->enumValues->Add(L"Blue", -7);
        colours->bounds->Add(1, 3);
        EXPECT_TRUE(inner->AddStructMember(colours));
        EXPECT_TRUE(source->AddStructMember(inner));
        CTypeDesc copy(*source), assigned;
        assigned.EnsureBounds();
        assigned = copy;
        EXPECT_EQ(assigned.bounds, nullptr);
        colours->enumValues->front()->name = L"Green";  // the source changes and goes; the copies keep theirs
        colours->bounds->Add(0, 2);
        source.reset();
        for (const CTypeDesc* outer : {&copy, &assigned}) {
            EXPECT_EQ(outer->GetStructName().Compare(L"Outer", 0), 0);
            const CTypeDesc& held = *outer->structBody->members.front()->structBody->members.front();
            EXPECT_EQ(held.memberName.Compare(L"colours", 0) + held.enumValues->front()->name.Compare(L"Blue", 0), 0);
            EXPECT_EQ(held.enumValues->front()->value, -7);
            std::int32_t lower = 0, count = 0;
            EXPECT_TRUE(held.bounds->GetBound(0, &lower, &count));
            EXPECT_EQ(lower * 10 + count + held.GetDimensionCount() * 100, 113);
        }
        assigned.Assign(CTypeDesc());
        EXPECT_EQ(assigned.structBody, nullptr);
        EXPECT_TRUE(assigned.GetStructName().IsEmpty());

        CTypeDesc changed(MetaTypeEnum, 0, 0);
        changed.enumValues->Add(L"One", 1);
        changed.type = MetaTypeInt;  // by hand, as a sloppy caller might
        CTypeDesc enumCopy(changed);
        EXPECT_EQ(enumCopy.type, MetaTypeEnum);  // the enumeration code is kept
        enumCopy = enumCopy;                     // no-op rather than self-destruction
        EXPECT_EQ(enumCopy.enumValues->size(), 1u);

        CTypeDesc plain(MetaTypeInt, 0, 1);
        auto member = std::make_unique<CTypeDesc>(MetaTypeInt, 0, 0);
        EXPECT_FALSE(plain.AddStructMember(member.get()));
        EXPECT_FALSE(plain.AddStructMember(nullptr));
        std::int32_t lower = 12345, count = 12345;
        EXPECT_FALSE(plain.bounds->GetBound(0, &lower, &count));
        EXPECT_EQ(lower + count, 24690);
    });
}

// Items to VARIANTs and SAFEARRAYs and back, without a server: these translations need no object.
enum Kind { Int, Char, Real, Bool, Enum, Unknown, Text, Currency, Date };
enum Flags { NullTag = 1, Optional = 2, Omitted = 4, OutOnly = 8, CutTag = 16 };

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
    if (shape.flags & (NullTag | CutTag))
        item->SetTagText(CMetaString(shape.flags & NullTag ? L"<@nullobject>" : L"<@NULLOBJECT"));
    item->SetOptional((shape.flags & Optional) != 0);
    item->SetOmitted((shape.flags & Omitted) != 0);
    item->SetDirection(shape.flags & OutOnly ? 1 : shape.byRef ? 2 : 0);
    return ItemPtr(item);
}

// What a VARIANT or its cell holds; a null BSTR is "(null)", a VARIANT cell <its type:what it holds>.
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
    case VT_UI4: case VT_UINT: n = *static_cast<const ULONG*>(at); break;
    case VT_R4: n = *static_cast<const float*>(at); break;
    case VT_R8: case VT_DATE: n = *static_cast<const double*>(at); break;
    case VT_I8: case VT_CY: n = static_cast<double>(*static_cast<const LONGLONG*>(at)); break;
    default: n = *static_cast<const LONG*>(at); break;  // I4, INT, ERROR, and the word of VT_VOID
    }
    return n == std::floor(n) ? std::to_wstring(static_cast<long long>(n)) : std::to_wstring(n);
}

struct Argument {
    CCOMMethodInvoke call{nullptr, CMetaString(L"Invoke:Nothing")};
    VARIANT value;
    bool translated = false;
    explicit Argument(CMetaObjectItem* item)
    {
        std::memset(&value, 0xCD, sizeof value);
        translated = call.ItemToVariant(item, value);
    }
    ~Argument() { ReleaseArgument(value); }
};

TEST(ItemToVariantTest, ByValueAndByReferenceRowsAndOutArgumentsReadBack)
{
    const struct { const char* name; ItemShape item; VARTYPE vt; const wchar_t* held; } rows[] = {  // VT_ILLEGAL: no
        {"char as VT_I1", {Char, 0x1FF, L"VT_I1"}, VT_I1, L"-1"},
        {"int as VT_I2 keeps 16 bits", {Int, 0x12345, L"VT_I2"}, VT_I2, L"9029"},
        {"real as VT_R4", {Real, 2.5, L"VT_R4"}, VT_R4, L"2.500000"},
        {"bool 1 is true", {Bool, 1, L"VT_BOOL"}, VT_BOOL, L"-1"},
        {"bool 2 is false", {Bool, 2, L"VT_BOOL"}, VT_BOOL, L"0"},
        {"empty text is an empty BSTR", {Text, 0, L"VT_BSTR"}, VT_BSTR, L""},
        {"int to a VARIANT goes as itself", {Int, 9, L"VT_VARIANT"}, VT_I4, L"9"},
        {"currency by the system locale", {Currency, 0, L"VT_CY", 0, 0, L"12.5"}, VT_CY, L"125000"},
        {"a currency text that doesn't parse still goes", {Currency, 0, L"VT_CY", 0, 0, L"lots"}, VT_CY, nullptr},
        {"date loses its time of day", {Date, 0, L"VT_DATE", 0, 0, L"2024-01-02 13:00:00"}, VT_DATE, L"45293"},
        {"user-defined without an enumeration", {Int, 5, L"VT_USERDEFINED"}, VT_VOID, L"5"},
        {"a suffix has no by-value row", {Int, 1, L"VT_I4|VT_PTR"}, VT_ILLEGAL, nullptr},
        {"VT_I8 has no row", {Int, 1, L"VT_I8"}, VT_ILLEGAL, nullptr},
        {"float named as the host names it has no row", {Real, 1, L"VT_REAL"}, VT_ILLEGAL, nullptr},
        {"wrong item class for the row", {Text, 0, L"VT_I4", 0, 0, L"1"}, VT_ILLEGAL, nullptr},
        {"unknown goes as its word, never by reference", {Unknown, 0xBEEF, L"VT_I4|VT_PTR"}, VT_I4, L"48879"},
        {"null object tag in small letters wins over the type", {Int, 3, L"VT_I4", 0, NullTag}, VT_NULL, L""},
        {"a cut null object tag is none", {Int, 3, L"VT_I4", 0, CutTag}, VT_I4, L"3"},
        {"omitted optional wins over everything", {Int, 3, L"VT_I8", 0, Optional | Omitted}, VT_ERROR, L"-2147352572"},
        {"omitted but not optional goes by the table", {Int, 3, L"VT_I8", 0, Omitted}, VT_ILLEGAL, nullptr},
        {"byte cell", {Char, 'A', L"VT_UI1|VT_PTR", 1}, VT_UI1 | VT_BYREF, L"65"},
        {"an out-only text goes out empty", {Text, 0, L"VT_BSTR|VT_PTR", 1, OutOnly, L"stale"}, VT_BSTR | VT_BYREF, L"(null)"},
        {"an out-only variant goes out empty", {Text, 0, L"VT_VARIANT|VT_PTR", 1, OutOnly, L"x"}, VT_VARIANT | VT_BYREF, L"<0:>"},
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

    // Cells of each type written back are the call tests'; here the cells an object left odd.
    using Change = std::function<void(VARIANT&)>;  // what the object did to the argument
    const struct { const char* name; ItemShape item; Change changed; bool written; const wchar_t* shown; } outRows[] = {
        {"VT_BOOL 1 is false", {Bool, 1, L"VT_BOOL|VT_PTR", 1}, [](VARIANT& v) { *v.pboolVal = 1; }, true, L"false"},
        {"a flag in a variant cell reads back by its own type", {Bool, 0, L"VT_VARIANT|VT_PTR", 1},
         [](VARIANT& v) { VariantClear(v.pvarVal); v.pvarVal->vt = VT_BOOL; v.pvarVal->boolVal = VARIANT_TRUE; }, true,
         L"true"},
        {"a BSTR the object left null is an empty text", {Text, 0, L"VT_BSTR|VT_PTR", 1, 0, L"before"},
         [](VARIANT& v) { SysFreeString(*v.pbstrVal); *v.pbstrVal = nullptr; }, true, L""},
        {"a variant cell the object emptied gives an empty text", {Text, 0, L"VT_VARIANT|VT_PTR", 1, 0, L"in"},
         [](VARIANT& v) { VariantClear(v.pvarVal); }, true, L""},
        {"a variant cell of another plain type becomes text by the platform's conversion",
         {Text, 0, L"VT_VARIANT|VT_PTR", 1, 0, L"in"},
         [](VARIANT& v) { VariantClear(v.pvarVal); v.pvarVal->vt = VT_I8; v.pvarVal->llVal = 5000000000LL; }, true,
         L"5000000000"},
        {"a signature without a row keeps the value", {Int, 4, L"VT_I8"}, nullptr, false, L"4"},
        {"an omitted argument has no cell", {Int, 4, L"VT_I4|VT_PTR", 1, Optional | Omitted}, nullptr, false, L"4"},
    };
    for (const auto& row : outRows) {
        SCOPED_TRACE(row.name);
        ItemPtr item = Make(row.item);
        Argument argument(item.get());
        if (row.changed)
            row.changed(argument.value);
        EXPECT_EQ(argument.call.VariantIntoItem(argument.value, item.get()), row.written);
        EXPECT_EQ(ValueOf(*item), row.shown);
    }
}

TEST(ArrayTranslationTest, EachElementRowWritesItsValueAndMakesItsItem)
{
    const struct { const wchar_t* signature; ItemShape element; VARTYPE type; const wchar_t* held; } rows[] = {
        {L"VT_I1|VT_ARRAY", {Char, 0x1FF, L""}, VT_I1, L"-1"}, {L"VT_UI1|VT_ARRAY", {Char, 0x141, L""}, VT_UI1, L"65"},
        {L"VT_I2|VT_ARRAY", {Int, 0x12345, L""}, VT_I2, L"9029"},
        {L"VT_UI4|VT_ARRAY", {Int, -1, L""}, VT_UI4, L"4294967295"},
        {L"VT_ERROR|VT_ARRAY", {Int, E_FAIL, L""}, VT_ERROR, L"-2147467259"},
        {L"VT_I4|VT_ARRAY", {Enum, 3, L""}, VT_I4, L"3"}, {L"VT_BOOL|VT_ARRAY", {Bool, 2, L""}, VT_BOOL, L"0"},
        {L"VT_BSTR|VT_ARRAY", {Text, 0, L"", 0, 0, L"h\u00e4j"}, VT_BSTR, L"h\u00e4j"},
        {L"VT_VARIANT|VT_ARRAY", {Text, 0, L"", 0, 0, L"12"}, VT_VARIANT, L"<8:12>"},
        {L"VT_VARIANT|VT_ARRAY", {Int, 5, L""}, VT_VARIANT, L"<3:5>"},
        {L"VT_CY|VT_ARRAY", {Currency, 0, L"", 0, 0, L"twelve"}, VT_CY, L"0"},
        {L"VT_DATE|VT_ARRAY", {Date, 0, L"", 0, 0, L"1/2/2020 6:00:00 AM"}, VT_DATE, L"43832.250000"},  // with its time
        {L"VT_I4|VT_ARRAY", {Text, 0, L"", 0, 0, L"9"}, VT_I4, L"0"},  // wrong class: the default
        {L"VT_I8|VT_ARRAY", {Int, 9, L""}, VT_I8, L"0"},              // no row: the default
        {L"VT_I2", {Int, 4, L""}, VT_I2, L"4"},                       // without |VT_ARRAY
        {L"VT_I4|VT_PTR|VT_ARRAY", {Int, 1, L""}, VT_ILLEGAL, nullptr},  // by-reference elements are refused
    };
    CCOMMethodInvoke call(nullptr, 0, MethodKindInvoke);
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "row " << (&row - rows));
        std::unique_ptr<CMetaObjectArray, ClearingDelete> array(new CMetaObjectArray);
        array->SetValue(CMetaString(row.signature));
        CTypeDesc type;
        type.signature = CMetaString(row.signature);
        type.EnsureBounds();
        type.bounds->Add(0, 1);
        array->InitElements(type);
        array->elements[0] = Make(row.element).release();
        CVariant out;
        ASSERT_EQ(call.ArrayItemToVariant(array.get(), out.Get()), row.type != VT_ILLEGAL);
        if (row.type == VT_ILLEGAL)
            continue;
        ASSERT_EQ(out.Get().vt, VT_ARRAY | row.type);
        VARIANT cell{};
        cell.vt = row.type | VT_BYREF;
        SafeArrayAccessData(out.Get().parray, &cell.byref);
        EXPECT_EQ(Held(cell), row.held);
        SafeArrayUnaccessData(out.Get().parray);
    }

    // Arrays the object gives: each element type made into its item.
    using Set = std::function<void(VARIANT&)>;  // the element; for VT_VARIANT the VARIANT itself
    const struct { VARTYPE type; Set value; const char* itemClass; const wchar_t* shown; } readRows[] = {
        {VT_I1, [](VARIANT& v) { v.cVal = -1; }, "Char", L"\xFFFF"},  // sign-extended
        {VT_UI1, [](VARIANT& v) { v.bVal = 0xFF; }, "Char", L"\xFF"},
        {VT_UI2, [](VARIANT& v) { v.uiVal = 0xFFFF; }, "Int", L"65535"},
        {VT_UI4, [](VARIANT& v) { v.ulVal = 0xFFFFFFFF; }, "Int", L"-1"},
        {VT_ERROR, [](VARIANT& v) { v.scode = E_FAIL; }, "Int", L"-2147467259"},
        {VT_BOOL, [](VARIANT& v) { v.boolVal = VARIANT_TRUE; }, "Bool", L"true"},
        {VT_VARIANT, [](VARIANT& v) { v.vt = VT_I4; v.lVal = 8; }, "Int", L"8"},
    };
    for (const auto& row : readRows) {
        SCOPED_TRACE(::testing::Message() << "type " << row.type << " " << row.itemClass);
        SAFEARRAYBOUND bound{1, 0};
        CVariant value;
        value.Get().vt = VT_ARRAY | row.type;
        value.Get().parray = SafeArrayCreate(row.type, 1, &bound);
        VARIANT element{};
        row.value(element);
        void* data = nullptr;
        SafeArrayAccessData(value.Get().parray, &data);  // the array takes what the element holds
        std::memcpy(data, row.type == VT_VARIANT ? static_cast<void*>(&element) : &element.llVal,
                    SafeArrayGetElemsize(value.Get().parray));
        SafeArrayUnaccessData(value.Get().parray);
        ItemPtr item(call.VariantToItem(value.Get()));
        auto* read = dynamic_cast<CMetaObjectArray*>(item.get());
        ASSERT_NE(read, nullptr);
        ASSERT_EQ(read->elementCount, 1);
        ASSERT_NE(read->elements[0], nullptr);
        EXPECT_NE(std::string(typeid(*read->elements[0]).name()).find(row.itemClass), std::string::npos);
        EXPECT_EQ(ValueOf(*read->elements[0]), row.shown);
    }
}

class CWatchedHandler : public CMetaObjectCOMHandler {
public:
    MetaStatus OpenObject(const char* text, CObjectOpenParams* params) override
    {
        ++openObjectCalls;
        return CMetaObjectCOMHandler::OpenObject(text, params);
    }
    MetaStatus OnObjectOpened(const char*, CObjectOpenParams*) override
    {
        ++openedCalls;
        return openedResult;
    }
    MetaStatus OnObjectClosing() override
    {
        ++closingCalls;
        return MetaStatusOk;
    }
    int openObjectCalls = 0, openedCalls = 0, closingCalls = 0;
    MetaStatus openedResult = MetaStatusOk;
};

// Uses with an object are the module tests'; here a handler without one closes, and starts again.
TEST(HandlerTest, UsesCloseOnceThenAttachDetachAndOpen)
{
    CCountingDispatch first;
    CWatchedHandler handler;
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha");
    handler.SetIdentity(identity);
    EXPECT_EQ(handler.Release(), MetaStatusClosed);
    EXPECT_EQ(handler.identity.GetText(), "");  // the last release without an object clears it
    EXPECT_EQ(handler.Release(), MetaStatusNotInUse);
    EXPECT_EQ(handler.closingCalls, 1);
    EXPECT_EQ(handler.AddUse(), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), 1u);  // a closed handler starts again
    ASSERT_EQ(handler.AttachObject(&first, "COM://First.Object"), MetaStatusOk);
    EXPECT_EQ(handler.AttachObject(nullptr, "COM://Other"), MetaStatusNoObjectGiven);  // changes nothing
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    handler.openedResult = static_cast<MetaStatus>(42);
    EXPECT_EQ(handler.Open("COM://Second.Object", nullptr), static_cast<MetaStatus>(42));
    EXPECT_EQ(handler.openObjectCalls, 0);
    EXPECT_EQ(handler.identity.GetObjectName(), "First.Object");

    CObjectIdentity bare;
    bare.SetText("no delimiter");
    handler.SetIdentity(bare);
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    handler.DetachObject();
    EXPECT_EQ(first.References(), 1);
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);  // a null text clears the identity
    EXPECT_EQ(handler.identity.GetText(), "");
    handler.DetachObject();

    handler.SetIdentity(bare);
    handler.openedCalls = 0;
    EXPECT_EQ(handler.Open("COM://No.Such.Class", nullptr), MetaStatusNoObject);
    EXPECT_EQ(handler.openObjectCalls + handler.openedCalls, 1);
    EXPECT_FALSE(handler.IsOpen());
    EXPECT_EQ(handler.identity.GetText(), "no delimiter");

    CMetaObjectCOMHandler closed;
    ASSERT_EQ(closed.Release(), MetaStatusClosed);
    first.AddRef();
    ASSERT_EQ(closed.AttachObject(&first, "COM://x"), MetaStatusOk);
    EXPECT_EQ(closed.Release(), MetaStatusNotInUse);
    EXPECT_TRUE(closed.IsOpen());
    EXPECT_EQ(closed.CloseObject(), MetaStatusClosed);
    EXPECT_EQ(first.References(), 1);
}

// Per-thread texts are the module tests' (host threads); here the entries of one thread.
TEST(HandlerTest, AThreadKeepsOnlyErrorTextsThatSaySomething)
{
    CHandlerErrorMap* map = GetThreadErrorMap();
    ASSERT_NE(map, nullptr);
    const std::size_t before = map->size();
    {
        CMetaObjectCOMHandler handler;
        EXPECT_TRUE(handler.GetErrorText().IsEmpty());
        EXPECT_EQ(map->size(), before);  // reading makes nothing
        SetErrorTextById(&handler, 2000);
        EXPECT_STREQ(handler.GetErrorText().GetNarrow(), "Could not load type library");
        handler.CloseObject();  // clears the text, and its entry goes
        EXPECT_TRUE(handler.GetErrorText().IsEmpty());
        EXPECT_EQ(map->size(), before);
        SetErrorTextById(&handler, 2000);
    }
    EXPECT_EQ(map->size(), before);  // the handler's end takes its text
    std::vector<std::unique_ptr<CMetaObjectCOMHandler>> handlers;
    for (std::size_t at = 0; at <= kMostThreadErrorTexts; ++at) {
        handlers.push_back(std::make_unique<CMetaObjectCOMHandler>());
        SetErrorText(handlers.back().get(), "failed");
    }
    EXPECT_LE(map->size(), kMostThreadErrorTexts);
    EXPECT_TRUE(handlers.front()->GetErrorText().IsEmpty());
    EXPECT_STREQ(handlers.back()->GetErrorText().GetNarrow(), "failed");
}

TEST(PlatformTest, AContainedFaultAnswersInsteadOfEndingTheProcessAndTheLockEndsOnce)
{
    static volatile std::uintptr_t badAddress = 0x24;  // the read oleaut32 made on ADO's Fields
    const auto fault = [] { return static_cast<HRESULT>(*reinterpret_cast<volatile int*>(badAddress)); };
    EXPECT_EQ(ContainFault([] { return S_FALSE; }), S_FALSE);
    EXPECT_EQ(ContainFault(fault), kContainedFault);
    EXPECT_EQ(ContainFault([&] { return ContainFault(fault) == kContainedFault ? S_OK : E_FAIL; }), S_OK);
    EXPECT_EQ(ContainFault([] { return S_OK; }), S_OK);

    CMetaLock lock;  // destroyed by its owner, once
    EXPECT_EQ(lock.Enter() + lock.Enter() + lock.Leave() + lock.Leave(), 0u);  // entered again by its owner
    EXPECT_EQ(lock.Destroy(), 0u);
    EXPECT_EQ(lock.section, nullptr);
    EXPECT_EQ(lock.Destroy(), 1u);
    EXPECT_EQ(lock.Enter() + lock.Leave(), 2u);  // a destroyed lock refuses both
}

TEST(PlatformTest, FreedBlocksAreKeptForTheirSizeUpToABound)
{
    std::vector<void*> taken;
    taken.reserve(600);
    DrainBlocks();
    const long before = LiveHeapBlocks();
    for (int at = 0; at < 600; ++at)
        taken.push_back(TakeBlock(40));
    for (void* block : taken)
        GiveBlock(block, 40);
    EXPECT_EQ(LiveHeapBlocks() - before, 512);  // the rest went back to the heap
    void* again = TakeBlock(33);                // the same list: 33 to 48 bytes
    EXPECT_EQ(again, taken[511]);
    GiveBlock(again, 33);
    GiveBlock(TakeBlock(4096), 4096);  // too large to keep
    DrainBlocks();
    EXPECT_EQ(LiveHeapBlocks(), before);
}

// A freed call's list nodes serve the next call's list, so a list must come out
// in order whether its nodes were kept, new or both, and a second list appends.
TEST(HandlerTest, ArgumentsKeepTheirOrderOnNodesOfFreedCalls)
{
    CMetaObjectInt values[5] = {CMetaObjectInt(0), CMetaObjectInt(1), CMetaObjectInt(2), CMetaObjectInt(3),
                                CMetaObjectInt(4)};
    ExpectNoBlocksLeft([&] {
        auto* earlier = new CCOMMethodInvoke(nullptr, -1, MethodKindInvoke);
        earlier->SetParams({&values[4], &values[3]});
        delete earlier;
        auto* call = new CCOMMethodInvoke(nullptr, -1, MethodKindInvoke);
        call->SetParams({&values[0], &values[1], &values[2]});
        call->SetParams({});
        call->SetParams({&values[3], &values[4]});
        const std::vector<CMetaObjectItem*> expected = {&values[0], &values[1], &values[2], &values[3], &values[4]};
        EXPECT_EQ(std::vector<CMetaObjectItem*>(call->params.begin(), call->params.end()), expected);
        delete call;
    });
}

// COM fixes a name's id for an object's life: asked once per name and object, again when nothing was found.
TEST(HandlerTest, ANameIsAskedOncePerObject)
{
    CCountingDispatch first, second;
    CMetaObjectCOMHandler handler;
    CCOMMethodInvoke* call = nullptr;
    const auto make = [&](const wchar_t* key) {
        EXPECT_EQ(handler.CreateMethodInvoke(&call, CMetaString(key)), MetaStatusOk);
        const DISPID id = call->dispid;
        handler.FreeMethodInvoke(&call);
        return id;
    };
    first.AddRef();
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);
    EXPECT_EQ(make(L"Get:Known"), 7);
    EXPECT_EQ(make(L"Set:Known"), 7);
    EXPECT_EQ(first.NameLookups(), 1);
    EXPECT_EQ(make(L"Invoke:Missing"), -1);
    EXPECT_EQ(make(L"Invoke:Missing"), -1);
    EXPECT_EQ(first.NameLookups(), 3);
    handler.CloseObject();
    second.AddRef();
    ASSERT_EQ(handler.AttachObject(&second, nullptr), MetaStatusOk);
    EXPECT_EQ(make(L"Get:Known"), 7);
    EXPECT_EQ(second.NameLookups(), 1);
    handler.CloseObject();
    EXPECT_EQ(first.References(), 1);
    EXPECT_EQ(second.References(), 1);
}


TEST(HandlerTest, DcomSettingAndModuleDirectory)
{
    const struct { const char* bytes; std::size_t size; bool enabled; } settings[] = {  // the first byte decides
        {"y", 2, true}, {"T", 2, true}, {"1", 2, true}, {"Yes", 4, true}, {"N", 2, false},
        {"", 0, false}, {" Y", 3, false}, {"n\0Y", 4, false},
    };
    for (const auto& row : settings)
        EXPECT_EQ(DcomEnabledFromValue(row.bytes, row.size), row.enabled) << '"' << row.bytes << "\" size " << row.size;
    const struct { const char *path, *directory; } paths[] = {
        {"C:\\Host\\plugins/comhandler.dll", "C:\\Host"},  // a backslash wins wherever the slash stands
        {"comhandler.dll", "comhandler.dll"}, {"", ""},
    };
    for (const auto& row : paths) {
        char buffer[MAX_PATH];
        lstrcpynA(buffer, row.path, MAX_PATH);
        CutAtLastSeparator(buffer);
        EXPECT_STREQ(buffer, row.directory) << row.path;
    }
}

// The null entries of a whole table are the module tests' (hostile texts); here the words that count.
TEST(HostEnvironmentTest, ValidOnlyWithContextAndWordsTwentyToTwentyFive)
{
    CReferenceHost host;
    CHandlerEnvironment table = *host.Table();
    EXPECT_TRUE(IsValid(&table));
    EXPECT_FALSE(IsValid(nullptr));
    void** words = reinterpret_cast<void**>(&table);
    for (int word : {0, 20, 21, 22, 23, 24, 25, 1, 19, 26, 27}) {
        void* kept = words[word];
        words[word] = nullptr;
        EXPECT_EQ(IsValid(&table), word == 1 || word == 19 || word >= 26) << "word " << word;
        words[word] = kept;
    }
}

// The host reaches operations by slot and fields by offset. In mingw's Itanium ABI a pointer to a virtual
// member function holds 1 plus its slot's byte offset.
template <typename MemberFunction>
std::ptrdiff_t SlotOf(MemberFunction member)
{
    static_assert(sizeof(member) == 2 * sizeof(void*), "Itanium member function pointer");
    std::uintptr_t words[2];
    std::memcpy(words, &member, sizeof words);
    return (words[0] & 1u) == 0 ? -1 : static_cast<std::ptrdiff_t>((words[0] - 1) / sizeof(void*));
}

using Slot = std::pair<const char*, std::ptrdiff_t>;  // name, slot
#define SLOT(Class, op) Slot{#op, SlotOf(&Class::op)}
#define H(op) SLOT(CMetaObjectHandler, op)
#define I(op) SLOT(CMetaObjectItem, op)
#define T(op) SLOT(MoxText, op)

#define AT(object, field) (reinterpret_cast<const char*>(&(object).field) - reinterpret_cast<const char*>(&(object)))

TEST(LayoutTest, VirtualOperationsAndFieldsKeepTheHostsOrder)
{
    using Mutable = CTypeDesc& (CMetaObjectItem::*)();
    using Constant = const CTypeDesc& (CMetaObjectItem::*)() const;
    // The destructor takes two slots (complete and deleting).
    const struct { const char* table; std::ptrdiff_t first, destructorAt; std::vector<Slot> slots; } tables[] = {
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
            EXPECT_EQ(slot.second, expected++) << table.table << "::" << slot.first;
        }
    }
    using ReadAtFn = std::uint32_t (MoxData::*)(char*, std::uint32_t, std::uint32_t, std::uint32_t);
    EXPECT_EQ(SlotOf(static_cast<ReadAtFn>(&MoxData::ReadAt)), SlotOf(static_cast<ReadAtFn>(&MoxText::ReadAt)));

    // Fields follow in the host's order.
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
    // The first field's offset, then all offsets, strictly ascending.
    const struct { const char* record; std::ptrdiff_t first; std::vector<std::ptrdiff_t> offsets; } records[] = {
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
