#pragma once
// Threads of a host started together and waited for with a limit. A run that
// outlasts the limit is taken for a deadlock: stuck threads can't be taken back,
// so the process ends with a failure instead of hanging the suite.

#include <windows.h>

#include <cstdio>
#include <functional>
#include <vector>

// Releases the watched threads together.
inline HANDLE WatchdogStart()
{
    static const HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return go;
}

inline DWORD WINAPI RunWatchedBody(void* argument)
{
    WaitForSingleObject(WatchdogStart(), INFINITE);
    (*static_cast<const std::function<void()>*>(argument))();
    return 0;
}

// Runs every body on a thread of its own, all released at once by one event.
// Returns false if a thread could not be made; ends the process if the limit passes.
inline bool RunThreadsWithWatchdog(const std::vector<std::function<void()>>& bodies, DWORD limitMilliseconds)
{
    const HANDLE go = WatchdogStart();
    ResetEvent(go);
    std::vector<HANDLE> threads;
    for (const auto& body : bodies) {
        if (HANDLE thread =
                CreateThread(nullptr, 0, RunWatchedBody, const_cast<std::function<void()>*>(&body), 0, nullptr))
            threads.push_back(thread);
    }
    SetEvent(go);
    if (WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE, limitMilliseconds) ==
        WAIT_TIMEOUT) {
        std::fprintf(stderr, "watchdog: threads still running after %lu ms: deadlock\n", limitMilliseconds);
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    for (HANDLE thread : threads)
        CloseHandle(thread);
    return threads.size() == bodies.size();
}
