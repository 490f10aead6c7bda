#include "metaobj/item.h"

#include <cctype>
#include <cstring>
#include <string>

namespace MetaObj {

namespace {

const char kVarParamFormat[] = "<@VARPARAM NAME=\"%s\" SCOPE=\"%s\">";

// Finds the value behind an attribute such as NAME=: quoted with " or ', or
// bare up to a blank or ">". False when the value has no end.
bool ReadAttributeValue(const char* text, const char* attribute, std::string& value)
{
    const char* found = FindNoCase(text, attribute);
    if (!found)
        return false;
    const char* start = found + std::strlen(attribute);
    const char* end;
    if (*start == '"' || *start == '\'') {
        end = std::strchr(start + 1, *start);
        ++start;
    } else {
        end = FindFirstOf(start, " >");
    }
    if (!end)
        return false;
    value.assign(start, end);
    return true;
}

}  // namespace

const char* FindNoCase(const char* text, const char* wanted)
{
    if (!text || !wanted)
        return nullptr;
    auto lower = [](const char* source) {
        std::string copy(source);
        for (char& c : copy)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return copy;
    };
    const std::string haystack = lower(text);
    const std::string needle = lower(wanted);
    const char* hit = std::strstr(haystack.c_str(), needle.c_str());
    return hit ? text + (hit - haystack.c_str()) : nullptr;
}

const char* FindFirstOf(const char* text, const char* set)
{
    if (!text || !set || !*set)
        return nullptr;
    return std::strpbrk(text, set);
}

CMetaObjectItem::CMetaObjectItem(const CTypeDesc& type) : typeDesc(type) {}
CMetaObjectItem::CMetaObjectItem(std::uint32_t plainType) : typeDesc(plainType, 0, 0) {}

CMetaObjectItem::CMetaObjectItem(const CMetaObjectItem& other)
    : name(other.name),
      tagText(other.tagText),
      direction(other.direction),
      hostFlagOne(other.hostFlagOne),
      optional(other.optional),
      newObject(other.newObject),
      hostFlagTwo(other.hostFlagTwo),
      omitted(other.omitted),
      typeDesc(other.typeDesc),
      valueFormat(other.valueFormat)
{
}

CMetaObjectItem::~CMetaObjectItem() = default;

void CMetaObjectItem::Clear() {}

CTypeDesc& CMetaObjectItem::GetTypeDesc()
{
    return typeDesc;
}

const CTypeDesc& CMetaObjectItem::GetTypeDesc() const
{
    return typeDesc;
}

bool CMetaObjectItem::IsType(std::uint32_t type)
{
    return GetTypeDesc().type == type;
}

void CMetaObjectItem::GetValueWide(CMetaString& out)
{
    GetValue(out);
}

void CMetaObjectItem::SetValueWide(const CMetaString& text)
{
    SetValue(text);
}

void CMetaObjectItem::GetValueNarrow(MoxText& out)
{
    CMetaString text;
    GetValue(text);
    out.AssignText(text.GetNarrow());
}

void CMetaObjectItem::SetValueNarrow(const char* text)
{
    SetValue(CMetaString(text));
}

void CMetaObjectItem::SetName(const CMetaString& text)
{
    name = text;
}

const CMetaString& CMetaObjectItem::GetName()
{
    return name;
}

void CMetaObjectItem::SetTagText(const CMetaString& text)
{
    tagText = text;
}

const CMetaString& CMetaObjectItem::GetTagText()
{
    return tagText;
}

void CMetaObjectItem::SetDirection(std::int32_t value)
{
    direction = value;
}

std::int32_t CMetaObjectItem::GetDirection()
{
    return direction;
}

bool CMetaObjectItem::HasTagText()
{
    return !tagText.IsEmpty();
}

bool CMetaObjectItem::IsVarParam()
{
    // Only the head "<@VARPA" is compared, as hosts have always written it.
    return !tagText.IsEmpty() && tagText.CompareNoCase(L"<@VARPARAM", 7) == 0;
}

unsigned char CMetaObjectItem::GetHostFlagOne()
{
    return hostFlagOne;
}

void CMetaObjectItem::SetHostFlagOne(unsigned char value)
{
    hostFlagOne = value;
}

void CMetaObjectItem::SetOptional(unsigned char value)
{
    optional = value;
}

unsigned char CMetaObjectItem::GetOptional()
{
    return optional;
}

void CMetaObjectItem::SetOmitted(unsigned char value)
{
    omitted = value;
}

unsigned char CMetaObjectItem::GetOmitted()
{
    return omitted;
}

unsigned char CMetaObjectItem::GetNewObject()
{
    return newObject;
}

void CMetaObjectItem::SetNewObject(unsigned char value)
{
    newObject = value;
}

unsigned char CMetaObjectItem::GetHostFlagTwo()
{
    return hostFlagTwo;
}

void CMetaObjectItem::SetHostFlagTwo(unsigned char value)
{
    hostFlagTwo = value;
}

bool CMetaObjectItem::ParseVarParam(CMetaString& nameOut, CMetaString& scopeOut)
{
    if (!IsVarParam())
        return false;
    const char* text = tagText.GetNarrow();
    std::string nameValue;
    if (!ReadAttributeValue(text, "NAME=", nameValue) || nameValue.size() > kMaxVarParamText)
        return false;
    // A scope is optional, and one without an end is ignored.
    std::string scopeValue;
    const bool hasScope = ReadAttributeValue(text, "SCOPE=", scopeValue);
    if (hasScope && scopeValue.size() > kMaxVarParamText)
        return false;
    nameOut = CMetaString(nameValue.c_str());
    if (hasScope)
        scopeOut = CMetaString(scopeValue.c_str());
    return true;
}

bool CMetaObjectItem::MakeVarParam(const CMetaString& nameText, const CMetaString& scopeText)
{
    const char* nameNarrow = nameText.GetNarrow();
    const char* scopeNarrow = scopeText.GetNarrow();
    MoxText text;
    text.FormatText(kVarParamFormat, nameNarrow ? nameNarrow : "", scopeNarrow ? scopeNarrow : "");
    SetTagText(CMetaString(text.GetText()));
    return true;
}

}  // namespace MetaObj
