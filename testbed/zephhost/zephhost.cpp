// A command-line host for the plug-in: loads the DLL by path and calls its
// exports the way the host framework does, printing one fixed line per result
// so that tests and the demo can compare the output as text.
//
//   zephhost <dll> <call> [argument [argument]]
//   zephhost <dll> --script <file>      one "<call> <argument>" per line
//   zephhost <dll> update <source dir>  the host's update sequence in one process
#include "TestBed.h"

#include "ScopedHandle.h"
#include "zephExt_TarnClient.h"

#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

constexpr uint32_t kDefaultTypeBufferSize = 64;
constexpr int kExitCannotLoad = 1;
constexpr int kExitUsage = 2;
constexpr int kExitMissingExport = 3;

#define ZEPH_EXPORT_LIST(X)                                                                        \
    X(zephExt_Init)                                                                                \
    X(zephExt_Deinit)                                                                              \
    X(zephExt_GetPrerequest)                                                                       \
    X(zephExt_CreateContext)                                                                       \
    X(zephExt_ReleaseContext)                                                                      \
    X(zephExt_OnCommand)                                                                           \
    X(zephExt_OnNotify)                                                                            \
    X(zephExt_OnQueryData)                                                                         \
    X(zephExt_Free)                                                                                \
    X(zephExt_PreUpdate)                                                                           \
    X(zephExt_DoUpdate)                                                                            \
    X(zephExt_PostUpdate)                                                                          \
    X(zephExt_Rollback)                                                                            \
    X(zephExt_ParseLog)

// The plug-in's entry points, each typed by its declaration in the header.
struct Exports {
#define ZEPH_DECLARE_EXPORT(name) decltype(&::name) name = nullptr;
    ZEPH_EXPORT_LIST(ZEPH_DECLARE_EXPORT)
#undef ZEPH_DECLARE_EXPORT
};

template <typename Function> bool Resolve(HMODULE module, const char* name, Function& entry) {
    entry = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (!entry)
        std::printf("missing export %s\n", name);
    return entry != nullptr;
}

// Reports every missing export, not only the first.
bool ResolveAll(HMODULE module, Exports& exports) {
    bool complete = true;
#define ZEPH_RESOLVE_EXPORT(name) complete = Resolve(module, #name, exports.name) && complete;
    ZEPH_EXPORT_LIST(ZEPH_RESOLVE_EXPORT)
#undef ZEPH_RESOLVE_EXPORT
    return complete;
}

void PrintResult(const char* exportName, uint32_t result) {
    std::printf("%s -> %u\n", exportName, result);
}

void PrintText(const char* text, size_t length) {
    std::fwrite(text, 1, length, stdout);
    std::fputc('\n', stdout);
}

std::string ArgumentAt(const std::vector<std::string>& arguments, size_t index) {
    return index < arguments.size() ? arguments[index] : std::string();
}

class Host {
  public:
    using Arguments = std::vector<std::string>;

    explicit Host(const Exports& exports) : m_exports(exports) {}

    // Runs one call and flushes its lines; false for an unknown call.
    bool Run(const std::string& call, const Arguments& arguments) {
        static const std::map<std::string, void (Host::*)(const Arguments&)> calls = {
            {"init", &Host::Init},
            {"deinit", &Host::Deinit},
            {"prereq", &Host::Prerequisite},
            {"create-context", &Host::CreateContext},
            {"release-context", &Host::ReleaseContext},
            {"command", &Host::Command},
            {"notify", &Host::Notify},
            {"query", &Host::Query},
            {"free-null", &Host::FreeNull},
            {"preupdate", &Host::PreUpdate},
            {"doupdate", &Host::DoUpdate},
            {"postupdate", &Host::PostUpdate},
            {"rollback", &Host::Rollback},
            {"update", &Host::Update},
            {"parselog", &Host::ParseLog},
        };
        auto found = calls.find(call);
        if (found == calls.end()) {
            std::printf("unknown call %s\n", call.c_str());
            std::fflush(stdout);
            return false;
        }
        (this->*found->second)(arguments);
        std::fflush(stdout);
        return true;
    }

