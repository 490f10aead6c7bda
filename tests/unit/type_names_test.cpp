#include <gtest/gtest.h>

#include <windows.h>
#include <oleauto.h>

#include <string>

#include "discovery/type_library.h"
#include "discovery/type_names.h"
#include "plugin/com_handler.h"

using namespace MetaObj;

namespace {

std::wstring Text(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

TYPEDESC Plain(VARTYPE vt)
{
    TYPEDESC type = {};
    type.vt = vt;
    return type;
}

TYPEDESC Around(VARTYPE vt, TYPEDESC* inner)
{
    TYPEDESC type = {};
    type.vt = vt;
    type.lptdesc = inner;
    return type;
}

TEST(TypeNamesTest, SignaturesReadBackToVarTypes)
{
    const struct { const wchar_t* signature; VARTYPE vt; } rows[] = {
        {L"VT_I4|VT_PTR", VT_I4 | VT_BYREF}, {L"VT_BSTR|VT_ARRAY", VT_BSTR | VT_BYREF}, {L"vt_i4", VT_VOID},
        {L"VT_REAL", VT_VOID},               {L"VT_USERDEFINED", VT_VOID},           {nullptr, VT_VOID},
        {L"VT_I44", VT_VOID},                {L"VT_BOOL|", VT_BOOL | VT_BYREF},      {L"|VT_PTR", VT_VOID},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.signature ? CMetaString(row.signature).GetNarrow() : "null");
        EXPECT_EQ(VarTypeFromSignature(row.signature), row.vt);
    }
}

TEST(TypeNamesTest, HostTypeWordsAndMethodKeys)
{
    const struct {
        const wchar_t* word;
        bool byRef;
        const wchar_t* signature;  // null: refused
        VARTYPE readBack;
    } words[] = {
        {L"int", true, L"VT_I4|VT_BYREF", VT_I4 | VT_BYREF},     {L"Float", false, L"VT_REAL", VT_VOID},
        {L"TEXT", false, L"VT_BSTR", VT_BSTR},                   {L"bool", true, L"VT_BOOL|VT_BYREF", VT_BOOL | VT_BYREF},
        {L"Char", false, L"VT_UI1", VT_UI1},                     {L"structure", false, L"VT_USERDEFINED", VT_VOID},
        {L"CURRENCY", false, L"VT_CY", VT_CY},                   {L"date", false, L"VT_DATE", VT_DATE},
        {L"Enumeration", true, L"VT_USERDEFINED|VT_BYREF", VT_VOID}, {L"object", false, L"VT_BYREF", VT_DISPATCH},
        {L"object", true, L"VT_BYREF|VT_BYREF", VT_DISPATCH | VT_BYREF}, {L"Real", false, nullptr, VT_VOID},
        {L"INTEGER", false, nullptr, VT_VOID},                   {L"", false, nullptr, VT_VOID},
    };
    CMetaObjectCOMHandler handler;
    for (const auto& row : words) {
        SCOPED_TRACE(CMetaString(row.word).GetNarrow() ? CMetaString(row.word).GetNarrow() : "");
        CMetaString signature(L"untouched");
        EXPECT_EQ(handler.GetTypeSignature(row.word, signature, row.byRef), row.signature ? MetaStatusOk : MetaStatusBadType);
        EXPECT_EQ(Text(signature), row.signature ? row.signature : L"untouched");
        EXPECT_EQ(VarTypeFromSignature(signature.GetWide()), row.readBack);
    }
    const struct {
        const wchar_t* key;
        MethodKind kind;
        const wchar_t* name;  // "kept" when untouched
    } rows[] = {
        {L"GET:Name", MethodKindGet, L"Name"},  {L"Set:", MethodKindSet, L""},          {L"Call:A:B", MethodKindInvoke, L"A:B"},
        {L"NoColon", MethodKindInvoke, L"kept"}, {L"Gets:Name", MethodKindInvoke, L"Name"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(CMetaString(row.key).GetNarrow());
        CMetaString name(L"kept");
        MethodKind kind = MethodKindSet;
        EXPECT_EQ(SplitMethodKey(row.key, name, kind), 1);
        EXPECT_EQ(kind, row.kind);
        EXPECT_EQ(Text(name), row.name);
    }
    CMetaString key;
    MethodKind kind = MethodKindSetRef;
    handler.MakeMethodName(key, L"Item", &kind, 0, 0);
    EXPECT_EQ(Text(key), L"Setref:Item");
    MakeMethodKey(key, L"Item", static_cast<MethodKind>(7));
    EXPECT_EQ(Text(key), L"Invoke:Item");
    CMetaString shown;
    handler.SplitMethodName(L"Get:Visible", shown, kind, true);
    EXPECT_EQ(Text(shown), L"isVisible");
}

TEST(TypeNamesTest, AccessorAndParameterNamesForPeople)
{
    const struct { MethodKind kind; bool isBool; const wchar_t* name; const wchar_t* shown; } rows[] = {
        {MethodKindGet, false, L"Name", L"getName"},      {MethodKindGet, false, L"GetValue", L"GetValue"},
        {MethodKindGet, false, L"Getter", L"Getter"},     {MethodKindGet, false, L"settings", L"getsettings"},
        {MethodKindGet, true, L"Visible", L"isVisible"},  {MethodKindGet, true, L"IsOpen", L"IsOpen"},
        {MethodKindGet, true, L"Issue", L"Issue"},        {MethodKindGet, true, L"GetFlag", L"GetFlag"},
        {MethodKindSet, true, L"Name", L"setName"},       {MethodKindSet, false, L"SetName", L"SetName"},
        {MethodKindSetRef, false, L"Name", L"Name"},      {MethodKindInvoke, false, L"Name", L"Name"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(CMetaString(row.name).GetNarrow());
        CMetaString name(row.name);
        PrefixPropertyName(row.kind, row.isBool, name);
        EXPECT_EQ(Text(name), row.shown);
    }
    CMetaString param;
    MakeParamName(L"", param, 3);
    EXPECT_EQ(Text(param), L"param3");
    MakeParamName(nullptr, param, 1);
    EXPECT_EQ(Text(param), L"param1");
    MakeParamName(L"Index", param, 2);
    EXPECT_EQ(Text(param), L"Index");

    const struct { USHORT flags; std::uint32_t direction; } flagRows[] = {
        {PARAMFLAG_FIN | PARAMFLAG_FOUT, 2}, {PARAMFLAG_FRETVAL, 1}, {PARAMFLAG_FLCID, 0},
        {PARAMFLAG_FOUT | PARAMFLAG_FLCID, 2}, {0, 0},
    };
    for (const auto& row : flagRows) {
        ELEMDESC element = {};
        element.paramdesc.wParamFlags = row.flags;
        EXPECT_EQ(GetParamDirection(&element), row.direction) << row.flags;
    }
    EXPECT_EQ(GetParamDirection(nullptr), 0u);
}

class TypeDescShapesTest : public testing::Test {
protected:
    void SetUp() override
    {
        CTypeInfoList list;
        ASSERT_EQ(CollectTypeInfos("Scripting.Dictionary", list, nullptr), 1u);
        dictionary = list.front();
    }
    ComPtr<ITypeInfo> dictionary;
};

TEST_F(TypeDescShapesTest, PlainPointerAndArrayTypes)
{
    TYPEDESC i4 = Plain(VT_I4), bstr = Plain(VT_BSTR), dispatch = Plain(VT_DISPATCH), voidType = Plain(VT_VOID);
    TYPEDESC pointerToI4 = Around(VT_PTR, &i4), pointerToVoid = Around(VT_PTR, &voidType);
    TYPEDESC pointerToPointer = Around(VT_PTR, &pointerToI4);
    TYPEDESC arrayOfObjects = Around(VT_SAFEARRAY, &dispatch);
    ARRAYDESC grid = {};
    grid.tdescElem = i4;
    grid.cDims = 1;
    grid.rgbounds[0] = {2, 0};
    TYPEDESC carray = Plain(VT_CARRAY);
    carray.lpadesc = &grid;

    const struct {
        const char* label;
        const TYPEDESC* type;
        std::uint32_t metaType;
        std::int32_t isByRef;
        const wchar_t* typeName;
        const wchar_t* signature;
        std::int32_t dimensions;
    } rows[] = {
        {"pointer to void", &pointerToVoid, MetaTypeVoid, 1, L"None", L"VT_VOID|VT_PTR", 0},
        {"pointer to pointer", &pointerToPointer, MetaTypeObject, 0, L"", L"VT_I4|VT_PTR|VT_PTR", 0},
        {"array of objects", &arrayOfObjects, MetaTypeObject, 0, L"Array of ", L"VT_DISPATCH|VT_ARRAY", 1},
        {"C array", &carray, MetaTypeInt, 0, L"Array of Int", L"VT_BYREF", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        CTypeDesc out(MetaTypeStruct, 1, 1);  // anything old must go
        EXPECT_TRUE(BuildTypeDesc(out, dictionary.Get(), row.type));
        EXPECT_EQ(out.type, row.metaType);
        EXPECT_EQ(out.isByRef, row.isByRef);
        EXPECT_EQ(Text(out.typeName), row.typeName);
        EXPECT_EQ(Text(out.signature), row.signature);
        EXPECT_EQ(out.GetDimensionCount(), row.dimensions);
        EXPECT_EQ(out.structBody, nullptr);
    }
    CTypeDesc out;
    EXPECT_FALSE(BuildTypeDesc(out, nullptr, &bstr));
    EXPECT_EQ(out.type, MetaTypeObject);
}

// Types that refer to each other in a circle, as a type library may make them:
// an alias of itself, and two structs that hold each other. Built in memory
// through ICreateTypeLib2, since no compiler writes them.
TEST(TypeDescCircles, ACircleOfTypesEndsUnresolvedInsteadOfRecursing)
{
    wchar_t directory[MAX_PATH];
    GetTempPathW(MAX_PATH, directory);
    const std::wstring file = std::wstring(directory) + L"comhandler_circles.tlb";
    ComPtr<ICreateTypeLib2> library;
    ASSERT_EQ(CreateTypeLib2(SYS_WIN64, file.c_str(), library.Put()), S_OK);

    auto create = [&](const wchar_t* name, TYPEKIND kind, ComPtr<ICreateTypeInfo>& created, ComPtr<ITypeInfo>& info) {
        ASSERT_EQ(library->CreateTypeInfo(const_cast<LPOLESTR>(name), kind, created.Put()), S_OK);
        ASSERT_EQ(created->QueryInterface(IID_ITypeInfo, info.PutVoid()), S_OK);
    };
    ComPtr<ICreateTypeInfo> selfCreated, firstCreated, secondCreated;
    ComPtr<ITypeInfo> self, first, second;
    create(L"Itself", TKIND_ALIAS, selfCreated, self);
    create(L"First", TKIND_RECORD, firstCreated, first);
    create(L"Second", TKIND_RECORD, secondCreated, second);

    HREFTYPE selfReference = 0, firstReference = 0, secondReference = 0;
    ASSERT_EQ(selfCreated->AddRefTypeInfo(self.Get(), &selfReference), S_OK);
    TYPEDESC alias{};
    alias.vt = VT_USERDEFINED;
    alias.hreftype = selfReference;
    ASSERT_EQ(selfCreated->SetTypeDescAlias(&alias), S_OK);

    ASSERT_EQ(firstCreated->AddRefTypeInfo(second.Get(), &secondReference), S_OK);
    ASSERT_EQ(secondCreated->AddRefTypeInfo(first.Get(), &firstReference), S_OK);
    auto holding = [](ICreateTypeInfo* owner, const wchar_t* member, HREFTYPE reference) {
        VARDESC variable{};  // member 0, per instance
        variable.elemdescVar.tdesc.vt = VT_USERDEFINED;
        variable.elemdescVar.tdesc.hreftype = reference;
        ASSERT_EQ(owner->AddVarDesc(0, &variable), S_OK);
        ASSERT_EQ(owner->SetVarName(0, const_cast<LPOLESTR>(member)), S_OK);
    };
    holding(firstCreated.Get(), L"second", secondReference);
    holding(secondCreated.Get(), L"first", firstReference);

    const struct { const char* label; ITypeInfo* owner; HREFTYPE reference; } rows[] = {
                {"an alias of itself", self.Get(), selfReference},
                {"two structs that hold each other", second.Get(), firstReference}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        TYPEDESC type{};
        type.vt = VT_USERDEFINED;
        type.hreftype = row.reference;
        CTypeDesc out;
        BuildTypeDesc(out, row.owner, &type);  // returns, whatever it makes of the circle
        CTypeDesc again;
        BuildTypeDesc(again, row.owner, &type);  // and the bound starts afresh for the next type
        EXPECT_EQ(again.type, out.type);
    }
}

}  // namespace
