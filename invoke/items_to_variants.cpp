// Items to VARIANTs: each argument of a call becomes one VARIANT, chosen by the
// item's signature; by-reference arguments get a cell of their own.

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <new>

#include "discovery/type_names.h"
#include "identity/com_identity.h"
#include "invoke/method_invoke.h"
#include "invoke/text_memo.h"
#include "invoke/variant_owner.h"
#include "metaobj/compound_items.h"
#include "metaobj/scalar_items.h"
#include "platform/block_cache.h"
#include "platform/contained_call.h"
#include "platform/platform_handles.h"

using namespace MetaObj;

namespace {

// What a row writes. The item class a row expects is checked, so an item of
// the wrong class for its signature gets no translation instead of a misread.
enum class Put {
    Byte,
    Short,
    Long,
    Float,
    Double,
    Bool,
    Bstr,
    Currency,
    Date,
    Object,
    Record,
    Variant,
};

struct Row {
    const wchar_t* names[4];
    Put put;
};

// By value the signature must equal a name; by reference it must contain one.
// The first row that fits decides.
constexpr Row kByValueRows[] = {
    {{L"VT_I1", L"VT_UI1"}, Put::Byte},
    {{L"VT_I2", L"VT_UI2"}, Put::Short},
    {{L"VT_I4", L"VT_UI4", L"VT_INT", L"VT_UINT"}, Put::Long},
    {{L"VT_R4"}, Put::Float},
    {{L"VT_R8"}, Put::Double},
    {{L"VT_BOOL"}, Put::Bool},
    {{L"VT_BSTR"}, Put::Bstr},
    {{L"VT_CY"}, Put::Currency},
    {{L"VT_DATE"}, Put::Date},
    {{L"VT_DISPATCH"}, Put::Object},
    {{L"VT_RECORD"}, Put::Record},
    {{L"VT_UNKNOWN"}, Put::Object},
    {{L"VT_ERROR", L"VT_USERDEFINED"}, Put::Long},
};

constexpr Row kByReferenceRows[] = {
    {{L"VT_I1", L"VT_UI1"}, Put::Byte},
    {{L"VT_I2", L"VT_UI2"}, Put::Short},
    {{L"VT_I4", L"VT_UI4", L"VT_INT", L"VT_UINT"}, Put::Long},
    {{L"VT_R4"}, Put::Float},
    {{L"VT_R8"}, Put::Double},
    {{L"VT_BOOL"}, Put::Bool},
    {{L"VT_BSTR"}, Put::Bstr},
    {{L"VT_CY"}, Put::Currency},
    {{L"VT_DATE"}, Put::Date},
    {{L"VT_RECORD"}, Put::Record},
    {{L"VT_DISPATCH", L"VT_UNKNOWN"}, Put::Object},
    {{L"VT_ERROR"}, Put::Long},
    {{L"VT_USERDEFINED"}, Put::Long},
    {{L"VT_VARIANT"}, Put::Variant},
};

constexpr wchar_t kNullObjectTag[] = L"<@NULLOBJECT>";
constexpr wchar_t kByRefWord[] = L"VT_BYREF";

// Equal texts, compared here: a call of the run-time's wcscmp costs more than
// comparing such short words, and every argument walks the rows.
bool SameText(const wchar_t* left, const wchar_t* right)
{
    while (*left != 0 && *left == *right) {
        ++left;
        ++right;
    }
    return *left == *right;
}

const Row* FindRow(const Row* rows, std::size_t count, const wchar_t* signature, bool contains)
{
    for (std::size_t at = 0; at < count; ++at) {
        for (const wchar_t* name : rows[at].names) {
            if (name == nullptr)
                break;
            if (contains ? std::wcsstr(signature, name) != nullptr : SameText(signature, name))
                return &rows[at];
        }
    }
    return nullptr;
}

// What a signature text decides for a translation.
struct SignatureReading {
    VARTYPE vt;
    const Row* byValue;
    const Row* byReference;
    bool dispatchWord;  // exactly "VT_DISPATCH", after the by-reference word became it
    bool variantWord;   // exactly "VT_VARIANT"
};

SignatureReading ReadSignature(const wchar_t* signature)
{
    VARTYPE vt = VarTypeFromSignature(signature);
    // The run-time's _wcsicmp looks up the locale for every character: only a
    // text of the same length can match.
    if (std::wcslen(signature) == std::size(kByRefWord) - 1 && _wcsicmp(signature, kByRefWord) == 0) {
        // The type follows the word in any case of letters, not only as written.
        signature = L"VT_DISPATCH";
        vt = VT_DISPATCH;
    }
    return {vt,
            FindRow(kByValueRows, std::size(kByValueRows), signature, false),
            FindRow(kByReferenceRows, std::size(kByReferenceRows), signature, true),
            SameText(signature, L"VT_DISPATCH"),
            SameText(signature, L"VT_VARIANT")};
}

CTextMemo<SignatureReading, &ReadSignature> g_readings;

SignatureReading ReadingOf(const wchar_t* signature)
{
    return g_readings.Of(signature);
}

// The 32-bit value of the items that carry one as a number.
bool Int32Of(CMetaObjectItem* item, LONG& out)
{
    if (auto* number = ItemAs<CMetaObjectInt>(item)) {
        out = number->value;
        return true;
    }
    if (auto* enumeration = ItemAs<CMetaObjectEnum>(item)) {
        out = enumeration->value;
        return true;
    }
    return false;
}

const wchar_t* TextOf(const CMetaString& text)
{
    return text.IsEmpty() ? L"" : text.GetWide();
}

template <typename T>
T* NewCellOf(T value)
{
    static_assert(sizeof(T) <= sizeof(VARIANT), "a cell holds what a VARIANT can point at");
    T* cell = static_cast<T*>(NewArgumentCell());
    *cell = value;
    return cell;
}

// An object item without a handler goes out as a null object.
IDispatch* ObjectPointerOf(CMetaObjectObject& item)
{
    return item.handler ? item.handler->GetDispatchPointer() : nullptr;
}

// What an item gives as itself where a parameter takes any value: a text item
// goes as text, as hosts expect of such parameters; numbers, flags and objects
// go as their own type rather than failing.
bool NaturalValue(CMetaObjectItem* item, VARIANT& out, bool ownReference)
{
    LONG number = 0;
    if (auto* text = ItemAs<CMetaObjectString>(item)) {
        out.bstrVal = AllocBstr(TextOf(text->value), false);
        out.vt = VT_BSTR;
    } else if (Int32Of(item, number)) {
        out.vt = VT_I4;
        out.lVal = number;
    } else if (auto* real = ItemAs<CMetaObjectReal>(item)) {
        out.vt = VT_R8;
        out.dblVal = real->value;
    } else if (auto* flag = ItemAs<CMetaObjectBool>(item)) {
        out.vt = VT_BOOL;
        out.boolVal = flag->value == 1 ? VARIANT_TRUE : VARIANT_FALSE;
    } else if (auto* character = ItemAs<CMetaObjectChar>(item)) {
        out.vt = VT_UI1;
        out.bVal = static_cast<BYTE>(character->value);
    } else if (auto* object = ItemAs<CMetaObjectObject>(item)) {
        IDispatch* pointer = ObjectPointerOf(*object);
        if (pointer && ownReference)
            pointer->AddRef();
        out.vt = VT_DISPATCH;
        out.pdispVal = pointer;
    } else {
        return false;
    }
    return true;
}

// Wine's PutField converts into a VARIANT it never initialised, and so may
// refuse any value; the field is then written where GetFieldNoCopy shows it.
// Texts, VARIANTs and plain values only.
void PutFieldInPlace(IRecordInfo& info, void* data, const wchar_t* name, VARIANT& value)
{
    CVariant place;
    void* array = nullptr;
    const HRESULT hr = info.GetFieldNoCopy(data, name, &place, &array);
    const VARTYPE placed = place.Get().vt;
    void* at = place.Get().byref;
    place.Get().vt = VT_EMPTY;  // it points into the record, which is not for clearing here
    if (FAILED(hr) || !(placed & VT_BYREF) || at == nullptr)
        return;
    const VARTYPE fieldType = placed & ~VT_BYREF;
    if (fieldType == VT_VARIANT) {
        VariantCopy(static_cast<VARIANT*>(at), &value);
        return;
    }
    CVariant converted;
    if (FAILED(VariantChangeType(&converted, &value, 0, fieldType)))
        return;
    if (fieldType == VT_BSTR) {
        auto* cell = static_cast<BSTR*>(at);
        SysFreeString(*cell);
        *cell = converted.Get().bstrVal;
        converted.Get().vt = VT_EMPTY;
        return;
    }
    if (const std::size_t bytes = PlainValueBytes(fieldType))
        std::memcpy(at, &converted.Get().lVal, bytes);
}

}  // namespace

