#include "plugin/com_handler.h"

#include "discovery/type_names.h"
#include "plugin/error_text.h"
#include "plugin/module_state.h"
#include "plugin/platform_handles.h"

using namespace MetaObj;

namespace {

constexpr DWORD kDcomValueBytes = 10;

void ClearErrorText(const CMetaObjectHandler* handler)
{
    SetErrorText(handler, "");
}

}  // namespace

bool DcomEnabledFromValue(const char* bytes, std::size_t size)
{
    if (size == 0)
        return false;
    switch (bytes[0]) {
    case '1': case 'T': case 'Y': case 't': case 'y':
        return true;
    default:
        return false;
    }
}

bool ReadDcomEnabled()
{
    RegKey key;
    if (RegOpenKeyA(HKEY_LOCAL_MACHINE, "Software\\Microsoft\\OLE", key.Put()) != ERROR_SUCCESS)
        return false;
    // The value's type is not looked at; a longer value fails the read and counts as off.
    char value[kDcomValueBytes] = {};
    DWORD size = kDcomValueBytes;
    if (RegQueryValueExA(key.Get(), "EnableDCOM", nullptr, nullptr, reinterpret_cast<BYTE*>(value), &size) !=
        ERROR_SUCCESS)
        return false;
    return DcomEnabledFromValue(value, size);
}

CMetaObjectCOMHandler::CMetaObjectCOMHandler()
{
    // Every new handler reads the machine's setting afresh.
    dcomEnabled = ReadDcomEnabled();
}

MetaStatus CMetaObjectCOMHandler::OpenObject(const char*, CObjectOpenParams*)
{
    ClearErrorText(this);
    // Placeholder until object creation is built: no object can come of it yet.
    return MetaStatusNoObject;
}

MetaStatus CMetaObjectCOMHandler::CloseObject()
{
    ClearErrorText(this);
    if (object != nullptr)
        object->Release();
    DetachObject();
    return MetaStatusClosed;
}

MetaStatus CMetaObjectCOMHandler::AttachObject(IDispatch* dispatch, const char* identityText)
{
    if (dispatch == nullptr)
        return MetaStatusNoObjectGiven;
    object = dispatch;
    identity.SetText(identityText);  // a null text clears
    return MetaStatusOk;
}

void CMetaObjectCOMHandler::DetachObject()
{
    object = nullptr;
    identity.Clear();
}

// The four record frees share one body, so any of them frees any record: the
// deleting destructor is reached through the record's own table, where every
// record and item keeps it first, after the complete destructor.
namespace {
#if defined(__i386__)
#define RECORD_DESTRUCTOR_CALL __attribute__((thiscall))
#else
#define RECORD_DESTRUCTOR_CALL
#endif
using DeletingDestructor = void(RECORD_DESTRUCTOR_CALL*)(void* record);

void DeleteRecord(void* record)
{
    if (record == nullptr)
        return;
    DeletingDestructor* table = *static_cast<DeletingDestructor**>(record);
    table[1](record);
}
}  // namespace

void CMetaObjectCOMHandler::FreeObjectInfo(CObjectInfo* record)
{
    DeleteRecord(record);
}

void CMetaObjectCOMHandler::FreeMethodInfo(CMethodInfo* record)
{
    DeleteRecord(record);
}

void CMetaObjectCOMHandler::FreeItem(CMetaObjectItem* item)
{
    DeleteRecord(item);
}

void CMetaObjectCOMHandler::FreeParamInfo(CParamInfo* record)
{
    DeleteRecord(record);
}

// The list and its nodes go; the elements are the caller's to free first.
void CMetaObjectCOMHandler::FreeRecordList1(CItemList* list)
{
    delete list;
}

void CMetaObjectCOMHandler::FreeRecordList2(CItemList* list)
{
    delete list;
}

void CMetaObjectCOMHandler::FreeRecordList3(CItemList* list)
{
    delete list;
}

void CMetaObjectCOMHandler::FreeMethodNameList(CMethodNameList* list)
{
    delete list;
}

// Placeholders until the catalogue is built: no description can be had yet.
bool CMetaObjectCOMHandler::CanLoadObjectInfo(const char*)
{
    return false;
}

MetaStatus CMetaObjectCOMHandler::LoadObjectInfo(const char*)
{
    ClearErrorText(this);
    return MetaStatusNoTypeInfo;
}

