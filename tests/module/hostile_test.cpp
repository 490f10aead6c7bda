// Hostile input from scripts and from servers that break the rules.

#include <cwchar>
#include <string>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/hostile_fixture_values.h"

using namespace MetaObj;
using namespace HostileValues;

namespace {

using HostileTest = CallTest;
const std::string kFixture = std::string("COM://") + FixtureValues::kProgIdNarrow;
const std::string kHostile = std::string("COM://") + HostileValues::kProgIdNarrow;

// Identity texts, and monikers and running objects with them.
TEST_F(HostileTest, IdentitiesMonikersAndRunningObjects)
{
    const std::wstring longMoniker(1000, L'm');
    const struct {
        const char* label;
        std::string text;
        MetaStatus status;
        const wchar_t* moniker = nullptr;  // with useRunning, the open parameters; neither: none
        bool useRunning = false;
    } rows[] = {
        {"empty", "", MetaStatusBadIdentity},
        {"no \"://\"", FixtureValues::kProgIdNarrow, MetaStatusBadIdentity},
        {"scheme only", "COM://", MetaStatusBadIdentity},
        {"10,000 characters", "COM://" + std::string(10000, 'x'), MetaStatusNoObject},
        {"10,000 characters of attributes", kFixture + "?" + std::string(10000, '?'), MetaStatusOk},
        {"doubled braces", "COM://{{" + std::string(FixtureValues::kClassId + 1, 36) + "}}", MetaStatusNoObject},
        {"cut by the NUL inside it", kFixture + std::string("\0COM://nothing", 14), MetaStatusOk},
        {"a second scheme", "COM://COM://" + std::string(FixtureValues::kProgIdNarrow), MetaStatusNoObject},
        {"in small letters", "COM://5b7e2c40-8d31-4f6a-b0c9-3e1d7a2f6c20", MetaStatusOk},
        {"a letter that is no hex digit", "COM://5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C2G", MetaStatusNoObject},
        {"a chain of \"!\"", kFixture, MetaStatusNoObject, L"!!!"},
        {"a class moniker of no class", kFixture, MetaStatusNoObject, L"clsid:00000000-0000-0000-0000-000000000000"},
        {"1,000 characters", kFixture, MetaStatusNoObject, longMoniker.c_str()},
        {"an incomplete identity with a moniker", "COM://", MetaStatusBadIdentity, L"!"},
        {"a running object of a class not running", kFixture, MetaStatusNoObject, L"", true},
        {"a running object of no class", "COM://" + std::string(200, 'r'), MetaStatusBadIdentity, L"", true},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            CObjectOpenParams params;
            params.moniker = CMetaString(row.moniker ? row.moniker : L"");
            params.useRunningObject = row.useRunning ? 1 : 0;
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            const MetaStatus status = handler->Open(row.text.c_str(), row.moniker ? &params : nullptr);
            EXPECT_EQ(status, row.status);
            EXPECT_EQ(handler->IsOpen(), status == MetaStatusOk);
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            host.FreeReleasedHandlers(module->FreeHandlerObject);
        }
        EXPECT_TRUE(host.Registrations().empty());
    });
    EXPECT_EQ(server.LiveObjects(), before);
}

using Bounds = std::vector<std::pair<std::int32_t, std::int32_t>>;

// An array of VT_I4 with the given bounds, element i holding i when a block was made.
Param IntArray(const Bounds& bounds, std::int32_t direction = kIn)
{
    auto* array = new CMetaObjectArray;
    array->SetValue(CMetaString(L"VT_I4|VT_ARRAY"));
    CTypeDesc type;
    type.type = MetaTypeInt;
    type.signature = CMetaString(L"VT_I4|VT_ARRAY");
    type.EnsureBounds();
    for (const auto& bound : bounds)
        type.bounds->Add(bound.first, bound.second);
    array->InitElements(type);
    for (std::int32_t at = 0; array->elements && at < array->elementCount; ++at)
        array->elements[at] = Int(at).release();
    array->SetDirection(direction);
    return Param(array);
}

