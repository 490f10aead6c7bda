#pragma once
// Per-thread error texts: each thread keeps a map from handler to its last text,
// hung in one thread-local slot, so no lock is needed.

#include <windows.h>

#include <cstdint>
#include <map>

#include "text/meta_string.h"

namespace MetaObj {

class CMetaObjectHandler;

// Keyed by the handler's address; entries stay until the thread ends.
using CHandlerErrorMap = std::map<std::uintptr_t, CMetaString>;

// This thread's map, made on first use; null if none could be made.
CHandlerErrorMap* GetThreadErrorMap();
void SetErrorText(const CMetaObjectHandler* handler, const char* text);
void SetErrorTextById(const CMetaObjectHandler* handler, UINT id);
// This thread's entry for the handler, made empty if missing; never a null reference.
const CMetaString& GetThreadErrorText(const CMetaObjectHandler* handler);

// Called from the module's entry point.
void ErrorTextProcessAttach();
void ErrorTextThreadDetach();
void ErrorTextProcessDetach();

}  // namespace MetaObj
