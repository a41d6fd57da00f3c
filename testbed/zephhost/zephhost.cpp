// A command-line host for the plug-in: loads the DLL by path and calls its
// exports the way the host framework does, printing one fixed line per result
// so that tests and the demo can compare the output as text.
//
//   zephhost <dll> <call> [argument [argument]]
//   zephhost <dll> --script <file>      one "<call> <argument>" per line
//   zephhost <dll> update <source dir>  the host's update sequence in one process
//   zephhost <dll> [--threads <n>] --soak <count> <file>  <count> calls of each call in the
//                                 script, quietly, and the process's handle and memory growth;
//                                 queries and detection files from <n> threads at once
//   zephhost <dll> --threads <n> --concurrent <passes> <file> [<host file>]   <n> threads
//                                 released together make <passes> passes over the script each,
//                                 while this thread runs the host file's calls; see RunConcurrent
//   zephhost <dll> --fault "<fault>" ... <call> [argument]   the call with refusals armed
//   zephhost <dll> --sweep <scenario> <first> <calls per import> <ms>   see Sweep.h
//   zephhost --sweep-list                 the sweep's scenarios, "scenario <name>" a line
//
// A script may arm refusals of the system between its calls:
//   fault <function> <call>[+] [<error> [<value>]]   the function's call-th call from
//                                                    here on fails (with '+': every one
//                                                    from then on), last error <error>
//   fault-reset                                      none armed any more
//   faults                                           "fired <function> x<n>" per fired fault
#include "FaultInjector.h"
#include "Sweep.h"
#include "TestBed.h"

