#include "metaobj/server.h"

#include <cstdint>

#include "text/mox_data.h"

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

// The framework's own statics, built after the info record and the empty
// string (which have priorities) and kept for the life of the load. Nothing in
// this module reads them.
namespace {
struct CMoxTextWithWord {
    MetaObj::MoxText text;
    std::uint32_t word = 0;
};
MetaObj::MoxText g_frameworkText;
CMoxTextWithWord g_frameworkTextWithWord;
MetaObj::CMetaObjectServer g_frameworkServer;
}  // namespace
