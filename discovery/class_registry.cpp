// What HKEY_CLASSES_ROOT says about the class of an identity.

#include <windows.h>
#include <objbase.h>
#include <ole2.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "identity/com_identity.h"
#include "text/meta_string.h"

using MetaObj::CMetaString;
using MetaObj::CoTaskMemText;
using MetaObj::RegKey;

namespace {

// Size limits of the entries, terminator included.
constexpr LONG kVersionBytes = 50;
constexpr LONG kIndependentProgIdBytes = 100;
constexpr LONG kPathBytes = MAX_PATH;
constexpr DWORD kTypeNameBytes = 256;
constexpr int kKeyPathBytes = 1024;

struct ServerProbe {
    const char* subkey;
    ServerKind kind;
};

// The order of the probe decides which kind a class with several entries reports.
constexpr ServerProbe kServerProbes[] = {
    {"InprocServer32", ServerKindInproc},
    {"InprocHandler32", ServerKindHandler},
    {"LocalService", ServerKindService},
    {"LocalServer32", ServerKindLocal},
};

std::string NarrowOf(const wchar_t* text)
{
    const CMetaString wide(text);
    const char* narrow = wide.GetNarrow();
    return narrow ? narrow : "";
}

RegKey OpenKey(HKEY parent, const char* path, REGSAM access = KEY_QUERY_VALUE)
{
    RegKey key;
    if (RegOpenKeyExA(parent, path, 0, access, key.Put()) != ERROR_SUCCESS)
        key.Reset();
    return key;
}

bool ReadSubkeyDefault(HKEY key, const char* subkey, LONG limit, std::string& out)
{
    std::unique_ptr<char[]> buffer(new char[limit]());
    LONG size = limit;
    if (RegQueryValueA(key, subkey, buffer.get(), &size) != ERROR_SUCCESS)
        return false;
    out = buffer.get();
    return true;
}

bool ReadNamedValue(HKEY key, const char* name, DWORD limit, std::string& out)
{
    std::unique_ptr<char[]> buffer(new char[limit + 1]());
    DWORD size = limit;
    DWORD type = 0;
    if (RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.get()), &size) != ERROR_SUCCESS)
        return false;
    out = buffer.get();  // the extra byte terminates a value stored without its NUL
    return true;
}

}  // namespace

bool QueryPathValue(HKEY key, const char* subkey, char* buffer, LONG size)
{
    LONG reported = size;
    const LONG status = RegQueryValueA(key, subkey, buffer, &reported);
    if (status == ERROR_SUCCESS)
        return true;
    if (status != ERROR_INVALID_DATA)
        return false;
    char expanded[MAX_PATH] = {};
    const DWORD room = static_cast<DWORD>(std::min<LONG>(reported, MAX_PATH));
    if (ExpandEnvironmentStringsA(buffer, expanded, room) == 0)
        return false;
    lstrcpynA(buffer, expanded, size);
    return true;
}

bool ClassIdFromText(const char* text, CLSID* out)
{
    if (!text || !out)
        return false;
    const std::string name(text);
    const bool hasDot = name.find('.') != std::string::npos;
    bool isClassId;
    if (name.find('{') != std::string::npos && name.size() == 38)
        isClassId = true;
    else if (hasDot)
        isClassId = false;
    else
        isClassId = name.size() == 36;
    const std::string full = isClassId && name.front() != '{' ? "{" + name + "}" : name;
    const auto wide = MetaObj::AnsiToWide(full.c_str());
    if (!wide)
        return false;
    return SUCCEEDED(isClassId ? CLSIDFromString(wide.get(), out) : CLSIDFromProgID(wide.get(), out));
}

bool ClassIdToText(const CLSID* classId, char** out)
{
    if (!out || !classId)
        return false;
    CoTaskMemText text;
    if (FAILED(StringFromCLSID(*classId, text.Put())))
        return false;
    return MetaObj::WideToAnsi(text.Get(), out);
}

bool CCOMIdentity::GetClassIdText(std::string& out, bool withBraces) const
{
    const std::string& name = GetObjectName();
    if (IsClassIdName()) {
        // Taken by its form alone: no COM or registry call.
        out = withBraces ? "{" + name + "}" : name;
        return true;
    }
    const auto wide = MetaObj::AnsiToWide(name.c_str());
    CLSID classId;
    if (!wide || FAILED(CLSIDFromProgID(wide.get(), &classId)))
        return false;
    CoTaskMemText text;
    if (FAILED(StringFromCLSID(classId, text.Put())))
        return false;
    std::string braced = NarrowOf(text.Get());
    out = withBraces || braced.size() < 2 ? braced : braced.substr(1, braced.size() - 2);
    return true;
}

bool CCOMIdentity::GetClassId(CLSID& out) const
{
    std::string text;
    if (!GetClassIdText(text, true))
        return false;
    const auto wide = MetaObj::AnsiToWide(text.c_str());
    return wide && SUCCEEDED(CLSIDFromString(wide.get(), &out));
}

