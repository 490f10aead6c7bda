#include "identity/com_identity.h"

#include <objbase.h>

#include "platform/module_state.h"
#include "platform/platform_handles.h"
#include "resources/string_ids.h"
#include "text/meta_string.h"

namespace {

constexpr int kSchemeChars = 20;

std::string ComScheme()
{
    return LoadModuleString(IDS_HANDLER_TYPE_NAME, kSchemeChars);
}

}  // namespace

CCOMIdentity::CCOMIdentity(const char* text, int isWhole)
{
    if (isWhole != 0) {
        SetText(text);
        return;
    }
    SetScheme(ComScheme());
    SetObjectName(text);
}

CCOMIdentity::CCOMIdentity(const CLSID& classId)
{
    MetaObj::CoTaskMemText text;
    if (FAILED(StringFromCLSID(classId, text.Put())))
        return;
    SetScheme(ComScheme());
    const MetaObj::CMetaString wide(text.Get());
    std::string name = wide.GetNarrow() != nullptr ? wide.GetNarrow() : "";
    if (!name.empty() && name.front() == '{')
        name = name.substr(1, name.size() - 2);
    SetObjectName(name);
}
