#include "FaultInjector.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <set>

namespace FaultInjector {
namespace {

// One per patched import. The dispatcher below reads the first two members,
// so they stay first and in this order.
struct Gate {
    void* forward = nullptr; // where a call that does not fail goes
    uint64_t failValue = 0;  // what a call that fails returns
    std::string module;
    std::string function;
    bool setsErrno = false; // a C runtime function reports through errno too
    std::atomic<unsigned> calls{0};
    unsigned fired = 0;
};
static_assert(offsetof(Gate, forward) == 0 && offsetof(Gate, failValue) == 8,
              "FaultGateDispatch reads these offsets");

struct State {
    std::atomic<bool> armed{false}; // any fault: otherwise a call only counts
    std::mutex lock;
    std::deque<Gate> gates;                     // never moves a gate: stubs point at them
    std::map<void*, void*> stubsByFunction;     // what GetProcAddress answered -> its stub
    std::map<std::string, Fault> faults;        // armed, by function
    std::map<std::string, unsigned> namedCalls; // calls that a fault's naming matched
    std::map<HMODULE, bool> attached;
    BYTE* stubSpace = nullptr;
    size_t stubSpaceLeft = 0;
};

State& Shared() {
    static State state;
    return state;
}

// Lower-case ASCII, so that a naming matches a path in any case.
std::string Folded(const std::wstring& text) {
    std::string folded;
    for (wchar_t c : text)
        folded += c < 128 ? static_cast<char>(tolower(c)) : '?';
    return folded;
}

bool TakesHandleFirst(const std::string& function) {
    static const std::set<std::string> functions = {"ReadFile",
                                                    "WriteFile",
                                                    "SetNamedPipeHandleState",
                                                    "GetOverlappedResult",
                                                    "CancelIo",
                                                    "GetFileSizeEx",
                                                    "GetFileInformationByHandle",
                                                    "FlushFileBuffers",
                                                    "SetFilePointer",
                                                    "SetEndOfFile",
                                                    "SetFileTime"};
    return functions.count(function) != 0;
}

// What a call's first argument names: the text of a path, or the name of the
// file or pipe a handle is open on ("\\OIPC_..." for a pipe).
std::string FirstArgumentName(const std::string& function, uintptr_t argument) {
    if (!argument)
        return {};
    if (TakesHandleFirst(function)) {
        alignas(FILE_NAME_INFO) BYTE buffer[sizeof(FILE_NAME_INFO) + MAX_PATH * sizeof(WCHAR)] = {};
        auto* info = reinterpret_cast<FILE_NAME_INFO*>(buffer);
        if (!GetFileInformationByHandleEx(reinterpret_cast<HANDLE>(argument), FileNameInfo, info,
                                          sizeof(buffer)))
            return {};
        return Folded(std::wstring(info->FileName, info->FileNameLength / sizeof(WCHAR)));
    }
    if (function.back() == 'W' || function.rfind("_w", 0) == 0)
        return Folded(reinterpret_cast<const wchar_t*>(argument));
    const char* narrow = reinterpret_cast<const char*>(argument);
    return Folded(std::wstring(narrow, narrow + strlen(narrow)));
}

// Caller holds the lock: which call of the fault this is, or 0 when the
// fault's naming does not match it.
unsigned CallOfFault(State& state, const Fault& fault, const Gate& gate, uintptr_t argument) {
    if (fault.naming.empty())
        return gate.calls;
    if (FirstArgumentName(fault.function, argument).find(fault.naming) == std::string::npos)
        return 0;
    return ++state.namedCalls[fault.function];
}

} // namespace
} // namespace FaultInjector

using FaultInjector::Gate;

// Decides one call: 0 passes it on with the last error (and errno) as they
// were, 1 fails it with the armed fault's value and error.
extern "C" int FaultGateDecide(Gate* gate, uintptr_t firstArgument) {
    auto& state = FaultInjector::Shared();
    if (!state.armed.load(std::memory_order_relaxed)) { // touches neither last error nor errno
        gate->calls.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    DWORD lastError = GetLastError();
    int savedErrno = errno;
    DWORD error = 0;
    bool fails = false;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        ++gate->calls;
        auto armed = state.faults.find(gate->function);
        if (armed != state.faults.end()) {
            const FaultInjector::Fault& fault = armed->second;
            unsigned call = FaultInjector::CallOfFault(state, fault, *gate, firstArgument);
            fails = call != 0 && (call == fault.call || (fault.onward && call > fault.call));
            if (fails) {
                ++gate->fired;
                error = fault.error;
                gate->failValue =
                    fault.value ? *fault.value : FaultInjector::FailureValue(fault.function, error);
            }
        }
    }
    errno = fails && gate->setsErrno ? static_cast<int>(error) : savedErrno;
    SetLastError(fails ? error : lastError);
    return fails ? 1 : 0;
}