#include "ScopedHandle.h"
#include "zephExt_TarnClient.h"

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace {

constexpr uint32_t kDefaultTypeBufferSize = 64;
constexpr int kExitCannotLoad = 1;
constexpr int kExitUsage = 2;
constexpr int kExitMissingExport = 3;

#define ZEPH_EXPORT_LIST(X)                                                                        \
    X(zephExt_Init)                                                                                \
    X(zephExt_Deinit)                                                                              \
    X(zephExt_GetPrerequest)                                                                       \
    X(zephExt_CreateContext)                                                                       \
    X(zephExt_ReleaseContext)                                                                      \
    X(zephExt_OnCommand)                                                                           \
    X(zephExt_OnNotify)                                                                            \
    X(zephExt_OnQueryData)                                                                         \
    X(zephExt_Free)                                                                                \
    X(zephExt_PreUpdate)                                                                           \
    X(zephExt_DoUpdate)                                                                            \
    X(zephExt_PostUpdate)                                                                          \
    X(zephExt_Rollback)                                                                            \
    X(zephExt_ParseLog)

// The plug-in's entry points, each typed by its declaration in the header.
struct Exports {
#define ZEPH_DECLARE_EXPORT(name) decltype(&::name) name = nullptr;
    ZEPH_EXPORT_LIST(ZEPH_DECLARE_EXPORT)
#undef ZEPH_DECLARE_EXPORT
};

template <typename Function> bool Resolve(HMODULE module, const char* name, Function& entry) {
    entry = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (!entry)
        std::printf("missing export %s\n", name);
    return entry != nullptr;
}

// Reports every missing export, not only the first.
bool ResolveAll(HMODULE module, Exports& exports) {
    bool complete = true;
#define ZEPH_RESOLVE_EXPORT(name) complete = Resolve(module, #name, exports.name) && complete;
    ZEPH_EXPORT_LIST(ZEPH_RESOLVE_EXPORT)
#undef ZEPH_RESOLVE_EXPORT
    return complete;
}

std::string ArgumentAt(const std::vector<std::string>& arguments, size_t index) {
    return index < arguments.size() ? arguments[index] : std::string();
}

class Host {
  public:
    using Arguments = std::vector<std::string>;

    Host(HMODULE plugin, const Exports& exports) : m_plugin(plugin), m_exports(exports) {}

    // Gates the plug-in's imports, once; only a host that refuses calls does,
    // so every other run goes through the import table untouched.
    bool GateImports() {
        if (!FaultInjector::Attach(m_plugin)) {
            std::printf("cannot patch the plug-in's imports\n");
            return false;
        }
        return true;
    }

    // A quiet host prints nothing and counts each "<export> -> <result>" instead.
    void SetQuiet(bool quiet) { m_quiet = quiet; }
    // A capturing host appends what it would print to `capture` instead.
    void SetCapture(std::string* capture) { m_capture = capture; }
    std::map<std::string, unsigned> TakeTally() { return std::exchange(m_tally, {}); }
    void AddTally(const std::map<std::string, unsigned>& tally) {
        for (const auto& [result, calls] : tally)
            m_tally[result] += calls;
    }

    // Runs one call and flushes its lines; false for an unknown call.
    bool Run(const std::string& call, const Arguments& arguments) {
        static const std::map<std::string, void (Host::*)(const Arguments&)> calls = {
            {"init", &Host::Init},
            {"deinit", &Host::Deinit},
            {"prereq", &Host::Prerequisite},
            {"create-context", &Host::CreateContext},
            {"release-context", &Host::ReleaseContext},
            {"command", &Host::Command},
            {"notify", &Host::Notify},
            {"query", &Host::Query},
            {"free-null", &Host::FreeNull},
            {"preupdate", &Host::PreUpdate},
            {"doupdate", &Host::DoUpdate},
            {"postupdate", &Host::PostUpdate},
            {"rollback", &Host::Rollback},
            {"update", &Host::Update},
            {"update-rollback-after-pre", &Host::UpdateRollbackAfterPre},
            {"update-rollback-after-do", &Host::UpdateRollbackAfterDo},
            {"parselog", &Host::ParseLog},
            {"fault", &Host::ArmFault},
            {"fault-reset", &Host::ResetFaults},
            {"faults", &Host::PrintFaults},
        };
        auto found = calls.find(call);
        if (found == calls.end()) {
            std::printf("unknown call %s\n", call.c_str());
            std::fflush(stdout);
            return false;
        }
        (this->*found->second)(arguments);
        std::fflush(stdout);
        return true;
    }

  private:
    void Print(const char* format, ...) {
        if (m_quiet && !m_capture)
            return;
        va_list arguments;
        va_start(arguments, format);
        if (m_capture) {
            va_list measure;
            va_copy(measure, arguments);
            int length = std::vsnprintf(nullptr, 0, format, measure);
            va_end(measure);
            size_t start = m_capture->size();
            m_capture->resize(start + std::max(length, 0) + 1);
            std::vsnprintf(&(*m_capture)[start], std::max(length, 0) + 1, format, arguments);
            m_capture->pop_back(); // the terminator
        } else {
            std::vprintf(format, arguments);
        }
        va_end(arguments);
    }
    void PrintResult(const char* exportName, uint32_t result) {
        if (m_quiet)
            ++m_tally[std::string(exportName) + " -> " + std::to_string(result)];
        Print("%s -> %u\n", exportName, result);
    }
    void PrintText(const char* text, size_t length) {
        Print("%.*s\n", static_cast<int>(length), text);
    }

    void Init(const Arguments&) { PrintResult("zephExt_Init", m_exports.zephExt_Init()); }
    void Deinit(const Arguments&) { PrintResult("zephExt_Deinit", m_exports.zephExt_Deinit()); }

    // The host pre-fills the record so the output shows what the plug-in wrote.
    void Prerequisite(const Arguments&) {
        ZephPrerequisite record;
        std::memset(&record, 0xFF, sizeof(record)); // the padding after flag too
        record.reserved = 0xA5A5A5A5;
        PrintResult("zephExt_GetPrerequest", m_exports.zephExt_GetPrerequest(&record));
        Print("record: reserved=%u kind=%u major=%u minor=%u build=%u flag=%u\n", record.reserved,
              record.kind, record.major, record.minor, record.build,
              static_cast<unsigned>(record.flag));
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&record);
        Print("bytes:");
        for (size_t i = 0; i < sizeof(record); ++i)
            Print(" %02x", bytes[i]);
        Print("\n");
    }

    void CreateContext(const Arguments&) {
        PrintResult("zephExt_CreateContext", m_exports.zephExt_CreateContext(&m_context));
    }
    void ReleaseContext(const Arguments&) {
        PrintResult("zephExt_ReleaseContext", m_exports.zephExt_ReleaseContext(m_context));
        m_context = nullptr; // the plug-in has freed it
    }

    void Command(const Arguments& arguments) {
        std::string request = ArgumentAt(arguments, 0);
        PrintResult("zephExt_OnCommand",
                    m_exports.zephExt_OnCommand(m_context, static_cast<int32_t>(request.size()),
                                                request.c_str()));
    }
    void Notify(const Arguments& arguments) {
        std::string request = ArgumentAt(arguments, 0);
        PrintResult("zephExt_OnNotify",
                    m_exports.zephExt_OnNotify(m_context, static_cast<int32_t>(request.size()),
                                               request.c_str()));
    }

    // The response belongs to the plug-in until it is handed back.
    void Query(const Arguments& arguments) {
        std::string request = ArgumentAt(arguments, 0);
        uint32_t responseLength = 0;
        char* response = nullptr;
        PrintResult("zephExt_OnQueryData",
                    m_exports.zephExt_OnQueryData(m_context, static_cast<int32_t>(request.size()),
                                                  request.c_str(), &responseLength, &response));
        if (!response) {
            Print("response: null\n");
            return;
        }
        Print("response(%u): ", responseLength);
        PrintText(response, std::strlen(response));
        PrintResult("zephExt_Free", m_exports.zephExt_Free(response));
    }

    void FreeNull(const Arguments&) {
        PrintResult("zephExt_Free", m_exports.zephExt_Free(nullptr));
    }

    void PreUpdate(const Arguments&) {
        PrintResult("zephExt_PreUpdate", m_exports.zephExt_PreUpdate(nullptr, m_context));
        PrintCounter();
    }
    void DoUpdate(const Arguments& arguments) {
        ZephUpdateInfo info = {};
        std::wstring sourceDir = Widen(ArgumentAt(arguments, 0));
        wcsncpy(info.sourceDir, sourceDir.c_str(), MAX_PATH - 1);
        m_lastDoUpdate = m_exports.zephExt_DoUpdate(&info, m_context);
        PrintResult("zephExt_DoUpdate", m_lastDoUpdate);
        PrintCounter();
    }
    void PostUpdate(const Arguments&) {
        PrintResult("zephExt_PostUpdate", m_exports.zephExt_PostUpdate());
    }
    void Rollback(const Arguments&) {
        PrintResult("zephExt_Rollback", m_exports.zephExt_Rollback(nullptr, m_context));
        PrintCounter();
    }
    // The host's whole sequence: context, stages, then post-update after a
    // successful update or rollback after a failed stage, and release.
    void Update(const Arguments& arguments) { UpdateSequence(arguments, false); }
    // The same, rolled back after a successful pre-update.
    void UpdateRollbackAfterPre(const Arguments& arguments) { UpdateSequence(arguments, true); }
    // The same, rolled back after a successful update too.
    void UpdateRollbackAfterDo(const Arguments& arguments) {
        CreateContext(arguments);
        PreUpdate(arguments);
        if (m_context && *static_cast<int32_t*>(m_context) == 1)
            DoUpdate(arguments);
        Rollback(arguments);
        ReleaseContext(arguments);
    }
    void UpdateSequence(const Arguments& arguments, bool rollbackAfterPre) {
        CreateContext(arguments);
        PreUpdate(arguments);
        m_lastDoUpdate = 1;
        if (!rollbackAfterPre && m_context && *static_cast<int32_t*>(m_context) == 1)
            DoUpdate(arguments);
        if (m_lastDoUpdate == 0)
            PostUpdate(arguments);
        else
            Rollback(arguments);
        ReleaseContext(arguments);
    }
    void PrintCounter() {
        if (m_context)
            Print("step counter: %d\n", *static_cast<const int32_t*>(m_context));
    }

    void ParseLog(const Arguments& arguments) {
        std::wstring path = Widen(ArgumentAt(arguments, 0));
        uint32_t typeSize =
            arguments.size() > 1
                ? static_cast<uint32_t>(std::strtoul(arguments[1].c_str(), nullptr, 10))
                : kDefaultTypeBufferSize;
        std::vector<wchar_t> type(typeSize + 1, L'\0'); // one more: always terminated
        char* data = nullptr;
        uint32_t dataSize = 0;
        PrintResult("zephExt_ParseLog", m_exports.zephExt_ParseLog(path.c_str(), typeSize,
                                                                   type.data(), &data, &dataSize));
        Print("type: %s\n", Narrow(type.data()).c_str());
        if (!data)
            return;
        Print("data(%u): ", dataSize);
        PrintText(data, strnlen(data, dataSize));
        PrintResult("zephExt_Free", m_exports.zephExt_Free(data));
    }

    void ArmFault(const Arguments& arguments) {
        std::optional<FaultInjector::Fault> fault =
            FaultInjector::ParseFault(ArgumentAt(arguments, 0));
        if (!fault)
            Print("bad fault %s\n", ArgumentAt(arguments, 0).c_str());
        else if (GateImports())
            FaultInjector::Arm(*fault);
    }
    void ResetFaults(const Arguments&) { FaultInjector::Reset(); }
    void PrintFaults(const Arguments&) {
        for (const FaultInjector::ImportCount& count : FaultInjector::Counts())
            if (count.fired)
                Print("fired %s x%u\n", count.function.c_str(), count.fired);
    }

    HMODULE m_plugin;
    Exports m_exports;
    bool m_quiet = false;
    std::string* m_capture = nullptr;
    std::map<std::string, unsigned> m_tally;
    void* m_context = nullptr;
    uint32_t m_lastDoUpdate = 0;
};

