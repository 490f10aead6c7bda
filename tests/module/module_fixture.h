#pragma once
// The module loaded afresh for each test through its exports, and threads of
// our own for whatever depends on a thread's COM state.

#include <gtest/gtest.h>

#include <windows.h>
#include <unknwn.h>

#include <functional>
#include <memory>
#include <string>

#include "host/module_loader.h"

// Runs the body on a new thread and waits for it; the thread starts without COM.
void RunOnThread(const std::function<void()>& body);

// The directory of the running test program, with a trailing separator.
std::string ProgramDirectory();

// The number of references an object holds now, read without changing it.
ULONG RefCount(IUnknown* object);

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override { Load(ProgramDirectory() + "comhandler.dll"); }
    void TearDown() override
    {
        if (module)
            module->SetEnvironment(nullptr);
        module.reset();  // unloads: the next test starts from the statics again
    }
    void Load(const std::string& path)
    {
        std::string error;
        module = CHandlerModule::Load(path, error);
        ASSERT_TRUE(module) << error;
    }
    // Runs the body on a thread where the module has initialised COM, and cleans up after.
    void RunInitialised(const std::function<void()>& body);

    std::unique_ptr<CHandlerModule> module;
};
