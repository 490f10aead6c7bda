#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contract/host_environment.h"
#include "host/reference_host.h"
#include "invoke/method_invoke.h"
#include "metaobj/array_walker.h"
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/contained_call.h"
#include "platform/error_text.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"
#include "text/mox_data.h"

using namespace MetaObj;

namespace {

// Records which of the overridable steps the base ran.
class CWatchedHandler : public CMetaObjectCOMHandler {
public:
    MetaStatus OpenObject(const char* text, CObjectOpenParams* params) override
    {
        ++openObjectCalls;
        return CMetaObjectCOMHandler::OpenObject(text, params);
    }
    MetaStatus OnObjectOpened(const char*, CObjectOpenParams*) override
    {
        ++openedCalls;
        return openedResult;
    }
    MetaStatus OnObjectClosing() override
    {
        ++closingCalls;
        return MetaStatusOk;
    }
    int openObjectCalls = 0, openedCalls = 0, closingCalls = 0;
    MetaStatus openedResult = MetaStatusOk;
};

// Uses with an object are the module tests'; here a handler without one.
TEST(HandlerTest, UsesCloseOnceAndAClosedHandlerStartsAgain)
{
    CWatchedHandler handler;
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha");
    handler.SetIdentity(identity);
    EXPECT_EQ(handler.Release(), MetaStatusClosed);
    EXPECT_EQ(handler.identity.GetText(), "");  // the last release without an object clears it
    EXPECT_EQ(handler.Release(), MetaStatusNotInUse);
    EXPECT_EQ(handler.closingCalls, 1);
    EXPECT_EQ(handler.AddUse(), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), 1u);
}

TEST(HandlerTest, AttachDetachAndOpen)
{
    CCountingDispatch first;
    CWatchedHandler handler;
    ASSERT_EQ(handler.AttachObject(&first, "COM://First.Object"), MetaStatusOk);
    EXPECT_EQ(handler.AttachObject(nullptr, "COM://Other"), MetaStatusNoObjectGiven);  // changes nothing
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    handler.openedResult = static_cast<MetaStatus>(42);
    EXPECT_EQ(handler.Open("COM://Second.Object", nullptr), static_cast<MetaStatus>(42));
    EXPECT_EQ(handler.openObjectCalls, 0);
    EXPECT_EQ(handler.identity.GetObjectName(), "First.Object");

    CObjectIdentity bare;
    bare.SetText("no delimiter");
    handler.SetIdentity(bare);
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    handler.DetachObject();
    EXPECT_EQ(first.References(), 1);
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);  // a null text clears the identity
    EXPECT_EQ(handler.identity.GetText(), "");
    handler.DetachObject();

    handler.SetIdentity(bare);
    handler.openedCalls = 0;
    EXPECT_EQ(handler.Open("COM://No.Such.Class", nullptr), MetaStatusNoObject);
    EXPECT_EQ(handler.openObjectCalls + handler.openedCalls, 1);
    EXPECT_FALSE(handler.IsOpen());
    EXPECT_EQ(handler.identity.GetText(), "no delimiter");

    CMetaObjectCOMHandler closed;
    ASSERT_EQ(closed.Release(), MetaStatusClosed);
    first.AddRef();
    ASSERT_EQ(closed.AttachObject(&first, "COM://x"), MetaStatusOk);
    EXPECT_EQ(closed.Release(), MetaStatusNotInUse);
    EXPECT_TRUE(closed.IsOpen());
    EXPECT_EQ(closed.CloseObject(), MetaStatusClosed);
    EXPECT_EQ(first.References(), 1);
}

// Per-thread texts are the module tests' (host threads); here the entries of one thread.
TEST(HandlerTest, AThreadKeepsOnlyErrorTextsThatSaySomething)
{
    CHandlerErrorMap* map = GetThreadErrorMap();
    ASSERT_NE(map, nullptr);
    const std::size_t before = map->size();
    {
        CMetaObjectCOMHandler handler;
        EXPECT_TRUE(handler.GetErrorText().IsEmpty());
        EXPECT_EQ(map->size(), before);  // reading makes nothing
        SetErrorTextById(&handler, 2000);
        EXPECT_STREQ(handler.GetErrorText().GetNarrow(), "Could not load type library");
        handler.CloseObject();  // clears the text, and its entry goes
        EXPECT_TRUE(handler.GetErrorText().IsEmpty());
        EXPECT_EQ(map->size(), before);
        SetErrorTextById(&handler, 2000);
    }
    EXPECT_EQ(map->size(), before);  // the handler's end takes its text
    std::vector<std::unique_ptr<CMetaObjectCOMHandler>> handlers;
    for (std::size_t at = 0; at <= kMostThreadErrorTexts; ++at) {
        handlers.push_back(std::make_unique<CMetaObjectCOMHandler>());
        SetErrorText(handlers.back().get(), "failed");
    }
    EXPECT_LE(map->size(), kMostThreadErrorTexts);
    EXPECT_TRUE(handlers.front()->GetErrorText().IsEmpty());
    EXPECT_STREQ(handlers.back()->GetErrorText().GetNarrow(), "failed");
}