// The wide command line, each argument as UTF-8.
std::vector<std::string> Utf8Arguments() {
    int count = 0;
    LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 0; wide && i < count; ++i)
        arguments.push_back(Narrow(wide[i]));
    LocalFree(wide);
    return arguments;
}

bool IsDecimal(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "<call> <argument to end of line>"; parselog's optional buffer size is the
// last word when it is a number.
std::pair<std::string, Host::Arguments> ParseScriptLine(const std::string& line) {
    size_t space = line.find(' ');
    std::string call = line.substr(0, space);
    if (space == std::string::npos)
        return {call, {}};
    std::string rest = line.substr(space + 1);
    size_t last = rest.rfind(' ');
    if (call == "parselog" && last != std::string::npos && IsDecimal(rest.substr(last + 1)))
        return {call, {rest.substr(0, last), rest.substr(last + 1)}};
    return {call, {rest}};
}

bool IsSkipped(const std::string& line) {
    return line.find_first_not_of(" \t") == std::string::npos || line[0] == '#';
}

using ScriptLine = std::pair<std::string, Host::Arguments>;

bool ReadScript(const std::string& file, std::vector<ScriptLine>& script) {
    std::string text;
    if (!ReadFileBytes(Widen(file), text)) {
        std::printf("cannot read script %s\n", file.c_str());
        return false;
    }
    for (const std::string& line : SplitLines(text))
        if (!IsSkipped(line))
            script.push_back(ParseScriptLine(line));
    return true;
}

int RunScript(Host& host, const std::vector<ScriptLine>& script) {
    for (const auto& [call, arguments] : script)
        if (!host.Run(call, arguments))
            return kExitUsage;
    return 0;
}

// What a soak watches: the process's open handles and its private bytes.
struct Footprint {
    DWORD handles = 0;
    SIZE_T privateBytes = 0;
};

// Committed private pages of the whole address space (GetProcessMemoryInfo's
// PrivateUsage is 0 under Wine).
SIZE_T CountPrivateBytes() {
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    SIZE_T total = 0;
    MEMORY_BASIC_INFORMATION region;
    auto* address = static_cast<const char*>(system.lpMinimumApplicationAddress);
    while (address < system.lpMaximumApplicationAddress &&
           VirtualQuery(address, &region, sizeof(region)) == sizeof(region)) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            total += region.RegionSize;
        address = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
    }
    return total;
}

