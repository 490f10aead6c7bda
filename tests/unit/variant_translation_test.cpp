// Items to VARIANTs and back, row by row, without a server: the call object is
// made without an object, which these translations don't need.

#include <gtest/gtest.h>

#include <oleauto.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
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

using ItemPtr = std::unique_ptr<CMetaObjectItem>;

template <typename Item>
std::unique_ptr<Item> Typed(std::unique_ptr<Item> item, const wchar_t* signature, std::int32_t byRef = 0)
{
    item->GetTypeDesc().signature = CMetaString(signature);
    item->GetTypeDesc().isByRef = byRef;
    return item;
}

ItemPtr Int(std::int32_t value, const wchar_t* signature, std::int32_t byRef = 0)
{
    return Typed(std::make_unique<CMetaObjectInt>(value), signature, byRef);
}

ItemPtr Text(const wchar_t* value, const wchar_t* signature, std::int32_t byRef = 0)
{
    auto item = std::make_unique<CMetaObjectString>();
    item->value = CMetaString(value);
    return Typed(std::move(item), signature, byRef);
}

template <typename Item>
ItemPtr TextOf(const wchar_t* value, const wchar_t* signature, std::int32_t byRef = 0)
{
    auto item = std::make_unique<Item>();
    item->value = CMetaString(value);
    return Typed(std::move(item), signature, byRef);
}

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
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

struct OutRow {
    const char* name;
    std::function<ItemPtr()> item;
    bool translates;
    VARTYPE vt;
    std::function<void(const VARIANT&)> check;
};

void RunRows(const std::vector<OutRow>& rows)
{
    for (const OutRow& row : rows) {
        SCOPED_TRACE(row.name);
        ItemPtr item = row.item();
        Argument argument(item.get());
        ASSERT_EQ(argument.translated, row.translates);
        if (!row.translates)
            continue;
        EXPECT_EQ(argument.value.vt, row.vt);
        if (row.check)
            row.check(argument.value);
    }
}

