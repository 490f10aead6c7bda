#include "host/call_items.h"

#include <windows.h>
#include <oleauto.h>

#include <cerrno>
#include <cstdlib>
#include <cwchar>
#include <limits>

#include "host/tool_text.h"
#include "metaobj/scalar_items.h"

namespace Tool {

using nlohmann::json;
using namespace MetaObj;

namespace {

constexpr const wchar_t* kNullObjectTag = L"<@NULLOBJECT>";

bool IsArray(CMetaObjectItem* item)
{
    return item->GetTypeDesc().bounds != nullptr;
}

bool IsObject(CMetaObjectItem* item)
{
    return !IsArray(item) && item->GetTypeDesc().type == MetaTypeObject;
}

// The class of the framework that holds values of the type; arrays by their bounds.
CMetaObjectItem* NewItemFor(const CTypeDesc& type)
{
    CMetaObjectItem* item = nullptr;
    if (type.bounds) {
        item = new CMetaObjectArray;
    } else {
        switch (type.type) {
        case MetaTypeInt: item = new CMetaObjectInt(0); break;
        case MetaTypeReal: item = new CMetaObjectReal(0.0); break;
        case MetaTypeString: item = new CMetaObjectString; break;
        case MetaTypeChar: item = new CMetaObjectChar(0); break;
        case MetaTypeBool: item = new CMetaObjectBool(0); break;
        case MetaTypeDate: item = new CMetaObjectDate; break;
        case MetaTypeCurrency: item = new CMetaObjectCurrency; break;
        case MetaTypeStruct: item = new CMetaObjectStruct; break;
        case MetaTypeEnum: item = new CMetaObjectEnum(0); break;
        case MetaTypeObject: item = new CMetaObjectObject; break;
        case MetaTypeUnknown: item = new CMetaObjectUnknown(0); break;
        default: item = new CMetaObjectVoid; break;
        }
    }
    item->GetTypeDesc().Assign(type);
    return item;
}

bool ParseInteger(const std::wstring& text, std::int64_t low, std::int64_t high, std::int64_t& value)
{
    // Decimal, or hexadecimal after "0x"; a leading zero is no octal mark.
    const bool hex = text.size() > 2 && text[0] == L'0' && (text[1] == L'x' || text[1] == L'X');
    if (text.empty() || std::iswspace(text[0]))
        return false;
    wchar_t* end = nullptr;
    errno = 0;
    const long long parsed = std::wcstoll(hex ? text.c_str() + 2 : text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || end == nullptr || *end != 0)
        return false;
    // Hexadecimal spells the bits, so it may reach the unsigned limit.
    const std::int64_t top = hex ? static_cast<std::int64_t>(std::numeric_limits<std::uint32_t>::max()) : high;
    if (parsed < low || parsed > top)
        return false;
    value = parsed;
    return true;
}

bool ParseInt32(const std::wstring& text, std::int32_t& value)
{
    std::int64_t wide = 0;
    if (!ParseInteger(text, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max(), wide))
        return false;
    value = static_cast<std::int32_t>(static_cast<std::uint32_t>(wide));
    return true;
}

bool ParseReal(const std::wstring& text, double& value)
{
    if (text.empty() || std::iswspace(text[0]))
        return false;
    wchar_t* end = nullptr;
    const double parsed = std::wcstod(text.c_str(), &end);
    if (end == nullptr || *end != 0)
        return false;
    value = parsed;
    return true;
}

bool ParseBool(const std::wstring& text, unsigned char& value)
{
    if (_wcsicmp(text.c_str(), L"true") == 0) {
        value = 1;
        return true;
    }
    if (_wcsicmp(text.c_str(), L"false") == 0) {
        value = 0;
        return true;
    }
    return false;
}

bool EnumValueOf(const CTypeDesc& type, const std::wstring& text, std::int32_t& value, std::string& error)
{
    // A number goes as it is: whether the enumeration has it is the module's check.
    if (ParseInt32(text, value))
        return true;
    std::string names;
    if (type.enumValues) {
        for (const CEnumValue* entry : *type.enumValues) {
            if (!entry->name.IsEmpty() && _wcsicmp(entry->name.GetWide(), text.c_str()) == 0) {
                value = entry->value;
                return true;
            }
            names += (names.empty() ? "" : ", ") + Utf8(entry->name);
        }
    }
    const std::string typeName = type.typeName.IsEmpty() ? "the enumeration" : Utf8(type.typeName);
    error = "\"" + Utf8(text) + "\" is no value of " + typeName +
            (names.empty() ? "" : " (" + names + ")");
    return false;
}

// The module reads a by-value date or amount by the system's locale and a
// by-reference one by the user's, and sends an unset value for a text that
// doesn't parse: so the tool checks the text first, the same way.
LCID LocaleOf(const CTypeDesc& type)
{
    return type.isByRef == 1 ? GetUserDefaultLCID() : LOCALE_SYSTEM_DEFAULT;
}

bool SetValueFromText(CMetaObjectItem* item, const std::wstring& text, std::string& error)
{
    const CTypeDesc& type = item->GetTypeDesc();
    const std::string shown = "\"" + Utf8(text) + "\"";
    switch (type.type) {
    case MetaTypeInt:
        if (!ParseInt32(text, static_cast<CMetaObjectInt*>(item)->value)) {
            error = shown + " is no 32-bit integer";
            return false;
        }
        return true;
    case MetaTypeUnknown: {
        std::int32_t value = 0;
        if (!ParseInt32(text, value)) {
            error = shown + " is no 32-bit number";
            return false;
        }
        static_cast<CMetaObjectUnknown*>(item)->value = static_cast<std::uint32_t>(value);
        return true;
    }
    case MetaTypeReal:
        if (!ParseReal(text, static_cast<CMetaObjectReal*>(item)->value)) {
            error = shown + " is no number";
            return false;
        }
        return true;
    case MetaTypeBool:
        if (!ParseBool(text, static_cast<CMetaObjectBool*>(item)->value)) {
            error = shown + " is neither true nor false";
            return false;
        }
        return true;
    case MetaTypeChar:
        // A character goes out as one byte.
        if (text.size() != 1 || text[0] > 0xFF) {
            error = shown + " is not one character of one byte";
            return false;
        }
        static_cast<CMetaObjectChar*>(item)->value = text[0];
        return true;
    case MetaTypeEnum:
        return EnumValueOf(type, text, static_cast<CMetaObjectEnum*>(item)->value, error);
    case MetaTypeDate: {
        DATE date = 0;
        std::wstring writable = text;  // the platform's declaration takes a non-const text
        if (FAILED(VarDateFromStr(writable.data(), LocaleOf(type), VAR_DATEVALUEONLY, &date))) {
            error = shown + " is no date";
            return false;
        }
        static_cast<CMetaObjectString*>(item)->value = CMetaString(text.c_str());
        return true;
    }
    case MetaTypeCurrency: {
        CY amount{};
        std::wstring writable = text;
        if (FAILED(VarCyFromStr(writable.data(), LocaleOf(type), LOCALE_NOUSEROVERRIDE, &amount))) {
            error = shown + " is no currency amount";
            return false;
        }
        static_cast<CMetaObjectString*>(item)->value = CMetaString(text.c_str());
        return true;
    }
    case MetaTypeString:
        static_cast<CMetaObjectString*>(item)->value = CMetaString(text.c_str());
        return true;
    default:
        error = std::string("a value of type ") + MetaTypeName(type.type) + " can't be given as text";
        return false;
    }
}

void Finish(CMetaObjectItem* item, const ParamShape* param)
{
    if (!param)
        return;
    item->SetName(CMetaString(param->name.c_str()));
    item->SetDirection(static_cast<std::int32_t>(param->direction));
    item->SetOptional(param->optional ? 1 : 0);
}

// A type the tool builds itself: the module's signature of a type word, or a
// signature of its own where the word's has no translation on the way out.
struct ExplicitType {
    const wchar_t* prefix;
    std::uint32_t metaType;
    const wchar_t* typeWord;
    const wchar_t* signature;
};

// "FLOAT" would give "VT_REAL", which no call sends, so a real is a double.
constexpr ExplicitType kExplicitTypes[] = {
    {L"int:", MetaTypeInt, L"INT", nullptr},          {L"real:", MetaTypeReal, nullptr, L"VT_R8"},
    {L"text:", MetaTypeString, L"TEXT", nullptr},     {L"bool:", MetaTypeBool, L"BOOL", nullptr},
    {L"char:", MetaTypeChar, L"CHAR", nullptr},       {L"date:", MetaTypeDate, L"DATE", nullptr},
    {L"cy:", MetaTypeCurrency, L"CURRENCY", nullptr}, {L"enum:", MetaTypeEnum, nullptr, nullptr},
};

const ExplicitType& ExplicitTypeNamed(const wchar_t* prefix)
{
    for (const ExplicitType& row : kExplicitTypes) {
        if (std::wcscmp(row.prefix, prefix) == 0)
            return row;
    }
    return kExplicitTypes[0];
}

const ExplicitType* ExplicitTypeOf(const CallToken& token)
{
    for (const ExplicitType& row : kExplicitTypes) {
        const std::size_t length = std::wcslen(row.prefix);
        if (token.plainLead >= length && _wcsnicmp(token.text.c_str(), row.prefix, length) == 0)
            return &row;
    }
    return nullptr;
}

bool TypeOfWord(const ArgumentContext& context, std::uint32_t metaType, const wchar_t* word, const wchar_t* signature,
                bool byRef, CTypeDesc& out, std::string& error)
{
    out.Assign(CTypeDesc(metaType, byRef ? 1 : 0, 0));
    if (word) {
        const MetaStatus status = context.target->GetTypeSignature(CMetaString(word), out.signature, byRef);
        if (status != MetaStatusOk) {
            error = "the module knows no type word " + Utf8(word) + ": status " + StatusText(status);
            return false;
        }
        return true;
    }
    std::wstring text = signature;
    if (byRef)
        text += L"|VT_BYREF";
    out.signature = CMetaString(text.c_str());
    return true;
}

bool BuildExplicit(const ExplicitType& row, const std::wstring& value, const ParamShape* param,
                   const ArgumentContext& context, ToolItem& out, std::string& error)
{
    CTypeDesc type;
    if (row.metaType == MetaTypeEnum) {
        // Without the enumeration there is nothing to check the number against.
        if (!param || param->type.type != MetaTypeEnum || param->type.bounds) {
            error = "enum: needs a parameter of an enumeration; give int: for a plain number";
            return false;
        }
        type.Assign(param->type);
    } else {
        // Out and in/out parameters stay by reference, so that the value comes back.
        const bool byRef = param && param->direction != 0;
        if (!TypeOfWord(context, row.metaType, row.typeWord, row.signature, byRef, type, error))
            return false;
    }
    ToolItem item(NewItemFor(type));
    if (!SetValueFromText(item.get(), value, error))
        return false;
    Finish(item.get(), param);
    out = std::move(item);
    return true;
}

// The catalogue marks no object by reference (a pointer to an interface
// pointer reads as the interface), yet an object that is to come back needs a
// cell: so an out or in/out object goes by reference.
void MarkObjectCell(CTypeDesc& type, const ParamShape* param)
{
    if (!param || param->direction == 0 || type.isByRef == 1)
        return;
    type.isByRef = 1;
    type.signature.Append(L"|VT_PTR");
}

bool TakesObject(const ParamShape* param)
{
    if (!param)
        return true;
    const CTypeDesc& type = param->type;
    if (type.bounds)
        return false;
    return type.type == MetaTypeObject || type.type == MetaTypeUnknown || type.signature.Find(L"VT_VARIANT") == 0;
}

bool BuildObject(const CallToken& token, const ParamShape* param, const ArgumentContext& context, ToolItem& out,
                 std::string& error)
{
    const bool isNull = token.IsPlain(L"null");
    CMetaObjectObject* held = isNull ? nullptr : context.handles->Find(token.text);
    if (!isNull && !held) {
        error = "there is no handle " + Utf8(token.text);
        return false;
    }
    // A null object goes as "no object" whatever the parameter's type.
    if (!isNull && !TakesObject(param)) {
        error = std::string("the parameter takes ") + MetaTypeName(param->type.type) + ", not an object";
        return false;
    }
    CTypeDesc type;
    if (param && param->type.type == MetaTypeObject && !param->type.bounds) {
        type.Assign(param->type);
        MarkObjectCell(type, param);
    } else if (!TypeOfWord(context, MetaTypeObject, L"OBJECT", nullptr, false, type, error)) {
        return false;
    }
    ToolItem item(NewItemFor(type));
    auto* object = static_cast<CMetaObjectObject*>(item.get());
    if (isNull) {
        object->SetTagText(CMetaString(kNullObjectTag));
    } else if (object->SetHandler(held->handler) != MetaStatusOk) {
        error = "the object of " + Utf8(token.text) + " refused another use";
        return false;
    }
    Finish(item.get(), param);
    out = std::move(item);
    return true;
}

bool BuildGuessed(const CallToken& token, const ArgumentContext& context, ToolItem& out, std::string& error)
{
    // Quoted text is text; otherwise a whole number, a real or true/false is
    // taken for one, and anything else is text.
    std::int32_t number = 0;
    double real = 0;
    unsigned char flag = 0;
    const wchar_t* prefix = L"text:";
    if (!token.quoted) {
        if (ParseInt32(token.text, number))
            prefix = L"int:";
        else if (ParseReal(token.text, real))
            prefix = L"real:";
        else if (ParseBool(token.text, flag))
            prefix = L"bool:";
    }
    return BuildExplicit(ExplicitTypeNamed(prefix), token.text, nullptr, context, out, error);
}

bool BuildTyped(const CallToken& token, const ParamShape& param, ToolItem& out, std::string& error)
{
    const CTypeDesc& type = param.type;
    if (type.bounds || type.type == MetaTypeStruct || type.type == MetaTypeVoid) {
        error = std::string("a parameter of type ") + (type.bounds ? "Array" : MetaTypeName(type.type)) +
                " can't be given on the command line";
        return false;
    }
    if (type.type == MetaTypeObject) {
        error = "the parameter takes an object: give a handle such as @1, or null";
        return false;
    }
    ToolItem item(NewItemFor(type));
    if (!SetValueFromText(item.get(), token.text, error))
        return false;
    Finish(item.get(), &param);
    out = std::move(item);
    return true;
}

std::string EnumName(CMetaObjectItem* item, const CTypeDesc* declared)
{
    if (!declared || declared->type != MetaTypeEnum || !declared->enumValues || IsArray(item))
        return "";
    std::int32_t value = 0;
    const std::uint32_t type = item->GetTypeDesc().type;
    if (type == MetaTypeInt)
        value = static_cast<CMetaObjectInt*>(item)->value;
    else if (type == MetaTypeEnum)
        value = static_cast<CMetaObjectEnum*>(item)->value;
    else
        return "";
    for (const CEnumValue* entry : *declared->enumValues) {
        if (entry->value == value)
            return Utf8(entry->name);
    }
    return "";
}

constexpr const wchar_t* kRefPrefix = L"ref:";
constexpr std::size_t kRefPrefixLength = 4;

// "ref:" sends a value by reference as in/out and shows what comes back: the
// way to reach by-reference parameters of members that have no catalogue. An
// untyped value goes as a Variant holding text, which any such parameter takes.
bool BuildInOut(const CallToken& token, const ParamShape* param, const ArgumentContext& context, ToolItem& out,
                std::string& error)
{
    CallToken value = token;
    value.text.erase(0, kRefPrefixLength);
    value.plainLead -= kRefPrefixLength;
    const bool handle = !value.quoted && !value.text.empty() && value.text[0] == L'@';
    if (value.IsPlain(L"-") || value.IsPlain(L"null") || handle) {
        error = "ref: takes a value, not an object or a left-out argument";
        return false;
    }
    ToolItem item;
    if (!param && !ExplicitTypeOf(value)) {
        item.reset(new CMetaObjectString);
        static_cast<CMetaObjectString*>(item.get())->value = CMetaString(value.text.c_str());
        item->GetTypeDesc().signature = CMetaString(L"VT_VARIANT");
    } else if (!BuildArgument(value, param, context, item, error)) {
        return false;
    }
    CTypeDesc& type = item->GetTypeDesc();
    if (type.bounds || type.type == MetaTypeStruct || type.type == MetaTypeObject) {
        error = "ref: takes a value, not an object or a compound";
        return false;
    }
    if (type.isByRef != 1 || type.signature.Find(L"|") < 0) {
        type.signature.Append(L"|VT_BYREF");
        type.isByRef = 1;
    }
    item->SetDirection(2);
    out = std::move(item);
    return true;
}

}  // namespace

void ReleaseObjectUses(CMetaObjectItem* item)
{
    if (!item)
        return;
    if (IsArray(item)) {
        auto* array = static_cast<CMetaObjectArray*>(item);
        for (std::int32_t slot = 0; array->elements && slot < array->elementCount; ++slot)
            ReleaseObjectUses(array->elements[slot]);
    } else if (item->GetTypeDesc().type == MetaTypeStruct) {
        for (CMetaObjectItem* member : static_cast<CMetaObjectStruct*>(item)->members)
            ReleaseObjectUses(member);
    } else if (IsObject(item)) {
        item->Clear();
    }
}

void ToolItemDeleter::operator()(CMetaObjectItem* item) const
{
    ReleaseObjectUses(item);
    delete item;
}

void ModuleItemDeleter::operator()(CMetaObjectItem* item) const
{
    ReleaseObjectUses(item);
    if (handler)
        handler->FreeItem(item);
}

std::string CHandleTable::Adopt(CMetaObjectHandler* handler)
{
    if (!handler || !handler->GetDispatchPointer())
        return "";
    for (std::size_t index = 0; index < handles.size(); ++index) {
        if (static_cast<CMetaObjectObject*>(handles[index].get())->handler == handler)
            return "@" + std::to_string(index + 1);
    }
    ToolItem holder(new CMetaObjectObject);
    if (static_cast<CMetaObjectObject*>(holder.get())->SetHandler(handler) != MetaStatusOk)
        return "";
    handles.push_back(std::move(holder));
    return "@" + std::to_string(handles.size());
}

CMetaObjectObject* CHandleTable::Find(const std::wstring& name) const
{
    std::int32_t number = 0;
    if (name.size() < 2 || name[0] != L'@' || !ParseInt32(name.substr(1), number))
        return nullptr;
    if (number < 1 || static_cast<std::size_t>(number) > handles.size())
        return nullptr;
    return static_cast<CMetaObjectObject*>(handles[static_cast<std::size_t>(number) - 1].get());
}

void CHandleTable::Clear()
{
    while (!handles.empty())
        handles.pop_back();
}

bool BuildArgument(const CallToken& token, const ParamShape* param, const ArgumentContext& context, ToolItem& out,
                   std::string& error)
{
    if (token.plainLead >= kRefPrefixLength && _wcsnicmp(token.text.c_str(), kRefPrefix, kRefPrefixLength) == 0)
        return BuildInOut(token, param, context, out, error);
    if (token.IsPlain(L"-"))
        return BuildOmitted(param, out, error);
    if (token.IsPlain(L"null") || (!token.quoted && !token.text.empty() && token.text[0] == L'@'))
        return BuildObject(token, param, context, out, error);
    if (const ExplicitType* row = ExplicitTypeOf(token))
        return BuildExplicit(*row, token.text.substr(std::wcslen(row->prefix)), param, context, out, error);
    if (param)
        return BuildTyped(token, *param, out, error);
    return BuildGuessed(token, context, out, error);
}

bool BuildOutSlot(const ParamShape& param, ToolItem& out, std::string& error)
{
    const CTypeDesc& type = param.type;
    if (type.bounds || type.type == MetaTypeStruct) {
        error = std::string("an out parameter of type ") + (type.bounds ? "Array" : "Struct") +
                " can't be received here";
        return false;
    }
    out.reset(NewItemFor(type));
    if (type.type == MetaTypeObject)
        MarkObjectCell(out->GetTypeDesc(), &param);
    Finish(out.get(), &param);
    return true;
}

bool BuildOmitted(const ParamShape* param, ToolItem& out, std::string& error)
{
    if (param && !param->optional) {
        error = "the parameter is not optional";
        return false;
    }
    out.reset(param ? NewItemFor(param->type) : new CMetaObjectString);
    Finish(out.get(), param);
    // Nothing comes back into a value that was never sent.
    out->SetDirection(0);
    out->SetOptional(1);
    out->SetOmitted(1);
    return true;
}

json DescribeItem(CMetaObjectItem* item, CHandleTable& handles, const CTypeDesc* declared)
{
    if (!item)
        return nullptr;
    const CTypeDesc& type = item->GetTypeDesc();
    json described;
    if (IsArray(item)) {
        described["metaType"] = "Array";
        described["class"] = "CMetaObjectArray";
    } else {
        described["metaType"] = MetaTypeName(type.type);
        described["class"] = ItemClassName(type.type);
    }
    described["signature"] = Utf8(type.signature);
    if (!type.typeName.IsEmpty())
        described["typeName"] = Utf8(type.typeName);
    if (IsObject(item)) {
        const std::string handle = handles.Adopt(static_cast<CMetaObjectObject*>(item)->handler);
        described["text"] = handle.empty() ? "null" : handle;
        described["handle"] = handle.empty() ? json(nullptr) : json(handle);
        return described;
    }
    CMetaString text;
    item->GetValue(text);
    described["text"] = Utf8(text);
    const std::string enumName = EnumName(item, declared);
    if (!enumName.empty())
        described["enumName"] = enumName;
    if (IsArray(item)) {
        auto* array = static_cast<CMetaObjectArray*>(item);
        json bounds = json::array();
        for (const CArrayBound* bound : *type.bounds)
            bounds.push_back({{"lower", bound->lowerBound},
                              {"upper", static_cast<std::int64_t>(bound->lowerBound) + bound->elementCount - 1},
                              {"count", bound->elementCount}});
        json elements = json::array();
        for (std::int32_t slot = 0; array->elements && slot < array->elementCount; ++slot)
            elements.push_back(DescribeItem(array->elements[slot], handles));
        described["bounds"] = bounds;
        described["elements"] = elements;
    } else if (type.type == MetaTypeStruct) {
        json members = json::array();
        for (CMetaObjectItem* member : static_cast<CMetaObjectStruct*>(item)->members) {
            json entry = DescribeItem(member, handles);
            if (member)
                entry["name"] = Utf8(member->GetTypeDesc().memberName);
            members.push_back(entry);
        }
        described["members"] = members;
    }
    return described;
}

}  // namespace Tool
