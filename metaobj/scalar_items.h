#pragma once
// The leaves of the item family: one value each, shown and set as text.
// Parts of the module that move values to and from COM use `value` directly.

#include <cstdint>

#include "metaobj/item.h"

namespace MetaObj {

class CMetaObjectBool : public CMetaObjectItem {
public:
    explicit CMetaObjectBool(unsigned char value);
    CMetaObjectBool(const CMetaObjectBool& other) = default;
    ~CMetaObjectBool() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    // Only the exact text "true" is true.
    void SetValue(const CMetaString& text) override;

    unsigned char value;  // 1 is true, anything else false
};

class CMetaObjectInt : public CMetaObjectItem {
public:
    explicit CMetaObjectInt(std::int32_t value);
    CMetaObjectInt(const CMetaObjectInt& other) = default;
    ~CMetaObjectInt() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    std::int32_t value;
};

class CMetaObjectReal : public CMetaObjectItem {
public:
    explicit CMetaObjectReal(double value);
    CMetaObjectReal(const CMetaObjectReal& other) = default;
    ~CMetaObjectReal() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    double value;
};

class CMetaObjectChar : public CMetaObjectItem {
public:
    explicit CMetaObjectChar(wchar_t value);
    CMetaObjectChar(const CMetaObjectChar& other) = default;
    ~CMetaObjectChar() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    wchar_t value;  // one 16-bit unit
};

// The numeric value only; checking it against the named values waits for a call.
class CMetaObjectEnum : public CMetaObjectItem {
public:
    explicit CMetaObjectEnum(std::int32_t value);
    CMetaObjectEnum(const CMetaObjectEnum& other) = default;
    ~CMetaObjectEnum() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    std::int32_t value;
};

// The raw word of a COM type that has no meta type, shown in hexadecimal.
class CMetaObjectUnknown : public CMetaObjectItem {
public:
    explicit CMetaObjectUnknown(std::uint32_t value);
    CMetaObjectUnknown(const CMetaObjectUnknown& other) = default;
    ~CMetaObjectUnknown() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    std::uint32_t value;
};

class CMetaObjectString : public CMetaObjectItem {
public:
    CMetaObjectString();
    explicit CMetaObjectString(const CTypeDesc& type);
    CMetaObjectString(const CMetaObjectString& other) = default;
    ~CMetaObjectString() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;

    CMetaString value;
};

// A date in the text form of the COM conversions; any text is kept as it is.
class CMetaObjectDate : public CMetaObjectString {
public:
    CMetaObjectDate();
    CMetaObjectDate(const CMetaObjectDate& other) = default;
    CMetaObjectItem* Clone() override;
};

// An amount in text form; any text is kept as it is.
class CMetaObjectCurrency : public CMetaObjectString {
public:
    CMetaObjectCurrency();
    CMetaObjectCurrency(const CMetaObjectCurrency& other) = default;
    CMetaObjectItem* Clone() override;
};

class CMetaObjectVoid : public CMetaObjectItem {
public:
    CMetaObjectVoid();
    CMetaObjectVoid(const CMetaObjectVoid& other) = default;
    ~CMetaObjectVoid() override;
    CMetaObjectItem* Clone() override;
    void GetValue(CMetaString& out) override;
    void SetValue(const CMetaString& text) override;
};

}  // namespace MetaObj
