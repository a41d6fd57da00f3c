#pragma once
// The agent's Windows service: is it stopped, start it, install the agent from
// its package archive and uninstall it. No state is kept between calls.
#include <windows.h>

#include <cstdint>
#include <string>

extern const wchar_t kTarnServiceName[]; // "TarnAgent"

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

// `stopped` is set for a stopped (after any stop-pending phase) or absent service.
int32_t IsTarnServiceStopped(bool& stopped);
int32_t StartTarn();
// -110 when the agent was installed but needs a reboot.
int32_t InstallTarn(std::string archivePath);
int32_t UninstallTarn();
