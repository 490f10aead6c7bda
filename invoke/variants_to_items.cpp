// VARIANTs to items: a result becomes a new item chosen by the VARIANT's own
// type; an out argument is written into the item that went out, chosen by the
// item's signature; an object gets a handler of its own.

#include <windows.h>
#include <oleauto.h>

#include <cstring>
#include <cwchar>
#include <iterator>
#include <memory>

#include "discovery/type_names.h"
#include "identity/com_identity.h"
#include "invoke/method_invoke.h"
#include "invoke/text_memo.h"
#include "invoke/variant_owner.h"
#include "metaobj/compound_items.h"
#include "metaobj/scalar_items.h"
#include "platform/contained_call.h"
#include "platform/platform_handles.h"

using namespace MetaObj;

namespace {

// The first 32 bits of the value, whatever its type.
std::uint32_t Low32(const VARIANT& value)
{
    return value.ulVal;
}

void AssignBstr(CMetaString& target, BSTR text)
{
    target.AssignWide(text ? text : L"");
}

// Assigns the text a conversion made, and frees it; a failure assigns nothing.
void AssignConverted(CMetaString& target, HRESULT hr, BSTR made)
{
    Bstr owner(made);
    if (SUCCEEDED(hr))
        AssignBstr(target, owner.Get());
}

// An object the caller hands one reference of, in a new object item.
CMetaObjectObject* NewObjectItem(IDispatch* referenced)
{
    auto item = std::make_unique<CMetaObjectObject>();
    WrapObject(referenced, *item, nullptr);
    return item.release();
}

// A dispatch reference of an object given as IUnknown, or null: a handler
// calls through IDispatch, so it must never hold an object without one.
IDispatch* DispatchOf(IUnknown* object)
{
    IDispatch* dispatch = nullptr;
    if (object && FAILED(object->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&dispatch))))
        dispatch = nullptr;
    return dispatch;
}

bool SetInt32(CMetaObjectItem* item, std::int32_t value)
{
    if (auto* number = ItemAs<CMetaObjectInt>(item)) {
        number->value = value;
        return true;
    }
    if (auto* enumeration = ItemAs<CMetaObjectEnum>(item)) {
        enumeration->value = value;
        return true;
    }
    if (auto* unknown = ItemAs<CMetaObjectUnknown>(item)) {
        unknown->value = static_cast<std::uint32_t>(value);
        return true;
    }
    return false;
}

enum class Take {
    SignedByte,
    UnsignedByte,
    SignedShort,
    UnsignedShort,
    Long,
    Float,
    Double,
    Bool,
    Bstr,
    Currency,
    Date,
    Object,
    Record,
    OwnBits,
    Variant,
};

struct WriteRow {
    const wchar_t* names[4];  // the signature contains one; null names: any signature
    Take take;
    std::uint32_t metaType;    // 0: any; else the item's type must be this one
    bool byRefOnly;
};

constexpr std::uint32_t kAnyType = 0;

// The rows in order; a record is tried right after the dispatch row by value
// and after the variant row by reference.
constexpr WriteRow kWriteRows[] = {
    {{L"VT_I1"}, Take::SignedByte, kAnyType, false},
    {{L"VT_UI1"}, Take::UnsignedByte, kAnyType, false},
    {{L"VT_I2"}, Take::SignedShort, kAnyType, false},
    {{L"VT_UI2"}, Take::UnsignedShort, kAnyType, false},
    {{L"VT_I4", L"VT_UI4", L"VT_INT", L"VT_UINT"}, Take::Long, kAnyType, false},
    {{L"VT_R4"}, Take::Float, kAnyType, false},
    {{L"VT_R8"}, Take::Double, kAnyType, false},
    {{L"VT_BOOL"}, Take::Bool, kAnyType, false},
    {{L"VT_BSTR"}, Take::Bstr, kAnyType, false},
    {{L"VT_CY"}, Take::Currency, kAnyType, false},
    {{L"VT_DATE"}, Take::Date, kAnyType, false},
    {{L"VT_DISPATCH"}, Take::Object, kAnyType, false},
    {{L"VT_BYREF"}, Take::Object, MetaTypeObject, true},
    {{L"VT_UNKNOWN"}, Take::OwnBits, kAnyType, false},
    {{L"VT_BYREF"}, Take::OwnBits, MetaTypeUnknown, true},
    {{L"VT_ERROR", L"VT_USERDEFINED"}, Take::Long, kAnyType, false},
    {{nullptr}, Take::Long, MetaTypeEnum, false},
    {{L"VT_VARIANT"}, Take::Variant, kAnyType, false},
};
constexpr WriteRow kRecordRow = {{L"VT_RECORD"}, Take::Record, kAnyType, false};

