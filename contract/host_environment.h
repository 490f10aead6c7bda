#pragma once
// The host's table of callbacks, handed over by SetEnvironment. The module only reads it.
// Each word is pointer-sized: 32 bits in a 32-bit host, 64 in a 64-bit one.

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace MetaObj {

class CObjectIdentity;
class CMethodEntry;
class CMetaObjectMethodTable;
class CMetaObjectSecurityInfo;
class CMetaObjectHandler;

struct CHandlerEnvironment {
    using BeginObjectLoadFn = bool (*)(void* context, CObjectIdentity* identity, std::uint8_t* mustLoad);
    using EndObjectLoadFn = bool (*)(void* context, CObjectIdentity* identity, std::uint8_t succeeded);
    using ReleaseObjectLoadFn = bool (*)(void* context, CObjectIdentity* identity);
    using AddMethodEntryFn = bool (*)(void* context, CObjectIdentity* identity, CMethodEntry* entry);
    using GetMethodTableFn = CMetaObjectMethodTable* (*)(void* context, CObjectIdentity* identity);
    using RegisterHandlerFn = bool (*)(void* context, CMetaObjectHandler* handler, HINSTANCE module);
    using CheckObjectAccessFn = bool (*)(CMetaObjectSecurityInfo* info);

    void* context;                            // word 0
    void* hostWords[19];                      // words 1-19, the host's own
    BeginObjectLoadFn BeginObjectLoad;        // word 20
    EndObjectLoadFn EndObjectLoad;            // word 21
    ReleaseObjectLoadFn ReleaseObjectLoad;    // word 22
    AddMethodEntryFn AddMethodEntry;          // word 23
    void* ReservedEntry;                      // word 24: never called, must not be null
    GetMethodTableFn GetMethodTable;          // word 25
    RegisterHandlerFn RegisterHandler;        // word 26
    CheckObjectAccessFn CheckObjectAccess;    // word 27
};

static_assert(offsetof(CHandlerEnvironment, BeginObjectLoad) == 20 * sizeof(void*), "word 20");
static_assert(offsetof(CHandlerEnvironment, CheckObjectAccess) == 27 * sizeof(void*), "word 27");
static_assert(sizeof(CHandlerEnvironment) == 28 * sizeof(void*), "28 words");

// The table given by SetEnvironment; null until then.
CHandlerEnvironment* Environment();
void SetEnvironmentTable(CHandlerEnvironment* table);

// Words 0 and 20-25 all set. Only then are the load entries called.
bool IsValid(const CHandlerEnvironment* table);

// Call wrappers: they take the arguments after the context and give the
// documented neutral answer when the table is not valid.
bool HostBeginObjectLoad(CObjectIdentity& identity, std::uint8_t& mustLoad);
bool HostEndObjectLoad(CObjectIdentity& identity, bool succeeded);
void HostReleaseObjectLoad(CObjectIdentity& identity);
void HostAddMethodEntry(CObjectIdentity& identity, CMethodEntry& entry);
CMetaObjectMethodTable* HostGetMethodTable(CObjectIdentity& identity);
// Called only when the context word is set; the result is not read.
void HostRegisterHandler(CMetaObjectHandler* handler, HINSTANCE module);
// No table, or no entry: access is allowed.
bool HostCheckObjectAccess(CMetaObjectSecurityInfo& info);

}  // namespace MetaObj
