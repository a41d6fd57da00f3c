#include "DebugLog.h"

#include "AnsiText.h"
#include "ScopedHandle.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <cwchar>
#include <string>

namespace {

constexpr size_t kTextChars = 4096;
constexpr DWORD kChunkBytes = 1024;
constexpr DWORD kBusyWaitMs = 20000;

wchar_t g_ModuleTag[64];
// Any thread may be the first to find no log server; one of them says so.
std::atomic<bool> g_WarnedNoServer{false};

// "[tag][exe]" when the tag is usable, else nothing; returns its length.
size_t FormatPrefix(wchar_t* buffer, size_t capacity) {
    size_t tagLength = wcsnlen(g_ModuleTag, 64);
    if (tagLength < 1 || tagLength > 63)
        return 0;
    wchar_t exePath[MAX_PATH + 1] = {};
    GetModuleFileNameW(nullptr, exePath, MAX_PATH);
    const wchar_t* lastSlash = wcsrchr(exePath, L'\\');
    const wchar_t* exeName = lastSlash ? lastSlash + 1 : exePath;
    _snwprintf(buffer, capacity, L"[%s][%s]", g_ModuleTag, exeName);
    buffer[capacity - 1] = L'\0';
    return tagLength + wcslen(exeName) + 4;
}

// Callers log a failure and then read its error: a log call leaves the
// thread's last error as it found it, from the prefix (GetModuleFileNameW
// clears it under Wine) to the pipe.
class LastErrorKeeper {
  public:
    LastErrorKeeper() : m_error(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(m_error); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

  private:
    DWORD m_error;
};

void SendText(int level, const wchar_t* sourceFile, int line, const wchar_t* text) {
    SendDebugLogRecord(static_cast<int32_t>(time(nullptr)), GetCurrentProcessId(),
                       GetCurrentThreadId(), level, sourceFile, line, text);
}

void ReportOpenFailure(DWORD error) {
    if (error == ERROR_FILE_NOT_FOUND) {
        if (g_WarnedNoServer.exchange(true, std::memory_order_relaxed))
            return;
        (void)printf("Need to Start LogServer for turn on debug log. errno=%d\n",
                     static_cast<int>(error));
    } else {
        (void)printf("Initial pipe client failed! errno=%d\n", static_cast<int>(error));
    }
    (void)fflush(stdout);
}

ScopedFile OpenLogPipe() {
    wchar_t pipeName[MAX_PATH];
    _snwprintf(pipeName, MAX_PATH, L"\\\\.\\pipe\\%s", L"Log_ServerNamePipe");
    pipeName[MAX_PATH - 1] = L'\0';
    for (;;) {
        // Identification only: the server may learn who writes, not act as them.
        ScopedFile pipe(CreateFileW(pipeName, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (pipe)
            return pipe;
        DWORD error = GetLastError();
        if (error != ERROR_PIPE_BUSY) {
            ReportOpenFailure(error);
            return pipe;
        }
        if (!WaitNamedPipeW(pipeName, kBusyWaitMs)) {
            ReportOpenFailure(GetLastError());
            return pipe;
        }
    }
}

bool WriteChunked(HANDLE pipe, const BYTE* bytes, DWORD size) {
    BYTE chunk[kChunkBytes];
    DWORD sent = 0;
    while (sent < size) {
        DWORD length = size - sent < kChunkBytes ? size - sent : kChunkBytes;
        memcpy(chunk, bytes + sent, length);
        DWORD written = 0;
        if (WriteFile(pipe, chunk, length, &written, nullptr)) {
            sent += written;
            continue;
        }
        DWORD error = GetLastError();
        if (error == ERROR_NO_SYSTEM_RESOURCES)
            continue; // the pipe's quota recovers as the server reads
        (void)printf("Pipe send failed!. errno=%d\n", static_cast<int>(error));
        (void)fflush(stdout);
        return false;
    }
    return true;
}

} // namespace

void SetDebugLogModuleTag(const wchar_t* tag) {
    wcsncpy(g_ModuleTag, tag ? tag : L"", 63);
    g_ModuleTag[63] = L'\0';
}

int SendDebugLogRecord(int32_t time, uint32_t processId, uint32_t threadId, int level,
                       const wchar_t* sourceFile, int line, const wchar_t* text) {
    std::wstring record = L"LOG_WRITE";
    for (const std::wstring& field :
         {std::to_wstring(time), std::to_wstring(processId), std::to_wstring(threadId),
          std::to_wstring(level), std::wstring(sourceFile ? sourceFile : L""),
          std::to_wstring(line), std::wstring(text ? text : L"")}) {
        record += L'\t';
        record += field;
    }

    ScopedFile pipe = OpenLogPipe();
    if (!pipe)
        return 0;
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!SetNamedPipeHandleState(pipe.Get(), &mode, nullptr, nullptr)) {
        ReportOpenFailure(GetLastError());
        return 0;
    }
    // The terminating NUL travels with the record.
    DWORD size = static_cast<DWORD>((record.size() + 1) * sizeof(wchar_t));
    return WriteChunked(pipe.Get(), reinterpret_cast<const BYTE*>(record.c_str()), size) ? 1 : 0;
}

// The log call is printf-style for every caller, as the log server's clients are.
// NOLINTNEXTLINE(cert-dcl50-cpp)
void DebugLogA(int level, const char* sourceFile, int line, const char* format, ...) {
    LastErrorKeeper keeper;
    char text[kTextChars] = {};
    wchar_t prefix[kTextChars];
    const size_t prefixLength = FormatPrefix(prefix, kTextChars);
    if (prefixLength != 0)
        WideCharToMultiByte(CP_ACP, 0, prefix, -1, text, kTextChars, nullptr, nullptr);
    if (format && prefixLength < kTextChars - 1) {
        va_list args;
        va_start(args, format);
        _vsnprintf(text + prefixLength, kTextChars - 1 - prefixLength, format, args);
        va_end(args);
    }
    text[kTextChars - 1] = '\0';

    std::wstring wideText = AnsiToWide(text);
    std::wstring wideSource = AnsiToWide(sourceFile);
    SendText(level, sourceFile ? wideSource.c_str() : nullptr, line, wideText.c_str());
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style like DebugLogA.
void DebugLogW(int level, const wchar_t* sourceFile, int line, const wchar_t* format, ...) {
    LastErrorKeeper keeper;
    wchar_t text[kTextChars] = {};
    size_t prefixLength = FormatPrefix(text, kTextChars);
    if (format && prefixLength < kTextChars - 1) {
        va_list args;
        va_start(args, format);
        _vsnwprintf(text + prefixLength, kTextChars - 1 - prefixLength, format, args);
        va_end(args);
    }
    text[kTextChars - 1] = L'\0';
    SendText(level, sourceFile, line, text);
}