bool NamesFit(const WriteRow& row, const wchar_t* signature)
{
    if (row.names[0] == nullptr)
        return true;
    for (const wchar_t* name : row.names) {
        if (name && std::wcsstr(signature, name))
            return true;
    }
    return false;
}

// Bit n: the names of row n fit the signature; the record row's bit comes last.
constexpr std::size_t kRecordBit = std::size(kWriteRows);
static_assert(kRecordBit < 32, "a bit for each row");

std::uint32_t FittingNames(const wchar_t* signature)
{
    std::uint32_t bits = 0;
    for (std::size_t at = 0; at < std::size(kWriteRows); ++at) {
        if (NamesFit(kWriteRows[at], signature))
            bits |= 1u << at;
    }
    if (NamesFit(kRecordRow, signature))
        bits |= 1u << kRecordBit;
    return bits;
}

CTextMemo<std::uint32_t, &FittingNames> g_fittingNames;

bool RowFits(const WriteRow& row, bool namesFit, const CTypeDesc& type, bool byRef)
{
    if (row.byRefOnly && !byRef)
        return false;
    if (row.metaType != kAnyType && type.type != row.metaType)
        return false;
    return namesFit;
}

const WriteRow* FindWriteRow(const wchar_t* signature, const CTypeDesc& type, bool byRef)
{
    const std::uint32_t names = g_fittingNames.Of(signature);
    auto fits = [&](std::size_t at) { return RowFits(kWriteRows[at], (names >> at) & 1u, type, byRef); };
    const bool recordFits = RowFits(kRecordRow, (names >> kRecordBit) & 1u, type, byRef);
    // The record row stands after the dispatch row by value, after the last row by reference.
    constexpr std::size_t kRecordAfter = 11;
    static_assert(kWriteRows[kRecordAfter].take == Take::Object, "the dispatch row");
    for (std::size_t at = 0; at < std::size(kWriteRows); ++at) {
        if (fits(at))
            return &kWriteRows[at];
        if (!byRef && at == kRecordAfter && recordFits)
            return &kRecordRow;
    }
    return recordFits ? &kRecordRow : nullptr;
}

// Sets a number, flag or character item from a VARIANT of its own type.
void SetScalar(const VARIANT& value, CMetaObjectItem* item)
{
    switch (value.vt) {
    case VT_I4:
        SetInt32(item, value.lVal);
        break;
    case VT_R8:
        if (auto* real = ItemAs<CMetaObjectReal>(item))
            real->value = value.dblVal;
        break;
    case VT_BOOL:
        if (auto* flag = ItemAs<CMetaObjectBool>(item))
            flag->value = value.boolVal == VARIANT_TRUE ? 1 : 0;
        break;
    case VT_UI1:
        if (auto* character = ItemAs<CMetaObjectChar>(item))
            character->value = value.bVal;
        break;
    default:
        break;
    }
}

}  // namespace

