#pragma once
// The hostile fixture's objects as the server file's entry points reach them.

#include <windows.h>
#include <objbase.h>

constexpr int kHostileLibraryResource = 5;

// A new HostileFixture, answering iid, whose one reference the caller owns; and those alive now.
HRESULT CreateHostileFixture(REFIID iid, void** out);
LONG LiveHostileObjects();
