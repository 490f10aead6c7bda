// Arrays between CMetaObjectArray and SAFEARRAY, in the order of the walker:
// the item's flat block and the SAFEARRAY's indices visited side by side, so
// an array that goes out and comes back keeps its order and its bounds.

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <typeinfo>
#include <utility>

#include "discovery/type_names.h"
#include "invoke/method_invoke.h"
#include "invoke/variant_owner.h"
#include "metaobj/compound_items.h"
#include "metaobj/scalar_items.h"
#include "platform/platform_handles.h"

using namespace MetaObj;

namespace {

// Nested VT_VARIANT arrays are followed this deep and no deeper, in either
// direction: each level is a frame of the stack, and no host nests so far.
constexpr int kMaxNesting = 64;
constexpr std::uint64_t kMaxElements = std::numeric_limits<std::int32_t>::max();

// The walker's vectors, fixed so that a walk allocates nothing.
struct Shape {
    std::int32_t lower[kMaxArrayDimensions];
    std::int32_t upper[kMaxArrayDimensions];
    std::int32_t current[kMaxArrayDimensions];
};

// An element made here and not yet in its slot: an object item gives its use
// back before it goes.
struct ClearingDelete {
    void operator()(CMetaObjectItem* item) const
    {
        item->Clear();
        delete item;
    }
};
using ElementPtr = std::unique_ptr<CMetaObjectItem, ClearingDelete>;

const wchar_t* TextOf(const CMetaString& text)
{
    return text.IsEmpty() ? L"" : text.GetWide();
}

// The element's type from the item's text (its signature): what stands in
// front of "|VT_ARRAY", or the whole text.
VARTYPE ElementTypeOf(CMetaObjectArray& item)
{
    CMetaString text;
    item.GetValue(text);
    std::wstring signature = TextOf(text);
    const std::size_t cut = signature.find(L"|VT_ARRAY");
    if (cut != std::wstring::npos)
        signature.resize(cut);
    return VarTypeFromSignature(signature.c_str());
}

SAFEARRAY* ArrayOf(const VARIANT& value)
{
    if (!(value.vt & VT_ARRAY))
        return nullptr;
    if (value.vt & VT_BYREF)
        return value.pparray ? *value.pparray : nullptr;
    return value.parray;
}

// SafeArrayGetElement copies by the array's own layout, and hands over texts,
// VARIANTs and references by its flags: an array whose layout isn't the one
// the VARIANT names would be misread or leak, so its elements aren't read.
bool LayoutFits(const SAFEARRAY& array, VARTYPE elementType)
{
    ULONG size = 0;
    USHORT flag = 0;
    switch (elementType) {
    case VT_I1: case VT_UI1: size = 1; break;
    case VT_I2: case VT_UI2: case VT_BOOL: size = 2; break;
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_ERROR: case VT_R4: case VT_USERDEFINED:
        size = 4;
        break;
    case VT_R8: case VT_CY: case VT_DATE: size = 8; break;
    case VT_BSTR: size = sizeof(BSTR); flag = FADF_BSTR; break;
    case VT_DISPATCH: size = sizeof(IDispatch*); flag = FADF_DISPATCH; break;
    case VT_UNKNOWN: size = sizeof(IUnknown*); flag = FADF_UNKNOWN; break;
    case VT_VARIANT: size = sizeof(VARIANT); flag = FADF_VARIANT; break;
    default: return false;
    }
    constexpr USHORT kOwningFlags = FADF_BSTR | FADF_UNKNOWN | FADF_DISPATCH | FADF_VARIANT | FADF_RECORD;
    return array.cbElements == size && (array.fFeatures & kOwningFlags) == flag;
}

bool Readable(const void* at, std::size_t size)
{
    MEMORY_BASIC_INFORMATION region{};
    if (!VirtualQuery(at, &region, sizeof region) || region.State != MEM_COMMIT ||
        (region.Protect & (PAGE_GUARD | PAGE_NOACCESS)) || region.Protect == 0)
        return false;
    const auto* end = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
    return static_cast<const char*>(at) + size <= end;
}

bool Executable(const void* at)
{
    MEMORY_BASIC_INFORMATION region{};
    constexpr DWORD kExecute = PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    return VirtualQuery(at, &region, sizeof region) && region.State == MEM_COMMIT && (region.Protect & kExecute);
}

// An interface pointer of this process: aligned, readable, and its table's
// first three entries (QueryInterface, AddRef, Release) are code. Nothing is
// called to find out, so an address from another process is refused unread.
bool LooksLikeObjectHere(const void* cell)
{
    if (!cell)
        return true;
    if (reinterpret_cast<std::uintptr_t>(cell) % alignof(void*) != 0 || !Readable(cell, sizeof(void*)))
        return false;
    const auto* table = *static_cast<const void* const* const*>(cell);
    if (reinterpret_cast<std::uintptr_t>(table) % alignof(void*) != 0 || !Readable(table, 3 * sizeof(void*)))
        return false;
    return Executable(table[0]) && Executable(table[1]) && Executable(table[2]);
}

// Wine's marshaler hands an array of objects over with none of the features
// that say what its elements are, though each element holds a reference it
// made for us; Windows' marshaler keeps them. Such an array is given the
// feature its VARIANT names, so that it is read as objects and its
// destruction releases them, but only when every element is an object of
// this process: a server under Wine that sends back an array it was sent
// sends numbers that were addresses in its own process, and those are left
// unread, as any array whose layout doesn't fit.
void AdoptMarshaledObjects(SAFEARRAY& array, VARTYPE elementType, std::uint64_t count)
{
    constexpr USHORT kTypeFlags =
        FADF_BSTR | FADF_UNKNOWN | FADF_DISPATCH | FADF_VARIANT | FADF_RECORD | FADF_HAVEIID | FADF_HAVEVARTYPE;
    if ((elementType != VT_DISPATCH && elementType != VT_UNKNOWN) || (array.fFeatures & kTypeFlags) ||
        array.cbElements != sizeof(IUnknown*) || !array.pvData || array.cLocks != 0)
        return;
    const auto* cells = static_cast<void* const*>(array.pvData);
    if (count > SIZE_MAX / sizeof(void*) || !Readable(cells, static_cast<std::size_t>(count) * sizeof(void*)))
        return;
    for (std::uint64_t at = 0; at < count; ++at) {
        if (!LooksLikeObjectHere(cells[at]))
            return;
    }
    array.fFeatures |= elementType == VT_DISPATCH ? FADF_DISPATCH : FADF_UNKNOWN;
}

}  // namespace

