#pragma once
// The module's eight exports, found by these plain names. The typedefs are the
// host's view of them.

#include <windows.h>

#include <cstdint>

namespace MetaObj {
struct CHandlerEnvironment;
class CMetaObjectHandler;
class CMetaObjectHandlerInfo;
}  // namespace MetaObj

extern "C" {
using InitHandlerFn = bool (*)(HINSTANCE module);
using SetEnvironmentFn = void (*)(MetaObj::CHandlerEnvironment* environment);
using GetHandlerVersionFn = std::uint32_t (*)();
using GetHandlerInfoFn = MetaObj::CMetaObjectHandlerInfo* (*)();
using GetHandlerObjectFn = MetaObj::CMetaObjectHandler* (*)();
using FreeHandlerObjectFn = void (*)(MetaObj::CMetaObjectHandler* handler);
using ProcessIdleFn = std::uint32_t (*)();
using CleanUpHandlerFn = bool (*)();
}

constexpr std::uint32_t kHandlerVersion = 0x00020000;
