#include "metaobj/server.h"

namespace MetaObj {

CMetaObjectServer::CMetaObjectServer() = default;

CMetaObjectServer::~CMetaObjectServer()
{
    {
        CMetaLockGuard guard(store.lock);
        for (CMetaObjectMethodTable* table : store.tables)
            delete table;
        store.tables.clear();
        store.count = 0;
    }
    store.lock.Destroy();
    lock.Destroy();
}

}  // namespace MetaObj
