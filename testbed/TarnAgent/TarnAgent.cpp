// The agent double. "-install" and "-delete" create and delete its own service;
// started by the Service Control Manager it runs as that service. What it does
// comes from the registry (kAgentBehaviourKey), so a test can put the service
// in every state and make the installer or uninstaller fail; every event is
// appended to the journal (kAgentJournal). The running service serves the
// agent pipe (AgentPipe.h).
#include "AgentPipe.h"
#include "AgentService.h"
#include "HostDouble.h"
#include "Journal.h"

#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr int kExitUsage = 2;
constexpr DWORD kDeleteStopWaitMs = 10000;
// A pending phase advances its check point this often, so a client that waits
// while the service makes progress sees the phase through.
constexpr DWORD kProgressStepMs = 500;
// A client that waits out a pending state gives up once its wait hint passes
// without a new check point. Like a real service, the double never reports a
// pending state with a hint of 0, and its hint leaves a loaded machine room
// between two reports; only a stuck stop reports the hint it was given.
constexpr DWORD kMinWaitHintMs = 10000;
constexpr DWORD kStopCommandGraceMs = 500;
constexpr wchar_t kDisplayName[] = L"Tarn Agent (test bed double)";

DWORD Setting(const wchar_t* name) {
    DWORD value = 0;
    TestBedRegistry::ReadDword(kAgentBehaviourKey, name, value);
    return value;
}

// Each event is on disk before the service reports the state that follows it.
void Journal(const std::string& line) {
    AppendJournalLine(kAgentJournal, line);
}

// ---- "-install" and "-delete" ------------------------------------------------

std::wstring OwnPath() {
    std::wstring path(32768, L'\0'); // the longest path Windows has
    path.resize(GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size())));
    return path;
}

