// Test-bed control for scripts: sets up and removes the parent product's
// simulated installation and the behaviour of the host library double and
// the HTTP library double.
//
//   tbctl install [--variant full|nosyscall] [--folder <dir>]
//   tbctl remove
//   tbctl app-path <dir> | tbctl app-path --remove
//   tbctl host [--loader-verdict N] [--syscall-status N] [--syscall-response <json>]
//   tbctl journal [--clear]
//   tbctl log-mark <text>        sends one record to the log server
//   tbctl agent place [--version 3.2|3.3] | install | start | stop | remove | state
//   tbctl agent behave [--install-exit N] [--delete-exit N] [--start-delay-ms N]
//                      [--stop-delay-ms N] [--stuck-stop 0|1] [--start-exit N]
//                      [--pipe-answer normal|wrong-magic|stop-type|wrong-id|split-header|no-answer
//                                     |garbage|cut-off]
//                      [--answer-ret-code N] [--answer-payload-bytes N] [--answer-delay-ms N]
//                      [--byte-pipe 0|1]
//   tbctl agent frames           the frames the agent double read from its pipe
//   tbctl server [--send-result N] [--http-code N] [--answer <json>] [--answer-from <file>]
//                [--no-answer-file 0|1]
//                                how the HTTP library double answers (an option left out: default)
//   tbctl server-journal [--clear]
#include "AgentDouble.h"
#include "DebugLog.h"
#include "QvsockDouble.h"
#include "TarnAgentProtocol.h"
#include "TestBed.h"

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

using Arguments = std::vector<std::wstring>;

// "--name value" pairs; false on anything else or a name not in `allowed`.
bool ParsePairs(const Arguments& arguments, const std::vector<std::wstring>& allowed,
                std::map<std::wstring, std::wstring>& values) {
    if (arguments.size() % 2 != 0)
        return false;
    for (size_t i = 0; i < arguments.size(); i += 2) {
        bool known = false;
        for (const std::wstring& name : allowed)
            known = known || arguments[i] == name;
        if (!known)
            return false;
        values[arguments[i]] = arguments[i + 1];
    }
    return true;
}

bool ParseNumber(const std::wstring& text, DWORD& value) {
    wchar_t* end = nullptr;
    unsigned long number = wcstoul(text.c_str(), &end, 0); // decimal or 0x...
    if (text.empty() || *end != L'\0')
        return false;
    value = static_cast<DWORD>(number);
    return true;
}

int Outcome(bool succeeded, const char* what) {
    if (succeeded)
        return 0;
    std::fprintf(stderr, "tbctl: %s failed (error %lu)\n", what, GetLastError());
    return kExitFailed;
}

int Install(const Arguments& arguments) {
    std::map<std::wstring, std::wstring> values;
    if (!ParsePairs(arguments, {L"--variant", L"--folder"}, values))
        return kExitUsage;
    std::wstring variant = values.count(L"--variant") ? values[L"--variant"] : L"full";
    if (variant != L"full" && variant != L"nosyscall")
        return kExitUsage;
    std::wstring folder =
        values.count(L"--folder") ? values[L"--folder"] : std::wstring(SimulatedInstall::kFolder);
    HostLibraryVariant chosen =
        variant == L"full" ? HostLibraryVariant::Full : HostLibraryVariant::WithoutSystemCall;
    return Outcome(SimulatedInstall::Create(chosen, folder), "install");
}

int Remove(const Arguments& arguments) {
    if (!arguments.empty())
        return kExitUsage;
    SimulatedInstall::Remove();
    return 0;
}

int ApplicationPath(const Arguments& arguments) {
    if (arguments.size() != 1)
        return kExitUsage;
    if (arguments[0] == L"--remove") {
        SimulatedInstall::RemoveApplicationPath();
        return 0;
    }
    return Outcome(SimulatedInstall::SetApplicationPath(arguments[0]), "app-path");
}

