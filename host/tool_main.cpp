// comtool: loads the handler module as a host does and shows what it says.

#include <windows.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "host/module_loader.h"
#include "host/reference_host.h"
#include "identity/com_identity.h"
#include "metaobj/records.h"
#include "plugin/handler_base.h"
#include "plugin/handler_info.h"

namespace {

using nlohmann::json;

constexpr const char* kExampleIdentity = "COM://Scripting.Dictionary?Host=alpha?Username=guest";
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

std::string Text(const char* narrow)
{
    return narrow != nullptr ? narrow : "";
}

std::string HexVersion(std::uint32_t version)
{
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08X", static_cast<unsigned>(version));
    return buffer;
}

// The module is ours for the life of this object: initialised, given the host, cleaned up.
class CSession {
public:
    bool Start(const std::string& modulePath, std::string& error)
    {
        module = CHandlerModule::Load(modulePath, error);
        if (!module)
            return false;
        if (!module->InitHandler(module->Handle())) {
            error = "InitHandler refused: COM could not be initialised on this thread";
            return false;
        }
        initialised = true;
        module->SetEnvironment(host.Table());
        return true;
    }
    ~CSession()
    {
        if (initialised)
            module->CleanUpHandler();
    }

    CHandlerModule& Module() { return *module; }

private:
    CReferenceHost host;
    std::unique_ptr<CHandlerModule> module;
    bool initialised = false;
};

json DescribeModule(CHandlerModule& module)
{
    MetaObj::CMetaObjectHandlerInfo* info = module.GetHandlerInfo();
    const std::uint32_t version = module.GetHandlerVersion();
    return {{"name", Text(info->GetHandlerName())},
            {"typeName", Text(info->GetHandlerTypeName())},
            {"description", Text(info->GetHandlerDescription())},
            {"version", HexVersion(version)},
            {"versionNumber", version},
            {"modulePath", Text(info->GetModulePath())},
            {"moduleDirectory", Text(info->GetModuleDirectory())}};
}

// The identity as the module parses it: handed to a handler, read back from it.
json DescribeIdentity(CHandlerModule& module, const std::string& text)
{
    MetaObj::CObjectIdentity given;
    given.SetText(text);
    MetaObj::CMetaObjectHandler* handler = module.GetHandlerObject();
    handler->SetIdentity(given);
    const MetaObj::CObjectIdentity& parsed = handler->identity;
    json attributes = json::array();
    for (const MetaObj::CIdentityAttribute* attribute : parsed.GetAttributes())
        attributes.push_back({{"name", attribute->GetName()}, {"value", attribute->GetValue()}});
    json result = {{"text", parsed.GetText()},
                   {"scheme", parsed.GetScheme()},
                   {"objectName", parsed.GetObjectName()},
                   {"baseText", parsed.GetBaseText()},
                   {"attributes", attributes},
                   {"complete", parsed.IsComplete()},
                   {"classIdName", CCOMIdentity::IsClassIdText(parsed.GetObjectName())}};
    handler->Release();
    module.FreeHandlerObject(handler);
    return result;
}

// Texts of the module's records, as UTF-8 for the terminal and for JSON.
std::string Utf8(const MetaObj::CMetaString& text)
{
    const wchar_t* wide = text.GetWide();
    if (wide == nullptr || *wide == 0)
        return "";
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size > 0 ? size : 1), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, &narrow[0], size, nullptr, nullptr);
    narrow.resize(std::strlen(narrow.c_str()));
    return narrow;
}

struct StatusName {
    MetaObj::MetaStatus status;
    const char* name;
};

constexpr StatusName kStatusNames[] = {
    {MetaObj::MetaStatusOk, "Ok"},
    {MetaObj::MetaStatusBadIdentity, "BadIdentity"},
    {MetaObj::MetaStatusNoObject, "NoObject"},
    {MetaObj::MetaStatusNoObjectGiven, "NoObjectGiven"},
    {MetaObj::MetaStatusNoTypeInfo, "NoTypeInfo"},
    {MetaObj::MetaStatusInvokeFailed, "InvokeFailed"},
    {MetaObj::MetaStatusNoMemory, "NoMemory"},
    {MetaObj::MetaStatusNotInUse, "NotInUse"},
    {MetaObj::MetaStatusNoClass, "NoClass"},
    {MetaObj::MetaStatusBadType, "BadType"},
    {MetaObj::MetaStatusNoCollection, "NoCollection"},
    {MetaObj::MetaStatusDenied, "Denied"},
    {MetaObj::MetaStatusClosed, "Closed"},
};

