#include "AgentPipe.h"

#include "AgentService.h"
#include "Journal.h"
#include "TarnAgentProtocol.h"

#include <cstring>
#include <string>

namespace {

using AgentDouble::PipeAnswer;

constexpr DWORD kPipeBufferBytes = 64 * 1024;
// No inbound buffer: a client's write completes only once the command has been
// read off the pipe, so an answer queued before that read is there before the
// client can issue its read. A client whose read is already pending when a
// message longer than its buffer arrives gets ERROR_MORE_DATA from
// GetOverlappedResult, unlike one that finds the message queued.
constexpr DWORD kInboundBufferBytes = 0;
// A longer message arrives in several reads, each but the last ending in ERROR_MORE_DATA.
constexpr DWORD kReadChunkBytes = 4096;
constexpr uint32_t kWrongMagic = 0x51565400;
constexpr size_t kSplitAt = 20; // SplitHeader's first message: part of the header only
// Garbage: no frame at all, and shorter than a header.
constexpr char kNoise[] = "\x8f\x13\xd2\x7a\x00\xe4\x51\x9b\x3c\xff\x06\xa8";
constexpr DWORD kCutOffMissingBytes = 64; // announced by CutOff's header, never sent

void JournalPipeFailure() {
    AppendJournalLine(kAgentJournal, "pipe error " + std::to_string(GetLastError()));
}

ScopedKernelHandle NewEvent() {
    return ScopedKernelHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

// Ends an overlapped call still under way, so its OVERLAPPED can go.
void CancelAndWait(HANDLE pipe, OVERLAPPED& overlapped) {
    DWORD ignored = 0;
    if (CancelIoEx(pipe, &overlapped) || GetLastError() != ERROR_NOT_FOUND)
        GetOverlappedResult(pipe, &overlapped, &ignored, TRUE);
}

// One overlapped call at a time on a connected instance; a call still waiting
// when the service stops is cancelled.
class PipeIo {
  public:
    PipeIo(HANDLE pipe, HANDLE stopEvent) : m_pipe(pipe), m_stop(stopEvent), m_done(NewEvent()) {
        m_overlapped.hEvent = m_done.Get();
    }

    // Waits for the next message of a message-mode pipe and copies it,
    // leaving it on the pipe: a read of no bytes waits for a message without
    // taking it (it ends in ERROR_MORE_DATA), unless the message is empty.
    // `taken` tells that the message is already off the pipe.
    bool PeekMessageOnPipe(std::string& message, bool& taken) {
        message.clear();
        DWORD read = 0;
        char none[1];
        taken = Finish(ReadFile(m_pipe, none, 0, nullptr, &m_overlapped), read);
        if (taken)
            return true;
        DWORD available = 0;
        DWORD messageBytes = 0;
        if (GetLastError() != ERROR_MORE_DATA ||
            !PeekNamedPipe(m_pipe, nullptr, 0, nullptr, &available, &messageBytes))
            return false;
        message.resize(messageBytes);
        return PeekNamedPipe(m_pipe, &message[0], messageBytes, &read, nullptr, nullptr) &&
               read == messageBytes;
    }

    // One whole message, however many reads it takes. A byte-mode pipe has
    // no message boundaries, so there each read counts as one message.
    bool ReadMessage(std::string& message) {
        message.clear();
        char chunk[kReadChunkBytes];
        for (;;) {
            DWORD read = 0;
            bool whole =
                Finish(ReadFile(m_pipe, chunk, sizeof chunk, nullptr, &m_overlapped), read);
            DWORD error = GetLastError();
            message.append(chunk, read);
            if (whole)
                return true;
            if (error != ERROR_MORE_DATA)
                return false;
        }
    }

    bool Write(const std::string& bytes) {
        DWORD written = 0;
        return Finish(WriteFile(m_pipe, bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                                &m_overlapped),
                      written) &&
               written == bytes.size();
    }

  private:
    // The outcome of a call that `started` began; GetLastError tells why not.
    bool Finish(BOOL started, DWORD& bytes) {
        DWORD error = GetLastError();
        if (!started && error == ERROR_IO_PENDING) {
            HANDLE events[] = {m_stop, m_done.Get()};
            if (WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) {
                CancelAndWait(m_pipe, m_overlapped);
                SetLastError(ERROR_OPERATION_ABORTED);
                return false;
            }
        } else if (!started && error != ERROR_MORE_DATA) {
            return false;
        }
        return GetOverlappedResult(m_pipe, &m_overlapped, &bytes, FALSE) != FALSE;
    }

    HANDLE m_pipe;
    HANDLE m_stop;
    ScopedKernelHandle m_done;
    OVERLAPPED m_overlapped{};
};

std::string Hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : bytes) {
        hex += digits[byte >> 4];
        hex += digits[byte & 0xF];
    }
    return hex;
}

// The command's header; all zero when the message is shorter than one.
TnFrameHeader HeaderOf(const std::string& message) {
    TnFrameHeader header;
    header.magic = 0;
    if (message.size() >= sizeof header)
        std::memcpy(&header, message.data(), sizeof header);
    return header;
}