TEST(ItemToVariantTest, ByValueRows)
{
    const std::vector<OutRow> rows = {
        {"char as VT_I1", [] { return Typed(std::make_unique<CMetaObjectChar>(L'\x1FF'), L"VT_I1"); }, true, VT_I1,
         [](const VARIANT& v) { EXPECT_EQ(v.bVal, 0xFF); }},
        {"int as VT_I2 keeps 16 bits", [] { return Int(0x12345, L"VT_I2"); }, true, VT_I2,
         [](const VARIANT& v) { EXPECT_EQ(v.iVal, 0x2345); }},
        {"int as VT_UINT", [] { return Int(-2, L"VT_UINT"); }, true, VT_UINT,
         [](const VARIANT& v) { EXPECT_EQ(v.lVal, -2); }},
        {"real as VT_R4", [] { return Typed(std::make_unique<CMetaObjectReal>(2.5), L"VT_R4"); }, true, VT_R4,
         [](const VARIANT& v) { EXPECT_EQ(v.fltVal, 2.5f); }},
        {"bool 1 is true", [] { return Typed(std::make_unique<CMetaObjectBool>(1), L"VT_BOOL"); }, true, VT_BOOL,
         [](const VARIANT& v) { EXPECT_EQ(v.boolVal, VARIANT_TRUE); }},
        {"bool 2 is false", [] { return Typed(std::make_unique<CMetaObjectBool>(2), L"VT_BOOL"); }, true, VT_BOOL,
         [](const VARIANT& v) { EXPECT_EQ(v.boolVal, VARIANT_FALSE); }},
        {"empty text is an empty BSTR", [] { return Text(L"", L"VT_BSTR"); }, true, VT_BSTR,
         [](const VARIANT& v) {
             ASSERT_NE(v.bstrVal, nullptr);
             EXPECT_EQ(SysStringLen(v.bstrVal), 0u);
         }},
        {"text to a VARIANT goes as VT_BSTR", [] { return Text(L"hi", L"VT_VARIANT"); }, true, VT_BSTR,
         [](const VARIANT& v) { EXPECT_STREQ(v.bstrVal, L"hi"); }},
        {"int to a VARIANT goes as itself", [] { return Int(9, L"VT_VARIANT"); }, true, VT_I4,
         [](const VARIANT& v) { EXPECT_EQ(v.lVal, 9); }},
        {"currency by the system locale", [] { return TextOf<CMetaObjectCurrency>(L"12.5", L"VT_CY"); }, true, VT_CY,
         [](const VARIANT& v) { EXPECT_EQ(v.cyVal.int64, 125000); }},
        {"a currency text that doesn't parse still goes", [] { return TextOf<CMetaObjectCurrency>(L"lots", L"VT_CY"); },
         true, VT_CY, nullptr},
        {"date loses its time of day", [] { return TextOf<CMetaObjectDate>(L"2024-01-02 13:00:00", L"VT_DATE"); },
         true, VT_DATE, [](const VARIANT& v) { EXPECT_DOUBLE_EQ(v.date, 45293.0); }},
        {"user-defined without an enumeration", [] { return Int(5, L"VT_USERDEFINED"); }, true, VT_VOID,
         [](const VARIANT& v) { EXPECT_EQ(v.lVal, 5); }},
        {"enumeration signed VT_BYREF goes as VT_I4",
         [] {
             auto item = Typed(std::make_unique<CMetaObjectEnum>(7), L"VT_BYREF");
             item->GetTypeDesc().type = MetaTypeEnum;
             return ItemPtr(std::move(item));
         },
         true, VT_I4, [](const VARIANT& v) { EXPECT_EQ(v.lVal, 7); }},
        {"a suffix has no by-value row", [] { return Int(1, L"VT_I4|VT_PTR"); }, false, VT_EMPTY, nullptr},
        {"VT_I8 has no row", [] { return Int(1, L"VT_I8"); }, false, VT_EMPTY, nullptr},
        {"float named as the host names it has no row",
         [] { return Typed(std::make_unique<CMetaObjectReal>(1.0), L"VT_REAL"); }, false, VT_EMPTY, nullptr},
        {"wrong item class for the row", [] { return Text(L"1", L"VT_I4"); }, false, VT_EMPTY, nullptr},
        {"unknown goes as its word, never by reference",
         [] {
             auto item = Typed(std::make_unique<CMetaObjectUnknown>(0xBEEF), L"VT_I4|VT_PTR");
             item->GetTypeDesc().type = MetaTypeUnknown;
             return ItemPtr(std::move(item));
         },
         true, VT_I4, [](const VARIANT& v) { EXPECT_EQ(v.ulVal, 0xBEEFu); }},
        {"null object tag in small letters wins over the type",
         [] {
             auto item = Int(3, L"VT_I4");
             item->SetTagText(CMetaString(L"<@nullobject>"));
             return item;
         },
         true, VT_NULL, nullptr},
        {"omitted optional wins over everything",
         [] {
             auto item = Int(3, L"VT_I8");
             item->SetOptional(1);
             item->SetOmitted(1);
             return item;
         },
         true, VT_ERROR, [](const VARIANT& v) { EXPECT_EQ(v.scode, DISP_E_PARAMNOTFOUND); }},
        {"omitted but not optional goes by the table",
         [] {
             auto item = Int(3, L"VT_I8");
             item->SetOmitted(1);
             return item;
         },
         false, VT_EMPTY, nullptr},
    };
    RunRows(rows);
}

