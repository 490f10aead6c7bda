// Long runs and the host's threads on the probe module: after every round the
// counted objects are exact; from the settled round on, heap blocks of module
// and host together and the process's handles stay within a drift.

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/counting_new.h"
#include "tests/support/process_figures.h"
#include "tests/support/watchdog.h"

using namespace MetaObj;

namespace {

// Wine's worker threads come and go with a few handles and blocks.
constexpr long kBlockDrift = 8;
constexpr DWORD kHandleDrift = 4;

const std::string kCallFixture = std::string("COM://") + FixtureValues::kProgIdNarrow;
const std::string kCollectionFixture = std::string("COM://") + CollectionValues::kProgIdNarrow;

std::int32_t IntOf(const CMetaObjectItem* item)
{
    const auto* number = dynamic_cast<const CMetaObjectInt*>(item);
    return number ? number->value : -12345;
}

CMetaObjectCOMHandler& HandlerOf(const CMetaObjectItem* item)
{
    return static_cast<CMetaObjectCOMHandler&>(*dynamic_cast<const CMetaObjectObject&>(*item).handler);
}

template <typename... Made>
std::vector<Param> Params(Made... made)
{
    std::vector<Param> list;
    (list.push_back(std::move(made)), ...);
    return list;
}

using Mix = std::minstd_rand;
std::uint32_t Below(Mix& mix, std::uint32_t bound)
{
    return static_cast<std::uint32_t>(mix() % bound);
}

class StressTest : public CallTest {
protected:
    void SetUp() override
    {
        CallTest::SetUp();
        if (HasFatalFailure())
            return;
        module->SetEnvironment(nullptr);
        module.reset();
        Load(ProgramDirectory() + "probe.dll");
        moduleBlocks = reinterpret_cast<LONG (*)()>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeLiveAllocations")));
        setErrorText = reinterpret_cast<void (*)(const CMetaObjectHandler*, const char*)>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeSetErrorText")));
        ASSERT_NE(moduleBlocks, nullptr);
        ASSERT_NE(setErrorText, nullptr);
        module->SetEnvironment(host.Table());
    }

    void Rounds(int rounds, int settle, const std::function<void()>& round, bool handles)
    {
        long settledBlocks = 0;
        DWORD settledHandles = 0;
        for (int at = 1; at <= rounds && !HasFailure(); ++at) {
            SCOPED_TRACE("round " + std::to_string(at));
            round();
            EXPECT_TRUE(host.Registrations().empty()) << "handlers still in use";
            const long blocks = moduleBlocks() + LiveHeapBlocks();
            const DWORD handleCount = OpenHandleCount();
            std::printf("round %d: blocks %ld, handles %lu\n", at, blocks, static_cast<unsigned long>(handleCount));
            if (at <= settle) {
                settledBlocks = blocks;
                settledHandles = handleCount;
                continue;
            }
            EXPECT_LE(std::labs(blocks - settledBlocks), kBlockDrift);
            if (handles) {
                EXPECT_LE(handleCount, settledHandles + kHandleDrift);
            }
        }
    }

    CMetaObjectCOMHandler* OpenNew(const std::string& identity, CObjectOpenParams* params = nullptr)
    {
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        EXPECT_EQ(handler->Open(identity.c_str(), params), MetaStatusOk) << identity;
        return handler;
    }

    void Close(CMetaObjectHandler* handler)
    {
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    }

    LONG (*moduleBlocks)() = nullptr;
    void (*setErrorText)(const CMetaObjectHandler*, const char*) = nullptr;
};

// Mixed operations chosen with a fixed seed, on a few handlers kept open.
class LongRunTest : public StressTest {
protected:
    struct Step {
        std::uint32_t weight;
        std::function<void(Mix&)> run;
    };

    CMetaObjectCOMHandler& Some(const std::string& identity, Mix& mix, bool fresh = false,
                                CObjectOpenParams* params = nullptr)
    {
        std::vector<CMetaObjectCOMHandler*> found;
        for (const auto& entry : open) {
            if (entry.first == identity)
                found.push_back(entry.second);
        }
        if (!found.empty() && !fresh)
            return *found[Below(mix, static_cast<std::uint32_t>(found.size()))];
        if (open.size() >= 6)
            CloseOne(mix);
        open.emplace_back(identity, OpenNew(identity, params));
        return *open.back().second;
    }

    void CloseOne(Mix& mix)
    {
        if (open.empty())
            return;
        const auto at = open.begin() + Below(mix, static_cast<std::uint32_t>(open.size()));
        Close(at->second);
        open.erase(at);
    }

