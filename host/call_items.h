#pragma once
// The items of calls as the tool holds them: argument items it builds itself,
// result items the module made, and the handles that keep returned objects.

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contract/handler_base.h"
#include "host/call_line.h"
#include "metaobj/compound_items.h"
#include "metaobj/item.h"
#include "metaobj/type_desc.h"

namespace Tool {

// Gives back every handler use that object items hold inside item, at any depth:
// deleting an item never does, so its holder must do this first.
void ReleaseObjectUses(MetaObj::CMetaObjectItem* item);

// Items the tool made are deleted by the tool.
struct ToolItemDeleter {
    void operator()(MetaObj::CMetaObjectItem* item) const;
};
using ToolItem = std::unique_ptr<MetaObj::CMetaObjectItem, ToolItemDeleter>;

// Items the module made go back through the handler that made them.
struct ModuleItemDeleter {
    MetaObj::CMetaObjectHandler* handler = nullptr;
    void operator()(MetaObj::CMetaObjectItem* item) const;
};
using ModuleItem = std::unique_ptr<MetaObj::CMetaObjectItem, ModuleItemDeleter>;

// Returned objects by name, "@1", "@2", ...: each is an object item of the
// tool's own holding one use of the object's handler.
class CHandleTable {
public:
    CHandleTable() = default;
    CHandleTable(const CHandleTable&) = delete;
    CHandleTable& operator=(const CHandleTable&) = delete;
    ~CHandleTable() { Clear(); }

    // The handle of a handler already held, or a new one. Empty for a handler
    // that holds no object.
    std::string Adopt(MetaObj::CMetaObjectHandler* handler);
    // Null for a name that isn't a handle.
    MetaObj::CMetaObjectObject* Find(const std::wstring& name) const;
    std::size_t Count() const { return handles.size(); }
    // Latest first, so that an object passed to another goes before it.
    void Clear();

private:
    std::vector<ToolItem> handles;
};

// What a call will send for one parameter: from the catalogue, or, where there
// is none, guessed from the text.
struct ParamShape {
    std::wstring name;
    MetaObj::CTypeDesc type;
    std::uint32_t direction = 0;  // 0 in, 1 out, 2 in and out
    bool optional = false;
};

struct ArgumentContext {
    MetaObj::CMetaObjectHandler* target;  // asked for the signatures of type words
    const CHandleTable* handles;
};

// One argument item. param is null where the member has no catalogue. False
// with a reason that names neither the call nor the position.
bool BuildArgument(const CallToken& token, const ParamShape* param, const ArgumentContext& context, ToolItem& out,
                   std::string& error);
// The item an out parameter that the user left out receives its value in.
bool BuildOutSlot(const ParamShape& param, ToolItem& out, std::string& error);
// An optional parameter left out: sent as "no value".
bool BuildOmitted(const ParamShape* param, ToolItem& out, std::string& error);

// The type, text and content of an item; objects are named by their handle,
// which they receive here if they have none. declared, where given, is the
// catalogue's type, whose enumeration names a number.
nlohmann::json DescribeItem(MetaObj::CMetaObjectItem* item, CHandleTable& handles,
                            const MetaObj::CTypeDesc* declared = nullptr);

}  // namespace Tool
