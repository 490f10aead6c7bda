// Arrays through the module's exports: on platform objects that nobody here
// wrote (the Dictionary's Items and Keys, arrays that VBScript builds, arrays
// that go to an object and come back from it), and on the array fixture for
// what those can't show.

#include <objbase.h>
#include <oleauto.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/reference_host.h"
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "plugin/com_handler.h"
#include "tests/module/module_fixture.h"
#include "tests/support/counting_dispatch.h"

using namespace MetaObj;

namespace {

using Bounds = std::vector<std::pair<std::int32_t, std::int32_t>>;  // lower bound, count

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

Bounds BoundsOf(const CMetaObjectItem& item)
{
    Bounds bounds;
    if (item.GetTypeDesc().bounds) {
        for (const CArrayBound* bound : *item.GetTypeDesc().bounds)
            bounds.emplace_back(bound->lowerBound, bound->elementCount);
    }
    return bounds;
}

// An item of the test's, cleared before it goes so object elements give their use back.
struct ClearingDelete {
    void operator()(CMetaObjectItem* item) const
    {
        item->Clear();
        delete item;
    }
};
using ItemPtr = std::unique_ptr<CMetaObjectItem, ClearingDelete>;

ItemPtr Text(const wchar_t* text, const wchar_t* signature = L"VT_BSTR")
{
    auto* item = new CMetaObjectString;
    item->value = CMetaString(text);
    item->GetTypeDesc().signature = CMetaString(signature);
    return ItemPtr(item);
}

// An array item as a host builds one from a parameter's description.
std::unique_ptr<CMetaObjectArray, ClearingDelete> Array(const wchar_t* signature, const Bounds& bounds)
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

class ArrayCallTest : public ModuleTest {
protected:
    CMetaObjectHandler* NewHandler() { return module->GetHandlerObject(); }

    struct Outcome {
        MetaStatus status = MetaStatusOk;
        CMetaObjectItem* result = nullptr;  // the module's; given back by Free
    };

    Outcome Call(CMetaObjectHandler& handler, const wchar_t* key, std::vector<CMetaObjectItem*> arguments = {})
    {
        Outcome outcome;
        CCOMMethodInvoke* slot = nullptr;
        EXPECT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusOk);
        CItemList list(arguments.begin(), arguments.end());
        handler.SetInvokeParams(&slot, list);
        CMethodInvokeStatus record;
        outcome.status = handler.ExecuteInvoke(&slot, &record, &outcome.result);
        handler.FreeMethodInvoke(&slot);
        return outcome;
    }

    void Free(CMetaObjectHandler& handler, CMetaObjectItem* item)
    {
        if (!item)
            return;
        item->Clear();
        handler.FreeItem(item);
    }

    // An object item whose new handler holds a reference of its own.
    ItemPtr ObjectItem(IDispatch* object)
    {
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        object->AddRef();
        handler->AttachObject(object, nullptr);
        auto* item = new CMetaObjectObject;
        item->SetHandler(handler);
        handler->Release();
        return ItemPtr(item);
    }

    void Done(CMetaObjectHandler* handler)
    {
        handler->Release();
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    }

    void RunLive(const std::function<void()>& body)
    {
        RunInitialised([&] {
            module->SetEnvironment(host.Table());
            body();
            host.FreeReleasedHandlers(module->FreeHandlerObject);
            EXPECT_TRUE(host.Registrations().empty());
        });
    }

    // A VBScript engine with the code added, for Eval of its functions.
    CMetaObjectHandler* Script(const wchar_t* code)
    {
        CMetaObjectHandler* control = NewHandler();
        EXPECT_EQ(control->Open("COM://MSScriptControl.ScriptControl", nullptr), MetaStatusOk);
        auto language = Text(L"VBScript");
        EXPECT_EQ(Call(*control, L"Set:Language", {language.get()}).status, MetaStatusOk);
        auto text = Text(code);
        EXPECT_EQ(Call(*control, L"Invoke:AddCode", {text.get()}).status, MetaStatusOk);
        return control;
    }