int Host(const Arguments& arguments) {
    std::map<std::wstring, std::wstring> values;
    if (!ParsePairs(arguments, {L"--loader-verdict", L"--syscall-status", L"--syscall-response"},
                    values))
        return kExitUsage;
    HostBehaviour behaviour;
    if (values.count(L"--loader-verdict") &&
        !ParseNumber(values[L"--loader-verdict"], behaviour.loaderVerdict))
        return kExitUsage;
    if (values.count(L"--syscall-status") &&
        !ParseNumber(values[L"--syscall-status"], behaviour.systemCallStatus))
        return kExitUsage;
    if (values.count(L"--syscall-response"))
        behaviour.systemCallResponse = Narrow(values[L"--syscall-response"]);
    return Outcome(SimulatedInstall::SetHostBehaviour(behaviour), "host");
}

int Journal(const Arguments& arguments) {
    if (arguments.size() == 1 && arguments[0] == L"--clear") {
        SimulatedInstall::ClearHostJournal();
        return 0;
    }
    if (!arguments.empty())
        return kExitUsage;
    for (const std::string& line : SimulatedInstall::HostJournal())
        std::printf("%s\n", line.c_str());
    return 0;
}

// Scripts send a marker after a step and wait for it in the records: every
// record sent before it has then arrived.
int LogMark(const Arguments& arguments) {
    if (arguments.size() != 1)
        return kExitUsage;
    int sent =
        SendDebugLogRecord(static_cast<int32_t>(std::time(nullptr)), GetCurrentProcessId(),
                           GetCurrentThreadId(), LOG_INFO, L"tbctl", 0, arguments[0].c_str());
    return sent ? 0 : kExitFailed;
}

// ---- tbctl agent: the agent double -------------------------------------------

int AgentPlace(const Arguments& arguments) {
    std::map<std::wstring, std::wstring> values;
    if (!ParsePairs(arguments, {L"--version"}, values))
        return kExitUsage;
    std::wstring version = values.count(L"--version") ? values[L"--version"] : L"3.2";
    if (version != L"3.2" && version != L"3.3")
        return kExitUsage;
    bool placed = AgentDouble::Place(version == L"3.2" ? AgentDouble::Version::V3_2
                                                       : AgentDouble::Version::V3_3);
    return Outcome(placed, "agent place");
}

// Prints the installer's exit code signed, as the plug-in reads it (-110).
int AgentInstall() {
    std::printf("%ld\n", static_cast<long>(static_cast<LONG>(AgentDouble::RunInstall())));
    return 0;
}

bool ParsePipeAnswer(const std::wstring& text, AgentDouble::PipeAnswer& answer) {
    using AgentDouble::PipeAnswer;
    static const std::map<std::wstring, PipeAnswer> answers = {
        {L"normal", PipeAnswer::Normal},
        {L"wrong-magic", PipeAnswer::WrongMagic},
        {L"stop-type", PipeAnswer::StopType},
        {L"wrong-id", PipeAnswer::WrongIdentifier},
        {L"split-header", PipeAnswer::SplitHeader},
        {L"no-answer", PipeAnswer::NoAnswer},
        {L"garbage", PipeAnswer::Garbage},
        {L"cut-off", PipeAnswer::CutOff},
    };
    auto found = answers.find(text);
    if (found == answers.end())
        return false;
    answer = found->second;
    return true;
}