// Every stub loads its gate into r10 and jumps here. The argument registers
// (and the first four vector registers) are kept in the caller's home space
// and this frame while the decision is made, then either the real function
// runs as if called directly (a tail jump, so its own frame is the caller's)
// or the gate's failure value is returned. x64 callers clean their own stack,
// so one return serves every signature.
extern "C" void FaultGateDispatch();
asm(R"(
    .text
    .globl FaultGateDispatch
    .def FaultGateDispatch; .scl 2; .type 32; .endef
FaultGateDispatch:
    .seh_proc FaultGateDispatch
    movq %rcx, 8(%rsp)
    movq %rdx, 16(%rsp)
    movq %r8, 24(%rsp)
    movq %r9, 32(%rsp)
    subq $0x68, %rsp
    .seh_stackalloc 0x68
    .seh_endprologue
    movdqu %xmm0, 0x20(%rsp)
    movdqu %xmm1, 0x30(%rsp)
    movdqu %xmm2, 0x40(%rsp)
    movdqu %xmm3, 0x50(%rsp)
    movq %r10, 0x60(%rsp)
    movq %r10, %rcx
    movq 0x70(%rsp), %rdx
    call FaultGateDecide
    movq 0x60(%rsp), %r10
    movdqu 0x20(%rsp), %xmm0
    movdqu 0x30(%rsp), %xmm1
    movdqu 0x40(%rsp), %xmm2
    movdqu 0x50(%rsp), %xmm3
    addq $0x68, %rsp
    movq 8(%rsp), %rcx
    movq 16(%rsp), %rdx
    movq 24(%rsp), %r8
    movq 32(%rsp), %r9
    testl %eax, %eax
    jnz 1f
    jmpq *(%r10)
1:
    movq 8(%r10), %rax
    ret
    .seh_endproc
)");

namespace FaultInjector {
namespace {

// mov r10, <gate>; jmp [rip]; <FaultGateDispatch>
constexpr size_t kStubSize = 24;
constexpr size_t kStubSpaceSize = 64 * 1024;

void* MakeStub(State& state, Gate& gate) {
    if (state.stubSpaceLeft < kStubSize) {
        state.stubSpace = static_cast<BYTE*>(VirtualAlloc(
            nullptr, kStubSpaceSize, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
        if (!state.stubSpace)
            return nullptr;
        state.stubSpaceLeft = kStubSpaceSize;
    }
    BYTE* stub = state.stubSpace;
    Gate* gateAddress = &gate;
    void* dispatch = reinterpret_cast<void*>(&FaultGateDispatch);
    const BYTE code[] = {0x49, 0xBA, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0x25, 0, 0, 0, 0};
    memcpy(stub, code, sizeof(code));
    memcpy(stub + 2, &gateAddress, sizeof(gateAddress));
    memcpy(stub + sizeof(code), &dispatch, sizeof(dispatch));
    state.stubSpace += kStubSize;
    state.stubSpaceLeft -= kStubSize;
    FlushInstructionCache(GetCurrentProcess(), stub, kStubSize);
    return stub;
}

bool IsCRuntime(const std::string& module) {
    return _stricmp(module.c_str(), "msvcrt.dll") == 0 ||
           _strnicmp(module.c_str(), "api-ms-win-crt-", 15) == 0 ||
           _stricmp(module.c_str(), "ucrtbase.dll") == 0;
}

// Caller holds the lock.
void* NewGate(State& state, const std::string& module, const std::string& function, void* forward) {
    Gate& gate = state.gates.emplace_back();
    gate.forward = forward;
    gate.module = module;
    gate.function = function;
    gate.setsErrno = IsCRuntime(module);
    return MakeStub(state, gate);
}

std::string ModuleName(HMODULE module) {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, MAX_PATH);
    const char* slash = strrchr(path, '\\');
    return slash ? slash + 1 : path;
}

// What the patched module's GetProcAddress calls reach when they pass the
// gate: a function looked up by name gets a gate of its own (one per
// function, however often it is asked for).
FARPROC WINAPI GatedGetProcAddress(HMODULE module, LPCSTR name) {
    FARPROC real = GetProcAddress(module, name);
    if (!real || IS_INTRESOURCE(name))
        return real;
    DWORD lastError = GetLastError();
    State& state = Shared();
    std::lock_guard<std::mutex> guard(state.lock);
    void* realAddress = reinterpret_cast<void*>(real);
    void*& stub = state.stubsByFunction[realAddress];
    if (!stub)
        stub = NewGate(state, ModuleName(module), name, realAddress);
    SetLastError(lastError);
    return stub ? reinterpret_cast<FARPROC>(stub) : real;
}

// Caller holds the lock.
void RestartCounts(State& state) {
    for (Gate& gate : state.gates)
        gate.calls = gate.fired = 0;
    state.namedCalls.clear();
}

bool Patch(ULONGLONG& entry, void* stub) {
    DWORD protection = 0;
    if (!stub || !VirtualProtect(&entry, sizeof(entry), PAGE_READWRITE, &protection))
        return false;
    entry = reinterpret_cast<ULONGLONG>(stub);
    VirtualProtect(&entry, sizeof(entry), protection, &protection);
    return true;
}

std::string ImportName(BYTE* base, const IMAGE_THUNK_DATA& name) {
    if (IMAGE_SNAP_BY_ORDINAL(name.u1.Ordinal))
        return "#" + std::to_string(IMAGE_ORDINAL(name.u1.Ordinal));
    return reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + name.u1.AddressOfData)->Name;
}

} // namespace

bool Attach(HMODULE module) {
    State& state = Shared();
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.attached[module])
        return true;
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (!imports.VirtualAddress)
        return false;
    auto* descriptor = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
    for (; descriptor->Name; ++descriptor) {
        std::string dll = reinterpret_cast<const char*>(base + descriptor->Name);
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->OriginalFirstThunk);
        auto* table = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++table) {
            std::string function = ImportName(base, *names);
            void* forward = function == "GetProcAddress"
                                ? reinterpret_cast<void*>(&GatedGetProcAddress)
                                : reinterpret_cast<void*>(table->u1.Function);
            if (!Patch(table->u1.Function, NewGate(state, dll, function, forward)))
                return false;
        }
    }
    state.attached[module] = true;
    return true;
}

