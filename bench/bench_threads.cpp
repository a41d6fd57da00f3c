// Queries and zephExt_ParseLog per second through the real DLL from 1, 2, 4
// and 8 threads released together, each as a ratio to one thread in the same
// round: how the calls scale on this machine with the host binding's lock in
// every call's path. The agent runs and no log server listens (each record is
// one failed pipe open). Prints, never asserts.
#include "AgentDouble.h"
#include "BenchTiming.h"
#include "ScopedHandle.h"
#include "TestBed.h"
#include "zephExt_TarnClient.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kCallsPerRound = 120; // shared out over the threads
constexpr int kRounds = 5;
const unsigned kThreadCounts[] = {1, 2, 4, 8};
const std::wstring kDetectionFile = L"C:\\ZephTestBed\\bench_threads.log";

const char* const kQueries[] = {
    "{\"query_id\":\"ZEPH_ONQUERY_CLIENT_STATUS_LOG\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
    "\"query_data\":{\"query_type\":\"ZEPH_CLIENT_ALL_STATUS_LOG\"}}",
    "{\"query_id\":\"ZEPH_ONQUERY_COMMON_SETTINGS\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
    "\"query_data\":{}}",
    "{\"query_id\":\"ZEPH_ONQUERY_SERVICE_STATUS\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
    "\"query_data\":{}}",
    "{\"query_id\":\"ZEPH_ONQUERY_SELF_PROTECTION\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
    "\"query_data\":{}}",
};

struct Plugin {
    decltype(&zephExt_OnQueryData) onQueryData = nullptr;
    decltype(&zephExt_ParseLog) parseLog = nullptr;
    decltype(&zephExt_Free) release = nullptr;
};

// The i-th call of the mix: the four queries and one detection file in turn.
bool Call(const Plugin& plugin, unsigned i) {
    char* answer = nullptr;
    uint32_t result = 0;
    if (i % 5 < 4) {
        const char* request = kQueries[i % 5];
        uint32_t length = 0;
        result = plugin.onQueryData(nullptr, static_cast<int32_t>(strlen(request)), request,
                                    &length, &answer);
    } else {
        wchar_t type[64] = {};
        uint32_t size = 0;
        result = plugin.parseLog(kDetectionFile.c_str(), 63, type, &answer, &size);
    }
    plugin.release(answer);
    return result == 0 && answer != nullptr;
}

// Time per call of one round of kCallsPerRound calls on `threads` threads.
double TimeRound(const Plugin& plugin, unsigned threads, std::atomic<unsigned>& failures) {
    std::atomic<unsigned> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (unsigned index = 0; index < threads; ++index)
        workers.emplace_back([&, index] {
            ++ready;
            while (!go)
                SwitchToThread();
            for (unsigned i = index; i < kCallsPerRound; i += threads)
                failures += Call(plugin, i) ? 0 : 1;
        });
    while (ready < threads)
        SwitchToThread();
    double start = bench::Now();
    go = true;
    for (std::thread& worker : workers)
        worker.join();
    return (bench::Now() - start) / kCallsPerRound;
}

} // namespace

int main() {
    AgentDouble::Remove();
    SimulatedInstall::Remove();
    if (!SimulatedInstall::Create() || !AgentDouble::SetBehaviour({}) || !AgentDouble::Place() ||
        AgentDouble::RunInstall() != 0 || !AgentDouble::Start() ||
        !WriteFileBytes(kDetectionFile, std::string(kValidDetectionRecord) + "\r\n")) {
        std::printf("cannot set up the installation, the running agent and the detection file\n");
        AgentDouble::Remove();
        SimulatedInstall::Remove();
        return 1;
    }
    // Wine refuses a service-manager handle opened on one thread while another
    // closes the process's last one; a host whose threads call at once keeps one.
    ScopedServiceHandle association(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    HMODULE module = LoadLibraryW(BinPath(L"zephExt_TarnClient.dll").c_str());
    Plugin plugin;
    plugin.onQueryData = reinterpret_cast<decltype(&zephExt_OnQueryData)>(
        reinterpret_cast<void*>(GetProcAddress(module, "zephExt_OnQueryData")));
    plugin.parseLog = reinterpret_cast<decltype(&zephExt_ParseLog)>(
        reinterpret_cast<void*>(GetProcAddress(module, "zephExt_ParseLog")));
    plugin.release = reinterpret_cast<decltype(&zephExt_Free)>(
        reinterpret_cast<void*>(GetProcAddress(module, "zephExt_Free")));
    if (!plugin.onQueryData || !plugin.parseLog || !plugin.release) {
        std::printf("cannot load the plug-in\n");
        return 1;
    }

    std::atomic<unsigned> failures{0};
    TimeRound(plugin, 1, failures); // binds, makes the image-options keys, warms up
    std::vector<bench::Measure> measures;
    for (unsigned threads : kThreadCounts)
        measures.push_back({std::to_string(threads), {}});
    for (int round = 0; round < kRounds; ++round)
        for (size_t i = 0; i < measures.size(); ++i)
            measures[i].times.push_back(TimeRound(plugin, kThreadCounts[i], failures));

    std::printf("| threads | calls per second | ratio to one thread |\n|---|---|---|\n");
    for (const bench::Measure& measure : measures)
        std::printf("| %s | %.0f | %.2f |\n", measure.name.c_str(),
                    1 / bench::Median(measure.times), bench::Ratio(measures[0], measure));
    std::printf("\n%u of %d calls failed\n", failures.load(),
                (kRounds * 4 + 1) * static_cast<int>(kCallsPerRound));
    FreeLibrary(module);
    DeleteFileW(kDetectionFile.c_str());
    AgentDouble::Remove();
    SimulatedInstall::Remove();
    return failures == 0 ? 0 : 1;
}
