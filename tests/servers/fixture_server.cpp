// An in-process server file with its type libraries. TYPELIB resource 1 is the
// catalogue fixture library, which nothing registers: the tests of the
// server-file road rely on that. Resources 2 to 5 are the libraries of the
// call, array, collection and hostile fixtures, whose classes this file serves
// and registers. Built with FIXTURE_LOCAL_SERVER, the same objects are served
// from an executable, in a process of their own (see the end of this file).

#include "array_fixture.h"  // widl's headers of the libraries
#include "call_fixture.h"
#include "collection_fixture.h"
#include "hostile_fixture.h"

#include <olectl.h>
#include <oleauto.h>

#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/servers/array_fixture_objects.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_objects.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/servers/hostile_fixture_objects.h"
#include "tests/servers/hostile_fixture_values.h"
#include "tests/support/fixture_server.h"

using MetaObj::ComPtr;

namespace {

using CreateFn = HRESULT (*)(REFIID iid, void** out);
volatile LONG g_serverLocks = 0;
volatile DWORD g_createdAt = 0;

// One static object a class; its references are locks on the server.
class CFixtureFactory : public IClassFactory {
public:
    explicit CFixtureFactory(CreateFn create) : create(create) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory)) {
            *out = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&g_serverLocks), 2; }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&g_serverLocks), 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        if (outer != nullptr)
            return CLASS_E_NOAGGREGATION;
        g_createdAt = GetTickCount();
        return create(iid, out);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override
    {
        lock ? AddRef() : Release();
        return S_OK;
    }

private:
    CreateFn create;
};

struct FixtureClass {
    const CLSID& classId;
    const wchar_t* name;
    const wchar_t* progId;
    const GUID& libraryId;
    int libraryResource;
    CFixtureFactory factory;
};

FixtureClass g_classes[] = {
    {CLSID_CallFixture, L"CallFixture", FixtureValues::kProgId, LIBID_CallFixtureLib, kCallLibraryResource,
     CFixtureFactory(CreateCallFixture)},
    {CLSID_ArrayFixture, L"ArrayFixture", kArrayFixtureProgId, LIBID_ArrayFixtureLib, kArrayLibraryResource,
     CFixtureFactory(CreateArrayFixture)},
    {CLSID_CollectionFixture, L"CollectionFixture", CollectionValues::kProgId, LIBID_CollectionFixtureLib,
     kCollectionLibraryResource, CFixtureFactory(CreateCollectionFixture)},
    {CLSID_HostileFixture, L"HostileFixture", HostileValues::kProgId, LIBID_HostileFixtureLib,
     kHostileLibraryResource, CFixtureFactory(CreateHostileFixture)},
};

std::wstring GuidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

// The class keys under HKEY_CLASSES_ROOT.
HRESULT RegisterClassKeys(const FixtureClass& fixture, const CLSID& classId, const std::wstring& progId,
                          const wchar_t* serverKey, const std::wstring& server, const wchar_t* threading)
{
    const std::wstring classKey = L"CLSID\\" + GuidText(classId);
    const struct {
        std::wstring path;
        const wchar_t* name;
        std::wstring value;
    } rows[] = {
        {classKey, nullptr, fixture.name},
        {classKey + serverKey, nullptr, server},
        {classKey + serverKey, L"ThreadingModel", threading ? threading : L""},
        {classKey + L"\\ProgID", nullptr, progId},
        {classKey + L"\\TypeLib", nullptr, GuidText(fixture.libraryId)},
        {classKey + L"\\Version", nullptr, L"1.0"},
        {progId, nullptr, fixture.name},
        {progId + L"\\CLSID", nullptr, GuidText(classId)},
    };
    for (const auto& row : rows) {
        if (row.value.empty())
            continue;
        const auto bytes = static_cast<DWORD>((row.value.size() + 1) * sizeof(wchar_t));
        if (RegSetKeyValueW(HKEY_CLASSES_ROOT, row.path.c_str(), row.name, REG_SZ, row.value.c_str(), bytes) !=
            ERROR_SUCCESS)
            return SELFREG_E_CLASS;
    }
    return S_OK;
}

#ifndef FIXTURE_LOCAL_SERVER
// The class keys and the class's library.
HRESULT RegisterClass(const FixtureClass& fixture, const wchar_t* serverPath)
{
    const HRESULT keys =
        RegisterClassKeys(fixture, fixture.classId, fixture.progId, L"\\InprocServer32", serverPath, L"Both");
    if (FAILED(keys))
        return keys;
    wchar_t libraryPath[MAX_PATH + 12];
    ComPtr<ITypeLib> library;
    if (!ServerLibraryPath(fixture.libraryResource, libraryPath, MAX_PATH + 12) ||
        FAILED(LoadTypeLibEx(libraryPath, REGKIND_NONE, library.Put())))
        return SELFREG_E_TYPELIB;
    return SUCCEEDED(RegisterTypeLib(library.Get(), libraryPath, nullptr)) ? S_OK : SELFREG_E_TYPELIB;
}
#endif

LONG AllLiveObjects()
{
    return LiveFixtureObjects() + LiveCollectionObjects() + LiveArrayFixtureObjects() + LiveHostileObjects();
}

}  // namespace

