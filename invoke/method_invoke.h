#pragma once
// One call of one member of a COM object, with the translation of the host's
// items into VARIANTs and back. The host reaches it only through the handler's
// slot operations; its table and fields are laid out as the host expects.

#include <windows.h>
#include <oaidl.h>

#include <cstdint>

#include "contract/handler_base.h"
#include "contract/method_kind.h"
#include "contract/model_fwd.h"
#include "metaobj/array_walker.h"
#include "metaobj/type_desc.h"
#include "platform/block_cache.h"

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
    // A host builds a call for each statement it runs.
    static void* operator new(std::size_t size) { return MetaObj::TakeBlock(size); }
    static void operator delete(void* block, std::size_t size) noexcept { MetaObj::GiveBlock(block, size); }
    // Appends to what an earlier call gave.
    virtual MetaStatus SetParams(const MetaObj::CItemList& list);
    virtual MetaStatus SetResultType(const MetaObj::CTypeDesc& type);
    // Runs the call; result, when not null, receives a new item or null.
    virtual MetaStatus Execute(MetaObj::CMethodInvokeStatus* status, MetaObj::CMetaObjectItem** result);

    // Items to VARIANTs. False: the item's type has no translation.
    bool ItemToVariant(MetaObj::CMetaObjectItem* item, VARIANT& out);
    bool RecordItemToVariant(MetaObj::CMetaObjectStruct* item, VARIANT& out);
    // An out or in/out array goes by reference, in a cell the argument owns.
    bool ArrayItemToVariant(MetaObj::CMetaObjectArray* item, VARIANT& out);

    // VARIANTs to items. The VARIANT stays the caller's and is not changed.
    MetaObj::CMetaObjectItem* VariantToItem(const VARIANT& value);
    // Null without an array, or for one of no or more than 100 dimensions or
    // more elements than 32 bits count. depth counts nested VT_VARIANT arrays.
    MetaObj::CMetaObjectItem* ArrayVariantToItem(const VARIANT& value, int depth = 0);
    void ReadArrayElements(MetaObj::CMetaObjectArray* item, VARTYPE elementType, SAFEARRAY* array,
                           MetaObj::CArrayWalker& walker, int depth = 0);
    // Replaces the elements and shape of an out or in/out array with the array
    // that came back; false, and the item unchanged, when none did.
    bool ArrayVariantIntoItem(const VARIANT& value, MetaObj::CMetaObjectArray* item);
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

// The most dimensions an array may have, either way.
constexpr std::uint32_t kMaxArrayDimensions = 100;

// For each dimension, its lower and inclusive upper bound into the vectors, and
// when type has bounds, a bound of the same shape appended to them.
void ReadArrayBounds(SAFEARRAY* array, std::uint32_t dimensionCount, CTypeDesc& type, std::int32_t* lower,
                     std::int32_t* upper);

// A new item of the class that fits the type, with the type assigned; null
// for a type that has no item.
CMetaObjectItem* MakeItemForType(const CTypeDesc& type);
// The same for a type that is its code alone (not by reference, no array), as
// a collection's element's is, without a descriptor made to say so.
CMetaObjectItem* MakeItemForPlainType(std::uint32_t type);
// Writes one collection element into an item made for its type. A date or
// currency element is left converted to VT_BSTR, for the caller to clear.
void ElementIntoItem(VARIANT* element, CMetaObjectItem* item);
// The GUID of the object's first type information.
bool GetDispatchTypeGuid(IDispatch* dispatch, GUID* out);

// Makes a registered handler with one use that holds object, taking over the
// one reference handed in (none for null). Only the handler's layer above can
// make one, so it hands its maker down when the module loads.
using ObjectHandlerMaker = CMetaObjectHandler* (*)(IDispatch* object);
void SetObjectHandlerMaker(ObjectHandlerMaker maker);

// Gives the item a new handler that holds the object. The caller hands over
// exactly one reference on object (none when it is null). identity, when not
// null, becomes the handler's.
void WrapObject(IDispatch* object, CMetaObjectObject& item, const CObjectIdentity* identity);

}  // namespace MetaObj
