#include "platform/contained_call.h"

namespace MetaObj {
namespace {

// How it works: one vectored exception handler for the process, added on first
// use. While a contained call runs, its thread holds a frame with a jump buffer;
// a hardware fault on that thread resumes, through the handler, in a function
// that jumps back to that buffer, so the call answers kContainedFault. Other
// exceptions, and faults on threads outside a contained call, go on to the
// process's own handlers untouched.
// What it costs: per call, a non-unwinding setjmp and two thread-local writes;
// per exception anywhere in the process, one thread-local read. A fault leaves
// whatever the platform's code held at that point (memory, a lock) behind.
struct FaultFrame {
    void* jump[5];  // the layout __builtin_setjmp wants
    FaultFrame* outer;
};

// A plain slot, not thread_local: reading it inside the handler must never allocate.
INIT_ONCE g_setUp = INIT_ONCE_STATIC_INIT;
DWORD g_frameSlot = TLS_OUT_OF_INDEXES;
PVOID g_handler = nullptr;

FaultFrame* CurrentFrame()
{
    return static_cast<FaultFrame*>(TlsGetValue(g_frameSlot));
}

bool IsHardwareFault(DWORD code)
{
    switch (code) {
    case EXCEPTION_ACCESS_VIOLATION:
    case EXCEPTION_IN_PAGE_ERROR:
    case EXCEPTION_ILLEGAL_INSTRUCTION:
    case EXCEPTION_PRIV_INSTRUCTION:
    case EXCEPTION_DATATYPE_MISALIGNMENT:
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
        return true;
    default:
        return false;
    }
}

[[noreturn]] void ResumeAfterFault()
{
    __builtin_longjmp(CurrentFrame()->jump, 1);
}

LONG CALLBACK OnException(EXCEPTION_POINTERS* exception)
{
    if (!IsHardwareFault(exception->ExceptionRecord->ExceptionCode))
        return EXCEPTION_CONTINUE_SEARCH;
    const DWORD lastError = GetLastError();  // TlsGetValue clears it
    const bool contained = CurrentFrame() != nullptr;
    SetLastError(lastError);
    if (!contained)
        return EXCEPTION_CONTINUE_SEARCH;
    // Resume on a fresh, aligned stack slot below the fault, as if called there.
    CONTEXT* context = exception->ContextRecord;
#ifdef _WIN64
    context->Rsp = ((context->Rsp - 1024) & ~static_cast<DWORD64>(15)) - 8;
    context->Rip = reinterpret_cast<DWORD64>(&ResumeAfterFault);
#else
    context->Esp = ((context->Esp - 1024) & ~static_cast<DWORD>(15)) - 4;
    context->Eip = reinterpret_cast<DWORD>(&ResumeAfterFault);
#endif
    return EXCEPTION_CONTINUE_EXECUTION;
}

BOOL CALLBACK SetUp(INIT_ONCE*, void*, void**)
{
    g_frameSlot = TlsAlloc();
    if (g_frameSlot != TLS_OUT_OF_INDEXES)
        g_handler = AddVectoredExceptionHandler(1, OnException);
    return TRUE;
}

// Not inlined: the jump buffer holds this frame, which must stay as it was.
__attribute__((noinline)) HRESULT RunInFrame(FaultFrame& frame, PlatformCall call, void* context)
{
    if (__builtin_setjmp(frame.jump) != 0)
        return kContainedFault;
    return call(context);
}

}  // namespace

HRESULT CallContained(PlatformCall call, void* context)
{
    InitOnceExecuteOnce(&g_setUp, SetUp, nullptr, nullptr);
    if (g_handler == nullptr)
        return call(context);  // nothing to contain with: as an uncontained call
    FaultFrame frame{};
    frame.outer = CurrentFrame();
    TlsSetValue(g_frameSlot, &frame);
    const HRESULT result = RunInFrame(frame, call, context);
    TlsSetValue(g_frameSlot, frame.outer);
    return result;
}

void ContainedCallsProcessDetach()
{
    // The handler's code leaves with the module.
    if (g_handler != nullptr)
        RemoveVectoredExceptionHandler(g_handler);
    if (g_frameSlot != TLS_OUT_OF_INDEXES)
        TlsFree(g_frameSlot);
    g_handler = nullptr;
    g_frameSlot = TLS_OUT_OF_INDEXES;
}

}  // namespace MetaObj
