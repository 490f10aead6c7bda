#include "platform/handler_info.h"

#include <cstring>

#include "resources/string_ids.h"

namespace {

constexpr int kPathChars = 260;

}  // namespace

namespace MetaObj {

CMetaObjectHandlerInfo::~CMetaObjectHandlerInfo() = default;

const char* CMetaObjectHandlerInfo::GetHandlerName()
{
    return name.GetNarrow();
}

const char* CMetaObjectHandlerInfo::GetHandlerTypeName()
{
    return typeName.GetNarrow();
}

const char* CMetaObjectHandlerInfo::GetHandlerDescription()
{
    return description.GetNarrow();
}

const char* CMetaObjectHandlerInfo::GetModulePath()
{
    return modulePath.GetNarrow();
}

const char* CMetaObjectHandlerInfo::GetModuleDirectory()
{
    return moduleDirectory.GetNarrow();
}

}  // namespace MetaObj

CCOMHandlerInfo::~CCOMHandlerInfo()
{
    if (smallIcon != nullptr)
        DestroyIcon(smallIcon);
    if (standardIcon != nullptr)
        DestroyIcon(standardIcon);
}

void CCOMHandlerInfo::LoadFromModule(HINSTANCE module)
{
    moduleHandle = module;

    // One buffer serves every step, as failures of these calls go unnoticed:
    // a missing string leaves what the buffer held.
    char buffer[kPathChars] = {};
    LoadStringA(module, IDS_HANDLER_NAME, buffer, kPathChars);
    name.AssignNarrow(buffer);
    LoadStringA(module, IDS_HANDLER_DESCRIPTION, buffer, kPathChars);
    description.AssignNarrow(buffer);
    LoadStringA(module, IDS_HANDLER_TYPE_NAME, buffer, kPathChars);
    typeName.AssignNarrow(buffer);

    standardIcon = LoadIconA(module, MAKEINTRESOURCEA(IDI_HANDLER_ICON));
    smallIcon = static_cast<HICON>(LoadImageA(module, MAKEINTRESOURCEA(IDI_HANDLER_ICON), IMAGE_ICON, 16, 16, LR_SHARED));
    if (smallIcon == standardIcon)
        smallIcon = static_cast<HICON>(CopyImage(smallIcon, IMAGE_ICON, 16, 16, LR_COPYFROMRESOURCE));

    GetModuleFileNameA(module, buffer, kPathChars);
    modulePath.AssignNarrow(buffer);
    CutAtLastSeparator(buffer);
    moduleDirectory.AssignNarrow(buffer);
}

void CutAtLastSeparator(char* path)
{
    // A backslash wins over a forward slash wherever the slash stands.
    char* separator = std::strrchr(path, '\\');
    if (separator == nullptr)
        separator = std::strrchr(path, '/');
    if (separator != nullptr)
        *separator = 0;
}
