#pragma once
// The array fixture as the server file's entry points reach it. Its type
// library is the server file's TYPELIB resource 3.

#include <windows.h>
#include <objbase.h>

constexpr int kArrayLibraryResource = 3;
constexpr wchar_t kArrayFixtureProgId[] = L"ComHandlerTest.ArrayFixture";

// A new ArrayFixture, answering iid; the caller owns the one reference.
HRESULT CreateArrayFixture(REFIID iid, void** out);
// Array fixtures and their children alive now.
LONG LiveArrayFixtureObjects();
