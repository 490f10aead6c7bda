#include "plugin/com_handler.h"

#include <new>
#include <string>

#include "contract/host_environment.h"
#include "discovery/catalogue.h"
#include "discovery/object_rows.h"
#include "discovery/type_names.h"
#include "identity/com_identity.h"
#include "invoke/method_invoke.h"
#include "metaobj/records.h"
#include "platform/contained_call.h"
#include "platform/error_text.h"
#include "platform/module_state.h"
#include "platform/platform_handles.h"
#include "resources/string_ids.h"

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

CMetaObjectCOMHandler* NewRegisteredHandler()
{
    auto* handler = new CMetaObjectCOMHandler;
    HostRegisterHandler(handler, ModuleHandle());
    return handler;
}

namespace {
MetaObj::CMetaObjectHandler* MakeObjectHandler(IDispatch* object)
{
    CMetaObjectCOMHandler* handler = NewRegisteredHandler();
    handler->AttachObject(object, nullptr);  // a null object leaves a handler that holds nothing
    return handler;
}
// The call layer wraps returned objects but sits below the handler, so the
// handler hands it the way to make one when the module loads.
[[maybe_unused]] const bool kObjectHandlerMakerSet = (MetaObj::SetObjectHandlerMaker(&MakeObjectHandler), true);
}  // namespace

CMetaObjectCOMHandler::CMetaObjectCOMHandler()
{
    // Every new handler reads the machine's setting afresh.
    dcomEnabled = ReadDcomEnabled();
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
    memberIds.Forget();
    object = dispatch;
    identity.SetText(identityText);  // a null text clears
    return MetaStatusOk;
}

