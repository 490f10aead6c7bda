#pragma once
// What a short text decides, worked out once per distinct text and kept for
// the process: every argument of every call is read by its signature, and
// calls repeat a handful of them. A slot is written once, by the thread that
// claims it, and is then only read; a text that finds its slot taken by
// another, or is too long, is read afresh. Instances are static, so the slots
// start zeroed before any call.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cwchar>

template <typename Reading, Reading (*Read)(const wchar_t*)>
class CTextMemo {
public:
    Reading Of(const wchar_t* text)
    {
        std::size_t length = 0;
        std::uint32_t hash = 0;
        while (length < kChars && text[length] != 0)
            hash = hash * 31 + text[length++];
        if (length == kChars)
            return Read(text);
        Slot& slot = slots[(hash + length) % kSlots];
        int state = slot.state.load(std::memory_order_acquire);
        if (state == kReady) {
            if (slot.length == length && std::wmemcmp(slot.text, text, length) == 0)
                return slot.reading;
            return Read(text);
        }
        const Reading reading = Read(text);
        if (state == kFree && slot.state.compare_exchange_strong(state, kWriting, std::memory_order_acquire)) {
            slot.length = length;
            std::wmemcpy(slot.text, text, length);
            slot.reading = reading;
            slot.state.store(kReady, std::memory_order_release);
        }
        return reading;
    }

private:
    static constexpr std::size_t kSlots = 64;
    static constexpr std::size_t kChars = 24;
    enum : int { kFree, kWriting, kReady };

    struct Slot {
        std::atomic<int> state{kFree};
        std::size_t length = 0;
        wchar_t text[kChars] = {};
        Reading reading{};
    };

    Slot slots[kSlots];
};
