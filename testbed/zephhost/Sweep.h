#pragma once
// The fault sweep's scenarios, run inside zephhost.exe with the plug-in loaded
// and its imports gated: a run without faults finds which imports each
// scenario calls, then each of their first calls is refused in turn and the
// scenario run again from a fresh set-up.
#include <functional>
#include <map>
#include <string>
#include <vector>

// Runs script lines quietly; answers how often each "<export> -> <result>" came.
using SweepCalls = std::function<std::map<std::string, unsigned>(const std::vector<std::string>&)>;

// Names of every scenario, in sweep order.
std::vector<std::string> SweepScenarios();

// zephhost <dll> --sweep <scenario> <first fault> <calls per import> <milliseconds>
// Prints "begin <i> <function> <call>" before and, after it,
//   "fault <i> <function> <call> fired=<n> ms=<elapsed> <verdict>"
// for each fault from the first on, the verdict "ok" or the problems found
// ("result=<export -> result>", "leak=<handles>", "torn-log", "loss"), and
// "done <faults>" or, once the milliseconds are spent, "stopped <i>". A call
// that runs past the scenario's limit prints "hang <i>" and ends the process.
int RunSweep(const SweepCalls& run, const std::vector<std::string>& arguments);
