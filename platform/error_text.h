#pragma once
// Per-thread error texts: each thread keeps a map from handler to its last text,
// hung in one thread-local slot, so no lock is needed.

#include <windows.h>

#include <cstdint>
#include <map>

#include "text/meta_string.h"

namespace MetaObj {

class CMetaObjectHandler;

struct CHandlerErrorEntry {
    CMetaString text;
    std::uint64_t stamp = 0;  // when it was set, to find the oldest
};

// Keyed by the handler's address. Only texts that say something are kept: an
// empty text removes the entry, and so does the handler's end on this thread,
// so a thread that lives for months with handlers coming and going keeps a
// bounded map. (The texts used to stay until the thread ended; a pooled worker
// thread then grew without bound.) A reference to a text holds until the next
// operation on that handler on this thread.
using CHandlerErrorMap = std::map<std::uintptr_t, CHandlerErrorEntry>;

// At most this many texts per thread; the oldest goes first. Only texts of
// handlers that ended on another thread, or that failed and were never used
// again, pile up there.
constexpr std::size_t kMostThreadErrorTexts = 256;

// This thread's map, made on first use; null if none could be made.
CHandlerErrorMap* GetThreadErrorMap();
void SetErrorText(const CMetaObjectHandler* handler, const char* text);
void SetErrorTextById(const CMetaObjectHandler* handler, UINT id);
// This thread's text for the handler, or kEmptyMetaString; never a null reference.
const CMetaString& GetThreadErrorText(const CMetaObjectHandler* handler);
// The handler ends: its text on this thread goes with it.
void ForgetErrorText(const CMetaObjectHandler* handler);

// Called from the module's entry point.
void ErrorTextProcessAttach();
void ErrorTextThreadDetach();
void ErrorTextProcessDetach();

}  // namespace MetaObj
