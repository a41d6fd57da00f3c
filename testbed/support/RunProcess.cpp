#include "TestBed.h"

#include "ScopedHandle.h"

#include <atomic>

namespace {

// A grandchild may inherit the output pipe and hold it after the child exits;
// its output is collected only this long after the child has gone.
constexpr DWORD kDrainAfterExitMs = 2000;
constexpr UINT kKilledExitCode = 1;

std::atomic<unsigned> g_pipeCounter{0};

class Deadline {
  public:
    explicit Deadline(DWORD ms) : m_end(GetTickCount64() + ms) {}
    DWORD Remaining() const {
        ULONGLONG now = GetTickCount64();
        return now >= m_end ? 0 : static_cast<DWORD>(m_end - now);
    }

  private:
    ULONGLONG m_end;
};

// The child's stdout and stderr, read through one overlapped pipe so that a
// single thread can wait for output and for the child's exit at once.
class OutputReader {
  public:
    OutputReader() = default;
    OutputReader(const OutputReader&) = delete;
    OutputReader& operator=(const OutputReader&) = delete;
    ~OutputReader() {
        // The pending read writes into this object; it must end before we go.
        if (m_pending) {
            DWORD ignored = 0;
            CancelIo(m_pipe.Get());
            GetOverlappedResult(m_pipe.Get(), &m_overlapped, &ignored, TRUE);
        }
    }

    // Makes the pipe; `writeEnd` becomes the inheritable end for the child.
    bool Open(ScopedFile& writeEnd) {
        std::wstring name = L"\\\\.\\pipe\\zephtestbed-output-" +
                            std::to_wstring(GetCurrentProcessId()) + L"-" +
                            std::to_wstring(++g_pipeCounter);
        m_pipe.Reset(CreateNamedPipeW(
            name.c_str(),
            PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 0, 64 * 1024, 0, nullptr));
        m_event.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!m_pipe || !m_event)
            return false;
        m_overlapped.hEvent = m_event.Get();
        SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
        writeEnd.Reset(
            CreateFileW(name.c_str(), GENERIC_WRITE, 0, &inheritable, OPEN_EXISTING, 0, nullptr));
        return writeEnd.IsValid();
    }

    HANDLE Event() const { return m_event.Get(); }
    std::string& Output() { return m_output; }

    // Takes what has arrived and keeps one read pending; false once every
    // writer has closed its end.
    bool Pump() {
        for (;;) {
            if (m_pending) {
                DWORD read = 0;
                if (!GetOverlappedResult(m_pipe.Get(), &m_overlapped, &read, FALSE)) {
                    if (GetLastError() == ERROR_IO_INCOMPLETE)
                        return true;
                    m_pending = false;
                    return false;
                }
                m_pending = false;
                m_output.append(m_buffer, read);
            }
            if (!ReadFile(m_pipe.Get(), m_buffer, sizeof(m_buffer), nullptr, &m_overlapped) &&
                GetLastError() != ERROR_IO_PENDING)
                return false;
            m_pending = true;
        }
    }

  private:
    ScopedFile m_pipe;
    ScopedKernelHandle m_event;
    OVERLAPPED m_overlapped = {};
    bool m_pending = false;
    char m_buffer[4096];
    std::string m_output;
};

std::wstring CommandLine(const std::vector<std::wstring>& arguments) {
    std::wstring line;
    for (const std::wstring& argument : arguments)
        line += (line.empty() ? L"" : L" ") + QuoteArgument(argument);
    return line;
}

ScopedKernelHandle StartChild(const std::vector<std::wstring>& arguments, HANDLE output) {
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    ScopedFile input(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 &inheritable, OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input.Get();
    startup.hStdOutput = output;
    startup.hStdError = output;
    std::wstring commandLine = CommandLine(arguments);
    PROCESS_INFORMATION process = {};
    // Wine now and then fails a start with ERROR_INTERNAL_ERROR (measured in
    // CI runs); a second try starts the same program normally.
    for (int attempt = 0;; ++attempt) {
        if (CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                           &startup, &process))
            break;
        if (GetLastError() != ERROR_INTERNAL_ERROR || attempt == 2)
            return ScopedKernelHandle();
        Sleep(100);
    }
    ScopedKernelHandle thread(process.hThread);
    return ScopedKernelHandle(process.hProcess);
}

void Kill(HANDLE process) {
    TerminateProcess(process, kKilledExitCode);
    WaitForSingleObject(process, 5000);
}

// Reads until the child has exited and the pipe is closed; true when the
// child had to be killed.
bool CollectUntilExit(OutputReader& reader, HANDLE process, DWORD timeoutMs) {
    Deadline deadline(timeoutMs);
    bool exited = false;
    bool killed = false;
    while (reader.Pump()) {
        HANDLE handles[] = {reader.Event(), process};
        DWORD wait = WaitForMultipleObjects(exited ? 1 : 2, handles, FALSE, deadline.Remaining());
        if (wait == WAIT_OBJECT_0)
            continue;
        if (exited)
            break; // a grandchild still holds the pipe
        if (wait != WAIT_OBJECT_0 + 1) {
            Kill(process);
            killed = true;
        }
        exited = true;
        deadline = Deadline(kDrainAfterExitMs);
    }
    if (!exited && WaitForSingleObject(process, deadline.Remaining()) != WAIT_OBJECT_0) {
        Kill(process);
        killed = true;
    }
    return killed;
}

} // namespace

ProcessResult RunProcess(const std::vector<std::wstring>& arguments, DWORD timeoutMs) {
    ProcessResult result;
    OutputReader reader;
    ScopedFile writeEnd;
    ScopedKernelHandle process;
    if (!arguments.empty() && reader.Open(writeEnd))
        process = StartChild(arguments, writeEnd.Get());
    if (!process) {
        result.exitCode = static_cast<DWORD>(-1);
        result.output = "cannot start " +
                        (arguments.empty() ? std::string() : Narrow(arguments[0])) +
                        " error=" + std::to_string(GetLastError()) + "\n";
        return result;
    }
    writeEnd.Reset(); // only the child holds the write end now: its exit ends the stream
    result.timedOut = CollectUntilExit(reader, process.Get(), timeoutMs);
    GetExitCodeProcess(process.Get(), &result.exitCode);
    result.output = std::move(reader.Output());
    return result;
}