namespace MetaObj {

BSTR AllocBstr(const wchar_t* text, bool emptyIsNull)
{
    if (text == nullptr || *text == 0) {
        if (emptyIsNull)
            return nullptr;
        text = L"";
    }
    BSTR made = SysAllocString(text);
    if (made == nullptr)
        throw std::bad_alloc();  // the platform's E_OUTOFMEMORY
    return made;
}

std::size_t PlainValueBytes(VARTYPE type)
{
    switch (type) {
    case VT_I1: case VT_UI1:
        return 1;
    case VT_I2: case VT_UI2: case VT_BOOL:
        return 2;
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_R4: case VT_ERROR: case VT_HRESULT:
        return 4;
    case VT_R8: case VT_CY: case VT_DATE: case VT_I8: case VT_UI8:
        return 8;
    default:
        return 0;
    }
}

// Every call by reference makes its cells and frees them when it ends: they
// come from the blocks kept for their size, as items do.
void* NewArgumentCell()
{
    void* cell = TakeBlock(sizeof(VARIANT));
    std::memset(cell, 0, sizeof(VARIANT));
    return cell;
}

void FreeArgumentCell(void* cell) noexcept
{
    GiveBlock(cell, sizeof(VARIANT));
}

void ReleaseArgument(VARIANT& argument)
{
    const VARTYPE vt = argument.vt;
    if (vt == (VT_RECORD | VT_BYREF)) {
        // No cell: the record and its information stand in the VARIANT itself,
        // and VariantClear would leave them; the call made them, so it frees them.
        if (argument.pRecInfo) {
            if (argument.pvRecord)
                argument.pRecInfo->RecordDestroy(argument.pvRecord);
            argument.pRecInfo->Release();
        }
    } else if (vt & VT_BYREF) {
        void* cell = argument.byref;
        if (cell && (vt & VT_ARRAY)) {
            // The array in the cell now is the call's: the one that went out,
            // or the one the object put there in its place.
            SafeArrayDestroy(*static_cast<SAFEARRAY**>(cell));
            FreeArgumentCell(cell);
        } else if (cell) {
            switch (vt & ~VT_BYREF) {
            case VT_BSTR:
                SysFreeString(*static_cast<BSTR*>(cell));
                break;
            case VT_VARIANT:
                // Whatever stands in the cell now is the call's: what went out,
                // or what the object put there in its place.
                VariantClear(static_cast<VARIANT*>(cell));
                break;
            case VT_DISPATCH:
            case VT_UNKNOWN:
                // The call's own reference: taken on the way out, or the one the
                // object handed back; a write-back that kept it nulled the cell.
                if (IUnknown* object = *static_cast<IUnknown**>(cell))
                    object->Release();
                break;
            default:
                break;
            }
            FreeArgumentCell(cell);
        }
    } else if (vt == VT_DISPATCH || vt == VT_UNKNOWN) {
        // Borrowed from the item's handler, which keeps its reference.
    } else {
        ClearVariant(argument);
    }
    argument.vt = VT_EMPTY;
}

}  // namespace MetaObj

