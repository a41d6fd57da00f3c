#pragma once
// Makes the system refuse the plug-in on purpose. Attach patches every entry
// of a loaded module's import address table (and wraps what its
// GetProcAddress hands back) with a gate that counts the calls and either
// passes each one on untouched or, for an armed fault, returns the function's
// failure value with a chosen last error instead of calling it. Nothing in the
// module changes but its table, so the shipped DLL is what runs.
#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace FaultInjector {

struct Fault {
    std::string function; // as the module imports it: "OpenSCManagerW", "_wremove", ...
    unsigned call = 1;    // the call that fails, counted from when the fault is armed
    bool onward = false;  // and every call after it
    DWORD error = ERROR_ACCESS_DENIED; // the last error (and errno for C runtime functions)
    std::optional<uint64_t> value;     // returned instead of the documented failure value
    // When set (kept in lower case), only the calls whose first argument names
    // this text count: a path (case-insensitive part of it) or, for a function
    // that takes a handle first, the file or pipe the handle is open on. The
    // plug-in's log and agent pipes share their imports; this tells their
    // calls apart.
    std::string naming;
};

struct ImportCount {
    std::string module; // the DLL it comes from, as the import table names it
    std::string function;
    unsigned calls = 0; // since the last Arm or Reset
    unsigned fired = 0;
};

// Patches `module`'s imports; false when it has no import table or a page
// cannot be made writable. Attaching a second time changes nothing.
bool Attach(HMODULE module);

// Adds the fault (replacing one for the same function) and restarts every count.
void Arm(const Fault& fault);
// No faults armed; every count restarts.
void Reset();

// Every gate in the order it was made (imports first, then what
// GetProcAddress handed back), with its counts.
std::vector<ImportCount> Counts();

// What the function returns when it fails, as its documentation gives it;
// those that return their error (the registry's, WinVerifyTrust) return `error`.
uint64_t FailureValue(const std::string& function, DWORD error);
// Whether the function can fail at all: false for those that cannot report a
// failure (lstrlenW, memcpy, GetLastError, EnterCriticalSection, ...).
bool CanFail(const std::string& function);

// "<function>[(<naming>)] <call>[+] [<error> [<value>]]", numbers in decimal
// or 0x hex: "OpenSCManagerW 1 5", "RegSetValueExW 2+ 5",
// "WinVerifyTrust 1 0 0x800B0100", "WriteFile(OIPC_TARNAGENT) 1 232".
std::optional<Fault> ParseFault(const std::string& text);

} // namespace FaultInjector