TEST(ItemToVariantTest, ByReferenceRowsMakeCells)
{
    const std::vector<OutRow> rows = {
        {"byte cell", [] { return Typed(std::make_unique<CMetaObjectChar>(L'A'), L"VT_UI1|VT_PTR", 1); }, true,
         VT_UI1 | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(*v.pbVal, 'A'); }},
        {"long cell from a pointer signature", [] { return Int(-7, L"VT_I4|VT_PTR", 1); }, true, VT_I4 | VT_BYREF,
         [](const VARIANT& v) { EXPECT_EQ(*v.plVal, -7); }},
        {"double cell", [] { return Typed(std::make_unique<CMetaObjectReal>(0.25), L"VT_R8|VT_BYREF", 1); }, true,
         VT_R8 | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(*v.pdblVal, 0.25); }},
        {"bool cell", [] { return Typed(std::make_unique<CMetaObjectBool>(1), L"VT_BOOL|VT_PTR", 1); }, true,
         VT_BOOL | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(*v.pboolVal, VARIANT_TRUE); }},
        {"empty text gives a null BSTR in its cell", [] { return Text(L"", L"VT_BSTR|VT_PTR", 1); }, true,
         VT_BSTR | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(*v.pbstrVal, nullptr); }},
        {"text cell", [] { return Text(L"abc", L"VT_BSTR|VT_PTR", 1); }, true, VT_BSTR | VT_BYREF,
         [](const VARIANT& v) { EXPECT_STREQ(*v.pbstrVal, L"abc"); }},
        {"enumeration cell",
         [] {
             auto item = Typed(std::make_unique<CMetaObjectEnum>(2), L"VT_BYREF", 1);
             item->GetTypeDesc().type = MetaTypeEnum;
             return ItemPtr(std::move(item));
         },
         true, VT_I4 | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(*v.plVal, 2); }},
        {"an out-only text goes out empty",
         [] {
             auto item = Text(L"stale", L"VT_BSTR|VT_PTR", 1);
             item->SetDirection(1);
             return item;
         },
         true, VT_BSTR | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(*v.pbstrVal, nullptr); }},
        {"an out-only variant goes out empty",
         [] {
             auto item = Text(L"stale", L"VT_VARIANT|VT_PTR", 1);
             item->SetDirection(1);
             return item;
         },
         true, VT_VARIANT | VT_BYREF, [](const VARIANT& v) { EXPECT_EQ(v.pvarVal->vt, VT_EMPTY); }},
        {"variant cell holds text", [] { return Text(L"x", L"VT_VARIANT|VT_PTR", 1); }, true, VT_VARIANT | VT_BYREF,
         [](const VARIANT& v) {
             EXPECT_EQ(v.pvarVal->vt, VT_BSTR);
             EXPECT_STREQ(v.pvarVal->bstrVal, L"x");
         }},
        {"date cell by the user's locale", [] { return TextOf<CMetaObjectDate>(L"2024-01-02", L"VT_DATE|VT_PTR", 1); },
         true, VT_DATE | VT_BYREF, [](const VARIANT& v) { EXPECT_DOUBLE_EQ(*v.pdate, 45293.0); }},
        {"error cell", [] { return Int(0x80004005, L"VT_ERROR|VT_PTR", 1); }, true, VT_ERROR | VT_BYREF,
         [](const VARIANT& v) { EXPECT_EQ(static_cast<std::uint32_t>(*v.plVal), 0x80004005u); }},
        {"a by-reference unknown has no cell to give",
         [] {
             auto item = Typed(std::make_unique<CMetaObjectUnknown>(1), L"VT_BYREF", 1);
             item->GetTypeDesc().type = MetaTypeUnknown;
             return ItemPtr(std::move(item));
         },
         false, VT_EMPTY, nullptr},
    };
    RunRows(rows);
}

// An object item with its own handler around a counting object; the handler
// is freed with the item.
struct ObjectItem {
    explicit ObjectItem(CCountingDispatch& object, const wchar_t* signature, std::int32_t byRef = 0,
                        std::int32_t direction = 0)
    {
        object.AddRef();  // the handler's reference
        handler->AttachObject(&object, nullptr);
        item->SetHandler(handler);
        handler->Release();
        item->GetTypeDesc().signature = CMetaString(signature);
        item->GetTypeDesc().isByRef = byRef;
        item->SetDirection(direction);
    }
    ~ObjectItem()
    {
        CMetaObjectHandler* last = item->handler;
        item->Clear();
        delete last;
    }
    CMetaObjectCOMHandler* handler = new CMetaObjectCOMHandler;
    std::unique_ptr<CMetaObjectObject> item = std::make_unique<CMetaObjectObject>();
};

TEST(ItemToVariantTest, ObjectsAreBorrowedByValueAndReferencedInCells)
{
    CCountingDispatch object;
    {
        // A bare VT_BYREF is an object, in any case of letters.
        for (const wchar_t* signature : {L"VT_BYREF", L"vt_byref"}) {
            ObjectItem holder(object, signature);
            Argument argument(holder.item.get());
            ASSERT_TRUE(argument.translated);
            EXPECT_EQ(argument.value.vt, VT_DISPATCH);
            EXPECT_EQ(argument.value.pdispVal, &object);
            EXPECT_EQ(object.References(), 2);  // creator and handler, nothing more
        }
    }
    EXPECT_EQ(object.References(), 1);
    {
        ObjectItem holder(object, L"VT_DISPATCH|VT_PTR", 1, 2);
        {
            Argument argument(holder.item.get());
            ASSERT_TRUE(argument.translated);
            EXPECT_EQ(argument.value.vt, VT_DISPATCH | VT_BYREF);
            EXPECT_EQ(*argument.value.ppdispVal, &object);
            EXPECT_EQ(object.References(), 3);  // the cell's own, for the callee to swap
        }
        EXPECT_EQ(object.References(), 2);
        // An out-only object goes out empty, so that the callee's new one can't leak ours.
        holder.item->SetDirection(1);
        Argument out(holder.item.get());
        EXPECT_EQ(*out.value.ppdispVal, nullptr);
    }
    EXPECT_EQ(object.References(), 1);
}

