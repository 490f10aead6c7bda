#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "metaobj/compound_items.h"
#include "metaobj/scalar_items.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/leak_check.h"

using namespace MetaObj;

namespace {

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
        {"Bool", [] { return new CMetaObjectBool(1); }},
        {"Int", [] { return new CMetaObjectInt(-42); }},
        {"Real", [] { return new CMetaObjectReal(2.5); }},
        {"Char", [] { return new CMetaObjectChar(L'q'); }},
        {"Enum", [] { return new CMetaObjectEnum(7); }},
        {"Unknown", [] { return new CMetaObjectUnknown(0xBEEF); }},
        {"String", [] { auto item = new CMetaObjectString; item->value = L"text"; return item; }},
        {"Date", [] { auto item = new CMetaObjectDate; item->value = L"2026-11-23"; return item; }},
        {"Currency", [] { auto item = new CMetaObjectCurrency; item->value = L"12.34"; return item; }},
        {"Void", [] { return new CMetaObjectVoid; }},
        {"Struct",
         [] {
             CMetaObjectInt member(3);
             CItemList list{&member};
             return new CMetaObjectStruct(&list);
         }},
        {"Array",
         [] {
             auto array = MakeIntArray(1, 2);
             array->arrayText = L"VT_I4|VT_ARRAY";
             CArrayWalker walker(0, nullptr, nullptr, nullptr);
             array->SetElement(new CMetaObjectInt(9), &walker);
             return array;
         }},
        {"Object", [] { return new CMetaObjectObject; }},
    };
    return classes;
}