    // The registered array fixture, and what its Live property counts now.
    CMetaObjectHandler* Fixture()
    {
        CMetaObjectHandler* fixture = NewHandler();
        EXPECT_EQ(fixture->Open("COM://ComHandlerTest.ArrayFixture", nullptr), MetaStatusOk);
        return fixture;
    }
    std::int32_t Live(CMetaObjectHandler& fixture)
    {
        Outcome live = Call(fixture, L"Get:Live");
        const std::int32_t count = live.result ? dynamic_cast<CMetaObjectInt&>(*live.result).value : -1;
        Free(fixture, live.result);
        return count;
    }
    static ItemPtr Int(std::int32_t value, const wchar_t* signature)
    {
        auto* item = new CMetaObjectInt(value);
        item->GetTypeDesc().signature = CMetaString(signature);
        return ItemPtr(item);
    }

    CReferenceHost host;
};

std::vector<std::wstring> Texts(const CMetaObjectArray& array)
{
    std::vector<std::wstring> texts;
    for (std::int32_t at = 0; at < array.elementCount; ++at) {
        CMetaString text;
        if (array.elements[at])
            array.elements[at]->GetValue(text);
        texts.push_back(array.elements[at] ? Wide(text) : L"<null>");
    }
    return texts;
}

TEST_F(ArrayCallTest, DictionaryItemsAndKeysComeAsVariantArrays)
{
    RunLive([&] {
        CMetaObjectHandler* dictionary = NewHandler();
        ASSERT_EQ(dictionary->Open("COM://Scripting.Dictionary", nullptr), MetaStatusOk);
        for (const auto& [key, value] : {std::pair{L"a", L"red"}, std::pair{L"b", L"green"}, std::pair{L"c", L"blue"}}) {
            auto keyItem = Text(key, L"VT_VARIANT");
            auto valueItem = Text(value, L"VT_VARIANT");
            ASSERT_EQ(Call(*dictionary, L"Invoke:Add", {keyItem.get(), valueItem.get()}).status, MetaStatusOk);
        }
        const struct {
            const wchar_t* key;
            std::vector<std::wstring> expected;
        } rows[] = {{L"Invoke:Items", {L"red", L"green", L"blue"}}, {L"Invoke:Keys", {L"a", L"b", L"c"}}};
        for (const auto& row : rows) {
            SCOPED_TRACE(std::string(row.key, row.key + wcslen(row.key)));
            Outcome got = Call(*dictionary, row.key);
            ASSERT_EQ(got.status, MetaStatusOk);
            auto& array = dynamic_cast<CMetaObjectArray&>(*got.result);
            EXPECT_EQ(BoundsOf(array), (Bounds{{0, 3}}));
            ASSERT_EQ(array.elementCount, 3);
            for (std::int32_t at = 0; at < 3; ++at)
                EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*array.elements[at]).value), row.expected[at]);
            Free(*dictionary, got.result);
        }
        Done(dictionary);
    });
}

