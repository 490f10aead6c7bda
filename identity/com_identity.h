#pragma once
// The identity of a COM object: scheme "COM", and an object name that is either a
// class identifier without braces or a program identifier.

#include <guiddef.h>

#include <string>

#include "identity/object_identity.h"

class CCOMIdentity : public MetaObj::CObjectIdentity {
public:
    CCOMIdentity() = default;
    // isWhole not 0: text is a whole identity string. 0: text is a bare object name.
    CCOMIdentity(const char* text, int isWhole);
    explicit CCOMIdentity(const CLSID& classId);
    ~CCOMIdentity() override = default;

    bool IsClassIdName() const { return IsClassIdText(GetObjectName()); }
    // 36 characters and no dot; the letters are not looked at. Braced forms are 38 long.
    static bool IsClassIdText(const std::string& name)
    {
        return name.size() == 36 && name.find('.') == std::string::npos;
    }
};
