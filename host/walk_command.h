#pragma once
// comtool walk: opens an object, follows a chain of calls to a collection and
// walks it through the module's enumerator operations.

#include <cstdint>
#include <string>
#include <vector>

#include "contract/handler_base.h"
#include "host/call_session.h"
#include "host/module_loader.h"
#include "host/reference_host.h"

namespace Tool {

struct WalkCommand {
    std::string identity;
    // Each call without a target goes to the object the one before returned; a
    // last entry that is a bare handle, such as "@2", names the collection.
    std::vector<std::string> calls;
    std::vector<std::string> each;  // run on every element that is an object
    OpenOptions options;
    std::uint32_t skip = 0;
    std::int64_t max = -1;  // -1: to the end
    bool asJson = false;
};

// The caller's enumerator slot, closed on destruction through the handler that
// opened it; the handler's object must outlive it.
class CEnumeratorSlot {
public:
    explicit CEnumeratorSlot(MetaObj::CMetaObjectHandler& handler) : handler(handler) {}
    ~CEnumeratorSlot()
    {
        if (slot != nullptr)
            handler.CloseEnumerator(&slot);
    }
    CEnumeratorSlot(const CEnumeratorSlot&) = delete;
    CEnumeratorSlot& operator=(const CEnumeratorSlot&) = delete;

    IEnumVARIANT** Slot() { return &slot; }

private:
    MetaObj::CMetaObjectHandler& handler;
    IEnumVARIANT* slot = nullptr;
};

// 0 when the walk reached its end or its maximum; kExitCallFailed when the
// object couldn't be opened, a call failed or there was no collection;
// kExitBadInput for a call that couldn't be read.
int RunWalkCommand(CHandlerModule& module, CReferenceHost& host, const WalkCommand& command);

}  // namespace Tool
