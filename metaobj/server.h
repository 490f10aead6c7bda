#pragma once
// The root of the framework on the host's side. The module keeps one static
// instance for the life of the load; no operation of this module touches it,
// so its containers stay empty.

#include <cstdint>
#include <list>

#include "contract/handler_base.h"
#include "metaobj/records.h"

namespace MetaObj {

class CMetaObjectServer {
public:
    CMetaObjectServer();
    CMetaObjectServer(const CMetaObjectServer&) = delete;
    CMetaObjectServer& operator=(const CMetaObjectServer&) = delete;
    virtual ~CMetaObjectServer();

    struct Registry {
        std::list<void*> first;
        std::list<void*> second;
        CMetaString name;
        CMetaString description;
    };
    struct TableStore {
        std::list<CMetaObjectMethodTable*> tables;  // owned
        CMetaLock lock;
        std::uint32_t count = 0;
    };

    std::list<void*> handlers;
    Registry registry;
    CMetaLock lock;
    TableStore store;
};

}  // namespace MetaObj
