#pragma once
// A reference host: the table of callbacks a real host hands to the module, with
// the state behind it. Used by the tests and by the tool.

#include <windows.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "metaobj/records.h"
#include "plugin/exports.h"

#include "contract/host_environment.h"

class CReferenceHost {
public:
    struct Registration {
        MetaObj::CMetaObjectHandler* handler;
        HINSTANCE module;
    };

    CReferenceHost();
    ~CReferenceHost();
    CReferenceHost(const CReferenceHost&) = delete;
    CReferenceHost& operator=(const CReferenceHost&) = delete;

    // The table to give to SetEnvironment; lives as long as this host.
    MetaObj::CHandlerEnvironment* Table() { return &table; }

    std::vector<Registration> Registrations() const;

    // A host frees a handler once all its uses are gone: handlers the module
    // made for returned objects as well as its own. Frees every registered
    // handler whose use count is 0 through the module's FreeHandlerObject, and
    // forgets it; returns how many went.
    std::size_t FreeReleasedHandlers(FreeHandlerObjectFn freeHandler);
    // For a handler the host frees itself: it is no longer looked at.
    void Forget(MetaObj::CMetaObjectHandler* handler);

    // Access policy: everything is allowed until a program identifier is denied.
    // Names are matched without regard to case, as the registry matches them.
    void AllowAll();
    void Deny(const std::string& progId);
    std::vector<std::string> AccessRequests() const;  // object names asked about, in order
    // Forgets the access requests and load calls recorded so far, so that a
    // long run's records don't grow without end.
    void ClearRecords();

    // How the host answers the next BeginObjectLoad. A table already loaded for
    // an identity is not loaded twice unless Reload is asked for.
    enum class LoadAnswer { Normal, Refuse, NothingToLoad, Reload };
    void AnswerNextLoad(LoadAnswer answer);
    void RefuseEnds(bool refuse);
    // The load entries the module called, in order: "Begin", "Add", "End", "Release".
    std::vector<std::string> LoadCalls() const;
    bool IsLoaded(const std::string& identityText) const;

private:
    struct LoadState {
        MetaObj::CMetaObjectMethodTable table;  // entries are copies this host owns
        bool loading = false;
        bool loaded = false;
        int users = 0;
    };

    static bool RegisterHandler(void* context, MetaObj::CMetaObjectHandler* handler, HINSTANCE module);
    static bool CheckObjectAccess(MetaObj::CMetaObjectSecurityInfo* info);
    static bool BeginObjectLoad(void* context, MetaObj::CObjectIdentity* identity, std::uint8_t* mustLoad);
    static bool EndObjectLoad(void* context, MetaObj::CObjectIdentity* identity, std::uint8_t succeeded);
    static bool ReleaseObjectLoad(void* context, MetaObj::CObjectIdentity* identity);
    static bool AddMethodEntry(void* context, MetaObj::CObjectIdentity* identity, MetaObj::CMethodEntry* entry);
    static MetaObj::CMetaObjectMethodTable* GetMethodTable(void* context, MetaObj::CObjectIdentity* identity);
    static void ReservedEntry();
    static void DeleteEntries(MetaObj::CMetaObjectMethodTable& table);

    class Lock {
    public:
        explicit Lock(CRITICAL_SECTION& section) : section(section) { EnterCriticalSection(&section); }
        ~Lock() { LeaveCriticalSection(&section); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        CRITICAL_SECTION& section;
    };

    MetaObj::CHandlerEnvironment table{};
    // Handlers may register from any thread of the host.
    mutable CRITICAL_SECTION section;
    std::vector<Registration> registrations;
    std::set<std::string> denied;
    std::vector<std::string> accessRequests;
    std::map<std::string, LoadState> loads;  // by identity text
    LoadAnswer nextAnswer = LoadAnswer::Normal;
    bool refuseEnds = false;
    std::vector<std::string> loadCalls;
};
