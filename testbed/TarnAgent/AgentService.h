#pragma once
// What the agent double and the tests that drive it share: the service's name,
// where the double takes its behaviour from and writes its journal, and the
// few Service Control Manager steps both sides take.
#include "ScopedHandle.h"

#include <windows.h>

inline constexpr wchar_t kAgentServiceName[] = L"TarnAgent";
inline constexpr wchar_t kAgentBehaviourKey[] = L"SOFTWARE\\ZephTestBed\\TarnAgent";

// REG_DWORD values under kAgentBehaviourKey; an absent value reads as 0.
inline constexpr wchar_t kInstallExitCodeValue[] = L"InstallExitCode";
inline constexpr wchar_t kDeleteExitCodeValue[] = L"DeleteExitCode";
inline constexpr wchar_t kStartDelayValue[] = L"StartDelayMs";
inline constexpr wchar_t kStopDelayValue[] = L"StopDelayMs";
inline constexpr wchar_t kStartExitCodeValue[] = L"StartExitCode";
inline constexpr wchar_t kStuckStopPendingValue[] = L"StuckStopPending";
// How the service answers on the agent pipe (AgentDouble::PipeAnswer, the
// response's dwTxRetCode and payload size, the wait before each answer), and
// 1 for a byte-mode pipe.
inline constexpr wchar_t kPipeAnswerValue[] = L"PipeAnswer";
inline constexpr wchar_t kAnswerRetCodeValue[] = L"AnswerRetCode";
inline constexpr wchar_t kAnswerPayloadBytesValue[] = L"AnswerPayloadBytes";
inline constexpr wchar_t kAnswerDelayValue[] = L"AnswerDelayMs";
inline constexpr wchar_t kBytePipeValue[] = L"BytePipe";

// The pipe the running service serves; the plug-in is its client.
inline constexpr wchar_t kAgentPipeName[] =
    L"\\\\.\\pipe\\OIPC_TARNAGENT_PIPE_E1F3674C_98B7_47e4_9A7E_EFE4A7031997";

inline constexpr wchar_t kAgentJournalFolder[] = L"C:\\ZephTestBed";
inline constexpr wchar_t kAgentJournal[] = L"C:\\ZephTestBed\\TarnAgent_journal.txt";
// Each message read from the agent pipe is journalled, before it is answered,
// as this prefix and the lowercase hex of all its bytes.
inline constexpr char kFrameJournalPrefix[] = "frame ";

namespace AgentService {

// Empty owners when the manager or the service cannot be opened; the thread's
// last error then tells why (ERROR_SERVICE_DOES_NOT_EXIST for a missing service).
ScopedServiceHandle OpenManager(DWORD access);
ScopedServiceHandle Open(DWORD access);

bool QueryStatus(SC_HANDLE service, SERVICE_STATUS_PROCESS& status);
// Polls until the service reports `state`; false on a failed query or time-out.
bool WaitForState(SC_HANDLE service, DWORD state, DWORD timeoutMs);
// Asks a running or paused service to stop and waits until it has stopped.
bool StopAndWait(SC_HANDLE service, DWORD timeoutMs);

} // namespace AgentService
