// Cost of one debug-log record. With the test bed's log server running, each
// call is set beside a bare open, mode change, write and close of the same
// record bytes on the same pipe; with no server, beside one bare failed open.
// Prints, never asserts.
#include "BenchTiming.h"
#include "DebugLog.h"
#include "LogServer.h"
#include "TestBed.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

constexpr int kCalls = 20;
constexpr int kRounds = 61;
const wchar_t kLogPipe[] = L"\\\\.\\pipe\\Log_ServerNamePipe";
const DWORD kOpenFlags = SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;

const char kSource[] = "src/zephExt_TarnClient/zephExt_onQueryData.cpp";
const char kRequest[] = "{\"query_id\":\"ZEPH_ONQUERY_SERVICE_STATUS\",\"product_id\":"
                        "\"ZEPH_IPRODUCT_TARN\",\"query_data\":{}}";

// The least a writer of one record must do: open (waiting while the server
// has no free instance), message mode, one write (or writes of at most
// `chunk` bytes), close.
bool BareSend(const std::wstring& record, DWORD chunk = 0xFFFFFFFF) {
    HANDLE pipe;
    while ((pipe = CreateFileW(kLogPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, kOpenFlags,
                               nullptr)) == INVALID_HANDLE_VALUE) {
        if (GetLastError() != ERROR_PIPE_BUSY || !WaitNamedPipeW(kLogPipe, 20000))
            return false;
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    bool sent = SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr) != FALSE;
    const char* bytes = reinterpret_cast<const char*>(record.c_str());
    DWORD size = static_cast<DWORD>((record.size() + 1) * sizeof(wchar_t));
    for (DWORD offset = 0, written = 0; sent && offset < size; offset += written)
        sent = WriteFile(pipe, bytes + offset, std::min(chunk, size - offset), &written, nullptr) &&
               written > 0;
    CloseHandle(pipe);
    return sent;
}

bool BareFailedOpen() {
    HANDLE pipe =
        CreateFileW(kLogPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, kOpenFlags, nullptr);
    if (pipe == INVALID_HANDLE_VALUE)
        return GetLastError() == ERROR_FILE_NOT_FOUND;
    CloseHandle(pipe);
    return false;
}

std::wstring LongText() {
    std::wstring text;
    while (text.size() < 4000)
        text += L"0123456789abcdef";
    return text;
}

} // namespace