// The response to `command` as the behaviour has it: the header, then the
// payload "abc...z" repeated to the configured length.
std::string Response(const TnFrameHeader& command, const PipeBehaviour& behaviour) {
    TnFrameHeader header;
    header.dwCmdType = TNIPCOMMAND_RESPONSE;
    header.dwIdentifier = command.dwIdentifier;
    header.dwTxRetCode = behaviour.retCode;
    header.dwDataLength = behaviour.payloadBytes;
    if (behaviour.answer == PipeAnswer::WrongMagic)
        header.magic = kWrongMagic;
    if (behaviour.answer == PipeAnswer::StopType)
        header.dwCmdType = TNIPCOMMAND_STOP_SERVICE;
    if (behaviour.answer == PipeAnswer::WrongIdentifier)
        header.dwIdentifier += 1;
    if (behaviour.answer == PipeAnswer::CutOff)
        header.dwDataLength += kCutOffMissingBytes;
    SYSTEMTIME now;
    GetSystemTime(&now);
    static_assert(sizeof now == sizeof header.timestamp, "the header carries a SYSTEMTIME");
    std::memcpy(header.timestamp, &now, sizeof now);

    std::string frame(reinterpret_cast<const char*>(&header), sizeof header);
    for (DWORD i = 0; i < behaviour.payloadBytes; ++i)
        frame += static_cast<char>('a' + i % 26);
    return frame;
}

// False when the connection is to end: the answer leaves the client nothing
// more to read, or the client is gone.
bool Answer(PipeIo& io, const TnFrameHeader& command, const PipeBehaviour& behaviour) {
    Sleep(behaviour.delayMs);
    std::string response = Response(command, behaviour);
    switch (behaviour.answer) {
    case PipeAnswer::NoAnswer:
        return false;
    case PipeAnswer::Garbage:
        io.Write(std::string(kNoise, sizeof kNoise - 1));
        return false;
    case PipeAnswer::CutOff:
        io.Write(response);
        return false;
    case PipeAnswer::SplitHeader:
        return io.Write(response.substr(0, kSplitAt)) && io.Write(response.substr(kSplitAt));
    default:
        return io.Write(response);
    }
}

} // namespace

PipeListener::~PipeListener() {
    if (pipe)
        CancelAndWait(pipe.Get(), overlapped);
}

bool PipeListener::Listen(bool bytePipe) {
    DWORD mode =
        bytePipe ? PIPE_TYPE_BYTE | PIPE_READMODE_BYTE : PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE;
    pipe = ScopedFile(CreateNamedPipeW(kAgentPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                       mode | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES, kPipeBufferBytes,
                                       kInboundBufferBytes, 0, nullptr));
    if (!connected)
        connected = NewEvent();
    if (!pipe || !connected)
        return false;
    ResetEvent(connected.Get()); // still set from the connect the last instance saw
    overlapped = OVERLAPPED{};
    overlapped.hEvent = connected.Get();
    if (ConnectNamedPipe(pipe.Get(), &overlapped))
        return SetEvent(connected.Get()) != FALSE;
    switch (GetLastError()) {
    case ERROR_IO_PENDING:
        return true;
    case ERROR_PIPE_CONNECTED: // the client came between create and connect
    case ERROR_NO_DATA:        // ... and has already gone: reading tells
        return SetEvent(connected.Get()) != FALSE;
    default:
        return false;
    }
}

AgentPipeServer::AgentPipeServer(HANDLE stopEvent, const PipeBehaviour& behaviour,
                                 std::function<void()> onStopAnswered)
    : m_stop(stopEvent), m_behaviour(behaviour), m_onStopAnswered(std::move(onStopAnswered)) {}

bool AgentPipeServer::Listen() {
    for (PipeListener& listener : m_listeners)
        if (!listener.Listen(m_behaviour.bytePipe)) {
            JournalPipeFailure();
            return false;
        }
    return true;
}

void AgentPipeServer::Serve() {
    for (;;) {
        HANDLE events[] = {m_stop, m_listeners[0].connected.Get(), m_listeners[1].connected.Get()};
        DWORD woke = WaitForMultipleObjects(3, events, FALSE, INFINITE) - WAIT_OBJECT_0;
        if (woke == 0 || woke > 2)
            break;
        PipeListener& listener = m_listeners[woke - 1];
        m_connections.emplace_back(&AgentPipeServer::ServeConnection, this,
                                   ScopedFile(listener.pipe.Release()));
        if (!listener.Listen(m_behaviour.bytePipe)) {
            JournalPipeFailure();
            break;
        }
    }
    for (std::thread& connection : m_connections)
        connection.join();
}

// Until the client closes its end or the service stops. The instance is then
// closed, not disconnected: a disconnect would throw away an answer the client
// has not read yet (the one to a stop command), and a closed end shows the
// client a broken pipe, as a vanished agent does.
//
// On a message-mode pipe the command is answered while it is still in the
// pipe and read only then, which completes the client's write: the client
// always finds the answer queued, whatever the machine's load. A delayed answer
// comes after the read, as a slow agent's does, and so does one too long for
// the outbound buffer (its write would wait for a client still blocked in its
// own) and any on a byte-mode pipe, which has no messages to split.
void AgentPipeServer::ServeConnection(ScopedFile pipe) const {
    PipeIo io(pipe.Get(), m_stop);
    const bool answerFirst = !m_behaviour.bytePipe && m_behaviour.delayMs == 0 &&
                             sizeof(TnFrameHeader) + m_behaviour.payloadBytes <= kPipeBufferBytes;
    std::string message;
    std::string consumed;
    for (;;) {
        bool alreadyRead = !answerFirst;
        if (answerFirst ? !io.PeekMessageOnPipe(message, alreadyRead) : !io.ReadMessage(message))
            break;
        AppendJournalLine(kAgentJournal, kFrameJournalPrefix + Hex(message));
        TnFrameHeader command = HeaderOf(message);
        bool keepOpen = Answer(io, command, m_behaviour);
        if (!alreadyRead && !io.ReadMessage(consumed))
            keepOpen = false;
        if (command.dwCmdType == TNIPCOMMAND_STOP_SERVICE)
            m_onStopAnswered();
        if (!keepOpen)
            break;
    }
}
