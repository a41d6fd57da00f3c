#include "TarnAgentPipeClient.h"

#include "DebugLog.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

const wchar_t kTarnAgentPipeName[] = L"OIPC_TARNAGENT_PIPE_E1F3674C_98B7_47e4_9A7E_EFE4A7031997";

namespace {

constexpr DWORD kPipeAccess = GENERIC_READ | GENERIC_WRITE;
// Overlapped so that a pending read can also watch the stop event; the agent
// may only identify the caller, never impersonate it.
constexpr DWORD kPipeFlags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
static_assert(kPipeFlags == 0x40110000, "the agent expects these open flags");
constexpr DWORD kBusyWaitMs = 5000;

// Process-wide, unguarded: one command at a time on the host's thread.
std::unique_ptr<TarnAgentPipeClient> g_client;
// Nothing signals it yet; it lets a future caller abandon a blocked read.
ScopedKernelHandle g_stopEvent;

bool IsOpen(HANDLE handle) {
    return handle != nullptr && handle != INVALID_HANDLE_VALUE;
}

} // namespace

TarnAgentPipeClient::TarnAgentPipeClient(HANDLE stopEvent)
    : m_stopEvent(stopEvent), m_receiveBuffer(new char[kReceiveBufferSize]()) {}

TarnAgentPipeClient::~TarnAgentPipeClient() {
    AbandonPendingRead();
}

// Closing the handle cancels an outstanding read, but the system may still
// write its result into the OVERLAPPED record and the buffer: let it finish
// before they go.
void TarnAgentPipeClient::AbandonPendingRead() {
    if (!m_readPending || !IsOpen(m_pipe.Get()))
        return;
    CancelIo(m_pipe.Get());
    DWORD ignored = 0;
    GetOverlappedResult(m_pipe.Get(), &m_readOverlapped, &ignored, TRUE);
    m_readPending = 0;
}

bool TarnAgentPipeClient::Initial() {
    const wchar_t* self = L"TarnAgentPipeClient::Initial";
    LOGW(LOG_DETAIL, L"%s - Initializing Pipe Client: name=%s\n", self, kTarnAgentPipeName);
    m_readEvent.Reset(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    if (!m_readEvent) {
        LOGW(LOG_DETAIL, L"%s - CreateEvent fails\n", self);
        return false;
    }
    _snwprintf(m_pipePath, std::size(m_pipePath), L"\\\\.\\pipe\\%s", kTarnAgentPipeName);
    m_pipePath[std::size(m_pipePath) - 1] = L'\0';
    m_readOverlapped.hEvent = m_readEvent.Get();

    for (;;) {
        HANDLE pipe =
            CreateFileW(m_pipePath, kPipeAccess, 0, nullptr, OPEN_EXISTING, kPipeFlags, nullptr);
        if (IsOpen(pipe)) {
            m_pipe.Reset(pipe);
            LOGW(LOG_DETAIL, L"%s - CreateFile succeeds\n", self);
            DWORD mode = PIPE_READMODE_MESSAGE | PIPE_WAIT;
            if (SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr))
                return true;
            LOGW(LOG_DETAIL,
                 L"%s - Pipe Server seems not to agree to use mode (PIPE_READMODE_MESSAGE | "
                 L"PIPE_WAIT)\n",
                 self);
            break;
        }
        DWORD error = GetLastError();
        if (error == ERROR_PIPE_BUSY) {
            // No limit on busy rounds: every successful wait opens again.
            if (WaitNamedPipeW(m_pipePath, kBusyWaitMs))
                continue;
            LOGW(LOG_DETAIL, L"%s - WaitNamedPipe fails: error=%d\n", self,
                 static_cast<int>(GetLastError()));
        } else if (error == ERROR_FILE_NOT_FOUND) {
            LOGW(LOG_DETAIL, L"%s - CreateFile fails: error=ERROR_FILE_NOT_FOUND\n", self);
        } else {
            LOGW(LOG_DETAIL, L"%s - CreateFile fails: error=%d\n", self, static_cast<int>(error));
        }
        break;
    }
    // An opened pipe handle stays; the caller that gives up on the client closes it.
    m_readOverlapped.hEvent = nullptr;
    m_readEvent.Reset();
    return false;
}

