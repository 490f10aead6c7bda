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

// The same fixtures served by an executable, under class ids of its own. The other kind, started by a
// test with "other {id}", serves the call and collection fixtures under that id and the next: Wine keeps
// a killed server's classes registered to the dead process until its session ends.
namespace LocalServer {

constexpr char kSuffix[] = ".Local";

// The named events and block through which the running server tells its count of live objects.
constexpr wchar_t kAskEvent[] = L"ComHandlerTest.LocalServer.Ask";
constexpr wchar_t kAnswerEvent[] = L"ComHandlerTest.LocalServer.Answer";
constexpr wchar_t kLiveBlock[] = L"ComHandlerTest.LocalServer.Live";

inline CLSID ClassId(const CLSID& inProcess)
{
    CLSID id = inProcess;
    id.Data1 ^= 0x00010000u;
    return id;
}

struct HandleCloser {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using HandleOwner = MetaObj::UniqueResource<HANDLE, HandleCloser, nullptr>;

// The running server's live objects: none running has none; -1 when it
// doesn't answer.
inline long LiveObjects()
{
    HandleOwner ask(OpenEventW(EVENT_MODIFY_STATE, FALSE, kAskEvent));
    HandleOwner answer(OpenEventW(SYNCHRONIZE, FALSE, kAnswerEvent));
    HandleOwner mapping(OpenFileMappingW(FILE_MAP_READ, FALSE, kLiveBlock));
    if (!ask || !answer || !mapping)
        return 0;
    SetEvent(ask.Get());
    const void* view = WaitForSingleObject(answer.Get(), 5000) == WAIT_OBJECT_0
                           ? MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, sizeof(LONG))
                           : nullptr;
    if (!view)
        return -1;
    const LONG live = *static_cast<const LONG*>(view);
    UnmapViewOfFile(view);
    return live;
}

}  // namespace LocalServer
