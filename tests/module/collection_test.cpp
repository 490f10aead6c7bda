// Walking collections through the module's handler, as a host walks them: a
// slot of the caller's, the six operations, and the elements as items. The
// collection fixture misbehaves on request; the platform's own collections
// show that an enumerator nobody here wrote walks too.

#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/module/call_harness.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/support/dispatch_call.h"

using namespace MetaObj;
using namespace CollectionValues;

namespace {

// The items of one NextElements, freed through the handler that made them.
struct Batch {
    MetaStatus status = MetaStatusOk;
    std::uint32_t fetched = 0;
    std::vector<Result> items;
};

// What a test compares: Int items by value, other kinds by a word.
std::string Describe(const CMetaObjectItem* item)
{
    if (const auto* number = dynamic_cast<const CMetaObjectInt*>(item))
        return std::to_string(number->value);
    if (const auto* text = dynamic_cast<const CMetaObjectString*>(item))
        return "'" + Narrow(text->value) + "'";
    if (dynamic_cast<const CMetaObjectStruct*>(item))
        return "struct";
    if (dynamic_cast<const CMetaObjectObject*>(item))
        return "object";
    return "other";
}

std::string Describe(const Batch& batch)
{
    std::string text;
    for (const Result& item : batch.items)
        text += (text.empty() ? "" : " ") + Describe(item.get());
    return text;
}

LONG ReadNumber(IDispatch* object, DISPID id)
{
    DISPPARAMS none{};
    ScopedVariant answer;
    if (FAILED(object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, answer.Get(),
                              nullptr, nullptr)) ||
        answer->vt != VT_I4)
        return -1;
    return answer->lVal;
}

LONG EnumeratorCalls(IDispatch* collection)
{
    return ReadNumber(collection, 2);
}

LONG NewEnumCalls(IDispatch* collection)
{
    return ReadNumber(collection, 3);
}

class CollectionTest : public CallTest {
protected:
    // The body gets an open handler on a new collection maker.
    void WithMaker(const std::function<void(CMetaObjectCOMHandler&)>& body)
    {
        const long before = server.LiveObjects();
        RunInitialised([&] {
            auto* maker = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            ASSERT_NE(maker, nullptr);
            EXPECT_EQ(maker->Open((std::string("COM://") + kProgIdNarrow).c_str(), nullptr), MetaStatusOk);
            if (maker->IsOpen())
                body(*maker);
            EXPECT_EQ(maker->Release(), MetaStatusClosed);
            host.FreeReleasedHandlers(module->FreeHandlerObject);
            EXPECT_TRUE(host.Registrations().empty()) << "a handler still in use";
        });
        EXPECT_EQ(server.LiveObjects(), before);
    }

    // A collection of the maker's, as the object item of a call's result.
    Result Make(CMetaObjectCOMHandler& maker, std::int32_t flags, std::int32_t size)
    {
        Param flagsItem = Int(flags);
        Param sizeItem = Int(size);
        Outcome made = Call(maker, L"Invoke:Make", {flagsItem.get(), sizeItem.get()});
        EXPECT_EQ(made.status, MetaStatusOk);
        EXPECT_NE(ObjectOf(made.result.get()), nullptr);
        return std::move(made.result);
    }

    static CMetaObjectCOMHandler& HandlerOf(const Result& item)
    {
        return static_cast<CMetaObjectCOMHandler&>(*dynamic_cast<CMetaObjectObject&>(*item).handler);
    }

    static Batch Next(CMetaObjectCOMHandler& handler, IEnumVARIANT** slot, std::uint32_t count)
    {
        Batch batch;
        CItemList items;
        batch.fetched = 0xDEADBEEF;
        batch.status = handler.NextElements(slot, count, items, &batch.fetched);
        for (CMetaObjectItem* item : items)
            batch.items.emplace_back(item, ResultDeleter{&handler});
        return batch;
    }