namespace MetaObj {

void ReadArrayBounds(SAFEARRAY* array, std::uint32_t dimensionCount, CTypeDesc& type, std::int32_t* lower,
                     std::int32_t* upper)
{
    for (std::uint32_t dimension = 1; dimension <= dimensionCount; ++dimension) {
        LONG low = 0;
        LONG high = -1;
        SafeArrayGetLBound(array, dimension, &low);
        SafeArrayGetUBound(array, dimension, &high);
        lower[dimension - 1] = low;
        upper[dimension - 1] = high;
        if (type.bounds)
            type.bounds->Add(low, static_cast<std::int32_t>(static_cast<std::int64_t>(high) - low + 1));
    }
}

}  // namespace MetaObj

namespace {

bool MakeArray(CMetaObjectArray& item, VARTYPE elementType, SafeArray& made, int depth);

// The elements of one array are nearly always of one class, and in this
// run-time a cast of an item made by another binary (the host's) compares
// class names as text: once a cast has shown an element's class, an element of
// the very same class is taken without asking again.
class ElementCasts {
public:
    template <typename Item>
    Item* As(CMetaObjectItem& element)
    {
        const std::type_info* type = &typeid(element);
        if (type == confirmed && target == &typeid(Item))
            return static_cast<Item*>(&element);
        Item* cast = dynamic_cast<Item*>(&element);
        if (cast) {
            confirmed = type;
            target = &typeid(Item);
        }
        return cast;
    }
    bool Int32Of(CMetaObjectItem& element, LONG& out)
    {
        if (auto* number = As<CMetaObjectInt>(element)) {
            out = number->value;
            return true;
        }
        if (auto* enumeration = As<CMetaObjectEnum>(element)) {
            out = enumeration->value;
            return true;
        }
        return false;
    }

private:
    const std::type_info* confirmed = nullptr;
    const std::type_info* target = nullptr;
};

// What an element of a VT_VARIANT array carries: a text as text, as the host
// means it; a nested array as a nested SAFEARRAY; other values as their own
// type, so that what such an array brought in can go out again.
bool ElementVariant(CMetaObjectItem& element, VARIANT& out, int depth, ElementCasts& casts)
{
    LONG number = 0;
    if (auto* text = dynamic_cast<CMetaObjectString*>(&element)) {
        out.bstrVal = AllocBstr(TextOf(text->value), false);
        out.vt = VT_BSTR;
    } else if (auto* nested = dynamic_cast<CMetaObjectArray*>(&element)) {
        const VARTYPE nestedType = ElementTypeOf(*nested);
        SafeArray array;
        if (depth >= kMaxNesting || !MakeArray(*nested, nestedType, array, depth + 1))
            return false;
        out.parray = array.Release();
        out.vt = static_cast<VARTYPE>(VT_ARRAY | nestedType);
    } else if (casts.Int32Of(element, number)) {
        out.lVal = number;
        out.vt = VT_I4;
    } else if (auto* real = dynamic_cast<CMetaObjectReal*>(&element)) {
        out.dblVal = real->value;
        out.vt = VT_R8;
    } else if (auto* flag = dynamic_cast<CMetaObjectBool*>(&element)) {
        out.boolVal = flag->value == 1 ? VARIANT_TRUE : VARIANT_FALSE;
        out.vt = VT_BOOL;
    } else if (auto* character = dynamic_cast<CMetaObjectChar*>(&element)) {
        out.bVal = static_cast<BYTE>(character->value);
        out.vt = VT_UI1;
    } else if (auto* object = dynamic_cast<CMetaObjectObject*>(&element)) {
        // The VARIANT is cleared after the put, so it holds a reference of its own.
        out.pdispVal = object->handler ? object->handler->GetDispatchPointer() : nullptr;
        if (out.pdispVal)
            out.pdispVal->AddRef();
        out.vt = VT_DISPATCH;
    } else {
        return false;
    }
    return true;
}

// Writes one element; an item of the wrong class for the element type leaves
// the place at its default, as does a currency or date text that doesn't parse.
// SafeArrayPutElement copies texts and VARIANTs and takes its own references.
void PutElement(SAFEARRAY* array, VARTYPE elementType, CMetaObjectItem& element, LONG* index, int depth,
                ElementCasts& casts)
{
    LONG number = 0;
    switch (elementType) {
    case VT_I1:
    case VT_UI1:
        if (auto* character = casts.As<CMetaObjectChar>(element)) {
            BYTE low = static_cast<BYTE>(character->value);
            SafeArrayPutElement(array, index, &low);
        }
        break;
    case VT_I2:
    case VT_UI2:
        if (casts.Int32Of(element, number)) {
            SHORT low = static_cast<SHORT>(number);
            SafeArrayPutElement(array, index, &low);
        }
        break;
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_ERROR:
        if (casts.Int32Of(element, number))
            SafeArrayPutElement(array, index, &number);
        break;
    case VT_R4:
        if (auto* real = casts.As<CMetaObjectReal>(element)) {
            float narrow = static_cast<float>(real->value);
            SafeArrayPutElement(array, index, &narrow);
        }
        break;
    case VT_R8:
        if (auto* real = casts.As<CMetaObjectReal>(element))
            SafeArrayPutElement(array, index, &real->value);
        break;
    case VT_BOOL:
        if (auto* flag = casts.As<CMetaObjectBool>(element)) {
            VARIANT_BOOL value = flag->value == 1 ? VARIANT_TRUE : VARIANT_FALSE;
            SafeArrayPutElement(array, index, &value);
        }
        break;
    case VT_BSTR:
        if (auto* text = casts.As<CMetaObjectString>(element)) {
            Bstr copy(AllocBstr(TextOf(text->value), false));
            SafeArrayPutElement(array, index, copy.Get());
        }
        break;
    case VT_VARIANT: {
        CVariant value;
        if (ElementVariant(element, value.Get(), depth, casts))
            SafeArrayPutElement(array, index, &value.Get());
        break;
    }
    case VT_CY:
    case VT_DATE:
        if (auto* text = casts.As<CMetaObjectString>(element)) {
            Bstr temporary(AllocBstr(TextOf(text->value), false));
            const LCID locale = GetUserDefaultLCID();
            if (elementType == VT_CY) {
                CY amount{};
                if (SUCCEEDED(VarCyFromStr(temporary.Get(), locale, LOCALE_NOUSEROVERRIDE, &amount)))
                    SafeArrayPutElement(array, index, &amount);
            } else {
                // No VAR_DATEVALUEONLY here: a date in an array keeps its time of day.
                DATE date = 0;
                if (SUCCEEDED(VarDateFromStr(temporary.Get(), locale, LOCALE_NOUSEROVERRIDE, &date)))
                    SafeArrayPutElement(array, index, &date);
            }
        }
        break;
    case VT_DISPATCH:
    case VT_UNKNOWN:
        if (auto* object = casts.As<CMetaObjectObject>(element)) {
            IDispatch* pointer = object->handler ? object->handler->GetDispatchPointer() : nullptr;
            SafeArrayPutElement(array, index, pointer);
        }
        break;
    default:
        // No row (VT_I8, VT_DECIMAL, VT_RECORD...): the place keeps its default.
        break;
    }
}

// The SAFEARRAY of the item's shape and elements. False for no dimensions,
// more than the walker's 100, a count left open (-1), more elements than 32
// bits count, or an element type SafeArrayCreate refuses.
bool MakeArray(CMetaObjectArray& item, VARTYPE elementType, SafeArray& made, int depth)
{
    const CArrayBoundList* bounds = item.GetTypeDesc().bounds;
    if (!bounds || bounds->empty() || bounds->size() > kMaxArrayDimensions)
        return false;
    SAFEARRAYBOUND layout[kMaxArrayDimensions];
    Shape shape;
    std::uint32_t dimensions = 0;
    std::uint64_t product = 1;
    for (const CArrayBound* bound : *bounds) {
        if (!bound || bound->elementCount < 0)
            return false;
        product *= static_cast<std::uint64_t>(bound->elementCount);
        const std::int64_t upper = static_cast<std::int64_t>(bound->lowerBound) + bound->elementCount - 1;
        if (product > kMaxElements || upper > std::numeric_limits<std::int32_t>::max())
            return false;
        layout[dimensions].cElements = static_cast<ULONG>(bound->elementCount);
        layout[dimensions].lLbound = bound->lowerBound;
        shape.lower[dimensions] = bound->lowerBound;
        shape.upper[dimensions] = static_cast<std::int32_t>(upper);
        ++dimensions;
    }
    made.Reset(SafeArrayCreate(elementType, dimensions, layout));
    if (!made)
        return false;
    // A dimension of no elements leaves nothing to write.
    if (product == 0 || !item.elements)
        return true;
    CArrayWalker walker(dimensions, shape.lower, shape.upper, shape.current);
    ElementCasts casts;
    walker.Start();
    while (!walker.IsFinished()) {
        if (CMetaObjectItem* element = item.GetElement(&walker))
            PutElement(made.Get(), elementType, *element, reinterpret_cast<LONG*>(walker.current), depth, casts);
        walker.Advance();
    }
    return true;
}

// One element read by its row; null when the row is missing or the read fails.
CMetaObjectItem* ReadElement(CCOMMethodInvoke& call, SAFEARRAY* array, VARTYPE elementType, LONG* index, int depth)
{
    auto read = [&](void* into) { return SUCCEEDED(SafeArrayGetElement(array, index, into)); };
    switch (elementType) {
    case VT_I1: {
        signed char value = 0;
        return read(&value) ? new CMetaObjectChar(static_cast<wchar_t>(static_cast<std::int16_t>(value))) : nullptr;
    }
    case VT_UI1: {
        BYTE value = 0;
        return read(&value) ? new CMetaObjectChar(static_cast<wchar_t>(value)) : nullptr;
    }
    case VT_I2: {
        SHORT value = 0;
        return read(&value) ? new CMetaObjectInt(value) : nullptr;
    }
    case VT_UI2: {
        USHORT value = 0;
        return read(&value) ? new CMetaObjectInt(value) : nullptr;
    }
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_ERROR: {
        LONG value = 0;
        return read(&value) ? new CMetaObjectInt(value) : nullptr;
    }
    case VT_USERDEFINED: {
        LONG value = 0;
        return read(&value) ? new CMetaObjectEnum(value) : nullptr;
    }
    case VT_R4: {
        float value = 0;
        return read(&value) ? new CMetaObjectReal(value) : nullptr;
    }
    case VT_R8: {
        double value = 0;
        return read(&value) ? new CMetaObjectReal(value) : nullptr;
    }
    case VT_BOOL: {
        VARIANT_BOOL value = VARIANT_FALSE;
        return read(&value) ? new CMetaObjectBool(value == VARIANT_TRUE ? 1 : 0) : nullptr;
    }
    case VT_BSTR: {
        Bstr value;
        if (!read(value.Put()))
            return nullptr;
        auto item = std::make_unique<CMetaObjectString>();
        item->value.AssignWide(value ? value.Get() : L"");
        return item.release();
    }
    case VT_CY:
    case VT_DATE: {
        std::unique_ptr<CMetaObjectString> item;
        Bstr text;
        const LCID locale = GetUserDefaultLCID();
        if (elementType == VT_CY) {
            CY amount{};
            if (!read(&amount))
                return nullptr;
            item = std::make_unique<CMetaObjectCurrency>();
            VarBstrFromCy(amount, locale, LOCALE_NOUSEROVERRIDE, text.Put());
        } else {
            DATE date = 0;
            if (!read(&date))
                return nullptr;
            item = std::make_unique<CMetaObjectDate>();
            VarBstrFromDate(date, locale, LOCALE_NOUSEROVERRIDE, text.Put());
        }
        if (text)
            item->value.AssignWide(text.Get());
        return item.release();
    }
    case VT_DISPATCH: {
        IDispatch* object = nullptr;
        if (!read(&object))
            return nullptr;
        // The reference the read gave passes to the new handler.
        auto item = std::make_unique<CMetaObjectObject>();
        WrapObject(object, *item, nullptr);
        return item.release();
    }
    case VT_UNKNOWN: {
        // An IUnknown in an array stays a number, unlike a result: the item
        // keeps no reference, so the one the read gave goes back at once.
        ComPtr<IUnknown> object;
        if (!read(object.Put()))
            return nullptr;
        return new CMetaObjectUnknown(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object.Get())));
    }
    case VT_VARIANT: {
        CVariant value;
        if (!read(&value.Get()))
            return nullptr;
        if (!(value.Get().vt & VT_ARRAY))
            return call.VariantToItem(value.Get());
        return depth < kMaxNesting ? call.ArrayVariantToItem(value.Get(), depth + 1) : nullptr;
    }
    default:
        return nullptr;
    }
}

}  // namespace

