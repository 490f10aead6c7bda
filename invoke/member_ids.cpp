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
    if (!flag.TryEnter())
        return false;
    bool found = false;
    if (object == owner) {
        const auto at = ids.find(std::wstring_view(name));
        if (at != ids.end()) {
            id = at->second;
            found = true;
        }
    }
    flag.Leave();
    return found;
}

void CMemberIds::Remember(IDispatch* object, const wchar_t* name, DISPID id)
{
    if (id == -1 || !flag.TryEnter())
        return;
    try {
        if (object != owner) {
            ids.clear();
            owner = object;
        }
        if (ids.size() < kMostNames)
            ids.emplace(name, id);
    } catch (...) {
        // Not remembered: the next call asks the object again.
    }
    flag.Leave();
}

void CMemberIds::Forget()
{
    // This one must happen: the ids belong to an object that is going.
    flag.Enter();
    ids.clear();
    owner = nullptr;
    flag.Leave();
}

}  // namespace MetaObj
