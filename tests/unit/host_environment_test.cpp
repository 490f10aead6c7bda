#include <gtest/gtest.h>

#include <cstdint>

#include "host/reference_host.h"
#include "identity/object_identity.h"
#include "metaobj/records.h"
#include "plugin/host_environment.h"

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
    EXPECT_FALSE(IsValid(table));  // the load entries come with the catalogue

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
