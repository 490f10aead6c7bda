// An in-process server file that carries the fixture type library as its
// TYPELIB resource, so that a class registered with this file as its server
// can be described from the file itself. It serves no objects yet: the class
// factory comes with the tests of object creation.

#include <windows.h>
#include <objbase.h>

extern "C" {

__declspec(dllexport) HRESULT __stdcall DllGetClassObject(REFCLSID, REFIID, void** out)
{
    if (out)
        *out = nullptr;
    return CLASS_E_CLASSNOTAVAILABLE;
}

__declspec(dllexport) HRESULT __stdcall DllCanUnloadNow()
{
    return S_OK;
}

}  // extern "C"
