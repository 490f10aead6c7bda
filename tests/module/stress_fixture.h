#pragma once
// The call harness on the probe copy of the module, whose count of live heap
// blocks shows what long runs and threads leave behind in the module.

#include "tests/module/call_harness.h"

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
        liveBlocks = reinterpret_cast<LiveBlocksFn>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeLiveAllocations")));
        setErrorText = reinterpret_cast<SetErrorTextFn>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeSetErrorText")));
        ASSERT_NE(liveBlocks, nullptr);
        ASSERT_NE(setErrorText, nullptr);
        module->SetEnvironment(host.Table());
    }

    long ModuleBlocks() const { return liveBlocks(); }
    // Sets the calling thread's error text of the handler inside the module.
    void SetErrorText(const MetaObj::CMetaObjectHandler* handler, const char* text) const
    {
        setErrorText(handler, text);
    }

private:
    using LiveBlocksFn = LONG (*)();
    using SetErrorTextFn = void (*)(const MetaObj::CMetaObjectHandler*, const char*);
    LiveBlocksFn liveBlocks = nullptr;
    SetErrorTextFn setErrorText = nullptr;
};
