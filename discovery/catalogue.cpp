#include "discovery/catalogue.h"

#include <windows.h>
#include <oleauto.h>

#include <cwchar>
#include <memory>
#include <vector>

#include "contract/host_environment.h"
#include "discovery/type_names.h"
#include "platform/contained_call.h"
#include "platform/platform_handles.h"

namespace MetaObj {

namespace {

using FuncDesc = BorrowedDescription<ITypeInfo, FUNCDESC, &ITypeInfo::ReleaseFuncDesc>;
using VarDesc = BorrowedDescription<ITypeInfo, VARDESC, &ITypeInfo::ReleaseVarDesc>;

constexpr const wchar_t* kPlumbing[] = {
    L"QueryInterface", L"AddRef", L"Release", L"GetIDsOfNames", L"GetTypeInfo", L"GetTypeInfoCount", L"Invoke", L"_NewEnum",
};

struct MaskBit {
    enum : std::uint32_t { First = 1, Second = 2, Third = 4, Fourth = 8, Fifth = 16 };
};

// The names of GetNames, freed together.
class NameList {
public:
    explicit NameList(UINT size) : names(size, nullptr) {}
    ~NameList()
    {
        for (BSTR name : names)
            SysFreeString(name);
    }
    NameList(const NameList&) = delete;
    NameList& operator=(const NameList&) = delete;

