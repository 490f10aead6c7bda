// The host's threads, all at once: handlers of their own and shared ones, uses
// raced on one handler, calls on one free-threaded object, an enumerator slot
// each on one collection, error texts that stay with their thread, and handlers
// made on one thread and released on another. Threads report what they saw and
// the test thread judges it, since the assertions aren't made for threads.

#include <windows.h>
#include <objbase.h>

#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "tests/module/stress_fixture.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/support/counting_new.h"
#include "tests/support/watchdog.h"

using namespace MetaObj;

namespace {

constexpr int kThreads = 8;
constexpr int kIterations = 60;
constexpr std::int32_t kCollectionSize = 12;
constexpr DWORD kWatchdogMilliseconds = 45000;
constexpr long kBlockDrift = 8;

// A call made without gtest: the status, and the result given back through the handler.
struct QuietResult {
    MetaStatus status = MetaStatusOk;
    CMetaObjectItem* item = nullptr;
    CMetaObjectHandler* handler = nullptr;
    ~QuietResult()
    {
        if (item) {
            item->Clear();
            handler->FreeItem(item);
        }
    }
};

void QuietCall(CMetaObjectHandler& handler, const wchar_t* key, const std::vector<CMetaObjectItem*>& params,
               QuietResult& out)
{
    out.handler = &handler;
    CCOMMethodInvoke* slot = nullptr;
    if (handler.CreateMethodInvoke(&slot, CMetaString(key)) != MetaStatusOk) {
        out.status = MetaStatusNoMemory;
        return;
    }
    CItemList list(params.begin(), params.end());
    if (!list.empty())
        handler.SetInvokeParams(&slot, list);
    CMethodInvokeStatus record;
    out.status = handler.ExecuteInvoke(&slot, &record, &out.item);
    handler.FreeMethodInvoke(&slot);
}

std::int32_t IntOf(const CMetaObjectItem* item)
{
    const auto* number = dynamic_cast<const CMetaObjectInt*>(item);
    return number ? number->value : -12345;
}

class Section {
public:
    Section() { InitializeCriticalSection(&section); }
    ~Section() { DeleteCriticalSection(&section); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
    void Enter() { EnterCriticalSection(&section); }
    void Leave() { LeaveCriticalSection(&section); }

private:
    CRITICAL_SECTION section;
};

// Handlers passed from the thread that made them to the one that releases them.
class Handoff {
public:
    void Put(CMetaObjectHandler* handler)
    {
        lock.Enter();
        waiting.push_back(handler);
        lock.Leave();
    }
    CMetaObjectHandler* Take()
    {
        lock.Enter();
        CMetaObjectHandler* handler = nullptr;
        if (!waiting.empty()) {
            handler = waiting.front();
            waiting.pop_front();
        }
        lock.Leave();
        return handler;
    }

private:
    Section lock;
    std::deque<CMetaObjectHandler*> waiting;
};

using HostThreadsTest = StressTest;

TEST_F(HostThreadsTest, EightThreadsAtOnceLeaveEveryCountExact)
{
    const std::string callIdentity = std::string("COM://") + FixtureValues::kProgIdNarrow;
    std::vector<std::vector<std::string>> problems(kThreads);
    const long liveBefore = server.LiveObjects();
    // Run twice: the first run makes the caches of the module, this host and
    // the platform; the second may leave no block more than the first did.
    std::vector<long> blocksAfter;
    for (int run = 0; run < 2 && !HasFailure(); ++run) {
    RunInitialised([&] {
        auto* shared = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        ASSERT_EQ(shared->Open(callIdentity.c_str(), nullptr), MetaStatusOk);
        IDispatch* sharedObject = shared->GetDispatchPointer();
        const ULONG sharedReferences = RefCount(sharedObject);

        // Its uses raced from every thread; nobody calls on it meanwhile.
        CMetaObjectHandler* raced = module->GetHandlerObject();
        ASSERT_EQ(raced->Release(), MetaStatusClosed);

        auto* maker = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        ASSERT_EQ(maker->Open((std::string("COM://") + CollectionValues::kProgIdNarrow).c_str(), nullptr),
                  MetaStatusOk);
        const Param flags = Int(CollectionValues::kObjects), size = Int(kCollectionSize);
        Outcome made = Call(*maker, L"Invoke:Make", {flags.get(), size.get()});
        ASSERT_NE(ObjectOf(made.result.get()), nullptr);
        CMetaObjectHandler& collection = *dynamic_cast<CMetaObjectObject&>(*made.result).handler;

        Handoff handoffs[kThreads];
        std::vector<std::function<void()>> bodies;
        for (int index = 0; index < kThreads; ++index) {
            bodies.push_back([&, index] {
                std::vector<std::string>& seen = problems[index];
                const auto expect = [&seen](bool holds, const std::string& what) {
                    if (!holds)
                        seen.push_back(what);
                };
                if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
                    seen.push_back("no COM");
                    return;
                }
                for (int round = 0; round < kIterations; ++round) {
                    const std::string where = " (round " + std::to_string(round) + ")";
                    // A handler of its own, opened, called and passed on to be released elsewhere.
                    CMetaObjectHandler* own = module->GetHandlerObject();
                    expect(own->Open(callIdentity.c_str(), nullptr) == MetaStatusOk, "own open" + where);
                    {
                        const Param in = Int(index * 100000 + round);
                        QuietResult echoed;
                        QuietCall(*own, L"Invoke:EchoI4", {in.get()}, echoed);
                        expect(IntOf(echoed.item) == index * 100000 + round, "own echo" + where);
                    }
                    handoffs[(index + 1) % kThreads].Put(own);
                    if (CMetaObjectHandler* passed = handoffs[index].Take()) {
                        QuietResult child;
                        QuietCall(*passed, L"Invoke:MakeChild", {}, child);
                        expect(ObjectOf(child.item) != nullptr, "child of a passed handler" + where);
                        expect(passed->Release() == MetaStatusClosed, "passed handler closes" + where);
                    }

                    // Uses of the raced handler: open again, or found open.
                    raced->AddUse();
                    expect(raced->Open(callIdentity.c_str(), nullptr) == MetaStatusOk, "raced open" + where);
                    raced->Release();

                    // The free-threaded object: a cell of this thread's own.
                    {
                        const Param row = Int(index), column = Int(round), value = Int(index * 1000 + round);
                        QuietResult put, got;
                        QuietCall(*shared, L"Set:Cell", {row.get(), column.get(), value.get()}, put);
                        QuietCall(*shared, L"Get:Cell", {row.get(), column.get()}, got);
                        expect(put.status == MetaStatusOk && IntOf(got.item) == index * 1000 + round,
                               "shared cell" + where);
                    }

                    // An enumerator slot of this thread's own on the shared collection.
                    {
                        IEnumVARIANT* slot = nullptr;
                        expect(collection.OpenEnumerator(&slot) == MetaStatusOk, "open slot" + where);
                        const std::uint32_t skip = static_cast<std::uint32_t>((index + round) % 4);
                        collection.SkipElements(&slot, skip);
                        CItemList items;
                        std::uint32_t fetched = 0;
                        collection.NextElements(&slot, 1, items, &fetched);
                        expect(fetched == 1, "one element" + where);
                        for (CMetaObjectItem* item : items) {
                            QuietResult position;
                            if (auto* object = dynamic_cast<CMetaObjectObject*>(item))
                                QuietCall(*object->handler, L"Get:Index", {}, position);
                            expect(IntOf(position.item) == static_cast<std::int32_t>(skip),
                                   "the slot's own position" + where);
                            item->Clear();
                            collection.FreeItem(item);
                        }
                        expect(collection.CloseEnumerator(&slot) == MetaStatusOk && slot == nullptr,
                               "close slot" + where);
                    }

                    // This thread's text on the shared handler, read after the others wrote theirs.
                    const std::string text = "thread " + std::to_string(index) + " round " + std::to_string(round);
                    SetErrorText(shared, text.c_str());
                    SwitchToThread();
                    const char* read = shared->GetErrorText().GetNarrow();
                    expect(read != nullptr && text == read, "own error text" + where);
                }
                CoUninitialize();
            });
        }
        ASSERT_TRUE(RunThreadsWithWatchdog(bodies, kWatchdogMilliseconds));

        // Handlers still waiting to be passed on are released here, on yet another thread.
        for (Handoff& handoff : handoffs) {
            while (CMetaObjectHandler* left = handoff.Take())
                EXPECT_EQ(left->Release(), MetaStatusClosed);
        }
        EXPECT_EQ(raced->GetUseCount(), 0u);
        EXPECT_FALSE(raced->IsOpen());
        EXPECT_EQ(shared->GetUseCount(), 1u);
        EXPECT_EQ(RefCount(sharedObject), sharedReferences);
        EXPECT_TRUE(shared->GetErrorText().IsEmpty()) << "a text crossed to this thread";
        made.result.reset();
        EXPECT_EQ(maker->Release(), MetaStatusClosed);
        EXPECT_EQ(shared->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        EXPECT_TRUE(host.Registrations().empty()) << "a handler still in use";
        host.ClearRecords();
    });
    // The module's and this host's together: list nodes pass between them.
    blocksAfter.push_back(ModuleBlocks() + LiveHeapBlocks());
    }
    for (int index = 0; index < kThreads; ++index) {
        SCOPED_TRACE("thread " + std::to_string(index));
        EXPECT_TRUE(problems[index].empty())
            << problems[index].size() << " problems, first: " << (problems[index].empty() ? "" : problems[index][0]);
    }
    EXPECT_EQ(server.LiveObjects(), liveBefore);
    // Every thread's error texts went with it.
    ASSERT_EQ(blocksAfter.size(), 2u);
    // A block or so comes and goes with the timing, as in the long runs.
    EXPECT_LE(std::labs(blocksAfter[1] - blocksAfter[0]), kBlockDrift) << blocksAfter[1] << " after " << blocksAfter[0];
    std::printf("host threads: %d threads, %d rounds each\n", kThreads, kIterations);
}

}  // namespace