int AgentBehave(const Arguments& arguments) {
    std::map<std::wstring, std::wstring> values;
    const std::vector<std::wstring> numbers = {
        L"--install-exit", L"--delete-exit",     L"--start-delay-ms",       L"--stop-delay-ms",
        L"--stuck-stop",   L"--answer-ret-code", L"--answer-payload-bytes", L"--byte-pipe",
        L"--start-exit",   L"--answer-delay-ms"};
    std::vector<std::wstring> names = numbers;
    names.push_back(L"--pipe-answer");
    if (!ParsePairs(arguments, names, values))
        return kExitUsage;
    AgentDouble::Behaviour behaviour;
    DWORD stuck = 0;
    DWORD bytePipe = 0;
    DWORD* fields[] = {&behaviour.installExitCode,
                       &behaviour.deleteExitCode,
                       &behaviour.startDelayMs,
                       &behaviour.stopDelayMs,
                       &stuck,
                       &behaviour.answerRetCode,
                       &behaviour.answerPayloadBytes,
                       &bytePipe,
                       &behaviour.startExitCode,
                       &behaviour.answerDelayMs};
    for (size_t i = 0; i < numbers.size(); ++i)
        if (values.count(numbers[i]) && !ParseNumber(values[numbers[i]], *fields[i]))
            return kExitUsage;
    if (values.count(L"--pipe-answer") &&
        !ParsePipeAnswer(values[L"--pipe-answer"], behaviour.pipeAnswer))
        return kExitUsage;
    behaviour.stuckStopPending = stuck != 0;
    behaviour.bytePipe = bytePipe != 0;
    return Outcome(AgentDouble::SetBehaviour(behaviour), "agent behave");
}

int AgentStart() {
    return Outcome(AgentDouble::Start(), "agent start");
}

int AgentStop() {
    return Outcome(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED), "agent stop");
}

int AgentRemove() {
    AgentDouble::Remove();
    return 0;
}

void PrintHex(const std::string& bytes) {
    for (unsigned char byte : bytes)
        std::printf("%02x", byte);
}

bool Printable(const std::string& bytes) {
    for (unsigned char byte : bytes)
        if (byte < 0x20 || byte > 0x7E)
            return false;
    return true;
}

// One line per frame: the header's fields and the payload, as text when it
// is printable ("payload=..."), else as hex ("payload-hex=..."). A message
// that is no frame of the agent shows whole as "not-a-frame=<hex>".
void PrintFrame(const std::string& frame) {
    TnFrameHeader header;
    if (frame.size() >= sizeof header)
        std::memcpy(&header, frame.data(), sizeof header);
    if (frame.size() < sizeof header || header.magic != TN_FRAME_MAGIC) {
        std::printf("not-a-frame=");
        PrintHex(frame);
        std::printf("\n");
        return;
    }
    std::string payload = frame.substr(sizeof header);
    std::printf("type=%u id=%u ret=%u length=%u ", header.dwCmdType, header.dwIdentifier,
                header.dwTxRetCode, header.dwDataLength);
    if (Printable(payload)) {
        std::printf("payload=%s\n", payload.c_str());
    } else {
        std::printf("payload-hex=");
        PrintHex(payload);
        std::printf("\n");
    }
}

int AgentFrames() {
    for (const std::string& frame : AgentDouble::ReceivedFrames())
        PrintFrame(frame);
    return 0;
}

// The state's number and name; "0 none" when the service does not exist.
int AgentState() {
    static const char* const names[] = {"none",          "stopped", "start-pending",
                                        "stop-pending",  "running", "continue-pending",
                                        "pause-pending", "paused"};
    DWORD state = AgentDouble::State();
    std::printf("%lu %s\n", state, state < 8 ? names[state] : "unknown");
    return 0;
}

int Agent(const Arguments& arguments) {
    static const std::map<std::wstring, int (*)()> bare = {
        {L"install", AgentInstall}, {L"start", AgentStart}, {L"stop", AgentStop},
        {L"remove", AgentRemove},   {L"state", AgentState}, {L"frames", AgentFrames},
    };
    static const std::map<std::wstring, int (*)(const Arguments&)> withOptions = {
        {L"place", AgentPlace},
        {L"behave", AgentBehave},
    };
    if (arguments.empty())
        return kExitUsage;
    Arguments options(arguments.begin() + 1, arguments.end());
    auto command = bare.find(arguments[0]);
    if (command != bare.end())
        return options.empty() ? command->second() : kExitUsage;
    auto optioned = withOptions.find(arguments[0]);
    return optioned != withOptions.end() ? optioned->second(options) : kExitUsage;
}

