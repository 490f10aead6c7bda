#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contract/host_environment.h"
#include "host/reference_host.h"
#include "identity/object_identity.h"
#include "metaobj/records.h"

using namespace MetaObj;

namespace {

// A table that counts every call made through it.
struct CallCounts {
    int begin = 0, end = 0, release = 0, add = 0, table = 0, registered = 0, access = 0;
};
CallCounts g_calls;

class WatchedTable {
public:
    WatchedTable()
    {
        g_calls = {};
        table.context = this;
        table.BeginObjectLoad = [](void*, CObjectIdentity*, std::uint8_t* mustLoad) {
            ++g_calls.begin;
            *mustLoad = 1;
            return true;
        };
        table.EndObjectLoad = [](void*, CObjectIdentity*, std::uint8_t) {
            ++g_calls.end;
            return true;
        };
        table.ReleaseObjectLoad = [](void*, CObjectIdentity*) {
            ++g_calls.release;
            return true;
        };
        table.AddMethodEntry = [](void*, CObjectIdentity*, CMethodEntry*) {
            ++g_calls.add;
            return true;
        };
        table.ReservedEntry = reinterpret_cast<void*>(1);
        table.GetMethodTable = [](void*, CObjectIdentity*) {
            ++g_calls.table;
            return reinterpret_cast<CMetaObjectMethodTable*>(0x10);
        };
        table.RegisterHandler = [](void*, CMetaObjectHandler*, HINSTANCE) {
            ++g_calls.registered;
            return true;
        };
        table.CheckObjectAccess = [](CMetaObjectSecurityInfo*) {
            ++g_calls.access;
            return false;
        };
        SetEnvironmentTable(&table);
    }
    ~WatchedTable() { SetEnvironmentTable(nullptr); }
    CHandlerEnvironment table{};
};

TEST(HostEnvironmentTest, ValidOnlyWithContextAndWordsTwentyToTwentyFive)
{
    WatchedTable watched;
    EXPECT_TRUE(IsValid(&watched.table));
    EXPECT_FALSE(IsValid(nullptr));
    void** words = reinterpret_cast<void**>(&watched.table);
    for (int word : {0, 20, 21, 22, 23, 24, 25}) {
        SCOPED_TRACE(word);
        void* kept = words[word];
        words[word] = nullptr;
        EXPECT_FALSE(IsValid(&watched.table));
        words[word] = kept;
    }
    // Words of the host's own and the last two do not count.
    for (int word : {1, 19, 26, 27}) {
        SCOPED_TRACE(word);
        void* kept = words[word];
        words[word] = nullptr;
        EXPECT_TRUE(IsValid(&watched.table));
        words[word] = kept;
    }
}

TEST(HostEnvironmentTest, AnInvalidTableGivesNeutralAnswersAndCallsNothing)
{
    WatchedTable watched;
    watched.table.ReservedEntry = nullptr;
    CObjectIdentity identity;
    std::uint8_t mustLoad = 7;
    EXPECT_FALSE(HostBeginObjectLoad(identity, mustLoad));
    EXPECT_EQ(mustLoad, 7);
    EXPECT_FALSE(HostEndObjectLoad(identity, true));
    HostReleaseObjectLoad(identity);
    EXPECT_EQ(HostGetMethodTable(identity), nullptr);
    EXPECT_EQ(g_calls.begin + g_calls.end + g_calls.release + g_calls.table, 0);

    // Registration looks at the context word only.
    HostRegisterHandler(nullptr, nullptr);
    EXPECT_EQ(g_calls.registered, 1);
    watched.table.context = nullptr;
    HostRegisterHandler(nullptr, nullptr);
    EXPECT_EQ(g_calls.registered, 1);
}

TEST(HostEnvironmentTest, AccessIsAllowedWithoutATableOrEntry)
{
    CMetaObjectSecurityInfo info;
    SetEnvironmentTable(nullptr);
    EXPECT_TRUE(HostCheckObjectAccess(info));
    WatchedTable watched;
    watched.table.CheckObjectAccess = nullptr;
    EXPECT_TRUE(HostCheckObjectAccess(info));
}

TEST(ReferenceHostTest, AccessPolicyDeniesNamedProgIds)
{
    CReferenceHost host;
    CHandlerEnvironment* table = host.Table();
    EXPECT_NE(table->context, nullptr);
    EXPECT_TRUE(IsValid(table));

    CMetaObjectSecurityInfo info;
    info.objectType = "COM";
    info.objectName = "Scripting.Dictionary";
    EXPECT_TRUE(table->CheckObjectAccess(&info));
    host.Deny("scripting.dictionary");
    EXPECT_FALSE(table->CheckObjectAccess(&info));
    info.objectName = "WScript.Shell";
    EXPECT_TRUE(table->CheckObjectAccess(&info));
    host.AllowAll();
    info.objectName = "Scripting.Dictionary";
    EXPECT_TRUE(table->CheckObjectAccess(&info));
    const std::vector<std::string> expected = {"Scripting.Dictionary", "Scripting.Dictionary", "WScript.Shell",
                                               "Scripting.Dictionary"};
    EXPECT_EQ(host.AccessRequests(), expected);
}

}  // namespace

