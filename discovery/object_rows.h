#pragma once
// What the registry says about an identity's class, as a record with labelled rows.

#include "identity/com_identity.h"
#include "metaobj/records.h"

namespace MetaObj {

// False when the identity's object name gives no class text; the record then
// stays as built.
bool FillObjectInfo(CObjectInfo& info, const CCOMIdentity& identity, bool withProperties);

}  // namespace MetaObj
