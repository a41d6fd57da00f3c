#pragma once
// The agent pipe as the double serves it: every message a client writes is
// one command frame, journalled whole and answered with one response frame,
// or with a faulty answer when the behaviour asks for one.
#include "AgentDouble.h"
#include "ScopedHandle.h"

#include <windows.h>

#include <functional>
#include <thread>
#include <vector>

struct PipeBehaviour {
    AgentDouble::PipeAnswer answer = AgentDouble::PipeAnswer::Normal;
    DWORD retCode = 0;      // dwTxRetCode of every response
    DWORD payloadBytes = 0; // payload bytes of every response
    DWORD delayMs = 0;      // the wait before each answer
    bool bytePipe = false;  // byte-mode instances instead of message-mode ones
};

// A pipe instance waiting for its client; the OVERLAPPED of the pending
// connect must stay where it is, so a listener never moves.
struct PipeListener {
    ScopedKernelHandle connected; // set once a client has connected
    ScopedFile pipe;
    OVERLAPPED overlapped{};

    PipeListener() = default;
    PipeListener(const PipeListener&) = delete;
    PipeListener& operator=(const PipeListener&) = delete;
    ~PipeListener();

    // A new instance and its connect; false when the pipe cannot be made.
    bool Listen(bool bytePipe);
};

class AgentPipeServer {
  public:
    // onStopAnswered runs on a connection's thread once a stop command has
    // been answered; it is expected to set stopEvent.
    AgentPipeServer(HANDLE stopEvent, const PipeBehaviour& behaviour,
                    std::function<void()> onStopAnswered);

    // The first instances; the pipe exists when this returns true.
    bool Listen();
    // Hands each connection to a thread of its own until stopEvent is set
    // (or no further instance can be made), then waits for those threads.
    void Serve();

  private:
    void ServeConnection(ScopedFile pipe) const;

    // Two listening instances: a client that connects while the other one is
    // being replaced still finds one (Wine's WaitNamedPipe does not wake when
    // an instance listens again).
    PipeListener m_listeners[2];
    std::vector<std::thread> m_connections; // joined when the service stops
    HANDLE m_stop;
    PipeBehaviour m_behaviour;
    std::function<void()> m_onStopAnswered;
};