Footprint MeasureFootprint() {
    return {CountHandles(), CountPrivateBytes()};
}

// Runs body(index) on `threads` threads released together once all are ready,
// and beside() on this thread meanwhile; returns when all are done.
template <typename Body, typename Beside>
void RunReleasedTogether(unsigned threads, const Body& body, const Beside& beside) {
    ScopedKernelHandle go(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::atomic<unsigned> ready{0};
    std::vector<std::thread> workers;
    for (unsigned index = 0; index < threads; ++index)
        workers.emplace_back([&, index] {
            ++ready;
            WaitForSingleObject(go.Get(), INFINITE);
            body(index);
        });
    while (ready < threads)
        SwitchToThread();
    SetEvent(go.Get());
    beside();
    for (std::thread& worker : workers)
        worker.join();
}

// The calls that the host may make from several threads at once.
bool IsConcurrent(const std::string& call) {
    return call == "query" || call == "parselog";
}

// The script's lines grouped by call, in order of first appearance; each
// group runs `count` calls, taking its lines in turn, after a tenth of that as
// warm-up. Queries and detection files are shared out over `threads` threads
// released together; commands and notices stay on this one. Prints per group
//   soak <call> x<count>, <n> threads: handles <a> -> <b>, private bytes <a> -> <b>, <ms> ms
// followed by one "  <export> -> <result> x<calls>" per result seen.
int RunSoak(Host& host, const std::vector<ScriptLine>& script, unsigned count, unsigned threads) {
    std::vector<std::pair<std::string, std::vector<Host::Arguments>>> groups;
    for (const auto& [call, arguments] : script) {
        auto group = std::find_if(groups.begin(), groups.end(),
                                  [&call = call](const auto& g) { return g.first == call; });
        if (group == groups.end())
            group = groups.insert(groups.end(), {call, {}});
        group->second.push_back(arguments);
    }
    host.SetQuiet(true);
    std::mutex tallyLock;
    for (const auto& [call, requests] : groups) {
        unsigned groupThreads = IsConcurrent(call) ? threads : 1;
        // Calls [first, last) of the group on `caller`.
        auto runShare = [&, &call = call, &requests = requests](Host& caller, unsigned first,
                                                                unsigned last) {
            bool known = true;
            for (unsigned i = first; i < last; ++i)
                known = caller.Run(call, requests[i % requests.size()]) && known;
            return known;
        };
        auto runCalls = [&](unsigned calls) {
            if (groupThreads == 1)
                return runShare(host, 0, calls);
            // Each worker starts from a copy of the host made before any of them
            // runs, with an empty tally, and adds its own tally when done.
            Host prototype(host);
            prototype.TakeTally();
            std::atomic<bool> known{true};
            RunReleasedTogether(
                groupThreads,
                [&](unsigned index) {
                    Host worker(prototype);
                    if (!runShare(worker, calls * index / groupThreads,
                                  calls * (index + 1) / groupThreads))
                        known = false;
                    std::lock_guard<std::mutex> guard(tallyLock);
                    host.AddTally(worker.TakeTally());
                },
                [] {});
            return known.load();
        };
        if (!runCalls(count / 10))
            return kExitUsage;
        host.TakeTally();
        Footprint before = MeasureFootprint();
        ULONGLONG start = GetTickCount64();
        runCalls(count);
        ULONGLONG elapsedMs = GetTickCount64() - start;
        Footprint after = MeasureFootprint();
        std::printf("soak %s x%u, %u threads: handles %lu -> %lu, private bytes %zu -> %zu, %llu "
                    "ms\n",
                    call.c_str(), count, groupThreads, before.handles, after.handles,
                    before.privateBytes, after.privateBytes, elapsedMs);
        for (const auto& [result, calls] : host.TakeTally())
            std::printf("  %s x%u\n", result.c_str(), calls);
        std::fflush(stdout);
    }
    return 0;
}

// What one call printed, on one line: each line end as "\n", a backslash doubled.
std::string OneLine(const std::string& printed) {
    std::string line;
    for (char c : printed)
        line += c == '\n'   ? std::string("\\n")
                : c == '\\' ? std::string("\\\\")
                            : std::string(1, c);
    return line;
}

// `threads` threads, released together, each make `passes` passes over the
// script, every thread starting at its own line so that different exports run
// at once. This thread runs the host script meanwhile; the host script's first
// call runs before the threads are released, so that with no host script the
// process's very first call is among theirs. Prints "host thread <id>", what
// the host script's calls print, then per script line (from 0) what its calls
// gave, each distinct outcome with its count:
//   outcomes <line> x<calls>: <distinct>
//     <count> <what the call printed, line ends as "\n", backslashes doubled>
// and last "concurrent: <n> threads, <calls> calls".
int RunConcurrent(const Host& prototype, const std::vector<ScriptLine>& script,
                  const std::vector<ScriptLine>& hostScript, unsigned threads, unsigned passes) {
    Host host(prototype);
    std::printf("host thread %lu\n", GetCurrentThreadId());
    size_t firstHostCalls = std::min<size_t>(1, hostScript.size());
    if (RunScript(host, {hostScript.begin(), hostScript.begin() + firstHostCalls}) != 0)
        return kExitUsage;
    using Outcomes = std::map<std::string, unsigned>;
    std::vector<std::vector<Outcomes>> seen(threads, std::vector<Outcomes>(script.size()));
    int hostExit = 0;
    RunReleasedTogether(
        threads,
        [&](unsigned index) {
            Host worker(prototype);
            std::string printed;
            worker.SetCapture(&printed);
            for (unsigned pass = 0; pass < passes; ++pass)
                for (size_t i = 0; i < script.size(); ++i) {
                    size_t line = (i + index) % script.size();
                    printed.clear();
                    worker.Run(script[line].first, script[line].second);
                    ++seen[index][line][printed];
                }
        },
        [&] {
            hostExit = RunScript(host, {hostScript.begin() + firstHostCalls, hostScript.end()});
        });
    for (size_t line = 0; line < script.size(); ++line) {
        Outcomes merged;
        for (const std::vector<Outcomes>& thread : seen)
            for (const auto& [printed, count] : thread[line])
                merged[printed] += count;
        std::printf("outcomes %zu x%u: %zu\n", line, threads * passes, merged.size());
        for (const auto& [printed, count] : merged)
            std::printf("  %u %s\n", count, OneLine(printed).c_str());
    }
    std::printf("concurrent: %u threads, %zu calls\n", threads,
                static_cast<size_t>(threads) * passes * script.size());
    return hostExit;
}

// The options between the DLL's path and the call, removed from `arguments`.
struct HostOptions {
    std::vector<std::string> faults; // each "--fault <fault>"
    unsigned threads = 1;            // "--threads <n>"
    bool valid = true;
};

HostOptions TakeHostOptions(std::vector<std::string>& arguments) {
    HostOptions options;
    while (arguments.size() > 3 && (arguments[2] == "--fault" || arguments[2] == "--threads")) {
        if (arguments[2] == "--fault")
            options.faults.push_back(arguments[3]);
        else if (IsDecimal(arguments[3]) && arguments[3].size() <= 2 &&
                 std::stoul(arguments[3]) - 1 < 64)
            options.threads = static_cast<unsigned>(std::stoul(arguments[3]));
        else
            options.valid = false;
        arguments.erase(arguments.begin() + 2, arguments.begin() + 4);
    }
    return options;
}

int Usage() {
    std::fprintf(stderr, "usage: zephhost <dll path> <call> [argument]\n"
                         "       zephhost <dll path> --script <file>\n"
                         "       zephhost <dll path> [--threads <n>] --soak <count> <file>\n"
                         "       zephhost <dll path> --threads <n> --concurrent <passes> <file> "
                         "[<host file>]\n"
                         "       zephhost <dll path> --sweep <scenario> <first> <calls> <ms>\n"
                         "       zephhost <dll path> --fault \"<fault>\" ... <call> [argument]\n");
    return kExitUsage;
}

} // namespace