#ifndef FIXTURE_LOCAL_SERVER

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_ATTACH) {
        g_fixtureModule = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

__declspec(dllexport) HRESULT __stdcall DllGetClassObject(REFCLSID classId, REFIID iid, void** out)
{
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    for (FixtureClass& fixture : g_classes) {
        if (IsEqualCLSID(classId, fixture.classId))
            return fixture.factory.QueryInterface(iid, out);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

// Objects of the fixture alive now: after a scenario that freed everything it
// made, this is back where it started.
__declspec(dllexport) LONG __stdcall FixtureLiveObjects()
{
    return AllLiveObjects();
}

__declspec(dllexport) HRESULT __stdcall DllCanUnloadNow()
{
    return FixtureLiveObjects() == 0 && g_serverLocks == 0 ? S_OK : S_FALSE;
}

// The libraries of resources 2 to 5; the catalogue library of resource 1
// stays unregistered.
__declspec(dllexport) HRESULT __stdcall DllRegisterServer()
{
    wchar_t serverPath[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(g_fixtureModule, serverPath, MAX_PATH);
    if (length == 0 || length == MAX_PATH)
        return SELFREG_E_CLASS;
    for (const FixtureClass& fixture : g_classes) {
        const HRESULT hr = RegisterClass(fixture, serverPath);
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

}  // extern "C"
#else

namespace {

// The other kind serves the call and collection fixtures alone.
bool OfKind(const FixtureClass& fixture, bool other)
{
    return !other || &fixture.classId == &CLSID_CallFixture || &fixture.classId == &CLSID_CollectionFixture;
}

// Serves the fixtures of its kind under their out-of-process class ids.
void ServeClasses(bool other)
{
    std::vector<DWORD> cookies;
    for (FixtureClass& fixture : g_classes) {
        if (!OfKind(fixture, other))
            continue;
        DWORD cookie = 0;
        if (SUCCEEDED(CoRegisterClassObject(LocalServer::ClassId(fixture.classId, other), &fixture.factory,
                                            CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie)))
            cookies.push_back(cookie);
    }
    using LocalServer::Name;
    LocalServer::HandleOwner ask(CreateEventW(nullptr, FALSE, FALSE, Name(L"Ask", other).c_str()));
    LocalServer::HandleOwner answer(CreateEventW(nullptr, FALSE, FALSE, Name(L"Answer", other).c_str()));
    LocalServer::HandleOwner mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                                        sizeof(LocalServer::Figures), Name(L"Figures", other).c_str()));
    auto* figures = mapping ? static_cast<LocalServer::Figures*>(
                                  MapViewOfFile(mapping.Get(), FILE_MAP_WRITE, 0, 0, sizeof(LocalServer::Figures)))
                            : nullptr;
    // An apartment-threaded server pumps messages. It ends once it has had no
    // object for a few seconds, or nothing new for longer (the platform's
    // marshaler keeps references of its own on some objects it carried), so
    // no test leaves it behind.
    constexpr DWORD kIdleExit = 3000;
    constexpr DWORD kAbandonedExit = 20000;
    DWORD busyAt = GetTickCount();
    HANDLE waited = ask.Get();
    for (;;) {
        const DWORD woke = MsgWaitForMultipleObjects(waited ? 1 : 0, &waited, FALSE, 250, QS_ALLINPUT);
        if (woke == WAIT_OBJECT_0 && waited && figures) {
            figures->live = AllLiveObjects();
            figures->process = GetCurrentProcessId();
            SetEvent(answer.Get());
        }
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&message);
        if (AllLiveObjects() != 0 && GetTickCount() - g_createdAt < kAbandonedExit)
            busyAt = GetTickCount();
        else if (GetTickCount() - busyAt > kIdleExit)
            break;
    }
    for (DWORD cookie : cookies)
        CoRevokeClassObject(cookie);
    if (figures)
        UnmapViewOfFile(figures);
}

// The local server keys of both kinds; the libraries are the in-process
// server's registration.
HRESULT RegisterLocalClasses()
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    HRESULT hr = length == 0 || length == MAX_PATH ? SELFREG_E_CLASS : S_OK;
    for (const bool other : {false, true}) {
        for (const FixtureClass& fixture : g_classes) {
            if (OfKind(fixture, other) && SUCCEEDED(hr))
                hr = RegisterClassKeys(fixture, LocalServer::ClassId(fixture.classId, other),
                                       fixture.progId + std::wstring(other ? L".Other" : L".Local"), L"\\LocalServer32",
                                       L"\"" + std::wstring(path) + (other ? L"\" other" : L"\""), nullptr);
        }
    }
    return hr;
}

}  // namespace

int WINAPI WinMain(HINSTANCE instance, HINSTANCE, LPSTR, int)
{
    g_fixtureModule = instance;
    const std::wstring line = GetCommandLineW();
    if (line.find(L"/RegServer") != std::wstring::npos)
        return FAILED(RegisterLocalClasses()) ? 1 : 0;
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 1;
    ServeClasses(line.find(L" other") != std::wstring::npos);
    CoUninitialize();
    return 0;
}

#endif