// Element values name their indices, so each row also proves the order.
TEST_F(ArrayCallTest, ArraysVBScriptBuildsComeWithTheirShape)
{
    RunLive([&] {
        CMetaObjectHandler* control = Script(
            L"Function One() : One = Array(1, \"two\", 3.5) : End Function\n"
            L"Function Two()\n"
            L"  Dim a(1, 2)\n"
            L"  For i = 0 To 1 : For j = 0 To 2 : a(i, j) = i * 10 + j : Next : Next\n"
            L"  Two = a\n"
            L"End Function\n"
            L"Function Three()\n"
            L"  Dim a(1, 1, 2)\n"
            L"  For i = 0 To 1 : For j = 0 To 1 : For k = 0 To 2 : a(i, j, k) = i * 100 + j * 10 + k\n"
            L"  Next : Next : Next\n"
            L"  Three = a\n"
            L"End Function\n"
            L"Function Nested() : Nested = Array(1, Array(2, Array(3))) : End Function\n"
            L"Function NoElements() : NoElements = Array() : End Function\n");
        const struct {
            const wchar_t* expression;
            Bounds bounds;
            std::vector<std::int32_t> values;  // in the order of the walk
        } rows[] = {
            {L"Two()", {{0, 2}, {0, 3}}, {0, 1, 2, 10, 11, 12}},
            {L"Three()", {{0, 2}, {0, 2}, {0, 3}}, {0, 1, 2, 10, 11, 12, 100, 101, 102, 110, 111, 112}},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(std::string(row.expression, row.expression + wcslen(row.expression)));
            auto expression = Text(row.expression);
            Outcome got = Call(*control, L"Invoke:Eval", {expression.get()});
            ASSERT_EQ(got.status, MetaStatusOk);
            auto& array = dynamic_cast<CMetaObjectArray&>(*got.result);
            EXPECT_EQ(BoundsOf(array), row.bounds);
            ASSERT_EQ(array.elementCount, static_cast<std::int32_t>(row.values.size()));
            for (std::int32_t at = 0; at < array.elementCount; ++at)
                EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*array.elements[at]).value, row.values[at]) << at;
            Free(*control, got.result);
        }

        auto one = Text(L"One()");
        Outcome got = Call(*control, L"Invoke:Eval", {one.get()});
        auto& mixed = dynamic_cast<CMetaObjectArray&>(*got.result);
        ASSERT_EQ(mixed.elementCount, 3);
        EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*mixed.elements[0]).value, 1);
        EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*mixed.elements[1]).value), L"two");
        EXPECT_EQ(dynamic_cast<CMetaObjectReal&>(*mixed.elements[2]).value, 3.5);
        Free(*control, got.result);

        auto nested = Text(L"Nested()");
        got = Call(*control, L"Invoke:Eval", {nested.get()});
        auto& outer = dynamic_cast<CMetaObjectArray&>(*got.result);
        ASSERT_EQ(outer.elementCount, 2);
        auto& middle = dynamic_cast<CMetaObjectArray&>(*outer.elements[1]);
        auto& inner = dynamic_cast<CMetaObjectArray&>(*middle.elements[1]);
        EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*inner.elements[0]).value, 3);
        Free(*control, got.result);

        // Array() has one dimension of no elements: upper bound -1.
        auto empty = Text(L"NoElements()");
        got = Call(*control, L"Invoke:Eval", {empty.get()});
        auto& none = dynamic_cast<CMetaObjectArray&>(*got.result);
        EXPECT_EQ(BoundsOf(none), (Bounds{{0, 0}}));
        EXPECT_EQ(none.elements, nullptr);
        Free(*control, got.result);
        Done(control);
    });
}

