#pragma once
// The array fixture as the server file's entry points reach it. Its type
// library is the server file's TYPELIB resource 3.

#include <windows.h>
#include <objbase.h>

// The class object of ArrayFixture; CLASS_E_CLASSNOTAVAILABLE for any other class.
HRESULT GetArrayFixtureClassObject(REFCLSID classId, REFIID iid, void** out);
// The class keys under HKEY_CLASSES_ROOT and the library of resource 3.
HRESULT RegisterArrayFixture(const wchar_t* serverPath);
void UnregisterArrayFixture();
// Array fixtures and their children alive now.
LONG LiveArrayFixtureObjects();
