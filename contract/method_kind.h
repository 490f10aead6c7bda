#pragma once
#include <cstdint>

namespace MetaObj {

// How a member is called; the prefix of its method key says the same.
enum MethodKind : std::uint32_t {
    MethodKindInvoke = 0,
    MethodKindGet = 1,
    MethodKindSet = 2,
    MethodKindSetRef = 3,
};

}  // namespace MetaObj
