#pragma once
// Calls into the platform that read type information, with a fault of the
// platform's own contained: some installed libraries make oleaut32 read a bad
// address while it describes a member, and the host must not die of it.

#include <windows.h>

#include <type_traits>

namespace MetaObj {

// What a contained call answers when the platform faulted inside it.
constexpr HRESULT kContainedFault = HRESULT_FROM_WIN32(ERROR_NOACCESS);

using PlatformCall = HRESULT (*)(void* context);

// Runs call(context) and answers its result, or kContainedFault when a hardware
// fault (a bad read or write, an illegal instruction) happened inside it on
// this thread. What the faulting code held is abandoned, so keep the call a
// single platform method: no C++ object of ours may live inside it.
HRESULT CallContained(PlatformCall call, void* context);

template <typename Call>
HRESULT ContainFault(Call&& call)
{
    using Callable = std::remove_reference_t<Call>;
    return CallContained([](void* context) { return (*static_cast<Callable*>(context))(); },
                         const_cast<void*>(static_cast<const void*>(&call)));
}

// Called from the module's entry point when the process lets the module go.
void ContainedCallsProcessDetach();

}  // namespace MetaObj