TEST(ContainedCallTest, AFaultOfThePlatformAnswersInsteadOfEndingTheProcess)
{
    static volatile std::uintptr_t badAddress = 0x24;  // the read oleaut32 made on ADO's Fields
    const auto fault = [] { return static_cast<HRESULT>(*reinterpret_cast<volatile int*>(badAddress)); };
    EXPECT_EQ(ContainFault([] { return S_FALSE; }), S_FALSE);
    EXPECT_EQ(ContainFault(fault), kContainedFault);
    EXPECT_EQ(ContainFault([&] { return ContainFault(fault) == kContainedFault ? S_OK : E_FAIL; }), S_OK);
    EXPECT_EQ(ContainFault([] { return S_OK; }), S_OK);
}

// COM fixes a name's id for the life of an object: a handler asks once per
// name and object, and asks again for names that found nothing.
TEST(HandlerTest, ANameIsAskedOncePerObject)
{
    CCountingDispatch first, second;
    CMetaObjectCOMHandler handler;
    CCOMMethodInvoke* call = nullptr;
    const auto make = [&](const wchar_t* key) {
        EXPECT_EQ(handler.CreateMethodInvoke(&call, CMetaString(key)), MetaStatusOk);
        const DISPID id = call->dispid;
        handler.FreeMethodInvoke(&call);
        return id;
    };
    first.AddRef();
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);
    EXPECT_EQ(make(L"Get:Known"), 7);
    EXPECT_EQ(make(L"Set:Known"), 7);
    EXPECT_EQ(first.NameLookups(), 1);
    EXPECT_EQ(make(L"Invoke:Missing"), -1);
    EXPECT_EQ(make(L"Invoke:Missing"), -1);
    EXPECT_EQ(first.NameLookups(), 3);
    handler.CloseObject();
    second.AddRef();
    ASSERT_EQ(handler.AttachObject(&second, nullptr), MetaStatusOk);
    EXPECT_EQ(make(L"Get:Known"), 7);
    EXPECT_EQ(second.NameLookups(), 1);
    handler.CloseObject();
    EXPECT_EQ(first.References(), 1);
    EXPECT_EQ(second.References(), 1);
}

TEST(HandlerTest, LockDestroyIsTheOwnersAndHappensOnce)
{
    CMetaLock lock;
    EXPECT_EQ(lock.Enter() + lock.Enter() + lock.Leave() + lock.Leave(), 0u);  // entered again by its owner
    EXPECT_EQ(lock.Destroy(), 0u);
    EXPECT_EQ(lock.section, nullptr);
    EXPECT_EQ(lock.Destroy(), 1u);
    EXPECT_EQ(lock.Enter(), 1u);
    EXPECT_EQ(lock.Leave(), 1u);
}

TEST(HandlerTest, DcomSettingAndModuleDirectory)
{
    const struct { const char* bytes; std::size_t size; bool enabled; } settings[] = {  // the first byte decides
        {"y", 2, true}, {"T", 2, true}, {"1", 2, true}, {"Yes", 4, true}, {"N", 2, false},
        {"", 0, false}, {" Y", 3, false}, {"n\0Y", 4, false},
    };
    for (const auto& row : settings)
        EXPECT_EQ(DcomEnabledFromValue(row.bytes, row.size), row.enabled) << '"' << row.bytes << "\" size " << row.size;
    const struct { const char *path, *directory; } paths[] = {
        {"C:\\Program Files\\Host\\comhandler.dll", "C:\\Program Files\\Host"},
        {"C:\\Host\\plugins/comhandler.dll", "C:\\Host"},  // a backslash wins wherever the slash stands
        {"comhandler.dll", "comhandler.dll"}, {"", ""},
    };
    for (const auto& row : paths) {
        char buffer[MAX_PATH];
        lstrcpynA(buffer, row.path, MAX_PATH);
        CutAtLastSeparator(buffer);
        EXPECT_STREQ(buffer, row.directory) << row.path;
    }
}

