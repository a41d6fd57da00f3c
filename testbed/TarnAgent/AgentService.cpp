#include "AgentService.h"

namespace {

constexpr DWORD kPollMs = 50;

} // namespace

namespace AgentService {

ScopedServiceHandle OpenManager(DWORD access) {
    return ScopedServiceHandle(OpenSCManagerW(nullptr, nullptr, access));
}

ScopedServiceHandle Open(DWORD access) {
    ScopedServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
    if (!manager)
        return ScopedServiceHandle();
    return ScopedServiceHandle(OpenServiceW(manager.Get(), kAgentServiceName, access));
}

bool QueryStatus(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) {
    DWORD needed = 0;
    return QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                sizeof(status), &needed) != FALSE;
}

bool WaitForState(SC_HANDLE service, DWORD state, DWORD timeoutMs) {
    const DWORD start = GetTickCount();
    SERVICE_STATUS_PROCESS status{};
    while (QueryStatus(service, status)) {
        if (status.dwCurrentState == state)
            return true;
        if (GetTickCount() - start >= timeoutMs)
            return false;
        Sleep(kPollMs);
    }
    return false;
}

bool StopAndWait(SC_HANDLE service, DWORD timeoutMs) {
    SERVICE_STATUS_PROCESS status{};
    if (!QueryStatus(service, status))
        return false;
    if (status.dwCurrentState == SERVICE_RUNNING || status.dwCurrentState == SERVICE_PAUSED) {
        SERVICE_STATUS ignored{};
        ControlService(service, SERVICE_CONTROL_STOP, &ignored);
    }
    return WaitForState(service, SERVICE_STOPPED, timeoutMs);
}

} // namespace AgentService