TEST(ItemTest, TextFormsOfEveryClassWideAndNarrow)
{
    struct Row {
        const char* label;
        Factory make;
        const wchar_t* set;  // null: read the value as built
        const wchar_t* expected;
    };
    const Row rows[] = {
        {"int", [] { return new CMetaObjectInt(-5); }, nullptr, L"-5"},
        {"int head", [] { return new CMetaObjectInt(1); }, L"12abc", L"12"},
        {"int no digits", [] { return new CMetaObjectInt(1); }, L"abc", L"0"},
        {"int empty", [] { return new CMetaObjectInt(1); }, L"", L"0"},
        {"bool false", [] { return new CMetaObjectBool(0); }, nullptr, L"false"},
        {"bool two", [] { return new CMetaObjectBool(2); }, nullptr, L"false"},
        {"bool true", [] { return new CMetaObjectBool(0); }, L"true", L"true"},
        {"bool case", [] { return new CMetaObjectBool(1); }, L"TRUE", L"false"},
        {"bool longer", [] { return new CMetaObjectBool(1); }, L"truer", L"false"},
        {"real", [] { return new CMetaObjectReal(1.5); }, nullptr, L"1.500000"},
        {"real set", [] { return new CMetaObjectReal(0); }, L"2.25", L"2.250000"},
        {"real empty", [] { return new CMetaObjectReal(3); }, L"", L"0.000000"},
        {"char", [] { return new CMetaObjectChar(0); }, L"xyz", L"x"},
        {"char zero", [] { return new CMetaObjectChar(0); }, nullptr, L""},
        {"enum", [] { return new CMetaObjectEnum(3); }, nullptr, L"3"},
        {"enum set", [] { return new CMetaObjectEnum(3); }, L"-12", L"-12"},
        {"unknown", [] { return new CMetaObjectUnknown(255); }, nullptr, L"FF"},
        {"unknown lower", [] { return new CMetaObjectUnknown(0); }, L"ff", L"FF"},
        {"unknown prefix", [] { return new CMetaObjectUnknown(0); }, L"0xFF", L"FF"},
        {"unknown top", [] { return new CMetaObjectUnknown(0xFFFFFFFFu); }, nullptr, L"FFFFFFFF"},
        {"string", [] { return new CMetaObjectString; }, L"abc", L"abc"},
        {"string empty", [] { return new CMetaObjectString; }, L"", L""},
        {"date", [] { return new CMetaObjectDate; }, L"not a date", L"not a date"},
        {"currency", [] { return new CMetaObjectCurrency; }, L"1,5 EUR", L"1,5 EUR"},
        {"void", [] { return new CMetaObjectVoid; }, L"ignored", L""},
        {"struct", [] { return new CMetaObjectStruct; }, L"ignored", L"structure"},
        {"array", [] { return new CMetaObjectArray; }, L"VT_BSTR|VT_ARRAY", L"VT_BSTR|VT_ARRAY"},
        {"object", [] { return new CMetaObjectObject; }, L"123", L""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        ItemPtr item(row.make());
        if (row.set)
            item->SetValueWide(CMetaString(row.set));
        EXPECT_EQ(ValueOf(*item), row.expected);
    }
    // The narrow accessors go through the text forms; a host's format travels with the item.
    CMetaObjectInt item(0);
    item.SetValueNarrow("314");
    MoxText out;
    item.GetValueNarrow(out);
    EXPECT_STREQ(out.GetText(), "314");
    item.SetValueNarrow(nullptr);
    EXPECT_EQ(item.value, 0);

    CMetaObjectReal huge(1e300);
    EXPECT_GT(ValueOf(huge).size(), 300u);
    huge.valueFormat = L"%.3f";  // a format of the host's travels with the item
    huge.value = 2.5;
    ItemPtr copy(huge.Clone());
    EXPECT_EQ(ValueOf(*copy), L"2.500");
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
        item->SetHostFlagOne(1);
        item->SetOptional(1);
        item->SetNewObject(1);
        item->SetHostFlagTwo(1);
        item->SetOmitted(1);
        item->GetTypeDesc().typeName = L"Type";

        ItemPtr copy(item->Clone());
        EXPECT_EQ(typeid(*copy), typeid(*item));
        EXPECT_TRUE(copy->IsType(ownType));
        EXPECT_EQ(copy->GetName().Compare(L"name", 0), 0);
        EXPECT_EQ(copy->GetTagText().Compare(L"<@NULLOBJECT>", 0), 0);
        EXPECT_EQ(copy->GetDirection(), 2);
        EXPECT_EQ(copy->GetHostFlagOne() + copy->GetOptional() + copy->GetNewObject() + copy->GetHostFlagTwo() +
                      copy->GetOmitted(),
                  5);
        EXPECT_EQ(copy->GetTypeDesc().typeName.Compare(L"Type", 0), 0);
        EXPECT_EQ(copy->valueFormat.Compare(item->valueFormat.GetWide(), 0), 0);
        EXPECT_EQ(ValueOf(*copy), ValueOf(*item));
        copy->Clear();
        item->Clear();
    }
}

