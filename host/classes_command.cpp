#include "host/classes_command.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwctype>
#include <map>

#include "host/tool_text.h"
#include "platform/platform_handles.h"

namespace Tool {

using nlohmann::json;
using MetaObj::RegKey;

namespace {

bool OpenKey(HKEY parent, const std::wstring& path, RegKey& key)
{
    return RegOpenKeyExW(parent, path.c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

// A text value, empty when there is none; name null for the key's default value.
std::wstring ReadText(HKEY key, const wchar_t* name)
{
    wchar_t buffer[1024];
    DWORD size = sizeof buffer - sizeof(wchar_t);
    DWORD type = 0;
    if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size) != ERROR_SUCCESS ||
        (type != REG_SZ && type != REG_EXPAND_SZ))
        return L"";
    buffer[size / sizeof(wchar_t)] = L'\0';
    return buffer;
}

std::wstring Lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return std::towlower(c); });
    return text;
}

bool WildcardMatch(const wchar_t* pattern, const wchar_t* text)
{
    // Backtracks to the last star only, which is enough for * and ?.
    const wchar_t* star = nullptr;
    const wchar_t* resume = nullptr;
    while (*text != L'\0') {
        if (*pattern == L'?' || *pattern == *text) {
            ++pattern;
            ++text;
        } else if (*pattern == L'*') {
            star = pattern++;
            resume = text;
        } else if (star != nullptr) {
            pattern = star + 1;
            text = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == L'*')
        ++pattern;
    return *pattern == L'\0';
}

// Row labels of the module's GetObjectInfo and the server kind each names.
struct ServerRow {
    const char* label;
    const char* kind;
};
constexpr ServerRow kServerRows[] = {
    {"InprocServer32", "inproc"},
    {"LocalServer32", "local"},
    {"RemoteServerName", "remote"},
    {"Server Location", "other"},
};

// What the module's attribute rows say of a class; whether its library is
// registered is read here, since the rows give only the library's identifier.
json DescribeClass(MetaObj::CMetaObjectHandler& handler, const std::wstring& progId, const std::wstring& classId)
{
    json entry = {{"progId", Utf8(progId)}, {"classId", Utf8(classId)}, {"version", ""},
                  {"threadingModel", ""},   {"serverKind", ""},         {"server", ""},
                  {"typeLibrary", nullptr}, {"typeLibraryFound", false}};
    MetaObj::CObjectInfo* info = nullptr;
    const std::string identity = "COM://" + Utf8(progId);
    if (handler.GetObjectInfo(&info, identity.c_str(), true) == MetaObj::MetaStatusOk && info != nullptr) {
        for (const MetaObj::CObjectProperty* row : info->properties) {
            const std::string label = Utf8(row->name);
            const std::string value = Utf8(row->value);
            if (label == "Class ID" && !value.empty())
                entry["classId"] = value;
            else if (label == "Version")
                entry["version"] = value;
            else if (label == "Threading Model")
                entry["threadingModel"] = value;
            else if (label == "Type Library")
                entry["typeLibrary"] = value;
            for (const ServerRow& server : kServerRows) {
                if (label == server.label) {
                    entry["serverKind"] = server.kind;
                    entry["server"] = value;
                }
            }
        }
    }
    if (info != nullptr)
        handler.FreeObjectInfo(info);
    if (entry["typeLibrary"].is_string()) {
        RegKey registered;
        entry["typeLibraryFound"] =
            OpenKey(HKEY_CLASSES_ROOT, L"TypeLib\\" + Widen(entry["typeLibrary"].get<std::string>(), CP_UTF8), registered);
    }
    return entry;
}

// "Ok", or the status that stopped it: opening first, then the catalogue.
std::string DescriptionStatus(const json& described)
{
    if (described.contains("open") && described["open"]["name"] != "Ok")
        return "open " + described["open"]["name"].get<std::string>();
    return described["status"]["name"].get<std::string>();
}

}  // namespace

bool MatchesClassPattern(const std::wstring& pattern, const std::wstring& text)
{
    if (pattern.empty())
        return true;
    const std::wstring lowPattern = Lower(pattern);
    const std::wstring lowText = Lower(text);
    if (lowPattern.find_first_of(L"*?") != std::wstring::npos)
        return WildcardMatch(lowPattern.c_str(), lowText.c_str());
    return lowText.find(lowPattern) != std::wstring::npos;
}

json ListClasses(MetaObj::CMetaObjectHandler& handler, const std::string& pattern)
{
    const std::wstring wanted = Widen(pattern, CP_ACP);
    json classes = json::array();
    wchar_t name[256];
    for (DWORD index = 0;; ++index) {
        DWORD length = 256;
        const LONG read = RegEnumKeyExW(HKEY_CLASSES_ROOT, index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (read == ERROR_MORE_DATA)
            continue;
        if (read != ERROR_SUCCESS)
            break;
        // File extensions and the registry's own trees have no class of their own.
        if (name[0] == L'.' || name[0] == L'{')
            continue;
        RegKey classIdKey;
        if (!OpenKey(HKEY_CLASSES_ROOT, std::wstring(name) + L"\\CLSID", classIdKey))
            continue;
        const std::wstring classId = ReadText(classIdKey.Get(), nullptr);
        if (classId.empty() || (!MatchesClassPattern(wanted, name) && !MatchesClassPattern(wanted, classId)))
            continue;
        classes.push_back(DescribeClass(handler, name, classId));
    }
    return {{"pattern", pattern}, {"count", classes.size()}, {"classes", classes}};
}

void PrintClasses(const json& listed)
{
    for (const json& entry : listed["classes"]) {
        const std::string library = entry["typeLibrary"].is_null()          ? "none"
                                    : entry["typeLibraryFound"].get<bool>() ? "yes"
                                                                            : "missing";
        const std::string threading = entry["threadingModel"].get<std::string>();
        std::printf("%s\n    class id %s, %s server %s, threading %s, type library %s\n",
                    entry["progId"].get<std::string>().c_str(), entry["classId"].get<std::string>().c_str(),
                    entry["serverKind"].get<std::string>().empty() ? "no" : entry["serverKind"].get<std::string>().c_str(),
                    entry["server"].get<std::string>().c_str(), threading.empty() ? "-" : threading.c_str(),
                    library.c_str());
        for (const char* part : {"catalogue", "live"}) {
            if (!entry.contains(part))
                continue;
            const json& described = entry[part];
            std::string line = DescriptionStatus(described) == "Ok"
                                   ? std::to_string(described["members"].get<std::size_t>()) + " members"
                                   : "status " + DescriptionStatus(described);
            if (!described["errorText"].get<std::string>().empty())
                line += ": " + described["errorText"].get<std::string>();
            std::printf("    %s: %s\n", part, line.c_str());
        }
    }
    const std::size_t count = listed["count"].get<std::size_t>();
    std::printf("%zu class%s\n", count, count == 1 ? "" : "es");
    for (const char* part : {"catalogue", "live"}) {
        std::map<std::string, std::size_t> byStatus;
        for (const json& entry : listed["classes"]) {
            if (entry.contains(part))
                ++byStatus[DescriptionStatus(entry[part])];
        }
        if (byStatus.empty())
            continue;
        std::string counts;
        for (const auto& [status, classes] : byStatus)
            counts += (counts.empty() ? "" : ", ") + status + " " + std::to_string(classes);
        std::printf("%s: %s\n", part, counts.c_str());
    }
}

}  // namespace Tool
