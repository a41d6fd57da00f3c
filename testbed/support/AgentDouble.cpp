#include "AgentDouble.h"

#include "AgentService.h"
#include "TestBed.h"

#include <filesystem>

namespace {

const wchar_t kClientParent[] = L"C:\\ZephTestBed\\iService";
// A running or paused service gets this long to stop before it is killed.
constexpr DWORD kGracefulStopMs = 5000;
constexpr DWORD kKillWaitMs = 5000;
// A deleted service lingers until the last handle to it is closed.
constexpr DWORD kForgetWaitMs = 10000;
constexpr DWORD kPollMs = 50;

std::wstring ClientFile(const wchar_t* name) {
    return std::wstring(AgentDouble::kClientFolder) + L"\\" + name;
}

bool CopyIntoClientFolder(const wchar_t* source, const wchar_t* name) {
    return CopyFileW(BinPath(source).c_str(), ClientFile(name).c_str(), FALSE) != FALSE;
}

bool StopGracefully(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status{};
    if (!AgentService::QueryStatus(service, status))
        return false;
    // A pending service may never leave its state (a stuck stop, a slow start
    // that refuses controls): not worth the wait.
    DWORD state = status.dwCurrentState;
    bool settled = state == SERVICE_STOPPED || state == SERVICE_RUNNING || state == SERVICE_PAUSED;
    return settled && AgentService::StopAndWait(service, kGracefulStopMs);
}

// Windows' Service Control Manager records a killed service as stopped; Wine's
// keeps its last state, but deletes it all the same once the handles are closed.
void KillServiceProcess(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status{};
    if (!AgentService::QueryStatus(service, status) || status.dwProcessId == 0)
        return;
    ScopedKernelHandle process(
        OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, status.dwProcessId));
    if (process && TerminateProcess(process.Get(), 1))
        WaitForSingleObject(process.Get(), kKillWaitMs);
}

void WaitUntilForgotten() {
    const DWORD start = GetTickCount();
    while (GetTickCount() - start < kForgetWaitMs) {
        if (!AgentService::Open(SERVICE_QUERY_STATUS) &&
            GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST)
            return;
        Sleep(kPollMs);
    }
}

int HexDigit(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return -1;
}

// The bytes a journalled frame's hex stands for; false on anything else.
bool FromHex(const std::string& hex, std::string& bytes) {
    if (hex.size() % 2 != 0)
        return false;
    bytes.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = HexDigit(hex[i]);
        int low = HexDigit(hex[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes += static_cast<char>(high << 4 | low);
    }
    return true;
}

void RemoveService() {
    {
        ScopedServiceHandle service = AgentService::Open(SERVICE_ALL_ACCESS);
        if (!service)
            return;
        if (!StopGracefully(service.Get()))
            KillServiceProcess(service.Get());
        DeleteService(service.Get());
    }
    WaitUntilForgotten();
}

} // namespace

