// Where the type library of a class is registered or stored, and which of its
// entries describe the class.

#include "discovery/type_library.h"

#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "identity/com_identity.h"
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

std::unique_ptr<wchar_t[]> WideOf(const std::string& text)
{
    wchar_t* wide = nullptr;
    if (!MetaObj::AnsiToWide(text.c_str(), &wide)) {
        delete[] wide;
        return nullptr;
    }
    return std::unique_ptr<wchar_t[]>(wide);
}

std::string StripBraces(const std::string& text)
{
    return !text.empty() && text.front() == '{' && text.size() >= 2 ? text.substr(1, text.size() - 2) : text;
}

ComPtr<ITypeLib> LoadTypeLibFile(const std::string& path)
{
    ComPtr<ITypeLib> library;
    const auto wide = WideOf(path);
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
    const auto wide = WideOf(text);
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
        if (FAILED(library->GetLibAttr(attributes.Put())))
            return false;
        if (version != 0 &&
            (attributes->wMajorVerNum != (version >> 16) || attributes->wMinorVerNum != (version & 0xFFFF)))
            return false;
        libraryId = attributes->guid;
    }
    Bstr libraryName;
    if (FAILED(library->GetDocumentation(-1, libraryName.Put(), nullptr, nullptr, nullptr)))
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
        if (ReadDefault(key.Get(), (versionText + "\\" + locale + "\\win32").c_str(), kLibraryFileBytes, file)) {
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
            found = ReadDefault(key.Get(), (versionText + "\\" + locale + "\\win32").c_str(), kLibraryFileBytes, file);
            break;
        }
    }
    if (!found)
        return false;
    path = file;
    return true;
}

namespace MetaObj {

ComPtr<ITypeLib> LoadRegisteredTypeLib(const char* libraryId)
{
    if (!libraryId)
        return nullptr;
    const std::string text(libraryId);
    const std::string path = text.compare(0, 1, "{") == 0 ? "TypeLib\\" + text : "TypeLib\\{" + text + "}";
    std::string bestName;
    unsigned bestMajor = 0, bestMinor = 0;
    {
        const RegKey key = OpenKey(HKEY_CLASSES_ROOT, path, kLibraryAccess);
        if (!key)
            return nullptr;
        // Versions are hexadecimal; minor counts in hundredths, so "1.ff" outranks "2.0".
        double best = 0.0;
        std::string name;
        for (DWORD index = 0; EnumSubkey(key.Get(), index, name); ++index) {
            unsigned major = 0, minor = 0;
            if (std::sscanf(name.c_str(), "%x.%x", &major, &minor) != 2)
                continue;
            const double value = major + minor * 0.01;
            if (value > best) {
                best = value;
                bestMajor = major;
                bestMinor = minor;
                bestName = name;
            }
        }
        if (best == 0.0)
            return nullptr;
    }
    GUID guid;
    if (!ClassIdFromText(libraryId, &guid))
        return nullptr;
    ComPtr<ITypeLib> library;
    if (SUCCEEDED(LoadRegTypeLib(guid, static_cast<WORD>(bestMajor), static_cast<WORD>(bestMinor),
                                 GetUserDefaultLCID(), library.Put())))
        return library;
    // Some registrations wrote their version in decimal.
    int major = 0, minor = 0;
    if (std::sscanf(bestName.c_str(), "%d.%d", &major, &minor) != 2 ||
        FAILED(LoadRegTypeLib(guid, static_cast<WORD>(major), static_cast<WORD>(minor), GetUserDefaultLCID(),
                              library.Put())))
        return nullptr;
    return library;
}

std::size_t CollectTypeInfos(const char* objectName, CTypeInfoList& list, const char* typeLibAttribute)
{
    CLSID classId = {};
    ClassIdFromText(objectName, &classId);  // on failure nothing matches
    ComPtr<ITypeLib> library;
    if (typeLibAttribute && *typeLibAttribute) {
        library = LoadRegisteredTypeLib(typeLibAttribute);
    } else {
        // Built from the bare name: these probes don't see the attribute.
        const CCOMIdentity identity(objectName ? objectName : "", 0);
        GUID libraryId;
        char* libraryText = nullptr;
        if (identity.GetTypeLibGuid(libraryId, nullptr)) {
            if (ClassIdToText(&libraryId, &libraryText))
                library = LoadRegisteredTypeLib(libraryText);
            delete[] libraryText;
        } else {
            std::string serverPath;
            ServerKind kind = ServerKindRemote;
            if (identity.GetServerPath(serverPath, kind) && kind != ServerKindRemote)
                library = LoadTypeLibFile(serverPath);
        }
    }
    if (!library)
        return 0;
    const UINT count = library->GetTypeInfoCount();
    for (UINT index = 0; index < count; ++index) {
        ComPtr<ITypeInfo> info;
        if (FAILED(library->GetTypeInfo(index, info.Put())))
            continue;
        TypeAttr attributes(info.Get());
        if (FAILED(info->GetTypeAttr(attributes.Put())) || !IsEqualGUID(attributes->guid, classId))
            continue;
        if (attributes->typekind == TKIND_DISPATCH) {
            list.push_back(info);
        } else if (attributes->typekind == TKIND_COCLASS) {
            // Source interfaces come along too: the flags are not looked at.
            for (WORD implemented = 0; implemented < attributes->cImplTypes; ++implemented) {
                HREFTYPE reference;
                ComPtr<ITypeInfo> interfaceInfo;
                if (SUCCEEDED(info->GetRefTypeOfImplType(implemented, &reference)) &&
                    SUCCEEDED(info->GetRefTypeInfo(reference, interfaceInfo.Put())))
                    list.push_back(interfaceInfo);
            }
        }
    }
    return list.size();
}

}  // namespace MetaObj