int TarnAgentPipeClient::Recv(uint32_t& bytes) {
    const wchar_t* self = L"TarnAgentPipeClient::Recv";
    LOGW(LOG_DETAIL, L"%s - >>", self);
    bytes = 0;
    DWORD transferred = 0;
    if (!m_readPending) {
        m_receiveBuffer[0] = 0;
        if (ReadFile(m_pipe.Get(), m_receiveBuffer.get(), kReceiveBufferSize, &transferred,
                     &m_readOverlapped)) {
            bytes = transferred;
            LOGW(LOG_DETAIL, L"%s - ReadFile: gets %d bytes immediately\n", self,
                 static_cast<int>(bytes));
            return TARN_PIPE_RECV_DATA;
        }
        DWORD error = GetLastError();
        switch (error) {
        case ERROR_MORE_DATA: // a message longer than the buffer: the rest comes with the next
                              // reads
            // An overlapped read that failed reports its count only in its record.
            GetOverlappedResult(m_pipe.Get(), &m_readOverlapped, &transferred, FALSE);
            bytes = transferred;
            LOGW(LOG_DETAIL, L"%s - ReadFile: ERROR_MORE_DATA, already read %d bytes\n", self,
                 static_cast<int>(bytes));
            return TARN_PIPE_RECV_DATA;
        case ERROR_IO_PENDING:
            LOGW(LOG_DETAIL, L"%s - ReadFile: ERROR_IO_PENDING\n", self);
            m_readPending = 1;
            return TARN_PIPE_RECV_PENDING;
        case ERROR_HANDLE_EOF:
            LOGW(LOG_DETAIL, L"%s - ReadFile: fails, error=ERROR_HANDLE_EOF\n", self);
            return TARN_PIPE_RECV_FAILED;
        default:
            LOGW(LOG_DETAIL, L"%s - ReadFile: fails, error=%d\n", self, static_cast<int>(error));
            return TARN_PIPE_RECV_FAILED;
        }
    }

    HANDLE events[] = {m_readEvent.Get(), m_stopEvent};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0)
        return TARN_PIPE_RECV_FAILED; // stop requested or the wait failed; the read stays pending
    if (GetOverlappedResult(m_pipe.Get(), &m_readOverlapped, &transferred, FALSE)) {
        bytes = transferred;
        LOGW(LOG_DETAIL, L"%s - ReadFile: gets %d bytes asynchrounsly\n", self,
             static_cast<int>(bytes));
        m_readPending = 0;
        return TARN_PIPE_RECV_DATA;
    }
    DWORD error = GetLastError();
    if (error == ERROR_IO_INCOMPLETE || error == ERROR_IO_PENDING)
        return TARN_PIPE_RECV_PENDING;
    if (error == ERROR_BROKEN_PIPE)
        LOGW(LOG_DETAIL, L"%s - GetOverlappedResult fails: error=ERROR_BROKEN_PIPE\n", self);
    else
        LOGW(LOG_DETAIL, L"%s - GetOverlappedResult fails: error=%d\n", self,
             static_cast<int>(error));
    return TARN_PIPE_RECV_FAILED;
}

bool TarnAgentPipeClient::FetchData(std::string& data) {
    if (!m_receiveBuffer)
        return false;
    data.clear();
    for (;;) {
        uint32_t bytes = 0;
        int result = Recv(bytes);
        data.append(m_receiveBuffer.get(), bytes);
        if (result == TARN_PIPE_RECV_FAILED)
            return false;
        if (result == TARN_PIPE_RECV_PENDING && !data.empty())
            return true;
    }
}

int TarnAgentPipeClient::SendData(const char* data, uint32_t length, uint32_t& sent) {
    const wchar_t* self = L"TarnAgentPipeClient::SendData";
    LOGW(LOG_DETAIL, L"%s - sending %d bytes\n", self, static_cast<int>(length));
    sent = 0;
    while (sent < length) {
        char block[kReceiveBufferSize];
        DWORD chunk = std::min<DWORD>(length - sent, sizeof(block));
        memcpy(block, data + sent, chunk);
        DWORD written = 0;
        // Synchronous although the handle is overlapped: only reads watch the stop event.
        if (WriteFile(m_pipe.Get(), block, chunk, &written, nullptr)) {
            sent += written;
            continue;
        }
        if (GetLastError() != ERROR_NO_SYSTEM_RESOURCES) // that one passes: write the chunk again
            return -1;
    }
    LOGW(LOG_DETAIL, L"%s - %d bytes were sent\n", self, static_cast<int>(sent));
    return 0;
}

int InitTarnPipeClient() {
    const wchar_t* self = L"InitTarnPipeClient";
    LOGW(LOG_DETAIL, L"%s - Init IPC.", self);
    g_stopEvent.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!g_stopEvent) {
        LOGW(LOG_ERROR, L"%s - CreateEvent for hStopEvent fails.", self);
        return -1;
    }
    g_client = std::make_unique<TarnAgentPipeClient>(g_stopEvent.Get());
    if (g_client->Initial()) {
        LOGW(LOG_DETAIL, L"%s - Init IPC finished.", self);
        return 0;
    }
    DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND)
        LOGW(LOG_ERROR, L"%s - TarnAgentPipeClient Init fails: error=ERROR_FILE_NOT_FOUND", self);
    else
        LOGW(LOG_ERROR, L"%s - TarnAgentPipeClient Init fails: error=%d", self,
             static_cast<int>(error));
    // The client goes with its pipe handle; the stop event is closed once here
    // and not again by a later DeInitTarnPipeClient.
    g_client.reset();
    g_stopEvent.Reset();
    return error != 0 ? static_cast<int>(error) : -1;
}

void DeInitTarnPipeClient() {
    g_client.reset();
    g_stopEvent.Reset();
    LOGW(LOG_DETAIL, L"%s - <<", L"DeInitTarnPipeClient");
}

TarnAgentPipeClient* TarnPipeClient() {
    return g_client.get();
}