namespace AgentDouble {

const wchar_t kClientFolder[] = L"C:\\ZephTestBed\\iService\\Tarn";
const wchar_t kUpdateSource[] = L"C:\\ZephTestBed\\update";

bool SetBehaviour(const Behaviour& behaviour) {
    const wchar_t* key = kAgentBehaviourKey;
    return TestBedRegistry::WriteDword(key, kInstallExitCodeValue, behaviour.installExitCode) &&
           TestBedRegistry::WriteDword(key, kDeleteExitCodeValue, behaviour.deleteExitCode) &&
           TestBedRegistry::WriteDword(key, kStartDelayValue, behaviour.startDelayMs) &&
           TestBedRegistry::WriteDword(key, kStopDelayValue, behaviour.stopDelayMs) &&
           TestBedRegistry::WriteDword(key, kStartExitCodeValue, behaviour.startExitCode) &&
           TestBedRegistry::WriteDword(key, kStuckStopPendingValue, behaviour.stuckStopPending) &&
           TestBedRegistry::WriteDword(key, kPipeAnswerValue,
                                       static_cast<DWORD>(behaviour.pipeAnswer)) &&
           TestBedRegistry::WriteDword(key, kAnswerRetCodeValue, behaviour.answerRetCode) &&
           TestBedRegistry::WriteDword(key, kAnswerPayloadBytesValue,
                                       behaviour.answerPayloadBytes) &&
           TestBedRegistry::WriteDword(key, kBytePipeValue, behaviour.bytePipe) &&
           TestBedRegistry::WriteDword(key, kAnswerDelayValue, behaviour.answerDelayMs);
}

bool Place(Version version) {
    const wchar_t* build = version == Version::V3_2 ? L"TarnAgent.exe" : L"TarnAgent_3.3.exe";
    return CreateFolderTree(kClientFolder) && CopyIntoClientFolder(build, L"TarnAgent.exe") &&
           CopyIntoClientFolder(L"hdc.exe", L"hdc.exe");
}

bool PlaceUpdateSource() {
    const std::wstring source = kUpdateSource;
    return CreateFolderTree(source + L"\\config") &&
           CopyFileW(BinPath(L"TarnAgent_3.3.exe").c_str(), (source + L"\\TarnAgent.exe").c_str(),
                     FALSE) &&
           WriteFileBytes(source + L"\\config\\tn_agent.ini", "[Policy]\r\nEnabled=1\r\n");
}

DWORD RunInstall() {
    return RunProcess({ClientFile(L"TarnAgent.exe"), L"-install"}).exitCode;
}

bool Start(DWORD until, DWORD timeoutMs) {
    ScopedServiceHandle service = AgentService::Open(SERVICE_START | SERVICE_QUERY_STATUS);
    if (!service || (!StartServiceW(service.Get(), 0, nullptr) &&
                     GetLastError() != ERROR_SERVICE_ALREADY_RUNNING))
        return false;
    return AgentService::WaitForState(service.Get(), until, timeoutMs);
}

bool WaitForState(DWORD state, DWORD timeoutMs) {
    ScopedServiceHandle service = AgentService::Open(SERVICE_QUERY_STATUS);
    return service && AgentService::WaitForState(service.Get(), state, timeoutMs);
}

bool Control(DWORD control, DWORD until, DWORD timeoutMs) {
    ScopedServiceHandle service =
        AgentService::Open(SERVICE_STOP | SERVICE_PAUSE_CONTINUE | SERVICE_QUERY_STATUS);
    SERVICE_STATUS status{};
    return service && ControlService(service.Get(), control, &status) &&
           AgentService::WaitForState(service.Get(), until, timeoutMs);
}

bool Install(const Behaviour& behaviour) {
    return SetBehaviour(behaviour) && Place() && RunInstall() == behaviour.installExitCode;
}

bool Run(const Behaviour& behaviour, DWORD until) {
    const DWORD state = State();
    if (state == 0) {
        if (!Install(behaviour))
            return false;
    } else if (state != SERVICE_STOPPED && !Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED)) {
        return false;
    }
    return SetBehaviour(behaviour) && Start(until);
}

DWORD State() {
    ScopedServiceHandle service = AgentService::Open(SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status{};
    if (!service || !AgentService::QueryStatus(service.Get(), status))
        return 0;
    return status.dwCurrentState;
}

void Remove() {
    RemoveService();
    RemoveFolderTree(kClientFolder);
    RemoveDirectoryW(kClientParent); // only when nothing else is left in it
    TestBedRegistry::DeleteTree(kAgentBehaviourKey);
    DeleteFileW(kAgentJournal);
    RemoveDirectoryW(kAgentJournalFolder); // likewise
}

std::vector<std::string> ReceivedFrames() {
    const std::string prefix = kFrameJournalPrefix;
    std::vector<std::string> frames;
    std::string frame;
    for (const std::string& line : Journal())
        if (line.compare(0, prefix.size(), prefix) == 0 &&
            FromHex(line.substr(prefix.size()), frame))
            frames.push_back(frame);
    return frames;
}

std::vector<std::string> ReceivedFramesUnstamped() {
    std::vector<std::string> frames = ReceivedFrames();
    for (std::string& frame : frames)
        frame.erase(20, 16);
    return frames;
}

std::vector<std::string> Journal() {
    return JournalLines(kAgentJournal);
}

} // namespace AgentDouble
