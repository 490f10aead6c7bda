#pragma once
// What the host passes to Open. The host's record: its field order is fixed, and
// the module only reads it.

#include <cstdint>

#include "text/meta_string.h"

namespace MetaObj {

struct CObjectOpenParams {
    std::uint32_t hostWords[2] = {0, 0};
    CMetaString moniker;  // display name for a moniker; empty if none
    CMetaString hostText;
    std::uint8_t useRunningObject = 0;
    CMetaString host;  // defaults for the identity's Host, Username, Password, Domain
    CMetaString userName;
    CMetaString password;
    CMetaString domain;
};

}  // namespace MetaObj
