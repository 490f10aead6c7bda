// comtool: loads the handler module as a host does and shows what it says.

#include <windows.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "contract/handler_base.h"
#include "host/call_command.h"
#include "host/call_session.h"
#include "host/classes_command.h"
#include "host/module_loader.h"
#include "host/reference_host.h"
#include "host/tool_text.h"
#include "host/tour_command.h"
#include "host/walk_command.h"
#include "identity/com_identity.h"
#include "metaobj/records.h"
#include "platform/handler_info.h"

namespace {

using nlohmann::json;
using Tool::StatusOf;
using Tool::Utf8;

constexpr const char* kExampleIdentity = "COM://Scripting.Dictionary?Host=alpha?Username=guest";
constexpr int kExitFailure = Tool::kExitCallFailed;
constexpr int kExitUsage = Tool::kExitBadInput;

constexpr const char* kCallHelp = R"(A CALL is one argument: a method key, then its arguments, separated by
spaces; double quotes group, and inside them \" is a quote. The key names
the kind of access: Invoke:Add, Get:Count, Set:CompareMode, Setref:Item.
Objects that calls return get handles @1, @2, ... in order; "@1 Get:nodeName"
calls the object of @1, and @1 as an argument passes it.

Arguments are typed from the object's catalogue; an enumeration also takes its
named values. A prefix gives a type explicitly: int:5 real:2.5 text:hello
bool:true char:A date:2024-01-02 cy:12.50 enum:1; null is no object, and -
leaves an optional argument out. A parameter of type Variant receives text
unless a prefix says otherwise. ref: in front of a value sends it by reference
as in/out and shows what comes back (ref:21 goes as a Variant holding text,
ref:int:21 as an Int). Where there is no catalogue (objects that calls
return), untyped arguments are guessed: a whole number is an Int, a number with
a point or exponent a Real, true or false a Bool, anything else and anything
quoted is text.

With CALL "-", calls are read from standard input, one a line; blank lines
and lines starting with # are skipped.

Exit codes: 0 all calls succeeded; 1 the object couldn't be opened or a call
failed (one line on stderr); 2 a call that couldn't be built from its text.)";

constexpr const char* kWalkHelp = R"(The calls are written as for comtool call, and form a chain: a call
without a handle goes to the object the call before it returned (the first to
the opened object), so "Invoke:GetFolder C:\windows" "Get:Files" walks the
files of that folder. The collection is the object the last call returned, or
the opened object when it returned none; a last argument that is a bare
handle such as @1 walks that object instead. Elements that are objects get
handles; --each runs a call on each of them (repeat --each for several).

Exit codes: 0 the walk reached its end or --max; 1 the object couldn't be
opened, a call failed, or the object is no collection; 2 a call that couldn't
be read.)";

void AddOpenOptions(CLI::App& command, Tool::OpenOptions& options, CLI::Option* needs)
{
    const auto add = [&](CLI::Option* option) {
        if (needs != nullptr)
            option->needs(needs);
    };
    add(command.add_option("--moniker", options.moniker,
                           "open by this moniker display name, such as new:VBScript.RegExp"));
    add(command.add_flag("--running", options.running, "attach to a running object of the class"));
    add(command.add_option("--host", options.host, "machine for the class, unless the identity names one"));
    add(command.add_option("--user", options.user, "user name for a remote machine"));
    add(command.add_option("--password", options.password, "password of that user"));
    add(command.add_option("--domain", options.domain, "domain of that user"));
}

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
    CReferenceHost& Host() { return host; }

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

json DescribeRows(MetaObj::CMetaObjectHandler& handler, const std::string& text)
{
    MetaObj::CObjectInfo* info = nullptr;
    const MetaObj::MetaStatus infoStatus = handler.GetObjectInfo(&info, text.c_str(), true);
    json object = {{"status", StatusOf(infoStatus)}};
    if (info != nullptr) {
        json rows = json::array();
        for (const MetaObj::CObjectProperty* row : info->properties)
            rows.push_back({{"label", Utf8(row->name)}, {"value", Utf8(row->value)}});
        object["registered"] = info->isRegistered != 0;
        object["location"] = Utf8(info->location);
        object["rows"] = rows;
        handler.FreeObjectInfo(info);
    }
    return object;
}

void AddCatalogue(json& described, MetaObj::CMetaObjectHandler& handler, MetaObj::MetaStatus loadStatus)
{
    described["status"] = StatusOf(loadStatus);
    described["errorText"] = Utf8(handler.GetErrorText());
    described["methods"] = loadStatus == MetaObj::MetaStatusOk ? DescribeMethods(handler) : json::array();
}

// What the module says of a class at design time: its rows and its catalogue.
json DescribeClass(CHandlerModule& module, const std::string& text)
{
    MetaObj::CMetaObjectHandler* handler = module.GetHandlerObject();
    json result = {{"identity", text}, {"live", false}, {"object", DescribeRows(*handler, text)}};
    const MetaObj::MetaStatus loadStatus = handler->LoadObjectInfo(text.c_str());
    AddCatalogue(result, *handler, loadStatus);
    if (loadStatus == MetaObj::MetaStatusOk)
        handler->UnloadObjectInfo();
    handler->Release();
    module.FreeHandlerObject(handler);
    return result;
}

