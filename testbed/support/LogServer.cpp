#include "LogServer.h"

#include "DebugLog.h"

#include <chrono>
#include <memory>

namespace {

const wchar_t kPipeName[] = L"\\\\.\\pipe\\Log_ServerNamePipe";
const wchar_t kSyncMarker[] = L"\x1b[log-server-sync]";
constexpr DWORD kReadBuffer = 64 * 1024;

} // namespace

bool ParseLogRecord(const std::wstring& raw, LogRecord& record) {
    std::vector<std::wstring> fields;
    size_t start = 0;
    while (fields.size() < 7) {
        size_t tab = raw.find(L'\t', start);
        if (tab == std::wstring::npos)
            return false;
        fields.push_back(raw.substr(start, tab - start));
        start = tab + 1;
    }
    if (fields[0] != L"LOG_WRITE")
        return false;
    record.time = static_cast<int32_t>(wcstol(fields[1].c_str(), nullptr, 10));
    record.processId = static_cast<uint32_t>(wcstoul(fields[2].c_str(), nullptr, 10));
    record.threadId = static_cast<uint32_t>(wcstoul(fields[3].c_str(), nullptr, 10));
    record.level = static_cast<int>(wcstol(fields[4].c_str(), nullptr, 10));
    record.sourceFile = fields[5];
    record.line = static_cast<int>(wcstol(fields[6].c_str(), nullptr, 10));
    record.text = raw.substr(start);
    return true;
}

std::wstring FormatLogRecord(const LogRecord& record) {
    std::wstring level = record.level >= 'A' && record.level <= 'Z'
                             ? std::wstring(1, static_cast<wchar_t>(record.level))
                             : std::to_wstring(record.level);
    return std::to_wstring(record.time) + L" " + std::to_wstring(record.processId) + L" " +
           std::to_wstring(record.threadId) + L" " + level + L" " + record.sourceFile + L":" +
           std::to_wstring(record.line) + L" " + record.text;
}

LogServer::LogServer(Listener listener) : m_listener(std::move(listener)) {}

LogServer::~LogServer() {
    Stop();
}

// One listening instance with its pending connect. It stays at one address
// while the connect is pending: the system completes it through `overlapped`.
struct ListeningPipe {
    HANDLE pipe = INVALID_HANDLE_VALUE;
    HANDLE connected = nullptr;
    OVERLAPPED overlapped = {};

    ListeningPipe() = default;
    ListeningPipe(const ListeningPipe&) = delete;
    ListeningPipe& operator=(const ListeningPipe&) = delete;
    ~ListeningPipe() {
        if (pipe != INVALID_HANDLE_VALUE) {
            CancelIo(pipe);
            CloseHandle(pipe);
        }
        if (connected)
            CloseHandle(connected);
    }

    bool Listen() {
        pipe = CreateNamedPipeW(kPipeName, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                PIPE_UNLIMITED_INSTANCES, 0, kReadBuffer, 0, nullptr);
        if (pipe == INVALID_HANDLE_VALUE)
            return false;
        connected = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        overlapped.hEvent = connected;
        if (ConnectNamedPipe(pipe, &overlapped))
            return SetEvent(connected) != FALSE;
        switch (GetLastError()) {
        case ERROR_IO_PENDING:
            return true;
        case ERROR_PIPE_CONNECTED: // a writer came between create and connect
        case ERROR_NO_DATA:        // ... and has already closed: its bytes still wait
            return SetEvent(connected) != FALSE;
        default:
            return false;
        }
    }
};

bool LogServer::Start() {
    // Any answer but "no such pipe" means another server has the log pipe
    // (Wine ignores FILE_FLAG_FIRST_PIPE_INSTANCE, so that cannot tell).
    if (WaitNamedPipeW(kPipeName, 1) || GetLastError() != ERROR_FILE_NOT_FOUND)
        return false;
    auto first = std::make_unique<ListeningPipe>();
    if (!first->Listen())
        return false;
    m_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_thread = std::thread([this, pipe = std::move(first)]() mutable { Serve(std::move(pipe)); });
    return true;
}

void LogServer::Stop() {
    if (!m_thread.joinable())
        return;
    SetEvent(m_stop);
    m_thread.join();
    CloseHandle(m_stop);
    m_stop = nullptr;
}

void LogServer::Serve(std::unique_ptr<ListeningPipe> current) {
    for (;;) {
        HANDLE events[] = {m_stop, current->connected};
        if (WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            return;
        // The next instance listens before this one is read.
        auto next = std::make_unique<ListeningPipe>();
        bool listening = next->Listen();
        Receive(current->pipe);
        if (!listening)
            return;
        current = std::move(next);
    }
}

void LogServer::Receive(HANDLE pipe) {
    std::string bytes;
    std::vector<size_t> messageSizes;
    std::vector<char> buffer(kReadBuffer);
    size_t messageSize = 0;
    OVERLAPPED overlapped = {};
    overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    for (;;) {
        DWORD read = 0;
        BOOL ok = ReadFile(pipe, buffer.data(), kReadBuffer, nullptr, &overlapped);
        if (!ok && GetLastError() == ERROR_IO_PENDING)
            ok = GetOverlappedResult(pipe, &overlapped, &read, TRUE);
        else
            GetOverlappedResult(pipe, &overlapped, &read, FALSE);
        bytes.append(buffer.data(), read);
        messageSize += read;
        if (ok) {
            messageSizes.push_back(messageSize);
            messageSize = 0;
        } else if (GetLastError() != ERROR_MORE_DATA) {
            break; // the writer closed its end
        }
    }
    CloseHandle(overlapped.hEvent);
    // One connection may carry one record or more, each ending in a NUL.
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    memcpy(&text[0], bytes.data(), text.size() * sizeof(wchar_t));
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(L'\0', start);
        if (end == std::wstring::npos)
            end = text.size();
        std::wstring raw = text.substr(start, end - start);
        start = end + 1;
        LogRecord record;
        record.parsed = ParseLogRecord(raw, record);
        record.raw = raw;
        record.messageSizes = messageSizes;
        bool isSync = record.parsed && record.text.rfind(kSyncMarker, 0) == 0;
        if (!isSync && m_listener) {
            m_listener(record);
            continue; // a long-running server keeps nothing it has handed on
        }
        std::lock_guard<std::mutex> guard(m_lock);
        m_records.push_back(std::move(record));
    }
}

bool LogServer::Sync(DWORD timeoutMs) {
    std::wstring marker = kSyncMarker + std::to_wstring(++m_syncCounter);
    SendDebugLogRecord(0, GetCurrentProcessId(), GetCurrentThreadId(), 0, L"", 0, marker.c_str());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            for (size_t i = 0; i < m_records.size(); ++i) {
                if (m_records[i].text == marker) {
                    m_records.erase(m_records.begin() + static_cast<std::ptrdiff_t>(i));
                    return true;
                }
            }
        }
        Sleep(5);
    }
    return false;
}

LogServer::TextCounts LogServer::CountTexts(const std::vector<LogRecord>& records) {
    TextCounts counts;
    for (const LogRecord& record : records)
        ++counts[record.parsed ? record.text : L"unparsed " + record.raw];
    return counts;
}

std::vector<LogRecord> LogServer::Records() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_records;
}

void LogServer::Clear() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_records.clear();
}
