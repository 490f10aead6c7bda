// The registry readers against class registrations written under fresh GUIDs.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "identity/com_identity.h"
#include "metaobj/records.h"
#include "plugin/com_handler.h"
#include "tests/support/registry_fixture.h"

using namespace MetaObj;

namespace {

// A value under the class key (or, for a path that begins with "/", under the
// root); "$" in the path or the value stands for the braced class identifier.
struct Entry {
    std::string path;
    const char* name;
    std::string value;
};

std::string Expand(std::string text, const ScratchClass& scratch)
{
    for (std::size_t at; (at = text.find('$')) != std::string::npos;)
        text.replace(at, 1, scratch.braced);
    return text;
}

void WriteAll(ScratchClass& scratch, const std::vector<Entry>& entries)
{
    for (const Entry& entry : entries) {
        const std::string path = Expand(entry.path, scratch);
        if (!path.empty() && path[0] == '/')
            scratch.Write(path.substr(1), entry.name, Expand(entry.value, scratch));
        else
            scratch.WriteClass(path, entry.name, Expand(entry.value, scratch));
    }
}

using Rows = std::vector<std::pair<std::string, std::string>>;

TEST(ClassRegistryTest, ServerProbeOrderDecidesKindPathThreadingModelAndRows)
{
    const std::string tooLong(MAX_PATH, 'p');
    const struct {
        const char* label;
        std::vector<Entry> entries;
        bool found;
        ServerKind kind;
        std::string path, threadingModel;
        Rows rows;  // after the class identifier's
    } rows[] = {
        {"inproc before local",
         {{"LocalServer32", nullptr, "l.exe"}, {"InprocServer32", nullptr, "i.dll"},
          {"InprocServer32", "ThreadingModel", "Both"}, {"LocalServer32", "ThreadingModel", "Free"},
          {"ProgID", nullptr, "Scratch.Row.1"}, {"Version", nullptr, "1.5"}, {"TypeLib", nullptr, "$"}},
         true, ServerKindInproc, "i.dll", "Both",
         {{"Prog ID", "Scratch.Row.1"}, {"Version", "1.5"}, {"Type Library", "$"}, {"InprocServer32", "i.dll"},
          {"Threading Model", "Both"}}},
        {"handler before local",
         {{"InprocHandler32", nullptr, "ole32.dll"}, {"LocalServer32", nullptr, "l.exe"},
          {"LocalServer32", "ThreadingModel", "Free"}},
         true, ServerKindHandler, "ole32.dll", "", {}},
        {"empty inproc value", {{"InprocServer32", nullptr, ""}}, true, ServerKindInproc, "", "", {}},
        {"too long a path counts as missing", {{"InprocServer32", nullptr, tooLong}, {"InprocHandler32", nullptr, "h.dll"}},
         true, ServerKindHandler, "h.dll", "", {}},
        {"service", {{"LocalService", nullptr, "svc"}}, true, ServerKindService, "svc", "", {{"Server Location", "svc"}}},
        {"local", {{"LocalServer32", nullptr, "l.exe"}, {"LocalServer32", "ThreadingModel", "Apartment"}}, true,
         ServerKindLocal, "l.exe", "Apartment", {{"LocalServer32", "l.exe"}, {"Threading Model", "Apartment"}}},
        {"remote by application id", {{"", "AppID", "$"}, {"/AppID\\$", "RemoteServerName", "alpha"}}, true,
         ServerKindRemote, "alpha", "", {}},
        {"application id without its key", {{"", "AppID", "{no-such-appid}"}}, false, ServerKindInproc, "", "", {}},
        {"no server at all", {}, false, ServerKindInproc, "", "", {}},
    };
    CMetaObjectCOMHandler handler;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchClass scratch;
        WriteAll(scratch, row.entries);
        const CCOMIdentity identity(scratch.bare.c_str(), 0);
        std::string path = "untouched", model;
        ServerKind kind = static_cast<ServerKind>(99);
        ASSERT_EQ(identity.GetServerPath(path, kind), row.found);
        EXPECT_EQ(kind, row.found ? row.kind : static_cast<ServerKind>(99));
        EXPECT_EQ(path, row.found ? row.path : "untouched");
        EXPECT_EQ(identity.IsInprocServer(), row.found && row.kind == ServerKindInproc);
        EXPECT_EQ(identity.IsLocalServer(), row.found && row.kind == ServerKindLocal);
        EXPECT_EQ(identity.IsRemoteServer(), row.found && row.kind == ServerKindRemote);
        EXPECT_EQ(identity.GetThreadingModel(model), !row.threadingModel.empty());
        EXPECT_EQ(model, row.threadingModel);
        if (row.kind == ServerKindHandler || row.kind == ServerKindRemote || !row.found)
            continue;  // no rows pinned for these
        CObjectInfo* info = nullptr;
        ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + scratch.bare).c_str(), true), MetaStatusOk);
        EXPECT_EQ(info->objectKind, 1u);
        EXPECT_EQ(info->isRegistered, 1);
        Rows expected{{"Class ID", scratch.braced}};
        for (const auto& [name, value] : row.rows)
            expected.emplace_back(name, Expand(value, scratch));
        Rows shown;
        for (const CObjectProperty* property : info->properties)
            shown.emplace_back(property->name.GetNarrow() ? property->name.GetNarrow() : "",
                               property->value.GetNarrow() ? property->value.GetNarrow() : "");
        EXPECT_TRUE(row.path.empty() || shown == expected);
        handler.FreeObjectInfo(info);
    }
}