json StatusOf(MetaObj::MetaStatus status)
{
    std::string name = "Unknown";
    for (const StatusName& row : kStatusNames) {
        if (row.status == status)
            name = row.name;
    }
    return {{"code", static_cast<std::uint32_t>(status)}, {"name", name}};
}

constexpr const char* kKindNames[] = {"Invoke", "Get", "Set", "Setref"};
constexpr const char* kDirectionNames[] = {"in", "out", "inout"};
constexpr std::uint32_t kAllFields = 31;

json TypeOf(const MetaObj::CTypeDesc& type)
{
    return {{"typeName", Utf8(type.typeName)}, {"signature", Utf8(type.signature)}};
}

json DescribeParams(MetaObj::CMetaObjectHandler& handler, const MetaObj::CMetaString& key, std::uint32_t count)
{
    json params = json::array();
    for (std::uint32_t index = 0; index < count; ++index) {
        MetaObj::CParamInfo* param = nullptr;
        if (handler.GetParamInfo(key, index, kAllFields, &param, 0) != MetaObj::MetaStatusOk || param == nullptr)
            continue;
        json entry = TypeOf(param->type);
        entry["name"] = Utf8(param->name);
        entry["direction"] = param->direction < 3 ? kDirectionNames[param->direction] : "in";
        entry["optional"] = param->isOptional != 0;
        entry["any"] = param->isAny != 0;
        params.push_back(entry);
        handler.FreeParamInfo(param);
    }
    return params;
}

json DescribeMethods(MetaObj::CMetaObjectHandler& handler)
{
    json methods = json::array();
    MetaObj::CMethodNameList* keys = nullptr;
    if (handler.GetMethodNames(&keys) != MetaObj::MetaStatusOk || keys == nullptr)
        return methods;
    for (const MetaObj::CMetaString& key : *keys) {
        MetaObj::CMethodInfo* info = nullptr;
        if (handler.GetMethodInfo(key, kAllFields, &info, 0) != MetaObj::MetaStatusOk || info == nullptr)
            continue;
        methods.push_back({{"key", Utf8(key)},
                           {"displayName", Utf8(info->displayName)},
                           {"kind", info->kind < 4 ? kKindNames[info->kind] : "Invoke"},
                           {"returnType", TypeOf(info->returnType)},
                           {"description", Utf8(info->description)},
                           {"params", DescribeParams(handler, key, info->paramCount)}});
        handler.FreeMethodInfo(info);
    }
    handler.FreeMethodNameList(keys);
    return methods;
}

// What the module says of a class at design time: its rows and its catalogue.
json DescribeClass(CHandlerModule& module, const std::string& text)
{
    MetaObj::CMetaObjectHandler* handler = module.GetHandlerObject();
    json result = {{"identity", text}};
    MetaObj::CObjectInfo* info = nullptr;
    const MetaObj::MetaStatus infoStatus = handler->GetObjectInfo(&info, text.c_str(), true);
    json object = {{"status", StatusOf(infoStatus)}};
    if (info != nullptr) {
        json rows = json::array();
        for (const MetaObj::CObjectProperty* row : info->properties)
            rows.push_back({{"label", Utf8(row->name)}, {"value", Utf8(row->value)}});
        object["registered"] = info->isRegistered != 0;
        object["location"] = Utf8(info->location);
        object["rows"] = rows;
        handler->FreeObjectInfo(info);
    }
    result["object"] = object;
    const MetaObj::MetaStatus loadStatus = handler->LoadObjectInfo(text.c_str());
    result["status"] = StatusOf(loadStatus);
    result["errorText"] = Utf8(handler->GetErrorText());
    result["methods"] = loadStatus == MetaObj::MetaStatusOk ? DescribeMethods(*handler) : json::array();
    if (loadStatus == MetaObj::MetaStatusOk)
        handler->UnloadObjectInfo();
    handler->Release();
    module.FreeHandlerObject(handler);
    return result;
}

void PrintRow(const char* label, const std::string& value)
{
    std::printf("%-18s %s\n", label, value.c_str());
}

void PrintModule(const json& info)
{
    PrintRow("name:", info["name"]);
    PrintRow("type name:", info["typeName"]);
    PrintRow("description:", info["description"]);
    PrintRow("version:", info["version"]);
    PrintRow("module path:", info["modulePath"]);
    PrintRow("module directory:", info["moduleDirectory"]);
}

