#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "identity/com_identity.h"
#include "tests/support/registry_fixture.h"

namespace {

CCOMIdentity IdentityOf(const std::string& name)
{
    return CCOMIdentity(name.c_str(), 0);
}

TEST(ClassRegistryTest, ServerProbeOrderDecidesKindPathAndThreadingModel)
{
    const std::string tooLong(MAX_PATH, 'p');
    struct Row {
        const char* label;
        std::function<void(ScratchClass&)> write;
        bool found;
        ServerKind kind;
        std::string path;
        bool hasThreadingModel;
        std::string threadingModel;
    };
    const Row rows[] = {
        {"inproc before local",
         [](ScratchClass& c) {
             c.WriteClass("LocalServer32", nullptr, "l.exe");
             c.WriteClass("InprocServer32", nullptr, "i.dll");
             c.WriteClass("InprocServer32", "ThreadingModel", "Both");
             c.WriteClass("LocalServer32", "ThreadingModel", "Free");
         },
         true, ServerKindInproc, "i.dll", true, "Both"},
        {"handler before local",
         [](ScratchClass& c) {
             c.WriteClass("InprocHandler32", nullptr, "ole32.dll");
             c.WriteClass("LocalServer32", nullptr, "l.exe");
             c.WriteClass("LocalServer32", "ThreadingModel", "Free");
         },
         true, ServerKindHandler, "ole32.dll", false, ""},
        {"empty inproc value", [](ScratchClass& c) { c.WriteClass("InprocServer32", nullptr, ""); }, true,
         ServerKindInproc, "", false, ""},
        {"too long a path counts as missing",
         [&](ScratchClass& c) {
             c.WriteClass("InprocServer32", nullptr, tooLong);
             c.WriteClass("InprocHandler32", nullptr, "h.dll");
         },
         true, ServerKindHandler, "h.dll", false, ""},
        {"service", [](ScratchClass& c) { c.WriteClass("LocalService", nullptr, "svc"); }, true, ServerKindService,
         "svc", false, ""},
        {"local",
         [](ScratchClass& c) {
             c.WriteClass("LocalServer32", nullptr, "l.exe");
             c.WriteClass("LocalServer32", "ThreadingModel", "Apartment");
         },
         true, ServerKindLocal, "l.exe", true, "Apartment"},
        {"remote by application id",
         [](ScratchClass& c) {
             c.WriteClass("", "AppID", c.braced);
             c.Write("AppID\\" + c.braced, "RemoteServerName", "alpha");
         },
         true, ServerKindRemote, "alpha", false, ""},
        {"application id without its key", [](ScratchClass& c) { c.WriteClass("", "AppID", "{no-such-appid}"); },
         false, ServerKindInproc, "", false, ""},
        {"no server at all", [](ScratchClass&) {}, false, ServerKindInproc, "", false, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchClass scratch;
        row.write(scratch);
        const CCOMIdentity identity = IdentityOf(scratch.bare);
        std::string path = "untouched";
        ServerKind kind = static_cast<ServerKind>(99);
        ASSERT_EQ(identity.GetServerPath(path, kind), row.found);
        EXPECT_EQ(kind, row.found ? row.kind : static_cast<ServerKind>(99));
        if (row.found) {
            EXPECT_EQ(path, row.path);
        }
        EXPECT_EQ(identity.IsInprocServer(), row.found && row.kind == ServerKindInproc);
        EXPECT_EQ(identity.IsLocalServer(), row.found && row.kind == ServerKindLocal);
        EXPECT_EQ(identity.IsRemoteServer(), row.found && row.kind == ServerKindRemote);
        std::string model;
        EXPECT_EQ(identity.GetThreadingModel(model), row.hasThreadingModel);
        EXPECT_EQ(model, row.threadingModel);
    }
}

TEST(ClassRegistryTest, TextEntriesKeepToTheirLimits)
{
    ScratchClass scratch;
    const CCOMIdentity identity = IdentityOf(scratch.bare);
    std::string version;
    scratch.WriteClass("Version", nullptr, std::string(49, '1'));
    EXPECT_TRUE(identity.GetVersion(version));
    EXPECT_EQ(version.size(), 49u);
    scratch.WriteClass("Version", nullptr, std::string(50, '2'));
    EXPECT_FALSE(identity.GetVersion(version));
    EXPECT_EQ(version, std::string(49, '1'));  // untouched on false

    std::string progId;
    scratch.WriteClass("VersionIndependentProgID", nullptr, "Scratch.Thing");
    EXPECT_TRUE(identity.GetVersionIndependentProgId(progId));
    EXPECT_EQ(progId, "Scratch.Thing");
    EXPECT_TRUE(identity.IsRegistered());
}

TEST(ClassRegistryTest, UserTypeNamesComeFromTheClassOrTheInterface)
{
    ScratchClass scratch;
    const CCOMIdentity identity = IdentityOf(scratch.bare);
    MetaObj::CMetaString name(L"before");
    scratch.WriteClass("", nullptr, "Scratch Class");
    EXPECT_TRUE(identity.GetUserTypeName(name, nullptr));
    EXPECT_EQ(name.Compare(L"Scratch Class", 0), 0);

    IID iid;
    CoCreateGuid(&iid);
    char* iidText = nullptr;
    ASSERT_TRUE(ClassIdToText(&iid, &iidText));
    EXPECT_FALSE(identity.GetUserTypeName(name, &iid));
    scratch.Write(std::string("Interface\\") + iidText, nullptr, "IScratch");
    delete[] iidText;
    EXPECT_TRUE(CCOMIdentity().GetUserTypeName(name, &iid));
    EXPECT_EQ(name.Compare(L"IScratch", 0), 0);
}

TEST(ClassRegistryTest, NamesAreTakenByTheirForm)
{
    const std::string arbitrary(36, 'z');
    std::string text;
    EXPECT_TRUE(IdentityOf(arbitrary).GetClassIdText(text, true));
    EXPECT_EQ(text, "{" + arbitrary + "}");
    EXPECT_TRUE(IdentityOf(arbitrary).GetClassIdText(text, false));
    EXPECT_EQ(text, arbitrary);
    CLSID classId;
    EXPECT_FALSE(IdentityOf(arbitrary).GetClassId(classId));
    EXPECT_FALSE(IdentityOf(arbitrary).IsRegistered());

    EXPECT_TRUE(IdentityOf("Not.Registered").GetProgId(text));
    EXPECT_EQ(text, "Not.Registered");
    EXPECT_FALSE(IdentityOf("Not.Registered").IsRegistered());

    // A real class, both ways round.
    EXPECT_TRUE(IdentityOf("Scripting.Dictionary").GetClassIdText(text, false));
    EXPECT_EQ(text.size(), 36u);
    EXPECT_TRUE(IdentityOf(text).GetProgId(text));
    EXPECT_EQ(text, "Scripting.Dictionary");

    ScratchClass withoutProgId;
    EXPECT_FALSE(IdentityOf(withoutProgId.bare).GetProgId(text));

    struct Row {
        std::string text;
        bool converts;
    };
    const Row rows[] = {
        {"Scripting.Dictionary", true},
        {"{EE09B103-97E0-11CF-978F-00A02463E06F}", true},
        {"EE09B103-97E0-11CF-978F-00A02463E06F", true},
        {"{EE09B103-97E0-11CF-978F-00A02463E06.}", false},  // braces win over the dot, and it is no identifier
        {"EE09B103-97E0-11CF-978F-00A02463E06.", false},    // a dot makes it a ProgID, an unknown one
        {"", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(ClassIdFromText(row.text.c_str(), &classId), row.converts);
    }
    EXPECT_FALSE(ClassIdFromText(nullptr, &classId));
    EXPECT_FALSE(ClassIdFromText("Scripting.Dictionary", nullptr));
}

}  // namespace
