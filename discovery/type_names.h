#pragma once
// The three vocabularies of types: COM's VARTYPEs and TYPEDESC trees, the meta
// type codes with their names for people, and signature texts such as
// "VT_I4|VT_PTR". Also the method keys that name one way of calling a member.

#include <oaidl.h>

#include <cstdint>

#include "contract/method_kind.h"
#include "metaobj/type_desc.h"
#include "text/meta_string.h"

namespace MetaObj {

// A signature holds at most this many characters, terminator included.
constexpr std::size_t kSignatureChars = 50;

CMetaString TypeSignatureText(const TYPEDESC* type);
// Unknown texts give VT_VOID; a "|" suffix adds VT_BYREF.
VARTYPE VarTypeFromSignature(const wchar_t* signature);
// name, where given, takes the type's name for people if the type has one.
std::uint32_t MetaTypeFromVarType(VARTYPE vt, CMetaString* name);
// 0 in, 1 out, 2 in and out.
std::uint32_t GetParamDirection(const ELEMDESC* element);
// Never leaves out half-built: on failure it holds an object type with the
// TYPEDESC's signature. False when a reference couldn't be resolved.
bool BuildTypeDesc(CTypeDesc& out, ITypeInfo* info, const TYPEDESC* type);
// Puts "get", "set" or "is" in front of an accessor's name unless it has one.
void PrefixPropertyName(MethodKind kind, bool isBool, CMetaString& name);
// The text, or "param" and the position when it is empty.
void MakeParamName(const wchar_t* text, CMetaString& out, int position);
// The member name as a pointer into the key, which holds it; null when the key has no colon.
const wchar_t* MethodKeyName(const CMetaString& key, MethodKind& kind);
// Leaves name alone when the key has no colon.
int SplitMethodKey(const CMetaString& key, CMetaString& name, MethodKind& kind);
int MakeMethodKey(CMetaString& key, const CMetaString& name, MethodKind kind);
// The signature of one of the host's type words; false for an unknown word.
bool SignatureOfTypeWord(const CMetaString& word, CMetaString& signature, bool byRef);

}  // namespace MetaObj
