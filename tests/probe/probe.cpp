// Test-only exports of a copy of the module: every heap block that the module's
// C++ code takes is counted, so a test can see what a thread's end frees.

#include <windows.h>

#include "platform/error_text.h"
#include "tests/support/counting_new.h"

extern "C" {

__declspec(dllexport) LONG ProbeLiveAllocations()
{
    return LiveHeapBlocks();
}

__declspec(dllexport) void ProbeSetErrorText(const MetaObj::CMetaObjectHandler* handler, const char* text)
{
    MetaObj::SetErrorText(handler, text);
}

}  // extern "C"