// ---- tbctl server: the HTTP library double ----------------------------------

int Server(const Arguments& arguments) {
    std::map<std::wstring, std::wstring> values;
    if (!ParsePairs(
            arguments,
            {L"--send-result", L"--http-code", L"--answer", L"--answer-from", L"--no-answer-file"},
            values))
        return kExitUsage;
    QvsockDouble::Behaviour behaviour;
    DWORD noAnswerFile = 0;
    if (values.count(L"--send-result") &&
        !ParseNumber(values[L"--send-result"], behaviour.sendResult))
        return kExitUsage;
    if (values.count(L"--http-code") && !ParseNumber(values[L"--http-code"], behaviour.httpCode))
        return kExitUsage;
    if (values.count(L"--no-answer-file") &&
        !ParseNumber(values[L"--no-answer-file"], noAnswerFile))
        return kExitUsage;
    if (values.count(L"--answer"))
        behaviour.answer = Narrow(values[L"--answer"]);
    if (values.count(L"--answer-from"))
        behaviour.answerFrom = values[L"--answer-from"];
    behaviour.noAnswerFile = noAnswerFile != 0;
    return Outcome(QvsockDouble::SetBehaviour(behaviour), "server");
}

int ServerJournal(const Arguments& arguments) {
    if (arguments.size() == 1 && arguments[0] == L"--clear") {
        QvsockDouble::ClearJournal();
        return 0;
    }
    if (!arguments.empty())
        return kExitUsage;
    for (const std::string& line : QvsockDouble::Journal())
        std::printf("%s\n", line.c_str());
    return 0;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: tbctl install [--variant full|nosyscall] [--folder <dir>]\n"
                 "       tbctl remove\n"
                 "       tbctl app-path <dir> | tbctl app-path --remove\n"
                 "       tbctl host [--loader-verdict N] [--syscall-status N]"
                 " [--syscall-response <json>]\n"
                 "       tbctl journal [--clear]\n"
                 "       tbctl log-mark <text>\n"
                 "       tbctl agent place [--version 3.2|3.3] | install | start | stop"
                 " | remove | state\n"
                 "       tbctl agent behave [--install-exit N] [--delete-exit N]"
                 " [--start-delay-ms N] [--stop-delay-ms N] [--stuck-stop 0|1] [--start-exit N]\n"
                 "                          [--pipe-answer normal|wrong-magic|stop-type"
                 "|wrong-id|split-header|no-answer|garbage|cut-off]\n"
                 "                          [--answer-ret-code N] [--answer-payload-bytes N]"
                 " [--answer-delay-ms N] [--byte-pipe 0|1]\n"
                 "       tbctl agent frames\n"
                 "       tbctl server [--send-result N] [--http-code N] [--answer <json>]"
                 " [--answer-from <file>] [--no-answer-file 0|1]\n"
                 "       tbctl server-journal [--clear]\n");
    return kExitUsage;
}

Arguments WideArguments() {
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    Arguments arguments;
    for (int i = 0; wide && i < count; ++i)
        arguments.push_back(wide[i]);
    LocalFree(wide);
    return arguments;
}

} // namespace

int main() {
    _setmode(_fileno(stdout), _O_BINARY);
    static const std::map<std::wstring, int (*)(const Arguments&)> commands = {
        {L"install", Install}, {L"remove", Remove},   {L"app-path", ApplicationPath},
        {L"host", Host},       {L"journal", Journal}, {L"log-mark", LogMark},
        {L"agent", Agent},     {L"server", Server},   {L"server-journal", ServerJournal},
    };
    Arguments arguments = WideArguments();
    auto command = arguments.size() > 1 ? commands.find(arguments[1]) : commands.end();
    if (command == commands.end())
        return Usage();
    int result = command->second(Arguments(arguments.begin() + 2, arguments.end()));
    return result == kExitUsage ? Usage() : result;
}