    static std::uint32_t Count(CMetaObjectCOMHandler& handler, IEnumVARIANT** slot, MetaStatus expected = MetaStatusOk)
    {
        std::uint32_t count = 0xDEADBEEF;
        EXPECT_EQ(handler.CountElements(slot, &count), expected);
        return count;
    }

    // Every element, in batches, as Describe gives them.
    static std::string WalkAll(CMetaObjectCOMHandler& handler, IEnumVARIANT** slot, std::uint32_t batchSize)
    {
        std::string text;
        for (;;) {
            Batch batch = Next(handler, slot, batchSize);
            EXPECT_EQ(batch.status, MetaStatusOk);
            if (batch.status != MetaStatusOk || batch.fetched == 0)
                return text;
            text += (text.empty() ? "" : " ") + Describe(batch);
        }
    }
};

TEST_F(CollectionTest, OpeningByTheAnswerOfNewEnum)
{
    const struct {
        const char* name;
        std::int32_t flags;
        MetaStatus expected;
        LONG newEnumCalls;
    } rows[] = {
        {"as a property", kPlain, MetaStatusOk, 1},
        {"only as a method: the second try", kNewEnumMethodOnly, MetaStatusOk, 2},
        {"a number", kNewEnumNumber, MetaStatusNoCollection, 1},
        {"nothing", kNewEnumEmpty, MetaStatusNoCollection, 1},
        {"a text", kNewEnumText, MetaStatusNoCollection, 1},
        {"an object that is no enumerator", kNewEnumNotEnum, MetaStatusNoCollection, 1},
        {"no such member, either way", kNewEnumMissing, MetaStatusNoCollection, 2},
    };
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            Result collection = Make(maker, row.flags, 3);
            CMetaObjectCOMHandler& handler = HandlerOf(collection);
            IEnumVARIANT* slot = nullptr;
            EXPECT_EQ(handler.OpenEnumerator(&slot), row.expected);
            EXPECT_EQ(slot != nullptr, row.expected == MetaStatusOk);
            EXPECT_EQ(NewEnumCalls(handler.GetDispatchPointer()), row.newEnumCalls);
            EXPECT_TRUE(Narrow(handler.GetErrorText()).empty());
            if (slot) {
                EXPECT_EQ(RefCount(slot), 1u);  // the slot's reference is the only one
                EXPECT_EQ(WalkAll(handler, &slot, 2), "0 1 2");
                EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);
                EXPECT_EQ(slot, nullptr);
            }
        }
    });
}

TEST_F(CollectionTest, EmptySlotsAndHandlersWithoutObject)
{
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        Result collection = Make(maker, kPlain, 3);
        CMetaObjectCOMHandler& handler = HandlerOf(collection);
        IEnumVARIANT* empty = nullptr;
        CItemList items;
        std::uint32_t number = 77;
        EXPECT_EQ(handler.ResetEnumerator(&empty), MetaStatusNoCollection);
        EXPECT_EQ(handler.SkipElements(&empty, 1), MetaStatusNoCollection);
        EXPECT_EQ(handler.NextElements(&empty, 1, items, &number), MetaStatusNoCollection);
        EXPECT_EQ(handler.CountElements(&empty, &number), MetaStatusNoCollection);
        EXPECT_TRUE(items.empty());
        EXPECT_EQ(number, 77u);
        EXPECT_EQ(handler.ResetEnumerator(nullptr), MetaStatusNoCollection);

        EXPECT_EQ(handler.CloseEnumerator(&empty), MetaStatusNoCollection);

        // A handler without an object opens nothing, whatever the slot holds,
        // and counts nothing; the slot's enumerator stays.
        IEnumVARIANT* slot = nullptr;
        ASSERT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
        auto* bare = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        IEnumVARIANT* held = slot;
        EXPECT_EQ(bare->OpenEnumerator(&slot), MetaStatusNoCollection);
        EXPECT_EQ(slot, held);
        EXPECT_EQ(bare->OpenEnumerator(&empty), MetaStatusNoCollection);
        EXPECT_EQ(bare->CountElements(&slot, &number), MetaStatusNoCollection);
        // The slot is not tied to its handler: another one walks it.
        EXPECT_EQ(Describe(Next(*bare, &slot, 2)), "0 1");
        EXPECT_EQ(bare->CloseEnumerator(&slot), MetaStatusOk);
        bare->Release();
    });
}

