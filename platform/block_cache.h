#pragma once
// Freed blocks of the module's small, short-lived objects (items, calls),
// kept for the next object of the same size. Under Wine a trip to the heap
// takes its lock and costs more than a whole call's own work, and a host makes
// and frees such objects for every statement and every element it reads.

#include <cstddef>

namespace MetaObj {

// A block of at least size bytes, from the cache or else from operator new.
void* TakeBlock(std::size_t size);
// Gives back a block that TakeBlock gave for the same size.
void GiveBlock(void* block, std::size_t size) noexcept;
// Frees every kept block, the text buffers kept and what the drains added below
// keep: at unload, and before a count of live blocks.
void DrainBlocks() noexcept;
// An upper layer's own store of kept objects, drained with the blocks. Added
// while the binary's objects are made; at most four.
void AddDrain(void (*drain)() noexcept) noexcept;
}  // namespace MetaObj
