#pragma once
// What the collection fixture does, for server and tests; tests/check_comtool.cmake also writes the flags.

#include <cstdint>

namespace CollectionValues {

constexpr wchar_t kProgId[] = L"ComHandlerTest.CollectionFixture";
constexpr char kProgIdNarrow[] = "ComHandlerTest.CollectionFixture";

// Make(flags, size): element i is VT_I4 i unless a flag says otherwise.
enum CollectionFlags : std::int32_t {
    kPlain = 0,
    kNewEnumMethodOnly = 0x1,  // _NewEnum answers DISPATCH_METHOD only
    kNewEnumNumber = 0x2,      // _NewEnum gives VT_I4 7
    kNewEnumEmpty = 0x4,       // _NewEnum gives VT_EMPTY
    kNewEnumText = 0x8,        // _NewEnum gives a VT_BSTR
    kNewEnumMissing = 0x10,    // _NewEnum is DISP_E_MEMBERNOTFOUND
    kNewEnumNotEnum = 0x20,    // _NewEnum gives an object without IEnumVARIANT
    kNoCount = 0x40,           // id 1 is DISP_E_MEMBERNOTFOUND
    kCountText = 0x80,         // id 1 gives the text "many"
    kShortBatches = 0x100,     // Next gives at most kShortBatch, always with S_OK
    kNoFetched = 0x200,        // Next never writes the fetched count
    kOddTypes = 0x400,         // element i by i % 4: VT_I4 i, VT_I8 i, VT_EMPTY, VT_RECORD {i}
    kObjects = 0x800,          // element i is a new IFixtureElement with Index i, VT_DISPATCH
    kUnknowns = 0x1000,        // the same as VT_UNKNOWN
    kFailMidWalk = 0x2000,     // Next and Skip fail with E_FAIL past element kFailAt
    kNoClone = 0x4000,         // Clone is E_NOTIMPL
    kResetFails = 0x8000,      // Reset is E_FAIL
    kCountNegative = 0x10000,  // id 1 gives -5
};
constexpr std::int32_t kShortBatch = 3;
constexpr std::int32_t kFailAt = 10;
constexpr wchar_t kCountTextValue[] = L"many";

}  // namespace CollectionValues
