// Replaces the global operator new and delete of the binary that links it with
// counting ones, so tests can see that a scenario gives back every block it took.
// The runtime's array, nothrow and sized forms call these two.

#include "tests/support/counting_new.h"

#include <windows.h>

#include <cstdlib>
#include <new>

namespace {

volatile LONG g_liveBlocks = 0;

}  // namespace

void* operator new(std::size_t size)
{
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    InterlockedIncrement(&g_liveBlocks);
    return block;
}

void operator delete(void* block) noexcept
{
    if (block != nullptr)
        InterlockedDecrement(&g_liveBlocks);
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

long LiveHeapBlocks()
{
    return g_liveBlocks;
}
