#include "metaobj/scalar_items.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <vector>

namespace MetaObj {

namespace {

// Sized by a dry run first: "%f" of a large double runs past 300 characters,
// and a host may hand in a format of its own.
void FormatWide(CMetaString& out, const wchar_t* format, ...)
{
    out = kEmptyMetaString;
    if (!format || !*format)
        return;
    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    const int needed = _vscwprintf(format, sizing);
    va_end(sizing);
    if (needed > 0) {
        std::vector<wchar_t> buffer(static_cast<std::size_t>(needed) + 1);
        _vsnwprintf(buffer.data(), buffer.size(), format, args);
        buffer.back() = 0;
        out.AssignWide(buffer.data());
    }
    va_end(args);
}

std::int32_t ParseDecimal(const CMetaString& text)
{
    return text.IsEmpty() ? 0 : static_cast<std::int32_t>(std::wcstol(text.GetWide(), nullptr, 10));
}

CTypeDesc PlainType(std::uint32_t type)
{
    return CTypeDesc(type, 0, 0);
}

}  // namespace

CMetaObjectBool::CMetaObjectBool(unsigned char value) : CMetaObjectItem(MetaTypeBool), value(value) {}
CMetaObjectBool::~CMetaObjectBool() = default;

CMetaObjectItem* CMetaObjectBool::Clone()
{
    return new CMetaObjectBool(*this);
}

void CMetaObjectBool::GetValue(CMetaString& out)
{
    out.AssignWide(value == 1 ? L"true" : L"false");
}

void CMetaObjectBool::SetValue(const CMetaString& text)
{
    value = text.Compare(L"true", 0) == 0 ? 1 : 0;
}

CMetaObjectInt::CMetaObjectInt(std::int32_t value) : CMetaObjectItem(MetaTypeInt), value(value)
{
    valueFormat.AssignWide(L"%d");
}

CMetaObjectInt::~CMetaObjectInt() = default;

CMetaObjectItem* CMetaObjectInt::Clone()
{
    return new CMetaObjectInt(*this);
}

void CMetaObjectInt::GetValue(CMetaString& out)
{
    FormatWide(out, valueFormat.GetWide(), value);
}

void CMetaObjectInt::SetValue(const CMetaString& text)
{
    value = ParseDecimal(text);
}

CMetaObjectReal::CMetaObjectReal(double value) : CMetaObjectItem(MetaTypeReal), value(value)
{
    valueFormat.AssignWide(L"%f");
}

CMetaObjectReal::~CMetaObjectReal() = default;

CMetaObjectItem* CMetaObjectReal::Clone()
{
    return new CMetaObjectReal(*this);
}

void CMetaObjectReal::GetValue(CMetaString& out)
{
    FormatWide(out, valueFormat.GetWide(), value);
}

void CMetaObjectReal::SetValue(const CMetaString& text)
{
    const char* narrow = text.GetNarrow();
    value = narrow ? std::atof(narrow) : 0.0;
}

CMetaObjectChar::CMetaObjectChar(wchar_t value) : CMetaObjectItem(MetaTypeChar), value(value) {}
CMetaObjectChar::~CMetaObjectChar() = default;

CMetaObjectItem* CMetaObjectChar::Clone()
{
    return new CMetaObjectChar(*this);
}

void CMetaObjectChar::GetValue(CMetaString& out)
{
    const wchar_t text[2] = {value, 0};
    out.AssignWide(text);
}

void CMetaObjectChar::SetValue(const CMetaString& text)
{
    value = text.IsEmpty() ? 0 : text.GetWide()[0];
}

CMetaObjectEnum::CMetaObjectEnum(std::int32_t value) : CMetaObjectItem(MetaTypeEnum), value(value) {}
CMetaObjectEnum::~CMetaObjectEnum() = default;

CMetaObjectItem* CMetaObjectEnum::Clone()
{
    return new CMetaObjectEnum(*this);
}

void CMetaObjectEnum::GetValue(CMetaString& out)
{
    FormatWide(out, L"%ld", static_cast<long>(value));
}

void CMetaObjectEnum::SetValue(const CMetaString& text)
{
    value = ParseDecimal(text);
}

CMetaObjectUnknown::CMetaObjectUnknown(std::uint32_t value)
    : CMetaObjectItem(MetaTypeUnknown), value(value)
{
}

CMetaObjectUnknown::~CMetaObjectUnknown() = default;

CMetaObjectItem* CMetaObjectUnknown::Clone()
{
    return new CMetaObjectUnknown(*this);
}

void CMetaObjectUnknown::GetValue(CMetaString& out)
{
    FormatWide(out, L"%lX", static_cast<unsigned long>(value));
}

void CMetaObjectUnknown::SetValue(const CMetaString& text)
{
    const char* narrow = text.GetNarrow();
    value = narrow ? static_cast<std::uint32_t>(std::strtoul(narrow, nullptr, 16)) : 0;
}

CMetaObjectString::CMetaObjectString() : CMetaObjectItem(MetaTypeString) {}
CMetaObjectString::CMetaObjectString(const CTypeDesc& type) : CMetaObjectItem(type) {}
CMetaObjectString::~CMetaObjectString() = default;

CMetaObjectItem* CMetaObjectString::Clone()
{
    return new CMetaObjectString(*this);
}

void CMetaObjectString::GetValue(CMetaString& out)
{
    out = value;
}

void CMetaObjectString::SetValue(const CMetaString& text)
{
    value = text;
}

CMetaObjectDate::CMetaObjectDate() : CMetaObjectString(PlainType(MetaTypeDate)) {}

CMetaObjectItem* CMetaObjectDate::Clone()
{
    return new CMetaObjectDate(*this);
}

CMetaObjectCurrency::CMetaObjectCurrency() : CMetaObjectString(PlainType(MetaTypeCurrency)) {}

CMetaObjectItem* CMetaObjectCurrency::Clone()
{
    return new CMetaObjectCurrency(*this);
}

CMetaObjectVoid::CMetaObjectVoid() : CMetaObjectItem(MetaTypeVoid) {}
CMetaObjectVoid::~CMetaObjectVoid() = default;

CMetaObjectItem* CMetaObjectVoid::Clone()
{
    return new CMetaObjectVoid(*this);
}

void CMetaObjectVoid::GetValue(CMetaString& out)
{
    out = kEmptyMetaString;
}

void CMetaObjectVoid::SetValue(const CMetaString&) {}

}  // namespace MetaObj