    std::uint32_t Walk(CMetaObjectCOMHandler& collection, std::uint32_t skip, std::uint32_t batch, std::uint32_t count)
    {
        IEnumVARIANT* slot = nullptr;
        std::uint32_t counted = 0;
        EXPECT_EQ(collection.OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(collection.CountElements(&slot, &counted), MetaStatusOk);
        EXPECT_EQ(counted, count);
        EXPECT_EQ(collection.SkipElements(&slot, skip), MetaStatusOk);
        std::uint32_t walked = 0;
        for (std::uint32_t fetched = 1; fetched != 0 && slot;) {
            CItemList items;
            EXPECT_EQ(collection.NextElements(&slot, batch, items, &fetched), MetaStatusOk);
            for (CMetaObjectItem* item : items) {
                if (dynamic_cast<CMetaObjectObject*>(item)) {
                    EXPECT_EQ(IntOf(Call(HandlerOf(item), L"Get:Index").result.get()), std::int32_t(skip + walked));
                }
                ++walked;
                item->Clear();
                collection.FreeItem(item);
            }
        }
        EXPECT_EQ(collection.CloseEnumerator(&slot), MetaStatusOk);
        return walked;
    }

    void CallRow(Mix& mix)
    {
        enum Expect { kOk, kFails, kEither };
        const auto number = [&mix] { return static_cast<std::int32_t>(Below(mix, 100000)) - 50000; };
        IDispatch* const witnessed = &witness;
        const struct {
            const wchar_t* key;
            std::function<std::vector<Param>()> params;
            Expect expect;
        } rows[] = {
            {L"Invoke:EchoBstr", [&] { return Params(Text(std::to_wstring(number()).c_str())); }, kOk},
            {L"Set:Cell", [&] { return Params(Int(number()), Int(7), Int(number())); }, kOk},
            {L"Invoke:RefI4", [] { return Params(ByRef(Int(41), kInOut)); }, kOk},
            {L"Invoke:OutR8", [] { return Params(ByRef(Real(0), kOut)); }, kOk},
            {L"Invoke:RefVariant", [] { return Params(ByRef(Text(L"abc", L"VT_VARIANT"), kInOut)); }, kOk},
            {L"Invoke:RefDispatch", [&] { return Params(ByRef(ObjectItem(witnessed), kInOut)); }, kOk},
            {L"Invoke:EchoDispatch", [&] { return Params(ObjectItem(witnessed)); }, kOk},
            {L"Invoke:OutDispatch", [&] { return Params(ByRef(ObjectItem(nullptr), kOut)); }, kOk},
            {L"Invoke:SumPoint", [&] { return Params(Point(number(), 4)); }, kOk},
            {L"Invoke:FailWithGarbage", [] { return Params(ByRef(Int(11), kOut), ByRef(Real(2.5), kOut)); }, kFails},
            {L"Invoke:Throw", [] { return Params(); }, kFails},
            {L"Invoke:NoSuchMember", [] { return Params(); }, kFails},
            {L"Invoke:MakeChild", [] { return Params(); }, kOk},
            {L"Invoke:Shape", [&] { return Params(Int(Below(mix, FixtureValues::ShapeRowCount))); }, kEither},
        };
        const auto& row = rows[Below(mix, sizeof rows / sizeof rows[0])];
        SCOPED_TRACE(Narrow(CMetaString(row.key)));
        const std::vector<Param> params = row.params();
        const Outcome outcome = Call(Some(kCallFixture, mix), row.key, Items(params));
        if (row.expect != kEither) {
            EXPECT_EQ(outcome.status, row.expect == kOk ? MetaStatusOk : MetaStatusInvokeFailed);
        }
    }

    std::vector<Step> Steps()
    {
        IDispatch* const witnessed = &witness;
        return {
            {18, [=](Mix& mix) {
                 const wchar_t* const monikers[] = {nullptr, L"new:ComHandlerTest.CallFixture", L""};
                 CObjectOpenParams params;
                 const wchar_t* moniker = monikers[Below(mix, 3)];
                 params.moniker = CMetaString(moniker ? moniker : L"");
                 params.useRunningObject = moniker && !*moniker ? 1 : 0;  // the fixture of the running object table
                 Some(moniker || Below(mix, 2) ? kCallFixture : kCollectionFixture, mix, true, moniker ? &params : nullptr);
             }},
            {12, [=](Mix& mix) { CloseOne(mix); }},
            {60, [=](Mix& mix) { CallRow(mix); }},
            // Objects held and set as a property are let go of in the same step.
            {6, [=](Mix& mix) {
                 CMetaObjectCOMHandler& fixture = Some(kCallFixture, mix);
                 const Param in = ObjectItem(witnessed);
                 EXPECT_EQ(Call(fixture, L"Invoke:Hold", {in.get()}).status, MetaStatusOk);
                 EXPECT_EQ(Call(fixture, L"Setref:Target", {in.get()}).status, MetaStatusOk);
                 EXPECT_EQ(ObjectOf(Call(fixture, L"Get:Target").result.get()), witnessed);
                 EXPECT_EQ(Call(fixture, L"Invoke:DropHeld").status, MetaStatusOk);
             }},
            // Walks of collections that misbehave as the module allows.
            {7, [=](Mix& mix) {
                 using namespace CollectionValues;
                 constexpr std::int32_t kFlags[] = {kPlain, kObjects, kUnknowns, kShortBatches, kNoFetched, kOddTypes};
                 const std::int32_t flags = kFlags[Below(mix, 6)];
                 const auto size = static_cast<std::int32_t>(Below(mix, 40));
                 const Param flagsItem = Int(flags), sizeItem = Int(size);
                 const Outcome made = Call(Some(kCollectionFixture, mix), L"Invoke:Make", {flagsItem.get(), sizeItem.get()});
                 ASSERT_NE(ObjectOf(made.result.get()), nullptr);
                 const std::uint32_t skip = Below(mix, 3);
                 const std::uint32_t walked = Walk(HandlerOf(made.result.get()), skip, 1 + Below(mix, 16), size);
                 if (!(flags & kOddTypes)) {
                     EXPECT_EQ(walked, static_cast<std::uint32_t>(std::max<std::int32_t>(size - skip, 0)));
                 }
             }},
        };
    }

    std::vector<std::pair<std::string, CMetaObjectCOMHandler*>> open;
    CCountingDispatch witness;  // passed in and out by calls; only its creator's reference stays
};

TEST_F(LongRunTest, EveryRoundGivesBackWhatItTook)
{
    RunInitialised([&] {
        CLSID classId;
        ComPtr<IDispatch> running;  // the fixture in the running object table
        ASSERT_EQ(CLSIDFromProgID(FixtureValues::kProgId, &classId), S_OK);
        ASSERT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, running.PutVoid()), S_OK);
        DWORD cookie = 0;
        ASSERT_EQ(RegisterActiveObject(running.Get(), classId, ACTIVEOBJECT_STRONG, &cookie), S_OK);
        const ULONG runningReferences = RefCount(running.Get());
        const long liveObjects = server.LiveObjects();
        const std::vector<Step> steps = Steps();
        std::uint32_t total = 0;
        for (const Step& step : steps)
            total += step.weight;
        Mix mix(20240611);
        const auto pass = [&](int operations, const std::function<std::size_t(int)>& choose) {
            RunOnThread([&] {
                ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
                for (int operation = 0; operation < operations && !HasFatalFailure(); ++operation) {
                    const std::size_t chosen = choose(operation);
                    SCOPED_TRACE("operation " + std::to_string(operation) + ", step " + std::to_string(chosen));
                    steps[chosen].run(mix);
                    // What calls returned is freed once unused, as a host's idle pass does.
                    host.FreeReleasedHandlers(module->FreeHandlerObject);
                }
                for (const auto& entry : open)
                    EXPECT_EQ(entry.second->Release(), MetaStatusClosed);
                open.clear();
                host.FreeReleasedHandlers(module->FreeHandlerObject);
                host.ClearRecords();
                CoUninitialize();
            });
        };
        // Each step a few times first, so the platform's caches exist before counting.
        pass(static_cast<int>(20 * steps.size()), [](int operation) { return operation / 20; });
        Rounds(10, 2, [&] {
            pass(1000, [&](int) {
                std::uint32_t at = Below(mix, total);
                std::size_t chosen = 0;
                for (; at >= steps[chosen].weight; ++chosen)
                    at -= steps[chosen].weight;
                return chosen;
            });
            EXPECT_EQ(server.LiveObjects(), liveObjects);
            EXPECT_EQ(RefCount(running.Get()), runningReferences);
            EXPECT_EQ(witness.References(), 1);
        }, true);
        RevokeActiveObject(cookie, nullptr);
    });
}
// A call without gtest, whose assertions aren't made for threads.
struct QuietResult {
    MetaStatus status = MetaStatusNoMemory;
    CMetaObjectItem* item = nullptr;
    CMetaObjectHandler* handler = nullptr;
    QuietResult(CMetaObjectHandler& on, const wchar_t* key, const std::vector<CMetaObjectItem*>& params = {})
        : handler(&on)
    {
        CCOMMethodInvoke* slot = nullptr;
        if (handler->CreateMethodInvoke(&slot, CMetaString(key)) != MetaStatusOk)
            return;
        CItemList list(params.begin(), params.end());
        if (!list.empty())
            handler->SetInvokeParams(&slot, list);
        CMethodInvokeStatus record;
        status = handler->ExecuteInvoke(&slot, &record, &item);
        handler->FreeMethodInvoke(&slot);
    }
    ~QuietResult()
    {
        if (item) {
            item->Clear();
            handler->FreeItem(item);
        }
    }
};

