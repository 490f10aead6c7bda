// Where the type library of a class is registered or stored, and which of its
// entries describe the class.

#include "discovery/type_library.h"

#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "identity/com_identity.h"
#include "platform/contained_call.h"
#include "text/meta_string.h"

using MetaObj::Bstr;
using MetaObj::CMetaString;
using MetaObj::ComPtr;
using MetaObj::LibAttr;
using MetaObj::RegKey;
using MetaObj::TypeAttr;

namespace {

constexpr REGSAM kLibraryAccess = KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS;
constexpr LONG kLibraryIdBytes = 128;
constexpr LONG kInterfaceLibraryIdBytes = 1024;
constexpr LONG kLibraryNameBytes = 128;
constexpr LONG kLibraryFileBytes = MAX_PATH;
constexpr DWORD kSubkeyNameBytes = 10;  // longer names end an enumeration
constexpr DWORD kMaxLocaleSubkeys = 40;
constexpr const char* kLocales[] = {"409", "9", "0"};

bool ReadDefault(HKEY key, const char* subkey, LONG limit, std::string& out)
{
    std::unique_ptr<char[]> buffer(new char[limit]());
    LONG size = limit;
    if (RegQueryValueA(key, subkey, buffer.get(), &size) != ERROR_SUCCESS)
        return false;
    out = buffer.get();
    return true;
}

// A library's file for this build's platform. The registry names it under win32
// for a 32-bit library and win64 for a 64-bit one; a 64-bit module can load only
// the latter as a rule, but many libraries of no code register under win32 alone
// and load on both, so win32 is the 64-bit build's fallback.
#ifdef _WIN64
constexpr const char* kPlatformSubkeys[] = {"win64", "win32"};
#else
constexpr const char* kPlatformSubkeys[] = {"win32"};
#endif

bool ReadLibraryFile(HKEY key, const std::string& versionText, const char* locale, std::string& file)
{
    for (const char* platform : kPlatformSubkeys) {
        const std::string subkey = versionText + "\\" + locale + "\\" + platform;
        if (ReadDefault(key, subkey.c_str(), kLibraryFileBytes, file))
            return true;
    }
    return false;
}

RegKey OpenKey(HKEY parent, const std::string& path, REGSAM access)
{
    RegKey key;
    if (RegOpenKeyExA(parent, path.c_str(), 0, access, key.Put()) != ERROR_SUCCESS)
        key.Reset();
    return key;
}

// False ends an enumeration: no more names, or one of 10 characters or more.
bool EnumSubkey(HKEY key, DWORD index, std::string& name)
{
    char buffer[kSubkeyNameBytes] = {};
    if (RegEnumKeyA(key, index, buffer, kSubkeyNameBytes) != ERROR_SUCCESS)
        return false;
    name = buffer;
    return true;
}

std::string VersionText(std::uint32_t version)
{
    char text[32];
    std::snprintf(text, sizeof text, "%x.%x", static_cast<unsigned>(version >> 16), static_cast<unsigned>(version & 0xFFFF));
    return text;
}

std::string StripBraces(const std::string& text)
{
    return !text.empty() && text.front() == '{' && text.size() >= 2 ? text.substr(1, text.size() - 2) : text;
}

ComPtr<ITypeLib> LoadTypeLibFile(const std::string& path)
{
    ComPtr<ITypeLib> library;
    const auto wide = MetaObj::AnsiToWide(path.c_str());
    if (!wide || FAILED(LoadTypeLib(wide.get(), library.Put())))
        library.Reset();
    return library;
}

}  // namespace

bool CCOMIdentity::GetTypeLibId(std::string& out, bool withBraces, bool mayLoad) const
{
    const std::string& attribute = GetAttribute(std::string("TypeLib"));
    std::string text;
    {
        const RegKey key = OpenClassKey(KEY_QUERY_VALUE);
        if (!key) {
            // Without a class key the attribute is written as it stands, braces and all.
            out = withBraces ? "{" + attribute + "}" : attribute;
            return !out.empty();
        }
        ReadDefault(key.Get(), "TypeLib", kLibraryIdBytes, text);
    }
    if (text.empty())
        text = attribute;
    if (text.empty()) {
        GUID libraryId;
        CMetaString path, name;
        if (!mayLoad || !LoadServerTypeLib(0, libraryId, path, name))
            return false;
        text = CCOMIdentity(libraryId).GetObjectName();
        if (text.empty())
            return false;
    }
    text = StripBraces(text);
    out = withBraces ? "{" + text + "}" : text;
    return true;
}

