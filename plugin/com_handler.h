#pragma once
// This module's handler: one identity and at most one live COM object.

#include <windows.h>
#include <oaidl.h>

#include <cstddef>

#include "contract/handler_base.h"
#include "invoke/member_ids.h"

class CCOMIdentity;

class CMetaObjectCOMHandler : public MetaObj::CMetaObjectHandler {
public:
    using MetaStatus = MetaObj::MetaStatus;
    using CMetaString = MetaObj::CMetaString;

    CMetaObjectCOMHandler();
    // Touches neither the object nor the host: CloseObject or DetachObject come first.
    ~CMetaObjectCOMHandler() override = default;

    MetaStatus OpenObject(const char* identityText, MetaObj::CObjectOpenParams* params) override;
    MetaStatus CloseObject() override;
    bool IsObjectAttached() override { return object != nullptr; }
    void FreeObjectInfo(MetaObj::CObjectInfo* record) override;
    void FreeMethodInfo(MetaObj::CMethodInfo* record) override;
    void FreeItem(MetaObj::CMetaObjectItem* item) override;
    void FreeParamInfo(MetaObj::CParamInfo* record) override;
    void FreeRecordList1(MetaObj::CItemList* list) override;
    void FreeRecordList2(MetaObj::CItemList* list) override;
    void FreeRecordList3(MetaObj::CItemList* list) override;
    void FreeMethodNameList(MetaObj::CMethodNameList* list) override;
    bool CanLoadObjectInfo(const char* identityText) override;
    IDispatch* GetObjectPointer() override { return object; }
    IDispatch* GetDispatchPointer() override { return object; }
    MetaStatus LoadObjectInfo(const char* identityText) override;
    MetaStatus UnloadObjectInfo() override;
    MetaStatus GetMethodNames(MetaObj::CMethodNameList** names) override;
    std::uint32_t GetMethodCount() override;
    MetaStatus GetMethodInfo(const CMetaString& methodKey, std::uint32_t mask, MetaObj::CMethodInfo** info,
                             std::uint32_t clientData) override;
    MetaStatus GetParamInfo(const CMetaString& methodKey, std::uint32_t index, std::uint32_t mask,
                            MetaObj::CParamInfo** info, std::uint32_t clientData) override;
    MetaStatus GetObjectInfo(MetaObj::CObjectInfo** info, const char* identityText, bool withProperties) override;
    MetaStatus SplitMethodName(const CMetaString& methodKey, CMetaString& name, MetaObj::MethodKind& kind,
                               bool isBool) override;
    MetaStatus MakeMethodName(CMetaString& methodKey, const CMetaString& name, MetaObj::MethodKind* kind,
                              std::uint32_t unused1, std::uint32_t unused2) override;
    MetaStatus GetTypeSignature(const CMetaString& typeWord, CMetaString& signature, bool byRef) override;
    MetaStatus CreateMethodInvoke(CCOMMethodInvoke** invoke, const CMetaString& methodKey) override;
    MetaStatus SetInvokeParams(CCOMMethodInvoke** invoke, MetaObj::CItemList& params) override;
    MetaStatus SetInvokeResultType(CCOMMethodInvoke** invoke, const MetaObj::CTypeDesc& resultType) override;
    MetaStatus ExecuteInvoke(CCOMMethodInvoke** invoke, MetaObj::CMethodInvokeStatus* status,
                             MetaObj::CMetaObjectItem** result) override;
    void FreeMethodInvoke(CCOMMethodInvoke** invoke) override;
    MetaStatus OpenEnumerator(IEnumVARIANT** enumerator) override;
    MetaStatus ResetEnumerator(IEnumVARIANT** enumerator) override;
    MetaStatus NextElements(IEnumVARIANT** enumerator, std::uint32_t count, MetaObj::CItemList& items,
                            std::uint32_t* fetched) override;
    MetaStatus SkipElements(IEnumVARIANT** enumerator, std::uint32_t count) override;
    MetaStatus CountElements(IEnumVARIANT** enumerator, std::uint32_t* count) override;
    MetaStatus CloseEnumerator(IEnumVARIANT** enumerator) override;
    const CMetaString& GetErrorText() override;
    MetaObj::CMetaObjectHandlerInfo* GetHandlerInfo() override;

    // Takes over one reference without AddRef; the handler is expected to hold none yet.
    virtual MetaStatus AttachObject(IDispatch* dispatch, const char* identityText);
    // Forgets the object without Release, and clears the identity.
    virtual void DetachObject();

private:
    // Reads the class's type information into the host's table for identity.
    MetaStatus FillCatalogue();

    // The steps of OpenObject; each gives one IDispatch reference or null.
    bool CheckAccess(const char* identityText);
    IDispatch* GetObjectFromMoniker(const wchar_t* displayName);
    IDispatch* GetRunningObject(const CLSID& classId);
    IDispatch* CreateFromFactory(const CCOMIdentity& local, const MetaObj::CObjectOpenParams* params);

public:

    bool dcomEnabled = false;  // read once, at construction
    IDispatch* object = nullptr;

private:
    // After the fields a host may know of; forgotten whenever the object changes.
    MetaObj::CMemberIds memberIds;
};

// A new handler as GetHandlerObject gives it: one use, no object, registered with the host.
CMetaObjectCOMHandler* NewRegisteredHandler();

// The machine's "EnableDCOM" setting under HKEY_LOCAL_MACHINE\Software\Microsoft\OLE.
bool ReadDcomEnabled();
// The rule on the value's bytes, as read into a buffer of 10 bytes.
bool DcomEnabledFromValue(const char* bytes, std::size_t size);
