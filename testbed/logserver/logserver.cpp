// Serves the debug-log pipe for the test bed and prints every record it
// receives as "time pid tid L file:line text".
//
//   logserver [--out <file>] [--quiet] [--stop-file <path>]
#include "LogServer.h"
#include "TestBed.h"

#include "ScopedHandle.h"

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>

namespace {

constexpr DWORD kStopPollMs = 100;

struct Options {
    std::wstring outFile;
    std::wstring stopFile;
    bool quiet = false;
};

bool ParseOptions(int count, wchar_t** arguments, Options& options) {
    for (int i = 1; i < count; ++i) {
        std::wstring argument = arguments[i];
        if (argument == L"--quiet")
            options.quiet = true;
        else if (argument == L"--out" && i + 1 < count)
            options.outFile = arguments[++i];
        else if (argument == L"--stop-file" && i + 1 < count)
            options.stopFile = arguments[++i];
        else
            return false;
    }
    return true;
}

// One line per record: a line break inside a message is shown as "\n".
std::string RecordLine(const LogRecord& record) {
    std::wstring text = record.parsed ? FormatLogRecord(record) : L"unparsed record: " + record.raw;
    std::wstring line;
    for (wchar_t c : text) {
        if (c == L'\n')
            line += L"\\n";
        else if (c == L'\r')
            line += L"\\r";
        else
            line += c;
    }
    return Narrow(line) + "\n";
}

// Owns the --out file; appends and flushes one line per record.
class RecordWriter {
  public:
    RecordWriter(const Options& options) : m_quiet(options.quiet) {
        if (!options.outFile.empty())
            m_file = _wfopen(options.outFile.c_str(), L"ab");
    }
    ~RecordWriter() {
        if (m_file)
            std::fclose(m_file);
    }
    RecordWriter(const RecordWriter&) = delete;
    RecordWriter& operator=(const RecordWriter&) = delete;

    bool Ready(const Options& options) const { return options.outFile.empty() || m_file; }

    void Write(const LogRecord& record) {
        std::string line = RecordLine(record);
        if (!m_quiet)
            Append(stdout, line);
        if (m_file)
            Append(m_file, line);
    }

  private:
    static void Append(FILE* stream, const std::string& line) {
        std::fwrite(line.data(), 1, line.size(), stream);
        std::fflush(stream);
    }

    bool m_quiet;
    FILE* m_file = nullptr;
};

bool FileExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Without a stop file the server runs until it is killed.
void WaitForStopFile(const std::wstring& stopFile) {
    while (stopFile.empty() || !FileExists(stopFile))
        Sleep(kStopPollMs);
}

int Serve(const Options& options) {
    RecordWriter writer(options);
    if (!writer.Ready(options)) {
        std::fprintf(stderr, "cannot open %s\n", Narrow(options.outFile).c_str());
        return 1;
    }
    // A stop file left from an earlier run must not stop this one.
    if (!options.stopFile.empty())
        DeleteFileW(options.stopFile.c_str());
    LogServer server([&writer](const LogRecord& record) { writer.Write(record); });
    if (!server.Start()) {
        std::printf("log pipe already served\n");
        return 1;
    }
    WaitForStopFile(options.stopFile);
    server.Stop();
    DeleteFileW(options.stopFile.c_str());
    return 0;
}

} // namespace

int main() {
    _setmode(_fileno(stdout), _O_BINARY);
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    Options options;
    bool valid = arguments && ParseOptions(count, arguments, options);
    LocalFree(arguments);
    if (!valid) {
        std::fprintf(stderr, "usage: logserver [--out <file>] [--quiet] [--stop-file <path>]\n");
        return 2;
    }
    return Serve(options);
}
