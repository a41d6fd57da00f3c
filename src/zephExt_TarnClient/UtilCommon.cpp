#include "UtilCommon.h"

#include "DebugLog.h"
#include "CUnzip.h"
#include "AnsiText.h"
#include "ScopedHandle.h"

#include <string>

namespace {

constexpr DWORD kChildTimeoutMs = 300000;

// The pipe whose ends stand in for the child's output. The output is never
// read: the child runs with handle inheritance off in a console of its own.
struct LaunchPipe {
    ScopedKernelHandle read;
    ScopedKernelHandle write;
    ScopedKernelHandle errorWrite;
    ScopedKernelHandle readDuplicate;

    ~LaunchPipe() { CloseAll(); }

    void CloseAll() {
        Close(write, L"%s - CloseHandle for output write failed, err=%d");
        Close(errorWrite, L"%s - CloseHandle for output error write failed, err=%d");
        Close(readDuplicate, L"%s - CloseHandle for output read failed, err=%d");
        Close(read, L"%s - CloseHandle for temp output read failed, err=%d");
    }

    static void Close(ScopedKernelHandle& handle, const wchar_t* failure) {
        if (handle && !CloseHandle(handle.Release()))
            LOGW(LOG_ERROR, failure, L"LaunchCmd", static_cast<int>(GetLastError()));
    }
};

bool DuplicateWithinProcess(HANDLE source, BOOL inheritable, ScopedKernelHandle& duplicate) {
    HANDLE process = GetCurrentProcess();
    HANDLE raw = nullptr;
    if (!DuplicateHandle(process, source, process, &raw, 0, inheritable, DUPLICATE_SAME_ACCESS))
        return false;
    duplicate.Reset(raw);
    return true;
}

} // namespace

bool LaunchCmd(const wchar_t* program, const wchar_t* arguments, void* /*unused*/,
               uint32_t* exitCode) {
    const wchar_t* self = L"LaunchCmd";
    SECURITY_ATTRIBUTES inheritable = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!CreatePipe(&read, &write, &inheritable, 0)) {
        LOGW(LOG_ERROR, L"%s - CreatePipe failed, err=%d", self, static_cast<int>(GetLastError()));
        return false;
    }
    LaunchPipe pipe;
    pipe.read.Reset(read);
    pipe.write.Reset(write);
    if (!DuplicateWithinProcess(pipe.write.Get(), TRUE, pipe.errorWrite)) {
        LOGW(LOG_ERROR, L"%s - DuplicateHandle for output error write failed, err=%d", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    if (!DuplicateWithinProcess(pipe.read.Get(), FALSE, pipe.readDuplicate)) {
        LOGW(LOG_ERROR, L"%s - DuplicateHandle for output read failed, err=%d", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    LaunchPipe::Close(pipe.read, L"%s - CloseHandle for temp output read failed, err=%d");
    // Nobody reads the child's output. Where the child still gets the write
    // end (Wine hands standard handles over even without inheritance), a
    // closed read end makes its writes fail at once instead of filling the
    // pipe and blocking it until the five-minute limit.
    LaunchPipe::Close(pipe.readDuplicate, L"%s - CloseHandle for output read failed, err=%d");

    bool succeeded = PrepAndLaunchRedirectedChild(program, arguments, exitCode, pipe.write.Get(),
                                                  pipe.errorWrite.Get());
    pipe.CloseAll();
    return succeeded;
}

bool PrepAndLaunchRedirectedChild(const wchar_t* program, const wchar_t* arguments,
                                  uint32_t* exitCode, HANDLE standardOutput, HANDLE standardError) {
    const wchar_t* self = L"PrepAndLaunchRedirectedChild";
    if (!program) {
        LOGW(LOG_ERROR, L"%s - szProgram is null", self);
        return false;
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = standardOutput;
    startup.hStdError = standardError;

    std::wstring commandLine = std::wstring(L"\"") + program + L"\"";
    if (arguments)
        commandLine += std::wstring(L" ") + arguments;
    LOGW(LOG_DETAIL, L"%s - PrepAndLaunchRedirectedChild: %s, stdout(%d),stderr(%d)", self,
         commandLine.c_str(), static_cast<int>(reinterpret_cast<intptr_t>(standardOutput)),
         static_cast<int>(reinterpret_cast<intptr_t>(standardError)));

    PROCESS_INFORMATION info = {};
    if (!CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE,
                        nullptr, nullptr, &startup, &info)) {
        DWORD error = GetLastError();
        if (exitCode)
            *exitCode = error;
        LOGW(LOG_ERROR, L"%s - CreateProcessW failed, err=%d", self, static_cast<int>(error));
        return false;
    }
    ScopedKernelHandle process(info.hProcess);
    ScopedKernelHandle thread(info.hThread);

    DWORD waited = WaitForSingleObject(process.Get(), kChildTimeoutMs);
    LOGW(LOG_DETAIL, L"%s - WaitForSingleObject result=0x%x", self, static_cast<unsigned>(waited));
    if (waited == WAIT_TIMEOUT) {
        // Abandoned, not terminated: the agent's installer may still finish.
        LOGW(LOG_ERROR, L"%s - CreateProcessW wait timeout", self);
        return false;
    }
    if (waited == WAIT_FAILED) {
        LOGW(LOG_ERROR, L"%s - CreateProcessW wait failed, error=%d", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    if (!exitCode)
        return true;
    DWORD code = 0;
    if (!GetExitCodeProcess(process.Get(), &code)) {
        *exitCode = GetLastError();
        LOGW(LOG_ERROR, L"%s - GetExitCodeProcess failed, err=%d", self,
             static_cast<int>(*exitCode));
        return false;
    }
    *exitCode = code;
    LOGW(LOG_DETAIL, L"%s - got return code %d", self, static_cast<int>(code));
    if (code != 0) {
        LOGW(LOG_ERROR, L"%s - Return code is not zero, err=%d", self, static_cast<int>(code));
        return false;
    }
    return true;
}

bool DecompressFile(const wchar_t* archivePath, const wchar_t* targetFolder) {
    const wchar_t* self = L"DecompressFile";
    LOGW(LOG_DETAIL, L"%s - DecompressFile: compress_file_path = %s", self, archivePath);
    LOGW(LOG_DETAIL, L"%s - DecompressFile: target_folder_path = %s", self, targetFolder);
    // The construction loads the archive library and Load loads it again; the
    // second load is the one the extraction uses.
    CUnzip unzip;
    if (!unzip.Load()) {
        LOGW(LOG_ERROR, L"%s - Failed to load CUnzip", self);
        return false;
    }
    try {
        std::string archive = WideToAnsi(archivePath);
        std::string target = WideToAnsi(targetFolder);
        int result = unzip.Open(archive.c_str(), true);
        if (result != UNZIP_OK) {
            LOGW(LOG_ERROR, L"%s - Failed to open zip file: %S, CUnzip return code: %d", self,
                 archive.c_str(), result);
            return false;
        }
        if (unzip.Extract(target.c_str(), 1, 1, nullptr, nullptr) != UNZIP_OK) {
            LOGW(LOG_ERROR, L"%s - failed to extract zipped files", self);
            return false;
        }
        LOGW(LOG_DETAIL, L"%s - Succeeded to extract zipped files", self);
        unzip.Close();
        return true;
    } catch (const CZipCommonException& error) {
        LOGW(LOG_ERROR, L"%s - error code: %d", self, static_cast<int>(error.Code()));
        return false;
    }
}
