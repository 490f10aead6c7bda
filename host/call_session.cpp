#include "host/call_session.h"

#include <windows.h>

#include <memory>
#include <vector>

#include "host/tool_text.h"
#include "metaobj/records.h"

namespace Tool {

using nlohmann::json;
using namespace MetaObj;

namespace {

constexpr std::uint32_t kAllFields = 31;
constexpr const char* kDirectionNames[] = {"in", "out", "inout"};

const char* DirectionName(std::uint32_t direction)
{
    return direction < 3 ? kDirectionNames[direction] : "in";
}

CMetaString FromCommandLine(const std::string& text)
{
    return CMetaString(Widen(text, CP_ACP).c_str());
}

// What the catalogue says of one member; known is false where it has nothing.
struct MemberShape {
    bool known = false;
    CTypeDesc returnType;
    std::vector<ParamShape> params;
};

MemberShape ReadMember(CMetaObjectHandler& handler, const CMetaString& key)
{
    MemberShape shape;
    CMethodInfo* info = nullptr;
    if (handler.GetMethodInfo(key, kAllFields, &info, 0) != MetaStatusOk || info == nullptr)
        return shape;
    shape.known = true;
    shape.returnType.Assign(info->returnType);
    const std::uint32_t count = info->paramCount;
    handler.FreeMethodInfo(info);
    for (std::uint32_t index = 0; index < count; ++index) {
        CParamInfo* param = nullptr;
        ParamShape entry;
        if (handler.GetParamInfo(key, index, kAllFields, &param, 0) == MetaStatusOk && param != nullptr) {
            entry.name = param->name.IsEmpty() ? std::wstring() : std::wstring(param->name.GetWide());
            entry.type.Assign(param->type);
            entry.direction = param->direction;
            entry.optional = param->isOptional != 0;
            handler.FreeParamInfo(param);
        }
        shape.params.push_back(std::move(entry));
    }
    return shape;
}

std::string ParamLabel(std::size_t index, const ParamShape* param)
{
    std::string label = "argument " + std::to_string(index + 1);
    if (param && !param->name.empty())
        label += " (" + Utf8(param->name) + ")";
    return label;
}

// One item per parameter up to the last one given or to be received; optional
// parameters in between are sent as omitted.
bool BuildArguments(const CallLine& line, const MemberShape& member, const ArgumentContext& context,
                    std::vector<ToolItem>& items, std::string& error)
{
    const std::size_t given = line.arguments.size();
    if (!member.known) {
        for (std::size_t index = 0; index < given; ++index) {
            ToolItem item;
            if (!BuildArgument(line.arguments[index], nullptr, context, item, error)) {
                error = ParamLabel(index, nullptr) + ": " + error;
                return false;
            }
            items.push_back(std::move(item));
        }
        return true;
    }
    const std::size_t declared = member.params.size();
    if (given > declared) {
        error = "takes " + std::to_string(declared) + " argument" + (declared == 1 ? "" : "s") + ", " +
                std::to_string(given) + " given";
        return false;
    }
    std::size_t needed = given;
    for (std::size_t index = given; index < declared; ++index) {
        const ParamShape& param = member.params[index];
        if (param.direction == 1)
            needed = index + 1;
        else if (!param.optional) {
            error = ParamLabel(index, &param) + " is missing";
            return false;
        }
    }
    for (std::size_t index = 0; index < needed; ++index) {
        const ParamShape& param = member.params[index];
        ToolItem item;
        const bool built = index < given   ? BuildArgument(line.arguments[index], &param, context, item, error)
                           : param.direction == 1 ? BuildOutSlot(param, item, error)
                                                  : BuildOmitted(&param, item, error);
        if (!built) {
            error = ParamLabel(index, &param) + ": " + error;
            return false;
        }
        items.push_back(std::move(item));
    }
    return true;
}

// The call object in its slot, freed by the handler that made it.
class CInvokeSlot {
public:
    explicit CInvokeSlot(CMetaObjectHandler& handler) : handler(handler) {}
    ~CInvokeSlot() { handler.FreeMethodInvoke(&slot); }
    CInvokeSlot(const CInvokeSlot&) = delete;
    CInvokeSlot& operator=(const CInvokeSlot&) = delete;