namespace MetaObj {

namespace {
ObjectHandlerMaker g_objectHandlerMaker = nullptr;
}  // namespace

void SetObjectHandlerMaker(ObjectHandlerMaker maker)
{
    g_objectHandlerMaker = maker;
}

void WrapObject(IDispatch* object, CMetaObjectObject& item, const CObjectIdentity* identity)
{
    CMetaObjectHandler* handler = g_objectHandlerMaker(object);
    if (identity)
        handler->SetIdentity(*identity);
    item.SetHandler(handler);
    item.SetNewObject(1);
    // The item holds the only use from here on.
    handler->Release();
}

namespace {

// The item of a type code, with the type the item's class gives; null for a code without one.
CMetaObjectItem* NewItemOfType(std::uint32_t type)
{
    switch (type) {
    case MetaTypeVoid: return new CMetaObjectVoid();
    case MetaTypeInt: return new CMetaObjectInt(0);
    case MetaTypeReal: return new CMetaObjectReal(0.0);
    case MetaTypeString: return new CMetaObjectString();
    case MetaTypeChar: return new CMetaObjectChar(L'\0');
    case MetaTypeBool: return new CMetaObjectBool(0);
    case MetaTypeDate: return new CMetaObjectDate();
    case MetaTypeCurrency: return new CMetaObjectCurrency();
    case MetaTypeStruct: return new CMetaObjectStruct();
    case MetaTypeEnum: return new CMetaObjectEnum(0);
    case MetaTypeObject: return new CMetaObjectObject();
    default: return nullptr;
    }
}

}  // namespace

CMetaObjectItem* MakeItemForType(const CTypeDesc& type)
{
    std::unique_ptr<CMetaObjectItem> item;
    const bool arraySignature = type.signature.Find(L"VT_ARRAY") >= 0;
    const bool arrayName = type.typeName.Find(L"array") >= 0;
    if (arraySignature || arrayName) {
        auto array = std::make_unique<CMetaObjectArray>();
        array->SetValue(type.signature);
        item = std::move(array);
    } else {
        item.reset(NewItemOfType(type.type));
        if (!item)
            return nullptr;
    }
    // A plain type (a code, nothing else) is the item's own already.
    const bool plain = type.type == item->GetTypeDesc().type && type.isByRef == 0 && !type.enumValues &&
                       !type.bounds && !type.structBody && type.typeName.IsEmpty() && type.signature.IsEmpty() &&
                       type.memberName.IsEmpty();
    if (!plain)
        item->GetTypeDesc().Assign(type);
    return item.release();
}

CMetaObjectItem* MakeItemForPlainType(std::uint32_t type)
{
    // These types carry a list, which the type descriptor makes as the item needs it.
    if (type == MetaTypeEnum || type == MetaTypeStruct)
        return MakeItemForType(CTypeDesc(type, 0, 0));
    return NewItemOfType(type);
}

void ElementIntoItem(VARIANT* element, CMetaObjectItem* item)
{
    if (!element || !item)
        return;
    switch (element->vt) {
    case VT_I1:
        if (auto* character = ItemAs<CMetaObjectChar>(item))
            character->value = static_cast<wchar_t>(static_cast<std::int16_t>(static_cast<signed char>(element->cVal)));
        break;
    case VT_UI1:
        if (auto* character = ItemAs<CMetaObjectChar>(item))
            character->value = element->bVal;
        break;
    case VT_I2:
        SetInt32(item, element->iVal);
        break;
    case VT_UI2:
        SetInt32(item, element->uiVal);
        break;
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_ERROR:
        SetInt32(item, element->lVal);
        break;
    case VT_R4:
    case VT_R8:
        if (auto* real = ItemAs<CMetaObjectReal>(item))
            real->value = element->vt == VT_R4 ? element->fltVal : element->dblVal;
        break;
    case VT_BOOL:
        if (auto* flag = ItemAs<CMetaObjectBool>(item))
            flag->value = element->boolVal == VARIANT_TRUE ? 1 : 0;
        break;
    case VT_BSTR:
        if (auto* text = ItemAs<CMetaObjectString>(item))
            AssignBstr(text->value, element->bstrVal);
        break;
    case VT_CY:
    case VT_DATE:
        if (SUCCEEDED(VariantChangeType(element, element, 0, VT_BSTR))) {
            if (auto* text = ItemAs<CMetaObjectString>(item))
                AssignBstr(text->value, element->bstrVal);
        }
        break;
    case VT_DISPATCH:
    case VT_UNKNOWN:
        if (auto* object = ItemAs<CMetaObjectObject>(item)) {
            if (element->punkVal == nullptr)
                WrapObject(nullptr, *object, nullptr);
            else if (element->vt == VT_DISPATCH) {
                element->pdispVal->AddRef();
                GUID typeGuid;
                std::unique_ptr<CCOMIdentity> identity;
                if (GetDispatchTypeGuid(element->pdispVal, &typeGuid))
                    identity = std::make_unique<CCOMIdentity>(typeGuid);
                WrapObject(element->pdispVal, *object, identity.get());
            } else {
                const CCOMIdentity identity(IID_IUnknown);
                WrapObject(DispatchOf(element->punkVal), *object, &identity);
            }
        }
        break;
    default:
        break;
    }
}

bool GetDispatchTypeGuid(IDispatch* dispatch, GUID* out)
{
    if (!dispatch || !out)
        return false;
    ComPtr<ITypeInfo> info;
    // Exactly S_OK: anything else is not taken as an answer.
    if (ContainFault([&] { return dispatch->GetTypeInfo(0, GetUserDefaultLCID(), info.Put()); }) != S_OK || !info)
        return false;
    TypeAttr attributes(info.Get());
    if (ContainFault([&] { return info->GetTypeAttr(attributes.Put()); }) != S_OK || !attributes)
        return false;
    *out = attributes->guid;
    return true;
}

}  // namespace MetaObj