void Arm(const Fault& fault) {
    State& state = Shared();
    std::lock_guard<std::mutex> guard(state.lock);
    state.faults[fault.function] = fault;
    state.armed = true;
    RestartCounts(state);
}

void Reset() {
    State& state = Shared();
    std::lock_guard<std::mutex> guard(state.lock);
    state.faults.clear();
    state.armed = false;
    RestartCounts(state);
}

std::vector<ImportCount> Counts() {
    State& state = Shared();
    std::lock_guard<std::mutex> guard(state.lock);
    std::vector<ImportCount> counts;
    for (const Gate& gate : state.gates)
        counts.push_back({gate.module, gate.function, gate.calls, gate.fired});
    return counts;
}

namespace {

enum class Failure { Zero, AllOnes, TheError, One };

// The documented failure result of each function the plug-in imports or looks
// up that can fail; all-ones stands for INVALID_HANDLE_VALUE, -1, EOF,
// WAIT_FAILED and INVALID_FILE_ATTRIBUTES alike (callers read only as many
// bytes as the type has).
const std::map<std::string, Failure>& FailureTable() {
    static const std::map<std::string, Failure> table = [] {
        std::map<std::string, Failure> t;
        for (const char* name : {"CloseServiceHandle",
                                 "OpenSCManagerW",
                                 "OpenServiceW",
                                 "QueryServiceStatusEx",
                                 "StartServiceW",
                                 "CancelIo",
                                 "CloseHandle",
                                 "CopyFileW",
                                 "CreateDirectoryA",
                                 "CreateDirectoryW",
                                 "CreateEventA",
                                 "CreateEventW",
                                 "CreateHardLinkW",
                                 "CreatePipe",
                                 "CreateProcessW",
                                 "CreateSemaphoreA",
                                 "DeleteFileA",
                                 "DeleteFileW",
                                 "DosDateTimeToFileTime",
                                 "DuplicateHandle",
                                 "GetProcessHeap",
                                 "ExpandEnvironmentStringsW",
                                 "FindClose",
                                 "FindNextFileW",
                                 "FindNextVolumeW",
                                 "FindVolumeClose",
                                 "FlushFileBuffers",
                                 "FormatMessageA",
                                 "FreeLibrary",
                                 "GetDiskFreeSpaceExW",
                                 "GetExitCodeProcess",
                                 "GetFileInformationByHandle",
                                 "GetFileSizeEx",
                                 "GetFullPathNameW",
                                 "GetHandleInformation",
                                 "GetModuleFileNameA",
                                 "GetModuleFileNameW",
                                 "GetModuleHandleW",
                                 "GetOverlappedResult",
                                 "GetProcAddress",
                                 "GetSystemDirectoryW",
                                 "GetTempPathW",
                                 "GetVersionExW",
                                 "GetVolumeInformationW",
                                 "HeapAlloc",
                                 "HeapFree",
                                 "LoadLibraryA",
                                 "LoadLibraryW",
                                 "LocalFileTimeToFileTime",
                                 "MoveFileExW",
                                 "MultiByteToWideChar",
                                 "OpenProcess",
                                 "ReadFile",
                                 "RemoveDirectoryW",
                                 "ResetEvent",
                                 "SetEndOfFile",
                                 "SetEvent",
                                 "SetFileAttributesW",
                                 "SetFileTime",
                                 "SetNamedPipeHandleState",
                                 "VirtualProtect",
                                 "WaitNamedPipeW",
                                 "WideCharToMultiByte",
                                 "WriteFile",
                                 "WritePrivateProfileStringW",
                                 "PathAppendW",
                                 "GetFileVersionInfoSizeW",
                                 "GetFileVersionInfoW",
                                 "VerQueryValueW",
                                 "CryptCATAdminAcquireContext",
                                 "CryptCATAdminAcquireContext2",
                                 "CryptCATAdminCalcHashFromFileHandle",
                                 "CryptCATAdminCalcHashFromFileHandle2",
                                 "CryptCATAdminEnumCatalogFromHash",
                                 "CryptCATAdminReleaseCatalogContext",
                                 "CryptCATAdminReleaseContext",
                                 "CryptCATCatalogInfoFromContext",
                                 "WTHelperGetProvSignerFromChain",
                                 "WTHelperProvDataFromStateData",
                                 "LoadLibraryExW",
                                 "_wfopen",
                                 "fopen",
                                 "_fdopen",
                                 "malloc",
                                 "calloc",
                                 "realloc",
                                 "_strdup",
                                 "fread",
                                 "fwrite",
                                 "_wfullpath",
                                 "_wgetcwd"})
            t[name] = Failure::Zero;
        for (const char* name : {"CreateFileA",
                                 "CreateFileW",
                                 "FindFirstFileExW",
                                 "FindFirstVolumeW",
                                 "GetFileAttributesA",
                                 "GetFileAttributesW",
                                 "SetFilePointer",
                                 "WaitForSingleObject",
                                 "WaitForMultipleObjects",
                                 "_wremove",
                                 "_wmkdir",
                                 "_wchmod",
                                 "_wstat64",
                                 "_fstat64",
                                 "_wopen",
                                 "_close",
                                 "_read",
                                 "_write",
                                 "fclose",
                                 "fflush",
                                 "fputs",
                                 "fputc",
                                 "fseek",
                                 "ftell",
                                 "_wfindfirst64",
                                 "_wfindnext64",
                                 "_wutime64",
                                 "_lseeki64",
                                 "_telli64"})
            t[name] = Failure::AllOnes;
        for (const char* name : {"RegCloseKey", "RegCreateKeyExW", "RegOpenKeyExW",
                                 "RegQueryValueExW", "RegSetValueExW", "WinVerifyTrust"})
            t[name] = Failure::TheError;
        t["CertGetNameStringW"] = Failure::One; // only the terminating null: no name
        return t;
    }();
    return table;
}

} // namespace

