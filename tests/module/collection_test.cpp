// Walking collections as a host does; the collection fixture misbehaves as its flags ask.

#include <algorithm>
#include <string>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/servers/collection_fixture_values.h"

using namespace MetaObj;
using namespace CollectionValues;

namespace {

// The items of one NextElements, freed through the handler that made them.
struct Batch {
    Batch(CMetaObjectCOMHandler& handler, IEnumVARIANT** slot, std::uint32_t count)
    {
        CItemList list;
        status = handler.NextElements(slot, count, list, &fetched);
        for (CMetaObjectItem* item : list)
            items.emplace_back(item, ResultDeleter{&handler});
    }
    MetaStatus status = MetaStatusOk;
    std::uint32_t fetched = 0xDEADBEEF;
    std::vector<Result> items;
    std::string Text() const
    {
        std::string text;
        for (const Result& item : items) {
            const auto* number = dynamic_cast<const CMetaObjectInt*>(item.get());
            text += (text.empty() ? "" : " ") + (number ? std::to_string(number->value)
                                                        : dynamic_cast<CMetaObjectStruct*>(item.get()) ? "struct"
                                                                                                       : "other");
        }
        return text;
    }
};

// The fixture's call counters: 2 its enumerators' calls, 3 its _NewEnum calls.
LONG ReadNumber(CMetaObjectCOMHandler& handler, DISPID id)
{
    DISPPARAMS none{};
    VARIANT answer = {};
    handler.GetDispatchPointer()->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &answer, nullptr, nullptr);
    return answer.lVal;
}

const std::string kMaker = std::string("COM://") + kProgIdNarrow;

struct CollectionTest : CallTest {
    Result Make(CMetaObjectCOMHandler& maker, std::int32_t flags, std::int32_t size)
    {
        Param flagsItem = Int(flags), sizeItem = Int(size);
        Outcome made = Call(maker, L"Invoke:Make", {flagsItem.get(), sizeItem.get()});
        EXPECT_NE(ObjectOf(made.result.get()), nullptr);
        return std::move(made.result);
    }
};

// Empty slots; slots that keep their places, walk on other handlers and outlive theirs; failing enumerators.
TEST_F(CollectionTest, SlotsAndTheirStatuses)
{
    WithObject(kMaker, [&](CMetaObjectCOMHandler& maker) {
        Result collection = Make(maker, kPlain, 10);
        CMetaObjectCOMHandler& handler = ItemHandler(collection.get());
        IEnumVARIANT* slot = nullptr;
        CItemList items;
        std::uint32_t number = 77;
        EXPECT_EQ(handler.ResetEnumerator(&slot), MetaStatusNoCollection);
        EXPECT_EQ(handler.SkipElements(&slot, 1), MetaStatusNoCollection);
        EXPECT_EQ(handler.NextElements(&slot, 1, items, &number), MetaStatusNoCollection);
        EXPECT_EQ(handler.CountElements(&slot, &number), MetaStatusNoCollection);
        EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusNoCollection);
        EXPECT_EQ(handler.ResetEnumerator(nullptr), MetaStatusNoCollection);
        EXPECT_EQ(number, 77u);

        // Opening a held slot again makes no call.
        IEnumVARIANT* second = nullptr;
        ASSERT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
        ASSERT_EQ(handler.OpenEnumerator(&second), MetaStatusOk);
        EXPECT_EQ(Batch(handler, &slot, 3).Text(), "0 1 2");
        EXPECT_EQ(Batch(handler, &second, 2).Text(), "0 1");
        IEnumVARIANT* held = slot;
        EXPECT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(slot, held);
        EXPECT_EQ(ReadNumber(handler, 3), 2);

        // A handler without an object opens nothing but walks another's slot.
        auto* bare = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        EXPECT_EQ(bare->OpenEnumerator(&slot), MetaStatusNoCollection);
        EXPECT_EQ(slot, held);
        EXPECT_EQ(bare->CountElements(&slot, &number), MetaStatusNoCollection);
        EXPECT_EQ(Batch(*bare, &slot, 2).Text(), "3 4");
        EXPECT_EQ(bare->CloseEnumerator(&slot), MetaStatusOk);
        bare->Release();

        EXPECT_EQ(handler.SkipElements(&second, 5), MetaStatusOk);
        EXPECT_EQ(Batch(handler, &second, 10).Text(), "7 8 9");
        EXPECT_EQ(handler.ResetEnumerator(&second), MetaStatusOk);
        EXPECT_EQ(Batch(handler, &second, 2).Text(), "0 1");
        collection.reset();  // the enumerator keeps the collection alive
        EXPECT_EQ(Batch(maker, &second, 10).Text(), "2 3 4 5 6 7 8 9");
        EXPECT_EQ(maker.CloseEnumerator(&second), MetaStatusOk);

        // A failing Reset, and Next or Skip in mid-walk; the count property still answers.
        Result failing = Make(maker, kFailMidWalk | kResetFails, 30);
        CMetaObjectCOMHandler& failingHandler = ItemHandler(failing.get());
        ASSERT_EQ(failingHandler.OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(failingHandler.ResetEnumerator(&slot), MetaStatusNoCollection);
        EXPECT_EQ(Batch(failingHandler, &slot, 5).Text(), "0 1 2 3 4");
        EXPECT_EQ(failingHandler.SkipElements(&slot, 5), MetaStatusOk);
        Batch failed(failingHandler, &slot, 5);
        EXPECT_EQ(failed.status, MetaStatusBadType);
        EXPECT_EQ(failed.fetched, 0u);
        EXPECT_TRUE(failed.items.empty());
        EXPECT_EQ(failingHandler.SkipElements(&slot, 1), MetaStatusNoCollection);
        EXPECT_EQ(failingHandler.CountElements(&slot, &number), MetaStatusOk);
        EXPECT_EQ(number, 30u);
        EXPECT_EQ(failingHandler.CloseEnumerator(&slot), MetaStatusOk);
        EXPECT_TRUE(Narrow(failingHandler.GetErrorText()).empty());
    });
}