TEST_F(CollectionTest, StatusesOfResetSkipAndNext)
{
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        // Skipping past the end is a success; so is a batch past the end.
        Result plain = Make(maker, kPlain, 5);
        CMetaObjectCOMHandler& handler = HandlerOf(plain);
        IEnumVARIANT* slot = nullptr;
        ASSERT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(handler.SkipElements(&slot, 3), MetaStatusOk);
        EXPECT_EQ(Describe(Next(handler, &slot, 10)), "3 4");
        EXPECT_EQ(handler.SkipElements(&slot, 100), MetaStatusOk);
        Batch after = Next(handler, &slot, 4);
        EXPECT_EQ(after.status, MetaStatusOk);
        EXPECT_EQ(after.fetched, 0u);
        EXPECT_EQ(handler.ResetEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(Describe(Next(handler, &slot, 1)), "0");
        Batch none = Next(handler, &slot, 0);
        EXPECT_EQ(none.status, MetaStatusOk);
        EXPECT_EQ(none.fetched, 0u);
        EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);

        // Failures of the enumerator: Reset, and Next or Skip in the middle of the walk.
        Result failing = Make(maker, kFailMidWalk | kResetFails, 30);
        CMetaObjectCOMHandler& failingHandler = HandlerOf(failing);
        ASSERT_EQ(failingHandler.OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(failingHandler.ResetEnumerator(&slot), MetaStatusNoCollection);
        EXPECT_EQ(Describe(Next(failingHandler, &slot, 5)), "0 1 2 3 4");
        EXPECT_EQ(failingHandler.SkipElements(&slot, 5), MetaStatusOk);
        Batch failed = Next(failingHandler, &slot, 5);
        EXPECT_EQ(failed.status, MetaStatusBadType);
        EXPECT_EQ(failed.fetched, 0u);
        EXPECT_TRUE(failed.items.empty());
        EXPECT_EQ(failingHandler.SkipElements(&slot, 1), MetaStatusNoCollection);
        EXPECT_EQ(Count(failingHandler, &slot), 30u);  // the count property still answers
        EXPECT_EQ(failingHandler.CloseEnumerator(&slot), MetaStatusOk);
        EXPECT_TRUE(Narrow(failingHandler.GetErrorText()).empty());
    });
}

TEST_F(CollectionTest, SlotsKeepTheirOwnPositionsAndOpenOnlyOnce)
{
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        Result collection = Make(maker, kPlain, 10);
        CMetaObjectCOMHandler& handler = HandlerOf(collection);
        IDispatch* object = handler.GetDispatchPointer();
        IEnumVARIANT* first = nullptr;
        IEnumVARIANT* second = nullptr;
        ASSERT_EQ(handler.OpenEnumerator(&first), MetaStatusOk);
        ASSERT_EQ(handler.OpenEnumerator(&second), MetaStatusOk);
        EXPECT_NE(first, second);
        EXPECT_EQ(Describe(Next(handler, &first, 3)), "0 1 2");
        EXPECT_EQ(Describe(Next(handler, &second, 2)), "0 1");
        EXPECT_EQ(Describe(Next(handler, &first, 1)), "3");

        // A slot that holds an enumerator is opened again without a call, and keeps its place.
        const LONG calls = NewEnumCalls(object);
        IEnumVARIANT* held = first;
        EXPECT_EQ(handler.OpenEnumerator(&first), MetaStatusOk);
        EXPECT_EQ(first, held);
        EXPECT_EQ(NewEnumCalls(object), calls);
        EXPECT_EQ(RefCount(first), 1u);
        EXPECT_EQ(Describe(Next(handler, &first, 1)), "4");

        EXPECT_EQ(handler.CloseEnumerator(&first), MetaStatusOk);
        EXPECT_EQ(handler.CloseEnumerator(&second), MetaStatusOk);
        EXPECT_EQ(handler.CloseEnumerator(&first), MetaStatusNoCollection);
    });
}

