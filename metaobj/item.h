#pragma once
// The base of every value item. Host and handler both call these operations by
// position, so the order of the table below is a contract; every class of the
// family keeps it and overrides only the destructor, Clear, Clone, GetValue and
// SetValue.

#include <cstdint>
#include <typeinfo>

#include "contract/model_fwd.h"
#include "metaobj/type_desc.h"
#include "platform/block_cache.h"
#include "text/meta_string.h"
#include "text/mox_data.h"

namespace MetaObj {

// A value read from a tag text that is longer than this makes the tag unusable.
constexpr std::size_t kMaxVarParamText = 51;

class CMetaObjectItem {
public:
    explicit CMetaObjectItem(const CTypeDesc& type);
    // Of a plain type (not by reference, no array): made in place, as a scalar of each element is.
    explicit CMetaObjectItem(std::uint32_t plainType);
    CMetaObjectItem(const CMetaObjectItem& other);
    CMetaObjectItem& operator=(const CMetaObjectItem&) = delete;

    virtual ~CMetaObjectItem();
    // Items are made and freed per element and per call. The deleting destructor is virtual, so an
    // item goes back to the cache of the binary that made it, whoever frees it.
    static void* operator new(std::size_t size) { return TakeBlock(size); }
    static void operator delete(void* block, std::size_t size) noexcept { GiveBlock(block, size); }
    virtual void Clear();
    // A deep copy that the caller owns.
    virtual CMetaObjectItem* Clone() = 0;
    virtual CTypeDesc& GetTypeDesc();
    virtual const CTypeDesc& GetTypeDesc() const;
    virtual bool IsType(std::uint32_t type);
    virtual void GetValue(CMetaString& out) = 0;
    virtual void SetValue(const CMetaString& text) = 0;
    virtual void GetValueWide(CMetaString& out);
    virtual void SetValueWide(const CMetaString& text);
    virtual void GetValueNarrow(MoxText& out);
    virtual void SetValueNarrow(const char* text);
    virtual void SetName(const CMetaString& text);
    virtual const CMetaString& GetName();
    virtual void SetTagText(const CMetaString& text);
    virtual const CMetaString& GetTagText();
    virtual void SetDirection(std::int32_t value);
    virtual std::int32_t GetDirection();
    virtual bool HasTagText();
    virtual bool IsVarParam();
    virtual unsigned char GetHostFlagOne();
    virtual void SetHostFlagOne(unsigned char value);
    virtual void SetOptional(unsigned char value);
    virtual unsigned char GetOptional();
    virtual void SetOmitted(unsigned char value);
    virtual unsigned char GetOmitted();
    virtual unsigned char GetNewObject();
    virtual void SetNewObject(unsigned char value);
    virtual unsigned char GetHostFlagTwo();
    virtual void SetHostFlagTwo(unsigned char value);
    // Reads a variable tag. A name or scope beyond kMaxVarParamText characters
    // gives false and writes neither output: a cut name would bind another variable.
    virtual bool ParseVarParam(CMetaString& name, CMetaString& scope);
    // Empty texts are written as empty quoted values.
    virtual bool MakeVarParam(const CMetaString& name, const CMetaString& scope);

    // Field order is shared with the host.
    CMetaString name;
    CMetaString tagText;  // a variable tag, "<@NULLOBJECT>", or any text the host put there
    std::int32_t direction = 0;  // 0 in, 1 out, 2 in and out
    unsigned char hostFlagOne = 0;
    unsigned char optional = 0;
    unsigned char newObject = 0;
    unsigned char hostFlagTwo = 0;
    unsigned char omitted = 0;
    CTypeDesc typeDesc;
    CMetaString valueFormat;  // wide printf format of GetValue, where the class has one
};

// Equal class names. Compared here: the run-time's strcmp is a call into
// another DLL, dearer than comparing a few dozen letters.
inline bool SameClassName(const char* have, const char* want)
{
    if (have == want)
        return true;
    while (*have != 0 && *have == *want) {
        ++have;
        ++want;
    }
    return *have == *want;
}

// The item as the given class, or null. An item of exactly that class, by the
// name the run-time gives classes, is taken without a dynamic_cast: in this
// run-time a cast of an item made by another binary (the host's) compares
// class names as text several times over, and a call casts each argument.
template <typename Item>
Item* ItemAs(CMetaObjectItem* item)
{
    if (item == nullptr)
        return nullptr;
    if (SameClassName(typeid(*item).name(), typeid(Item).name()))
        return static_cast<Item*>(item);
    return dynamic_cast<Item*>(item);
}

// First position of wanted in text without regard to case, or null; null for
// either argument null.
const char* FindNoCase(const char* text, const char* wanted);
// Earliest character of text that is in set, or null.
const char* FindFirstOf(const char* text, const char* set);

}  // namespace MetaObj
