#pragma once
// The catalogue of an object: one method entry for each way of calling a
// member, handed to the host for the identity, and read back from the host's
// table when the host asks about a method.

#include <oaidl.h>

#include <cstdint>

#include "contract/handler_base.h"
#include "discovery/type_library.h"
#include "identity/object_identity.h"
#include "metaobj/records.h"

namespace MetaObj {

// Dispatch type infos give their functions, then their variables (setter, then
// getter); other kinds add nothing. NoTypeInfo when a TYPEATTR can't be had.
MetaStatus ReadTypeInfos(CObjectIdentity& identity, const CTypeInfoList& list);
// Restricted and hidden functions, and the plumbing of IUnknown and IDispatch
// by exact name, are not offered.
bool IsCallableMember(const FUNCDESC& function, const wchar_t* name);
// The first entry of the key's kind whose name matches exactly; null if none.
const CMethodEntry* FindMethodEntry(CObjectIdentity& identity, const CMetaString& methodKey);
void FillMethodInfo(const CMethodEntry& entry, std::uint32_t mask, CMethodInfo& info);
void FillParamInfo(const CParamEntry& param, std::uint32_t mask, CParamInfo& info);

}  // namespace MetaObj