CMetaObjectItem* CCOMMethodInvoke::VariantToItem(const VARIANT& value)
{
    if (value.vt & VT_ARRAY)
        return ArrayVariantToItem(value);
    const VARTYPE vt = value.vt;
    switch (MetaTypeFromVarType(vt, nullptr)) {
    case MetaTypeInt:
        return new CMetaObjectInt(vt == VT_I2 ? value.iVal : static_cast<std::int32_t>(Low32(value)));
    case MetaTypeReal: {
        double number = 0;
        if (vt == VT_R8)
            number = value.dblVal;
        else if (vt == VT_R4)
            number = value.fltVal;
        else if (vt == VT_DECIMAL && FAILED(VarR8FromDec(const_cast<DECIMAL*>(&value.decVal), &number)))
            number = 0;  // a decimal is shown as the nearest double; one out of range as 0
        return new CMetaObjectReal(number);
    }
    case MetaTypeString: {
        auto item = std::make_unique<CMetaObjectString>();
        if (vt == VT_LPSTR)
            item->value.AssignNarrow(value.pcVal);  // a narrow text, unlike its neighbours
        else
            AssignBstr(item->value, value.bstrVal);
        return item.release();
    }
    case MetaTypeChar:
        return new CMetaObjectChar(static_cast<wchar_t>(value.bVal));
    case MetaTypeBool:
        return new CMetaObjectBool(value.boolVal == VARIANT_TRUE ? 1 : 0);
    case MetaTypeDate: {
        auto item = std::make_unique<CMetaObjectDate>();
        BSTR text = nullptr;
        const HRESULT hr = VarBstrFromDate(value.date, LOCALE_SYSTEM_DEFAULT, VAR_DATEVALUEONLY, &text);
        AssignConverted(item->value, hr, text);
        return item.release();
    }
    case MetaTypeCurrency: {
        auto item = std::make_unique<CMetaObjectCurrency>();
        BSTR text = nullptr;
        const HRESULT hr = VarBstrFromCy(value.cyVal, LOCALE_SYSTEM_DEFAULT, LOCALE_NOUSEROVERRIDE, &text);
        AssignConverted(item->value, hr, text);
        return item.release();
    }
    case MetaTypeStruct: {
        auto item = std::make_unique<CMetaObjectStruct>();
        return RecordVariantToStruct(value, item.get()) ? item.release() : nullptr;
    }
    case MetaTypeEnum:
        return new CMetaObjectEnum(static_cast<std::int32_t>(Low32(value)));
    case MetaTypeUnknown:
        return new CMetaObjectUnknown(Low32(value));
    case MetaTypeObject: {
        // The VARIANT keeps and clears its own reference; the handler gets a new one.
        IDispatch* object = nullptr;
        if (vt == VT_DISPATCH) {
            object = value.pdispVal;
            if (object)
                object->AddRef();
        } else {
            object = DispatchOf(value.punkVal);
        }
        return NewObjectItem(object);
    }
    default:
        return nullptr;
    }
}