int main() {
    SetDebugLogModuleTag(L"zephExt_TarnClient"); // as the plug-in sets it when loaded
    std::wstring shortText = L"[zephExt_TarnClient][bench_debuglog.exe]zephExt_OnQueryData - "
                             L"Request: " +
                             Widen(kRequest);
    std::wstring longText = LongText();
    std::wstring source = Widen(kSource);
    auto sendShort = [&] {
        SendDebugLogRecord(1700000000, GetCurrentProcessId(), GetCurrentThreadId(), LOG_DETAIL,
                           source.c_str(), 83, shortText.c_str());
    };
    auto sendLong = [&] {
        SendDebugLogRecord(1700000000, GetCurrentProcessId(), GetCurrentThreadId(), LOG_DETAIL,
                           source.c_str(), 83, longText.c_str());
    };
    auto logA = [] {
        DebugLogA(LOG_DETAIL, kSource, 83, "%s - Request: %s", "zephExt_OnQueryData", kRequest);
    };

    // With no server yet, the first record prints the missing-server notice,
    // once in the process: here, before any table.
    logA();

    // The server hands each record to the listener; the last one is kept so
    // that the floor can send exactly the bytes a call sent.
    std::atomic<long> received{0};
    std::mutex lastLock;
    std::wstring last;
    LogServer server([&](const LogRecord& record) {
        std::lock_guard<std::mutex> guard(lastLock);
        last = record.raw;
        ++received;
    });
    if (!server.Start()) {
        std::printf("cannot serve the log pipe (another log server?)\n");
        return 1;
    }
    auto recordOf = [&](auto call) {
        call();
        server.Sync();
        std::lock_guard<std::mutex> guard(lastLock);
        return last;
    };
    const std::wstring shortRecord = recordOf(sendShort);
    const std::wstring longRecord = recordOf(sendLong);
    const std::wstring logARecord = recordOf(logA);

    bench::Measure bareShort{"bare send, same bytes", {}};
    bench::Measure bareLong{"bare send, same bytes", {}};
    bench::Measure bareLongChunked{"bare send, same bytes in 1024-byte writes", {}};
    bench::Measure bareLogA{"bare send, same bytes", {}};
    bench::Measure recordShort{
        "SendDebugLogRecord, " + std::to_string(shortRecord.size() * 2 + 2) + "-byte record", {}};
    bench::Measure recordLong{"SendDebugLogRecord, " + std::to_string(longRecord.size() * 2 + 2) +
                                  "-byte record (1024-byte writes)",
                              {}};
    bench::Measure callA{"DebugLogA \"%s - Request: %s\", " +
                             std::to_string(logARecord.size() * 2 + 2) + "-byte record",
                         {}};
    int failures = 0;
    auto bare = [&](const std::wstring& record, DWORD chunk = 0xFFFFFFFF) {
        return [&failures, &record, chunk] {
            for (int i = 0; i < kCalls; ++i)
                failures += BareSend(record, chunk) ? 0 : 1;
        };
    };
    auto repeat = [](auto call) {
        return [call] {
            for (int i = 0; i < kCalls; ++i)
                call();
        };
    };
    received = 0;
    for (int round = 0; round < kRounds; ++round) {
        // Each batch is drained before the next one is timed.
        bench::Time(bareShort.times, kCalls, bare(shortRecord));
        server.Sync();
        bench::Time(recordShort.times, kCalls, repeat(sendShort));
        server.Sync();
        bench::Time(bareLong.times, kCalls, bare(longRecord));
        server.Sync();
        bench::Time(recordLong.times, kCalls, repeat(sendLong));
        server.Sync();
        bench::Time(bareLongChunked.times, kCalls, bare(longRecord, 1024));
        server.Sync();
        bench::Time(bareLogA.times, kCalls, bare(logARecord));
        server.Sync();
        bench::Time(callA.times, kCalls, repeat(logA));
        server.Sync();
        server.Clear(); // drop whatever records the server kept
    }
    server.Stop();
    long expected = 7L * kCalls * kRounds;
    std::printf("Log server running (in process): %d calls a batch, %d rounds, median per "
                "record\n",
                kCalls, kRounds);
    bench::Table running("record", bench::kMicroseconds);
    running.Row(recordShort, bareShort, "<= 1.2");
    running.Row(recordLong, bareLong, "<= 1.2");
    running.Row(recordLong, bareLongChunked);
    running.Row(callA, bareLogA, "<= 1.2");
    running.Print();
    if (received != expected) {
        std::printf("the server received %ld records of %ld\n", static_cast<long>(received),
                    expected);
        failures += 1;
    }

    // No server: every call is one failed open.
    bench::Measure failedOpen{"bare failed CreateFileW", {}};
    bench::Measure noServerRecord{"SendDebugLogRecord, no server", {}};
    bench::Measure noServerA{"DebugLogA, no server", {}};
    auto failedOpens = [&] {
        for (int i = 0; i < kCalls; ++i)
            failures += BareFailedOpen() ? 0 : 1;
    };
    for (int round = 0; round < kRounds; ++round) {
        bench::Time(failedOpen.times, kCalls, failedOpens);
        bench::Time(noServerRecord.times, kCalls, repeat(sendShort));
        bench::Time(noServerA.times, kCalls, repeat(logA));
    }
    std::printf("No log server: %d calls a batch, %d rounds, median per record\n", kCalls, kRounds);
    bench::Table absent("record", bench::kMicroseconds);
    absent.Row(noServerRecord, failedOpen, "<= 1.2");
    absent.Row(noServerA, failedOpen, "<= 1.2");
    absent.Print();
    if (failures)
        std::printf("%d bare sends or opens did not behave\n", failures);
    return failures ? 1 : 0;
}
