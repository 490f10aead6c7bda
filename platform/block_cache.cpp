#include "platform/block_cache.h"

#include <windows.h>

#include <new>

#include "text/meta_string.h"

namespace MetaObj {
namespace {

// One lock-free list per 16 bytes of size up to 512, each keeping at most 512
// blocks: a batch of a walk or a long argument list fits, and what stays kept
// is bounded (about 4 MB if all 32 sizes were full, and only sizes in use
// fill). Larger objects go straight to the heap. The lists are shared
// by all threads, so a block freed on another thread is still reused, and a
// thread's end leaves nothing behind.
constexpr std::size_t kStep = 16;
constexpr std::size_t kLargest = 512;
constexpr USHORT kMostKept = 512;

struct alignas(MEMORY_ALLOCATION_ALIGNMENT) SizeList {
    SizeList() { InitializeSListHead(&head); }
    SLIST_HEADER head;
};

// Made before any other object of the binary, so that no item can come first.
SizeList g_lists[kLargest / kStep] __attribute__((init_priority(101)));

// Filled while the binary's objects are made, before any thread of the host calls in.
void (*g_drains[4])() noexcept = {};

// Gone after every other object of the binary, so that what their ends gave back is freed too.
struct KeptAtEnd {
    ~KeptAtEnd() { DrainBlocks(); }
} g_keptAtEnd __attribute__((init_priority(101)));

SizeList* ListFor(std::size_t size)
{
    return size == 0 || size > kLargest ? nullptr : &g_lists[(size - 1) / kStep];
}

// Blocks of a list all have its largest size, so any of them serves any size of the list.
std::size_t Rounded(std::size_t size)
{
    return (size + kStep - 1) / kStep * kStep;
}

}  // namespace

void* TakeBlock(std::size_t size)
{
    SizeList* list = ListFor(size);
    if (!list)
        return ::operator new(size);
    if (void* kept = InterlockedPopEntrySList(&list->head))
        return kept;
    // An SLIST entry needs the heap's own alignment, which operator new gives.
    return ::operator new(Rounded(size));
}

void GiveBlock(void* block, std::size_t size) noexcept
{
    if (!block)
        return;
    SizeList* list = ListFor(size);
    if (!list) {
        ::operator delete(block);
        return;
    }
    // The depth is read before the push, so a race may keep a few more than the most.
    if (QueryDepthSList(&list->head) >= kMostKept) {
        ::operator delete(block);
        return;
    }
    InterlockedPushEntrySList(&list->head, static_cast<PSLIST_ENTRY>(block));
}

void AddDrain(void (*drain)() noexcept) noexcept
{
    for (auto& slot : g_drains) {
        if (!slot) {
            slot = drain;
            return;
        }
    }
}

void DrainBlocks() noexcept
{
    for (auto drain : g_drains) {
        if (drain)
            drain();
    }
    DrainTextBuffers();
    for (SizeList& list : g_lists) {
        PSLIST_ENTRY entry = InterlockedFlushSList(&list.head);
        while (entry) {
            PSLIST_ENTRY next = entry->Next;
            ::operator delete(entry);
            entry = next;
        }
    }
}

}  // namespace MetaObj