bool CCOMIdentity::GetTypeLibGuid(GUID& out, const IID* iid) const
{
    std::string text;
    if (iid) {
        char* iidText = nullptr;
        if (!ClassIdToText(iid, &iidText)) {
            delete[] iidText;
            return false;
        }
        const std::string path = std::string("Interface\\") + iidText;
        delete[] iidText;
        const RegKey key = OpenKey(HKEY_CLASSES_ROOT, path, KEY_QUERY_VALUE);
        if (!key || !ReadDefault(key.Get(), "TypeLib", kInterfaceLibraryIdBytes, text))
            return false;
    } else if (!GetTypeLibId(text, true, true)) {
        return false;
    }
    const auto wide = MetaObj::AnsiToWide(text.c_str());
    return wide && SUCCEEDED(CLSIDFromString(wide.get(), &out));
}

RegKey CCOMIdentity::OpenTypeLibKey(REGSAM access) const
{
    std::string text;
    if (!GetTypeLibId(text, true, false))
        return RegKey();
    return OpenKey(HKEY_CLASSES_ROOT, "TypeLib\\" + text, access);
}

bool CCOMIdentity::LoadServerTypeLib(std::uint32_t version, GUID& libraryId, CMetaString& path,
                                     CMetaString& name) const
{
    std::string serverPath;
    ServerKind kind;
    if (IsRemoteServer() || !GetServerPath(serverPath, kind))
        return false;
    // The entry is taken whole: quotes and arguments of a command line stay in.
    ComPtr<ITypeLib> library = LoadTypeLibFile(serverPath);
    if (!library)
        return false;
    {
        LibAttr attributes(library.Get());
        if (FAILED(MetaObj::ContainFault([&] { return library->GetLibAttr(attributes.Put()); })))
            return false;
        if (version != 0 &&
            (attributes->wMajorVerNum != (version >> 16) || attributes->wMinorVerNum != (version & 0xFFFF)))
            return false;
        libraryId = attributes->guid;
    }
    Bstr libraryName;
    if (FAILED(MetaObj::ContainFault([&] {
            return library->GetDocumentation(-1, libraryName.Put(), nullptr, nullptr, nullptr);
        })))
        return false;
    path = CMetaString(serverPath.c_str());
    name = CMetaString(libraryName.Get());
    return true;
}

bool CCOMIdentity::FindTypeLibFile(std::uint32_t version, std::string& name, std::string& path) const
{
    const RegKey key = OpenTypeLibKey(kLibraryAccess);
    if (!key) {
        GUID libraryId;
        CMetaString serverPath, libraryName;
        if (!LoadServerTypeLib(version, libraryId, serverPath, libraryName))
            return false;
        name = libraryName.GetNarrow() ? libraryName.GetNarrow() : "";
        path = serverPath.GetNarrow() ? serverPath.GetNarrow() : "";
        return true;
    }
    if (version == 0) {
        for (std::uint32_t major = 1; major <= 9; ++major) {
            if (FindTypeLibFile(major << 16, name, path))
                return true;
        }
    }
    const std::string versionText = VersionText(version);
    std::string libraryName;
    if (!ReadDefault(key.Get(), versionText.c_str(), kLibraryNameBytes, libraryName))
        return false;
    name = libraryName;
    std::string file;
    bool found = false;
    for (const char* locale : kLocales) {
        if (ReadLibraryFile(key.Get(), versionText, locale, file)) {
            found = true;
            break;
        }
    }
    if (!found) {
        // Any other numeric locale; the first one decides, whether its entry reads or not.
        const RegKey versionKey = OpenKey(key.Get(), versionText, kLibraryAccess);
        std::string locale;
        for (DWORD index = 0; versionKey && index < kMaxLocaleSubkeys && EnumSubkey(versionKey.Get(), index, locale);
             ++index) {
            if (std::atoi(locale.c_str()) == 0)
                continue;
            found = ReadLibraryFile(key.Get(), versionText, locale.c_str(), file);
            break;
        }
    }
    if (!found)
        return false;
    path = file;
    return true;
}