bool CCOMMethodInvoke::ItemToVariant(CMetaObjectItem* item, VARIANT& out)
{
    if (item == nullptr)
        return false;
    out.vt = VT_EMPTY;  // as VariantInit leaves it
    if (item->GetOptional() && item->GetOmitted()) {
        out.vt = VT_ERROR;
        out.scode = DISP_E_PARAMNOTFOUND;
        return true;
    }
    const CTypeDesc& type = item->GetTypeDesc();
    if (type.bounds) {
        auto* array = ItemAs<CMetaObjectArray>(item);
        return array != nullptr && ArrayItemToVariant(array, out);
    }
    if (item->GetTagText().CompareNoCase(kNullObjectTag, 0) == 0) {
        out.vt = VT_NULL;
        return true;
    }

    // An enumeration goes as its number, whatever its signature says.
    SignatureReading reading = ReadingOf(type.type == MetaTypeEnum ? L"VT_I4" : TextOf(type.signature));
    // A record out of a type library is signed like an object; a struct item
    // has no handler to read, so it goes by the record road. Here and below an
    // item's class is asked only where the answer counts: in this run-time a
    // cast that fails compares type names as text.
    if (type.type == MetaTypeStruct && reading.dispatchWord && ItemAs<CMetaObjectStruct>(item)) {
        reading = ReadingOf(L"VT_RECORD");
        reading.vt = VT_RECORD;
    }
    VARTYPE vt = reading.vt;
    const bool byRef = type.isByRef == 1;

    const Row* row = byRef ? reading.byReference : reading.byValue;
    if (!row && byRef && type.type == MetaTypeObject && ItemAs<CMetaObjectObject>(item)) {
        // An object by reference under another signature still needs a pointer cell.
        static constexpr Row kObjectCell = {{L"VT_DISPATCH"}, Put::Object};
        row = &kObjectCell;
        vt = VT_DISPATCH;
    }
    if (!row && !byRef) {
        auto* object = type.type == MetaTypeObject ? ItemAs<CMetaObjectObject>(item) : nullptr;
        if (object) {
            out.vt = VT_DISPATCH;
            out.pdispVal = ObjectPointerOf(*object);
            return true;
        }
        if (auto* unknown = ItemAs<CMetaObjectUnknown>(item); unknown && type.type == MetaTypeUnknown) {
            // No cell is made by value, so a by-reference mark would send a
            // number where the object reads an address.
            out.vt = static_cast<VARTYPE>(vt & ~VT_BYREF);
            out.ulVal = unknown->value;
            return true;
        }
    }
    if (!row && !byRef && reading.variantWord)
        return NaturalValue(item, out, false);
    if (!row)
        return false;
    if (byRef)
        vt |= VT_BYREF;
    else
        vt &= ~VT_BYREF;

    LONG number = 0;
    switch (row->put) {
    case Put::Byte: {
        auto* character = ItemAs<CMetaObjectChar>(item);
        if (!character)
            return false;
        const auto low = static_cast<BYTE>(character->value);
        if (byRef)
            out.pbVal = NewCellOf(low);
        else
            out.bVal = low;
        break;
    }
    case Put::Short: {
        if (!Int32Of(item, number))
            return false;
        const auto low = static_cast<SHORT>(number);
        if (byRef)
            out.piVal = NewCellOf(low);
        else
            out.iVal = low;
        break;
    }
    case Put::Long:
        if (!Int32Of(item, number))
            return false;
        if (byRef)
            out.plVal = NewCellOf(number);
        else
            out.lVal = number;
        break;
    case Put::Float:
    case Put::Double: {
        auto* real = ItemAs<CMetaObjectReal>(item);
        if (!real)
            return false;
        if (row->put == Put::Float) {
            const auto narrow = static_cast<float>(real->value);
            if (byRef)
                out.pfltVal = NewCellOf(narrow);
            else
                out.fltVal = narrow;
        } else if (byRef) {
            out.pdblVal = NewCellOf(real->value);
        } else {
            out.dblVal = real->value;
        }
        break;
    }
    case Put::Bool: {
        auto* flag = ItemAs<CMetaObjectBool>(item);
        if (!flag)
            return false;
        const VARIANT_BOOL value = flag->value == 1 ? VARIANT_TRUE : VARIANT_FALSE;
        if (byRef)
            out.pboolVal = NewCellOf(value);
        else
            out.boolVal = value;
        break;
    }
    case Put::Bstr: {
        auto* text = ItemAs<CMetaObjectString>(item);
        if (!text)
            return false;
        if (byRef) {
            BSTR* cell = NewCellOf<BSTR>(nullptr);
            out.pbstrVal = cell;
            out.vt = vt;  // owned from here on, whatever the allocation below does
            // An out-only text goes out empty: the object writes its own there
            // without freeing what stood in the cell.
            if (item->GetDirection() != 1)
                *cell = AllocBstr(TextOf(text->value), true);
        } else {
            out.bstrVal = AllocBstr(TextOf(text->value), false);
        }
        break;
    }
    case Put::Currency:
    case Put::Date: {
        auto* text = ItemAs<CMetaObjectString>(item);
        if (!text)
            return false;
        // By value the system's locale reads the text, by reference the user's.
        const LCID locale = byRef ? GetUserDefaultLCID() : LOCALE_SYSTEM_DEFAULT;
        Bstr temporary(AllocBstr(text->value.GetWide(), true));
        if (row->put == Put::Currency) {
            CY amount{};
            const HRESULT hr = VarCyFromStr(temporary.Get(), locale, LOCALE_NOUSEROVERRIDE, &amount);
            if (byRef)
                out.pcyVal = NewCellOf(SUCCEEDED(hr) ? amount : CY{});
            else if (SUCCEEDED(hr))
                out.cyVal = amount;
        } else {
            DATE date = 0;
            const HRESULT hr = VarDateFromStr(temporary.Get(), locale, VAR_DATEVALUEONLY, &date);
            if (byRef)
                out.pdate = NewCellOf(SUCCEEDED(hr) ? date : DATE{});
            else if (SUCCEEDED(hr))
                out.date = date;
        }
        break;
    }
    case Put::Object: {
        auto* object = ItemAs<CMetaObjectObject>(item);
        if (!object)
            return false;
        IDispatch* pointer = ObjectPointerOf(*object);
        if (byRef) {
            // The cell holds a reference of the call's own: under COM's rules
            // for in/out arguments the object may release it and put another
            // there. An out-only argument goes out empty, as COM wants it.
            if (pointer && item->GetDirection() != 1)
                pointer->AddRef();
            else
                pointer = nullptr;
            out.ppdispVal = NewCellOf(pointer);
            if ((vt & VT_TYPEMASK) != VT_UNKNOWN)
                vt = VT_DISPATCH | VT_BYREF;
        } else {
            out.pdispVal = pointer;
        }
        break;
    }
    case Put::Record: {
        auto* record = ItemAs<CMetaObjectStruct>(item);
        if (!record)
            return false;
        out.vt = vt;
        RecordItemToVariant(record, out);
        return true;
    }
    case Put::Variant: {
        auto* cell = static_cast<VARIANT*>(NewArgumentCell());
        out.pvarVal = cell;
        out.vt = vt;
        // Out-only, it goes out empty, as for a text; the cell is cleared after
        // the call, so an object in it holds a reference of its own.
        return item->GetDirection() == 1 || NaturalValue(item, *cell, true);
    }
    }
    out.vt = vt;
    return true;
}