// Uses raced on one handler, one free-threaded object, a slot each, error texts per thread.
TEST_F(StressTest, EightHostThreadsAtOnce)
{
    constexpr int kThreads = 8;
    std::vector<std::vector<std::string>> problems(kThreads);
    const long liveBefore = server.LiveObjects();
    Rounds(2, 1, [&] {
        RunInitialised([&] {
            CMetaObjectCOMHandler* shared = OpenNew(kCallFixture);
            const ULONG sharedReferences = RefCount(shared->GetDispatchPointer());
            CMetaObjectHandler* raced = module->GetHandlerObject();  // nobody calls on it meanwhile
            ASSERT_EQ(raced->Release(), MetaStatusClosed);
            CMetaObjectCOMHandler* maker = OpenNew(kCollectionFixture);
            const Param flags = Int(CollectionValues::kObjects), size = Int(12);
            Outcome made = Call(*maker, L"Invoke:Make", {flags.get(), size.get()});
            ASSERT_NE(ObjectOf(made.result.get()), nullptr);
            CMetaObjectHandler& collection = HandlerOf(made.result.get());
            std::vector<std::function<void()>> bodies;
            for (int index = 0; index < kThreads; ++index) {
                bodies.push_back([&, index] {
                    int round = 0;
                    const auto expect = [&](bool holds, const char* what) {
                        if (!holds)
                            problems[index].push_back(std::string(what) + " (round " + std::to_string(round) + ")");
                    };
                    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
                        return expect(false, "no COM");
                    for (; round < 60; ++round) {
                        raced->AddUse();
                        expect(raced->Open(kCallFixture.c_str(), nullptr) == MetaStatusOk, "raced open");
                        raced->Release();
                        const Param row = Int(index), column = Int(round), value = Int(index * 1000 + round);
                        const MetaStatus put = QuietResult(*shared, L"Set:Cell", {row.get(), column.get(), value.get()}).status;
                        expect(put == MetaStatusOk && IntOf(QuietResult(*shared, L"Get:Cell", {row.get(), column.get()}).item) ==
                                                          index * 1000 + round,
                               "shared cell");
                        IEnumVARIANT* slot = nullptr;
                        expect(collection.OpenEnumerator(&slot) == MetaStatusOk, "open slot");
                        const auto skip = static_cast<std::uint32_t>((index + round) % 4);
                        collection.SkipElements(&slot, skip);
                        CItemList items;
                        std::uint32_t fetched = 0;
                        collection.NextElements(&slot, 1, items, &fetched);
                        expect(fetched == 1 && items.size() == 1, "one element");
                        for (CMetaObjectItem* item : items) {
                            auto* element = dynamic_cast<CMetaObjectObject*>(item);
                            expect(element && IntOf(QuietResult(*element->handler, L"Get:Index").item) == std::int32_t(skip),
                                   "the slot's own position");
                            item->Clear();
                            collection.FreeItem(item);
                        }
                        expect(collection.CloseEnumerator(&slot) == MetaStatusOk && slot == nullptr, "close slot");
                        // This thread's text on the shared handler, read after the others wrote theirs.
                        const std::string text = "thread " + std::to_string(index) + " round " + std::to_string(round);
                        setErrorText(shared, text.c_str());
                        SwitchToThread();
                        const char* read = shared->GetErrorText().GetNarrow();
                        expect(read != nullptr && text == read, "own error text");
                    }
                    CoUninitialize();
                });
            }
            ASSERT_TRUE(RunThreadsWithWatchdog(bodies, 45000));
            EXPECT_EQ(raced->GetUseCount(), 0u);
            EXPECT_FALSE(raced->IsOpen());
            EXPECT_EQ(shared->GetUseCount(), 1u);
            EXPECT_EQ(RefCount(shared->GetDispatchPointer()), sharedReferences);
            EXPECT_TRUE(shared->GetErrorText().IsEmpty()) << "a text crossed to this thread";
            made.result.reset();
            Close(maker);
            Close(shared);
            host.ClearRecords();
        });
        for (int index = 0; index < kThreads; ++index) {
            EXPECT_TRUE(problems[index].empty()) << "thread " << index << ": " << problems[index].front();
        }
        EXPECT_EQ(server.LiveObjects(), liveBefore);
    }, false);
}

}  // namespace
