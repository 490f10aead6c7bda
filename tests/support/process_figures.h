#pragma once
// Figures of the running process that long runs watch for growth.

#include <windows.h>
#include <psapi.h>
#include <winternl.h>

#include <vector>

// The entries of the system's handle table, as ntdll lays them out.
struct SystemHandleEntry {
    ULONG ownerProcess;
    BYTE objectType;
    BYTE flags;
    USHORT handle;
    void* object;
    ACCESS_MASK access;
};
struct SystemHandleTable {
    ULONG count;
    SystemHandleEntry entries[1];
};
constexpr ULONG kSystemHandleInformation = 16;

// Handles of this process in the system's table; 0 if it can't be read.
inline DWORD HandlesInSystemTable()
{
    using QueryFn = NTSTATUS(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<QueryFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    if (query == nullptr)
        return 0;
    std::vector<BYTE> buffer(1 << 16);
    for (int attempt = 0; attempt < 8; ++attempt) {
        ULONG needed = 0;
        const NTSTATUS status = query(kSystemHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()),
                                      &needed);
        if (status >= 0) {
            const auto* table = reinterpret_cast<const SystemHandleTable*>(buffer.data());
            DWORD ours = 0;
            for (ULONG at = 0; at < table->count; ++at)
                ours += table->entries[at].ownerProcess == GetCurrentProcessId() ? 1 : 0;
            return ours;
        }
        buffer.resize(buffer.size() * 4);
    }
    return 0;
}

// Handles the process has open now. Wine's GetProcessHandleCount answers 0,
// so the system's handle table is counted instead; 0 if neither can say.
inline DWORD OpenHandleCount()
{
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count != 0)
        return count;
    return HandlesInSystemTable();
}

// Bytes committed to this process alone. Wine's process counters give 0, so
// the committed private regions of the address space are added up instead.
inline SIZE_T PrivateBytes()
{
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof counters;
    if (GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                             sizeof counters) &&
        counters.PrivateUsage != 0)
        return counters.PrivateUsage;
    SIZE_T committed = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const BYTE* at = nullptr; VirtualQuery(at, &region, sizeof region) == sizeof region;
         at = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            committed += region.RegionSize;
    }
    return committed;
}