// What a result item is, in a word; a text by its length.
std::string Kind(CMetaObjectItem* item)
{
    if (item == nullptr || dynamic_cast<CMetaObjectUnknown*>(item))
        return item ? "unknown" : "none";
    if (dynamic_cast<CMetaObjectString*>(item))
        return "text " + std::to_string(ValueText(item).size());
    return ObjectOf(item) ? "object" : dynamic_cast<CMetaObjectArray*>(item) ? "array" : "other";
}

// Garbage left in cells, never freed nor read; odd shapes both ways; every vt, by reference never followed;
// keys naming no member leave the record alone, and untranslatable items never reach Invoke.
TEST_F(HostileTest, CallsThatBreakTheRules)
{
    const MetaStatus ok = MetaStatusOk, failed = MetaStatusInvokeFailed;
    struct Row {
        std::string label;
        const wchar_t* key;
        std::vector<Param> params;
        MetaStatus status;
        std::string result = "none";  // empty: not checked
        std::uint32_t code = 65535;   // 0: not checked
        ULONG lostReferences = 0;     // of the object in a cell
    };
    std::vector<std::int32_t> types{kNullByRef, kSelfByRef};
    for (std::int32_t vt = VT_EMPTY; vt <= VT_CLSID; ++vt) {
        for (std::int32_t extra : {0, +VT_BYREF, +VT_ARRAY, VT_BYREF | VT_ARRAY})
            types.push_back(vt | extra);
    }
    for (std::int32_t odd : {VT_VECTOR | VT_I4, VT_RESERVED | VT_I4, +VT_ILLEGALMASKED, +VT_ILLEGAL, +VT_BSTR_BLOB})
        types.push_back(odd);
    const std::wstring longKey = L"Get:" + std::wstring(996, L'n'), longSignature = L"VT_I4" + std::wstring(60, L' ');
    const std::wstring longName = L"VT_" + std::wstring(57, L'Q');
    const wchar_t* const pointers = L"VT_I4|VT_PTR|VT_PTR|VT_PTR|VT_PTR|VT_PTR|VT_PTR"  // twelve marks
                                    L"|VT_PTR|VT_PTR|VT_PTR|VT_PTR|VT_PTR|VT_PTR";
    const auto namedPoint = [](const wchar_t* name) {  // a FixturePoint whose type names the given struct
        Param item = Point(1, 2);
        item->GetTypeDesc().SetStructName(CMetaString(name));
        return item;
    };
    WithObject(kHostile, [&](CMetaObjectCOMHandler& handler) {
        const Param dispatch = Int(VT_DISPATCH);
        const Outcome child = Call(handler, L"Invoke:GiveType", {dispatch.get()});
        IDispatch* const object = ObjectOf(child.result.get());
        const auto cell = [](std::int32_t freeFirst, Param item) {  // Garbage's (freeFirst, cell)
            return ParamList(Int(freeFirst), ByRef(std::move(item), kInOut));
        };
        const Row rows[] = {
            {"an empty key", L"", ParamList(), failed, "none", kUntouchedCode},
            {"a key of 1,000 characters", longKey.c_str(), ParamList(), failed, "none", kUntouchedCode},
            {"a signature of 65 characters", L"Invoke:Swallow", ParamList(Int(1, longSignature.c_str())), failed,
             "none", kUntouchedCode},
            {"a name of 60 letters", L"Invoke:Swallow", ParamList(Int(1, longName.c_str())), failed, "none",
             kUntouchedCode},
            {"a text for VT_I4", L"Invoke:Swallow", ParamList(Text(L"5", L"VT_I4")), failed, "none", kUntouchedCode},
            {"twelve pointer marks, by reference", L"Invoke:Swallow", ParamList(ByRef(Int(1, pointers), kInOut)), ok,
             "other", 1},
            {"BSTR cell, freed and replaced by a valid text", L"Invoke:Garbage", cell(2, Text(L"in")), failed},
            {"VARIANT cell, cleared first", L"Invoke:Garbage", cell(1, Text(L"in", L"VT_VARIANT")), failed},
            {"object cell", L"Invoke:Garbage", cell(0, ObjectItem(object)), failed, "none", 65535, 1},
            {"object cell, released first", L"Invoke:Garbage", cell(1, ObjectItem(object)), failed},
            {"array cell, destroyed first", L"Invoke:Garbage", ParamList(Int(1), IntArray({{0, 3}}, kInOut)),
             failed},
            {"a valid text and garbage in out cells", L"Invoke:GarbageOut",
             ParamList(ByRef(Text(L""), kOut), ByRef(ObjectItem(nullptr), kOut)), failed},
            {"a valid result of a failing call", L"Invoke:FailWithResult", ParamList(), failed, "none", 0},
            {"a C++ exception out of Invoke", L"Invoke:Throw", ParamList(Int(kThrowInInvoke)), failed, "none",
             kUntouchedCode},
            {"no dimensions", L"Invoke:GiveArray", ParamList(Int(kNoDimensions)), ok, "none", 0},
            {"65,535 dimensions", L"Invoke:GiveArray", ParamList(Int(kManyDimensions)), ok, "none", 0},
            {"2^32 elements over 16 bytes", L"Invoke:GiveArray", ParamList(Int(kOverflowingCount)), ok, "none", 0},
            {"2^31 elements over 16 bytes", L"Invoke:GiveArray", ParamList(Int(kNegativeCount)), ok, "none", 0},
            {"a null array", L"Invoke:GiveArray", ParamList(Int(kNullArray)), ok, "none", 0},
            {"an element holding itself", L"Invoke:GiveArray", ParamList(Int(kVariantHoldsItself)), ok, "array", 0},
            {"objects that aren't objects here", L"Invoke:GiveArray", ParamList(Int(kBareAddresses)), ok, "array", 0},
            {"no bounds", L"Invoke:Swallow", ParamList(IntArray({})), failed, "none", 0},
            {"65,536 dimensions", L"Invoke:Swallow", ParamList(IntArray(Bounds(65536, {0, 1}))), failed, "none", 0},
            {"101 dimensions", L"Invoke:Swallow", ParamList(IntArray(Bounds(101, {0, 1}))), failed, "none", 0},
            {"a count left open, as a type library gives it", L"Invoke:Swallow", ParamList(IntArray({{0, -1}})), failed,
             "none", 0},
            {"2^32 elements", L"Invoke:Swallow", ParamList(IntArray({{0, 65536}, {0, 65536}})), failed, "none", 0},
            {"a negative count", L"Invoke:Swallow", ParamList(IntArray({{0, -7}})), failed, "none", 0},
            {"an empty dimension", L"Invoke:Swallow", ParamList(IntArray({{0, 0}})), ok, "other", 0},
            {"a struct of no name", L"Invoke:Swallow", ParamList(namedPoint(L"")), ok, "other", 0},
            {"a struct of a class's GUID", L"Invoke:Swallow",
             ParamList(namedPoint(L"{9D4F1A60-2C7E-4B3A-8E51-6A0C2D9B4E20}")), ok, "other", 0},
            {"an embedded NUL ends the text", L"Invoke:GiveText", ParamList(Int(kEmbeddedNul)), ok, "text 1", 0},
            {"an odd byte length", L"Invoke:GiveText", ParamList(Int(kOddBytes)), ok, "text 2", 0},
            {"a null BSTR is empty", L"Invoke:GiveText", ParamList(Int(kNullText)), ok, "text 0", 0},
            {"100,000 characters", L"Invoke:GiveText", ParamList(Int(kLongText)), ok, "text 100000", 0},
        };
        const auto check = [&](const Row& row) {
            SCOPED_TRACE(row.label);
            std::vector<std::wstring> held;
            const ULONG references = object ? RefCount(object) : 0;
            for (const Param& param : row.params)
                held.push_back(ValueText(param.get()));
            const Outcome outcome = Call(handler, row.key, Items(row.params));
            EXPECT_EQ(outcome.status, row.status);
            if (!row.result.empty()) {
                EXPECT_EQ(Kind(outcome.result.get()), row.result);
            }
            if (row.code != 0) {
                EXPECT_EQ(outcome.record.code, row.code);
            }
            if (row.code == kUntouchedCode) {
                EXPECT_EQ(Narrow(outcome.record.source), kUntouchedText);
            }
            for (std::size_t at = 0; at < row.params.size(); ++at)
                EXPECT_EQ(ValueText(row.params[at].get()), held[at]);
            EXPECT_EQ(object ? RefCount(object) : 0, references + row.lostReferences);
            for (ULONG lost = 0; object && lost < row.lostReferences; ++lost)
                object->Release();
        };
        for (const Row& row : rows)
            check(row);
        for (std::int32_t vt : types) {
            const bool byRef = vt < 0 || (vt & ~VT_TYPEMASK) == VT_BYREF;
            const bool dispatched = vt == VT_DISPATCH || vt == VT_UNKNOWN;
            check({"vt " + std::to_string(vt), L"Invoke:GiveType", ParamList(Int(vt)), ok,
                   vt == VT_EMPTY || vt == VT_VOID ? "none" : byRef ? "unknown" : dispatched ? "object" : "", 0});
        }
    });
}

