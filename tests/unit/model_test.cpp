// Items, type descriptors and records: text forms, copies, ownership and the
// uses of handlers, under the counting allocator so that leaks fail.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/leak_check.h"

using namespace MetaObj;

namespace {

static_assert(!std::is_polymorphic<CMethodEntry>::value && !std::is_polymorphic<CParamEntry>::value,
              "the host copies catalogue entries field by field");
static_assert(std::has_virtual_destructor<CObjectInfo>::value && std::has_virtual_destructor<CMethodInfo>::value &&
                  std::has_virtual_destructor<CParamInfo>::value && std::has_virtual_destructor<CObjectProperty>::value,
              "the host frees these records through their destructor");

using ItemPtr = std::unique_ptr<CMetaObjectItem>;
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

// One of each class, the compound ones with children, so a loop covers the family.
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

TEST(ItemTest, TextFormsOfEveryClass)
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
    item.SetValueNarrow(nullptr);
    EXPECT_EQ(item.value, 0);
    CMetaObjectReal huge(1e300);
    EXPECT_GT(ValueOf(huge).size(), 300u);
    huge.valueFormat = L"%.3f";
    huge.value = 2.5;
    EXPECT_EQ(ValueOf(*ItemPtr(huge.Clone())), L"2.500");
}

TEST(ItemTest, CloneKeepsEveryFieldOfEveryClass)
{
    for (const auto& entry : AllClasses()) {
        SCOPED_TRACE(entry.first);
        ItemPtr item(entry.second());
        const std::uint32_t ownType = item->GetTypeDesc().type;
        item->SetName(L"name");
        item->SetTagText(L"<@NULLOBJECT>");
        item->SetDirection(2);
        for (auto set : {&CMetaObjectItem::SetHostFlagOne, &CMetaObjectItem::SetOptional, &CMetaObjectItem::SetNewObject,
                         &CMetaObjectItem::SetHostFlagTwo, &CMetaObjectItem::SetOmitted})
            (item.get()->*set)(1);
        item->GetTypeDesc().typeName = L"Type";
        ItemPtr copy(item->Clone());
        EXPECT_EQ(typeid(*copy), typeid(*item));
        EXPECT_TRUE(copy->IsType(ownType));
        EXPECT_EQ(copy->GetName().Compare(L"name", 0) + copy->GetTagText().Compare(L"<@NULLOBJECT>", 0) +
                      copy->GetTypeDesc().typeName.Compare(L"Type", 0), 0);
        EXPECT_EQ(copy->GetDirection(), 2);
        EXPECT_EQ(copy->GetHostFlagOne() + copy->GetOptional() + copy->GetNewObject() + copy->GetHostFlagTwo() +
                      copy->GetOmitted(), 5);
        EXPECT_EQ(ValueOf(*copy), ValueOf(*item));
        copy->Clear();
        item->Clear();
    }
}