TEST(ClassRegistryTest, TextEntriesUserTypeNamesAndNamesByTheirForm)
{
    ScratchClass scratch;
    const CCOMIdentity identity(scratch.bare.c_str(), 0);
    std::string text;
    scratch.WriteClass("Version", nullptr, std::string(49, '1'));
    EXPECT_TRUE(identity.GetVersion(text));
    scratch.WriteClass("Version", nullptr, std::string(50, '2'));  // beyond the limit
    EXPECT_FALSE(identity.GetVersion(text));
    EXPECT_EQ(text, std::string(49, '1'));  // untouched on false
    scratch.WriteClass("VersionIndependentProgID", nullptr, "Scratch.Thing");
    EXPECT_TRUE(identity.GetVersionIndependentProgId(text));
    EXPECT_EQ(text, "Scratch.Thing");
    EXPECT_TRUE(identity.IsRegistered());
    EXPECT_FALSE(identity.GetProgId(text));

    CMetaString name(L"before");
    scratch.WriteClass("", nullptr, "Scratch Class");
    EXPECT_TRUE(identity.GetUserTypeName(name, nullptr));
    EXPECT_EQ(name.Compare(L"Scratch Class", 0), 0);
    IID iid;
    CoCreateGuid(&iid);
    char* iidText = nullptr;
    ASSERT_TRUE(ClassIdToText(&iid, &iidText));
    EXPECT_FALSE(identity.GetUserTypeName(name, &iid));
    scratch.Write(std::string("Interface\\") + iidText, nullptr, "IScratch");  // the interface's name
    delete[] iidText;
    EXPECT_TRUE(CCOMIdentity().GetUserTypeName(name, &iid));
    EXPECT_EQ(name.Compare(L"IScratch", 0), 0);

    const CCOMIdentity arbitrary(std::string(36, 'z').c_str(), 0);  // taken as an identifier by its form
    EXPECT_TRUE(arbitrary.GetClassIdText(text, true));
    EXPECT_EQ(text, "{" + std::string(36, 'z') + "}");
    CLSID classId;
    EXPECT_FALSE(arbitrary.GetClassId(classId));
    EXPECT_FALSE(arbitrary.IsRegistered());
    CMetaObjectCOMHandler handler;
    CObjectInfo* info = nullptr;
    ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + std::string(36, 'z')).c_str(), true), MetaStatusOk);
    EXPECT_EQ(info->isRegistered, 0);
    EXPECT_EQ(info->properties.size(), 2u);  // an empty class identifier and server location
    handler.FreeObjectInfo(info);
    EXPECT_EQ(handler.GetObjectInfo(&info, "COM://Not.Registered", true), MetaStatusNoClass);
    EXPECT_EQ(info->objectKind, 2u);
    handler.FreeObjectInfo(info);
    info = reinterpret_cast<CObjectInfo*>(&handler);  // a marker: must stay
    EXPECT_EQ(handler.GetObjectInfo(&info, nullptr, true), MetaStatusNoClass);
    EXPECT_EQ(info, reinterpret_cast<CObjectInfo*>(&handler));
    scratch.WriteClass("InprocServer32", nullptr, "C:\\scratch.dll");
    ASSERT_EQ(handler.GetObjectInfo(&info, ("COM://" + scratch.bare).c_str(), false), MetaStatusOk);
    EXPECT_TRUE(info->properties.empty());  // no rows asked for: the location only
    EXPECT_EQ(info->location.Compare(L"C:\\scratch.dll", 0), 0);
    handler.FreeObjectInfo(info);

    EXPECT_TRUE(CCOMIdentity("Not.Registered", 0).GetProgId(text));
    EXPECT_EQ(text, "Not.Registered");
    EXPECT_TRUE(CCOMIdentity("Scripting.Dictionary", 0).GetClassIdText(text, false));  // a real class both ways
    EXPECT_TRUE(CCOMIdentity(text.c_str(), 0).GetProgId(text));
    EXPECT_EQ(text, "Scripting.Dictionary");
    const struct { const char* text; bool converts; } conversions[] = {
        {"Scripting.Dictionary", true}, {"{EE09B103-97E0-11CF-978F-00A02463E06F}", true},
        {"EE09B103-97E0-11CF-978F-00A02463E06F", true},
        {"{EE09B103-97E0-11CF-978F-00A02463E06.}", false},  // braces win over the dot, and it is no identifier
        {"EE09B103-97E0-11CF-978F-00A02463E06.", false},    // a dot makes it a ProgID, an unknown one
        {"", false},
    };
    for (const auto& row : conversions)
        EXPECT_EQ(ClassIdFromText(row.text, &classId), row.converts) << row.text;
    EXPECT_FALSE(ClassIdFromText(nullptr, &classId));
    EXPECT_FALSE(ClassIdFromText("Scripting.Dictionary", nullptr));
}

}  // namespace