// The Dictionary keeps a copy of what it is given and hands a copy back, so an
// array makes a round trip through an object with its bounds and elements.
TEST_F(ArrayCallTest, ArraysRoundTripThroughADictionaryWithTheirBounds)
{
    RunLive([&] {
        CMetaObjectHandler* dictionary = NewHandler();
        ASSERT_EQ(dictionary->Open("COM://Scripting.Dictionary", nullptr), MetaStatusOk);
        const struct {
            const char* name;
            const wchar_t* signature;
            Bounds bounds;
        } shapes[] = {
            {"1-D", L"VT_I4|VT_ARRAY", {{0, 4}}},
            {"2x3 from -1 and 5", L"VT_I4|VT_ARRAY", {{-1, 2}, {5, 3}}},
            {"3-D from -1, 0, 5", L"VT_R8|VT_ARRAY", {{-1, 2}, {0, 2}, {5, 2}}},
            {"single", L"VT_BSTR|VT_ARRAY", {{3, 1}}},
            {"texts in VARIANTs", L"VT_VARIANT|VT_ARRAY", {{0, 2}}},
        };
        int keyNumber = 0;
        for (const auto& shape : shapes) {
            SCOPED_TRACE(shape.name);
            auto array = Array(shape.signature, shape.bounds);
            for (std::int32_t at = 0; at < array->elementCount; ++at) {
                const std::wstring signature = shape.signature;
                if (signature.rfind(L"VT_R8", 0) == 0)
                    array->elements[at] = new CMetaObjectReal(at + 0.5);
                else if (signature.rfind(L"VT_I4", 0) == 0)
                    array->elements[at] = new CMetaObjectInt(at * 3);
                else
                    array->elements[at] = Text(std::to_wstring(at).c_str()).release();
            }
            auto key = Text(std::to_wstring(++keyNumber).c_str(), L"VT_VARIANT");
            ASSERT_EQ(Call(*dictionary, L"Invoke:Add", {key.get(), array.get()}).status, MetaStatusOk);
            Outcome got = Call(*dictionary, L"Get:Item", {key.get()});
            ASSERT_EQ(got.status, MetaStatusOk);
            auto& back = dynamic_cast<CMetaObjectArray&>(*got.result);
            EXPECT_EQ(BoundsOf(back), shape.bounds);
            ASSERT_EQ(back.elementCount, array->elementCount);
            for (std::int32_t at = 0; at < back.elementCount; ++at) {
                CMetaString sent;
                CMetaString came;
                array->elements[at]->GetValue(sent);
                back.elements[at]->GetValue(came);
                EXPECT_EQ(Wide(came), Wide(sent)) << at;
            }
            Free(*dictionary, got.result);
        }
        Done(dictionary);
    });
}

// Wine's Dictionary doesn't keep arrays of objects intact, so objects go
// through a VBScript class: out in a VARIANT array, back in one it builds.
TEST_F(ArrayCallTest, ObjectsInArraysKeepExactReferences)
{
    CCountingDispatch object;
    RunLive([&] {
        CMetaObjectHandler* control = Script(
            L"Class Keeper\n"
            L"  Public Function Second(a) : Set Second = a(1) : End Function\n"
            L"  Public Function Thrice(o) : Thrice = Array(o, o, o) : End Function\n"
            L"End Class\n");
        auto expression = Text(L"New Keeper");
        Outcome made = Call(*control, L"Invoke:Eval", {expression.get()});
        ASSERT_EQ(made.status, MetaStatusOk);
        CMetaObjectHandler& keeper = *dynamic_cast<CMetaObjectObject&>(*made.result).handler;
        {
            auto array = Array(L"VT_VARIANT|VT_ARRAY", {{0, 3}});
            for (std::int32_t at = 0; at < 3; ++at)
                array->elements[at] = ObjectItem(&object).release();
            EXPECT_EQ(object.References(), 4);  // the creator and three handlers
            Outcome second = Call(keeper, L"Invoke:Second", {array.get()});
            ASSERT_EQ(second.status, MetaStatusOk);
            EXPECT_EQ(object.References(), 5);  // the call's array is gone; the result has a handler
            EXPECT_EQ(dynamic_cast<CMetaObjectObject&>(*second.result).handler->GetDispatchPointer(), &object);
            Free(keeper, second.result);
            EXPECT_EQ(object.References(), 4);

            ItemPtr one = ObjectItem(&object);
            Outcome thrice = Call(keeper, L"Invoke:Thrice", {one.get()});
            ASSERT_EQ(thrice.status, MetaStatusOk);
            EXPECT_EQ(object.References(), 8);  // and a handler for each element
            auto& back = dynamic_cast<CMetaObjectArray&>(*thrice.result);
            ASSERT_EQ(back.elementCount, 3);
            EXPECT_EQ(dynamic_cast<CMetaObjectObject&>(*back.elements[2]).handler->GetDispatchPointer(), &object);
            Free(keeper, thrice.result);
            EXPECT_EQ(object.References(), 5);
        }
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        EXPECT_EQ(object.References(), 1);
        Free(*control, made.result);
        Done(control);
    });
}

