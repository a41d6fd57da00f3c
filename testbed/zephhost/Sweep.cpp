#include "Sweep.h"

#include "AgentDouble.h"
#include "FaultInjector.h"
#include "HostScript.h"
#include "LogServer.h"

#include <atomic>
#include <cstdio>
#include <set>
#include <thread>

namespace {

enum class AgentState { Any, Running, Stopped, Absent };

struct Scenario {
    const char* name;
    AgentState agent;
    std::vector<std::string> calls;
    DWORD limitMs;          // the longest any of its calls may wait as described
    bool rollsBack = false; // ends with a rollback that, when it succeeds, restores every file
};

using AgentDouble::kUpdateSource;
const wchar_t kDetectionFile[] = L"C:\\ZephTestBed\\Corvale\\detection.log";

// Service waits end after the agent's wait hints (10 s; a start waits out two
// pending states); a stop waits at most 60 s and a launched installer at most
// five minutes, which no scenario reaches without a fault.
constexpr DWORD kQuick = 30000;
constexpr DWORD kStopWait = 75000;
constexpr DWORD kLaunchWait = 320000;
// A sweep process holds a few hundred handles: a thousand slots see every
// one, at an eighth of the cost of probing them all for each run.
constexpr uintptr_t kHighestHandleProbed = 0x1000;
constexpr DWORD kSetUpRetryMs = 2000;

std::string ParseLogCall() {
    return "parselog " + Narrow(kDetectionFile);
}
// The host's update sequence, rolled back as `call` says.
std::string UpdateCall(const char* call) {
    return std::string(call) + " " + Narrow(kUpdateSource);
}

const std::vector<Scenario>& Scenarios() {
    static const std::vector<Scenario> scenarios = {
        {"init-deinit", AgentState::Any, {"init", "deinit", "prereq"}, kQuick},
        {"context", AgentState::Any, {"create-context", "release-context", "free-null"}, kQuick},
        {"query-status",
         AgentState::Running,
         {Query("ZEPH_ONQUERY_CLIENT_STATUS_LOG",
                R"({"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG"})")},
         kQuick},
        {"query-settings", AgentState::Running, {Query("ZEPH_ONQUERY_COMMON_SETTINGS")}, kQuick},
        {"query-service", AgentState::Running, {Query("ZEPH_ONQUERY_SERVICE_STATUS")}, kQuick},
        {"query-protection", AgentState::Running, {Query("ZEPH_ONQUERY_SELF_PROTECTION")}, kQuick},
        {"start-stopped", AgentState::Stopped, {Service("ZEPH_TYPE_IAGT_START")}, kQuick},
        {"start-running", AgentState::Running, {Service("ZEPH_TYPE_IAGT_START")}, kQuick},
        {"stop-running", AgentState::Running, {Service("ZEPH_TYPE_IAGT_STOP")}, kStopWait},
        {"stop-stopped", AgentState::Stopped, {Service("ZEPH_TYPE_IAGT_STOP")}, kStopWait},
        {"install", AgentState::Absent, {Install()}, kLaunchWait},
        {"uninstall", AgentState::Stopped, {Uninstall()}, kLaunchWait},
        {"policy-running", AgentState::Running, {Policy(1), Policy(2)}, kStopWait},
        {"policy-stopped", AgentState::Stopped, {Policy(4), Policy(1)}, kQuick},
        {"notify-running", AgentState::Running, {SelfProtection(1), MoveClient()}, kQuick},
        {"notify-stopped", AgentState::Stopped, {SelfProtection(0)}, kQuick},
        {"parselog-valid", AgentState::Any, {ParseLogCall()}, kQuick},
        {"parselog-invalid", AgentState::Any, {ParseLogCall()}, kQuick},
        {"update", AgentState::Stopped, {UpdateCall("update")}, kLaunchWait, true},
        {"rollback-after-pre",
         AgentState::Stopped,
         {UpdateCall("update-rollback-after-pre")},
         kLaunchWait,
         true},
        {"rollback-after-do",
         AgentState::Stopped,
         {UpdateCall("update-rollback-after-do")},
         kLaunchWait,
         true},
    };
    return scenarios;
}

const Scenario* FindScenario(const std::string& name) {
    for (const Scenario& scenario : Scenarios())
        if (name == scenario.name)
            return &scenario;
    return nullptr;
}

bool Bring(AgentState wanted) {
    DWORD state = AgentDouble::State();
    switch (wanted) {
    case AgentState::Running:
        return state == SERVICE_RUNNING || AgentDouble::Run();
    case AgentState::Stopped:
        if (state == 0)
            return AgentDouble::Install();
        return state == SERVICE_STOPPED ||
               AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED);
    case AgentState::Absent:
        if (state != 0)
            AgentDouble::Remove();
        return true;
    default:
        return true;
    }
}

