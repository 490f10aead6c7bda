#pragma once
// Items that hold more than a plain value: a struct of member items, an array
// of element items in one flat block, and an object item holding a use of a
// handler. Their text forms carry no content.

#include <cstdint>

#include "contract/handler_base.h"
#include "metaobj/array_walker.h"
#include "metaobj/item.h"

namespace MetaObj {

class CMetaObjectStruct : public CMetaObjectItem {
public:
    // Clones the items of the list, which stays the caller's.
    explicit CMetaObjectStruct(const CItemList* members = nullptr);
    CMetaObjectStruct(const CMetaObjectStruct& other);
    ~CMetaObjectStruct() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    void ClearMembers();
    void SetMembers(const CItemList& items);

    CItemList members;  // owned
};

class CMetaObjectArray : public CMetaObjectItem {
public:
    CMetaObjectArray();
    CMetaObjectArray(const CMetaObjectArray& other);
    ~CMetaObjectArray() override;
    void Clear() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    bool InitElements(const CTypeDesc& type);
    void ClearElements();
    // Null past the block, for a null walker, or for an empty slot.
    CMetaObjectItem* GetElement(const CArrayWalker* walker) const;
    // The slot takes the item over; what it held before is not deleted.
    bool SetElement(CMetaObjectItem* item, const CArrayWalker* walker);

    CMetaObjectItem** elements = nullptr;  // array new; owned with the items in it
    std::int32_t elementCount = 0;         // -1 when the type leaves the size open
    CMetaString arrayText;

private:
    bool HoldsSlot(const CArrayWalker* walker) const;
};

// Holds one use of a handler. Clear gives it back; the destructor does not, so
// a holder calls Clear before it deletes the item.
class CMetaObjectObject : public CMetaObjectItem {
public:
    CMetaObjectObject();
    // Shares the other's handler with a use of its own.
    CMetaObjectObject(const CMetaObjectObject& other);
    ~CMetaObjectObject() override;
    void Clear() override;
    CMetaObjectItem* Clone() override;
    // The raw object pointer as an unsigned decimal number, or empty.
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    // 0, or the refusal of AddUse, in which case no handler is held.
    MetaStatus SetHandler(CMetaObjectHandler* newHandler);

    CMetaObjectHandler* handler = nullptr;
};

}  // namespace MetaObj