void CMetaObjectCOMHandler::DetachObject()
{
    memberIds.Forget();
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

bool CMetaObjectCOMHandler::CanLoadObjectInfo(const char* identityText)
{
    // A handler of its own, which the host never hears of: this one plays no part.
    CMetaObjectCOMHandler probe;
    if (probe.LoadObjectInfo(identityText) != MetaStatusOk)
        return false;
    probe.UnloadObjectInfo();
    return true;
}

MetaStatus CMetaObjectCOMHandler::LoadObjectInfo(const char* identityText)
{
    ClearErrorText(this);
    if (identityText) {
        // A handler with a live object describes that object and no other.
        if (object)
            return MetaStatusBadIdentity;
        if (*identityText)
            identity.SetText(identityText);
    }
    if (!identity.IsComplete())
        return MetaStatusBadIdentity;
    std::uint8_t mustLoad = 0;
    if (!HostBeginObjectLoad(identity, mustLoad))
        return MetaStatusNoTypeInfo;
    if (!mustLoad)
        return MetaStatusOk;
    const MetaStatus status = FillCatalogue();
    if (!HostEndObjectLoad(identity, status == MetaStatusOk))
        return MetaStatusNoTypeInfo;
    return status;
}

MetaStatus CMetaObjectCOMHandler::FillCatalogue()
{
    const CCOMIdentity local(identity.GetText().c_str(), 1);
    if (!local.IsComplete())
        return MetaStatusBadIdentity;
    const std::string& typeLib = local.GetAttribute(std::string("TypeLib"));
    CTypeInfoList list;
    CollectTypeInfos(local.GetObjectName().c_str(), list, typeLib.empty() ? nullptr : typeLib.c_str());
    if (object && list.empty()) {
        // The live object may describe itself where no library was found.
        ComPtr<ITypeInfo> own;
        try {
            UINT count = 0;
            if (SUCCEEDED(object->GetTypeInfoCount(&count)))
                ContainFault([&] { return object->GetTypeInfo(0, GetUserDefaultLCID(), own.Put()); });
        } catch (...) {
            own.Reset();
        }
        if (!own)
            return MetaStatusNoTypeInfo;
        list.push_back(own);
    }
    if (list.empty()) {
        SetErrorTextById(this, IDS_NO_TYPE_LIBRARY);
        return MetaStatusNoTypeInfo;
    }
    return ReadTypeInfos(identity, list);
}

MetaStatus CMetaObjectCOMHandler::UnloadObjectInfo()
{
    HostReleaseObjectLoad(identity);
    ClearErrorText(this);
    CoFreeUnusedLibraries();
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::GetMethodNames(CMethodNameList** names)
{
    const CMetaObjectMethodTable* table = HostGetMethodTable(identity);
    if (!names || !table || table->entries.empty())
        return MetaStatusNoTypeInfo;
    auto list = new CMethodNameList;
    for (const CMethodEntry* entry : table->entries) {
        CMetaString key;
        MakeMethodKey(key, entry->methodName, static_cast<MethodKind>(entry->kind));
        list->push_back(key);
    }
    *names = list;
    return MetaStatusOk;
}

std::uint32_t CMetaObjectCOMHandler::GetMethodCount()
{
    const CMetaObjectMethodTable* table = HostGetMethodTable(identity);
    return table ? static_cast<std::uint32_t>(table->entries.size()) : 0;
}

MetaStatus CMetaObjectCOMHandler::GetMethodInfo(const CMetaString& methodKey, std::uint32_t mask, CMethodInfo** info,
                                                std::uint32_t clientData)
{
    const CMethodEntry* entry = FindMethodEntry(identity, methodKey);
    if (!entry || !info)
        return MetaStatusNoTypeInfo;
    auto record = new CMethodInfo;
    FillMethodInfo(*entry, mask, *record);
    record->clientData = clientData;
    record->methodKey = methodKey;
    *info = record;
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::GetParamInfo(const CMetaString& methodKey, std::uint32_t index, std::uint32_t mask,
                                               CParamInfo** info, std::uint32_t clientData)
{
    const CMethodEntry* entry = FindMethodEntry(identity, methodKey);
    if (!entry || !info)
        return MetaStatusNoTypeInfo;
    if (!entry->params || index >= entry->params->size())
        return MetaStatusBadIdentity;
    const CParamEntry* param = entry->GetParam(index);
    if (!param)
        return MetaStatusNoTypeInfo;
    auto record = new CParamInfo;
    FillParamInfo(*param, mask, *record);
    record->clientData = clientData;
    record->methodKey = methodKey;
    record->index = index;
    *info = record;
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::GetObjectInfo(CObjectInfo** info, const char* identityText, bool withProperties)
{
    const std::string text = identityText ? std::string(identityText) : identity.GetText();
    if (text.empty() || !info)
        return MetaStatusNoClass;
    auto record = new (std::nothrow) CObjectInfo;
    *info = record;
    if (!record)
        return MetaStatusNoMemory;
    // On NoClass the empty record stays with the caller, who frees it.
    const CCOMIdentity local(text.c_str(), 1);
    return FillObjectInfo(*record, local, withProperties) ? MetaStatusOk : MetaStatusNoClass;
}

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

MetaStatus CMetaObjectCOMHandler::CreateMethodInvoke(CCOMMethodInvoke** invoke, const CMetaString& methodKey)
{
    if (invoke == nullptr) {
        ClearErrorText(this);
        return MetaStatusNoMemory;
    }
    FreeMethodInvoke(invoke);  // which clears the error text
    try {
        if (object == nullptr) {
            *invoke = new CCOMMethodInvoke(object, methodKey);  // a call that fails at Execute
        } else {
            // A name this object already answered needs no GetIDsOfNames, which
            // is most of the cost of a call built for each statement.
            MethodKind kind = MethodKindInvoke;
            const wchar_t* text = MethodKeyName(methodKey, kind);
            if (!text)
                text = L"";
            DISPID id = -1;
            if (!memberIds.Find(object, text, id)) {
                id = ResolveMemberName(object, text);
                memberIds.Remember(object, text, id);
            }
            *invoke = new CCOMMethodInvoke(object, id, kind);
        }
    } catch (...) {
        *invoke = nullptr;
        return MetaStatusNoMemory;
    }
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::SetInvokeParams(CCOMMethodInvoke** invoke, CItemList& params)
{
    if (invoke == nullptr || *invoke == nullptr)
        return MetaStatusInvokeFailed;
    return (*invoke)->SetParams(params);
}

MetaStatus CMetaObjectCOMHandler::SetInvokeResultType(CCOMMethodInvoke** invoke, const CTypeDesc& resultType)
{
    if (invoke == nullptr || *invoke == nullptr)
        return MetaStatusInvokeFailed;
    return (*invoke)->SetResultType(resultType);
}

MetaStatus CMetaObjectCOMHandler::ExecuteInvoke(CCOMMethodInvoke** invoke, CMethodInvokeStatus* status,
                                                CMetaObjectItem** result)
{
    if (invoke == nullptr || *invoke == nullptr)
        return MetaStatusInvokeFailed;
    return (*invoke)->Execute(status, result);
}

void CMetaObjectCOMHandler::FreeMethodInvoke(CCOMMethodInvoke** invoke)
{
    if (invoke != nullptr) {
        delete *invoke;
        *invoke = nullptr;
    }
    ClearErrorText(this);
}

const CMetaString& CMetaObjectCOMHandler::GetErrorText()
{
    return GetThreadErrorText(this);
}

CMetaObjectHandlerInfo* CMetaObjectCOMHandler::GetHandlerInfo()
{
    return &HandlerInfo();
}