// The first file of `before` that `after` lacks or holds other bytes of;
// files that only `after` has (a newer version's) are no loss.
std::string FirstDifference(const FileTree& before, const FileTree& after) {
    for (const auto& [path, bytes] : before) {
        auto found = after.find(path);
        if (found == after.end() || found->second != bytes)
            return path;
    }
    return "";
}

// The scenario's starting point, made afresh before each run. An update
// starts from the old version installed (stopped) with the user's own
// configuration, the new version in the source folder and no backup.
bool SetUp(const Scenario& scenario) {
    const std::wstring config = std::wstring(AgentDouble::kClientFolder) + L"\\config";
    if (scenario.rollsBack) {
        AgentDouble::Remove();
        RemoveFolderTree(std::wstring(SimulatedInstall::kFolder) + L"Temp\\TarnAgentBackup");
        if (!AgentDouble::PlaceUpdateSource() || !Bring(scenario.agent) || !CreateFolderTree(config))
            return false;
        return WriteFileBytes(config + L"\\tn_agent.ini", "[Policy]\r\nEnabled=0\r\n; mine\r\n");
    }
    std::string name = scenario.name;
    if (name == "parselog-valid" && !WriteFileBytes(kDetectionFile, kValidDetectionRecord))
        return false;
    if (name == "parselog-invalid" && !WriteFileBytes(kDetectionFile, "not a record"))
        return false;
    return Bring(scenario.agent) &&
           (scenario.agent != AgentState::Stopped || CreateFolderTree(config));
}

// Results the exports may answer, each export's own set.
bool IsAllowed(const std::string& result) {
    static const std::set<std::string> allowed = [] {
        std::set<std::string> all;
        auto add = [&all](const char* name, std::initializer_list<uint32_t> codes) {
            for (uint32_t code : codes)
                all.insert(std::string(name) + " -> " + std::to_string(code));
        };
        const uint32_t generic = 0x1040002;
        add("zephExt_Init", {0});
        add("zephExt_Deinit", {0});
        add("zephExt_GetPrerequest", {0, generic});
        add("zephExt_CreateContext", {0, generic});
        add("zephExt_ReleaseContext", {0, generic});
        add("zephExt_OnCommand", {0, 1, 2, 8});
        add("zephExt_OnNotify", {0, 1, 2, 8});
        add("zephExt_OnQueryData", {0});
        add("zephExt_Free", {0, generic});
        add("zephExt_PreUpdate", {0, generic, 0x1040003});
        add("zephExt_DoUpdate", {0, generic, 0x1040004, 0x1040005, 0x1040006});
        add("zephExt_PostUpdate", {0, generic});
        add("zephExt_Rollback", {0, generic, 0x1040007});
        add("zephExt_ParseLog", {0, 0xFFFFFFFF, 0xFFFFFFFE});
        return all;
    }();
    return allowed.count(result) != 0;
}

struct Fault {
    std::string function;
    unsigned call;
};

