#pragma once
// The interface through which the host drives one meta object. The host calls
// the virtual operations by position: their order below is a contract.

#include <windows.h>
#include <oaidl.h>

#include <cstdint>
#include <list>

#include "contract/method_kind.h"
#include "contract/model_fwd.h"
#include "contract/open_params.h"
#include "identity/object_identity.h"
#include "text/meta_string.h"

namespace MetaObj {

class CMetaObjectHandlerInfo;

enum MetaStatus : std::uint32_t {
    MetaStatusOk = 0,
    MetaStatusBadIdentity = 1,
    MetaStatusNoObject = 3,
    MetaStatusNoObjectGiven = 4,
    MetaStatusNoTypeInfo = 5,
    MetaStatusInvokeFailed = 7,
    MetaStatusNoMemory = 8,
    MetaStatusNotInUse = 9,
    MetaStatusNoClass = 10,
    MetaStatusBadType = 12,
    MetaStatusNoCollection = 13,
    MetaStatusDenied = 14,
    MetaStatusClosed = 0xFFE0,
};

// Guards a use count and an open state. The destructor frees nothing:
// the owner calls Destroy first.
class CMetaLock {
public:
    explicit CMetaLock(std::uint32_t kind = 0);
    ~CMetaLock();
    CMetaLock(const CMetaLock&) = delete;
    CMetaLock& operator=(const CMetaLock&) = delete;

    void Create();
    std::uint32_t Destroy();
    std::uint32_t Enter();
    std::uint32_t Leave();

    std::uint32_t kind;  // 0: a critical section, the only kind made
    CRITICAL_SECTION* section = nullptr;
};

// Holds a CMetaLock for one scope.
class CMetaLockGuard {
public:
    explicit CMetaLockGuard(CMetaLock& lock) : lock(lock) { lock.Enter(); }
    ~CMetaLockGuard() { lock.Leave(); }
    CMetaLockGuard(const CMetaLockGuard&) = delete;
    CMetaLockGuard& operator=(const CMetaLockGuard&) = delete;

private:
    CMetaLock& lock;
};

using CMethodNameList = std::list<CMetaString>;

class CMetaObjectHandler {
public:
    CMetaObjectHandler();
    CMetaObjectHandler(const CMetaObjectHandler&) = delete;
    CMetaObjectHandler& operator=(const CMetaObjectHandler&) = delete;

    virtual MetaStatus OpenObject(const char* identityText, CObjectOpenParams* params) = 0;
    virtual MetaStatus CloseObject() = 0;
    virtual MetaStatus OnObjectOpened(const char* identityText, CObjectOpenParams* params);
    virtual MetaStatus OnObjectClosing();
    virtual bool IsObjectAttached() = 0;
    // Destroys the lock, then the identity; touches no object and not the host.
    virtual ~CMetaObjectHandler();
    virtual void SetIdentity(const CObjectIdentity& other);
    virtual bool IsOpen();
    virtual MetaStatus Open(const char* identityText, CObjectOpenParams* params);
    virtual MetaStatus AddUse();
    virtual void FreeObjectInfo(CObjectInfo* record) = 0;
    virtual void FreeMethodInfo(CMethodInfo* record) = 0;
    virtual void FreeItem(CMetaObjectItem* item) = 0;
    virtual void FreeParamInfo(CParamInfo* record) = 0;
    virtual void FreeRecordList1(CItemList* list) = 0;
    virtual void FreeRecordList2(CItemList* list) = 0;
    virtual void FreeRecordList3(CItemList* list) = 0;
    virtual void FreeMethodNameList(CMethodNameList* list) = 0;
    virtual MetaStatus Release();
    virtual std::uint32_t GetUseCount();
    virtual bool CanLoadObjectInfo(const char* identityText) = 0;
    virtual IDispatch* GetObjectPointer() = 0;
    virtual IDispatch* GetDispatchPointer() = 0;
    virtual MetaStatus LoadObjectInfo(const char* identityText) = 0;
    virtual MetaStatus UnloadObjectInfo() = 0;
    virtual MetaStatus GetMethodNames(CMethodNameList** names) = 0;
    virtual std::uint32_t GetMethodCount() = 0;
    virtual MetaStatus GetMethodInfo(const CMetaString& methodKey, std::uint32_t mask, CMethodInfo** info,
                                     std::uint32_t clientData) = 0;
    virtual MetaStatus GetParamInfo(const CMetaString& methodKey, std::uint32_t index, std::uint32_t mask,
                                    CParamInfo** info, std::uint32_t clientData) = 0;
    virtual MetaStatus GetObjectInfo(CObjectInfo** info, const char* identityText, bool withProperties) = 0;
    virtual MetaStatus SplitMethodName(const CMetaString& methodKey, CMetaString& name, MethodKind& kind,
                                       bool isBool) = 0;
    virtual MetaStatus MakeMethodName(CMetaString& methodKey, const CMetaString& name, MethodKind* kind,
                                      std::uint32_t unused1, std::uint32_t unused2) = 0;
    virtual MetaStatus GetTypeSignature(const CMetaString& typeWord, CMetaString& signature, bool byRef) = 0;
    virtual MetaStatus CreateMethodInvoke(CCOMMethodInvoke** invoke, const CMetaString& methodKey) = 0;
    virtual MetaStatus SetInvokeParams(CCOMMethodInvoke** invoke, CItemList& params) = 0;
    virtual MetaStatus SetInvokeResultType(CCOMMethodInvoke** invoke, const CTypeDesc& resultType) = 0;
    virtual MetaStatus ExecuteInvoke(CCOMMethodInvoke** invoke, CMethodInvokeStatus* status,
                                     CMetaObjectItem** result) = 0;
    virtual void FreeMethodInvoke(CCOMMethodInvoke** invoke) = 0;
    virtual MetaStatus OpenEnumerator(IEnumVARIANT** enumerator) = 0;
    virtual MetaStatus ResetEnumerator(IEnumVARIANT** enumerator) = 0;
    virtual MetaStatus NextElements(IEnumVARIANT** enumerator, std::uint32_t count, CItemList& items,
                                    std::uint32_t* fetched) = 0;
    virtual MetaStatus SkipElements(IEnumVARIANT** enumerator, std::uint32_t count) = 0;
    virtual MetaStatus CountElements(IEnumVARIANT** enumerator, std::uint32_t* count) = 0;
    virtual MetaStatus CloseEnumerator(IEnumVARIANT** enumerator) = 0;
    virtual const CMetaString& GetErrorText() = 0;
    virtual CMetaObjectHandlerInfo* GetHandlerInfo() = 0;

    // Laid out for the host, which reads the identity by address.
    std::uint32_t useCount = 1;
    CMetaLock lock;
    CObjectIdentity identity;
};

}  // namespace MetaObj
