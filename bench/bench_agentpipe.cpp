// Cost of one agent command round trip (NotifyTarnAgent: one 36-byte frame
// out, one 36-byte response back) with the agent double's service running, as
// a ratio to a bare WriteFile + ReadFile of the same frame bytes over a second
// connection to the same agent pipe. No log server runs, so every record the
// command logs costs a failed pipe open; a second floor adds those opens.
// Prints, never asserts.
#include "AgentDouble.h"
#include "BenchTiming.h"
#include "DebugLog.h"
#include "LogServer.h"
#include "TarnAgentCommands.h"
#include "TarnAgentPipeClient.h"
#include "TestBed.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace {

constexpr int kCalls = 20;
constexpr int kRounds = 61;
const wchar_t kLogPipe[] = L"\\\\.\\pipe\\Log_ServerNamePipe";

void Cleanup() {
    DeInitTarnPipeClient();
    AgentDouble::Remove();
    SimulatedInstall::Remove();
}

} // namespace

int main() {
    SetDebugLogModuleTag(L"zephExt_TarnClient"); // as the plug-in sets it when loaded
    AgentDouble::Remove();
    SimulatedInstall::Remove();
    if (!SimulatedInstall::Create() || !AgentDouble::SetBehaviour({}) || !AgentDouble::Place() ||
        AgentDouble::RunInstall() != 0 || !AgentDouble::Start() || InitTarnPipeClient() != 0) {
        std::printf("cannot start the agent double and connect to its pipe\n");
        Cleanup();
        return 1;
    }

    // The floor's own connection, synchronous and in message mode.
    std::wstring pipeName = std::wstring(L"\\\\.\\pipe\\") + kTarnAgentPipeName;
    ScopedFile bare(CreateFileW(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, 0, nullptr));
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!bare || !SetNamedPipeHandleState(bare.Get(), &mode, nullptr, nullptr)) {
        std::printf("cannot open a second connection to the agent pipe\n");
        Cleanup();
        return 1;
    }
    std::string frame = BuildCommandFrame(TNIPCOMMAND_NOTIFY, 1);
    SYSTEMTIME now;
    GetSystemTime(&now);
    memcpy(&frame[20], &now, sizeof(now));
    int failures = 0;
    auto bareRoundTrip = [&] {
        char response[4096];
        DWORD written = 0;
        DWORD read = 0;
        if (!WriteFile(bare.Get(), frame.data(), static_cast<DWORD>(frame.size()), &written,
                       nullptr) ||
            !ReadFile(bare.Get(), response, sizeof(response), &read, nullptr) ||
            read != TN_FRAME_HEADER_SIZE)
            ++failures;
    };
    auto notify = [&] { failures += NotifyTarnAgent() != 0; };

    // The records one command writes, counted once with a log server.
    long logRecords = 0;
    {
        std::atomic<long> records{0};
        LogServer server([&](const LogRecord&) { ++records; });
        if (!server.Start()) {
            std::printf("a log server is already running\n");
            Cleanup();
            return 1;
        }
        notify();
        server.Sync();
        records = 0;
        notify();
        server.Sync();
        logRecords = records;
    }
    auto bareWithLogOpens = [&] {
        for (long i = 0; i < logRecords; ++i) {
            HANDLE pipe = CreateFileW(kLogPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                      SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
            if (pipe != INVALID_HANDLE_VALUE)
                CloseHandle(pipe);
        }
        bareRoundTrip();
    };
    notify(); // prints the missing-server notice once, before timing

    auto repeat = [](auto call) {
        return [call] {
            for (int i = 0; i < kCalls; ++i)
                call();
        };
    };
    bench::Measure floor{"bare WriteFile + ReadFile, same frame", {}};
    bench::Measure floorWithLog{
        "the same + " + std::to_string(logRecords) + " failed log-pipe opens", {}};
    bench::Measure command{"NotifyTarnAgent", {}};
    for (int round = 0; round < kRounds; ++round) {
        bench::Time(floor.times, kCalls, repeat(bareRoundTrip));
        bench::Time(command.times, kCalls, repeat(notify));
        bench::Time(floorWithLog.times, kCalls, repeat(bareWithLogOpens));
    }

    std::printf("Agent double running, no log server: %d commands a batch, %d rounds, median "
                "per command\n",
                kCalls, kRounds);
    bench::Table table("command", bench::kMicroseconds);
    table.Row(command, floor, "<= 1.2");
    table.Row(command, floorWithLog);
    table.Print();
    if (failures)
        std::printf("%d round trips failed\n", failures);
    bare.Reset();
    Cleanup();
    return failures ? 1 : 0;
}