// Releases are left out: a refused close leaves its handle open by definition
// (a leak the refusal made, not the plug-in), and a log pipe kept open that
// way keeps the log server waiting for its writer.
bool IsRelease(const std::string& function) {
    static const std::set<std::string> releases = {"CloseHandle",
                                                   "CloseServiceHandle",
                                                   "RegCloseKey",
                                                   "FindClose",
                                                   "FindVolumeClose",
                                                   "FreeLibrary",
                                                   "HeapFree",
                                                   "LocalFree",
                                                   "CryptCATAdminReleaseContext",
                                                   "CryptCATAdminReleaseCatalogContext",
                                                   "fclose",
                                                   "_close",
                                                   "free"};
    return releases.count(function) != 0;
}

// The imports that can fail, each call up to `perImport` of what one run made.
std::vector<Fault> FaultsOf(const std::vector<FaultInjector::ImportCount>& counts,
                            unsigned perImport) {
    std::vector<Fault> faults;
    for (const FaultInjector::ImportCount& count : counts)
        if (FaultInjector::CanFail(count.function) && !IsRelease(count.function))
            for (unsigned call = 1; call <= std::min(count.calls, perImport); ++call)
                faults.push_back({count.function, call});
    return faults;
}

// Ends the process when one run goes on past the limit: a hang.
class Watchdog {
  public:
    explicit Watchdog(DWORD limitMs) : m_limitMs(limitMs), m_thread([this] { Watch(); }) {}
    ~Watchdog() {
        m_done = true;
        m_thread.join();
    }
    void Begin(size_t index) {
        m_index = index;
        m_start = GetTickCount64();
    }
    void End() { m_start = 0; }

  private:
    void Watch() {
        while (!m_done) {
            ULONGLONG start = m_start;
            if (start && GetTickCount64() - start > m_limitMs) {
                std::printf("hang %zu\n", m_index.load());
                std::fflush(stdout);
                TerminateProcess(GetCurrentProcess(), 3);
            }
            Sleep(100);
        }
    }

    DWORD m_limitMs;
    std::atomic<bool> m_done{false};
    std::atomic<size_t> m_index{0};
    std::atomic<ULONGLONG> m_start{0};
    std::thread m_thread;
};

class SweepRun {
  public:
    SweepRun(const Scenario& scenario, const SweepCalls& run) : m_scenario(scenario), m_run(run) {}

    bool Start() {
        if (!m_log.Start())
            return false;
        try { // the first exception of a process keeps two handles for good
            throw 0;
        } catch (int) {
        }
        return true;
    }

    // One run of the scenario; answers its verdict ("ok" or the problems).
    std::string Run(const std::function<void()>& arm) {
        FaultInjector::Reset();
        m_counts.clear();
        // A service that the last refusal left on its way somewhere gets one
        // more chance to arrive.
        if (!SetUp(m_scenario) && (Sleep(kSetUpRetryMs), !SetUp(m_scenario)))
            return "setup-failed";
        FileTree before;
        if (m_scenario.rollsBack)
            before = SnapshotFiles(AgentDouble::kClientFolder);
        m_log.Sync();
        m_log.Clear();
        DWORD handles = CountHandles(kHighestHandleProbed);
        arm();
        std::map<std::string, unsigned> results = m_run(m_scenario.calls);
        m_counts = FaultInjector::Counts();
        FaultInjector::Reset();
        m_log.Sync();
        std::string verdict;
        for (const auto& [result, count] : results)
            if (!IsAllowed(result))
                verdict += " result=" + result.substr(0, result.find(' ')) + ":" +
                           result.substr(result.rfind(' ') + 1);
        DWORD kept = CountHandles(kHighestHandleProbed) - handles;
        if (m_baselineKept < 0)
            m_baselineKept = static_cast<int>(kept);
        else if (static_cast<int>(kept) > m_baselineKept)
            verdict += " leak=" + std::to_string(kept - m_baselineKept);
        for (const LogRecord& record : m_log.Records())
            if (!record.parsed) {
                verdict += " torn-log";
                break;
            }
        if (m_scenario.rollsBack && results.count("zephExt_Rollback -> 0")) {
            std::string lost = FirstDifference(before, SnapshotFiles(AgentDouble::kClientFolder));
            if (!lost.empty())
                verdict += " loss=" + lost;
        }
        return verdict.empty() ? "ok" : verdict.substr(1);
    }
    void ResetBaseline() { m_baselineKept = -1; }
    // Each gate's calls and fired faults in the last run.
    const std::vector<FaultInjector::ImportCount>& Counts() const { return m_counts; }
    unsigned Fired() const {
        unsigned fired = 0;
        for (const FaultInjector::ImportCount& count : m_counts)
            fired += count.fired;
        return fired;
    }