// An in/out array goes by reference and what comes back is read into the item
// (ArrayVariantIntoItem): a by-value array can't come back, and the object may
// put a new array of another shape in the cell. An out-only array goes as an
// empty cell for the object to fill.
bool CCOMMethodInvoke::ArrayItemToVariant(CMetaObjectArray* item, VARIANT& out)
{
    if (!item)
        return false;
    const VARTYPE elementType = ElementTypeOf(*item);
    if (elementType & ~VT_TYPEMASK)
        return false;  // a by-reference element: no SAFEARRAY holds one
    const std::int32_t direction = item->GetDirection();
    SafeArray made;
    if (direction != 1 && !MakeArray(*item, elementType, made, 0))
        return false;
    if (direction == 1 || direction == 2) {
        auto* cell = static_cast<SAFEARRAY**>(NewArgumentCell());
        *cell = made.Release();
        out.pparray = cell;
        out.vt = static_cast<VARTYPE>(VT_ARRAY | VT_BYREF | elementType);
        return true;
    }
    out.parray = made.Release();
    out.vt = static_cast<VARTYPE>(VT_ARRAY | elementType);
    return true;
}

// A VT_ARRAY|VT_BYREF value is read through its pointer and left to whoever
// owns the array: by COM's rules a by-reference value hands nothing over.
CMetaObjectItem* CCOMMethodInvoke::ArrayVariantToItem(const VARIANT& value, int depth)
{
    SAFEARRAY* array = ArrayOf(value);
    if (!array)
        return nullptr;
    // More dimensions than the walker's vectors, or none, are refused whole
    // rather than read in part.
    const UINT dimensions = SafeArrayGetDim(array);
    if (dimensions == 0 || dimensions > kMaxArrayDimensions)
        return nullptr;
    std::uint64_t product = 1;
    for (UINT at = 0; at < dimensions; ++at) {
        product *= array->rgsabound[at].cElements;
        if (product > kMaxElements || array->rgsabound[at].cElements > kMaxElements)
            return nullptr;
    }

    CTypeDesc type;
    type.EnsureBounds();
    Shape shape;
    ReadArrayBounds(array, dimensions, type, shape.lower, shape.upper);
    auto item = std::make_unique<CMetaObjectArray>();
    // With a dimension of no elements this gives no block, and the item keeps
    // the shape with no elements.
    item->InitElements(type);
    const VARTYPE elementType = value.vt & VT_TYPEMASK;
    if (product != 0 && !(value.vt & VT_BYREF))  // an array by reference stays its owner's as it is
        AdoptMarshaledObjects(*array, elementType, product);
    if (product == 0 || !LayoutFits(*array, elementType))
        return item.release();
    CArrayWalker walker(dimensions, shape.lower, shape.upper, shape.current);
    ReadArrayElements(item.get(), elementType, array, walker, depth);
    return item.release();
}

void CCOMMethodInvoke::ReadArrayElements(CMetaObjectArray* item, VARTYPE elementType, SAFEARRAY* array,
                                         CArrayWalker& walker, int depth)
{
    if (!item || !array)
        return;
    walker.Start();
    while (!walker.IsFinished()) {
        ElementPtr element(ReadElement(*this, array, elementType, reinterpret_cast<LONG*>(walker.current), depth));
        if (element && item->SetElement(element.get(), &walker))
            element.release();
        walker.Advance();
    }
}

bool CCOMMethodInvoke::ArrayVariantIntoItem(const VARIANT& value, CMetaObjectArray* item)
{
    if (!item)
        return false;
    ElementPtr read(ArrayVariantToItem(value));
    auto* fresh = static_cast<CMetaObjectArray*>(read.get());
    if (!fresh || !fresh->GetTypeDesc().bounds || !item->GetTypeDesc().EnsureBounds())
        return false;
    // The item keeps its name, direction and signature; shape and elements
    // are those that came back.
    item->GetTypeDesc().bounds->Assign(*fresh->GetTypeDesc().bounds);
    item->ClearElements();
    std::swap(item->elements, fresh->elements);
    std::swap(item->elementCount, fresh->elementCount);
    return true;
}
