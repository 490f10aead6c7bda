#include "invoke/member_ids.h"

#include <dispex.h>

#include <string_view>

#include "invoke/variant_owner.h"
#include "platform/platform_handles.h"

namespace MetaObj {

DISPID ResolveMemberName(IDispatch* dispatch, const wchar_t* name)
{
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    DISPID found = -1;
    if (SUCCEEDED(dispatch->GetIDsOfNames(IID_NULL, names, 1, GetUserDefaultLCID(), &found)))
        return found;
    ComPtr<IDispatchEx> extended;
    if (SUCCEEDED(dispatch->QueryInterface(__uuidof(IDispatchEx), extended.PutVoid())) && extended) {
        Bstr text(AllocBstr(name, false));
        if (SUCCEEDED(extended->GetDispID(text.Get(), fdexNameCaseInsensitive, &found)))
            return found;
    }
    return -1;
}

bool CMemberIds::Find(IDispatch* object, const wchar_t* name, DISPID& id) const
{
    AcquireSRWLockShared(&lock);
    bool found = false;
    if (object == owner) {
        const auto at = ids.find(std::wstring_view(name));
        if (at != ids.end()) {
            id = at->second;
            found = true;
        }
    }
    ReleaseSRWLockShared(&lock);
    return found;
}

void CMemberIds::Remember(IDispatch* object, const wchar_t* name, DISPID id)
{
    if (id == -1)
        return;
    AcquireSRWLockExclusive(&lock);
    if (object != owner) {
        ids.clear();
        owner = object;
    }
    if (ids.size() < kMostNames)
        ids.emplace(name, id);
    ReleaseSRWLockExclusive(&lock);
}

void CMemberIds::Forget()
{
    AcquireSRWLockExclusive(&lock);
    ids.clear();
    owner = nullptr;
    ReleaseSRWLockExclusive(&lock);
}

}  // namespace MetaObj