int main() {
    // Plain "\n" line ends, whatever reads the output.
    _setmode(_fileno(stdout), _O_BINARY);
    std::vector<std::string> arguments = Utf8Arguments();
    if (arguments.size() == 2 && arguments[1] == "--sweep-list") {
        for (const std::string& name : SweepScenarios())
            std::printf("scenario %s\n", name.c_str());
        return 0;
    }
    HostOptions options = TakeHostOptions(arguments);
    const std::string mode = arguments.size() > 2 ? arguments[2] : std::string();
    bool isScript = mode == "--script", isSoak = mode == "--soak", isSweep = mode == "--sweep";
    bool isConcurrent = mode == "--concurrent";
    bool countGiven = arguments.size() > 3 && IsDecimal(arguments[3]);
    if (arguments.size() < 3 || !options.valid || (isScript && arguments.size() != 4) ||
        (isSoak && (arguments.size() != 5 || !countGiven)) ||
        (isConcurrent && (arguments.size() < 5 || arguments.size() > 6 || !countGiven)))
        return Usage();
    ScopedModule plugin(LoadLibraryW(Widen(arguments[1]).c_str()));
    if (!plugin) {
        std::printf("cannot load %s error=%lu\n", arguments[1].c_str(), GetLastError());
        return kExitCannotLoad;
    }
    Exports exports;
    if (!ResolveAll(plugin.Get(), exports)) {
        std::fflush(stdout);
        return kExitMissingExport;
    }
    Host host(plugin.Get(), exports);
    for (const std::string& fault : options.faults)
        if (!host.Run("fault", {fault}))
            return kExitUsage;
    // Wine drops a process's service-manager association when its last handle
    // closes, and refuses a handle that another thread opens at that moment
    // (ERROR_INVALID_HANDLE); Windows has no such race. A host whose threads
    // call at once keeps one connection open so the association stays.
    ScopedServiceHandle keepsServiceManagerAssociation(
        options.threads > 1 ? OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT) : nullptr);
    std::vector<ScriptLine> script, hostScript;
    if ((isScript || isSoak) && !ReadScript(arguments.back(), script))
        return kExitCannotLoad;
    if (isConcurrent && (!ReadScript(arguments[4], script) ||
                         (arguments.size() == 6 && !ReadScript(arguments[5], hostScript))))
        return kExitCannotLoad;
    if (isScript)
        return RunScript(host, script);
    if (isSoak)
        return RunSoak(host, script, static_cast<unsigned>(std::stoul(arguments[3])),
                       options.threads);
    if (isConcurrent)
        return RunConcurrent(host, script, hostScript, options.threads,
                             static_cast<unsigned>(std::stoul(arguments[3])));
    if (isSweep) {
        if (!host.GateImports())
            return kExitCannotLoad;
        host.SetQuiet(true);
        auto runQuietly = [&host](const std::vector<std::string>& lines) {
            for (const std::string& line : lines) {
                ScriptLine call = ParseScriptLine(line);
                host.Run(call.first, call.second);
            }
            return host.TakeTally();
        };
        return RunSweep(runQuietly, {arguments.begin() + 3, arguments.end()});
    }
    Host::Arguments callArguments(arguments.begin() + 3, arguments.end());
    return host.Run(arguments[2], callArguments) ? 0 : kExitUsage;
}