bool CCOMMethodInvoke::RecordItemToVariant(CMetaObjectStruct* item, VARIANT& out)
{
    if (!dispatch || !item)
        return false;
    ComPtr<ITypeInfo> objectInfo;
    if (FAILED(ContainFault([&] {
            return dispatch->GetTypeInfo(0, GetUserDefaultLCID(), objectInfo.Put());
        })) || !objectInfo)
        return false;
    ComPtr<ITypeLib> library;
    UINT index = 0;
    if (FAILED(ContainFault([&] { return objectInfo->GetContainingTypeLib(library.Put(), &index); })) || !library)
        return false;

    ComPtr<IRecordInfo> recordInfo;
    GUID recordId;
    const CMetaString& structName = item->GetTypeDesc().GetStructName();
    if (ClassIdFromText(structName.GetNarrow(), &recordId)) {
        ComPtr<ITypeInfo> recordType;
        if (SUCCEEDED(ContainFault([&] {
                return library->GetTypeInfoOfGuid(recordId, recordType.Put());
            })) && recordType) {
            if (FAILED(GetRecordInfoFromTypeInfo(recordType.Get(), recordInfo.Put())))
                recordInfo.Reset();
        }
    }
    if (!recordInfo)
        return true;  // the argument goes out without a record

    void* data = recordInfo->RecordCreate();
    out.pRecInfo = recordInfo.Detach();
    out.pvRecord = data;
    if (!data)
        return true;
    for (CMetaObjectItem* member : item->members) {
        if (!member)
            continue;
        // Fully initialised, as the platform's PutField may read all of it.
        CVariant field;
        if (!ItemToVariant(member, field.Get()))
            continue;
        // Copied in: the platform refuses any flag but a copy or a move.
        const wchar_t* name = member->GetTypeDesc().memberName.GetWide();
        if (FAILED(out.pRecInfo->PutField(INVOKE_PROPERTYPUT, data, name, &field)))
            PutFieldInPlace(*out.pRecInfo, data, name, field.Get());
        // PutField copied the value; the temporary goes by the argument rule,
        // which leaves a borrowed object alone.
        ReleaseArgument(field.Get());
    }
    return true;
}
