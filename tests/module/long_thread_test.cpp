// One host thread that opens, calls, describes and frees handlers in turn, as a
// pooled worker does for months, on the probe copy of the module: its heap
// blocks after the run stay within a few of those after the first thousand
// handlers (half of them in the default run of 600, which keeps the suite
// quick). COMHANDLER_LONG_THREAD_HANDLERS sets how many, for a soak run.

#include <algorithm>
#include <cstdlib>

#include "tests/module/call_harness.h"

using namespace MetaObj;

namespace {

constexpr char kDictionary[] = "COM://Scripting.Dictionary";
// No library describes it, so describing it fails with a text.
constexpr char kUndescribable[] = "COM://VBScript.RegExp";
constexpr long kDefaultHandlers = 600;
constexpr long kBlockDrift = 16;

long HandlerCount()
{
    const char* text = std::getenv("COMHANDLER_LONG_THREAD_HANDLERS");
    const long count = text ? std::atol(text) : 0;
    return count > kDefaultHandlers ? count : kDefaultHandlers;
}

class LongThreadTest : public CallTest {
protected:
    void SetUp() override
    {
        CallTest::SetUp();
        Load(ProgramDirectory() + "probe.dll");
        module->SetEnvironment(host.Table());
        liveBlocks = reinterpret_cast<LONG (*)()>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeLiveAllocations")));
        ASSERT_NE(liveBlocks, nullptr);
    }

    LONG (*liveBlocks)() = nullptr;
};

std::string TextOf(CMetaObjectHandler& handler)
{
    return Narrow(handler.GetErrorText());
}

TEST_F(LongThreadTest, HandlersInTurnLeaveNothingBehind)
{
    const long count = HandlerCount();
    const long settledAt = std::min(count / 2, 1000L);
    LONG settled = 0;
    RunInitialised([&] {
        for (long at = 0; at < count; ++at) {
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            ASSERT_EQ(handler->Open(kDictionary, nullptr), MetaStatusOk);
            const Param key = Text(L"k", L"VT_VARIANT"), value = Int(at, L"VT_VARIANT");
            ASSERT_EQ(Call(*handler, L"Invoke:Add", {key.get(), value.get()}).status, MetaStatusOk);
            // A handler without an object describes a class that no library describes.
            CMetaObjectHandler* describer = module->GetHandlerObject();
            ASSERT_EQ(describer->LoadObjectInfo(kUndescribable), MetaStatusNoTypeInfo);
            if (at == 0) {
                // The failure's text is this thread's, right after it, and the
                // next operation of the handler clears it.
                EXPECT_EQ(TextOf(*describer), "Could not load type library");
                std::string elsewhere = "not read";
                RunOnThread([&] { elsewhere = TextOf(*describer); });
                EXPECT_EQ(elsewhere, "");
                EXPECT_EQ(describer->LoadObjectInfo(kDictionary), MetaStatusOk);
                EXPECT_EQ(TextOf(*describer), "");
                describer->UnloadObjectInfo();
                ASSERT_EQ(describer->LoadObjectInfo(kUndescribable), MetaStatusNoTypeInfo);
            }
            // Freed with its text still set, as a host that never asks leaves it.
            for (CMetaObjectHandler* used : {static_cast<CMetaObjectHandler*>(handler), describer})
                EXPECT_EQ(used->Release(), MetaStatusClosed);
            host.FreeReleasedHandlers(module->FreeHandlerObject);
            if (at + 1 == settledAt)
                settled = liveBlocks();
        }
        EXPECT_LE(liveBlocks() - settled, kBlockDrift) << "after " << count << " handlers";
    });
}

}  // namespace
