#pragma once
// Threads of a host started together and waited for with a limit. A run that
// outlasts the limit is taken for a deadlock: stuck threads can't be taken back,
// so the process ends with a failure instead of hanging the suite.

#include <windows.h>

#include <cstdio>
#include <functional>
#include <vector>

// Runs every body on a thread of its own, all released at once. Returns false
// if a thread could not be made; ends the process if the limit passes.
inline bool RunThreadsWithWatchdog(const std::vector<std::function<void()>>& bodies, DWORD limitMilliseconds)
{
    struct Start {
        const std::function<void()>* body;
        HANDLE go;
        static DWORD WINAPI Run(void* argument)
        {
            const auto* start = static_cast<const Start*>(argument);
            WaitForSingleObject(start->go, INFINITE);
            (*start->body)();
            return 0;
        }
    };
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::vector<Start> starts;
    std::vector<HANDLE> threads;
    for (const auto& body : bodies)
        starts.push_back({&body, go});
    for (Start& start : starts) {
        if (HANDLE thread = go ? CreateThread(nullptr, 0, Start::Run, &start, 0, nullptr) : nullptr)
            threads.push_back(thread);
    }
    if (go)
        SetEvent(go);
    if (!threads.empty() && WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE,
                                                   limitMilliseconds) >= WAIT_OBJECT_0 + threads.size()) {
        std::fprintf(stderr, "watchdog: threads still running after %lu ms: deadlock\n",
                     static_cast<unsigned long>(limitMilliseconds));
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    for (HANDLE thread : threads)
        CloseHandle(thread);
    if (go)
        CloseHandle(go);
    return go && threads.size() == bodies.size();
}