// An in/out array goes by reference and what stands in the cell after the call
// is read back into the item. Wine's VBScript keeps a ByRef array it replaces
// to itself, so the item may come back as it went; both are whole and leak nothing.
// On a host thread of its own apartment, as a host may run its scripts: the
// engine is then called directly. Across apartments Wine's 64-bit marshaler
// keeps a by-reference array cell in 4 bytes and overruns it.
TEST_F(ArrayCallTest, AnInOutArrayComesBackIntoTheItem)
{
    RunLive([&] {
        RunOnThread([&] {
            ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
            CMetaObjectHandler* control = Script(
                L"Class Grower\n"
                L"  Public Sub Grow(ByRef a) : a = Array(a(0) + 1, \"eight\", 9) : End Sub\n"
                L"End Class\n");
            auto expression = Text(L"New Grower");
            Outcome made = Call(*control, L"Invoke:Eval", {expression.get()});
            ASSERT_EQ(made.status, MetaStatusOk);
            CMetaObjectHandler& grower = *dynamic_cast<CMetaObjectObject&>(*made.result).handler;

            auto array = Array(L"VT_VARIANT|VT_ARRAY|VT_PTR", {{0, 1}});
            array->elements[0] = new CMetaObjectInt(6);
            array->GetTypeDesc().isByRef = 1;
            array->SetDirection(2);
            EXPECT_EQ(Call(grower, L"Invoke:Grow", {array.get()}).status, MetaStatusOk);
            // Wine's engine may assign to a copy of the array; then the item stays as it went.
            if (array->elementCount == 3) {
                EXPECT_EQ(BoundsOf(*array), (Bounds{{0, 3}}));
                EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*array->elements[0]).value, 7);
                EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*array->elements[1]).value), L"eight");
            } else {
                EXPECT_EQ(BoundsOf(*array), (Bounds{{0, 1}}));
                EXPECT_EQ(array->elementCount, 1);
                EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*array->elements[0]).value, 6);
            }
            array.reset();
            Free(*control, made.result);
            Done(control);
            CoUninitialize();
        });
    });
}

// Each row: an array the fixture makes, then the same elements sent back to
// it under the row's signature and echoed, compared element by element.
TEST_F(ArrayCallTest, EveryElementTypeComesFromTheFixtureAndGoesBack)
{
    RunLive([&] {
        CMetaObjectHandler* fixture = Fixture();
        const struct {
            const char* name;
            VARTYPE type;
            const wchar_t* signature;
        } rows[] = {
            {"I1", VT_I1, L"VT_I1|VT_ARRAY"},       {"UI1", VT_UI1, L"VT_UI1|VT_ARRAY"},
            {"I2", VT_I2, L"VT_I2|VT_ARRAY"},       {"UI2", VT_UI2, L"VT_UI2|VT_ARRAY"},
            {"I4", VT_I4, L"VT_I4|VT_ARRAY"},       {"UI4", VT_UI4, L"VT_UI4|VT_ARRAY"},
            {"R4", VT_R4, L"VT_R4|VT_ARRAY"},       {"R8", VT_R8, L"VT_R8|VT_ARRAY"},
            {"BOOL", VT_BOOL, L"VT_BOOL|VT_ARRAY"}, {"BSTR", VT_BSTR, L"VT_BSTR|VT_ARRAY"},
            {"CY", VT_CY, L"VT_CY|VT_ARRAY"},       {"DATE", VT_DATE, L"VT_DATE|VT_ARRAY"},
            {"VARIANT", VT_VARIANT, L"VT_VARIANT|VT_ARRAY"}, {"DISPATCH", VT_DISPATCH, L"VT_DISPATCH|VT_ARRAY"},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            auto type = Int(row.type, L"VT_I4");
            auto count = Int(3, L"VT_I4");
            Outcome made = Call(*fixture, L"Invoke:Make", {type.get(), count.get()});
            ASSERT_EQ(made.status, MetaStatusOk);
            auto& array = dynamic_cast<CMetaObjectArray&>(*made.result);
            EXPECT_EQ(BoundsOf(array), (Bounds{{0, 3}}));
            ASSERT_EQ(array.elementCount, 3);
            for (std::int32_t at = 0; at < 3; ++at)
                EXPECT_NE(array.elements[at], nullptr) << at;
            if (auto* number = dynamic_cast<CMetaObjectInt*>(array.elements[2])) {
                EXPECT_EQ(number->value, 2);
            }

            // A result has no signature of its own: the host gives the parameter's.
            CMetaObjectItem* sent = array.Clone();
            sent->SetValue(CMetaString(row.signature));
            Outcome echoed = Call(*fixture, L"Invoke:Echo", {sent});
            ASSERT_EQ(echoed.status, MetaStatusOk);
            auto& back = dynamic_cast<CMetaObjectArray&>(*echoed.result);
            EXPECT_EQ(BoundsOf(back), (Bounds{{0, 3}}));
            EXPECT_EQ(Texts(back), Texts(array));
            Free(*fixture, echoed.result);
            Free(*fixture, sent);
            Free(*fixture, made.result);
        }
        EXPECT_EQ(Live(*fixture), 1);  // every child made is gone again
        Done(fixture);
    });
}

