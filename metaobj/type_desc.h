#pragma once
// The type of a value: a meta type code, the texts that name it, and optional
// containers for enumerations, arrays and structs. Copying copies the whole tree.

#include <cstdint>
#include <list>

#include "text/meta_string.h"

namespace MetaObj {

enum MetaType : std::uint32_t {
    MetaTypeVoid = 0,
    MetaTypeInt = 1,
    MetaTypeReal = 2,
    MetaTypeString = 3,
    MetaTypeChar = 4,
    MetaTypeBool = 5,
    MetaTypeDate = 6,
    MetaTypeCurrency = 7,
    MetaTypeStruct = 16,
    MetaTypeUnknown = 65533,
    MetaTypeEnum = 65534,
    MetaTypeObject = 65535,
};

class CTypeDesc;

class CEnumValue {
public:
    CEnumValue(const CMetaString& name, std::int32_t value) : name(name), value(value) {}
    CEnumValue(const CEnumValue& other) = default;

    CMetaString name;
    std::int32_t value;
};

// A list that owns its entries and copies them deeply; readers walk it
// directly, as the host does.
template <typename Entry>
class COwningList : public std::list<Entry*> {
public:
    COwningList() = default;
    COwningList(const COwningList&) = delete;
    COwningList& operator=(const COwningList&) = delete;
    ~COwningList() { DeleteEntries(); }

    void DeleteEntries()
    {
        for (Entry* entry : *this)
            delete entry;
        this->clear();
    }

    COwningList& Assign(const COwningList& other)
    {
        if (&other == this)
            return *this;
        DeleteEntries();
        for (const Entry* entry : other)
            this->push_back(new Entry(*entry));
        return *this;
    }
};

class CEnumValueList : public COwningList<CEnumValue> {
public:
    bool Add(const CMetaString& name, std::int32_t value);
};

// A count of -1 with lower bound 0 is an array whose size the type leaves open.
class CArrayBound {
public:
    std::int32_t lowerBound;
    std::int32_t elementCount;
};

class CArrayBoundList : public COwningList<CArrayBound> {
public:
    bool Add(std::int32_t lowerBound, std::int32_t elementCount);
    // Leaves the outputs alone when the list has no entry at that index.
    bool GetBound(std::uint32_t index, std::int32_t* lowerBound, std::int32_t* elementCount) const;
};

class CStructBody {
public:
    CStructBody() = default;
    CStructBody(const CStructBody&) = delete;
    CStructBody& operator=(const CStructBody&) = delete;
    ~CStructBody();

    // Adds deep copies of the other's members behind the own ones.
    CStructBody& Assign(const CStructBody& other);
    void Clear();

    std::list<CTypeDesc*> members;  // owned, deleted through their virtual destructor
    CMetaString structName;
};

class CTypeDesc {
public:
    CTypeDesc() = default;
    CTypeDesc(const CTypeDesc& other);
    CTypeDesc(std::uint32_t type, std::int32_t isByRef, unsigned char isArray);
    virtual ~CTypeDesc();

    CTypeDesc& operator=(const CTypeDesc& other) { return Assign(other); }

    // Replaces the whole value with a deep copy. Assigning an object to itself
    // is a no-op here, since clearing first would lose the source.
    CTypeDesc& Assign(const CTypeDesc& other);
    void Clear();
    void EnsureEnumValues();
    void EnsureStructBody();
    bool EnsureBounds();
    void SetStructName(const CMetaString& name);
    const CMetaString& GetStructName() const;
    // Takes the member over on success; on false the caller still owns it.
    bool AddStructMember(CTypeDesc* member);
    std::int32_t GetDimensionCount() const;

    // Field order is shared with the host.
    CEnumValueList* enumValues = nullptr;
    CArrayBoundList* bounds = nullptr;
    CStructBody* structBody = nullptr;
    std::uint32_t type = MetaTypeVoid;  // for an array, the code of the element
    std::int32_t isByRef = 0;
    CMetaString typeName;
    CMetaString signature;
    CMetaString memberName;
};

}  // namespace MetaObj