bool CCOMMethodInvoke::VariantIntoItem(VARIANT value, CMetaObjectItem* item)
{
    if (!item)
        return false;
    if ((value.vt & VT_ARRAY) && item->GetTypeDesc().bounds) {
        if (auto* array = ItemAs<CMetaObjectArray>(item))
            return ArrayVariantIntoItem(value, array);
    }
    // Read only until the row is found, before the item changes: no copy needed.
    const CTypeDesc& type = item->GetTypeDesc();
    const bool byRef = type.isByRef == 1;
    const wchar_t* signature = type.signature.IsEmpty() ? L"" : type.signature.GetWide();
    const WriteRow* row = FindWriteRow(signature, type, byRef);
    if (!row)
        return false;

    // Where the value lies: behind the pointer by reference, else in the
    // VARIANT. A by-reference item whose argument went out without a cell
    // (omitted, a null object) has nothing to read back.
    const VARTYPE base = value.vt & VT_TYPEMASK;
    const void* at = &value.lVal;
    if (byRef && row->take != Take::OwnBits && row->take != Take::Record) {
        if (!(value.vt & VT_BYREF) || value.byref == nullptr)
            return false;
        at = value.byref;
    }
    auto fits = [&](std::size_t bytes) { return !byRef || PlainValueBytes(base) >= bytes; };
    auto read = [&](auto sample) {
        decltype(sample) result;
        std::memcpy(&result, at, sizeof result);
        return result;
    };

    switch (row->take) {
    case Take::SignedByte:
    case Take::UnsignedByte: {
        auto* character = ItemAs<CMetaObjectChar>(item);
        if (!character || !fits(1))
            return false;
        const auto byte = read(std::uint8_t{});
        character->value = row->take == Take::SignedByte
                               ? static_cast<wchar_t>(static_cast<std::int16_t>(static_cast<std::int8_t>(byte)))
                               : static_cast<wchar_t>(byte);
        return true;
    }
    case Take::SignedShort:
        return fits(2) && SetInt32(item, read(std::int16_t{}));
    case Take::UnsignedShort:
        return fits(2) && SetInt32(item, read(std::uint16_t{}));
    case Take::Long:
        return fits(4) && SetInt32(item, read(std::int32_t{}));
    case Take::OwnBits:
        if (auto* object = ItemAs<CMetaObjectObject>(item); object && base == VT_UNKNOWN) {
            // An object item keeps a handler, not a number: the object is
            // wrapped as a dispatch row would, with a reference of its own.
            IUnknown* given = (value.vt & VT_BYREF) ? (value.ppunkVal ? *value.ppunkVal : nullptr) : value.punkVal;
            WrapObject(DispatchOf(given), *object, nullptr);
            return true;
        }
        return SetInt32(item, static_cast<std::int32_t>(Low32(value)));
    case Take::Float:
    case Take::Double: {
        auto* real = ItemAs<CMetaObjectReal>(item);
        if (!real)
            return false;
        if (row->take == Take::Float) {
            if (!fits(4))
                return false;
            real->value = read(float{});
        } else {
            if (!fits(8))
                return false;
            real->value = read(double{});
        }
        return true;
    }
    case Take::Bool: {
        auto* flag = ItemAs<CMetaObjectBool>(item);
        if (!flag || !fits(2))
            return false;
        flag->value = read(std::uint16_t{}) == 0xFFFF ? 1 : 0;
        return true;
    }
    case Take::Bstr: {
        auto* text = ItemAs<CMetaObjectString>(item);
        if (!text || (byRef && base != VT_BSTR))
            return false;
        AssignBstr(text->value, read(BSTR{}));
        return true;
    }
    case Take::Currency:
    case Take::Date: {
        auto* text = ItemAs<CMetaObjectString>(item);
        if (!text || !fits(8))
            return false;
        BSTR made = nullptr;
        const HRESULT hr = row->take == Take::Currency
                               ? VarBstrFromCy(read(CY{}), GetUserDefaultLCID(), LOCALE_NOUSEROVERRIDE, &made)
                               : VarBstrFromDate(read(DATE{}), GetUserDefaultLCID(), VAR_DATEVALUEONLY, &made);
        AssignConverted(text->value, hr, made);
        return true;
    }
    case Take::Object: {
        auto* object = ItemAs<CMetaObjectObject>(item);
        if (!object)
            return false;
        // By value the VARIANT still holds the pointer that went out, which
        // the item's handler owns: nothing came back, the item stays as it is.
        if (!byRef)
            return true;
        if (base == VT_VARIANT) {
            // An object that went out in a VARIANT cell: the cell keeps and
            // clears its own reference, the new handler gets another.
            const VARIANT& inner = *static_cast<const VARIANT*>(value.byref);
            if (inner.vt != VT_DISPATCH && inner.vt != VT_UNKNOWN)
                return false;
            IDispatch* current = object->handler ? object->handler->GetDispatchPointer() : nullptr;
            if (inner.punkVal && inner.punkVal == current)
                return true;
            IDispatch* given = DispatchOf(inner.punkVal);
            WrapObject(given, *object, nullptr);
            return true;
        }
        if (base != VT_DISPATCH && base != VT_UNKNOWN)
            return false;
        auto** cell = static_cast<IUnknown**>(value.byref);
        IDispatch* current = object->handler ? object->handler->GetDispatchPointer() : nullptr;
        if (*cell != nullptr && *cell == current)
            return true;  // unchanged: the old handler keeps it; the call releases its own
        IDispatch* given = nullptr;
        if (base == VT_DISPATCH) {
            // The object's reference for the caller passes to the new handler.
            given = static_cast<IDispatch*>(*cell);
            *cell = nullptr;
        } else {
            given = DispatchOf(*cell);
        }
        WrapObject(given, *object, nullptr);
        return true;
    }
    case Take::Record: {
        auto* record = ItemAs<CMetaObjectStruct>(item);
        if (!record || base != VT_RECORD)
            return false;
        return RecordVariantToStruct(value, record);
    }
    case Take::Variant: {
        if (byRef && base != VT_VARIANT)
            return false;
        const VARIANT& inner = byRef ? *static_cast<const VARIANT*>(at) : value;
        VariantToText(inner, item);
        return true;
    }
    }
    return false;
}