void PrintIdentity(const json& identity)
{
    PrintRow("identity:", identity["text"]);
    PrintRow("scheme:", identity["scheme"]);
    PrintRow("object name:", identity["objectName"]);
    PrintRow("base text:", identity["baseText"]);
    if (identity["attributes"].empty())
        PrintRow("attributes:", "(none)");
    for (const json& attribute : identity["attributes"])
        PrintRow("attribute:", attribute["name"].get<std::string>() + " = " + attribute["value"].get<std::string>());
    PrintRow("complete:", identity["complete"].get<bool>() ? "yes" : "no");
    PrintRow("class id name:", identity["classIdName"].get<bool>() ? "yes" : "no");
}

std::string ParamText(const json& param)
{
    std::string text = param["name"].get<std::string>() + " As " + param["typeName"].get<std::string>() + " [" +
                       param["signature"].get<std::string>() + ", " + param["direction"].get<std::string>();
    if (param["optional"].get<bool>())
        text += ", optional";
    if (param["any"].get<bool>())
        text += ", any";
    return text + "]";
}

void PrintClass(const json& described)
{
    PrintRow("identity:", described["identity"]);
    for (const json& row : described["object"].value("rows", json::array()))
        PrintRow((row["label"].get<std::string>() + ":").c_str(), row["value"]);
    const json& status = described["status"];
    if (status["name"] != "Ok") {
        std::string why = "status " + status["name"].get<std::string>() + " (" + std::to_string(status["code"].get<int>()) + ")";
        if (!described["errorText"].get<std::string>().empty())
            why += ": " + described["errorText"].get<std::string>();
        PrintRow("cannot describe:", why);
        return;
    }
    PrintRow("methods:", std::to_string(described["methods"].size()));
    for (const json& method : described["methods"]) {
        const json& result = method["returnType"];
        std::printf("\n%s  (%s, %s)  returns %s [%s]\n", method["key"].get<std::string>().c_str(),
                    method["displayName"].get<std::string>().c_str(), method["kind"].get<std::string>().c_str(),
                    result["typeName"].get<std::string>().c_str(), result["signature"].get<std::string>().c_str());
        if (!method["description"].get<std::string>().empty())
            std::printf("    %s\n", method["description"].get<std::string>().c_str());
        for (const json& param : method["params"])
            std::printf("    %s\n", ParamText(param).c_str());
    }
}

void Emit(const json& document, bool asJson, void (*printText)(const json&))
{
    if (asJson)
        std::printf("%s\n", document.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    else
        printText(document);
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Loads the COM object handler module as a host does and shows what it says.", "comtool"};
    std::string modulePath = DefaultModulePath();
    bool asJson = false;
    app.add_option("--module", modulePath, "path of the handler module")->capture_default_str();
    app.add_flag("--json", asJson, "print JSON instead of text");
    // Options of the tool itself may also stand behind a subcommand.
    app.fallthrough();

    CLI::App* info = app.add_subcommand("info", "name, type, description, version and path of the module");
    std::string identityText;
    CLI::App* identity = app.add_subcommand("identity", "split an identity string as the module does");
    identity->add_option("text", identityText, "identity string, such as COM://Sample.Object?Host=alpha")
        ->required();
    std::string describeText;
    CLI::App* describe = app.add_subcommand("describe", "attribute rows and method catalogue of a class, at design time");
    describe->add_option("identity", describeText, "identity string, such as COM://Scripting.Dictionary")->required();
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return 0;
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "comtool: %s\n", e.what());
        return kExitUsage;
    }

    CSession session;
    std::string error;
    if (!session.Start(modulePath, error)) {
        std::fprintf(stderr, "comtool: %s\n", error.c_str());
        return kExitFailure;
    }

    if (*info) {
        Emit(DescribeModule(session.Module()), asJson, PrintModule);
    } else if (*identity) {
        Emit(DescribeIdentity(session.Module(), identityText), asJson, PrintIdentity);
    } else if (*describe) {
        const json described = DescribeClass(session.Module(), describeText);
        Emit(described, asJson, PrintClass);
        // A class that can't be described is a failure a script can test for.
        return described["status"]["name"] == "Ok" ? 0 : kExitFailure;
    } else if (asJson) {
        // No subcommand: the module, and an example identity to show the parts.
        Emit({{"module", DescribeModule(session.Module())},
              {"exampleIdentity", DescribeIdentity(session.Module(), kExampleIdentity)}},
             true, nullptr);
    } else {
        PrintModule(DescribeModule(session.Module()));
        std::printf("\n");
        PrintIdentity(DescribeIdentity(session.Module(), kExampleIdentity));
    }
    return 0;
}
