#pragma once
// Records that describe objects, methods and calls. Those the host frees have a
// virtual destructor and nothing else virtual; the two catalogue entries have
// neither, since the host only copies them.

#include <cstdint>
#include <list>
#include <string>

#include "metaobj/type_desc.h"
#include "text/meta_string.h"
#include "text/mox_data.h"

namespace MetaObj {

// One attribute row of an object.
class CObjectProperty {
public:
    CObjectProperty(const CMetaString& name, const CMetaString& value, unsigned char isFixed);
    virtual ~CObjectProperty() = default;

    CMetaString name;
    std::uint32_t propertyKind = 1;
    CMetaString value;
    std::uint32_t propertyNumber = 0;
    unsigned char isFixed;
};

class CObjectInfo {
public:
    CObjectInfo();
    CObjectInfo(const CObjectInfo&) = delete;
    CObjectInfo& operator=(const CObjectInfo&) = delete;
    virtual ~CObjectInfo();

    void Reset();

    std::uint32_t objectKind = 2;  // 1 once the identity has named a class
    CMetaString location;
    unsigned char isRegistered = 1;
    std::list<CObjectProperty*> properties;  // owned
};

// A snapshot for one request; it holds copies, never pointers into the catalogue.
class CMethodInfo {
public:
    CMethodInfo() = default;
    virtual ~CMethodInfo() = default;

    std::uint32_t reserved = 0;
    std::uint32_t clientData = 0;  // the caller's own word, kept as given
    CMetaString methodKey;
    CMetaString displayName;
    CTypeDesc returnType;
    std::uint32_t kind = 0;
    std::uint32_t paramCount = 0;
    CMetaString description;
};

class CParamInfo {
public:
    CParamInfo() = default;
    virtual ~CParamInfo() = default;

    std::uint32_t reserved = 0;
    std::uint32_t clientData = 0;
    CMetaString methodKey;
    std::uint32_t index = 0;
    CMetaString name;
    CTypeDesc type;
    std::uint32_t direction = 0;  // 0 in, 1 out, 2 in and out
    unsigned char isOptional = 0;
    unsigned char isAny = 0;
};

class CMethodInvokeStatus {
public:
    CMethodInvokeStatus() = default;
    virtual ~CMethodInvokeStatus() = default;

    std::uint32_t code = 0;
    CMetaString description;
    CMetaString source;
};

// What the host is told before an object is opened; lives for one access check.
class CMetaObjectSecurityInfo {
public:
    CMetaObjectSecurityInfo() = default;
    virtual ~CMetaObjectSecurityInfo() = default;

    std::string objectType;  // the handler's type name, "COM"
    std::string objectName;  // the program identifier, or empty
};

class CParamEntry {
public:
    CParamEntry(const CMetaString& name, const CTypeDesc& type, std::uint32_t direction)
        : name(name), type(type), direction(direction)
    {
    }

    CMetaString name;
    CTypeDesc type;
    std::uint32_t direction;
    unsigned char isOptional = 0;
    unsigned char isAny = 0;
};

class CMethodEntry {
public:
    CMethodEntry() = default;
    CMethodEntry(const CMethodEntry&) = delete;
    CMethodEntry& operator=(const CMethodEntry&) = delete;
    ~CMethodEntry();

    void Reset();
    // Null when there is no parameter at that index.
    CParamEntry* GetParam(std::uint32_t index) const;
    // Appends a parameter and takes it over, making the list on first use.
    void AddParam(CParamEntry* param);

    CMetaString displayName;
    CMetaString methodName;  // what method keys are matched against
    CMetaString description;
    CTypeDesc returnType;
    std::uint32_t kind = 0;
    std::list<CParamEntry*>* params = nullptr;  // owned with its entries; null without parameters
};

// The catalogue the host keeps for one identity. The host owns the entries;
// this module only reads them.
class CMetaObjectMethodTable {
public:
    MoxText text;
    std::list<CMethodEntry*> entries;
};

}  // namespace MetaObj