namespace MetaObj {

namespace {

struct LibraryVersion {
    unsigned major = 0, minor = 0;
    std::string name;  // the subkey as written
};

// The registered versions of a library, the highest first. Versions are
// hexadecimal; minor counts in hundredths, so "1.ff" outranks "2.0".
std::vector<LibraryVersion> RegisteredVersions(const char* libraryId)
{
    std::vector<LibraryVersion> versions;
    const std::string text(libraryId);
    const std::string path = text.compare(0, 1, "{") == 0 ? "TypeLib\\" + text : "TypeLib\\{" + text + "}";
    const RegKey key = OpenKey(HKEY_CLASSES_ROOT, path, kLibraryAccess);
    if (!key)
        return versions;
    std::string name;
    for (DWORD index = 0; EnumSubkey(key.Get(), index, name); ++index) {
        LibraryVersion version;
        if (std::sscanf(name.c_str(), "%x.%x", &version.major, &version.minor) != 2 ||
            version.major + version.minor * 0.01 == 0.0)
            continue;
        version.name = name;
        versions.push_back(version);
    }
    std::stable_sort(versions.begin(), versions.end(), [](const LibraryVersion& a, const LibraryVersion& b) {
        return a.major + a.minor * 0.01 > b.major + b.minor * 0.01;
    });
    return versions;
}

ComPtr<ITypeLib> LoadLibraryVersion(const GUID& guid, const LibraryVersion& version)
{
    ComPtr<ITypeLib> library;
    if (SUCCEEDED(LoadRegTypeLib(guid, static_cast<WORD>(version.major), static_cast<WORD>(version.minor),
                                 GetUserDefaultLCID(), library.Put())))
        return library;
    // Some registrations wrote their version in decimal.
    int major = 0, minor = 0;
    if (std::sscanf(version.name.c_str(), "%d.%d", &major, &minor) != 2 ||
        FAILED(LoadRegTypeLib(guid, static_cast<WORD>(major), static_cast<WORD>(minor), GetUserDefaultLCID(),
                              library.Put())))
        return nullptr;
    return library;
}

// How many type infos of the class the library added to the list.
std::size_t CollectFromLibrary(ITypeLib* library, const CLSID& classId, CTypeInfoList& list)
{
    const std::size_t before = list.size();
    const UINT count = library->GetTypeInfoCount();
    for (UINT index = 0; index < count; ++index) {
        ComPtr<ITypeInfo> info;
        if (FAILED(ContainFault([&] { return library->GetTypeInfo(index, info.Put()); })))
            continue;
        TypeAttr attributes(info.Get());
        if (FAILED(ContainFault([&] { return info->GetTypeAttr(attributes.Put()); })) ||
            !IsEqualGUID(attributes->guid, classId))
            continue;
        if (attributes->typekind == TKIND_DISPATCH) {
            list.push_back(info);
        } else if (attributes->typekind == TKIND_COCLASS) {
            // Source interfaces come along too: the flags are not looked at.
            for (WORD implemented = 0; implemented < attributes->cImplTypes; ++implemented) {
                HREFTYPE reference;
                ComPtr<ITypeInfo> interfaceInfo;
                if (SUCCEEDED(ContainFault([&] { return info->GetRefTypeOfImplType(implemented, &reference); })) &&
                    SUCCEEDED(ContainFault([&] { return info->GetRefTypeInfo(reference, interfaceInfo.Put()); })))
                    list.push_back(interfaceInfo);
            }
        }
    }
    return list.size() - before;
}

}  // namespace

ComPtr<ITypeLib> LoadRegisteredTypeLib(const char* libraryId)
{
    if (!libraryId)
        return nullptr;
    const std::vector<LibraryVersion> versions = RegisteredVersions(libraryId);
    GUID guid;
    if (versions.empty() || !ClassIdFromText(libraryId, &guid))
        return nullptr;
    return LoadLibraryVersion(guid, versions.front());
}

std::size_t CollectTypeInfos(const char* objectName, CTypeInfoList& list, const char* typeLibAttribute)
{
    CLSID classId = {};
    ClassIdFromText(objectName, &classId);  // on failure nothing matches
    std::string libraryText;
    if (typeLibAttribute && *typeLibAttribute) {
        libraryText = typeLibAttribute;
    } else {
        // Built from the bare name: these probes don't see the attribute.
        const CCOMIdentity identity(objectName ? objectName : "", 0);
        GUID libraryId;
        char* text = nullptr;
        if (identity.GetTypeLibGuid(libraryId, nullptr)) {
            if (ClassIdToText(&libraryId, &text))
                libraryText = text;
            delete[] text;
        } else {
            std::string serverPath;
            ServerKind kind = ServerKindRemote;
            if (!identity.GetServerPath(serverPath, kind) || kind == ServerKindRemote)
                return 0;
            const ComPtr<ITypeLib> library = LoadTypeLibFile(serverPath);
            return library ? CollectFromLibrary(library.Get(), classId, list) : 0;
        }
    }
    // The highest version first; one library identifier often holds several
    // generations of a product, each of its own classes (MSXML's 3.0 document is
    // not in its 6.0 library), so a version that doesn't hold the class gives way.
    GUID guid;
    if (libraryText.empty() || !ClassIdFromText(libraryText.c_str(), &guid))
        return 0;
    for (const LibraryVersion& version : RegisteredVersions(libraryText.c_str())) {
        const ComPtr<ITypeLib> library = LoadLibraryVersion(guid, version);
        if (library && CollectFromLibrary(library.Get(), classId, list) > 0)
            break;
    }
    return list.size();
}


}  // namespace MetaObj
