#pragma once
// The registered call fixture server, loaded from the file its class key names
// and kept loaded while this lives, so its count of live objects can be read
// before the first object and after the last.

#include <windows.h>

#include <string>

#include "platform/platform_handles.h"
#include "tests/servers/call_fixture_values.h"

class FixtureServer {
public:
    FixtureServer()
    {
        const std::string key = std::string("CLSID\\") + FixtureValues::kClassId + "\\InprocServer32";
        char path[MAX_PATH] = {};
        LONG size = sizeof path;
        if (RegQueryValueA(HKEY_CLASSES_ROOT, key.c_str(), path, &size) == ERROR_SUCCESS)
            module = LoadLibraryA(path);
        if (module)
            liveObjects = reinterpret_cast<LiveObjectsFn>(
                reinterpret_cast<void*>(GetProcAddress(module, "FixtureLiveObjects")));
    }
    ~FixtureServer()
    {
        if (module)
            FreeLibrary(module);
    }
    FixtureServer(const FixtureServer&) = delete;
    FixtureServer& operator=(const FixtureServer&) = delete;

    bool Loaded() const { return liveObjects != nullptr; }
    // -1 when the server could not be loaded.
    long LiveObjects() const { return liveObjects ? liveObjects() : -1; }

private:
    using LiveObjectsFn = LONG(__stdcall*)();
    HMODULE module = nullptr;
    LiveObjectsFn liveObjects = nullptr;
};

// The same fixtures served by an executable in a process of its own. Its class
// ids differ from the in-process ones, so that creation reaches the executable.
// The other kind serves the call and collection fixtures from yet another
// process, which a test may kill and still reach the first.
namespace LocalServer {

constexpr char kSuffix[] = ".Local";
constexpr char kOtherSuffix[] = ".Other";

struct Figures {
    LONG live;
    DWORD process;
};

inline CLSID ClassId(const CLSID& inProcess, bool other)
{
    CLSID id = inProcess;
    id.Data1 ^= other ? 0x00020000u : 0x00010000u;
    return id;
}

// The named events and figures block through which a server of one kind answers.
inline std::wstring Name(const wchar_t* what, bool other)
{
    return std::wstring(L"ComHandlerTest.LocalServer.") + what + (other ? L".Other" : L"");
}

struct HandleCloser {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using HandleOwner = MetaObj::UniqueResource<HANDLE, HandleCloser, nullptr>;

// What the running server of a kind says of itself: none running has none
// alive (process 0); live -1 when it doesn't answer.
inline Figures Ask(bool other = false)
{
    HandleOwner ask(OpenEventW(EVENT_MODIFY_STATE, FALSE, Name(L"Ask", other).c_str()));
    HandleOwner answer(OpenEventW(SYNCHRONIZE, FALSE, Name(L"Answer", other).c_str()));
    HandleOwner mapping(OpenFileMappingW(FILE_MAP_READ, FALSE, Name(L"Figures", other).c_str()));
    if (!ask || !answer || !mapping)
        return {0, 0};
    SetEvent(ask.Get());
    const void* view = WaitForSingleObject(answer.Get(), 5000) == WAIT_OBJECT_0
                           ? MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, sizeof(Figures))
                           : nullptr;
    if (!view)
        return {-1, 0};
    const Figures answered = *static_cast<const Figures*>(view);
    UnmapViewOfFile(view);
    return answered;
}

}  // namespace LocalServer
