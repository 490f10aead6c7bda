#pragma once
// Taken in front of GoogleTest's own empty customisation header. mingw's win32
// thread model has no std::mutex or std::condition_variable, which GoogleTest's
// Notification uses; this one waits on a Win32 event instead.

#include <windows.h>

#define GTEST_HAS_NOTIFICATION_ 1

namespace testing {
namespace internal {

class Notification {
public:
    Notification() : event(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~Notification() { CloseHandle(event); }
    Notification(const Notification&) = delete;
    Notification& operator=(const Notification&) = delete;

    void Notify() { SetEvent(event); }
    void WaitForNotification() { WaitForSingleObject(event, INFINITE); }

private:
    HANDLE event;
};

}  // namespace internal
}  // namespace testing