// The null entries of a whole table are the module tests' (hostile texts); here the words that count.
TEST(HostEnvironmentTest, ValidOnlyWithContextAndWordsTwentyToTwentyFive)
{
    CReferenceHost host;
    CHandlerEnvironment table = *host.Table();
    EXPECT_TRUE(IsValid(&table));
    EXPECT_FALSE(IsValid(nullptr));
    void** words = reinterpret_cast<void**>(&table);
    for (int word : {0, 20, 21, 22, 23, 24, 25, 1, 19, 26, 27}) {
        void* kept = words[word];
        words[word] = nullptr;
        EXPECT_EQ(IsValid(&table), word == 1 || word == 19 || word >= 26) << "word " << word;
        words[word] = kept;
    }
}

// The host reaches the module's operations by virtual slot and its fields by
// offset: these rows pin both, so a reordering in the headers fails here.
// Itanium C++ ABI, which mingw uses: a pointer to a virtual member function holds 1 plus the byte
// offset of its slot in the virtual table. -1 for a non-virtual one.
template <typename MemberFunction>
std::ptrdiff_t SlotOf(MemberFunction member)
{
    static_assert(sizeof(member) == 2 * sizeof(void*), "Itanium member function pointer");
    std::uintptr_t words[2];
    std::memcpy(words, &member, sizeof words);
    return (words[0] & 1u) == 0 ? -1 : static_cast<std::ptrdiff_t>((words[0] - 1) / sizeof(void*));
}

using Slot = std::pair<const char*, std::ptrdiff_t>;  // name, slot
#define SLOT(Class, op) Slot{#op, SlotOf(&Class::op)}
#define H(op) SLOT(CMetaObjectHandler, op)
#define I(op) SLOT(CMetaObjectItem, op)
#define T(op) SLOT(MoxText, op)

TEST(LayoutTest, VirtualOperationsKeepTheHostsOrder)
{
    using Mutable = CTypeDesc& (CMetaObjectItem::*)();
    using Constant = const CTypeDesc& (CMetaObjectItem::*)() const;
    const struct {
        const char* table;
        std::ptrdiff_t first, destructorAt;  // the destructor takes two slots (complete and deleting)
        std::vector<Slot> slots;
    } tables[] = {
        {"handler", 0, 5, {H(OpenObject), H(CloseObject), H(OnObjectOpened), H(OnObjectClosing), H(IsObjectAttached),
          H(SetIdentity), H(IsOpen), H(Open), H(AddUse), H(FreeObjectInfo), H(FreeMethodInfo), H(FreeItem),
          H(FreeParamInfo), H(FreeRecordList1), H(FreeRecordList2), H(FreeRecordList3), H(FreeMethodNameList),
          H(Release), H(GetUseCount), H(CanLoadObjectInfo), H(GetObjectPointer), H(GetDispatchPointer),
          H(LoadObjectInfo), H(UnloadObjectInfo), H(GetMethodNames), H(GetMethodCount), H(GetMethodInfo),
          H(GetParamInfo), H(GetObjectInfo), H(SplitMethodName), H(MakeMethodName), H(GetTypeSignature),
          H(CreateMethodInvoke), H(SetInvokeParams), H(SetInvokeResultType), H(ExecuteInvoke), H(FreeMethodInvoke),
          H(OpenEnumerator), H(ResetEnumerator), H(NextElements), H(SkipElements), H(CountElements),
          H(CloseEnumerator), H(GetErrorText), H(GetHandlerInfo), SLOT(CMetaObjectCOMHandler, AttachObject),
          SLOT(CMetaObjectCOMHandler, DetachObject)}},
        {"item", 2, -1, {I(Clear), I(Clone), {"GetTypeDesc", SlotOf(static_cast<Mutable>(&CMetaObjectItem::GetTypeDesc))},
          {"GetTypeDesc const", SlotOf(static_cast<Constant>(&CMetaObjectItem::GetTypeDesc))}, I(IsType), I(GetValue),
          I(SetValue), I(GetValueWide), I(SetValueWide), I(GetValueNarrow), I(SetValueNarrow), I(SetName), I(GetName),
          I(SetTagText), I(GetTagText), I(SetDirection), I(GetDirection), I(HasTagText), I(IsVarParam),
          I(GetHostFlagOne), I(SetHostFlagOne), I(SetOptional), I(GetOptional), I(SetOmitted), I(GetOmitted),
          I(GetNewObject), I(SetNewObject), I(GetHostFlagTwo), I(SetHostFlagTwo), I(ParseVarParam), I(MakeVarParam)}},
        {"text", 2, -1, {T(SetLength), T(GetLength), T(Reserve), T(Detach), T(Free), T(Empty), T(EqualsBytes),
          T(Equals), T(SetBytes), T(Assign), T(ReadAt), T(Read), T(CopyTo), T(ReplaceNumber), T(ReplaceByte),
          T(Replace), T(ReplaceData), T(ReadPascalAt), T(ReadPascal), T(ReplaceText), T(ReplaceAll),
          T(ReplaceAllExact), T(ReplaceNth), T(EqualsBytesCase), T(EqualsCase), T(MatchesHead)}},
    };
    for (const auto& table : tables) {
        std::ptrdiff_t expected = table.first;
        for (const Slot& slot : table.slots) {
            if (expected == table.destructorAt)
                expected += 2;
            EXPECT_EQ(slot.second, expected++) << table.table << "::" << slot.first;
        }
    }
    using ReadAtFn = std::uint32_t (MoxData::*)(char*, std::uint32_t, std::uint32_t, std::uint32_t);
    EXPECT_EQ(SlotOf(static_cast<ReadAtFn>(&MoxData::ReadAt)), SlotOf(static_cast<ReadAtFn>(&MoxText::ReadAt)));
}

