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

    virtual ~CMetaObjectHandlerInfo();
    // Narrow texts owned by the record; null for a text that was never filled.
    // Defined in the module only: the host reaches them through the table.
    virtual const char* GetHandlerName();
    virtual const char* GetHandlerTypeName();
    virtual const char* GetHandlerDescription();
    virtual const char* GetModulePath();
    virtual const char* GetModuleDirectory();

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