TEST_F(ArrayCallTest, FixtureShapesKeepTheirBoundsBothWays)
{
    RunLive([&] {
        CMetaObjectHandler* fixture = Fixture();
        Outcome cube = Call(*fixture, L"Invoke:Cube");
        ASSERT_EQ(cube.status, MetaStatusOk);
        auto& array = dynamic_cast<CMetaObjectArray&>(*cube.result);
        EXPECT_EQ(BoundsOf(array), (Bounds{{-1, 2}, {0, 3}, {5, 2}}));
        std::vector<std::int32_t> expected;
        for (std::int32_t i = -1; i <= 0; ++i)
            for (std::int32_t j = 0; j <= 2; ++j)
                for (std::int32_t k = 5; k <= 6; ++k)
                    expected.push_back(i * 100 + j * 10 + k);
        ASSERT_EQ(array.elementCount, 12);
        for (std::int32_t at = 0; at < 12; ++at)
            EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*array.elements[at]).value, expected[at]) << at;

        CMetaObjectItem* sent = array.Clone();
        sent->SetValue(CMetaString(L"VT_I4|VT_ARRAY"));
        Outcome echoed = Call(*fixture, L"Invoke:Echo", {sent});
        auto& back = dynamic_cast<CMetaObjectArray&>(*echoed.result);
        EXPECT_EQ(BoundsOf(back), BoundsOf(array));
        EXPECT_EQ(Texts(back), Texts(array));
        Free(*fixture, echoed.result);
        Free(*fixture, sent);
        Free(*fixture, cube.result);

        // Sent back as a result came, with no signature: refused before the call.
        Outcome again = Call(*fixture, L"Invoke:Cube");
        EXPECT_EQ(Call(*fixture, L"Invoke:Echo", {again.result}).status, MetaStatusInvokeFailed);
        Free(*fixture, again.result);

        Outcome empty = Call(*fixture, L"Invoke:EmptyDimension");
        auto& none = dynamic_cast<CMetaObjectArray&>(*empty.result);
        EXPECT_EQ(BoundsOf(none), (Bounds{{0, 2}, {0, 0}}));
        EXPECT_EQ(none.elements, nullptr);
        none.SetValue(CMetaString(L"VT_I4|VT_ARRAY"));
        Outcome emptyBack = Call(*fixture, L"Invoke:Echo", {&none});
        EXPECT_EQ(BoundsOf(*emptyBack.result), (Bounds{{0, 2}, {0, 0}}));
        Free(*fixture, emptyBack.result);
        Free(*fixture, empty.result);

        auto reals = Array(L"VT_R8|VT_ARRAY", {{-1, 2}, {5, 3}});
        for (std::int32_t at = 0; at < 6; ++at)
            reals->elements[at] = new CMetaObjectReal(at + 0.5);
        Outcome sum = Call(*fixture, L"Invoke:Sum", {reals.get()});
        ASSERT_EQ(sum.status, MetaStatusOk);
        EXPECT_DOUBLE_EQ(dynamic_cast<CMetaObjectReal&>(*sum.result).value, 18.0);
        Free(*fixture, sum.result);
        Done(fixture);
    });
}

