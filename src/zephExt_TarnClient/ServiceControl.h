#pragma once
// The agent's Windows service: is it stopped, start it, install the agent from
// its package archive and uninstall it. No state is kept between calls.
#include "ScopedHandle.h"

#include <windows.h>

#include <cstdint>
#include <string>

extern const wchar_t kTarnServiceName[]; // "TarnAgent"
// The installer's exit code (0xFFFFFF92) for an agent installed but waiting for a reboot.
constexpr int32_t kTarnInstalledRebootRequired = -110;

// The agent's folder beside the parent product's: `installPath` (ending in a
// backslash) + "..\iService\Tarn", not normalised.
std::wstring TarnAgentFolder(const std::wstring& installPath);
// `folder` + "\\TarnAgent.exe".
std::wstring TarnAgentExecutable(const std::wstring& folder);

// Waits while the service stays in `state`: 0 once it has left it, the system
// error of a failed query, or -1 after dwWaitHint ms without a new check point.
// `status` must be fresh on entry and holds the last status read on return.
int32_t UntilServiceStatusNotEqualTo(SC_HANDLE service, DWORD state,
                                     SERVICE_STATUS_PROCESS& status);
// Reads the service's status as the system's SERVICE_STATUS_PROCESS.
bool QueryTarnStatus(SC_HANDLE service, SERVICE_STATUS_PROCESS& status);
// A tenth of the wait hint, at least one second and at most ten: how long to
// sleep between two looks at a service that is changing state.
DWORD StatusPollSleepMs(DWORD waitHint);

// The agent service opened with query-status, start and stop rights, and its
// status.
struct TarnServiceQuery {
    ScopedServiceHandle manager;
    ScopedServiceHandle service;
    SERVICE_STATUS_PROCESS status = {};
};
// Opens and reads it, logging a failed step as "Unalbe to ..." with `self`:
// 0, or that step's system error (ERROR_SERVICE_DOES_NOT_EXIST when absent).
int32_t QueryTarnService(const wchar_t* self, TarnServiceQuery& query);

// `stopped` is set for a stopped (after any stop-pending phase) or absent service.
int32_t IsTarnServiceStopped(bool& stopped);
int32_t StartTarn();
// -110 when the agent was installed but needs a reboot.
int32_t InstallTarn(std::string archivePath);
int32_t UninstallTarn();
