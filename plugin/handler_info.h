#pragma once
// The record that describes the module to the host.

#include <windows.h>

#include "text/meta_string.h"

namespace MetaObj {

class CMetaObjectHandlerInfo {
public:
    CMetaObjectHandlerInfo() = default;
    CMetaObjectHandlerInfo(const CMetaObjectHandlerInfo&) = delete;
    CMetaObjectHandlerInfo& operator=(const CMetaObjectHandlerInfo&) = delete;

    virtual ~CMetaObjectHandlerInfo() = default;
    // Narrow texts owned by the record; null for a text that was never filled.
    virtual const char* GetHandlerName() { return name.GetNarrow(); }
    virtual const char* GetHandlerTypeName() { return typeName.GetNarrow(); }
    virtual const char* GetHandlerDescription() { return description.GetNarrow(); }
    virtual const char* GetModulePath() { return modulePath.GetNarrow(); }
    virtual const char* GetModuleDirectory() { return moduleDirectory.GetNarrow(); }

    CMetaString name;
    CMetaString typeName;
    CMetaString description;
    CMetaString modulePath;
    CMetaString moduleDirectory;
    HICON smallIcon = nullptr;  // owned; read by the host where it shows the handler
    HICON standardIcon = nullptr;
};

}  // namespace MetaObj

class CCOMHandlerInfo : public MetaObj::CMetaObjectHandlerInfo {
public:
    CCOMHandlerInfo() = default;
    // Icons go first, smallIcon before standardIcon; then the base drops the texts.
    ~CCOMHandlerInfo() override;

    void LoadFromModule(HINSTANCE module);

    HINSTANCE moduleHandle = nullptr;  // not owned; the module of every string lookup
};

// Cuts a module path at its last backslash, or failing that its last forward
// slash, in place. A path without either stays whole.
void CutAtLastSeparator(char* path);
