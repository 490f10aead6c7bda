#pragma once
// One call of one member of a COM object, with the translation of the host's
// items into VARIANTs and back. The host reaches it only through the handler's
// slot operations; its table and fields are laid out as the host expects.

#include <windows.h>
#include <oaidl.h>

#include "discovery/method_kind.h"
#include "metaobj/model_fwd.h"
#include "metaobj/type_desc.h"
#include "plugin/handler_base.h"

namespace MetaObj {
class CMetaObjectStruct;
class CMetaObjectArray;
class CMetaObjectObject;
}  // namespace MetaObj

class CCOMMethodInvoke {
public:
    using MetaStatus = MetaObj::MetaStatus;

    // Resolves the key's member name by one GetIDsOfNames; an unknown name
    // leaves dispid at -1, which only Execute reports.
    CCOMMethodInvoke(IDispatch* dispatch, const MetaObj::CMetaString& methodKey);
    CCOMMethodInvoke(IDispatch* dispatch, DISPID dispid, MetaObj::MethodKind kind);
    CCOMMethodInvoke(const CCOMMethodInvoke&) = delete;
    CCOMMethodInvoke& operator=(const CCOMMethodInvoke&) = delete;

    // Frees the list, never the items: they stay the caller's.
    virtual ~CCOMMethodInvoke();
    // Appends to what an earlier call gave.
    virtual MetaStatus SetParams(const MetaObj::CItemList& list);
    virtual MetaStatus SetResultType(const MetaObj::CTypeDesc& type);
    // Runs the call; result, when not null, receives a new item or null.
    virtual MetaStatus Execute(MetaObj::CMethodInvokeStatus* status, MetaObj::CMetaObjectItem** result);

    // Items to VARIANTs. False: the item's type has no translation.
    bool ItemToVariant(MetaObj::CMetaObjectItem* item, VARIANT& out);
    bool RecordItemToVariant(MetaObj::CMetaObjectStruct* item, VARIANT& out);
    bool ArrayItemToVariant(MetaObj::CMetaObjectArray* item, VARIANT& out);

    // VARIANTs to items. The VARIANT stays the caller's and is not changed.
    MetaObj::CMetaObjectItem* VariantToItem(const VARIANT& value);
    MetaObj::CMetaObjectItem* ArrayVariantToItem(const VARIANT& value);
    // Writes an out or in/out argument back into the item that went out.
    bool VariantIntoItem(VARIANT value, MetaObj::CMetaObjectItem* item);
    void VariantToText(const VARIANT& value, MetaObj::CMetaObjectItem* item);
    bool RecordVariantToStruct(const VARIANT& value, MetaObj::CMetaObjectStruct* item);

    // Field order is shared with the host.
    IDispatch* dispatch;  // borrowed from the handler, which outlives the call
    DISPID dispid = -1;
    MetaObj::CItemList params;
    MetaObj::MethodKind kind = MetaObj::MethodKindInvoke;
    MetaObj::CTypeDesc resultType;  // kept for the host; results go by their own VARIANT type
};

namespace MetaObj {

// A new item of the class that fits the type, with the type assigned; null
// for a type that has no item.
CMetaObjectItem* MakeItemForType(const CTypeDesc& type);
// Writes one collection element into an item made for its type. A date or
// currency element is left converted to VT_BSTR, for the caller to clear.
void ElementIntoItem(VARIANT* element, CMetaObjectItem* item);
// The GUID of the object's first type information.
bool GetDispatchTypeGuid(IDispatch* dispatch, GUID* out);

// Gives the item a new handler that holds the object. The caller hands over
// exactly one reference on object (none when it is null). identity, when not
// null, becomes the handler's.
void WrapObject(IDispatch* object, CMetaObjectObject& item, const CObjectIdentity* identity);

}  // namespace MetaObj
