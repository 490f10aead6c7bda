#pragma once
// Loads the handler module as a host does: LoadLibrary, then its eight exports by name.

#include <windows.h>

#include <memory>
#include <string>

#include "plugin/exports.h"

class CHandlerModule {
public:
    // Null with a one-line reason when the file can't be loaded or lacks an export.
    static std::unique_ptr<CHandlerModule> Load(const std::string& path, std::string& error);
    ~CHandlerModule();
    CHandlerModule(const CHandlerModule&) = delete;
    CHandlerModule& operator=(const CHandlerModule&) = delete;

    HMODULE Handle() const { return module; }

    InitHandlerFn InitHandler = nullptr;
    SetEnvironmentFn SetEnvironment = nullptr;
    GetHandlerVersionFn GetHandlerVersion = nullptr;
    GetHandlerInfoFn GetHandlerInfo = nullptr;
    GetHandlerObjectFn GetHandlerObject = nullptr;
    FreeHandlerObjectFn FreeHandlerObject = nullptr;
    ProcessIdleFn ProcessIdle = nullptr;
    CleanUpHandlerFn CleanUpHandler = nullptr;

private:
    explicit CHandlerModule(HMODULE module) : module(module) {}
    HMODULE module;
};

// The module file that sits beside the running program.
std::string DefaultModulePath();
