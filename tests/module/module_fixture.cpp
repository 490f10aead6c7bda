#include "tests/module/module_fixture.h"

namespace {

// Under Wine a crash ends the program through the debugger with exit code 0,
// which ctest takes for a pass: a crash ends it with a failing code instead.
LONG WINAPI FailOnCrash(EXCEPTION_POINTERS*)
{
    static const char kMessage[] = "unhandled exception: the test program crashed\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), kMessage, sizeof kMessage - 1, &written, nullptr);
    TerminateProcess(GetCurrentProcess(), 3);
    return EXCEPTION_EXECUTE_HANDLER;
}
const LPTOP_LEVEL_EXCEPTION_FILTER g_previousFilter = SetUnhandledExceptionFilter(FailOnCrash);

DWORD WINAPI ThreadBody(void* argument)
{
    (*static_cast<const std::function<void()>*>(argument))();
    return 0;
}

}  // namespace

void RunOnThread(const std::function<void()>& body)
{
    HANDLE thread = CreateThread(nullptr, 0, ThreadBody, const_cast<std::function<void()>*>(&body), 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
}

std::string ProgramDirectory()
{
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string directory(path);
    return directory.substr(0, directory.find_last_of("\\/") + 1);
}

ULONG RefCount(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

void ModuleTest::RunInitialised(const std::function<void()>& body)
{
    RunOnThread([&] {
        ASSERT_TRUE(module->InitHandler(module->Handle()));
        body();
        EXPECT_TRUE(module->CleanUpHandler());
    });
}