struct BackRow {
    const char* name;
    std::function<void(VARIANT&)> value;
    std::function<void(CMetaObjectItem*)> check;
};

TEST(VariantToItemTest, ResultsFollowTheVariantsOwnType)
{
    static std::int32_t target = 5;
    const std::vector<BackRow> rows = {
        {"null is an unknown, not nothing", [](VARIANT& v) { v.vt = VT_NULL; },
         [](CMetaObjectItem* item) { ASSERT_NE(dynamic_cast<CMetaObjectUnknown*>(item), nullptr); }},
        {"a by-reference result is an unknown holding the pointer",
         [](VARIANT& v) {
             v.vt = VT_I4 | VT_BYREF;
             v.plVal = reinterpret_cast<LONG*>(&target);
         },
         [](CMetaObjectItem* item) {
             auto* unknown = dynamic_cast<CMetaObjectUnknown*>(item);
             ASSERT_NE(unknown, nullptr);
             EXPECT_EQ(unknown->value, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&target)));
         }},
        {"VT_I2 is sign-extended",
         [](VARIANT& v) {
             v.vt = VT_I2;
             v.iVal = -3;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, -3); }},
        {"VT_UI2 is read as 32 bits of a clean VARIANT",
         [](VARIANT& v) {
             v.vt = VT_UI2;
             v.uiVal = 0xFFFF;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, 0xFFFF); }},
        {"VT_I8 keeps its low half",
         [](VARIANT& v) {
             v.vt = VT_I8;
             v.llVal = 0x100000002LL;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, 2); }},
        {"VT_I1 -1 is the char 255",
         [](VARIANT& v) {
             v.vt = VT_I1;
             v.cVal = -1;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectChar&>(*item).value, 255); }},
        {"VT_BOOL 1 is false",
         [](VARIANT& v) {
             v.vt = VT_BOOL;
             v.boolVal = 1;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*item).value, 0); }},
        {"VT_R4 is widened",
         [](VARIANT& v) {
             v.vt = VT_R4;
             v.fltVal = 0.5f;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectReal&>(*item).value, 0.5); }},
        {"VT_DECIMAL shows its nearest double",
         [](VARIANT& v) {
             VarDecFromR8(1.25, &v.decVal);
             v.vt = VT_DECIMAL;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectReal&>(*item).value, 1.25); }},
        {"null BSTR is an empty text",
         [](VARIANT& v) {
             v.vt = VT_BSTR;
             v.bstrVal = nullptr;
         },
         [](CMetaObjectItem* item) { EXPECT_TRUE(dynamic_cast<CMetaObjectString&>(*item).value.IsEmpty()); }},
        {"a date without its time of day",
         [](VARIANT& v) {
             v.vt = VT_DATE;
             v.date = 45293.5;
         },
         [](CMetaObjectItem* item) {
             DATE back = 0;
             Bstr text(SysAllocString(dynamic_cast<CMetaObjectDate&>(*item).value.GetWide()));
             ASSERT_EQ(VarDateFromStr(text.Get(), LOCALE_SYSTEM_DEFAULT, 0, &back), S_OK);
             EXPECT_DOUBLE_EQ(back, 45293.0);
         }},
        {"currency as text",
         [](VARIANT& v) {
             v.vt = VT_CY;
             v.cyVal.int64 = 125000;
         },
         [](CMetaObjectItem* item) { EXPECT_EQ(Wide(dynamic_cast<CMetaObjectCurrency&>(*item).value), L"12.5"); }},
        {"a null object gives an item whose handler holds nothing", [](VARIANT& v) { v.vt = VT_DISPATCH; },
         [](CMetaObjectItem* item) {
             auto& object = dynamic_cast<CMetaObjectObject&>(*item);
             ASSERT_NE(object.handler, nullptr);
             EXPECT_EQ(object.handler->GetDispatchPointer(), nullptr);
             EXPECT_EQ(object.GetNewObject(), 1);
             CMetaObjectHandler* last = object.handler;
             object.Clear();
             delete last;
         }},
    };
    CCOMMethodInvoke call(nullptr, CMetaString(L"Get:Nothing"));
    for (const BackRow& row : rows) {
        SCOPED_TRACE(row.name);
        CVariant value;
        row.value(value.Get());
        ItemPtr item(call.VariantToItem(value.Get()));
        ASSERT_NE(item, nullptr);
        row.check(item.get());
    }
    CVariant nothing;
    nothing.Get().vt = VT_VOID;
    EXPECT_EQ(call.VariantToItem(nothing.Get()), nullptr);
}

