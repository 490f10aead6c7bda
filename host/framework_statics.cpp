// The framework's shared empty string, for programs that use the framework's
// records without the module's own copy of it linked in.

#include "text/meta_string.h"

const MetaObj::CMetaString MetaObj::kEmptyMetaString{};