  private:
    const Scenario& m_scenario;
    const SweepCalls& m_run;
    LogServer m_log;
    std::vector<FaultInjector::ImportCount> m_counts;
    // What a run without faults keeps open (a self-protection query keeps a
    // key handle by design); the first run sets it.
    int m_baselineKept = -1;
};

// A crash ends the process at once with its exception code, without Wine's
// debugger, after a line the sweep's driver reads.
LONG WINAPI ReportCrash(EXCEPTION_POINTERS* exception) {
    std::printf("crash 0x%08lx\n", exception->ExceptionRecord->ExceptionCode);
    std::fflush(stdout);
    TerminateProcess(GetCurrentProcess(), 4);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

std::vector<std::string> SweepScenarios() {
    std::vector<std::string> names;
    for (const Scenario& scenario : Scenarios())
        names.push_back(scenario.name);
    return names;
}

int RunSweep(const SweepCalls& run, const std::vector<std::string>& arguments) {
    SetUnhandledExceptionFilter(ReportCrash);
    const Scenario* scenario = arguments.size() == 4 ? FindScenario(arguments[0]) : nullptr;
    if (!scenario) {
        std::printf("unknown sweep\n");
        return 2;
    }
    size_t first = std::stoul(arguments[1]);
    unsigned perImport = static_cast<unsigned>(std::stoul(arguments[2]));
    ULONGLONG deadline = GetTickCount64() + std::stoull(arguments[3]);
    SweepRun sweep(*scenario, run);
    if (!sweep.Start()) {
        std::printf("no log server\n");
        return 1;
    }
    // Runs without faults: what a process does only once, then which imports
    // the scenario calls, how often, and how many handles it keeps.
    sweep.Run([] {});
    sweep.ResetBaseline();
    std::string dry = sweep.Run([] {});
    std::vector<Fault> faults = FaultsOf(sweep.Counts(), perImport);
    std::printf("dry %s faults=%zu\n", dry.c_str(), faults.size());
    Watchdog watchdog(scenario->limitMs);
    for (size_t i = first; i < faults.size(); ++i) {
        if (GetTickCount64() > deadline) {
            std::printf("stopped %zu\n", i);
            return 0;
        }
        const Fault& fault = faults[i];
        std::printf("begin %zu %s %u\n", i, fault.function.c_str(), fault.call);
        std::fflush(stdout);
        watchdog.Begin(i);
        ULONGLONG started = GetTickCount64();
        auto arm = [&fault] {
            FaultInjector::Fault armed;
            armed.function = fault.function;
            armed.call = fault.call;
            FaultInjector::Arm(armed);
        };
        std::string verdict = sweep.Run(arm);
        // What a process takes once (the first exception thrown in the
        // plug-in keeps two handles for good) is no leak: only handles that
        // stay open again when the same refusal comes again are.
        if (verdict.find("leak=") != std::string::npos)
            verdict = sweep.Run(arm);
        watchdog.End();
        std::printf("fault %zu %s %u fired=%u ms=%llu %s\n", i, fault.function.c_str(), fault.call,
                    sweep.Fired(), GetTickCount64() - started, verdict.c_str());
        std::fflush(stdout);
    }
    std::printf("done %zu\n", faults.size());
    return 0;
}