TEST(ItemTest, VariableTagsAreReadInEitherOrderAndAnyQuoting)
{
    struct Row {
        const wchar_t* tag;
        bool parsed;
        const wchar_t* name;   // expected name; "keep" when untouched
        const wchar_t* scope;  // expected scope; "keep" when untouched
    };
    const Row rows[] = {
        {L"<@VARPARAM NAME=\"x\" SCOPE=\"y\">", true, L"x", L"y"},
        {L"<@varparam name='x'>", true, L"x", L"keep"},
        {L"<@VARPARAM NAME=x SCOPE=y>", true, L"x", L"y"},
        {L"<@VARPARAM SCOPE=\"y\" NAME=\"x\">", true, L"x", L"y"},
        {L"<@VARPARAM NAME='a b' SCOPE='c>d'>", true, L"a b", L"c>d"},
        {L"<@VARPARAM NAME=x SCOPE=\"y>", true, L"x", L"keep"},
        {L"<@VARPARAM NAME=\"\" SCOPE=\"\">", true, L"", L""},
        {L"<@VARPARAM NAME=x", false, L"keep", L"keep"},
        {L"<@VARPARAM NAME=\"x>", false, L"keep", L"keep"},
        {L"<@VARPARAM NAME=", false, L"keep", L"keep"},
        {L"<@VARPAX", false, L"keep", L"keep"},
        {L"<@VARPARAM SCOPE=y>", false, L"keep", L"keep"},
        {L"<@NULLOBJECT>", false, L"keep", L"keep"},
        {L"", false, L"keep", L"keep"},
    };
    for (const Row& row : rows) {
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

TEST(ItemTest, StructMembersAreCopiesAndCloneIsIndependent)
{
    CMetaObjectInt first(1);
    CMetaObjectString second;
    second.value = L"two";
    CItemList callers{&first, &second};
    CMetaObjectStruct record;
    record.SetMembers(callers);
    record.SetMembers(callers);  // the former members go
    ASSERT_EQ(record.members.size(), 2u);
    EXPECT_NE(record.members.front(), &first);
    EXPECT_EQ(first.value, 1);

    auto outer = std::make_unique<CMetaObjectStruct>();
    ItemPtr matrix(MakeIntArray(2, 1));
    CItemList nested{&record, matrix.get()};
    outer->SetMembers(nested);
    ItemPtr copy(outer->Clone());
    outer.reset();
    auto& copiedOuter = static_cast<CMetaObjectStruct&>(*copy);
    auto& copiedRecord = static_cast<CMetaObjectStruct&>(*copiedOuter.members.front());
    EXPECT_EQ(ValueOf(*copiedRecord.members.back()), L"two");
    EXPECT_EQ(static_cast<CMetaObjectArray&>(*copiedOuter.members.back()).elementCount, 2);
}

TEST(ItemTest, ArraySizingFollowsTheProductOfItsBounds)
{
    struct Row {
        std::vector<std::pair<std::int32_t, std::int32_t>> bounds;
        bool hasBounds;
        bool result;
        std::int32_t count;
        bool block;
    };
    const Row rows[] = {
        {{{0, 2}, {0, 3}}, true, true, 6, true},
        {{{5, 1}}, true, true, 1, true},
        {{{0, 0}}, true, false, 0, false},
        {{{0, 2}, {0, 0}}, true, false, 0, false},
        {{{0, -1}}, true, true, -1, false},
        {{}, true, false, 0, false},
        {{}, false, false, 0, false},
        {{{0, 65536}, {0, 65536}}, true, false, 0, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "dimensions " << row.bounds.size() << " count " << row.count);
        CTypeDesc type(MetaTypeInt, 0, row.hasBounds ? 1 : 0);
        for (const auto& bound : row.bounds)
            type.bounds->Add(bound.first, bound.second);
        CMetaObjectArray array;
        EXPECT_EQ(array.InitElements(type), row.result);
        EXPECT_EQ(array.elementCount, row.count);
        EXPECT_EQ(array.elements != nullptr, row.block);
    }
}

TEST(ItemTest, ArraySlotsStayInsideTheBlock)
{
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
    auto& copied = static_cast<CMetaObjectArray&>(*copy);
    for (std::uint32_t position = 0; position < 6; ++position) {
        walker.position = position;
        EXPECT_EQ(copied.GetElement(&walker) != nullptr, position == 4) << position;
    }
    array->Clear();
    EXPECT_EQ(array->elementCount, 0);
    EXPECT_EQ(array->GetElement(&walker), nullptr);
    EXPECT_EQ(array->GetTypeDesc().GetDimensionCount(), 2);  // Clear keeps the type
}

TEST(ItemTest, WalkerVisitsTheLastDimensionFastestAndTheLastElementOnce)
{
    struct Row {
        const char* label;
        std::vector<std::int32_t> lower, upper;
        std::vector<std::vector<std::int32_t>> visits;  // in order; the position is the index
    };
    const Row rows[] = {
        {"1-D from 5", {5}, {7}, {{5}, {6}, {7}}},
        {"2 by 3", {0, 0}, {1, 2}, {{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}, {1, 2}}},
        {"single", {3}, {3}, {{3}}},
        // An empty dimension still makes one pass; callers look at the count first.
        {"count 0", {0}, {-1}, {{0}}},
        {"no dimension", {}, {}, {{}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        std::vector<std::int32_t> lower = row.lower, upper = row.upper, current(row.lower.size(), 99);
        CArrayWalker walker(static_cast<std::uint32_t>(lower.size()), lower.data(), upper.data(), current.data());
        walker.Start();
        std::vector<std::vector<std::int32_t>> visits;
        while (!walker.IsFinished() && visits.size() < 10) {
            EXPECT_EQ(walker.position, visits.size());
            visits.push_back(current);
            walker.Advance();
        }
        EXPECT_EQ(visits, row.visits);
        EXPECT_TRUE(walker.IsFinished());
    }
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
    EXPECT_EQ(handler.GetUseCount(), start + 1);

    std::unique_ptr<CMetaObjectItem> copy(item->Clone());
    EXPECT_EQ(handler.GetUseCount(), start + 2);
    copy->Clear();
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    EXPECT_EQ(item->handler, &handler);

    EXPECT_EQ(item->SetHandler(&handler), MetaStatusOk);  // the old use goes first
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    EXPECT_EQ(item->SetHandler(nullptr), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), start);

    handler.refuse = true;
    EXPECT_EQ(item->SetHandler(&handler), MetaStatusDenied);
    EXPECT_EQ(item->handler, nullptr);
    handler.refuse = false;

    // Without Clear, deleting an item leaves its use with the handler.
    item->SetHandler(&handler);
    item.reset();
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    handler.Release();

    // The value shown is the raw object pointer, or nothing without an object.
    CCountingDispatch object;
    CMetaObjectObject shown;
    shown.SetHandler(&handler);
    EXPECT_EQ(ValueOf(shown), L"");
    handler.AttachObject(&object, "COM://Test.Object");
    EXPECT_EQ(ValueOf(shown), std::to_wstring(reinterpret_cast<std::uintptr_t>(static_cast<IDispatch*>(&object))));
    shown.Clear();
    handler.DetachObject();
}

TEST(ItemTest, StructsAndArraysGiveBackTheUsesOfTheirObjectMembers)
{
    RefusingHandler handler;
    const std::uint32_t start = handler.GetUseCount();
    CMetaObjectObject member;
    member.SetHandler(&handler);
    CItemList list{&member};
    {
        CMetaObjectStruct holder(&list);  // holds a clone with a use of its own
        EXPECT_EQ(handler.GetUseCount(), start + 2);
    }
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    std::unique_ptr<CMetaObjectArray> array(MakeIntArray(1, 1));
    std::int32_t lower[1] = {0}, upper[1] = {0}, current[1] = {0};
    CArrayWalker walker(1, lower, upper, current);
    array->SetElement(member.Clone(), &walker);
    EXPECT_EQ(handler.GetUseCount(), start + 2);
    array.reset();
    EXPECT_EQ(handler.GetUseCount(), start + 1);
    member.Clear();
}

TEST(ItemTest, BuildingCloningAndFreeingItemsGivesBackEveryBlock)
{
    EXPECT_EQ(BlocksLeftBy([] {
                  for (int round = 0; round < 10; ++round) {
                      CItemList all;
                      for (const auto& entry : AllClasses())
                          all.push_back(entry.second());
                      CMetaObjectStruct record(&all);
                      std::unique_ptr<CMetaObjectItem> copy(record.Clone());
                      for (CMetaObjectItem* item : all) {
                          item->MakeVarParam(L"name", L"scope");
                          CMetaString name, scope;
                          item->ParseVarParam(name, scope);
                          MoxText narrow;
                          item->GetValueNarrow(narrow);
                          delete item;
                      }
                  }
              }),
              0);
}

}  // namespace