TEST(ItemTest, VariableTagsAreReadInEitherOrderAndAnyQuoting)
{
    const struct {
        const wchar_t* tag;
        bool parsed;
        const wchar_t *name, *scope;  // "keep" when untouched
    } rows[] = {
        {L"<@VARPARAM NAME=\"x\" SCOPE=\"y\">", true, L"x", L"y"},    {L"<@varparam name='x'>", true, L"x", L"keep"},
        {L"<@VARPARAM NAME=x SCOPE=y>", true, L"x", L"y"},            {L"<@VARPARAM SCOPE=\"y\" NAME=\"x\">", true, L"x", L"y"},
        {L"<@VARPARAM NAME='a b' SCOPE='c>d'>", true, L"a b", L"c>d"}, {L"<@VARPARAM NAME=x SCOPE=\"y>", true, L"x", L"keep"},
        {L"<@VARPARAM NAME=\"\" SCOPE=\"\">", true, L"", L""},         {L"<@VARPARAM NAME=x", false, L"keep", L"keep"},
        {L"<@VARPARAM NAME=\"x>", false, L"keep", L"keep"},            {L"<@VARPARAM NAME=", false, L"keep", L"keep"},
        {L"<@VARPAX", false, L"keep", L"keep"},                        {L"<@VARPARAM SCOPE=y>", false, L"keep", L"keep"},
        {L"<@NULLOBJECT>", false, L"keep", L"keep"},                   {L"", false, L"keep", L"keep"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
        CMetaObjectString item;
        item.SetTagText(CMetaString(row.tag));
        CMetaString name(L"keep"), scope(L"keep");
        EXPECT_EQ(item.ParseVarParam(name, scope), row.parsed);
        EXPECT_EQ(std::wstring(name.IsEmpty() ? L"" : name.GetWide()), row.name);
        EXPECT_EQ(std::wstring(scope.IsEmpty() ? L"" : scope.GetWide()), row.scope);
    }
    CMetaObjectString item;
    item.SetTagText(L"<@VARPAX");
    EXPECT_TRUE(item.IsVarParam());  // only seven characters count
    item.MakeVarParam(L"a", L"b");
    EXPECT_EQ(item.GetTagText().Compare(L"<@VARPARAM NAME=\"a\" SCOPE=\"b\">", 0), 0);
}

TEST(ItemTest, ArraysAreSizedByTheProductOfTheirBoundsAndKeepTheirSlots)
{
    const struct {
        std::vector<std::pair<std::int32_t, std::int32_t>> bounds;
        bool hasBounds, result;
        std::int32_t count;
        bool block;
    } rows[] = {
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

// A handler whose AddUse can be told to refuse, as a closing host might.
class RefusingHandler : public CMetaObjectCOMHandler {
public:
    MetaStatus AddUse() override { return refuse ? MetaStatusDenied : CMetaObjectCOMHandler::AddUse(); }
    bool refuse = false;
};

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
    CItemList list{&member};
    {
        CMetaObjectStruct holder(&list);  // holds a clone with a use of its own
        EXPECT_EQ(handler.GetUseCount(), start + 2);
    }
    std::unique_ptr<CMetaObjectArray> array(MakeIntArray(1, 1));
    std::int32_t bound[1] = {0}, current[1] = {0};
    CArrayWalker walker(1, bound, bound, current);
    array->SetElement(member.Clone(), &walker);
    EXPECT_EQ(handler.GetUseCount(), start + 2);
    array.reset();
    EXPECT_EQ(handler.GetUseCount(), start + 1);

    CCountingDispatch object;
    EXPECT_EQ(ValueOf(member), L"");
    handler.AttachObject(&object, "COM://Test.Object");
    EXPECT_EQ(ValueOf(member), std::to_wstring(reinterpret_cast<std::uintptr_t>(static_cast<IDispatch*>(&object))));
    member.Clear();
    handler.DetachObject();
}

// An enumeration array inside a struct inside a struct: every container at once.
std::unique_ptr<CTypeDesc> MakeNestedType()
{
    auto outer = std::make_unique<CTypeDesc>(MetaTypeStruct, 0, 0);
    outer->SetStructName(L"Outer");
    auto inner = new CTypeDesc(MetaTypeStruct, 0, 0);
    auto colours = new CTypeDesc(MetaTypeEnum, 1, 1);
    colours->memberName = L"colours";
    colours->enumValues->Add(L"Red", 1);
    colours->enumValues->Add(L"Blue", -7);
    colours->bounds->Add(1, 3);
    EXPECT_TRUE(inner->AddStructMember(colours));
    EXPECT_TRUE(outer->AddStructMember(inner));
    return outer;
}

void ExpectNestedType(const CTypeDesc& outer)
{
    ASSERT_NE(outer.structBody, nullptr);
    EXPECT_EQ(outer.GetStructName().Compare(L"Outer", 0), 0);
    const CTypeDesc& colours = *outer.structBody->members.front()->structBody->members.front();
    EXPECT_EQ(colours.memberName.Compare(L"colours", 0), 0);
    EXPECT_EQ(colours.isByRef, 1);
    ASSERT_EQ(colours.enumValues->size(), 2u);
    EXPECT_EQ(colours.enumValues->back()->name.Compare(L"Blue", 0), 0);
    EXPECT_EQ(colours.enumValues->back()->value, -7);
    std::int32_t lower = 0, count = 0;
    EXPECT_TRUE(colours.bounds->GetBound(0, &lower, &count));
    EXPECT_EQ(lower * 10 + count, 13);
}

TEST(TypeDescTest, CopiesAreDeepAndRefusalsLeaveArgumentsWithTheCaller)
{
    auto source = MakeNestedType();
    CTypeDesc copy(*source);
    CTypeDesc& sourceColours = *source->structBody->members.front()->structBody->members.front();
    sourceColours.enumValues->front()->name = L"Green";
    sourceColours.bounds->Add(0, 2);
    source.reset();
    ExpectNestedType(copy);
    CTypeDesc assigned;
    assigned.EnsureBounds();
    assigned = copy;
    ExpectNestedType(assigned);
    EXPECT_EQ(assigned.bounds, nullptr);
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
    plain.bounds->Add(0, 4);
    std::int32_t lower = 12345, count = 12345;
    EXPECT_FALSE(plain.bounds->GetBound(1, &lower, &count));
    EXPECT_EQ(lower + count, 24690);
}

}  // namespace