TEST_F(ArrayCallTest, FixtureChildrenInArraysAreReleasedExactly)
{
    RunLive([&] {
        CMetaObjectHandler* fixture = Fixture();
        ASSERT_EQ(Live(*fixture), 1);
        auto count = Int(4, L"VT_I4");
        Outcome children = Call(*fixture, L"Invoke:Children", {count.get()});
        ASSERT_EQ(children.status, MetaStatusOk);
        auto& array = dynamic_cast<CMetaObjectArray&>(*children.result);
        ASSERT_EQ(array.elementCount, 4);
        EXPECT_EQ(Live(*fixture), 5);  // held by the element handlers alone
        CMetaObjectHandler& third = *dynamic_cast<CMetaObjectObject&>(*array.elements[2]).handler;
        Outcome id = Call(third, L"Get:Id");
        EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*id.result).value, 2);
        Free(third, id.result);
        Free(*fixture, children.result);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        EXPECT_EQ(Live(*fixture), 1);
        Done(fixture);
    });
}

TEST_F(ArrayCallTest, FixtureNestingIsFollowedAndCutDeepDown)
{
    RunLive([&] {
        CMetaObjectHandler* fixture = Fixture();
        for (const std::int32_t depth : {1, 5, 500}) {
            SCOPED_TRACE(depth);
            auto levels = Int(depth, L"VT_I4");
            Outcome nested = Call(*fixture, L"Invoke:Nested", {levels.get()});
            ASSERT_EQ(nested.status, MetaStatusOk);
            int seen = 0;
            CMetaObjectItem* at = nested.result;
            while (auto* array = dynamic_cast<CMetaObjectArray*>(at)) {
                ++seen;
                at = array->elementCount == 1 ? array->elements[0] : nullptr;
            }
            if (depth < 10) {
                EXPECT_EQ(seen, depth);
                EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*at).value, 42);
            } else {
                EXPECT_LT(seen, depth);  // cut off, the number never reached
                EXPECT_EQ(at, nullptr);
            }
            Free(*fixture, nested.result);
        }
        Done(fixture);
    });
}

TEST_F(ArrayCallTest, FixtureInOutArrayComesBackWithItsNewShape)
{
    RunLive([&] {
        CMetaObjectHandler* fixture = Fixture();
        auto array = Array(L"VT_I4|VT_ARRAY|VT_PTR", {{0, 2}});
        array->elements[0] = new CMetaObjectInt(5);
        array->elements[1] = new CMetaObjectInt(6);
        array->GetTypeDesc().isByRef = 1;
        array->SetDirection(2);
        for (const auto& expected : {std::vector<std::int32_t>{10, 12, 99}, std::vector<std::int32_t>{20, 24, 198, 99}}) {
            ASSERT_EQ(Call(*fixture, L"Invoke:Grow", {array.get()}).status, MetaStatusOk);
            EXPECT_EQ(BoundsOf(*array), (Bounds{{1, static_cast<std::int32_t>(expected.size())}}));
            ASSERT_EQ(array->elementCount, static_cast<std::int32_t>(expected.size()));
            for (std::int32_t at = 0; at < array->elementCount; ++at)
                EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*array->elements[at]).value, expected[at]) << at;
        }
        Done(fixture);
    });
}

}  // namespace
