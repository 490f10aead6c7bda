// Test-only additions to a copy of the module: every heap block that the
// module's C++ code takes is counted, so a test can see what a thread's end frees.

#include <windows.h>

#include "platform/error_text.h"
#include "tests/support/counting_new.h"

extern "C" {

LONG ProbeLiveAllocations()
{
    return LiveHeapBlocks();
}

void ProbeSetErrorText(const MetaObj::CMetaObjectHandler* handler, const char* text)
{
    MetaObj::SetErrorText(handler, text);
}

}  // extern "C"
