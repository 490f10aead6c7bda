#pragma once
// A flag that one thread holds at a time. A thread that finds it held goes its
// own way instead of waiting, where that way is as right as the guarded one and
// costs less than a lock that waits.

#include <windows.h>

#include <atomic>

namespace MetaObj {

class CTryFlag {
public:
    bool TryEnter() noexcept { return !busy.exchange(true, std::memory_order_acquire); }
    // For what must happen all the same: waits its turn.
    void Enter() noexcept
    {
        while (!TryEnter())
            SwitchToThread();
    }
    void Leave() noexcept { busy.store(false, std::memory_order_release); }

private:
    std::atomic<bool> busy{false};
};

}  // namespace MetaObj
