// Test-only exports of a copy of the module that counts the heap blocks its C++ code takes.

#include <windows.h>

#include "platform/block_cache.h"
#include "platform/error_text.h"
#include "tests/support/counting_new.h"

extern "C" {

// Blocks kept for reuse hold nothing, so they are given back before the count.
__declspec(dllexport) LONG ProbeLiveAllocations()
{
    MetaObj::DrainBlocks();
    return LiveHeapBlocks();
}

__declspec(dllexport) void ProbeSetErrorText(const MetaObj::CMetaObjectHandler* handler, const char* text)
{
    MetaObj::SetErrorText(handler, text);
}

}  // extern "C"
