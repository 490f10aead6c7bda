#pragma once
// What an object answered for its members' names. COM fixes the dispatch id of
// a name for the life of an object, so a handler asks once per name and builds
// later calls from what it remembers.

#include <windows.h>
#include <oaidl.h>

#include <functional>
#include <map>
#include <string>

#include "platform/try_flag.h"

namespace MetaObj {

// The object's id for a name: GetIDsOfNames, then IDispatchEx for objects of
// script engines that answer names only there; -1 when neither knows it.
DISPID ResolveMemberName(IDispatch* dispatch, const wchar_t* name);

// Ids of one object, shared by the threads that call through one handler. A
// thread that finds the ids busy with another asks the object itself, which is
// always right, rather than wait: a look-up costs less than a lock that waits.
class CMemberIds {
public:
    CMemberIds() = default;
    CMemberIds(const CMemberIds&) = delete;
    CMemberIds& operator=(const CMemberIds&) = delete;

    // The id remembered for name on this very object, if any.
    bool Find(IDispatch* object, const wchar_t* name, DISPID& id) const;
    // Names that found nothing are not kept: a script object may gain them.
    void Remember(IDispatch* object, const wchar_t* name, DISPID id);
    // The handler's object changes.
    void Forget();

private:
    // A script can't grow this without bound with names of its own making.
    static constexpr std::size_t kMostNames = 256;

    mutable CTryFlag flag;
    IDispatch* owner = nullptr;  // not a reference: the handler holds the object
    std::map<std::wstring, DISPID, std::less<>> ids;
};

}  // namespace MetaObj