// C++ exceptions out of look-ups; every Nth QueryInterface failing: statuses may vary, references may not.
TEST_F(HostileTest, LookUpsAndQueryInterfaceThatFail)
{
    WithObject(kHostile, [&](CMetaObjectCOMHandler& control) {
        for (const wchar_t* key : {L"Invoke:ThrowOnLookUp", L"Invoke:NoSuchMember"}) {
            SCOPED_TRACE(Narrow(CMetaString(key)));
            const Param where = Int(kThrowInQueryInterface);
            if (std::wcscmp(key, L"Invoke:NoSuchMember") == 0) {
                ASSERT_EQ(Call(control, L"Invoke:Throw", {where.get()}).status, MetaStatusOk);
            }
            CCOMMethodInvoke* slot = nullptr;
            EXPECT_EQ(control.CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusNoMemory);
            EXPECT_EQ(slot, nullptr);
            control.FreeMethodInvoke(&slot);
        }
        for (std::int32_t every = 1; every <= 4; ++every) {
            SCOPED_TRACE("every " + std::to_string(every));
            const Param everyItem = Int(every), none = Int(0);
            EXPECT_EQ(Call(control, L"Set:FailQueryEvery", {everyItem.get()}).status, MetaStatusOk);
            for (int round = 0; round < 3; ++round) {
                auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
                const MetaStatus opened = handler->Open(kHostile.c_str(), nullptr);
                EXPECT_TRUE(opened == MetaStatusOk || opened == MetaStatusNoObject) << opened;
                for (std::int32_t vt : {+VT_DISPATCH, +VT_UNKNOWN, VT_DISPATCH | VT_ARRAY}) {
                    if (opened != MetaStatusOk)
                        break;
                    const Param asked = Int(vt);
                    const Outcome outcome = Call(*handler, L"Invoke:GiveType", {asked.get()});
                    EXPECT_EQ(outcome.status == MetaStatusOk, outcome.record.code == 1);
                    EXPECT_EQ(outcome.status == MetaStatusOk, outcome.result != nullptr);
                }
                EXPECT_EQ(handler->Release(), MetaStatusClosed);
                host.FreeReleasedHandlers(module->FreeHandlerObject);
            }
            EXPECT_EQ(Call(control, L"Set:FailQueryEvery", {none.get()}).status, MetaStatusOk);
        }
    });
}

}  // namespace
