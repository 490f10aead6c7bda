// Counting global operator new and delete for the binary that links it.

#include "tests/support/counting_new.h"

#include <windows.h>

#include <cstdlib>
#include <new>

namespace {

volatile LONG g_liveBlocks = 0;

void* Take(std::size_t size) noexcept
{
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr)
        InterlockedIncrement(&g_liveBlocks);
    return block;
}

void Give(void* block) noexcept
{
    if (block != nullptr)
        InterlockedDecrement(&g_liveBlocks);
    std::free(block);
}

}  // namespace

void* operator new(std::size_t size)
{
    if (void* block = Take(size))
        return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Take(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Take(size); }
void operator delete(void* block) noexcept { Give(block); }
void operator delete[](void* block) noexcept { Give(block); }
void operator delete(void* block, std::size_t) noexcept { Give(block); }
void operator delete[](void* block, std::size_t) noexcept { Give(block); }

long LiveHeapBlocks()
{
    return g_liveBlocks;
}
