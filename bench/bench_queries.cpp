// Cost of each query through zephExt_OnQueryData (plus zephExt_Free) in the
// real DLL, with the agent installed and running and no log server, as a
// ratio to the floor of any implementation: the same system calls the query
// makes, a RapidJSON parse of the request and a write of the same response.
// A second floor adds one failed log-pipe open per record the call logs, the
// least that logging costs when nobody listens. Prints, never asserts.
#include "AgentDouble.h"
#include "BenchTiming.h"
#include "LogServer.h"
#include "TestBed.h"
#include "zephExt_TarnClient.h"

#include "Json.h"
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace {

constexpr int kCalls = 5;
constexpr int kRounds = 61;
const wchar_t kLogPipe[] = L"\\\\.\\pipe\\Log_ServerNamePipe";
const wchar_t kProductKey[] = L"SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion";
const std::wstring kClientFolder = AgentDouble::kClientFolder;
const std::wstring kAgentExecutable = kClientFolder + L"\\TarnAgent.exe";

// The parent product's install path, read as the plug-in's registry helper
// reads it: an existence probe, an open, the value's size, the value, its
// type, a close.
void ReadInstallPath() {
    HKEY probe = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, KEY_READ, &probe) == ERROR_SUCCESS)
        RegCloseKey(probe);
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return;
    wchar_t value[MAX_PATH];
    DWORD type = 0;
    DWORD size = 0;
    RegQueryValueExW(key, L"Application Path", nullptr, &type, nullptr, &size);
    size = sizeof(value);
    RegQueryValueExW(key, L"Application Path", nullptr, &type, reinterpret_cast<BYTE*>(value),
                     &size);
    RegQueryValueExW(key, L"Application Path", nullptr, &type, nullptr, nullptr);
    RegCloseKey(key);
}

DWORD ReadServiceState() {
    SERVICE_STATUS_PROCESS status = {};
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE service = OpenServiceW(manager, L"TarnAgent", SERVICE_ALL_ACCESS);
    DWORD needed = 0;
    QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                         sizeof(status), &needed);
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    return status.dwCurrentState;
}

void ReadAgentVersion() {
    ReadInstallPath();
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(kAgentExecutable.c_str(), &ignored);
    std::string info(size, '\0');
    GetFileVersionInfoW(kAgentExecutable.c_str(), 0, size, &info[0]);
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    VerQueryValueW(&info[0], L"\\", reinterpret_cast<void**>(&fixed), &length);
}

void ToUtf8(const std::wstring& text) {
    int length = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()),
                                     nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &utf8[0], length,
                        nullptr, nullptr);
}

void ClientStatusCalls() {
    ReadServiceState();
    ReadAgentVersion(); // "SLF_Version"
    ReadAgentVersion(); // "Display_Version"
}

void CommonSettingsCalls() {
    ReadInstallPath();
    GetPrivateProfileIntW(L"Policy", L"Enabled", 0,
                          (kClientFolder + L"\\config\\tn_agent.ini").c_str());
}

void ServiceStatusCalls() {
    ReadServiceState();
}

void SelfProtectionCalls() {
    ReadInstallPath();
    ToUtf8(kClientFolder);
    ToUtf8(kAgentExecutable);
    ToUtf8(kClientFolder + L"\\hdc.exe");
    // Both keys exist by now; the query opens both through one handle and
    // closes only the last, so the floor does the same.
    HKEY key = nullptr;
    for (const wchar_t* program : {L"TarnAgent.exe", L"hdc.exe"})
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(kImageOptionsKey) + program).c_str(), 0,
                      KEY_READ, &key);
    RegCloseKey(key);
}

struct Query {
    Query(const char* id, const char* request, void (*systemCalls)())
        : id(id), request(request), systemCalls(systemCalls) {}
    const char* id;
    const char* request;
    void (*systemCalls)();
    std::string response; // as the plug-in answered it
    JsonDocument responseDocument;
    long logRecords = 0; // per call
    bench::Measure plugin, floor, floorWithLog;
};

} // namespace