// An existing service counts as created: the installer's answer is the same.
bool CreateOwnService() {
    ScopedServiceHandle manager = AgentService::OpenManager(SC_MANAGER_CREATE_SERVICE);
    if (!manager)
        return false;
    std::wstring command = L"\"" + OwnPath() + L"\"";
    ScopedServiceHandle service(
        CreateServiceW(manager.Get(), kAgentServiceName, kDisplayName, SERVICE_QUERY_STATUS,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                       command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    return service || GetLastError() == ERROR_SERVICE_EXISTS;
}

// A missing service counts as deleted.
bool DeleteOwnService() {
    ScopedServiceHandle service = AgentService::Open(SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE);
    if (!service)
        return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
    AgentService::StopAndWait(service.Get(), kDeleteStopWaitMs);
    return DeleteService(service.Get()) || GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
}

// The configured code on success; a real failure shows as its system error.
int Install() {
    Journal("install");
    if (!CreateOwnService())
        return static_cast<int>(GetLastError());
    return static_cast<int>(Setting(kInstallExitCodeValue));
}

int Delete() {
    Journal("delete");
    if (!DeleteOwnService())
        return static_cast<int>(GetLastError());
    return static_cast<int>(Setting(kDeleteExitCodeValue));
}

// ---- The service ---------------------------------------------------------------

struct ServiceBehaviour {
    DWORD startDelayMs = 0;
    DWORD stopDelayMs = 0;
    DWORD startExitCode = 0;
    bool stuckStopPending = false;
    PipeBehaviour pipe;
};

struct RunningService {
    std::mutex lock; // the control handler and the service thread both report
    SERVICE_STATUS_HANDLE statusHandle = nullptr;
    SERVICE_STATUS status{};
    ScopedKernelHandle stopEvent;
    ServiceBehaviour behaviour;
};
RunningService g_service;

ServiceBehaviour ReadBehaviour() {
    ServiceBehaviour behaviour;
    behaviour.startDelayMs = Setting(kStartDelayValue);
    behaviour.stopDelayMs = Setting(kStopDelayValue);
    behaviour.startExitCode = Setting(kStartExitCodeValue);
    behaviour.stuckStopPending = Setting(kStuckStopPendingValue) != 0;
    behaviour.pipe.answer = static_cast<AgentDouble::PipeAnswer>(Setting(kPipeAnswerValue));
    behaviour.pipe.retCode = Setting(kAnswerRetCodeValue);
    behaviour.pipe.payloadBytes = Setting(kAnswerPayloadBytesValue);
    behaviour.pipe.delayMs = Setting(kAnswerDelayValue);
    behaviour.pipe.bytePipe = Setting(kBytePipeValue) != 0;
    return behaviour;
}

DWORD AcceptedControls(DWORD state) {
    if (state == SERVICE_RUNNING || state == SERVICE_PAUSED)
        return SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PAUSE_CONTINUE;
    return 0;
}

void Report(DWORD state, DWORD checkPoint = 0, DWORD waitHint = 0, DWORD exitCode = NO_ERROR) {
    std::lock_guard<std::mutex> guard(g_service.lock);
    SERVICE_STATUS& status = g_service.status;
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = AcceptedControls(state);
    status.dwWin32ExitCode = exitCode;
    status.dwCheckPoint = checkPoint;
    status.dwWaitHint = waitHint;
    SetServiceStatus(g_service.statusHandle, &status);
}

DWORD WaitHint(DWORD durationMs) {
    return std::max(durationMs, kMinWaitHintMs);
}

// Reports `state` for durationMs, advancing the check point.
void Pending(DWORD state, DWORD durationMs) {
    DWORD checkPoint = 1;
    for (DWORD waited = 0; waited < durationMs; waited += kProgressStepMs) {
        Report(state, checkPoint++, WaitHint(durationMs));
        Sleep(std::min(kProgressStepMs, durationMs - waited));
    }
    Report(state, checkPoint, WaitHint(durationMs));
}

// The first stop-pending report; a stuck stop never gets past it, so its check
// point stays put and its wait hint, exactly stopDelayMs, is all a waiting
// client has to go by.
void EnterStopPending() {
    const ServiceBehaviour& behaviour = g_service.behaviour;
    Report(SERVICE_STOP_PENDING, 1,
           behaviour.stuckStopPending ? behaviour.stopDelayMs : WaitHint(behaviour.stopDelayMs));
}

[[noreturn]] void StayStopPending() {
    EnterStopPending();
    for (;;)
        Sleep(INFINITE);
}

// Asked for by the Service Control Manager or by a stop command on the pipe.
void BeginStop() {
    EnterStopPending();
    SetEvent(g_service.stopEvent.Get());
}

// Winding down takes an agent a moment: the client reads the answer and has
// its next read outstanding before the pipe goes away with the service.
void StopCommandAnswered() {
    Journal("control pipe-stop");
    EnterStopPending();
    Sleep(kStopCommandGraceMs);
    SetEvent(g_service.stopEvent.Get());
}

// Reports RUNNING and serves the agent pipe; returns when a stop is asked
// for. The pipe exists before RUNNING, so a client that waited for that state
// finds it.
void RunUntilStopped(HANDLE stopEvent) {
    AgentPipeServer pipe(stopEvent, g_service.behaviour.pipe, StopCommandAnswered);
    bool listening = pipe.Listen();
    Report(SERVICE_RUNNING);
    if (listening)
        pipe.Serve();
    WaitForSingleObject(stopEvent, INFINITE);
}

DWORD WINAPI ControlHandler(DWORD control, DWORD, void*, void*) {
    Journal("control " + std::to_string(control));
    switch (control) {
    case SERVICE_CONTROL_STOP:
        BeginStop();
        return NO_ERROR;
    case SERVICE_CONTROL_PAUSE:
        Report(SERVICE_PAUSED);
        return NO_ERROR;
    case SERVICE_CONTROL_CONTINUE:
        Report(SERVICE_RUNNING);
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_service.behaviour = ReadBehaviour();
    g_service.statusHandle =
        RegisterServiceCtrlHandlerExW(kAgentServiceName, ControlHandler, nullptr);
    if (!g_service.statusHandle)
        return;
    // Until this first report Wine's Service Control Manager shows other
    // processes its own START_PENDING, with no wait hint; StartServiceW returns
    // to its caller only once the report is in.
    Report(SERVICE_START_PENDING, 1, WaitHint(g_service.behaviour.startDelayMs));
    Journal("service start");
    Pending(SERVICE_START_PENDING, g_service.behaviour.startDelayMs);
    if (g_service.behaviour.startExitCode != 0) { // a start that fails
        Journal("service stop");
        Report(SERVICE_STOPPED, 0, 0, g_service.behaviour.startExitCode);
        return;
    }
    RunUntilStopped(g_service.stopEvent.Get());
    if (g_service.behaviour.stuckStopPending)
        StayStopPending();
    Pending(SERVICE_STOP_PENDING, g_service.behaviour.stopDelayMs);
    Journal("service stop"); // before STOPPED: the process may end right after it
    Report(SERVICE_STOPPED);
}

int Usage() {
    std::fprintf(stderr, "usage: TarnAgent.exe -install | -delete\n"
                         "(without arguments it runs as the service the Service Control"
                         " Manager starts)\n");
    return kExitUsage;
}

int RunService() {
    g_service.stopEvent = ScopedKernelHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    SERVICE_TABLE_ENTRYW table[] = {{const_cast<wchar_t*>(kAgentServiceName), ServiceMain},
                                    {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : Usage();
}

std::vector<std::wstring> WideArguments() {
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::wstring> arguments;
    for (int i = 1; wide && i < count; ++i) // without the program's own name
        arguments.push_back(wide[i]);
    LocalFree(wide);
    return arguments;
}

} // namespace

int main() {
    std::vector<std::wstring> arguments = WideArguments();
    if (arguments.empty())
        return RunService();
    if (arguments.size() == 1 && arguments[0] == L"-install")
        return Install();
    if (arguments.size() == 1 && arguments[0] == L"-delete")
        return Delete();
    return Usage();
}
