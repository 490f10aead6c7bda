#pragma once
// What the call fixture (call_fixture.idl) answers, shared by the server and
// by the tests that check its answers.

#include <cstdint>

namespace FixtureValues {

constexpr wchar_t kProgId[] = L"ComHandlerTest.CallFixture";
constexpr char kProgIdNarrow[] = "ComHandlerTest.CallFixture";
constexpr char kClassId[] = "{5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C20}";
constexpr char kLibraryId[] = "{5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C01}";
// The record type FixturePoint, as a struct item names it.
constexpr char kPointTypeId[] = "{5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C03}";

// The Out members' values.
constexpr signed char kOutI1 = -5;
constexpr unsigned char kOutUI1 = 200;
constexpr short kOutI2 = -300;
constexpr unsigned short kOutUI2 = 60000;
constexpr std::int32_t kOutI4 = -70000;
constexpr std::uint32_t kOutUI4 = 3000000000u;
constexpr int kOutInt = -8;
constexpr unsigned int kOutUInt = 4000000000u;
constexpr float kOutR4 = 1.5f;
constexpr double kOutR8 = -2.25;
constexpr short kOutBool = -1;  // VARIANT_TRUE
constexpr wchar_t kOutBstr[] = L"out text";
constexpr std::int64_t kOutCy = 123400;  // 12.34 in units of 1/10000
constexpr double kOutDate = 45351.75;    // 29 February 2024, 18:00
constexpr std::int32_t kOutVariant = -7;  // as VT_I4
constexpr std::int32_t kOutColour = 7;    // Blue

// The Ref members: numbers, currency and dates (by a day) go up by 1, a
// boolean is negated, a text or a VARIANT's text gets this appended, a colour
// moves on Red, Green, Blue, Red (anything else becomes Red), and an object is
// swapped for a new child.
constexpr wchar_t kRefSuffix[] = L"!";

// Shape(which) gives these VARIANTs.
enum ShapeRow : std::int32_t {
    ShapeEmpty,
    ShapeNull,
    ShapeI1,           // -1
    ShapeUI2,          // kShapeUI2
    ShapeI8,           // kShapeI8
    ShapeBoolOne,      // VT_BOOL holding 1, which is not VARIANT_TRUE
    ShapeI4ByRef,      // points at a static that holds kShapeI4Target
    ShapeNullDispatch,
    ShapeDecimal,      // kShapeDecimal
    ShapeUnknown,      // a new child as IUnknown
    ShapeError,        // kShapeError
    ShapeDate,         // kOutDate
    ShapeCy,           // kOutCy
    ShapeRecord,       // a FixturePoint {kPointX, kPointY}
    ShapeRowCount
};
constexpr unsigned short kShapeUI2 = 0xFFFE;
constexpr std::int64_t kShapeI8 = 0x100000005LL;  // low half 5
constexpr std::int32_t kShapeI4Target = 1234;
constexpr double kShapeDecimal = 12.5;
constexpr std::int32_t kShapeError = static_cast<std::int32_t>(0x80070057);  // E_INVALIDARG
constexpr std::int32_t kPointX = 3;
constexpr std::int32_t kPointY = 4;

// MakeDecimal's value.
constexpr double kDecimal = -7.25;

// FailWithGarbage writes these into its out cells, then fails with E_FAIL and
// these texts.
constexpr std::int32_t kGarbageLong = static_cast<std::int32_t>(0xDEADBEEF);
constexpr double kGarbageDouble = -6.25e300;
constexpr wchar_t kGarbageSource[] = L"CallFixture.FailWithGarbage";
constexpr wchar_t kGarbageDescription[] = L"failed after writing its out-parameters";

// FailDeferred: the first EXCEPINFO carries these texts and a deferred fill-in;
// in mode 0 the fill-in succeeds with the other two, in mode 1 it fails.
constexpr wchar_t kEarlySource[] = L"CallFixture.Early";
constexpr wchar_t kEarlyDescription[] = L"text before the fill-in";
constexpr wchar_t kDeferredSource[] = L"CallFixture.Deferred";
constexpr wchar_t kDeferredDescription[] = L"text of the fill-in";
constexpr std::int32_t kDeferredScode = static_cast<std::int32_t>(0x80040200);

// NotImplemented fails with the scode E_NOTIMPL and these texts.
constexpr wchar_t kNotImplementedSource[] = L"CallFixture.NotImplemented";
constexpr wchar_t kNotImplementedDescription[] = L"not implemented on purpose";

// Number's value.
constexpr std::int32_t kNumber = 42;

}  // namespace FixtureValues