int main() {
    Query queries[] = {
        {"ZEPH_ONQUERY_CLIENT_STATUS_LOG",
         "{\"query_id\":\"ZEPH_ONQUERY_CLIENT_STATUS_LOG\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
         "\"query_data\":{\"query_type\":\"ZEPH_CLIENT_ALL_STATUS_LOG\"}}",
         ClientStatusCalls},
        {"ZEPH_ONQUERY_COMMON_SETTINGS",
         "{\"query_id\":\"ZEPH_ONQUERY_COMMON_SETTINGS\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
         "\"query_data\":{}}",
         CommonSettingsCalls},
        {"ZEPH_ONQUERY_SERVICE_STATUS",
         "{\"query_id\":\"ZEPH_ONQUERY_SERVICE_STATUS\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
         "\"query_data\":{}}",
         ServiceStatusCalls},
        {"ZEPH_ONQUERY_SELF_PROTECTION",
         "{\"query_id\":\"ZEPH_ONQUERY_SELF_PROTECTION\",\"product_id\":\"ZEPH_IPRODUCT_TARN\","
         "\"query_data\":{}}",
         SelfProtectionCalls},
    };

    AgentDouble::Remove();
    SimulatedInstall::Remove();
    if (!SimulatedInstall::Create() || !AgentDouble::SetBehaviour({}) || !AgentDouble::Place() ||
        AgentDouble::RunInstall() != 0 || !AgentDouble::Start()) {
        std::printf("cannot set up the installation and the running agent\n");
        AgentDouble::Remove();
        SimulatedInstall::Remove();
        return 1;
    }
    CreateFolderTree(kClientFolder + L"\\config");
    WritePrivateProfileStringW(L"Policy", L"Enabled", L"1",
                               (kClientFolder + L"\\config\\tn_agent.ini").c_str());

    HMODULE plugin = LoadLibraryW(BinPath(L"zephExt_TarnClient.dll").c_str());
    auto onQueryData = reinterpret_cast<decltype(&zephExt_OnQueryData)>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "zephExt_OnQueryData")));
    auto release = reinterpret_cast<decltype(&zephExt_Free)>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "zephExt_Free")));
    if (!onQueryData || !release) {
        std::printf("cannot load the plug-in\n");
        return 1;
    }
    auto ask = [&](const Query& query) {
        char* response = nullptr;
        uint32_t length = 0;
        onQueryData(nullptr, static_cast<int32_t>(strlen(query.request)), query.request, &length,
                    &response);
        std::string text = response && length ? std::string(response, length - 1) : "";
        release(response);
        return text;
    };

    // Once with a log server, to bind to the host, create what the queries
    // create, keep each response and count the records each call writes.
    {
        std::atomic<long> records{0};
        LogServer server([&](const LogRecord&) { ++records; });
        if (!server.Start()) {
            std::printf("a log server is already running\n");
            return 1;
        }
        for (Query& query : queries)
            ask(query);
        for (Query& query : queries) {
            server.Sync();
            records = 0;
            query.response = ask(query);
            server.Sync();
            query.logRecords = records;
        }
    }
    if (WaitNamedPipeW(kLogPipe, 1) || GetLastError() != ERROR_FILE_NOT_FOUND) {
        std::printf("the log pipe is still served\n");
        return 1;
    }

    int failures = 0;
    for (Query& query : queries) {
        query.responseDocument.Parse(query.response.c_str());
        if (query.responseDocument.HasParseError() ||
            query.response.find("\"result_code\":0,") == std::string::npos) {
            std::printf("%s did not succeed: %s\n", query.id, query.response.c_str());
            ++failures;
        }
        query.plugin.name = std::string("zephExt_OnQueryData ") + query.id;
        query.floor.name = "its system calls + JSON parse and write";
        query.floorWithLog.name =
            "the same + " + std::to_string(query.logRecords) + " failed log-pipe opens";
    }
    if (failures)
        return 1;

    size_t sink = 0;
    auto floorCall = [&](const Query& query, long logOpens) {
        for (long i = 0; i < logOpens; ++i) {
            HANDLE pipe = CreateFileW(kLogPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                      SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
            if (pipe != INVALID_HANDLE_VALUE)
                CloseHandle(pipe);
        }
        JsonDocument request;
        request.Parse(query.request, strlen(query.request));
        query.systemCalls();
        JsonBuffer buffer;
        JsonWriter writer(buffer);
        query.responseDocument.Accept(writer);
        char* response = static_cast<char*>(std::malloc(buffer.GetSize() + 1));
        memcpy(response, buffer.GetString(), buffer.GetSize() + 1);
        sink += strlen(response) + request.MemberCount();
        std::free(response);
    };
    for (int round = 0; round < kRounds; ++round) {
        for (Query& query : queries) {
            bench::Time(query.floor.times, kCalls, [&] {
                for (int i = 0; i < kCalls; ++i)
                    floorCall(query, 0);
            });
            bench::Time(query.plugin.times, kCalls, [&] {
                for (int i = 0; i < kCalls; ++i)
                    sink += ask(query).size();
            });
            bench::Time(query.floorWithLog.times, kCalls, [&] {
                for (int i = 0; i < kCalls; ++i)
                    floorCall(query, query.logRecords);
            });
        }
    }

    std::printf("Agent installed and running, no log server: %d calls a batch, %d rounds, median "
                "per call\n",
                kCalls, kRounds);
    bench::Table table("call", bench::kMicroseconds);
    for (const Query& query : queries) {
        table.Row(query.plugin, query.floor, "<= 1.5");
        table.Row(query.plugin, query.floorWithLog);
    }
    table.Print();

    FreeLibrary(plugin);
    AgentDouble::Remove();
    SimulatedInstall::Remove();
    return sink == 0 ? 1 : 0;
}
