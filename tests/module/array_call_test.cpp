// Arrays through the module's calls: on platform objects that nobody here wrote
// (arrays that VBScript builds and takes), and
// on the array fixture for what those can't show. Shapes and element types on
// their own are the unit tests'.

#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/support/counting_dispatch.h"

using namespace MetaObj;

namespace {

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

std::vector<std::string> Texts(const CMetaObjectItem* item)
{
    const auto* array = dynamic_cast<const CMetaObjectArray*>(item);
    EXPECT_NE(array, nullptr) << "no array";
    std::vector<std::string> texts;
    for (std::int32_t at = 0; array && at < array->elementCount; ++at) {
        CMetaString text;
        if (array->elements[at])
            array->elements[at]->GetValue(text);
        texts.push_back(array->elements[at] ? Narrow(text) : "<null>");
    }
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

using ArrayCallTest = CallTest;
constexpr char kArrayFixture[] = "COM://ComHandlerTest.ArrayFixture";


// Wine's Dictionary doesn't keep arrays of objects intact, so objects go
// through a VBScript class: out in a VARIANT array, back in one it builds.
TEST_F(ArrayCallTest, ObjectsInArraysKeepExactReferences)
{
    CCountingDispatch object;
    WithScript(L"Class Keeper\n"
               L"  Public Function Second(a) : Set Second = a(1) : End Function\n"
               L"  Public Function Thrice(o) : Thrice = Array(o, o, o) : End Function\n"
               L"End Class\n",
               [&](CMetaObjectCOMHandler& control) {
                   const Outcome made = Eval(control, L"New Keeper");
                   ASSERT_EQ(made.status, MetaStatusOk);
                   CMetaObjectCOMHandler& keeper = ItemHandler(made.result.get());
                   auto array = Array(L"VT_VARIANT|VT_ARRAY", {{0, 3}});
                   for (std::int32_t at = 0; at < 3; ++at)
                       array->elements[at] = ObjectItem(&object).release();
                   EXPECT_EQ(object.References(), 4);  // the creator and three handlers
                   Outcome second = Call(keeper, L"Invoke:Second", {array.get()});
                   ASSERT_EQ(second.status, MetaStatusOk);
                   EXPECT_EQ(object.References(), 5);  // the call's array is gone; the result has a handler
                   EXPECT_EQ(ObjectOf(second.result.get()), &object);
                   second.result.reset();
                   EXPECT_EQ(object.References(), 4);

                   const Param one = ObjectItem(&object);
                   Outcome thrice = Call(keeper, L"Invoke:Thrice", {one.get()});
                   ASSERT_EQ(thrice.status, MetaStatusOk);
                   EXPECT_EQ(object.References(), 8);  // and a handler for each element
                   ASSERT_EQ(ArrayOf(thrice.result).elementCount, 3);
                   EXPECT_EQ(ObjectOf(ArrayOf(thrice.result).elements[2]), &object);
                   thrice.result.reset();
                   EXPECT_EQ(object.References(), 5);
               });
    EXPECT_EQ(object.References(), 1);
}

// Each row: an array the fixture makes, then the same elements sent back to
// it under the row's signature and echoed, compared element by element.
TEST_F(ArrayCallTest, FixtureArraysComeWithTheirShapeAndGoBack)
{
    WithObject(kArrayFixture, [&](CMetaObjectCOMHandler& fixture) {
        using Spots = std::vector<std::pair<std::size_t, std::string>>;  // texts of elements in the walk
        const Bounds three{{0, 3}};
        const struct {
            VARTYPE type;  // Make's element type; VT_EMPTY for the key's own array
            const wchar_t* key;
            const wchar_t* signature;
            Bounds bounds;
            Spots spots;
        } rows[] = {
            {VT_I1, L"Invoke:Make", L"VT_I1|VT_ARRAY", three, {{2, "\x02"}}},
            {VT_UI1, L"Invoke:Make", L"VT_UI1|VT_ARRAY", three, {{2, "\x02"}}},
            {VT_I2, L"Invoke:Make", L"VT_I2|VT_ARRAY", three, {{2, "2"}}},
            {VT_UI2, L"Invoke:Make", L"VT_UI2|VT_ARRAY", three, {{2, "2"}}},
            {VT_I4, L"Invoke:Make", L"VT_I4|VT_ARRAY", three, {{2, "2"}}},
            {VT_UI4, L"Invoke:Make", L"VT_UI4|VT_ARRAY", three, {{2, "2"}}},
            {VT_R4, L"Invoke:Make", L"VT_R4|VT_ARRAY", three, {{2, "2.000000"}}},
            {VT_R8, L"Invoke:Make", L"VT_R8|VT_ARRAY", three, {{2, "2.000000"}}},
            {VT_BOOL, L"Invoke:Make", L"VT_BOOL|VT_ARRAY", three, {{2, "true"}}},
            {VT_BSTR, L"Invoke:Make", L"VT_BSTR|VT_ARRAY", three, {{2, "2"}}},
            {VT_CY, L"Invoke:Make", L"VT_CY|VT_ARRAY", three, {{2, "2"}}},
            {VT_DATE, L"Invoke:Make", L"VT_DATE|VT_ARRAY", three, {}},
            {VT_VARIANT, L"Invoke:Make", L"VT_VARIANT|VT_ARRAY", three, {{2, "2"}}},
            {VT_DISPATCH, L"Invoke:Make", L"VT_DISPATCH|VT_ARRAY", three, {}},
            // Element i, j, k holds i * 100 + j * 10 + k: the last index moves fastest.
            {VT_EMPTY, L"Invoke:Cube", L"VT_I4|VT_ARRAY", {{-1, 2}, {0, 3}, {5, 2}},
             {{1, "-94"}, {3, "-84"}, {11, "26"}}},
            {VT_EMPTY, L"Invoke:EmptyDimension", L"VT_I4|VT_ARRAY", {{0, 2}, {0, 0}}, {}},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(Narrow(CMetaString(row.key)) + " " + Narrow(CMetaString(row.signature)));
            const Param type = Int(row.type), count = Int(3);
            const Outcome made = row.type == VT_EMPTY ? Call(fixture, row.key)
                                                      : Call(fixture, row.key, {type.get(), count.get()});
            ASSERT_EQ(made.status, MetaStatusOk);
            EXPECT_EQ(BoundsOf(*made.result), row.bounds);
            const std::vector<std::string> texts = Texts(made.result.get());
            std::size_t elements = 1;
            for (const auto& bound : row.bounds)
                elements *= static_cast<std::size_t>(bound.second);
            ASSERT_EQ(texts.size(), elements);
            EXPECT_EQ(std::count(texts.begin(), texts.end(), "<null>"), 0);
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
        for (const auto& expected : {std::vector<std::string>{"10", "12", "99"},
                                     std::vector<std::string>{"20", "24", "198", "99"}}) {
            ASSERT_EQ(Call(fixture, L"Invoke:Grow", {array.get()}).status, MetaStatusOk);
            EXPECT_EQ(BoundsOf(*array), (Bounds{{1, static_cast<std::int32_t>(expected.size())}}));
            EXPECT_EQ(Texts(array.get()), expected);
        }
    });
}

}  // namespace
