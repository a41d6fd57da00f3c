#pragma once
// Driving the plug-in as the host does: zephhost.exe loads the DLL beside the
// suites in a fresh process and makes one call from its command line or each
// call of a script, "<call> <argument>" a line.
#include "LogServer.h"
#include "TestBed.h"

#include <map>

// zephhost.exe with the plug-in and `arguments` ("query <json>", "prereq", ...).
ProcessResult RunHost(const std::vector<std::wstring>& arguments, DWORD timeoutMs = 60000);
// The script's calls in one zephhost.exe process.
ProcessResult RunHostScript(const std::vector<std::string>& calls, DWORD timeoutMs = 180000);
// The calls as a script file of that name in the temp folder; answers its path.
std::wstring WriteHostScript(const std::vector<std::string>& calls,
                             const wchar_t* name = L"zephhost_script.txt");

// Script lines of the JSON exports' requests.
std::string Command(const std::string& id, const std::string& data);
std::string Service(const std::string& type); // start or stop the agent
std::string Install();                        // the package beside the suites
std::string Uninstall();
std::string Policy(int flag);
std::string SelfProtection(int service);
std::string MoveClient();
std::string Query(const std::string& id, const std::string& data = "{}");
// The four queries, each with the data it needs.
std::vector<std::string> EveryQuery();

// What `zephhost --threads <n> --concurrent` reported.
struct ConcurrentRun {
    unsigned long hostThread = 0;
    std::vector<std::string> hostOutput; // what the host thread's own calls printed
    // Per line of the calls: what a call printed -> how many calls printed it.
    std::vector<std::map<std::string, unsigned>> outcomes;
    bool completed = false;         // exit code 0 and the closing line printed
    std::vector<LogRecord> records; // filled by callers that listen to the log server
};
// `calls` on `threads` threads released together, `passes` each, beside
// `hostCalls` on the host's thread.
ConcurrentRun RunConcurrentHost(unsigned threads, unsigned passes,
                                const std::vector<std::string>& calls,
                                const std::vector<std::string>& hostCalls, DWORD timeoutMs);
// How calls made from many threads compare with the same calls of a lone caller.
struct ThreadTally {
    unsigned threads = 0, calls = 0, disturbed = 0, lost = 0, extra = 0, bindings = 0;
    std::vector<std::string> differences; // one text each; none when the runs agree
};
// `concurrent` made `passes` passes over `calls` on each of `threads`, `once` and `twice`
// are a lone caller's runs of one and two passes, each with its records. Every
// pass of a lone caller after the first (which binds and makes what the calls
// make) repeats its records, so the two give the count of every text for any
// number of passes; a torn record counts as one lost and one extra.
ThreadTally CompareWithLoneRuns(const ConcurrentRun& concurrent, const ConcurrentRun& once,
                                const ConcurrentRun& twice, unsigned threads, unsigned passes,
                                const std::vector<std::string>& calls,
                                const std::wstring& bindingText);
// "threads: <n> threads, <n> calls, <n> disturbed, <n> lost, <n> extra, <n> bindings"
std::string Summary(const ThreadTally& tally);
// What each query of a --script run's output printed, in order, as a
// concurrent host captures it.
std::vector<std::string> QueryAnswers(const std::vector<std::string>& output);
