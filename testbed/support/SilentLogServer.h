#pragma once
// A hostile log server: the only instance of the debug-log pipe, which takes
// one writer and never reads. What it was sent stays in its in-buffer, so a
// writer's bytes beyond that buffer wait for a read that never comes.
#include "DebugLog.h"
#include "ScopedHandle.h"

#include <windows.h>

#include <string>

// One record of `text` straight to the log pipe: 1 when all of it was written.
inline int SendLogRecord(const std::wstring& text) {
    return SendDebugLogRecord(0, GetCurrentProcessId(), GetCurrentThreadId(), LOG_DETAIL, L"f", 1,
                              text.c_str());
}

class SilentLogServer {
  public:
    explicit SilentLogServer(DWORD inBufferBytes)
        : m_pipe(CreateNamedPipeW(L"\\\\.\\pipe\\Log_ServerNamePipe",
                                  PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                  PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, 0,
                                  inBufferBytes, 0, nullptr)),
          m_connected(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        m_overlapped.hEvent = m_connected.Get();
        if (m_pipe && !ConnectNamedPipe(m_pipe.Get(), &m_overlapped))
            m_listening = GetLastError() == ERROR_IO_PENDING;
    }
    ~SilentLogServer() { GoAway(); }
    SilentLogServer(const SilentLogServer&) = delete;
    SilentLogServer& operator=(const SilentLogServer&) = delete;

    // The pipe exists and waits for its writer.
    bool Listening() const { return m_listening; }

    // The server closes its end unread, as a server that exits does.
    void GoAway() {
        if (!m_pipe)
            return;
        if (m_listening) { // the connect, done or cancelled, is through with its OVERLAPPED
            DWORD ignored = 0;
            CancelIo(m_pipe.Get());
            GetOverlappedResult(m_pipe.Get(), &m_overlapped, &ignored, TRUE);
        }
        m_pipe.Reset();
    }

  private:
    ScopedFile m_pipe;
    ScopedKernelHandle m_connected;
    OVERLAPPED m_overlapped{};
    bool m_listening = false;
};
