// The module's code linked into a program: this sets up what the module's entry points would.

#include <gtest/gtest.h>

#include <objbase.h>

#include "platform/error_text.h"
#include "platform/module_state.h"

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (CoInitializeEx(nullptr, COINIT_MULTITHREADED) != S_OK)
        return 1;
    MetaObj::ErrorTextProcessAttach();
    HandlerInfo().LoadFromModule(GetModuleHandleA(nullptr));
    const int result = RUN_ALL_TESTS();
    MetaObj::ErrorTextProcessDetach();
    CoUninitialize();
    return result;
}
