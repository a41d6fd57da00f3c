#pragma once
// The debug-log client: every call becomes one record sent to the parent
// product's log server over the pipe "Log_ServerNamePipe". Nothing is kept
// locally and a missing server never fails the caller.
#include <cstdint>

// Level letters carried as their character codes ("68" for 'D').
enum DebugLogLevel : int {
    LOG_DETAIL = 'D',
    LOG_ERROR = 'E',
    LOG_INFO = 'I',
    LOG_WARNING = 'W',
};

// clang knows no ms_printf; for a Windows target its printf checks follow the
// platform's own rules already.
#if defined(__clang__) && defined(_WIN32)
#define DEBUGLOG_FORMAT_A __attribute__((format(printf, 4, 5)))
#elif defined(__GNUC__) && defined(_WIN32)
#define DEBUGLOG_FORMAT_A __attribute__((format(ms_printf, 4, 5)))
#else
#define DEBUGLOG_FORMAT_A
#endif

void DebugLogA(int level, const char* sourceFile, int line, const char* format,
               ...) DEBUGLOG_FORMAT_A;
// In the wide form "%s" takes a wide string (the platform's own printf rules).
void DebugLogW(int level, const wchar_t* sourceFile, int line, const wchar_t* format, ...);

// Builds one record and writes it to the log pipe; 1 when every byte went out.
int SendDebugLogRecord(int32_t time, uint32_t processId, uint32_t threadId, int level,
                       const wchar_t* sourceFile, int line, const wchar_t* text);

// The tag that prefixes every message as "[tag][executable]"; set when the
// plug-in attaches to a process or thread. Used only when 1 to 63 characters.
void SetDebugLogModuleTag(const wchar_t* tag);

#define DEBUGLOG_WIDEN2(x) L##x
#define DEBUGLOG_WIDEN(x) DEBUGLOG_WIDEN2(x)
#define LOGA(level, ...) DebugLogA((level), __FILE__, __LINE__, __VA_ARGS__)
#define LOGW(level, ...) DebugLogW((level), DEBUGLOG_WIDEN(__FILE__), __LINE__, __VA_ARGS__)
