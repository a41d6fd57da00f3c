#pragma once
// A log server for the test bed: serves "Log_ServerNamePipe" one connection
// at a time, so records arrive in the order their writers connected. A fresh
// instance always listens while one is read, so writers rarely find the pipe
// busy (Wine wakes a writer waiting on a busy pipe only when an instance
// starts to listen).
#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct LogRecord {
    int32_t time = 0;
    uint32_t processId = 0;
    uint32_t threadId = 0;
    int level = 0;
    std::wstring sourceFile;
    int line = 0;
    std::wstring text;
    std::wstring raw; // the record as received, without its NUL
    bool parsed = false;
    std::vector<size_t> messageSizes; // the pipe messages of the connection that carried it
};

// Splits "LOG_WRITE\ttime\tpid\ttid\tlevel\tfile\tline\ttext"; the text keeps any TABs.
bool ParseLogRecord(const std::wstring& raw, LogRecord& record);

// "time pid tid L file:line text", L the level letter (or its number).
std::wstring FormatLogRecord(const LogRecord& record);

struct ListeningPipe;

class LogServer {
  public:
    using Listener = std::function<void(const LogRecord&)>;

    // With a listener, each record goes to it and is not kept for Records().
    explicit LogServer(Listener listener = nullptr);
    ~LogServer();
    LogServer(const LogServer&) = delete;
    LogServer& operator=(const LogServer&) = delete;

    // False when the pipe can't be made or another server already has it.
    bool Start();
    void Stop();

    using TextCounts = std::map<std::wstring, unsigned>;
    // How many records carry each text (an unparsed one counts by its raw form).
    static TextCounts CountTexts(const std::vector<LogRecord>& records);

    // Waits until every record sent before this call has been received.
    bool Sync(DWORD timeoutMs = 15000);
    std::vector<LogRecord> Records();
    void Clear();

  private:
    void Serve(std::unique_ptr<ListeningPipe> current);
    void Receive(HANDLE pipe);

    Listener m_listener;
    HANDLE m_stop = nullptr;
    std::thread m_thread;
    std::mutex m_lock;
    std::vector<LogRecord> m_records;
    unsigned m_syncCounter = 0;
};