TEST(VariantToItemTest, AReturnedObjectGetsAHandlerWithAReferenceOfItsOwn)
{
    CCountingDispatch object;
    CCOMMethodInvoke call(nullptr, CMetaString(L"Get:Child"));
    {
        CVariant result;
        result.Get().vt = VT_DISPATCH;
        result.Get().pdispVal = &object;
        object.AddRef();  // the VARIANT's own, cleared with it
        ItemPtr item(call.VariantToItem(result.Get()));
        auto& wrapped = dynamic_cast<CMetaObjectObject&>(*item);
        EXPECT_EQ(wrapped.handler->GetDispatchPointer(), &object);
        EXPECT_EQ(wrapped.handler->GetUseCount(), 1u);
        EXPECT_EQ(object.References(), 3);
        CMetaObjectHandler* last = wrapped.handler;
        wrapped.Clear();  // the last use closes the object
        delete last;
        EXPECT_EQ(object.References(), 2);
    }
    EXPECT_EQ(object.References(), 1);
}

struct WriteBackRow {
    const char* name;
    std::function<ItemPtr()> item;  // as it went out
    std::function<void(VARIANT&)> changed;  // what the object did to the argument
    bool written;
    std::function<void(CMetaObjectItem*)> check;
};

TEST(VariantIntoItemTest, OutArgumentsAreReadByTheItemsSignature)
{
    const std::vector<WriteBackRow> rows = {
        {"VT_I1 -1 is 0xFFFF by reference",
         [] { return Typed(std::make_unique<CMetaObjectChar>(L'a'), L"VT_I1|VT_PTR", 1); },
         [](VARIANT& v) { *v.pcVal = -1; }, true,
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectChar&>(*item).value, 0xFFFF); }},
        {"VT_BOOL only 0xFFFF is true", [] { return Typed(std::make_unique<CMetaObjectBool>(1), L"VT_BOOL|VT_PTR", 1); },
         [](VARIANT& v) { *v.pboolVal = 1; }, true,
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*item).value, 0); }},
        {"a BSTR the object left null is an empty text", [] { return Text(L"before", L"VT_BSTR|VT_PTR", 1); },
         [](VARIANT& v) {
             SysFreeString(*v.pbstrVal);
             *v.pbstrVal = nullptr;
         },
         true, [](CMetaObjectItem* item) { EXPECT_TRUE(dynamic_cast<CMetaObjectString&>(*item).value.IsEmpty()); }},
        {"a variant cell becomes text", [] { return Text(L"in", L"VT_VARIANT|VT_PTR", 1); },
         [](VARIANT& v) {
             VariantClear(v.pvarVal);
             v.pvarVal->vt = VT_I4;
             v.pvarVal->lVal = 42;
         },
         true, [](CMetaObjectItem* item) { EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*item).value), L"42"); }},
        {"a variant cell the object emptied gives an empty text", [] { return Text(L"in", L"VT_VARIANT|VT_PTR", 1); },
         [](VARIANT& v) { VariantClear(v.pvarVal); }, true,
         [](CMetaObjectItem* item) { EXPECT_TRUE(dynamic_cast<CMetaObjectString&>(*item).value.IsEmpty()); }},
        {"enumeration by any signature",
         [] {
             auto item = Typed(std::make_unique<CMetaObjectEnum>(1), L"VT_BYREF", 1);
             item->GetTypeDesc().type = MetaTypeEnum;
             return ItemPtr(std::move(item));
         },
         [](VARIANT& v) { *v.plVal = 99; }, true,
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectEnum&>(*item).value, 99); }},
        {"a signature without a row keeps the value", [] { return Int(4, L"VT_I8"); }, nullptr, false,
         [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, 4); }},
        {"an omitted by-reference argument has no cell to read",
         [] {
             auto item = Int(4, L"VT_I4|VT_PTR", 1);
             item->SetOptional(1);
             item->SetOmitted(1);
             return item;
         },
         nullptr, false, [](CMetaObjectItem* item) { EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*item).value, 4); }},
    };
    for (const WriteBackRow& row : rows) {
        SCOPED_TRACE(row.name);
        ItemPtr item = row.item();
        Argument argument(item.get());
        ASSERT_TRUE(argument.translated || !row.written);
        if (row.changed)
            row.changed(argument.value);
        EXPECT_EQ(argument.call.VariantIntoItem(argument.value, item.get()), row.written);
        row.check(item.get());
    }
}

