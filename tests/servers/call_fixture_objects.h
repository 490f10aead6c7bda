#pragma once
// The call fixture's objects as the server file's entry points reach them.

#include <windows.h>
#include <objbase.h>

// The server file, set by its DllMain; its TYPELIB resource 2 is the call library.
extern HINSTANCE g_fixtureModule;
constexpr int kCallLibraryResource = 2;

// A new CallFixture, answering iid; the caller owns the one reference.
HRESULT CreateCallFixture(REFIID iid, void** out);
// Objects of the fixture alive now, of every class.
LONG LiveFixtureObjects();

// The path of a type library inside the server file: "<file>\\<resource>".
bool ServerLibraryPath(int resource, wchar_t* path, DWORD size);
