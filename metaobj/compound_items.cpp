#include "metaobj/compound_items.h"

#include <cstdint>
#include <limits>
#include <string>

namespace MetaObj {

CMetaObjectStruct::CMetaObjectStruct(const CItemList* list) : CMetaObjectItem(CTypeDesc(MetaTypeStruct, 0, 0))
{
    if (list)
        SetMembers(*list);
}

CMetaObjectStruct::CMetaObjectStruct(const CMetaObjectStruct& other) : CMetaObjectItem(other)
{
    for (CMetaObjectItem* member : other.members)
        members.push_back(member ? member->Clone() : nullptr);
}

CMetaObjectStruct::~CMetaObjectStruct()
{
    ClearMembers();
}

CMetaObjectItem* CMetaObjectStruct::Clone()
{
    return new CMetaObjectStruct(*this);
}

void CMetaObjectStruct::GetValue(CMetaString& out)
{
    out.AssignWide(L"structure");
}

void CMetaObjectStruct::SetValue(const CMetaString&) {}

void CMetaObjectStruct::ClearMembers()
{
    // The struct is the holder of its object items: each gives its use back.
    for (CMetaObjectItem* member : members) {
        if (member)
            member->Clear();
        delete member;
    }
    members.clear();
}

void CMetaObjectStruct::SetMembers(const CItemList& items)
{
    if (&items == &members)
        return;
    ClearMembers();
    for (CMetaObjectItem* item : items) {
        if (item)
            members.push_back(item->Clone());
    }
}

CMetaObjectArray::CMetaObjectArray() : CMetaObjectItem(CTypeDesc(MetaTypeInt, 0, 0))
{
    typeDesc.EnsureBounds();
}

CMetaObjectArray::CMetaObjectArray(const CMetaObjectArray& other)
    : CMetaObjectItem(other), elementCount(other.elementCount), arrayText(other.arrayText)
{
    if (elementCount < 1 || !other.elements)
        return;
    elements = new CMetaObjectItem*[elementCount]();
    for (std::int32_t slot = 0; slot < elementCount; ++slot) {
        if (other.elements[slot])
            elements[slot] = other.elements[slot]->Clone();
    }
}

CMetaObjectArray::~CMetaObjectArray()
{
    ClearElements();
}

void CMetaObjectArray::Clear()
{
    ClearElements();
}

CMetaObjectItem* CMetaObjectArray::Clone()
{
    return new CMetaObjectArray(*this);
}

void CMetaObjectArray::GetValue(CMetaString& out)
{
    out = arrayText;
}

void CMetaObjectArray::SetValue(const CMetaString& text)
{
    arrayText = text;
}

bool CMetaObjectArray::InitElements(const CTypeDesc& type)
{
    if (!type.bounds)
        return false;
    typeDesc.Assign(type);
    if (typeDesc.GetDimensionCount() == 0)
        return false;
    // Counted wide: a product beyond 32 bits can't be a slot count, and is refused.
    std::int64_t product = 1;
    for (const CArrayBound* bound : *typeDesc.bounds) {
        product *= bound->elementCount;
        if (product > std::numeric_limits<std::int32_t>::max() || product < std::numeric_limits<std::int32_t>::min())
            return false;
    }
    if (product == 0)
        return false;
    // Slots of an earlier size would be lost otherwise.
    ClearElements();
    elementCount = static_cast<std::int32_t>(product);
    if (elementCount < 1)
        return true;
    elements = new CMetaObjectItem*[elementCount]();
    return true;
}

void CMetaObjectArray::ClearElements()
{
    if (elements) {
        for (std::int32_t slot = 0; slot < elementCount; ++slot) {
            // The array is the holder of its object items: each gives its use back.
            if (elements[slot])
                elements[slot]->Clear();
            delete elements[slot];
        }
        delete[] elements;
    }
    elements = nullptr;
    elementCount = 0;
}

bool CMetaObjectArray::HoldsSlot(const CArrayWalker* walker) const
{
    return walker && elements && elementCount > 0 && walker->position < static_cast<std::uint32_t>(elementCount);
}

CMetaObjectItem* CMetaObjectArray::GetElement(const CArrayWalker* walker) const
{
    return HoldsSlot(walker) ? elements[walker->position] : nullptr;
}

bool CMetaObjectArray::SetElement(CMetaObjectItem* item, const CArrayWalker* walker)
{
    if (!HoldsSlot(walker))
        return false;
    elements[walker->position] = item;
    return true;
}

CMetaObjectObject::CMetaObjectObject() : CMetaObjectItem(CTypeDesc(MetaTypeObject, 0, 0)) {}

CMetaObjectObject::CMetaObjectObject(const CMetaObjectObject& other) : CMetaObjectItem(other)
{
    SetHandler(other.handler);
}

CMetaObjectObject::~CMetaObjectObject() = default;

void CMetaObjectObject::Clear()
{
    if (handler)
        handler->Release();
    handler = nullptr;
}

CMetaObjectItem* CMetaObjectObject::Clone()
{
    return new CMetaObjectObject(*this);
}

void CMetaObjectObject::GetValue(CMetaString& out)
{
    out = kEmptyMetaString;
    if (!handler)
        return;
    IDispatch* object = handler->GetDispatchPointer();
    if (!object)
        return;
    // The whole pointer, so that two objects of a 64-bit host never show alike.
    out.AssignWide(std::to_wstring(reinterpret_cast<std::uintptr_t>(object)).c_str());
}

void CMetaObjectObject::SetValue(const CMetaString&) {}

MetaStatus CMetaObjectObject::SetHandler(CMetaObjectHandler* newHandler)
{
    if (handler)
        handler->Release();
    handler = newHandler;
    if (!newHandler)
        return MetaStatusOk;
    const MetaStatus status = newHandler->AddUse();
    if (status != MetaStatusOk)
        handler = nullptr;
    return status;
}

}  // namespace MetaObj
