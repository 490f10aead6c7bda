#pragma once
// The hostile fixture's objects as the server file's entry points reach them.

#include <windows.h>
#include <objbase.h>

constexpr int kHostileLibraryResource = 5;

// A new HostileFixture, answering iid; the caller owns the one reference.
HRESULT CreateHostileFixture(REFIID iid, void** out);
// Hostile objects alive now.
LONG LiveHostileObjects();