MetaStatus CMetaObjectCOMHandler::UnloadObjectInfo()
{
    ClearErrorText(this);
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::GetMethodNames(CMethodNameList**)
{
    return MetaStatusNoTypeInfo;
}

std::uint32_t CMetaObjectCOMHandler::GetMethodCount()
{
    return 0;
}

MetaStatus CMetaObjectCOMHandler::GetMethodInfo(const CMetaString&, std::uint32_t, CMethodInfo**, std::uint32_t)
{
    return MetaStatusNoTypeInfo;
}

MetaStatus CMetaObjectCOMHandler::GetParamInfo(const CMetaString&, std::uint32_t, std::uint32_t, CParamInfo**,
                                               std::uint32_t)
{
    return MetaStatusNoTypeInfo;
}

// Placeholder until the attribute rows are built: no class can be described yet.
MetaStatus CMetaObjectCOMHandler::GetObjectInfo(CObjectInfo**, const char*, bool)
{
    return MetaStatusNoClass;
}

// Placeholders until method keys and type names are built.
MetaStatus CMetaObjectCOMHandler::SplitMethodName(const CMetaString& methodKey, CMetaString& name, MethodKind& kind,
                                                  bool isBool)
{
    SplitMethodKey(methodKey, name, kind);
    // The key becomes what people see: accessors get their prefix.
    if (kind != MethodKindInvoke)
        PrefixPropertyName(kind, isBool, name);
    return MetaStatusOk;
}

// The two last words are the host's and are not read.
MetaStatus CMetaObjectCOMHandler::MakeMethodName(CMetaString& methodKey, const CMetaString& name, MethodKind* kind,
                                                 std::uint32_t, std::uint32_t)
{
    MakeMethodKey(methodKey, name, kind ? *kind : MethodKindInvoke);
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::GetTypeSignature(const CMetaString& typeWord, CMetaString& signature, bool byRef)
{
    return SignatureOfTypeWord(typeWord, signature, byRef) ? MetaStatusOk : MetaStatusBadType;
}

// Placeholders until method calls are built: no call object is ever made, so a
// slot only ever holds null.
MetaStatus CMetaObjectCOMHandler::CreateMethodInvoke(CCOMMethodInvoke** invoke, const CMetaString&)
{
    ClearErrorText(this);
    if (invoke != nullptr)
        *invoke = nullptr;
    return MetaStatusNoMemory;
}

MetaStatus CMetaObjectCOMHandler::SetInvokeParams(CCOMMethodInvoke**, CItemList&)
{
    return MetaStatusInvokeFailed;
}

MetaStatus CMetaObjectCOMHandler::SetInvokeResultType(CCOMMethodInvoke**, const CTypeDesc&)
{
    return MetaStatusInvokeFailed;
}

MetaStatus CMetaObjectCOMHandler::ExecuteInvoke(CCOMMethodInvoke**, CMethodInvokeStatus*, CMetaObjectItem**)
{
    return MetaStatusInvokeFailed;
}

void CMetaObjectCOMHandler::FreeMethodInvoke(CCOMMethodInvoke** invoke)
{
    if (invoke != nullptr)
        *invoke = nullptr;
    ClearErrorText(this);
}

// Placeholders until collections are built: no enumerator is ever opened.
MetaStatus CMetaObjectCOMHandler::OpenEnumerator(IEnumVARIANT**)
{
    ClearErrorText(this);
    return MetaStatusNoCollection;
}

MetaStatus CMetaObjectCOMHandler::ResetEnumerator(IEnumVARIANT**)
{
    return MetaStatusNoCollection;
}

MetaStatus CMetaObjectCOMHandler::NextElements(IEnumVARIANT**, std::uint32_t, CItemList&, std::uint32_t*)
{
    return MetaStatusNoCollection;
}

MetaStatus CMetaObjectCOMHandler::SkipElements(IEnumVARIANT**, std::uint32_t)
{
    return MetaStatusNoCollection;
}

MetaStatus CMetaObjectCOMHandler::CountElements(IEnumVARIANT**, std::uint32_t*)
{
    return MetaStatusNoCollection;
}

MetaStatus CMetaObjectCOMHandler::CloseEnumerator(IEnumVARIANT**)
{
    return MetaStatusNoCollection;
}

const CMetaString& CMetaObjectCOMHandler::GetErrorText()
{
    return GetThreadErrorText(this);
}

CMetaObjectHandlerInfo* CMetaObjectCOMHandler::GetHandlerInfo()
{
    return &HandlerInfo();
}
