// comtool: loads the handler module as a host does and shows what it says.

#include <windows.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "host/module_loader.h"
#include "host/reference_host.h"
#include "identity/com_identity.h"
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
