#pragma once
// What the hostile fixture's members do, shared by the server and the tests.

#include <cstdint>

namespace HostileValues {

constexpr wchar_t kProgId[] = L"ComHandlerTest.HostileFixture";
constexpr char kProgIdNarrow[] = "ComHandlerTest.HostileFixture";

// FailQueryEvery(n): every nth QueryInterface of a hostile object fails; Garbage(freeFirst, cell) fails with
// kGarbage left in the cell, after freeing what came in if freeFirst; freeFirst 2 leaves a BSTR cell a text.
constexpr std::uintptr_t kGarbage = 0xdeadbeef;

enum ArrayShape : std::int32_t {  // GiveArray(shape)
    kNoDimensions = 0,        // a descriptor whose cDims is 0
    kManyDimensions = 1,      // 65,535 dimensions of one element each, the most cDims holds
    kOverflowingCount = 2,    // two dimensions of 65,536 elements: 2^32 elements, no data behind
    kNullArray = 3,           // VT_ARRAY|VT_I4 with a null SAFEARRAY
    kNegativeCount = 4,       // one dimension whose cElements has the top bit set
    kVariantHoldsItself = 5,  // VT_ARRAY|VT_VARIANT whose one element is VT_VARIANT|VT_BYREF to itself
    kBareAddresses = 6,       // VT_ARRAY|VT_DISPATCH of no features: kGarbage, then a table of data, not code
};

enum TextShape : std::int32_t {  // GiveText(which)
    kEmbeddedNul = 0,  // L"a\0b", length 3
    kOddBytes = 1,     // 3 bytes: "abc" by SysAllocStringByteLen
    kNullText = 2,     // a null BSTR
    kLongText = 3,     // 100,000 characters
};
constexpr unsigned kLongTextLength = 100000;

// Throw(where): 0 throws out of Invoke; this arms the next QueryInterface of the object.
constexpr std::int32_t kThrowInInvoke = 0;
constexpr std::int32_t kThrowInQueryInterface = 2;
// GiveType(vt): a VARIANT of that vt, VT_BYREF and VT_ARRAY bits included; or, beyond the vt numbers:
constexpr std::int32_t kNullByRef = -1;  // VT_BYREF|VT_I4 with a null pointer
constexpr std::int32_t kSelfByRef = -2;  // VT_BYREF|VT_VARIANT that points at itself

constexpr wchar_t kThrowingName[] = L"ThrowOnLookUp";  // a member name whose look-up throws

}  // namespace HostileValues