uint64_t FailureValue(const std::string& function, DWORD error) {
    auto found = FailureTable().find(function);
    Failure failure = found == FailureTable().end() ? Failure::Zero : found->second;
    switch (failure) {
    case Failure::AllOnes:
        return ~uint64_t{0};
    case Failure::TheError:
        return error;
    case Failure::One:
        return 1;
    default:
        return 0;
    }
}

bool CanFail(const std::string& function) {
    return FailureTable().count(function) != 0;
}

std::optional<Fault> ParseFault(const std::string& text) {
    char function[128] = {};
    char call[32] = {};
    char error[32] = {};
    char value[32] = {};
    int fields = sscanf(text.c_str(), "%127s %31s %31s %31s", function, call, error, value);
    if (fields < 2)
        return std::nullopt;
    Fault fault;
    fault.function = function;
    size_t open = fault.function.find('(');
    if (open != std::string::npos) {
        if (fault.function.back() != ')' || open + 2 >= fault.function.size())
            return std::nullopt;
        std::string naming = fault.function.substr(open + 1, fault.function.size() - open - 2);
        fault.naming = Folded(std::wstring(naming.begin(), naming.end()));
        fault.function.erase(open);
    }
    char* end = nullptr;
    fault.call = static_cast<unsigned>(strtoul(call, &end, 0));
    fault.onward = *end == '+';
    if (end == call || fault.call == 0 || (*end && !(fault.onward && !end[1])))
        return std::nullopt;
    if (fields >= 3) {
        fault.error = static_cast<DWORD>(strtoul(error, &end, 0));
        if (*end)
            return std::nullopt;
    }
    if (fields == 4) {
        fault.value = strtoull(value, &end, 0);
        if (*end)
            return std::nullopt;
    }
    return fault;
}

} // namespace FaultInjector