// The same of a live object: the catalogue then comes from the object where no
// library describes its class.
json DescribeLive(CHandlerModule& module, CReferenceHost& host, const std::string& text,
                  const Tool::OpenOptions& options)
{
    Tool::CLiveObject live(module, host);
    const MetaObj::MetaStatus openStatus = live.Open(text, options);
    json result = {{"identity", text}, {"live", true}, {"open", StatusOf(openStatus)}};
    result["object"] = DescribeRows(live.Handler(), text);
    AddCatalogue(result, live.Handler(), openStatus == MetaObj::MetaStatusOk ? live.LoadCatalogue() : openStatus);
    return result;
}

// What a class listing shows of a description: its status and how many members.
json Summary(const json& described)
{
    json summary = {{"status", described["status"]},
                    {"errorText", described["errorText"]},
                    {"members", described["methods"].size()}};
    if (described.contains("open"))
        summary["open"] = described["open"];
    return summary;
}

// Each listed class described at design time and, with live, each that runs in
// process opened and described as a live object, one at a time.
void DescribeListed(json& listed, CHandlerModule& module, CReferenceHost& host, bool live)
{
    for (json& entry : listed["classes"]) {
        const std::string text = "COM://" + entry["progId"].get<std::string>();
        entry["catalogue"] = Summary(DescribeClass(module, text));
        if (live && entry["serverKind"] == "inproc")
            entry["live"] = Summary(DescribeLive(module, host, text, Tool::OpenOptions()));
    }
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
    if (described.contains("open") && described["open"]["name"] != "Ok") {
        const auto openStatus = static_cast<MetaObj::MetaStatus>(described["open"]["code"].get<std::uint32_t>());
        PrintRow("cannot open:", "status " + Tool::StatusText(openStatus));
        return;
    }
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
    bool describeLive = false;
    Tool::OpenOptions describeOptions;
    CLI::App* describe = app.add_subcommand("describe", "attribute rows and method catalogue of a class, at design time");
    describe->add_option("identity", describeText, "identity string, such as COM://Scripting.Dictionary")->required();
    CLI::Option* live = describe->add_flag("--live", describeLive, "create the object and describe it as it runs");
    AddOpenOptions(*describe, describeOptions, live);
    Tool::CallCommand callCommand;
    CLI::App* call = app.add_subcommand("call", "open an object and call its members");
    call->add_option("identity", callCommand.identity, "identity string, such as COM://Scripting.Dictionary")
        ->required();
    call->add_option("calls", callCommand.calls,
                     "calls in order, such as \"Invoke:Add apple 3\", or - for standard input")
        ->required();
    AddOpenOptions(*call, callCommand.options, nullptr);
    call->footer(kCallHelp);
    Tool::WalkCommand walkCommand;
    CLI::App* walk = app.add_subcommand("walk", "open an object, follow calls to a collection, and walk it");
    walk->add_option("identity", walkCommand.identity, "identity string, such as COM://Scripting.FileSystemObject")
        ->required();
    walk->add_option("calls", walkCommand.calls,
                     "calls in order, each to the object the one before returned, such as \"Get:Files\"; "
                     "a last @N walks that handle");
    walk->add_option("--skip", walkCommand.skip, "skip this many elements first");
    walk->add_option("--max", walkCommand.max, "stop after this many elements")->check(CLI::NonNegativeNumber);
    walk->add_option("--each", walkCommand.each, "a call to run on every element that is an object, such as Get:Name")
        ->allow_extra_args(false);
    AddOpenOptions(*walk, walkCommand.options, nullptr);
    walk->footer(kWalkHelp);
    std::string classPattern;
    bool classesDescribe = false;
    bool classesLive = false;
    CLI::App* classes = app.add_subcommand("classes", "registered classes: ProgID, class id, threading, server, library");
    classes->add_option("pattern", classPattern,
                        "part of a ProgID or class id, or a wildcard with * and ?; case is ignored");
    classes->add_flag("--describe", classesDescribe,
                      "describe each class at design time: how many members its catalogue has, or why it has none");
    classes->add_flag("--live", classesLive,
                      "with --describe: also create each class that runs in process and describe the live object");
    CLI::App* tour = app.add_subcommand("tour", "a short tour on a Scripting.Dictionary, with explanations");
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
        const json described = describeLive
                                   ? DescribeLive(session.Module(), session.Host(), describeText, describeOptions)
                                   : DescribeClass(session.Module(), describeText);
        Emit(described, asJson, PrintClass);
        // A class that can't be described is a failure a script can test for.
        return described["status"]["name"] == "Ok" ? 0 : kExitFailure;
    } else if (*walk) {
        walkCommand.asJson = asJson;
        return Tool::RunWalkCommand(session.Module(), session.Host(), walkCommand);
    } else if (*classes) {
        MetaObj::CMetaObjectHandler* handler = session.Module().GetHandlerObject();
        json listed = Tool::ListClasses(*handler, classPattern);
        handler->Release();
        session.Module().FreeHandlerObject(handler);
        if (classesDescribe || classesLive)
            DescribeListed(listed, session.Module(), session.Host(), classesLive);
        Emit(listed, asJson, Tool::PrintClasses);
        // Nothing registered under the pattern is worth an exit code of its own.
        return listed["count"].get<std::size_t>() > 0 ? 0 : kExitFailure;
    } else if (*tour) {
        return Tool::RunTour(session.Module(), session.Host());
    } else if (*call) {
        callCommand.asJson = asJson;
        return Tool::RunCallCommand(session.Module(), session.Host(), callCommand);
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