// Opening by _NewEnum's answer; counting by the property or by walking a copy that leaves the slot be; elements.
TEST_F(CollectionTest, OpeningCountingAndWalking)
{
    const MetaStatus none = MetaStatusNoCollection;
    const struct {
        const char* name;
        std::int32_t flags, size;
        std::uint32_t count;
        LONG enumeratorCalls;  // of all enumerators of the collection, during CountElements
        std::uint32_t batch;
        const char* walked;  // one NextElements a bracket, from element 1
        MetaStatus opened = MetaStatusOk;
        LONG newEnumCalls = 1;
    } rows[] = {
        {"_NewEnum only as a method: the second try", kNewEnumMethodOnly, 3, 3, 0, 5, "[1 2]", MetaStatusOk, 2},
        {"_NewEnum gives a number", kNewEnumNumber, 3, 0, 0, 0, "", none},
        {"_NewEnum gives nothing", kNewEnumEmpty, 3, 0, 0, 0, "", none},
        {"_NewEnum gives a text", kNewEnumText, 3, 0, 0, 0, "", none},
        {"_NewEnum gives an object that is no enumerator", kNewEnumNotEnum, 3, 0, 0, 0, "", none},
        {"no _NewEnum, either way", kNewEnumMissing, 3, 0, 0, 0, "", none, 2},
        {"the count property", kPlain, 600, 600, 0, 1, "[1]"},
        {"600 by walking: 250, 250, 100", kNoCount, 600, 600, 5, 1, "[1]"},
        {"exactly 500 by walking: 250, 250, 0", kNoCount, 500, 500, 5, 1, "[1]"},
        {"an empty collection", kNoCount, 0, 0, 3, 1, ""},
        {"a count that is a text: walked", kCountText, 600, 600, 5, 1, "[1]"},
        {"a negative count: walked", kCountNegative, 600, 600, 5, 1, "[1]"},
        {"neither the property nor a copy", kNoCount | kNoClone, 600, 0, 1, 1, "[1]"},
        {"fewer than asked with S_OK", kNoCount | kShortBatches, 20, 20, 10, 1, "[1]"},
        {"fewer than asked with S_OK, as items", kShortBatches, 7, 7, 0, 10, "[1 2 3][4 5 6]"},
        {"no fetched count", kNoCount | kNoFetched, 600, 600, 5, 1, "[1]"},
        {"no fetched count, as items", kNoFetched, 6, 6, 0, 4, "[1 2 3 4][5]"},
        {"a copy that fails at once", kNoCount | kFailMidWalk, 600, 0, 3, 1, "[1]"},
        {"empty elements are counted by a fetched count", kNoCount | kOddTypes, 9, 9, 3, 1, "[0]"},
        {"odd types", kOddTypes, 8, 8, 0, 8, "[0 struct 4 0 struct]"},
        {"odd types one by one", kOddTypes, 4, 4, 0, 1, "[0][][struct]"},
        {"objects", kObjects, 3, 3, 0, 2, "[other other]"},
        {"objects as VT_UNKNOWN", kUnknowns, 3, 3, 0, 2, "[other other]"},
    };
    WithObject(kMaker, [&](CMetaObjectCOMHandler& maker) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            Result collection = Make(maker, row.flags, row.size);
            CMetaObjectCOMHandler& handler = ItemHandler(collection.get());
            IEnumVARIANT* slot = nullptr;
            EXPECT_EQ(handler.OpenEnumerator(&slot), row.opened);
            EXPECT_EQ(ReadNumber(handler, 3), row.newEnumCalls);
            EXPECT_TRUE(Narrow(handler.GetErrorText()).empty());
            if (row.opened != MetaStatusOk) {
                EXPECT_EQ(slot, nullptr);
                continue;
            }
            if (row.size > 0) {
                EXPECT_EQ(Batch(handler, &slot, 1).fetched, 1u);
            }
            const long liveBefore = server.LiveObjects();
            const LONG callsBefore = ReadNumber(handler, 2);
            std::uint32_t count = 0xDEADBEEF;
            EXPECT_EQ(handler.CountElements(&slot, &count), MetaStatusOk);
            EXPECT_EQ(count, row.count);
            EXPECT_EQ(ReadNumber(handler, 2) - callsBefore, row.enumeratorCalls);
            // The copy is gone, and the slot's enumerator is where it was.
            EXPECT_EQ(server.LiveObjects(), liveBefore);
            EXPECT_EQ(RefCount(slot), 1u);
            const std::string expected = row.walked;
            const auto batches = std::count(expected.begin(), expected.end(), '[');
            std::string walked;
            for (auto calls = batches; calls > 0; --calls) {
                Batch batch(handler, &slot, row.batch);
                EXPECT_EQ(batch.status, MetaStatusOk);
                EXPECT_EQ(batch.fetched, batch.items.size());
                walked += "[" + batch.Text() + "]";
                for (std::size_t at = 0; at < batch.items.size() && (row.flags & (kObjects | kUnknowns)); ++at) {
                    // One reference, the handler's; the interface of its type information, or IUnknown.
                    const char* const identity = (row.flags & kObjects) ? "7C3A9E10-4B2D-4E8F-A1C6-5D0B3F2E7A11"
                                                                        : "00000000-0000-0000-C000-000000000046";
                    CMetaObjectCOMHandler& element = ItemHandler(batch.items[at].get());
                    EXPECT_EQ(batch.items[at]->GetNewObject(), 1);
                    EXPECT_EQ(element.GetUseCount(), 1u);
                    EXPECT_EQ(RefCount(element.GetDispatchPointer()), 1u);
                    EXPECT_EQ(element.identity.GetObjectName(), identity);
                    EXPECT_EQ(ValueText(Call(element, L"Get:Index").result.get()), std::to_wstring(at + 1));
                }
            }
            EXPECT_EQ(walked, expected);
            if (row.batch * batches + 1 >= static_cast<std::uint32_t>(row.size)) {
                Batch end(handler, &slot, row.batch);
                EXPECT_EQ(end.status, MetaStatusOk);
                EXPECT_EQ(end.fetched, 0u);
            }
            EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);
            EXPECT_EQ(slot, nullptr);
        }
    });
}

}  // namespace