namespace {

CMethodEntry* NewEntry(const wchar_t* name)
{
    auto entry = new CMethodEntry;
    entry->methodName = name;
    entry->AddParam(new CParamEntry(L"index", CTypeDesc(MetaTypeEnum, 1, 0), 2));
    return entry;
}

}  // namespace

TEST(ReferenceHostTest, KeepsOneCatalogueAnIdentityAndAnswersAsScripted)
{
    CReferenceHost host;
    SetEnvironmentTable(host.Table());
    CObjectIdentity identity;
    identity.SetText("COM://Scratch.Thing");

    std::uint8_t mustLoad = 7;
    ASSERT_TRUE(HostBeginObjectLoad(identity, mustLoad));
    EXPECT_EQ(mustLoad, 1);
    for (const wchar_t* name : {L"First", L"Second"}) {
        std::unique_ptr<CMethodEntry> entry(NewEntry(name));
        HostAddMethodEntry(identity, *entry);
    }
    EXPECT_TRUE(HostEndObjectLoad(identity, true));
    CMetaObjectMethodTable* table = HostGetMethodTable(identity);
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(table->entries.size(), 2u);
    EXPECT_EQ(table->entries.back()->methodName.Compare(L"Second", 0), 0);
    ASSERT_NE(table->entries.front()->GetParam(0), nullptr);
    EXPECT_EQ(table->entries.front()->GetParam(0)->type.type, MetaTypeEnum);
    HostReleaseObjectLoad(identity);

    struct Row {
        CReferenceHost::LoadAnswer answer;
        bool begins;
        std::uint8_t mustLoad;
        std::size_t entriesAfter;
    };
    const Row rows[] = {
        {CReferenceHost::LoadAnswer::Normal, true, 0, 2},  // loaded already: not twice
        {CReferenceHost::LoadAnswer::NothingToLoad, true, 0, 2},
        {CReferenceHost::LoadAnswer::Refuse, false, 9, 2},
        {CReferenceHost::LoadAnswer::Reload, true, 1, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.answer));
        host.AnswerNextLoad(row.answer);
        mustLoad = 9;
        EXPECT_EQ(HostBeginObjectLoad(identity, mustLoad), row.begins);
        EXPECT_EQ(mustLoad, row.mustLoad);
        EXPECT_EQ(HostGetMethodTable(identity)->entries.size(), row.entriesAfter);
    }
    host.RefuseEnds(true);
    EXPECT_FALSE(HostEndObjectLoad(identity, true));
    host.RefuseEnds(false);
    EXPECT_TRUE(HostEndObjectLoad(identity, false));
    EXPECT_FALSE(host.IsLoaded("COM://Scratch.Thing"));

    const std::vector<std::string> expected = {"Begin", "Add", "Add", "End", "Release", "Begin", "Begin",
                                               "Begin", "Begin", "End", "End"};
    EXPECT_EQ(host.LoadCalls(), expected);
    SetEnvironmentTable(nullptr);
}