    CCOMMethodInvoke** Slot() { return &slot; }

private:
    CMetaObjectHandler& handler;
    CCOMMethodInvoke* slot = nullptr;
};

json DescribeArgument(std::size_t index, CMetaObjectItem* item, const MemberShape& member, CHandleTable& handles)
{
    json described = DescribeItem(item, handles, member.known ? &member.params[index].type : nullptr);
    described["index"] = index;
    described["name"] = Utf8(item->GetName());
    described["direction"] = DirectionName(static_cast<std::uint32_t>(item->GetDirection()));
    described["omitted"] = item->GetOmitted() != 0;
    return described;
}

std::string Quoted(const CMetaString& text)
{
    return "\"" + Utf8(text) + "\"";
}

}  // namespace

CLiveObject::CLiveObject(CHandlerModule& module, CReferenceHost& host)
    : module(module), host(host), handler(module.GetHandlerObject())
{
}

CLiveObject::~CLiveObject()
{
    if (catalogueLoaded)
        handler->UnloadObjectInfo();
    handler->Release();
    host.Forget(handler);
    module.FreeHandlerObject(handler);
}

MetaStatus CLiveObject::Open(const std::string& identityText, const OpenOptions& options)
{
    CObjectOpenParams params;
    params.moniker = FromCommandLine(options.moniker);
    params.useRunningObject = options.running ? 1 : 0;
    params.host = FromCommandLine(options.host);
    params.userName = FromCommandLine(options.user);
    params.password = FromCommandLine(options.password);
    params.domain = FromCommandLine(options.domain);
    return handler->Open(identityText.c_str(), &params);
}

MetaStatus CLiveObject::LoadCatalogue()
{
    // Null: the handler describes the object it holds, under its own identity.
    const MetaStatus status = handler->LoadObjectInfo(nullptr);
    catalogueLoaded = status == MetaStatusOk;
    return status;
}

CCallSession::CCallSession(CMetaObjectHandler& object, bool hasCatalogue) : object(object), hasCatalogue(hasCatalogue)
{
}

CCallSession::Outcome CCallSession::Run(const CallLine& line, json& report, std::string& failure)
{
    const std::string shown = Utf8(line.text);
    CMetaObjectHandler* target = &object;
    bool catalogue = hasCatalogue;
    if (!line.target.empty()) {
        CMetaObjectObject* held = handles.Find(line.target);
        if (!held) {
            failure = shown + ": there is no handle " + Utf8(line.target);
            return Outcome::BadInput;
        }
        // A returned object's handler has no identity, so no catalogue either.
        target = held->handler;
        catalogue = false;
    }
    const CMetaString key(line.key.c_str());
    const MemberShape member = catalogue ? ReadMember(*target, key) : MemberShape();

    std::vector<ToolItem> items;
    const ArgumentContext context{target, &handles};
    std::string error;
    if (!BuildArguments(line, member, context, items, error)) {
        failure = shown + ": " + error;
        return Outcome::BadInput;
    }

    // As sent; out and in/out parameters are shown again as they came back.
    json arguments = json::array();
    for (std::size_t index = 0; index < items.size(); ++index)
        arguments.push_back(DescribeArgument(index, items[index].get(), member, handles));

    CMethodInvokeStatus record;
    ModuleItem result(nullptr, ModuleItemDeleter{target});
    MetaStatus status = MetaStatusOk;
    {
        CInvokeSlot invoke(*target);
        status = target->CreateMethodInvoke(invoke.Slot(), key);
        if (status == MetaStatusOk) {
            CItemList params;
            for (const ToolItem& item : items)
                params.push_back(item.get());
            if (!params.empty())
                status = target->SetInvokeParams(invoke.Slot(), params);
        }
        if (status == MetaStatusOk) {
            CMetaObjectItem* made = nullptr;
            status = target->ExecuteInvoke(invoke.Slot(), &record, &made);
            result.reset(made);
        }
    }

    report = {{"call", shown},
              {"target", Utf8(line.target)},
              {"key", Utf8(line.key)},
              {"typedBy", member.known ? "catalogue" : "guess"},
              {"arguments", arguments},
              {"status", StatusOf(status)},
              {"record",
               {{"code", record.code}, {"source", Utf8(record.source)}, {"description", Utf8(record.description)}}}};
    report["result"] = DescribeItem(result.get(), handles, member.known ? &member.returnType : nullptr);
    json outParams = json::array();
    for (std::size_t index = 0; status == MetaStatusOk && index < items.size(); ++index) {
        if (items[index]->GetDirection() != 0)
            outParams.push_back(DescribeArgument(index, items[index].get(), member, handles));
    }
    report["outParams"] = outParams;
    if (status == MetaStatusOk)
        return Outcome::Ok;

    failure = (line.target.empty() ? "" : Utf8(line.target) + " ") + Utf8(line.key) + " failed: status " +
              StatusText(status) + ", code " + std::to_string(record.code) + ", source " + Quoted(record.source) +
              ", description " + Quoted(record.description);
    if (catalogue && !member.known)
        failure += " (no such member in the catalogue)";
    return Outcome::Failed;
}

}  // namespace Tool