  private:
    void Init(const Arguments&) { PrintResult("zephExt_Init", m_exports.zephExt_Init()); }
    void Deinit(const Arguments&) { PrintResult("zephExt_Deinit", m_exports.zephExt_Deinit()); }

    // The host pre-fills the record so the output shows what the plug-in wrote.
    void Prerequisite(const Arguments&) {
        ZephPrerequisite record;
        std::memset(&record, 0xFF, sizeof(record)); // the padding after flag too
        record.reserved = 0xA5A5A5A5;
        PrintResult("zephExt_GetPrerequest", m_exports.zephExt_GetPrerequest(&record));
        std::printf("record: reserved=%u kind=%u major=%u minor=%u build=%u flag=%u\n",
                    record.reserved, record.kind, record.major, record.minor, record.build,
                    static_cast<unsigned>(record.flag));
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&record);
        std::printf("bytes:");
        for (size_t i = 0; i < sizeof(record); ++i)
            std::printf(" %02x", bytes[i]);
        std::printf("\n");
    }

    void CreateContext(const Arguments&) {
        PrintResult("zephExt_CreateContext", m_exports.zephExt_CreateContext(&m_context));
    }
    void ReleaseContext(const Arguments&) {
        PrintResult("zephExt_ReleaseContext", m_exports.zephExt_ReleaseContext(m_context));
        m_context = nullptr; // the plug-in has freed it
    }

    void Command(const Arguments& arguments) {
        std::string request = ArgumentAt(arguments, 0);
        PrintResult("zephExt_OnCommand",
                    m_exports.zephExt_OnCommand(m_context, static_cast<int32_t>(request.size()),
                                                request.c_str()));
    }
    void Notify(const Arguments& arguments) {
        std::string request = ArgumentAt(arguments, 0);
        PrintResult("zephExt_OnNotify",
                    m_exports.zephExt_OnNotify(m_context, static_cast<int32_t>(request.size()),
                                               request.c_str()));
    }

    // The response belongs to the plug-in until it is handed back.
    void Query(const Arguments& arguments) {
        std::string request = ArgumentAt(arguments, 0);
        uint32_t responseLength = 0;
        char* response = nullptr;
        PrintResult("zephExt_OnQueryData",
                    m_exports.zephExt_OnQueryData(m_context, static_cast<int32_t>(request.size()),
                                                  request.c_str(), &responseLength, &response));
        if (!response) {
            std::printf("response: null\n");
            return;
        }
        std::printf("response(%u): ", responseLength);
        PrintText(response, std::strlen(response));
        PrintResult("zephExt_Free", m_exports.zephExt_Free(response));
    }

    void FreeNull(const Arguments&) {
        PrintResult("zephExt_Free", m_exports.zephExt_Free(nullptr));
    }

    void PreUpdate(const Arguments&) {
        PrintResult("zephExt_PreUpdate", m_exports.zephExt_PreUpdate(nullptr, m_context));
        PrintCounter();
    }
    void DoUpdate(const Arguments& arguments) {
        ZephUpdateInfo info = {};
        std::wstring sourceDir = Widen(ArgumentAt(arguments, 0));
        wcsncpy(info.sourceDir, sourceDir.c_str(), MAX_PATH - 1);
        m_lastDoUpdate = m_exports.zephExt_DoUpdate(&info, m_context);
        PrintResult("zephExt_DoUpdate", m_lastDoUpdate);
        PrintCounter();
    }
    void PostUpdate(const Arguments&) {
        PrintResult("zephExt_PostUpdate", m_exports.zephExt_PostUpdate());
    }
    void Rollback(const Arguments&) {
        PrintResult("zephExt_Rollback", m_exports.zephExt_Rollback(nullptr, m_context));
        PrintCounter();
    }
    // The host's whole sequence: context, stages, then post-update after a
    // successful update or rollback after a failed stage, and release.
    void Update(const Arguments& arguments) {
        CreateContext(arguments);
        PreUpdate(arguments);
        m_lastDoUpdate = 1;
        if (m_context && *static_cast<int32_t*>(m_context) == 1)
            DoUpdate(arguments);
        if (m_lastDoUpdate == 0)
            PostUpdate(arguments);
        else
            Rollback(arguments);
        ReleaseContext(arguments);
    }
    void PrintCounter() const {
        if (m_context)
            std::printf("step counter: %d\n", *static_cast<const int32_t*>(m_context));
    }

    void ParseLog(const Arguments& arguments) {
        std::wstring path = Widen(ArgumentAt(arguments, 0));
        uint32_t typeSize =
            arguments.size() > 1
                ? static_cast<uint32_t>(std::strtoul(arguments[1].c_str(), nullptr, 10))
                : kDefaultTypeBufferSize;
        std::vector<wchar_t> type(typeSize + 1, L'\0'); // one more: always terminated
        char* data = nullptr;
        uint32_t dataSize = 0;
        PrintResult("zephExt_ParseLog", m_exports.zephExt_ParseLog(path.c_str(), typeSize,
                                                                   type.data(), &data, &dataSize));
        std::printf("type: %s\n", Narrow(type.data()).c_str());
        if (!data)
            return;
        std::printf("data(%u): ", dataSize);
        PrintText(data, strnlen(data, dataSize));
        PrintResult("zephExt_Free", m_exports.zephExt_Free(data));
    }

    Exports m_exports;
    void* m_context = nullptr;
    uint32_t m_lastDoUpdate = 0;
};