TEST_F(CollectionTest, CountingByThePropertyOrByWalkingACopy)
{
    const struct {
        const char* name;
        std::int32_t flags;
        std::int32_t size;
        std::uint32_t expected;
        LONG enumeratorCalls;  // of all enumerators of the collection, during CountElements
    } rows[] = {
        {"the count property", kPlain, 600, 600, 0},
        {"600 by walking: 250, 250, 100", kNoCount, 600, 600, 5},
        {"exactly 500 by walking: 250, 250, 0", kNoCount, 500, 500, 5},
        {"an empty collection", kNoCount, 0, 0, 3},
        {"a count that is a text: walked", kCountText, 600, 600, 5},
        {"a negative count: walked", kCountNegative, 600, 600, 5},
        {"neither the property nor a copy", kNoCount | kNoClone, 600, 0, 1},
        // 3 a call with S_OK, even the last that gives nothing: the walk stops there.
        {"fewer than asked with S_OK", kNoCount | kShortBatches, 20, 20, 10},
        {"no fetched count", kNoCount | kNoFetched, 600, 600, 5},
        {"no fetched count, fewer than asked with S_OK", kNoCount | kNoFetched | kShortBatches, 20, 20, 10},
        {"a copy that fails at once", kNoCount | kFailMidWalk, 600, 0, 3},
        {"empty elements are counted by a fetched count", kNoCount | kOddTypes, 9, 9, 3},
    };
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            Result collection = Make(maker, row.flags, row.size);
            CMetaObjectCOMHandler& handler = HandlerOf(collection);
            IDispatch* object = handler.GetDispatchPointer();
            IEnumVARIANT* slot = nullptr;
            ASSERT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
            const bool hasElements = row.size > 1 && !(row.flags & kOddTypes);
            if (hasElements && !(row.flags & kFailMidWalk)) {
                EXPECT_EQ(Describe(Next(handler, &slot, 1)), "0");
            }
            const long liveBefore = server.LiveObjects();

            const LONG callsBefore = EnumeratorCalls(object);
            EXPECT_EQ(Count(handler, &slot), row.expected);
            EXPECT_EQ(EnumeratorCalls(object) - callsBefore, row.enumeratorCalls);

            // The copy is gone, and the slot's enumerator is where it was.
            EXPECT_EQ(server.LiveObjects(), liveBefore);
            EXPECT_EQ(RefCount(slot), 1u);
            if (hasElements && !(row.flags & kFailMidWalk)) {
                EXPECT_EQ(Describe(Next(handler, &slot, 1)), "1");
            }
            EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);
        }
    });
}

