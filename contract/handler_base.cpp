#include "contract/handler_base.h"

#include <new>

#include "platform/error_text.h"

namespace MetaObj {

CMetaLock::CMetaLock(std::uint32_t kind) : kind(kind)
{
    Create();
}

CMetaLock::~CMetaLock()
{
    section = nullptr;
}

void CMetaLock::Create()
{
    section = new CRITICAL_SECTION;
    InitializeCriticalSection(section);
}

std::uint32_t CMetaLock::Destroy()
{
    if (section == nullptr)
        return 1;
    DeleteCriticalSection(section);
    delete section;
    section = nullptr;
    return 0;
}

std::uint32_t CMetaLock::Enter()
{
    if (section == nullptr)
        return 1;
    EnterCriticalSection(section);
    return 0;
}

std::uint32_t CMetaLock::Leave()
{
    if (section == nullptr)
        return 1;
    LeaveCriticalSection(section);
    return 0;
}

CMetaObjectHandler::CMetaObjectHandler() = default;

CMetaObjectHandler::~CMetaObjectHandler()
{
    ForgetErrorText(this);
    lock.Destroy();
}

MetaStatus CMetaObjectHandler::OnObjectOpened(const char*, CObjectOpenParams*)
{
    return MetaStatusOk;
}

MetaStatus CMetaObjectHandler::OnObjectClosing()
{
    return MetaStatusOk;
}

void CMetaObjectHandler::SetIdentity(const CObjectIdentity& other)
{
    // Parsed anew from the whole text; the object does not change.
    identity.SetText(other.GetText());
}

bool CMetaObjectHandler::IsOpen()
{
    CMetaLockGuard guard(lock);
    return IsObjectAttached();
}

MetaStatus CMetaObjectHandler::Open(const char* identityText, CObjectOpenParams* params)
{
    MetaStatus status = MetaStatusOk;
    {
        // A slow creation blocks AddUse, Release and IsOpen on this handler, by design.
        CMetaLockGuard guard(lock);
        if (!IsObjectAttached())
            status = OpenObject(identityText, params);
    }
    if (status != MetaStatusOk)
        return status;
    return OnObjectOpened(identityText, params);
}

MetaStatus CMetaObjectHandler::AddUse()
{
    CMetaLockGuard guard(lock);
    ++useCount;
    return MetaStatusOk;
}

MetaStatus CMetaObjectHandler::Release()
{
    {
        CMetaLockGuard guard(lock);
        if (useCount == 0)
            return MetaStatusNotInUse;
        if (useCount > 1) {
            --useCount;
            return MetaStatusOk;
        }
    }
    // The last use: the count stays at 1 while OnObjectClosing runs outside the lock,
    // so a concurrent AddUse can still raise it; CloseObject runs all the same.
    OnObjectClosing();
    CMetaLockGuard guard(lock);
    CloseObject();
    --useCount;
    return MetaStatusClosed;
}

std::uint32_t CMetaObjectHandler::GetUseCount()
{
    CMetaLockGuard guard(lock);
    return useCount;
}

}  // namespace MetaObj
