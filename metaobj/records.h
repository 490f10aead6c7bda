#pragma once
// Records that pass between handler and host. The host frees them through their
// virtual destructor, so each has that and nothing else virtual.

#include <string>

namespace MetaObj {

// What the host is told before an object is opened; lives for one access check.
class CMetaObjectSecurityInfo {
public:
    CMetaObjectSecurityInfo() = default;
    virtual ~CMetaObjectSecurityInfo() = default;

    std::string objectType;  // the handler's type name, "COM"
    std::string objectName;  // the program identifier, or empty
};

}  // namespace MetaObj
