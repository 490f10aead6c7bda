#include "host/tool_text.h"

#include <windows.h>

#include <vector>

#include "metaobj/type_desc.h"

namespace Tool {

using MetaObj::MetaStatus;

std::string Utf8(const wchar_t* wide)
{
    if (wide == nullptr || *wide == 0)
        return "";
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1)
        return "";
    std::string narrow(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, &narrow[0], size, nullptr, nullptr);
    narrow.resize(static_cast<std::size_t>(size) - 1);
    return narrow;
}

std::string Utf8(const std::wstring& wide)
{
    return Utf8(wide.c_str());
}

std::string Utf8(const MetaObj::CMetaString& text)
{
    return Utf8(text.GetWide());
}

std::wstring Widen(const std::string& text, unsigned codePage)
{
    if (text.empty())
        return std::wstring();
    const int size = MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    if (size <= 0)
        return std::wstring();
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), &wide[0], size);
    return wide;
}

namespace {

struct StatusRow {
    MetaStatus status;
    const char* name;
};

constexpr StatusRow kStatusNames[] = {
    {MetaObj::MetaStatusOk, "Ok"},
    {MetaObj::MetaStatusBadIdentity, "BadIdentity"},
    {MetaObj::MetaStatusNoObject, "NoObject"},
    {MetaObj::MetaStatusNoObjectGiven, "NoObjectGiven"},
    {MetaObj::MetaStatusNoTypeInfo, "NoTypeInfo"},
    {MetaObj::MetaStatusInvokeFailed, "InvokeFailed"},
    {MetaObj::MetaStatusNoMemory, "NoMemory"},
    {MetaObj::MetaStatusNotInUse, "NotInUse"},
    {MetaObj::MetaStatusNoClass, "NoClass"},
    {MetaObj::MetaStatusBadType, "BadType"},
    {MetaObj::MetaStatusNoCollection, "NoCollection"},
    {MetaObj::MetaStatusDenied, "Denied"},
    {MetaObj::MetaStatusClosed, "Closed"},
};

struct MetaTypeRow {
    std::uint32_t type;
    const char* name;
    const char* itemClass;
};

constexpr MetaTypeRow kMetaTypes[] = {
    {MetaObj::MetaTypeVoid, "Void", "CMetaObjectVoid"},
    {MetaObj::MetaTypeInt, "Int", "CMetaObjectInt"},
    {MetaObj::MetaTypeReal, "Real", "CMetaObjectReal"},
    {MetaObj::MetaTypeString, "String", "CMetaObjectString"},
    {MetaObj::MetaTypeChar, "Char", "CMetaObjectChar"},
    {MetaObj::MetaTypeBool, "Bool", "CMetaObjectBool"},
    {MetaObj::MetaTypeDate, "Date", "CMetaObjectDate"},
    {MetaObj::MetaTypeCurrency, "Currency", "CMetaObjectCurrency"},
    {MetaObj::MetaTypeStruct, "Struct", "CMetaObjectStruct"},
    {MetaObj::MetaTypeUnknown, "Unknown", "CMetaObjectUnknown"},
    {MetaObj::MetaTypeEnum, "Enum", "CMetaObjectEnum"},
    {MetaObj::MetaTypeObject, "Object", "CMetaObjectObject"},
};

const MetaTypeRow* FindMetaType(std::uint32_t type)
{
    for (const MetaTypeRow& row : kMetaTypes) {
        if (row.type == type)
            return &row;
    }
    return nullptr;
}

}  // namespace

const char* StatusName(MetaStatus status)
{
    for (const StatusRow& row : kStatusNames) {
        if (row.status == status)
            return row.name;
    }
    return "Unknown";
}

nlohmann::json StatusOf(MetaStatus status)
{
    return {{"code", static_cast<std::uint32_t>(status)}, {"name", StatusName(status)}};
}

std::string StatusText(MetaStatus status)
{
    return std::string(StatusName(status)) + " (" + std::to_string(static_cast<std::uint32_t>(status)) + ")";
}

const char* MetaTypeName(std::uint32_t type)
{
    const MetaTypeRow* row = FindMetaType(type);
    return row ? row->name : "Other";
}

const char* ItemClassName(std::uint32_t type)
{
    const MetaTypeRow* row = FindMetaType(type);
    return row ? row->itemClass : "CMetaObjectItem";
}

}  // namespace Tool
