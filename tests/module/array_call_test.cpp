// Arrays through the module's calls on the array fixture. Shapes and element
// types on their own are the unit tests'.

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

std::vector<std::wstring> Texts(const CMetaObjectItem* item)
{
    const auto* array = dynamic_cast<const CMetaObjectArray*>(item);
    EXPECT_NE(array, nullptr) << "no array";
    std::vector<std::wstring> texts;
    for (std::int32_t at = 0; array && at < array->elementCount; ++at)
        texts.push_back(array->elements[at] ? ValueText(array->elements[at]) : L"<null>");
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

// Each element's handler holds a reference of its own, let go with its array.
TEST_F(ArrayCallTest, ObjectsInArraysKeepExactReferences)
{
    CCountingDispatch object;
    WithObject(kArrayFixture, [&](CMetaObjectCOMHandler& fixture) {
        auto array = Array(L"VT_DISPATCH|VT_ARRAY", {{0, 3}});
        for (std::int32_t at = 0; at < 3; ++at)
            array->elements[at] = ObjectItem(&object).release();
        EXPECT_EQ(object.References(), 4);  // the creator and three handlers
        Outcome echoed = Call(fixture, L"Invoke:Echo", {array.get()});
        ASSERT_EQ(echoed.status, MetaStatusOk);
        EXPECT_EQ(object.References(), 7);  // the call's copy is gone; the result's elements have handlers
        ASSERT_EQ(ArrayOf(echoed.result).elementCount, 3);
        EXPECT_EQ(ObjectOf(ArrayOf(echoed.result).elements[2]), &object);
        echoed.result.reset();
        EXPECT_EQ(object.References(), 4);
    });
    EXPECT_EQ(object.References(), 1);
}

// Each row: an array the fixture makes, then the same elements sent back to
// it under the row's signature and echoed, compared element by element.
TEST_F(ArrayCallTest, FixtureArraysComeWithTheirShapeAndGoBack)
{
    WithObject(kArrayFixture, [&](CMetaObjectCOMHandler& fixture) {
        using Spots = std::vector<std::pair<std::size_t, std::wstring>>;  // texts of elements in the walk
        const Bounds three{{0, 3}};
        const struct {
            VARTYPE type;  // Make's element type; VT_EMPTY for the key's own array
            const wchar_t* key;
            const wchar_t* signature;
            Bounds bounds;
            Spots spots;
        } rows[] = {
            {VT_I1, L"Invoke:Make", L"VT_I1|VT_ARRAY", three, {{2, L"\x02"}}},
            {VT_UI1, L"Invoke:Make", L"VT_UI1|VT_ARRAY", three, {{2, L"\x02"}}},
            {VT_I2, L"Invoke:Make", L"VT_I2|VT_ARRAY", three, {{2, L"2"}}},
            {VT_UI2, L"Invoke:Make", L"VT_UI2|VT_ARRAY", three, {{2, L"2"}}},
            {VT_I4, L"Invoke:Make", L"VT_I4|VT_ARRAY", three, {{2, L"2"}}},
            {VT_UI4, L"Invoke:Make", L"VT_UI4|VT_ARRAY", three, {{2, L"2"}}},
            {VT_R4, L"Invoke:Make", L"VT_R4|VT_ARRAY", three, {{2, L"2.000000"}}},
            {VT_R8, L"Invoke:Make", L"VT_R8|VT_ARRAY", three, {{2, L"2.000000"}}},
            {VT_BOOL, L"Invoke:Make", L"VT_BOOL|VT_ARRAY", three, {{2, L"true"}}},
            {VT_BSTR, L"Invoke:Make", L"VT_BSTR|VT_ARRAY", three, {{2, L"2"}}},
            {VT_CY, L"Invoke:Make", L"VT_CY|VT_ARRAY", three, {{2, L"2"}}},
            {VT_DATE, L"Invoke:Make", L"VT_DATE|VT_ARRAY", three, {}},
            {VT_VARIANT, L"Invoke:Make", L"VT_VARIANT|VT_ARRAY", three, {{2, L"2"}}},
            {VT_DISPATCH, L"Invoke:Make", L"VT_DISPATCH|VT_ARRAY", three, {}},
            // Element i, j, k holds i * 100 + j * 10 + k: the last index moves fastest.
            {VT_EMPTY, L"Invoke:Cube", L"VT_I4|VT_ARRAY", {{-1, 2}, {0, 3}, {5, 2}},
             {{1, L"-94"}, {3, L"-84"}, {11, L"26"}}},
            {VT_EMPTY, L"Invoke:EmptyDimension", L"VT_I4|VT_ARRAY", {{0, 2}, {0, 0}}, {}},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(Narrow(CMetaString(row.key)) + " " + Narrow(CMetaString(row.signature)));
            const Param type = Int(row.type), count = Int(3);
            const Outcome made = row.type == VT_EMPTY ? Call(fixture, row.key)
                                                      : Call(fixture, row.key, {type.get(), count.get()});
            ASSERT_EQ(made.status, MetaStatusOk);
            EXPECT_EQ(BoundsOf(*made.result), row.bounds);
            const std::vector<std::wstring> texts = Texts(made.result.get());
            std::size_t elements = 1;
            for (const auto& bound : row.bounds)
                elements *= static_cast<std::size_t>(bound.second);
            ASSERT_EQ(texts.size(), elements);
            EXPECT_EQ(std::count(texts.begin(), texts.end(), L"<null>"), 0);
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
            for (; auto* array = dynamic_cast<CMetaObjectArray*>(at); ++seen)
                at = array->elementCount == 1 ? array->elements[0] : nullptr;
            // Deep down the walk is cut off, the number never reached.
            EXPECT_TRUE(depth < 10 ? seen == depth : seen < depth) << seen;
            EXPECT_EQ(ValueText(at), depth < 10 ? L"42" : L"");
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
        for (const auto& expected : {std::vector<std::wstring>{L"10", L"12", L"99"},
                                     std::vector<std::wstring>{L"20", L"24", L"198", L"99"}}) {
            ASSERT_EQ(Call(fixture, L"Invoke:Grow", {array.get()}).status, MetaStatusOk);
            EXPECT_EQ(BoundsOf(*array), (Bounds{{1, static_cast<std::int32_t>(expected.size())}}));
            EXPECT_EQ(Texts(array.get()), expected);
        }
    });
}

}  // namespace
