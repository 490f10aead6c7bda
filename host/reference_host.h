#pragma once
// A reference host: the table of callbacks a real host hands to the module, with
// the state behind it. Used by the tests and by the tool.

#include <windows.h>

#include <set>
#include <string>
#include <vector>

#include "plugin/host_environment.h"

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

    // Access policy: everything is allowed until a program identifier is denied.
    // Names are matched without regard to case, as the registry matches them.
    void AllowAll();
    void Deny(const std::string& progId);
    std::vector<std::string> AccessRequests() const;  // object names asked about, in order

private:
    static bool RegisterHandler(void* context, MetaObj::CMetaObjectHandler* handler, HINSTANCE module);
    static bool CheckObjectAccess(MetaObj::CMetaObjectSecurityInfo* info);

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
};
