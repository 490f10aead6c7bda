#include "tests/module/call_harness.h"

#include <cstring>

#include "tests/servers/call_fixture_values.h"

using namespace MetaObj;

namespace {

template <typename Item>
Param Typed(Item* item, std::uint32_t metaType, const wchar_t* signature)
{
    item->GetTypeDesc().type = metaType;
    item->GetTypeDesc().signature = CMetaString(signature);
    return Param(item);
}

template <typename Item>
Item* WithText(Item* item, const wchar_t* value)
{
    item->value = CMetaString(value);
    return item;
}

}  // namespace

Param Char(wchar_t value, const wchar_t* signature)
{
    return Typed(new CMetaObjectChar(value), MetaTypeChar, signature);
}

Param Int(std::int32_t value, const wchar_t* signature)
{
    return Typed(new CMetaObjectInt(value), MetaTypeInt, signature);
}

Param Real(double value, const wchar_t* signature)
{
    return Typed(new CMetaObjectReal(value), MetaTypeReal, signature);
}

Param Bool(unsigned char value)
{
    return Typed(new CMetaObjectBool(value), MetaTypeBool, L"VT_BOOL");
}

Param Text(const wchar_t* value, const wchar_t* signature)
{
    return Typed(WithText(new CMetaObjectString, value), MetaTypeString, signature);
}

Param Currency(const wchar_t* value)
{
    return Typed(WithText(new CMetaObjectCurrency, value), MetaTypeCurrency, L"VT_CY");
}

Param Date(const wchar_t* value)
{
    return Typed(WithText(new CMetaObjectDate, value), MetaTypeDate, L"VT_DATE");
}

Param Colour(std::int32_t value, bool withValues)
{
    Param item = Typed(new CMetaObjectEnum(value), MetaTypeEnum, L"VT_BYREF");
    if (withValues) {
        CTypeDesc& type = item->GetTypeDesc();
        type.EnsureEnumValues();
        type.enumValues->Add(CMetaString(L"Red"), 1);
        type.enumValues->Add(CMetaString(L"Green"), 2);
        type.enumValues->Add(CMetaString(L"Blue"), 7);
    }
    return item;
}

Param Point(std::int32_t x, std::int32_t y)
{
    Param xItem = Int(x);
    xItem->GetTypeDesc().memberName = CMetaString(L"x");
    Param yItem = Int(y);
    yItem->GetTypeDesc().memberName = CMetaString(L"y");
    const CItemList members{xItem.get(), yItem.get()};
    Param point = Typed(new CMetaObjectStruct(&members), MetaTypeStruct, L"VT_RECORD");
    point->GetTypeDesc().SetStructName(CMetaString(FixtureValues::kPointTypeId));
    return point;
}

Param ByRef(Param item, std::int32_t direction)
{
    CTypeDesc& type = item->GetTypeDesc();
    type.isByRef = 1;
    type.signature.Append(L"|VT_PTR");
    item->SetDirection(direction);
    return item;
}

std::vector<CMetaObjectItem*> Items(const std::vector<Param>& params)
{
    std::vector<CMetaObjectItem*> items;
    for (const Param& param : params)
        items.push_back(param.get());
    return items;
}

std::string Narrow(const CMetaString& text)
{
    return text.GetNarrow() ? text.GetNarrow() : "";
}

std::wstring ValueText(CMetaObjectItem* item)
{
    CMetaString text;
    if (item)
        item->GetValue(text);
    return text.IsEmpty() ? L"" : text.GetWide();
}

IDispatch* ObjectOf(const CMetaObjectItem* item)
{
    const auto* object = dynamic_cast<const CMetaObjectObject*>(item);
    if (!object || !object->handler)
        return nullptr;
    return object->handler->GetDispatchPointer();
}

CMetaObjectCOMHandler& ItemHandler(const CMetaObjectItem* item)
{
    const auto* object = dynamic_cast<const CMetaObjectObject*>(item);
    EXPECT_TRUE(object && object->handler) << "no object item";
    return *static_cast<CMetaObjectCOMHandler*>(object->handler);
}

void CallTest::SetUp()
{
    ModuleTest::SetUp();
    ASSERT_TRUE(server.Loaded()) << "ComHandlerTest.CallFixture is not registered in the prefix";
    module->SetEnvironment(host.Table());
}

std::string FixtureIdentity(bool local)
{
    return std::string("COM://") + FixtureValues::kProgIdNarrow + (local ? LocalServer::kSuffix : "");
}

void CallTest::WithFixture(const std::function<void(CMetaObjectCOMHandler&)>& body)
{
    WithObject(FixtureIdentity(), body);
}

void CallTest::WithObject(const std::string& identity, const std::function<void(CMetaObjectCOMHandler&)>& body,
                          CObjectOpenParams* params)
{
    // Out of process, the served objects are counted by the server's process.
    const std::size_t suffix = std::strlen(LocalServer::kSuffix);
    const bool local =
        identity.size() > suffix && identity.compare(identity.size() - suffix, suffix, LocalServer::kSuffix) == 0;
    const auto live = [&] { return local ? LocalServer::LiveObjects() : server.LiveObjects(); };
    const long before = live();
    RunInitialised([&] {
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        ASSERT_NE(handler, nullptr);
        EXPECT_EQ(handler->Open(identity.c_str(), params), MetaStatusOk) << identity;
        if (handler->IsOpen())
            body(*handler);
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        EXPECT_TRUE(host.Registrations().empty()) << "a handler still in use";
    });
    EXPECT_EQ(live(), before);
}

Outcome CallTest::Call(CMetaObjectCOMHandler& handler, const wchar_t* key, const std::vector<CMetaObjectItem*>& params,
                       bool wantResult)
{
    Outcome outcome;
    outcome.record.code = kUntouchedCode;
    outcome.record.description = CMetaString(kUntouchedText);
    outcome.record.source = CMetaString(kUntouchedText);
    outcome.result = Result(nullptr, ResultDeleter{&handler});

    CCOMMethodInvoke* slot = nullptr;
    EXPECT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusOk);
    CItemList list(params.begin(), params.end());
    if (!list.empty()) {
        EXPECT_EQ(handler.SetInvokeParams(&slot, list), MetaStatusOk);
    }
    CMetaObjectItem* result = nullptr;
    outcome.status = handler.ExecuteInvoke(&slot, &outcome.record, wantResult ? &result : nullptr);
    outcome.result.reset(result);
    handler.FreeMethodInvoke(&slot);
    EXPECT_EQ(slot, nullptr);
    return outcome;
}

std::string CallTest::LastCall(CMetaObjectCOMHandler& handler)
{
    const Outcome outcome = Call(handler, L"Get:LastCall");
    const auto* text = dynamic_cast<const CMetaObjectString*>(outcome.result.get());
    return text ? Narrow(text->value) : "<no text>";
}

Param CallTest::ObjectItem(IDispatch* object, const wchar_t* signature)
{
    auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
    if (object)
        object->AddRef();  // the handler's own
    handler->AttachObject(object, nullptr);
    auto* item = new CMetaObjectObject;
    item->SetHandler(handler);
    handler->Release();  // the item holds the only use
    return Typed(item, MetaTypeObject, signature);
}
