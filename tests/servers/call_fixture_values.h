#pragma once
// What the call fixture (call_fixture.idl) answers, shared by the server and
// by the tests that check its answers.

#include <cstdint>

namespace FixtureValues {

constexpr wchar_t kProgId[] = L"ComHandlerTest.CallFixture";
constexpr char kProgIdNarrow[] = "ComHandlerTest.CallFixture";
constexpr char kClassId[] = "{5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C20}";
// The record type FixturePoint, as a struct item names it.
constexpr char kPointTypeId[] = "{5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C03}";

// What the Out members write: a number kOutNumber, kOutBstr, currency kOutCy,
// date kOutDate (18:00), a VARIANT holding VT_I8 kOutVariant, colour Blue, and
// a new child object.
constexpr std::int32_t kOutNumber = -5;
constexpr wchar_t kOutBstr[] = L"out text";
constexpr std::int64_t kOutCy = 123400;  // 12.34 in units of 1/10000
constexpr double kOutDate = 45351.75;    // 29 February 2024
constexpr std::int32_t kOutVariant = -7;

// The Ref members: numbers, currency and dates (by a day) go up by 1, a
// boolean is negated, a text or a VARIANT's text gets "!" appended, a colour
// moves on Red, Green, Blue, Red (anything else becomes Red), and an object is
// swapped for a new child.

// Shape(which) gives these VARIANTs.
enum ShapeRow : std::int32_t {
    ShapeEmpty,
    ShapeNull,
    ShapeI8,       // kShapeI8
    ShapeBoolOne,  // VT_BOOL holding 1, which is not VARIANT_TRUE
    ShapeUnknown,  // a new child as IUnknown
    ShapeError,    // kShapeError
    ShapeRowCount
};
constexpr std::int64_t kShapeI8 = 0x100000005LL;  // low half 5
constexpr std::int32_t kShapeError = static_cast<std::int32_t>(0x80070057);  // E_INVALIDARG

// The failing members' texts. FailWithGarbage writes into its out cells first.
constexpr wchar_t kGarbageSource[] = L"CallFixture.FailWithGarbage";
constexpr wchar_t kGarbageDescription[] = L"failed after writing its out-parameters";
constexpr wchar_t kNotImplementedSource[] = L"CallFixture.NotImplemented";
constexpr wchar_t kNotImplementedDescription[] = L"not implemented on purpose";
// FailDeferred: the first EXCEPINFO carries the early texts and a deferred
// fill-in; in mode 0 the fill-in succeeds with the deferred ones, in mode 1 it fails.
constexpr wchar_t kEarlySource[] = L"CallFixture.Early";
constexpr wchar_t kEarlyDescription[] = L"text before the fill-in";
constexpr wchar_t kDeferredSource[] = L"CallFixture.Deferred";
constexpr wchar_t kDeferredDescription[] = L"text of the fill-in";

}  // namespace FixtureValues