TEST_F(CollectionTest, ElementsAsItems)
{
    const struct {
        const char* name;
        std::int32_t flags;
        std::int32_t size;
        std::uint32_t batch;
        const char* expected;  // batch by batch
    } rows[] = {
        // VT_I8 and VT_RECORD give items of their kind with a default value;
        // VT_EMPTY gives none and is dropped.
        {"odd types", kOddTypes, 8, 8, "[0 0 struct 4 0 struct]"},
        {"odd types one by one", kOddTypes, 4, 1, "[0][0][][struct]"},
        {"fewer than asked with S_OK", kShortBatches, 7, 10, "[0 1 2][3 4 5][6]"},
        {"no fetched count", kNoFetched, 6, 4, "[0 1 2 3][4 5]"},
        {"no fetched count, odd types", kNoFetched | kOddTypes, 5, 4, "[0 0 struct][4]"},
    };
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            Result collection = Make(maker, row.flags, row.size);
            CMetaObjectCOMHandler& handler = HandlerOf(collection);
            IEnumVARIANT* slot = nullptr;
            ASSERT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
            // One NextElements a bracket: a batch that drops every element it
            // got is "[]", not yet the end. Then one more fetches nothing.
            const std::string expected = row.expected;
            std::string walked;
            for (auto calls = std::count(expected.begin(), expected.end(), '['); calls > 0; --calls) {
                Batch batch = Next(handler, &slot, row.batch);
                EXPECT_EQ(batch.status, MetaStatusOk);
                EXPECT_EQ(batch.fetched, batch.items.size());
                walked += "[" + Describe(batch) + "]";
            }
            Batch end = Next(handler, &slot, row.batch);
            EXPECT_EQ(end.status, MetaStatusOk);
            EXPECT_EQ(end.fetched, 0u);
            EXPECT_EQ(walked, row.expected);
            EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);
        }
    });
}

TEST_F(CollectionTest, ObjectElementsHoldOneReferenceAndAnIdentity)
{
    const struct {
        const char* name;
        std::int32_t flags;
        const char* identity;
    } rows[] = {
        {"VT_DISPATCH: the interface of its type information", kObjects, "7C3A9E10-4B2D-4E8F-A1C6-5D0B3F2E7A11"},
        {"VT_UNKNOWN: IUnknown", kUnknowns, "00000000-0000-0000-C000-000000000046"},
    };
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            Result collection = Make(maker, row.flags, 3);
            CMetaObjectCOMHandler& handler = HandlerOf(collection);
            IEnumVARIANT* slot = nullptr;
            ASSERT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
            const long liveBefore = server.LiveObjects();
            Batch batch = Next(handler, &slot, 3);
            ASSERT_EQ(batch.fetched, 3u);
            EXPECT_EQ(server.LiveObjects(), liveBefore + 3);
            for (std::int32_t at = 0; at < 3; ++at) {
                CMetaObjectCOMHandler& element = HandlerOf(batch.items[at]);
                EXPECT_EQ(batch.items[at]->GetNewObject(), 1);
                EXPECT_EQ(element.GetUseCount(), 1u);
                EXPECT_EQ(RefCount(element.GetDispatchPointer()), 1u);  // the handler's, nobody else's
                EXPECT_EQ(element.identity.GetObjectName(), row.identity);
                Outcome index = Call(element, L"Get:Index");
                ASSERT_EQ(index.status, MetaStatusOk);
                EXPECT_EQ(Describe(index.result.get()), std::to_string(at));
            }
            batch.items.clear();
            EXPECT_EQ(server.LiveObjects(), liveBefore);
            EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);
        }
    });
}

