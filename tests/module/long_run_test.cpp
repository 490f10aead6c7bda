// Long runs and host threads on the probe module: counted objects exact, heap blocks and handles flat.

#include <windows.h>
#include <objbase.h>
#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/block_cache.h"
#include "platform/platform_handles.h"
#include "tests/probe/probe_test.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/counting_new.h"

using namespace MetaObj;

namespace {

const std::string kCallFixture = std::string("COM://") + FixtureValues::kProgIdNarrow;
const std::string kCollectionFixture = std::string("COM://") + CollectionValues::kProgIdNarrow;

using Mix = std::minstd_rand;
std::uint32_t Below(Mix& mix, std::uint32_t bound)
{
    return static_cast<std::uint32_t>(mix() % bound);
}

// Handles the process has open, from the system's table: Wine's GetProcessHandleCount answers 0.
DWORD OpenHandleCount()
{
    DWORD count = 0;
    std::vector<BYTE> buffer(1 << 16);
    ULONG needed = 0;
    while (NtQuerySystemInformation(SystemHandleInformation, buffer.data(), ULONG(buffer.size()), &needed) < 0) {
        if (buffer.size() > (1u << 26))
            return 0;
        buffer.resize(buffer.size() * 4);
    }
    const auto* table = reinterpret_cast<const SYSTEM_HANDLE_INFORMATION*>(buffer.data());
    for (ULONG at = 0; at < table->Count; ++at)
        count += table->Handle[at].OwnerPid == GetCurrentProcessId() ? 1 : 0;
    return count;
}

DWORD WINAPI RunBody(void* body)
{
    (*static_cast<const std::function<void()>*>(body))();
    return 0;
}

// Every body on a thread of its own, started together; a deadlock ends the process rather than hang the suite.
void RunThreadsWithWatchdog(const std::vector<std::function<void()>>& bodies, DWORD limit)
{
    std::vector<HANDLE> threads;
    for (const auto& body : bodies) {
        threads.push_back(CreateThread(nullptr, 0, RunBody, const_cast<std::function<void()>*>(&body),
                                       CREATE_SUSPENDED, nullptr));
        ASSERT_NE(threads.back(), nullptr);
    }
    for (HANDLE thread : threads)
        ResumeThread(thread);
    if (WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE, limit) == WAIT_TIMEOUT) {
        std::fprintf(stderr, "watchdog: threads still running after %lu ms: deadlock\n", limit);
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    for (HANDLE thread : threads)
        CloseHandle(thread);
}

struct StressTest : ProbeTest {
    void Rounds(int rounds, int settle, const std::function<void()>& round)
    {
        long settledBlocks = 0;
        DWORD settledHandles = 0;
        for (int at = 1; at <= rounds && !HasFailure(); ++at) {
            SCOPED_TRACE("round " + std::to_string(at));
            round();
            EXPECT_TRUE(host.Registrations().empty()) << "handlers still in use";
            MetaObj::DrainBlocks();  // this program's own kept blocks; the probe gives back the module's
            const long blocks = liveBlocks() + LiveHeapBlocks();
            const DWORD handleCount = OpenHandleCount();
            std::printf("round %d: blocks %ld, handles %lu\n", at, blocks, static_cast<unsigned long>(handleCount));
            if (at <= settle) {
                settledBlocks = blocks;
                settledHandles = handleCount;
                continue;
            }
            // Wine's worker threads come and go with a few blocks and handles.
            EXPECT_LE(std::labs(blocks - settledBlocks), 8);
            EXPECT_LE(handleCount, settledHandles + 4);
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

    // Counts, skips and walks at most batches batches; each object element tells its own index.
    std::uint32_t Walk(CMetaObjectCOMHandler& collection, std::uint32_t skip, std::uint32_t batch, std::uint32_t count,
                       std::uint32_t batches = ~0u)
    {
        IEnumVARIANT* slot = nullptr;
        std::uint32_t counted = 0, walked = 0;
        EXPECT_EQ(collection.OpenEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(collection.CountElements(&slot, &counted), MetaStatusOk);
        EXPECT_EQ(counted, count);
        EXPECT_EQ(collection.SkipElements(&slot, skip), MetaStatusOk);
        for (std::uint32_t fetched = 1; fetched != 0 && slot && batches-- > 0;) {
            CItemList items;
            EXPECT_EQ(collection.NextElements(&slot, batch, items, &fetched), MetaStatusOk);
            for (CMetaObjectItem* item : items) {
                if (dynamic_cast<CMetaObjectObject*>(item)) {
                    const Outcome index = Call(ItemHandler(item), L"Get:Index");
                    EXPECT_EQ(ValueText(index.result.get()), std::to_wstring(skip + walked));
                }
                ++walked;
                item->Clear();
                collection.FreeItem(item);
            }
        }
        EXPECT_EQ(collection.CloseEnumerator(&slot), MetaStatusOk);
        EXPECT_EQ(slot, nullptr);
        return walked;
    }
};

using LongRunTest = StressTest;

// Mixed operations chosen with a fixed seed, on a few handlers kept open.
TEST_F(LongRunTest, EveryRoundGivesBackWhatItTook)
{
    CCountingDispatch witness;  // passed in and out by calls; only its creator's reference stays
    IDispatch* const witnessed = &witness;
    std::vector<std::pair<std::string, CMetaObjectCOMHandler*>> open;
    Mix mix(20240611);
    const auto number = [&] { return static_cast<std::int32_t>(Below(mix, 100000)) - 50000; };
    const auto closeOne = [&] {
        if (open.empty())
            return;
        const auto at = open.begin() + Below(mix, static_cast<std::uint32_t>(open.size()));
        Close(at->second);
        open.erase(at);
    };
    // One of the handlers open on identity, or a new one.
    const auto some = [&](const std::string& identity, bool fresh = false,
                          CObjectOpenParams* params = nullptr) -> CMetaObjectCOMHandler& {
        std::vector<CMetaObjectCOMHandler*> found;
        for (const auto& entry : open)
            if (entry.first == identity)
                found.push_back(entry.second);
        if (!found.empty() && !fresh)
            return *found[Below(mix, static_cast<std::uint32_t>(found.size()))];
        if (open.size() >= 6)
            closeOne();
        open.emplace_back(identity, OpenNew(identity, params));
        return *open.back().second;
    };
    using Step = std::pair<double, std::function<void()>>;  // a weight, and what it does
    enum Expect { kOk, kFails, kEither };
    const auto call = [&](const wchar_t* key, std::function<std::vector<Param>()> params, Expect expect = kOk) {
        return Step{4, [=, &some] {
            SCOPED_TRACE(Narrow(CMetaString(key)));
            const std::vector<Param> made = params();
            const Outcome outcome = Call(some(kCallFixture), key, Items(made));
            if (expect != kEither) {
                EXPECT_EQ(outcome.status, expect == kOk ? MetaStatusOk : MetaStatusInvokeFailed);
            }
        }};
    };
    const std::vector<Step> steps = {
        {18, [&] {
             const wchar_t* const monikers[] = {nullptr, L"new:ComHandlerTest.CallFixture", L""};
             CObjectOpenParams params;
             const wchar_t* moniker = monikers[Below(mix, 3)];
             params.moniker = CMetaString(moniker ? moniker : L"");
             params.useRunningObject = moniker && !*moniker ? 1 : 0;  // the fixture of the running object table
             some(moniker || Below(mix, 2) ? kCallFixture : kCollectionFixture, true, moniker ? &params : nullptr);
         }},
        {12, closeOne},
        call(L"Invoke:EchoBstr", [&] { return ParamList(Text(std::to_wstring(number()).c_str())); }),
        call(L"Set:Cell", [&] { return ParamList(Int(number()), Int(7), Int(number())); }),
        call(L"Invoke:RefI4", [] { return ParamList(ByRef(Int(41), kInOut)); }),
        call(L"Invoke:OutR8", [] { return ParamList(ByRef(Real(0), kOut)); }),
        call(L"Invoke:RefVariant", [] { return ParamList(ByRef(Text(L"abc", L"VT_VARIANT"), kInOut)); }),
        call(L"Invoke:RefDispatch", [&] { return ParamList(ByRef(ObjectItem(witnessed), kInOut)); }),
        call(L"Invoke:EchoDispatch", [&] { return ParamList(ObjectItem(witnessed)); }),
        call(L"Invoke:OutDispatch", [&] { return ParamList(ByRef(ObjectItem(nullptr), kOut)); }),
        call(L"Invoke:SumPoint", [&] { return ParamList(Point(number(), 4)); }),
        call(L"Invoke:FailWithGarbage", [] { return ParamList(ByRef(Int(11), kOut), ByRef(Real(2.5), kOut)); }, kFails),
        call(L"Invoke:Throw", [] { return ParamList(); }, kFails),
        call(L"Invoke:NoSuchMember", [] { return ParamList(); }, kFails),
        call(L"Invoke:MakeChild", [] { return ParamList(); }),
        call(L"Invoke:Shape", [&] { return ParamList(Int(Below(mix, FixtureValues::ShapeRowCount))); }, kEither),
        // Objects held and set as a property are let go of in the same step.
        {6, [&] {
             CMetaObjectCOMHandler& fixture = some(kCallFixture);
             const Param in = ObjectItem(witnessed);
             EXPECT_EQ(Call(fixture, L"Invoke:Hold", {in.get()}).status, MetaStatusOk);
             EXPECT_EQ(Call(fixture, L"Setref:Target", {in.get()}).status, MetaStatusOk);
             EXPECT_EQ(ObjectOf(Call(fixture, L"Get:Target").result.get()), witnessed);
             EXPECT_EQ(Call(fixture, L"Invoke:DropHeld").status, MetaStatusOk);
         }},
        // Walks of collections that misbehave as the module allows.
        {7, [&] {
             using namespace CollectionValues;
             constexpr std::int32_t kFlags[] = {kPlain, kObjects, kUnknowns, kShortBatches, kNoFetched, kOddTypes};
             const std::int32_t flags = kFlags[Below(mix, 6)];
             const auto size = static_cast<std::int32_t>(Below(mix, 40));
             const Param flagsItem = Int(flags), sizeItem = Int(size);
             const Outcome made = Call(some(kCollectionFixture), L"Invoke:Make", {flagsItem.get(), sizeItem.get()});
             ASSERT_NE(ObjectOf(made.result.get()), nullptr);
             const std::uint32_t skip = Below(mix, 3);
             const std::uint32_t walked = Walk(ItemHandler(made.result.get()), skip, 1 + Below(mix, 16), size);
             if (!(flags & kOddTypes)) {
                 EXPECT_EQ(walked, static_cast<std::uint32_t>(std::max<std::int32_t>(size - skip, 0)));
             }
         }},
    };
    std::vector<double> weights;
    for (const Step& step : steps)
        weights.push_back(step.first);
    std::discrete_distribution<std::size_t> pick(weights.begin(), weights.end());
    RunInitialised([&] {
        CLSID classId;
        ComPtr<IDispatch> running;  // the fixture in the running object table
        ASSERT_EQ(CLSIDFromProgID(FixtureValues::kProgId, &classId), S_OK);
        ASSERT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, running.PutVoid()), S_OK);
        DWORD cookie = 0;
        ASSERT_EQ(RegisterActiveObject(running.Get(), classId, ACTIVEOBJECT_STRONG, &cookie), S_OK);
        const ULONG runningReferences = RefCount(running.Get());
        const long liveObjects = server.LiveObjects();
        const auto pass = [&](int operations, const std::function<std::size_t(int)>& choose) {
            RunOnThread([&] {
                ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
                for (int operation = 0; operation < operations && !HasFatalFailure(); ++operation) {
                    const std::size_t chosen = choose(operation);
                    SCOPED_TRACE("operation " + std::to_string(operation) + ", step " + std::to_string(chosen));
                    steps[chosen].second();
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
        pass(static_cast<int>(5 * steps.size()), [](int operation) { return operation / 5; });
        Rounds(10, 2, [&] {
            pass(1000, [&](int) { return pick(mix); });
            EXPECT_EQ(server.LiveObjects(), liveObjects);
            EXPECT_EQ(RefCount(running.Get()), runningReferences);
            EXPECT_EQ(witness.References(), 1);
        });
        RevokeActiveObject(cookie, nullptr);
    });
}

// Uses raced on one handler, one free-threaded object, a slot each, error texts per thread.
TEST_F(StressTest, EightHostThreadsAtOnce)
{
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
            CMetaObjectCOMHandler& collection = ItemHandler(made.result.get());
            std::vector<std::function<void()>> bodies;
            for (int index = 0; index < 8; ++index) {
                bodies.push_back([&, index] {
                    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
                    for (int round = 0; round < 60 && !HasFailure(); ++round) {
                        const std::string text = "thread " + std::to_string(index) + " round " + std::to_string(round);
                        SCOPED_TRACE(text);
                        raced->AddUse();
                        EXPECT_EQ(raced->Open(kCallFixture.c_str(), nullptr), MetaStatusOk);
                        raced->Release();
                        const Param row = Int(index), column = Int(round), value = Int(index * 1000 + round);
                        const Outcome put = Call(*shared, L"Set:Cell", {row.get(), column.get(), value.get()});
                        EXPECT_EQ(put.status, MetaStatusOk);
                        EXPECT_EQ(ValueText(Call(*shared, L"Get:Cell", {row.get(), column.get()}).result.get()),
                                  std::to_wstring(index * 1000 + round));
                        EXPECT_EQ(Walk(collection, (index + round) % 4, 1, 12, 1), 1u);
                        // This thread's text on the shared handler, read after the others wrote theirs.
                        setErrorText(shared, text.c_str());
                        SwitchToThread();
                        EXPECT_EQ(Narrow(shared->GetErrorText()), text);
                    }
                    CoUninitialize();
                });
            }
            RunThreadsWithWatchdog(bodies, 45000);
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
        EXPECT_EQ(server.LiveObjects(), liveBefore);
    });
}

}  // namespace
