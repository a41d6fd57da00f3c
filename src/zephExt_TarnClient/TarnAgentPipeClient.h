#pragma once
// The client end of the agent's message-mode pipe: one process-wide instance,
// used by one command at a time on the host's thread. It only moves bytes;
// the command frames are the protocol's business.
#include "ScopedHandle.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>

extern const wchar_t kTarnAgentPipeName[];

// Results of one read step.
enum TarnPipeRecvResult : int {
    TARN_PIPE_RECV_DATA = 0,    // bytes arrived, possibly part of a longer message
    TARN_PIPE_RECV_FAILED = 1,  // failure, end of file or stop requested
    TARN_PIPE_RECV_PENDING = 2, // a read is outstanding: call again
};

class TarnAgentPipeClient {
  public:
    static constexpr DWORD kReceiveBufferSize = 4096;

    explicit TarnAgentPipeClient(HANDLE stopEvent);
    ~TarnAgentPipeClient();
    TarnAgentPipeClient(const TarnAgentPipeClient&) = delete;
    TarnAgentPipeClient& operator=(const TarnAgentPipeClient&) = delete;

    // Connects; true when the pipe is open in message read mode.
    bool Initial();
    // One read step; `bytes` tells how much of the receive buffer is new.
    int Recv(uint32_t& bytes);
    // Reads until something has arrived and nothing more is ready; leaves the
    // next read outstanding for the next call.
    bool FetchData(std::string& data);
    // Writes the whole buffer in chunks of at most 4096 bytes; 0 or -1.
    int SendData(const char* data, uint32_t length, uint32_t& sent);

  private:
    void AbandonPendingRead();

    wchar_t m_pipePath[256] = {};
    ScopedFile m_pipe;
    OVERLAPPED m_readOverlapped = {};
    uint32_t m_readPending = 0;
    ScopedKernelHandle m_readEvent; // manual reset, created signalled
    HANDLE m_stopEvent;             // the module's, not owned
    std::unique_ptr<char[]> m_receiveBuffer;
};

// Creates the process-wide client and connects: 0, or the system error (-1
// when that is 0).
int InitTarnPipeClient();
// Destroys the client, if any, and closes the stop event.
void DeInitTarnPipeClient();
// The process-wide client; null while there is none.
TarnAgentPipeClient* TarnPipeClient();
