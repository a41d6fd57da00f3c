#pragma once
// What the test suites and the test-bed programs share: running a program and
// capturing its output, text conversions, and the parent product's simulated
// installation (its registry value and the host library double).
#include "HostDouble.h"

#include <windows.h>

#include <map>
#include <string>
#include <vector>

struct ProcessResult {
    DWORD exitCode = 0;
    std::string output; // stdout and stderr together, in the order written
    bool timedOut = false;
};

// Runs a program, waits up to timeoutMs, captures its output (kill on time-out).
ProcessResult RunProcess(const std::vector<std::wstring>& arguments, DWORD timeoutMs = 60000);
// Quotes one argument by the rules CommandLineToArgvW/msvcrt parse back.
std::wstring QuoteArgument(const std::wstring& argument);

// Deletes a folder and everything in it; nothing when it is not there.
void RemoveFolderTree(const std::wstring& folder);

std::wstring BinDir(); // folder of the running executable, with trailing backslash
std::wstring BinPath(const wchar_t* name); // BinDir() + name

// The whole file as bytes; false when it cannot be read.
bool ReadFileBytes(const std::wstring& path, std::string& bytes);
// Every file under a folder: its path relative to the folder -> its bytes.
using FileTree = std::map<std::string, std::string>;
FileTree SnapshotFiles(const std::wstring& folder);
// Makes the file hold exactly `bytes` (its folder must exist); false when it cannot.
bool WriteFileBytes(const std::wstring& path, const std::string& bytes);
// A file or folder is at `path`.
bool PathExists(const std::wstring& path);
// `name` in the temp folder.
std::wstring TempPath(const wchar_t* name);
// The lines of a double's journal, in call order; empty when there is none.
std::vector<std::string> JournalLines(const std::wstring& path);
// A valid detection record in its short form, every field checked.
extern const char kValidDetectionRecord[];
// The same record in its long form: six more fields after the 26th, none of them checked.
std::string LongDetectionRecord();
// Where the Image File Execution Options keys live under HKEY_LOCAL_MACHINE, ending in a backslash.
extern const wchar_t kImageOptionsKey[];

// The process's open handles (under Wine: those with values up to the highest probed).
DWORD CountHandles(uintptr_t highestProbed = 0x10000);
// Splits at '\n', drops a '\r' before it and the empty piece after a final '\n'.
std::vector<std::string> SplitLines(const std::string& text);

enum class HostLibraryVariant { Full, WithoutSystemCall };

struct HostBehaviour {
    DWORD loaderVerdict = 1;    // what zephCnt_VerifyLoaderProcessSign answers
    DWORD systemCallStatus = 0; // what zephCnt_SystemCall returns
    std::string systemCallResponse = kDefaultSystemCallResponse;
};

// The parent product's simulated installation in the Wine prefix.
namespace SimulatedInstall {

extern const wchar_t kFolder[]; // L"C:\\ZephTestBed\\Corvale\\"
// The parent product's key under HKEY_LOCAL_MACHINE, which holds "Application Path".
extern const wchar_t kProductKey[];

// Writes "Application Path" = folder (REG_SZ, as given), creates the folder
// with its "Temp" folder, copies the chosen host library double into it as
// "zephAgent_64x.dll" and the HTTP library double as "Qvsock_64x.dll".
bool Create(HostLibraryVariant variant = HostLibraryVariant::Full,
            const std::wstring& folder = kFolder);
bool SetApplicationPath(const std::wstring& folder);
bool SetApplicationPathExpandable(const std::wstring& value); // REG_EXPAND_SZ
void RemoveApplicationPath();
// Deletes the value, the folder made by Create, the behaviour key and the journal.
void Remove();

bool SetHostBehaviour(const HostBehaviour& behaviour);
// Lines of the host library double's journal, in call order (empty when none).
std::vector<std::string> HostJournal();
void ClearHostJournal();

} // namespace SimulatedInstall
