#include "discovery/type_names.h"

#include <windows.h>
#include <oleauto.h>

#include <array>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>

#include "identity/com_identity.h"
#include "platform/contained_call.h"
#include "platform/module_state.h"
#include "platform/platform_handles.h"
#include "resources/string_ids.h"

namespace MetaObj {

namespace {

constexpr UINT kNoName = 0;
constexpr int kTypeNameChars = 40;
constexpr int kCompoundNameChars = 20;
constexpr int kWordChars = 10;
constexpr int kParamWordChars = 15;

struct VarTypeRow {
    VARTYPE vt;
    const wchar_t* signature;  // null: built from the target, or the default
    std::uint32_t metaType;
    UINT nameId;
};

constexpr VarTypeRow kVarTypes[] = {
    {VT_I2, L"VT_I2", MetaTypeInt, 1004},
    {VT_I4, L"VT_I4", MetaTypeInt, 1005},
    {VT_R4, L"VT_R4", MetaTypeReal, 1014},
    {VT_R8, L"VT_R8", MetaTypeReal, 1015},
    {VT_CY, L"VT_CY", MetaTypeCurrency, 1020},
    {VT_DATE, L"VT_DATE", MetaTypeDate, 1021},
    {VT_BSTR, L"VT_BSTR", MetaTypeString, 1017},
    {VT_DISPATCH, L"VT_DISPATCH", MetaTypeObject, kNoName},
    {VT_ERROR, L"VT_ERROR", MetaTypeInt, 1013},
    {VT_BOOL, L"VT_BOOL", MetaTypeBool, 1001},
    {VT_VARIANT, L"VT_VARIANT", MetaTypeString, 1022},
    {VT_UNKNOWN, L"VT_UNKNOWN", MetaTypeObject, kNoName},
    {VT_DECIMAL, L"VT_DECIMAL", MetaTypeReal, 1016},
    {VT_I1, L"VT_I1", MetaTypeChar, 1002},
    {VT_UI1, L"VT_UI1", MetaTypeChar, 1003},
    {VT_UI2, L"VT_UI2", MetaTypeInt, 1009},
    {VT_UI4, L"VT_UI4", MetaTypeInt, 1008},
    {VT_I8, L"VT_I8", MetaTypeInt, 1006},
    {VT_UI8, L"VT_UI8", MetaTypeInt, 1007},
    {VT_INT, L"VT_INT", MetaTypeInt, 1011},
    {VT_UINT, L"VT_UINT", MetaTypeInt, 1010},
    {VT_VOID, L"VT_VOID", MetaTypeVoid, 1000},
    {VT_HRESULT, L"VT_HRESULT", MetaTypeInt, 1012},
    {VT_PTR, nullptr, MetaTypeUnknown, kNoName},
    {VT_SAFEARRAY, nullptr, MetaTypeUnknown, kNoName},
    {VT_USERDEFINED, L"VT_BYREF", MetaTypeEnum, kNoName},
    {VT_LPSTR, L"VT_LPSTR", MetaTypeString, 1019},
    {VT_LPWSTR, L"VT_LPWSTR", MetaTypeString, 1018},
    {VT_RECORD, L"VT_RECORD", MetaTypeStruct, 1025},
};
constexpr VarTypeRow kOtherVarType = {0, L"VT_BYREF", MetaTypeUnknown, kNoName};

// The length of each row's signature, so that a signature is compared only with words of its length.
constexpr std::array<std::size_t, std::size(kVarTypes)> kVarTypeLengths = [] {
    std::array<std::size_t, std::size(kVarTypes)> lengths{};
    for (std::size_t at = 0; at < lengths.size(); ++at) {
        for (const wchar_t* letter = kVarTypes[at].signature; letter && *letter; ++letter)
            ++lengths[at];
    }
    return lengths;
}();

const VarTypeRow& RowOf(VARTYPE vt)
{
    for (const VarTypeRow& row : kVarTypes) {
        if (row.vt == vt)
            return row;
    }
    return kOtherVarType;
}

struct TypeWordRow {
    const wchar_t* word;
    const wchar_t* signature;
};

// "VT_REAL" and "VT_USERDEFINED" are words of the host's direction only.
constexpr TypeWordRow kTypeWords[] = {
    {L"INT", L"VT_I4"},          {L"FLOAT", L"VT_REAL"},        {L"TEXT", L"VT_BSTR"},
    {L"BOOL", L"VT_BOOL"},       {L"CHAR", L"VT_UI1"},          {L"STRUCTURE", L"VT_USERDEFINED"},
    {L"CURRENCY", L"VT_CY"},     {L"DATE", L"VT_DATE"},         {L"ENUMERATION", L"VT_USERDEFINED"},
    {L"OBJECT", L"VT_BYREF"},
};

struct KindPrefix {
    MethodKind kind;
    const wchar_t* prefix;  // with its colon
    const wchar_t* word;    // the prefix as read back, without regard to case
};

constexpr KindPrefix kKindPrefixes[] = {
    {MethodKindGet, L"Get:", L"get"},
    {MethodKindSet, L"Set:", L"set"},
    {MethodKindSetRef, L"Setref:", L"setref"},
};

// The run-time's case-blind comparison fetches its locale for every call,
// which costs more than a whole call object of a key. The words are lower-case
// ASCII; the only other characters that fold to ASCII letters fold to 'i' and
// 'k' (U+0130, U+212A), which the words don't hold, so folding ASCII alone
// gives the same answer.
bool SameWordNoCase(const wchar_t* text, const wchar_t* word, std::size_t count)
{
    for (std::size_t at = 0; at < count; ++at) {
        wchar_t letter = text[at];
        if (letter >= L'A' && letter <= L'Z')
            letter = static_cast<wchar_t>(letter - L'A' + L'a');
        if (letter != word[at])
            return false;
    }
    return true;
}

CMetaString ModuleString(UINT id, int bufferChars)
{
    return CMetaString(LoadModuleString(id, bufferChars).c_str());
}

std::wstring WideOf(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

void Unresolved(CTypeDesc& out, const TYPEDESC* type)
{
    out.Assign(CTypeDesc(MetaTypeObject, 0, 0));
    out.signature = TypeSignatureText(type);
}

// A loop, not a recursion: a type library's chain of pointers and arrays may be
// deeper than the stack. Only the marks nearest the target can show within a
// signature's limit, so only those are kept.
std::wstring SignatureOf(const TYPEDESC* type)
{
    constexpr std::size_t kMarksShown = 8;  // each mark takes 7 of the 49 characters
    VARTYPE marks[kMarksShown];
    std::size_t depth = 0;
    while (type && (type->vt == VT_PTR || type->vt == VT_SAFEARRAY) && type->lptdesc) {
        marks[depth % kMarksShown] = type->vt;
        ++depth;
        type = type->lptdesc;
    }
    const wchar_t* target = type ? RowOf(type->vt).signature : nullptr;
    std::wstring text = target ? target : L"VT_BYREF";
    for (std::size_t shown = 0; shown < depth && shown < kMarksShown; ++shown)
        text += marks[(depth - 1 - shown) % kMarksShown] == VT_PTR ? L"|VT_PTR" : L"|VT_ARRAY";
    return text;
}

CMetaString DocumentationName(ITypeInfo* info)
{
    Bstr name;
    if (FAILED(ContainFault([&] {
            return info->GetDocumentation(MEMBERID_NIL, name.Put(), nullptr, nullptr, nullptr);
        })))
        return CMetaString();
    return CMetaString(name.Get());
}

CMetaString MemberName(ITypeInfo* info, MEMBERID id, bool& found)
{
    Bstr name;
    UINT count = 0;
    found = SUCCEEDED(ContainFault([&] { return info->GetNames(id, name.Put(), 1, &count); })) && count == 1;
    return found ? CMetaString(name.Get()) : CMetaString();
}

using VarDesc = BorrowedDescription<ITypeInfo, VARDESC, &ITypeInfo::ReleaseVarDesc>;

void BuildEnumeration(CTypeDesc& out, ITypeInfo* info, const TYPEATTR& attributes)
{
    out.Assign(CTypeDesc(MetaTypeEnum, 0, 0));
    for (WORD index = 0; index < attributes.cVars; ++index) {
        VarDesc variable(info);
        if (FAILED(ContainFault([&] { return info->GetVarDesc(index, variable.Put()); })))
            continue;
        bool named = false;
        const CMetaString name = MemberName(info, variable->memid, named);
        if (!named || !variable->lpvarValue)
            continue;  // an enumerator without a constant is left out
        VARIANT value;
        VariantInit(&value);
        if (SUCCEEDED(VariantChangeType(&value, variable->lpvarValue, 0, VT_I4)))
            out.enumValues->Add(name, value.lVal);
        VariantClear(&value);
    }
    const CMetaString typeName = DocumentationName(info);
    out.typeName = typeName.IsEmpty() ? ModuleString(IDS_TYPE_ENUMERATION, kTypeNameChars) : typeName;
}

void BuildStruct(CTypeDesc& out, ITypeInfo* info, const TYPEATTR& attributes)
{
    out.Assign(CTypeDesc(MetaTypeStruct, 0, 0));
    for (WORD index = 0; index < attributes.cVars; ++index) {
        VarDesc variable(info);
        if (FAILED(ContainFault([&] { return info->GetVarDesc(index, variable.Put()); })))
            continue;
        auto member = std::make_unique<CTypeDesc>();
        if (!BuildTypeDesc(*member, info, &variable->elemdescVar.tdesc))
            continue;  // a member of a type that can't be resolved is dropped
        bool named = false;
        member->memberName = MemberName(info, variable->memid, named);
        out.AddStructMember(member.release());
    }
    const CMetaString typeName = DocumentationName(info);
    out.typeName = typeName.IsEmpty() ? ModuleString(IDS_TYPE_STRUCT, kTypeNameChars) : typeName;
    char* guidText = nullptr;
    if (ClassIdToText(&attributes.guid, &guidText))
        out.SetStructName(CMetaString(guidText));
    delete[] guidText;
}

// How deep user-defined types may nest through aliases and struct members. A
// type library can make them refer to each other in a circle; without a bound
// that would recurse until the stack is gone. Real types nest a few levels.
constexpr int kMostUserDefinedDepth = 64;

bool BuildUserDefined(CTypeDesc& out, ITypeInfo* info, const TYPEDESC* type)
{
    thread_local int depth = 0;
    struct Nesting {
        Nesting() { ++depth; }
        ~Nesting() { --depth; }
    } nesting;
    ComPtr<ITypeInfo> referenced;
    if (depth > kMostUserDefinedDepth || FAILED(ContainFault([&] {
            return info->GetRefTypeInfo(type->hreftype, referenced.Put());
        }))) {
        Unresolved(out, type);
        return false;
    }
    TypeAttr attributes(referenced.Get());
    if (FAILED(ContainFault([&] { return referenced->GetTypeAttr(attributes.Put()); }))) {
        Unresolved(out, type);
        return false;
    }
    TYPEDESC signatureType = *type;
    switch (attributes->typekind) {
    case TKIND_ENUM:
        BuildEnumeration(out, referenced.Get(), *attributes.operator->());
        break;
    case TKIND_RECORD:
    case TKIND_UNION:
        BuildStruct(out, referenced.Get(), *attributes.operator->());
        break;
    case TKIND_INTERFACE:
    case TKIND_DISPATCH: {
        CMetaString name = DocumentationName(referenced.Get());
        if (name.IsEmpty())
            CCOMIdentity().GetUserTypeName(name, &attributes->guid);
        out.Assign(CTypeDesc(MetaTypeObject, 0, 0));
        out.typeName = name;
        if (attributes->typekind == TKIND_DISPATCH)
            signatureType.vt = VT_DISPATCH;
        break;
    }
    case TKIND_ALIAS: {
        // A target that refers to nothing in the referenced type belongs to the caller's.
        const TYPEDESC& target = attributes->tdescAlias;
        const TYPEDESC* firstWord = target.vt == VT_PTR && target.lptdesc ? target.lptdesc : &target;
        ITypeInfo* owner = firstWord->hreftype == 0 ? info : referenced.Get();
        return BuildTypeDesc(out, owner, &target);
    }
    default:
        Unresolved(out, type);
        return false;
    }
    out.signature = TypeSignatureText(&signatureType);
    return true;
}

}  // namespace

CMetaString TypeSignatureText(const TYPEDESC* type)
{
    std::wstring text = SignatureOf(type);
    if (text.size() >= kSignatureChars)
        text.resize(kSignatureChars - 1);
    return CMetaString(text.c_str());
}

// Read in place: every argument of every call comes through here, so no copy
// of the text is made.
VARTYPE VarTypeFromSignature(const wchar_t* signature)
{
    if (!signature)
        return VT_VOID;
    // The text as far as a signature may go, then the part before a bar.
    std::size_t length = 0;
    VARTYPE flag = 0;
    while (length < kSignatureChars - 1 && signature[length] != 0) {
        if (signature[length] == L'|') {
            flag = VT_BYREF;
            break;
        }
        ++length;
    }
    // Compared here rather than by the run-time's functions, whose calls cost
    // more than the comparison of such short words.
    auto is = [&](const wchar_t* word) {
        for (std::size_t at = 0; at < length; ++at) {
            if (word[at] != signature[at])
                return false;
        }
        return word[length] == 0;
    };
    if (is(L"VT_BYREF"))
        return VT_DISPATCH | flag;
    for (std::size_t at = 0; at < std::size(kVarTypes); ++at) {
        const VarTypeRow& row = kVarTypes[at];
        if (kVarTypeLengths[at] == length && row.signature && row.vt != VT_USERDEFINED && is(row.signature))
            return row.vt | flag;
    }
    return VT_VOID;
}

std::uint32_t MetaTypeFromVarType(VARTYPE vt, CMetaString* name)
{
    const VarTypeRow& row = RowOf(vt);
    if (name && row.nameId != kNoName)
        *name = ModuleString(row.nameId, kTypeNameChars);
    return row.metaType;
}

std::uint32_t GetParamDirection(const ELEMDESC* element)
{
    if (!element)
        return 0;
    const USHORT flags = element->paramdesc.wParamFlags;
    const bool in = (flags & (PARAMFLAG_FIN | PARAMFLAG_FLCID)) != 0;
    const bool out = (flags & (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL)) != 0;
    return in && out ? 2 : out ? 1 : 0;
}

bool BuildTypeDesc(CTypeDesc& out, ITypeInfo* info, const TYPEDESC* type)
{
    if (!info || !type) {
        Unresolved(out, type);
        return false;
    }
    switch (type->vt) {
    case VT_PTR:
        if (!type->lptdesc || type->lptdesc->vt == VT_PTR) {
            Unresolved(out, type);
            return true;
        }
        BuildTypeDesc(out, info, type->lptdesc);
        // An object or an array needs no by-reference mark.
        if (out.type != MetaTypeObject && !out.bounds) {
            out.signature = TypeSignatureText(type);
            out.isByRef = 1;
        }
        return true;
    case VT_SAFEARRAY:
    case VT_CARRAY: {
        const TYPEDESC* element = type->vt == VT_SAFEARRAY ? type->lptdesc
                                  : type->lpadesc              ? &type->lpadesc->tdescElem
                                                               : nullptr;
        if (!element || element->vt == VT_SAFEARRAY || element->vt == VT_ARRAY) {
            Unresolved(out, type);
            return true;
        }
        CMetaString elementName;
        // The element's name is read into a shorter buffer here.
        const VarTypeRow& row = RowOf(element->vt);
        if (row.nameId != kNoName)
            elementName = ModuleString(row.nameId, kCompoundNameChars);
        out.Assign(CTypeDesc(row.metaType, 0, 1));
        if (type->vt == VT_CARRAY) {
            for (USHORT dimension = 0; dimension < type->lpadesc->cDims; ++dimension) {
                const SAFEARRAYBOUND& bound = type->lpadesc->rgbounds[dimension];
                out.bounds->Add(bound.lLbound, static_cast<std::int32_t>(bound.cElements));
            }
        } else {
            out.bounds->Add(0, -1);
        }
        out.typeName = ModuleString(IDS_TYPE_ARRAY_OF, kCompoundNameChars);
        out.typeName.Append(L" ");
        if (!elementName.IsEmpty())
            out.typeName.Append(elementName.GetWide());
        out.signature = TypeSignatureText(type);
        return true;
    }
    case VT_USERDEFINED:
        return BuildUserDefined(out, info, type);
    default: {
        CMetaString name;
        out.Assign(CTypeDesc(MetaTypeFromVarType(type->vt, &name), 0, 0));
        out.typeName = name;
        out.signature = TypeSignatureText(type);
        return true;
    }
    }
}

void PrefixPropertyName(MethodKind kind, bool isBool, CMetaString& name)
{
    if (kind != MethodKindGet && kind != MethodKindSet)
        return;
    std::wstring head = WideOf(name).substr(0, 3);
    for (wchar_t& c : head)
        c = static_cast<wchar_t>(towlower(c));
    const std::wstring word = WideOf(ModuleString(kind == MethodKindGet ? IDS_WORD_GET : IDS_WORD_SET, kWordChars));
    if (head == word)
        return;
    std::wstring prefix = word;
    if (kind == MethodKindGet && isBool) {
        const std::wstring is = WideOf(ModuleString(IDS_WORD_IS, kWordChars));
        if (head.compare(0, 2, is) == 0)
            return;
        prefix = is;
    }
    name = CMetaString((prefix + WideOf(name)).c_str());
}

void MakeParamName(const wchar_t* text, CMetaString& out, int position)
{
    out.AssignWide(text);
    if (!out.IsEmpty())
        return;
    const std::string word = LoadModuleString(IDS_WORD_PARAM, kParamWordChars);
    char formed[64];
    std::snprintf(formed, sizeof formed, "%s%d", word.c_str(), position);
    out.AssignNarrow(formed);
}

const wchar_t* MethodKeyName(const CMetaString& key, MethodKind& kind)
{
    kind = MethodKindInvoke;
    const wchar_t* text = key.GetWide();
    const wchar_t* colon = text ? std::wcschr(text, L':') : nullptr;
    if (!colon)
        return nullptr;
    const std::size_t prefixLength = static_cast<std::size_t>(colon - text);
    for (const KindPrefix& row : kKindPrefixes) {
        if (prefixLength == std::char_traits<wchar_t>::length(row.word) &&
            SameWordNoCase(text, row.word, prefixLength))
            kind = row.kind;
    }
    return colon + 1;
}

int SplitMethodKey(const CMetaString& key, CMetaString& name, MethodKind& kind)
{
    if (const wchar_t* found = MethodKeyName(key, kind))
        name.AssignWide(found);
    return 1;
}

int MakeMethodKey(CMetaString& key, const CMetaString& name, MethodKind kind)
{
    const wchar_t* prefix = L"Invoke:";
    for (const KindPrefix& row : kKindPrefixes) {
        if (row.kind == kind)
            prefix = row.prefix;
    }
    const std::wstring text = prefix + WideOf(name);
    key = CMetaString(text.c_str());
    return 1;
}

bool SignatureOfTypeWord(const CMetaString& word, CMetaString& signature, bool byRef)
{
    for (const TypeWordRow& row : kTypeWords) {
        if (word.CompareNoCase(row.word, 0) != 0)
            continue;
        std::wstring text = row.signature;
        if (byRef)
            text += L"|VT_BYREF";
        signature = CMetaString(text.c_str());
        return true;
    }
    return false;
}

}  // namespace MetaObj
