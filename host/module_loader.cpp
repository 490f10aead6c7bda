#include "host/module_loader.h"

namespace {

constexpr const char* kModuleFileName = "comhandler.dll";

template <typename Fn>
bool Resolve(HMODULE module, const char* name, Fn& slot, std::string& error)
{
    slot = reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (slot == nullptr)
        error = std::string("the module has no export ") + name;
    return slot != nullptr;
}

}  // namespace

std::unique_ptr<CHandlerModule> CHandlerModule::Load(const std::string& path, std::string& error)
{
    HMODULE handle = LoadLibraryA(path.c_str());
    if (handle == nullptr) {
        error = "cannot load module " + path + " (error " + std::to_string(GetLastError()) + ")";
        return nullptr;
    }
    std::unique_ptr<CHandlerModule> loaded(new CHandlerModule(handle));
    const bool complete = Resolve(handle, "InitHandler", loaded->InitHandler, error) &&
                          Resolve(handle, "SetEnvironment", loaded->SetEnvironment, error) &&
                          Resolve(handle, "GetHandlerVersion", loaded->GetHandlerVersion, error) &&
                          Resolve(handle, "GetHandlerInfo", loaded->GetHandlerInfo, error) &&
                          Resolve(handle, "GetHandlerObject", loaded->GetHandlerObject, error) &&
                          Resolve(handle, "FreeHandlerObject", loaded->FreeHandlerObject, error) &&
                          Resolve(handle, "ProcessIdle", loaded->ProcessIdle, error) &&
                          Resolve(handle, "CleanUpHandler", loaded->CleanUpHandler, error);
    if (!complete)
        return nullptr;
    return loaded;
}

CHandlerModule::~CHandlerModule()
{
    FreeLibrary(module);
}

std::string DefaultModulePath()
{
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string directory(path);
    const std::size_t separator = directory.find_last_of("\\/");
    directory = separator == std::string::npos ? std::string() : directory.substr(0, separator + 1);
    return directory + kModuleFileName;
}
