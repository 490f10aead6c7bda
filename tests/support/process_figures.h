#pragma once
// The process's open handles, which long runs watch for growth.

#include <windows.h>
#include <winternl.h>

#include <vector>

// Handles the process has open now. Wine's GetProcessHandleCount answers 0, so
// the system's handle table (class 16, entries as ntdll lays them out) is
// counted instead; 0 if neither can say.
inline DWORD OpenHandleCount()
{
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count != 0)
        return count;
    struct Entry {
        ULONG ownerProcess;
        BYTE objectType, flags;
        USHORT handle;
        void* object;
        ACCESS_MASK access;
    };
    using QueryFn = NTSTATUS(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<QueryFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<BYTE> buffer(1 << 16);
    for (int attempt = 0; query && attempt < 8; ++attempt, buffer.resize(buffer.size() * 4)) {
        ULONG needed = 0;
        if (query(16, buffer.data(), static_cast<ULONG>(buffer.size()), &needed) < 0)
            continue;
        const ULONG entries = *reinterpret_cast<const ULONG*>(buffer.data());
        const auto* entry = reinterpret_cast<const Entry*>(buffer.data() + sizeof(void*));
        for (ULONG at = 0; at < entries; ++at)
            count += entry[at].ownerProcess == GetCurrentProcessId() ? 1 : 0;
        return count;
    }
    return 0;
}
