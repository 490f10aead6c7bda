// The module's entry point runs the thread slot of the per-thread error texts,
// and takes away the fault handler of contained platform calls when it leaves.

#include <windows.h>

#include "platform/contained_call.h"
#include "platform/error_text.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        MetaObj::ErrorTextProcessAttach();
        break;
    case DLL_THREAD_DETACH:
        MetaObj::ErrorTextThreadDetach();
        break;
    case DLL_PROCESS_DETACH:
        MetaObj::ContainedCallsProcessDetach();
        MetaObj::ErrorTextProcessDetach();
        break;
    default:
        break;
    }
    return TRUE;
}