    bool Read(ITypeInfo* info, MEMBERID id)
    {
        return SUCCEEDED(ContainFault([&] {
                return info->GetNames(id, names.data(), static_cast<UINT>(names.size()), &count);
            })) && count > 0;
    }
    // Null past what the library gave.
    const wchar_t* At(UINT index) const { return index < count ? names[index] : nullptr; }

private:
    std::vector<BSTR> names;
    UINT count = 0;
};

MethodKind KindOf(INVOKEKIND invkind)
{
    switch (invkind) {
    case INVOKE_PROPERTYGET: return MethodKindGet;
    case INVOKE_PROPERTYPUT: return MethodKindSet;
    case INVOKE_PROPERTYPUTREF: return MethodKindSetRef;
    default: return MethodKindInvoke;
    }
}

CMetaString HelpText(ITypeInfo* info, MEMBERID id)
{
    Bstr help;
    if (FAILED(ContainFault([&] {
            return info->GetDocumentation(id, nullptr, help.Put(), nullptr, nullptr);
        })) || !help.Get())
        return CMetaString();
    return CMetaString(help.Get());
}

bool HoldsVariant(const CTypeDesc& type)
{
    return type.signature.Find(L"VT_VARIANT") >= 0;
}

CParamEntry* NewParam(const CMetaString& name, ITypeInfo* info, const ELEMDESC& element, bool fromFunction)
{
    CTypeDesc type;
    BuildTypeDesc(type, info, &element.tdesc);
    auto param = new CParamEntry(name, type, fromFunction ? GetParamDirection(&element) : 0);
    param->isOptional = fromFunction && (element.paramdesc.wParamFlags & PARAMFLAG_FOPT) ? 1 : 0;
    param->isAny = HoldsVariant(param->type) ? 1 : 0;
    return param;
}

void AddFunctionEntry(CObjectIdentity& identity, ITypeInfo* info, const FUNCDESC& function)
{
    NameList names(static_cast<UINT>(function.cParams) + 1);
    if (!names.Read(info, function.memid) || !IsCallableMember(function, names.At(0)))
        return;
    auto entry = std::make_unique<CMethodEntry>();
    entry->description = HelpText(info, function.memid);
    entry->kind = KindOf(function.invkind);
    // A type that can't be resolved stays in the form the builder leaves.
    BuildTypeDesc(entry->returnType, info, &function.elemdescFunc.tdesc);
    entry->methodName = CMetaString(names.At(0));
    CMetaString shown = entry->methodName;
    if (entry->kind != MethodKindInvoke)
        PrefixPropertyName(static_cast<MethodKind>(entry->kind), entry->returnType.type == MetaTypeBool, shown);
    entry->displayName = shown;
    for (SHORT index = 0; index < function.cParams; ++index) {
        // A setter's parameters carry the property's name.
        const wchar_t* source = entry->kind == MethodKindSet ? names.At(0) : names.At(static_cast<UINT>(index) + 1);
        CMetaString name;
        MakeParamName(source, name, index + 1);
        entry->AddParam(NewParam(name, info, function.lprgelemdescParam[index], true));
    }
    HostAddMethodEntry(identity, *entry);
}

void AddVariableEntries(CObjectIdentity& identity, ITypeInfo* info, const VARDESC& variable)
{
    NameList names(1);
    if (!names.Read(info, variable.memid))
        return;
    const CMetaString name(names.At(0));
    const CMetaString help = HelpText(info, variable.memid);
    CTypeDesc type;
    BuildTypeDesc(type, info, &variable.elemdescVar.tdesc);

    CMethodEntry setter;
    setter.methodName = name;
    setter.description = help;
    setter.kind = MethodKindSet;
    CMetaString shown = name;
    PrefixPropertyName(MethodKindSet, false, shown);
    setter.displayName = shown;
    setter.AddParam(NewParam(name, info, variable.elemdescVar, false));
    HostAddMethodEntry(identity, setter);

    CMethodEntry getter;
    getter.methodName = name;
    getter.description = help;
    getter.kind = MethodKindGet;
    getter.returnType = type;
    shown = name;
    PrefixPropertyName(MethodKindGet, type.type == MetaTypeBool, shown);
    getter.displayName = shown;
    HostAddMethodEntry(identity, getter);
}

}  // namespace

bool IsCallableMember(const FUNCDESC& function, const wchar_t* name)
{
    if (function.wFuncFlags & (FUNCFLAG_FRESTRICTED | FUNCFLAG_FHIDDEN))
        return false;
    if (!name)
        return false;
    for (const wchar_t* plumbing : kPlumbing) {
        if (std::wcscmp(name, plumbing) == 0)
            return false;
    }
    return true;
}

MetaStatus ReadTypeInfos(CObjectIdentity& identity, const CTypeInfoList& list)
{
    for (const ComPtr<ITypeInfo>& info : list) {
        TypeAttr attributes(info.Get());
        if (FAILED(ContainFault([&] { return info->GetTypeAttr(attributes.Put()); })))
            return MetaStatusNoTypeInfo;
        if (attributes->typekind != TKIND_DISPATCH)
            continue;
        for (UINT index = 0; index < attributes->cFuncs; ++index) {
            FuncDesc function(info.Get());
            if (SUCCEEDED(ContainFault([&] { return info->GetFuncDesc(index, function.Put()); })))
                AddFunctionEntry(identity, info.Get(), *function.operator->());
        }
        for (UINT index = 0; index < attributes->cVars; ++index) {
            VarDesc variable(info.Get());
            if (SUCCEEDED(ContainFault([&] { return info->GetVarDesc(index, variable.Put()); })))
                AddVariableEntries(identity, info.Get(), *variable.operator->());
        }
    }
    return MetaStatusOk;
}

const CMethodEntry* FindMethodEntry(CObjectIdentity& identity, const CMetaString& methodKey)
{
    // A bare name is an invocation; "Foo", "Invoke:Foo" and "Bar:Foo" are one key.
    CMetaString name = methodKey;
    MethodKind kind = MethodKindInvoke;
    SplitMethodKey(methodKey, name, kind);
    const CMetaObjectMethodTable* table = HostGetMethodTable(identity);
    if (!table)
        return nullptr;
    for (const CMethodEntry* entry : table->entries) {
        if (entry && entry->kind == static_cast<std::uint32_t>(kind) && entry->methodName.Compare(name.GetWide(), 0) == 0)
            return entry;
    }
    return nullptr;
}

void FillMethodInfo(const CMethodEntry& entry, std::uint32_t mask, CMethodInfo& info)
{
    if (mask & MaskBit::First)
        info.displayName = entry.displayName;
    if (mask & MaskBit::Second)
        info.returnType = entry.returnType;
    if (mask & MaskBit::Third)
        info.paramCount = entry.params ? static_cast<std::uint32_t>(entry.params->size()) : 0;
    if (mask & MaskBit::Fourth)
        info.kind = entry.kind;
    if (mask & MaskBit::Fifth)
        info.description = entry.description;
}

void FillParamInfo(const CParamEntry& param, std::uint32_t mask, CParamInfo& info)
{
    if (mask & MaskBit::First)
        info.type = param.type;
    if (mask & MaskBit::Second)
        info.name = param.name;
    if (mask & MaskBit::Third)
        info.direction = param.direction;
    if (mask & MaskBit::Fourth)
        info.isOptional = param.isOptional;
    if (mask & MaskBit::Fifth)
        info.isAny = param.isAny;
}

}  // namespace MetaObj