TEST_F(CollectionTest, ACollectionReleasedWhileASlotIsOpen)
{
    WithMaker([&](CMetaObjectCOMHandler& maker) {
        const long before = server.LiveObjects();
        Result collection = Make(maker, kPlain, 4);
        IEnumVARIANT* slot = nullptr;
        ASSERT_EQ(HandlerOf(collection).OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(Describe(Next(HandlerOf(collection), &slot, 1)), "0");
        collection.reset();  // the handler closes and lets go of the collection

        // The enumerator keeps its collection alive, and the slot walks on.
        EXPECT_EQ(server.LiveObjects(), before + 2);
        EXPECT_EQ(Describe(Next(maker, &slot, 5)), "1 2 3");
        EXPECT_EQ(maker.ResetEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(maker.CloseEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(server.LiveObjects(), before);
    });
}

// Platform collections, created and reached through the module.
class PlatformCollectionTest : public CollectionTest {
protected:
    void WithPlatform(const char* identity, const std::function<void(CMetaObjectCOMHandler&)>& body)
    {
        RunInitialised([&] {
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            ASSERT_NE(handler, nullptr);
            EXPECT_EQ(handler->Open(identity, nullptr), MetaStatusOk);
            if (handler->IsOpen())
                body(*handler);
            handler->Release();
            host.FreeReleasedHandlers(module->FreeHandlerObject);
            EXPECT_TRUE(host.Registrations().empty()) << "a handler still in use";
        });
    }

    // Opens, counts, walks by batches of two with each element's text by its
    // own handler's call (or its value), and closes.
    // cloned, when given, tells whether the platform's enumerator can be copied.
    std::vector<std::string> Walk(CMetaObjectCOMHandler& handler, const wchar_t* textKey, std::uint32_t* count,
                                  bool* cloned = nullptr)
    {
        std::vector<std::string> texts;
        IEnumVARIANT* slot = nullptr;
        EXPECT_EQ(handler.OpenEnumerator(&slot), MetaStatusOk);
        if (!slot)
            return texts;
        if (cloned) {
            ComPtr<IEnumVARIANT> copy;
            *cloned = SUCCEEDED(slot->Clone(copy.Put())) && copy;
        }
        *count = Count(handler, &slot);
        for (;;) {
            Batch batch = Next(handler, &slot, 2);
            EXPECT_EQ(batch.status, MetaStatusOk);
            if (batch.fetched == 0)
                break;
            for (const Result& item : batch.items) {
                if (!textKey) {
                    texts.push_back(Describe(item.get()));
                    continue;
                }
                Outcome text = Call(HandlerOf(item), textKey);
                texts.push_back(text.status == MetaStatusOk ? Describe(text.result.get()) : "<failed>");
            }
        }
        EXPECT_EQ(handler.CloseEnumerator(&slot), MetaStatusOk);
        return texts;
    }

    Result Get(CMetaObjectCOMHandler& handler, const wchar_t* key, const std::vector<CMetaObjectItem*>& params = {})
    {
        Outcome outcome = Call(handler, key, params);
        EXPECT_EQ(outcome.status, MetaStatusOk) << Narrow(CMetaString(key));
        return std::move(outcome.result);
    }
};

TEST_F(PlatformCollectionTest, DictionaryWalksItsKeys)
{
    WithPlatform("COM://Scripting.Dictionary", [&](CMetaObjectCOMHandler& dictionary) {
        for (const wchar_t* key : {L"pear", L"apple", L"fig"}) {
            Param keyItem = Text(key, L"VT_VARIANT");
            Param value = Int(1, L"VT_VARIANT");
            ASSERT_EQ(Call(dictionary, L"Invoke:Add", {keyItem.get(), value.get()}).status, MetaStatusOk);
        }
        std::uint32_t count = 0;
        EXPECT_EQ(Walk(dictionary, nullptr, &count), (std::vector<std::string>{"'pear'", "'apple'", "'fig'"}));
        EXPECT_EQ(count, 3u);
    });
}

TEST_F(PlatformCollectionTest, FilesAndSubFoldersOfAFolder)
{
    wchar_t temp[MAX_PATH];
    ASSERT_NE(GetTempPathW(MAX_PATH, temp), 0u);
    const std::wstring root = std::wstring(temp) + L"comhandler_walk_" + std::to_wstring(GetCurrentProcessId());
    ASSERT_TRUE(CreateDirectoryW(root.c_str(), nullptr));
    const std::vector<std::wstring> files{L"a.txt", L"b.txt", L"c.txt"};
    const std::vector<std::wstring> folders{L"one", L"two"};
    for (const std::wstring& name : files) {
        HANDLE file = CreateFileW((root + L"\\" + name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        CloseHandle(file);
    }
    for (const std::wstring& name : folders)
        ASSERT_TRUE(CreateDirectoryW((root + L"\\" + name).c_str(), nullptr));

    WithPlatform("COM://Scripting.FileSystemObject", [&](CMetaObjectCOMHandler& system) {
        Param path = Text(root.c_str());
        Result folder = Get(system, L"Invoke:GetFolder", {path.get()});
        ASSERT_NE(ObjectOf(folder.get()), nullptr);
        const struct {
            const wchar_t* key;
            std::vector<std::string> names;
        } rows[] = {
            {L"Get:Files", {"'a.txt'", "'b.txt'", "'c.txt'"}},
            {L"Get:SubFolders", {"'one'", "'two'"}},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(Narrow(CMetaString(row.key)));
            Result collection = Get(HandlerOf(folder), row.key);
            ASSERT_NE(ObjectOf(collection.get()), nullptr);
            std::uint32_t count = 0;
            std::vector<std::string> names = Walk(HandlerOf(collection), L"Get:Name", &count);
            std::sort(names.begin(), names.end());
            EXPECT_EQ(names, row.names);
            EXPECT_EQ(count, row.names.size());
        }
    });

    for (const std::wstring& name : files)
        DeleteFileW((root + L"\\" + name).c_str());
    for (const std::wstring& name : folders)
        RemoveDirectoryW((root + L"\\" + name).c_str());
    RemoveDirectoryW(root.c_str());
}

TEST_F(PlatformCollectionTest, NodeListsOfADocument)
{
    WithPlatform("COM://MSXML2.DOMDocument.6.0", [&](CMetaObjectCOMHandler& document) {
        Param xml = Text(L"<r><a n='1'/><b/><a n='2'/></r>");
        Result loaded = Get(document, L"Invoke:loadXML", {xml.get()});
        Result root = Get(document, L"Get:documentElement");
        ASSERT_NE(ObjectOf(root.get()), nullptr);

        Result children = Get(HandlerOf(root), L"Get:childNodes");
        ASSERT_NE(ObjectOf(children.get()), nullptr);
        // A node list's length is not at id 1, so it is counted by walking a
        // copy; where the platform's enumerator can't be copied the count is 0.
        std::uint32_t count = 0;
        bool cloned = false;
        EXPECT_EQ(Walk(HandlerOf(children), L"Get:nodeName", &count, &cloned),
                  (std::vector<std::string>{"'a'", "'b'", "'a'"}));
        EXPECT_EQ(count, cloned ? 3u : 0u);

        Param tag = Text(L"a");
        Result named = Get(document, L"Invoke:getElementsByTagName", {tag.get()});
        ASSERT_NE(ObjectOf(named.get()), nullptr);
        EXPECT_EQ(Walk(HandlerOf(named), L"Get:xml", &count, &cloned),
                  (std::vector<std::string>{"'<a n=\"1\"/>'", "'<a n=\"2\"/>'"}));
        EXPECT_EQ(count, cloned ? 2u : 0u);
    });
}

TEST_F(PlatformCollectionTest, MatchesOfARegularExpression)
{
    WithPlatform("COM://VBScript.RegExp", [&](CMetaObjectCOMHandler& expression) {
        Param pattern = Text(L"b+c");
        ASSERT_EQ(Call(expression, L"Set:Pattern", {pattern.get()}).status, MetaStatusOk);
        Param global = Bool(1);
        ASSERT_EQ(Call(expression, L"Set:Global", {global.get()}).status, MetaStatusOk);
        Param subject = Text(L"abc bbbc xc bc");
        Result matches = Get(expression, L"Invoke:Execute", {subject.get()});
        ASSERT_NE(ObjectOf(matches.get()), nullptr);
        std::uint32_t count = 0;
        EXPECT_EQ(Walk(HandlerOf(matches), L"Get:Value", &count),
                  (std::vector<std::string>{"'bc'", "'bbbc'", "'bc'"}));
        EXPECT_EQ(count, 3u);
    });
}

}  // namespace