TEST(VariantIntoItemTest, AnObjectSwappedInACellPassesItsReferenceToANewHandler)
{
    CCountingDispatch before, after;
    {
        ObjectItem holder(before, L"VT_DISPATCH|VT_PTR", 1, 2);
        CMetaObjectHandler* oldHandler = holder.item->handler;
        oldHandler->AddUse();  // kept alive to look at after the swap
        {
            Argument argument(holder.item.get());
            // What a callee does under COM's rules: release what came in, put its own there.
            (*argument.value.ppdispVal)->Release();
            after.AddRef();
            *argument.value.ppdispVal = &after;
            EXPECT_TRUE(argument.call.VariantIntoItem(argument.value, holder.item.get()));
        }
        EXPECT_NE(holder.item->handler, oldHandler);
        EXPECT_EQ(holder.item->handler->GetDispatchPointer(), &after);
        EXPECT_EQ(after.References(), 2);
        EXPECT_EQ(before.References(), 2);  // the old handler's is untouched
        oldHandler->Release();
        delete oldHandler;
        EXPECT_EQ(before.References(), 1);
    }
    EXPECT_EQ(after.References(), 1);

    // Left as it was, the object stays with the old handler and the cell's reference goes.
    ObjectItem holder(before, L"VT_DISPATCH|VT_PTR", 1, 2);
    CMetaObjectHandler* kept = holder.item->handler;
    {
        Argument argument(holder.item.get());
        EXPECT_TRUE(argument.call.VariantIntoItem(argument.value, holder.item.get()));
    }
    EXPECT_EQ(holder.item->handler, kept);
    EXPECT_EQ(before.References(), 2);
}

TEST(MakeItemForTypeTest, ClassFollowsTheType)
{
    struct Row {
        std::uint32_t type;
        const wchar_t* signature;
        const wchar_t* typeName;
        const char* expected;  // class name, or null for no item
    };
    const Row rows[] = {
        {MetaTypeVoid, L"VT_VOID", L"", "CMetaObjectVoid"},
        {MetaTypeInt, L"VT_I4", L"", "CMetaObjectInt"},
        {MetaTypeDate, L"VT_DATE", L"", "CMetaObjectDate"},
        {MetaTypeStruct, L"VT_RECORD", L"", "CMetaObjectStruct"},
        {MetaTypeEnum, L"VT_BYREF", L"", "CMetaObjectEnum"},
        {MetaTypeObject, L"VT_DISPATCH", L"", "CMetaObjectObject"},
        {MetaTypeUnknown, L"VT_BYREF", L"", nullptr},
        {MetaTypeInt, L"VT_I4|VT_ARRAY", L"Array of Integer", "CMetaObjectArray"},
        {MetaTypeInt, L"VT_I4", L"my array", "CMetaObjectArray"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.expected ? row.expected : "none");
        CTypeDesc type(row.type, 0, 0);
        type.signature = CMetaString(row.signature);
        type.typeName = CMetaString(row.typeName);
        ItemPtr item(MakeItemForType(type));
        if (!row.expected) {
            EXPECT_EQ(item, nullptr);
            continue;
        }
        ASSERT_NE(item, nullptr);
        EXPECT_NE(std::string(typeid(*item).name()).find(row.expected), std::string::npos) << typeid(*item).name();
        EXPECT_EQ(Wide(item->GetTypeDesc().signature), row.signature);
    }
}

TEST(VariantTranslationTest, RoundsOfEveryRowLeaveNoBlockBehind)
{
    const long left = BlocksLeftBy([] {
        for (int round = 0; round < 3; ++round) {
            ItemPtr text = Text(L"abc", L"VT_BSTR|VT_PTR", 1);
            Argument argument(text.get());
            argument.call.VariantIntoItem(argument.value, text.get());
            ItemPtr variant = Text(L"v", L"VT_VARIANT|VT_PTR", 1);
            Argument cell(variant.get());
            argument.call.VariantIntoItem(cell.value, variant.get());
            CVariant result;
            result.Get().vt = VT_BSTR;
            result.Get().bstrVal = SysAllocString(L"result");
            ItemPtr back(argument.call.VariantToItem(result.Get()));
        }
    });
    EXPECT_EQ(left, 0);
}

}  // namespace
