// The eight exports. They stay thin: all real work passes through the handler.

#include "plugin/exports.h"

#include <objbase.h>

#include "contract/host_environment.h"
#include "platform/module_state.h"
#include "plugin/com_handler.h"

extern "C" {

bool InitHandler(HINSTANCE module)
{
    if (module == nullptr)
        return false;
    // Exactly S_OK: a thread whose COM is already up (S_FALSE) is refused, and
    // nothing is undone for it.
    if (CoInitializeEx(nullptr, COINIT_MULTITHREADED) != S_OK)
        return false;
    HandlerInfo().LoadFromModule(module);
    return true;
}

void SetEnvironment(MetaObj::CHandlerEnvironment* environment)
{
    MetaObj::SetEnvironmentTable(environment);
}

std::uint32_t GetHandlerVersion()
{
    return kHandlerVersion;
}

MetaObj::CMetaObjectHandlerInfo* GetHandlerInfo()
{
    return &HandlerInfo();
}

MetaObj::CMetaObjectHandler* GetHandlerObject()
{
    return NewRegisteredHandler();
}

void FreeHandlerObject(MetaObj::CMetaObjectHandler* handler)
{
    // A COM object the handler still holds is not released here.
    delete handler;
}

std::uint32_t ProcessIdle()
{
    CoFreeUnusedLibraries();
    return 1;
}

bool CleanUpHandler()
{
    CoUninitialize();
    return true;
}

}  // extern "C"
