#pragma once
// Owners for the values a call moves: a VARIANT that is cleared when it goes,
// and the rule that releases one argument of a call.

#include <windows.h>
#include <oaidl.h>

#include <cstddef>
#include <cstring>

namespace MetaObj {

// VariantClear, without its call into the platform for a value that holds
// nothing to free: every argument and result of every call is cleared.
inline void ClearVariant(VARIANT& value)
{
    switch (value.vt) {
    case VT_EMPTY:
    case VT_NULL:
    case VT_I1:
    case VT_I2:
    case VT_I4:
    case VT_I8:
    case VT_UI1:
    case VT_UI2:
    case VT_UI4:
    case VT_UI8:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_BOOL:
    case VT_ERROR:
        value.vt = VT_EMPTY;
        break;
    default:
        VariantClear(&value);
        break;
    }
}

// Zeroed, which makes it empty (VT_EMPTY is 0), so that a reader of its first
// 32 bits sees no garbage beyond a narrower value; cleared when it goes.
class CVariant {
public:
    CVariant() { std::memset(&value, 0, sizeof value); }
    ~CVariant() { ClearVariant(value); }
    CVariant(const CVariant&) = delete;
    CVariant& operator=(const CVariant&) = delete;

    VARIANT* operator&() { return &value; }
    VARIANT& Get() { return value; }
    const VARIANT& Get() const { return value; }

private:
    VARIANT value;
};

// Releases one argument the call made: its cell and what the call owns in
// it, or its own value. A by-value object is borrowed and left alone.
void ReleaseArgument(VARIANT& argument);
// A zeroed cell for a by-reference argument, with room for any value a VARIANT
// points at; throws std::bad_alloc. ReleaseArgument frees it, by FreeArgumentCell.
void* NewArgumentCell();
void FreeArgumentCell(void* cell) noexcept;

// A BSTR of the text; a failed allocation throws E_OUTOFMEMORY. A null or
// empty text gives an empty BSTR when emptyIsNull is false, else null.
BSTR AllocBstr(const wchar_t* text, bool emptyIsNull);

// Bytes of a plain value of this type, behind a by-reference pointer or in a
// record's field; 0 for texts, objects and the rest.
std::size_t PlainValueBytes(VARTYPE type);

}  // namespace MetaObj
