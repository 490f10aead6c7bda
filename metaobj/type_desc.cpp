#include "metaobj/type_desc.h"

namespace MetaObj {

bool CEnumValueList::Add(const CMetaString& name, std::int32_t value)
{
    push_back(new CEnumValue(name, value));
    return true;
}

bool CArrayBoundList::Add(std::int32_t lowerBound, std::int32_t elementCount)
{
    push_back(new CArrayBound{lowerBound, elementCount});
    return true;
}

bool CArrayBoundList::GetBound(std::uint32_t index, std::int32_t* lowerBound, std::int32_t* elementCount) const
{
    for (const CArrayBound* bound : *this) {
        if (index-- != 0)
            continue;
        if (lowerBound)
            *lowerBound = bound->lowerBound;
        if (elementCount)
            *elementCount = bound->elementCount;
        return true;
    }
    return false;
}

CStructBody::~CStructBody()
{
    Clear();
}

CStructBody& CStructBody::Assign(const CStructBody& other)
{
    if (&other == this)
        return *this;
    structName = other.structName;
    for (const CTypeDesc* member : other.members)
        members.push_back(new CTypeDesc(*member));
    return *this;
}

void CStructBody::Clear()
{
    for (CTypeDesc* member : members)
        delete member;
    members.clear();
    structName = kEmptyMetaString;
}

CTypeDesc::CTypeDesc(const CTypeDesc& other)
{
    Assign(other);
}

CTypeDesc::CTypeDesc(std::uint32_t type, std::int32_t isByRef, unsigned char isArray) : type(type), isByRef(isByRef)
{
    if (type == MetaTypeEnum)
        enumValues = new CEnumValueList;
    else if (type == MetaTypeStruct)
        structBody = new CStructBody;
    if (isArray)
        bounds = new CArrayBoundList;
}

// What Clear would reset, the members' own destructors free.
CTypeDesc::~CTypeDesc()
{
    delete enumValues;
    delete bounds;
    delete structBody;
}

CTypeDesc& CTypeDesc::Assign(const CTypeDesc& other)
{
    if (&other == this)
        return *this;
    Clear();
    type = other.type;
    isByRef = other.isByRef;
    typeName = other.typeName;
    signature = other.signature;
    memberName = other.memberName;
    if (other.enumValues) {
        // Forces the enumeration code back, whatever was copied above.
        EnsureEnumValues();
        enumValues->Assign(*other.enumValues);
    }
    if (other.bounds) {
        bounds = new CArrayBoundList;
        bounds->Assign(*other.bounds);
    }
    if (other.structBody) {
        structBody = new CStructBody;
        structBody->Assign(*other.structBody);
    }
    return *this;
}

void CTypeDesc::Clear()
{
    type = MetaTypeVoid;
    isByRef = 0;
    delete enumValues;
    enumValues = nullptr;
    delete bounds;
    bounds = nullptr;
    delete structBody;
    structBody = nullptr;
    typeName = kEmptyMetaString;
    signature = kEmptyMetaString;
    memberName = kEmptyMetaString;
}

void CTypeDesc::EnsureEnumValues()
{
    type = MetaTypeEnum;
    if (!enumValues)
        enumValues = new CEnumValueList;
}

void CTypeDesc::EnsureStructBody()
{
    type = MetaTypeStruct;
    if (!structBody)
        structBody = new CStructBody;
}

bool CTypeDesc::EnsureBounds()
{
    if (!bounds)
        bounds = new CArrayBoundList;
    return bounds != nullptr;
}

void CTypeDesc::SetStructName(const CMetaString& name)
{
    EnsureStructBody();
    structBody->structName = name;
}

const CMetaString& CTypeDesc::GetStructName() const
{
    return structBody ? structBody->structName : kEmptyMetaString;
}

bool CTypeDesc::AddStructMember(CTypeDesc* member)
{
    if (!structBody || !member)
        return false;
    structBody->members.push_back(member);
    return true;
}

std::int32_t CTypeDesc::GetDimensionCount() const
{
    return bounds ? static_cast<std::int32_t>(bounds->size()) : 0;
}

}  // namespace MetaObj
