#pragma once
// Tests on the probe copy of the module, with the host's table, and the probe's own exports.

#include "tests/module/call_harness.h"

struct ProbeTest : CallTest {
    void SetUp() override
    {
        CallTest::SetUp();
        module->SetEnvironment(nullptr);
        module.reset();
        Load(ProgramDirectory() + "probe.dll");
        module->SetEnvironment(host.Table());
        liveBlocks = reinterpret_cast<LONG (*)()>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeLiveAllocations")));
        setErrorText = reinterpret_cast<void (*)(const MetaObj::CMetaObjectHandler*, const char*)>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeSetErrorText")));
        ASSERT_NE(liveBlocks, nullptr);
        ASSERT_NE(setErrorText, nullptr);
    }

    LONG (*liveBlocks)() = nullptr;
    void (*setErrorText)(const MetaObj::CMetaObjectHandler*, const char*) = nullptr;
};
