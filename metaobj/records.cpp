#include "metaobj/records.h"

namespace MetaObj {

CObjectProperty::CObjectProperty(const CMetaString& name, const CMetaString& value, unsigned char isFixed)
    : name(name), value(value), isFixed(isFixed)
{
}

CObjectInfo::CObjectInfo()
{
    Reset();
}

CObjectInfo::~CObjectInfo()
{
    Reset();
}

void CObjectInfo::Reset()
{
    objectKind = 2;
    isRegistered = 1;
    location = kEmptyMetaString;
    for (CObjectProperty* property : properties)
        delete property;
    properties.clear();
}

CMethodEntry::~CMethodEntry()
{
    Reset();
}

void CMethodEntry::Reset()
{
    displayName = kEmptyMetaString;
    methodName = kEmptyMetaString;
    description = kEmptyMetaString;
    returnType.Assign(CTypeDesc(MetaTypeVoid, 0, 0));
    kind = 0;
    if (params) {
        for (CParamEntry* param : *params)
            delete param;
        delete params;
        params = nullptr;
    }
}

CParamEntry* CMethodEntry::GetParam(std::uint32_t index) const
{
    if (!params)
        return nullptr;
    for (CParamEntry* param : *params) {
        if (index-- == 0)
            return param;
    }
    return nullptr;
}

void CMethodEntry::AddParam(CParamEntry* param)
{
    if (!params)
        params = new std::list<CParamEntry*>;
    params->push_back(param);
}

}  // namespace MetaObj