// The wide command line, each argument as UTF-8.
std::vector<std::string> Utf8Arguments() {
    int count = 0;
    LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 0; wide && i < count; ++i)
        arguments.push_back(Narrow(wide[i]));
    LocalFree(wide);
    return arguments;
}

bool IsDecimal(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "<call> <argument to end of line>"; parselog's optional buffer size is the
// last word when it is a number.
std::pair<std::string, Host::Arguments> ParseScriptLine(const std::string& line) {
    size_t space = line.find(' ');
    std::string call = line.substr(0, space);
    if (space == std::string::npos)
        return {call, {}};
    std::string rest = line.substr(space + 1);
    size_t last = rest.rfind(' ');
    if (call == "parselog" && last != std::string::npos && IsDecimal(rest.substr(last + 1)))
        return {call, {rest.substr(0, last), rest.substr(last + 1)}};
    return {call, {rest}};
}

bool IsSkipped(const std::string& line) {
    return line.find_first_not_of(" \t") == std::string::npos || line[0] == '#';
}

int RunScript(Host& host, const std::string& file) {
    std::string text;
    if (!ReadFileBytes(Widen(file), text)) {
        std::printf("cannot read script %s\n", file.c_str());
        return kExitCannotLoad;
    }
    for (const std::string& line : SplitLines(text)) {
        if (IsSkipped(line))
            continue;
        auto [call, arguments] = ParseScriptLine(line);
        if (!host.Run(call, arguments))
            return kExitUsage;
    }
    return 0;
}

int Usage() {
    std::fprintf(stderr, "usage: zephhost <dll path> <call> [argument]\n"
                         "       zephhost <dll path> --script <file>\n");
    return kExitUsage;
}

} // namespace

int main() {
    // Plain "\n" line ends, whatever reads the output.
    _setmode(_fileno(stdout), _O_BINARY);
    std::vector<std::string> arguments = Utf8Arguments();
    if (arguments.size() < 3 || (arguments[2] == "--script" && arguments.size() != 4))
        return Usage();
    ScopedModule plugin(LoadLibraryW(Widen(arguments[1]).c_str()));
    if (!plugin) {
        std::printf("cannot load %s error=%lu\n", arguments[1].c_str(), GetLastError());
        return kExitCannotLoad;
    }
    Exports exports;
    if (!ResolveAll(plugin.Get(), exports)) {
        std::fflush(stdout);
        return kExitMissingExport;
    }
    Host host(exports);
    if (arguments[2] == "--script")
        return RunScript(host, arguments[3]);
    Host::Arguments callArguments(arguments.begin() + 3, arguments.end());
    return host.Run(arguments[2], callArguments) ? 0 : kExitUsage;
}
