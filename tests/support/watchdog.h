#pragma once
// Threads of a host started together and waited for with a limit. A run that
// outlasts the limit is taken for a deadlock: stuck threads can't be taken back,
// so the process ends with a failure instead of hanging the suite.

#include <windows.h>

#include <cstdio>
#include <functional>
#include <vector>

namespace watchdog_detail {

struct Start {
    const std::function<void()>* body;
    HANDLE go;
};

inline DWORD WINAPI Run(void* argument)
{
    const auto* start = static_cast<const Start*>(argument);
    WaitForSingleObject(start->go, INFINITE);
    (*start->body)();
    return 0;
}

}  // namespace watchdog_detail

// Runs every body on a thread of its own, all released at once. Returns false
// if a thread could not be made; ends the process if the limit passes.
inline bool RunThreadsWithWatchdog(const std::vector<std::function<void()>>& bodies, DWORD limitMilliseconds)
{
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (go == nullptr)
        return false;
    std::vector<watchdog_detail::Start> starts(bodies.size());
    std::vector<HANDLE> threads;
    for (std::size_t at = 0; at < bodies.size(); ++at) {
        starts[at] = {&bodies[at], go};
        HANDLE thread = CreateThread(nullptr, 0, watchdog_detail::Run, &starts[at], 0, nullptr);
        if (thread != nullptr)
            threads.push_back(thread);
    }
    SetEvent(go);
    const DWORD waited = threads.empty() ? WAIT_OBJECT_0
                                         : WaitForMultipleObjects(static_cast<DWORD>(threads.size()),
                                                                  threads.data(), TRUE, limitMilliseconds);
    if (waited == WAIT_TIMEOUT || waited == WAIT_FAILED) {
        std::fprintf(stderr, "watchdog: %u threads still running after %lu ms: deadlock\n",
                     static_cast<unsigned>(threads.size()), static_cast<unsigned long>(limitMilliseconds));
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    for (HANDLE thread : threads)
        CloseHandle(thread);
    CloseHandle(go);
    return threads.size() == bodies.size();
}