void CCOMMethodInvoke::VariantToText(const VARIANT& value, CMetaObjectItem* item)
{
    auto* text = ItemAs<CMetaObjectString>(item);
    if (!text) {
        // A non-text item took a VARIANT argument as its own type; it reads
        // back by the same type.
        VARTYPE wanted = VT_EMPTY;
        if (ItemAs<CMetaObjectInt>(item) || ItemAs<CMetaObjectEnum>(item))
            wanted = VT_I4;
        else if (ItemAs<CMetaObjectReal>(item))
            wanted = VT_R8;
        else if (ItemAs<CMetaObjectBool>(item))
            wanted = VT_BOOL;
        else if (ItemAs<CMetaObjectChar>(item))
            wanted = VT_UI1;
        CVariant converted;
        if (wanted == VT_EMPTY ||
            FAILED(VariantChangeTypeEx(&converted, const_cast<VARIANT*>(&value), GetUserDefaultLCID(), 0, wanted)))
            return;
        SetScalar(converted.Get(), item);
        return;
    }
    const LCID locale = GetUserDefaultLCID();
    BSTR made = nullptr;
    HRESULT hr = E_FAIL;
    switch (value.vt) {
    case VT_I2: hr = VarBstrFromI2(value.iVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_I4:
    case VT_INT: hr = VarBstrFromI4(value.lVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_R4: hr = VarBstrFromR4(value.fltVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_R8: hr = VarBstrFromR8(value.dblVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_CY: hr = VarBstrFromCy(value.cyVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_DATE: hr = VarBstrFromDate(value.date, locale, VAR_DATEVALUEONLY, &made); break;
    case VT_BOOL: hr = VarBstrFromBool(value.boolVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    // A byte above 127 reads as a negative number, for both.
    case VT_I1:
    case VT_UI1: hr = VarBstrFromI1(value.cVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_UI2: hr = VarBstrFromUI2(value.uiVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_UI4:
    case VT_UINT: hr = VarBstrFromUI4(value.ulVal, locale, LOCALE_NOUSEROVERRIDE, &made); break;
    case VT_BSTR:
        // The text itself; whoever owns the VARIANT frees it.
        AssignBstr(text->value, value.bstrVal);
        return;
    case VT_EMPTY:
    case VT_NULL:
        // No value came back: the text is empty rather than what went out.
        text->value = kEmptyMetaString;
        return;
    default: {
        // Other plain values (VT_I8, VT_DECIMAL, VT_ERROR...) by the platform's
        // own conversion; objects and arrays have no text and leave it as it was.
        if ((value.vt & (VT_ARRAY | VT_BYREF)) || value.vt == VT_DISPATCH || value.vt == VT_UNKNOWN ||
            value.vt == VT_RECORD)
            return;
        CVariant converted;
        if (SUCCEEDED(VariantChangeTypeEx(&converted, const_cast<VARIANT*>(&value), locale, 0, VT_BSTR)))
            AssignBstr(text->value, converted.Get().bstrVal);
        return;
    }
    }
    AssignConverted(text->value, hr, made);
}

bool CCOMMethodInvoke::RecordVariantToStruct(const VARIANT& value, CMetaObjectStruct* item)
{
    if (!item)
        return false;
    IRecordInfo* recordInfo = value.pRecInfo;
    void* data = value.pvRecord;
    if (!recordInfo || !data)
        return true;
    try {
        CItemList members;
        struct MemberOwner {
            CItemList& list;
            ~MemberOwner()
            {
                // SetMembers keeps clones; an object item's own use goes back here.
                for (CMetaObjectItem* member : list) {
                    member->Clear();
                    delete member;
                }
            }
        } owner{members};

        ComPtr<ITypeInfo> info;
        if (SUCCEEDED(ContainFault([&] { return recordInfo->GetTypeInfo(info.Put()); })) && info) {
            TypeAttr attributes(info.Get());
            if (SUCCEEDED(ContainFault([&] { return info->GetTypeAttr(attributes.Put()); })) && attributes) {
                for (WORD index = 0; index < attributes->cVars; ++index) {
                    VARDESC* description = nullptr;
                    if (FAILED(ContainFault([&] { return info->GetVarDesc(index, &description); })) || !description)
                        continue;
                    struct DescriptionOwner {
                        ITypeInfo* info;
                        VARDESC* description;
                        ~DescriptionOwner() { info->ReleaseVarDesc(description); }
                    } descriptionOwner{info.Get(), description};
                    Bstr name;
                    UINT found = 0;
                    if (FAILED(ContainFault([&] {
                            return info->GetNames(description->memid, name.Put(), 1, &found);
                        })) || found == 0)
                        continue;
                    CVariant field;
                    if (FAILED(recordInfo->GetField(data, name.Get(), &field)))
                        continue;
                    if (field.Get().vt == VT_BSTR) {
                        // Some platforms hand out the record's own string here
                        // rather than a copy: that one must not be freed.
                        CVariant inPlace;
                        PVOID fieldData = nullptr;
                        if (SUCCEEDED(recordInfo->GetFieldNoCopy(data, name.Get(), &inPlace, &fieldData)) &&
                            fieldData && *static_cast<BSTR*>(fieldData) == field.Get().bstrVal) {
                            std::unique_ptr<CMetaObjectItem> member(VariantToItem(field.Get()));
                            field.Get().vt = VT_EMPTY;
                            inPlace.Get().vt = VT_EMPTY;
                            if (member) {
                                member->GetTypeDesc().memberName = CMetaString(name.Get());
                                members.push_back(member.release());
                            }
                            continue;
                        }
                        inPlace.Get().vt = VT_EMPTY;  // by reference into the record: not ours
                    }
                    std::unique_ptr<CMetaObjectItem> member(VariantToItem(field.Get()));
                    if (!member)
                        continue;
                    member->GetTypeDesc().memberName = CMetaString(name.Get());
                    members.push_back(member.release());
                }
            }
        }
        item->SetMembers(members);
        return true;
    } catch (...) {
        return false;
    }
}
