#pragma once
// The identity of a COM object: scheme "COM", and an object name that is either a
// class identifier without braces or a program identifier.

#include <windows.h>

#include <string>

#include "identity/object_identity.h"
#include "platform/platform_handles.h"
#include "text/meta_string.h"

// Where a class lives, by the registry entry that names its server.
enum ServerKind : std::uint32_t {
    ServerKindInproc = 1,
    ServerKindLocal = 2,
    ServerKindService = 3,
    ServerKindRemote = 4,
    ServerKindHandler = 5,
};

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

    // Registry readers: each reads HKEY_CLASSES_ROOT when asked, caches nothing
    // and closes what it opened. Out-arguments are written only on true, and
    // values beyond their size limit count as missing.
    bool GetClassIdText(std::string& out, bool withBraces) const;
    bool GetClassId(CLSID& out) const;
    bool GetProgId(std::string& out) const;
    MetaObj::RegKey OpenClassKey(REGSAM access) const;
    bool IsRegistered() const;
    bool GetVersion(std::string& out) const;
    bool GetVersionIndependentProgId(std::string& out) const;
    bool GetServerPath(std::string& out, ServerKind& kind) const;
    bool IsInprocServer() const;
    bool IsLocalServer() const;
    bool IsRemoteServer() const;
    bool GetThreadingModel(std::string& out) const;
    // The readable name of the interface, or of this identity's class when iid is null.
    bool GetUserTypeName(MetaObj::CMetaString& out, const IID* iid) const;

    // Type library location. A version word holds the major version in its high
    // and the minor in its low 16 bits; 0 asks for none in particular.
    bool GetTypeLibId(std::string& out, bool withBraces, bool mayLoad) const;
    bool GetTypeLibGuid(GUID& out, const IID* iid) const;
    MetaObj::RegKey OpenTypeLibKey(REGSAM access) const;
    bool FindTypeLibFile(std::uint32_t version, std::string& name, std::string& path) const;
    // Reads the library out of the server file named in the class key.
    bool LoadServerTypeLib(std::uint32_t version, GUID& libraryId, MetaObj::CMetaString& path,
                           MetaObj::CMetaString& name) const;

private:
    bool IsServerOfKind(ServerKind wanted) const;
};

// Reads the default value of a subkey, expanding environment references where
// the value holds them. False when missing or longer than size.
bool QueryPathValue(HKEY key, const char* subkey, char* buffer, LONG size);
// Takes a class identifier (with or without braces) or a ProgID, by its form.
bool ClassIdFromText(const char* text, CLSID* out);
// On true, *out is a new narrow text in braces; the caller frees it with delete[].
bool ClassIdToText(const CLSID* classId, char** out);