bool CCOMIdentity::GetProgId(std::string& out) const
{
    const std::string& name = GetObjectName();
    if (name.find('.') != std::string::npos) {
        out = name;
        return true;
    }
    CLSID classId;
    CoTaskMemText progId;
    if (!GetClassId(classId) || FAILED(ProgIDFromCLSID(classId, progId.Put())))
        return false;
    out = NarrowOf(progId.Get());
    return true;
}

RegKey CCOMIdentity::OpenClassKey(REGSAM access) const
{
    std::string classText;
    if (!GetClassIdText(classText, true))
        return RegKey();
    char path[kKeyPathBytes];
    std::snprintf(path, sizeof path, "%s\\%s", "CLSID", classText.c_str());
    return OpenKey(HKEY_CLASSES_ROOT, path, access);
}

bool CCOMIdentity::IsRegistered() const
{
    return static_cast<bool>(OpenClassKey(KEY_QUERY_VALUE));
}

bool CCOMIdentity::GetVersion(std::string& out) const
{
    const RegKey key = OpenClassKey(KEY_QUERY_VALUE);
    return key && ReadSubkeyDefault(key.Get(), "Version", kVersionBytes, out);
}

bool CCOMIdentity::GetVersionIndependentProgId(std::string& out) const
{
    const RegKey key = OpenClassKey(KEY_QUERY_VALUE);
    return key && ReadSubkeyDefault(key.Get(), "VersionIndependentProgID", kIndependentProgIdBytes, out);
}

bool CCOMIdentity::GetServerPath(std::string& out, ServerKind& kind) const
{
    const RegKey key = OpenClassKey(KEY_QUERY_VALUE);
    if (!key)
        return false;
    char path[kPathBytes];
    for (const ServerProbe& probe : kServerProbes) {
        path[0] = 0;
        if (QueryPathValue(key.Get(), probe.subkey, path, sizeof path)) {
            out = path;
            kind = probe.kind;
            return true;
        }
    }
    // Neither in-process nor local: a remote server named by the application id.
    std::string appId;
    if (!ReadNamedValue(key.Get(), "AppID", kPathBytes, appId))
        return false;
    const RegKey appIds = OpenKey(HKEY_CLASSES_ROOT, "AppID");
    const RegKey application = appIds ? OpenKey(appIds.Get(), appId.c_str()) : RegKey();
    std::string machine;
    if (!application || !ReadNamedValue(application.Get(), "RemoteServerName", kPathBytes, machine))
        return false;
    out = machine;
    kind = ServerKindRemote;
    return true;
}

bool CCOMIdentity::IsServerOfKind(ServerKind wanted) const
{
    std::string path;
    ServerKind kind;
    return GetServerPath(path, kind) && kind == wanted;
}

bool CCOMIdentity::IsInprocServer() const
{
    return IsServerOfKind(ServerKindInproc);
}

bool CCOMIdentity::IsLocalServer() const
{
    return IsServerOfKind(ServerKindLocal);
}

bool CCOMIdentity::IsRemoteServer() const
{
    return IsServerOfKind(ServerKindRemote);
}

bool CCOMIdentity::GetThreadingModel(std::string& out) const
{
    const RegKey key = OpenClassKey(KEY_QUERY_VALUE);
    if (!key)
        return false;
    const char* subkey = IsInprocServer() ? "InprocServer32" : IsLocalServer() ? "LocalServer32" : nullptr;
    if (!subkey)
        return false;
    const RegKey server = OpenKey(key.Get(), subkey);
    return server && ReadNamedValue(server.Get(), "ThreadingModel", kPathBytes, out);
}

bool CCOMIdentity::GetUserTypeName(CMetaString& out, const IID* iid) const
{
    RegKey key;
    if (iid) {
        char* text = nullptr;
        if (!ClassIdToText(iid, &text)) {
            delete[] text;
            return false;
        }
        char path[kKeyPathBytes];
        std::snprintf(path, sizeof path, "%s\\%s", "Interface", text);
        delete[] text;
        key = OpenKey(HKEY_CLASSES_ROOT, path);
    } else {
        CLSID classId;
        CoTaskMemText name;
        if (GetClassId(classId) && SUCCEEDED(OleRegGetUserType(classId, USERCLASSTYPE_FULL, name.Put()))) {
            out = CMetaString(name.Get());
            return true;
        }
        key = OpenClassKey(KEY_QUERY_VALUE);
    }
    std::string value;
    if (!key || !ReadNamedValue(key.Get(), "", kTypeNameBytes - 1, value))
        return false;
    out = CMetaString(value.c_str());
    if (!value.empty())
        return true;
    std::string independent;
    if (!GetVersionIndependentProgId(independent))
        return false;
    out = CMetaString(independent.c_str());
    return true;
}