#define AT(object, field) (reinterpret_cast<const char*>(&(object).field) - reinterpret_cast<const char*>(&(object)))

TEST(LayoutTest, FieldsFollowInTheHostsOrder)
{
    CMetaObjectCOMHandler handler;
    CObjectIdentity& identity = handler.identity;
    CCOMHandlerInfo info;
    CMetaObjectInt item(0);
    CTypeDesc type;
    CParamInfo param;
    CMethodEntry entry;
    std::int32_t vector[1] = {};
    CArrayWalker walker(1, vector, vector, vector);
    MoxText text;
    const std::ptrdiff_t word = sizeof(void*), string = sizeof(CMetaString);
    const struct {
        const char* record;
        std::ptrdiff_t first;                 // the first field's offset
        std::vector<std::ptrdiff_t> offsets;  // strictly ascending
    } records[] = {
        {"handler", word, {AT(handler, useCount), AT(handler, lock), AT(handler, identity), AT(handler, dcomEnabled),
                           AT(handler, object)}},
        {"lock", 0, {AT(handler.lock, kind), AT(handler.lock, section)}},
        {"identity", word, {AT(identity, identityText), AT(identity, scheme), AT(identity, objectName),
                            AT(identity, baseText), AT(identity, attributes)}},
        {"item", word, {AT(item, name), AT(item, tagText), AT(item, direction), AT(item, hostFlagOne),
                        AT(item, optional), AT(item, newObject), AT(item, hostFlagTwo), AT(item, omitted),
                        AT(item, typeDesc), AT(item, valueFormat), AT(item, value)}},
        {"type", word, {AT(type, enumValues), AT(type, bounds), AT(type, structBody), AT(type, type),
                        AT(type, isByRef), AT(type, typeName), AT(type, signature), AT(type, memberName)}},
        {"param", word, {AT(param, reserved), AT(param, index), AT(param, name), AT(param, type),
                         AT(param, direction), AT(param, isOptional), AT(param, isAny)}},
        {"method entry", 0, {AT(entry, displayName), AT(entry, kind), AT(entry, params)}},
        {"walker", 0, {AT(walker, dimensionCount), AT(walker, isFinished), AT(walker, lower), AT(walker, upper),
                       AT(walker, current)}},
        {"text", word, {AT(text, data), AT(text, length), AT(text, capacity), AT(text, isFixed)}},
    };
    for (const auto& record : records) {
        SCOPED_TRACE(record.record);
        EXPECT_EQ(record.offsets.front(), record.first);
        for (std::size_t i = 1; i < record.offsets.size(); ++i)
            EXPECT_LT(record.offsets[i - 1], record.offsets[i]) << "field " << i;
    }
    EXPECT_EQ(AT(handler.lock, section), word);
    EXPECT_EQ(AT(item, omitted) - AT(item, hostFlagOne), 4);  // the five flags are bytes side by side
    EXPECT_EQ(AT(param, isAny) - AT(param, isOptional), 1);
    const std::ptrdiff_t infoFields[] = {AT(info, name), AT(info, typeName), AT(info, description),
                                         AT(info, modulePath), AT(info, moduleDirectory), AT(info, smallIcon),
                                         AT(info, standardIcon), AT(info, moduleHandle)};
    EXPECT_EQ(infoFields[0], word);
    for (std::size_t i = 1; i < 8; ++i)
        EXPECT_EQ(infoFields[i] - infoFields[i - 1], i <= 5 ? string : word) << "information field " << i;
    EXPECT_EQ(string, 2 * word);
    CMetaString wide(L"x");
    EXPECT_EQ(*reinterpret_cast<const wchar_t* const*>(&wide), wide.GetWide());
}

}  // namespace
