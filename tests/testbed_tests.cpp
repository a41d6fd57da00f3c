// The test bed itself: if the process runner, the host library double or the
// command-line host misbehave, every suite built on them reports nonsense.
#include "DebugLog.h"
#include "LogServer.h"
#include "ScopedHandle.h"
#include "TestBed.h"
#include "ZephIntegration.h"

#include <gtest/gtest.h>

#include <shellapi.h>

#include <cstdint>
#include <thread>

namespace {

const wchar_t kLogPipe[] = L"\\\\.\\pipe\\Log_ServerNamePipe";
const wchar_t kProductKey[] = L"SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion";

std::wstring TempPath(const wchar_t* name) {
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder) + name;
}

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    ScopedFile file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    ASSERT_TRUE(file.IsValid());
    DWORD written = 0;
    ASSERT_TRUE(
        WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
}

bool LogPipeServed() {
    return WaitNamedPipeW(kLogPipe, 1) || GetLastError() != ERROR_FILE_NOT_FOUND;
}

TEST(QuoteArgumentTest, EveryArgumentSurvivesTheRoundTripThroughACommandLine) {
    const std::vector<std::wstring> arguments = {
        L"plain",          L"",
        L"two words",      L"tab\there",
        L"say \"hi\"",     L"C:\\folder\\",
        L"C:\\a b\\",      L"back\\\\\"slash",
        L"\\\\server\\sh", L"{\"query_id\":\"X\",\"query_data\":{\"a\":[1, 2]}}",
    };
    std::wstring line = L"prog.exe";
    for (const std::wstring& argument : arguments)
        line += L" " + QuoteArgument(argument);
    int count = 0;
    LPWSTR* parsed = CommandLineToArgvW(line.c_str(), &count);
    ASSERT_NE(parsed, nullptr);
    std::vector<std::wstring> back(parsed + 1, parsed + count);
    LocalFree(parsed);
    EXPECT_EQ(back, arguments) << Narrow(line);
}

TEST(RunProcessTest, CapturesOutputAndExitCode) {
    ProcessResult result =
        RunProcess({BinPath(L"zephhost.exe"), L"C:\\no such folder\\missing.dll", L"init"});
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.output, "cannot load C:\\no such folder\\missing.dll error=126\n");

    result = RunProcess({L"C:\\no such folder\\missing.exe"});
    EXPECT_EQ(result.exitCode, static_cast<DWORD>(-1));
    EXPECT_EQ(result.output.rfind("cannot start C:\\no such folder\\missing.exe error=", 0), 0u);
}

TEST(RunProcessTest, KillsAProgramThatOutlivesItsTimeOut) {
    ASSERT_FALSE(LogPipeServed());
    ProcessResult result = RunProcess({BinPath(L"logserver.exe"), L"--quiet"}, 1500);
    EXPECT_TRUE(result.timedOut);
    EXPECT_FALSE(LogPipeServed()) << "the log server still runs";
}

class HostDoubleTest : public ::testing::Test {
  protected:
    using SystemCallFn = uint32_t (*)(void*, uint32_t, const char*, char**, uint32_t*);
    using FreeFn = uint32_t (*)(void*);
    using VerifyFn = uint32_t (*)(const wchar_t*);

    void SetUp() override {
        SimulatedInstall::Remove();
        m_library.Reset(LoadLibraryW(BinPath(L"zephAgent_64x.dll").c_str()));
        ASSERT_TRUE(m_library.IsValid());
    }
    void TearDown() override {
        m_library.Reset();
        SimulatedInstall::Remove();
    }

    template <typename Function> Function Entry(HMODULE module, const char* name) {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    }
    uint32_t SystemCall(const char* request, char** response, uint32_t* responseSize) {
        auto call = Entry<SystemCallFn>(m_library.Get(), "zephCnt_SystemCall");
        return call(nullptr, static_cast<uint32_t>(strlen(request) + 1), request, response,
                    responseSize);
    }
    uint32_t Free(void* buffer) { return Entry<FreeFn>(m_library.Get(), "zephCnt_Free")(buffer); }

    ScopedModule m_library;
};

TEST_F(HostDoubleTest, SystemCallAnswersTheConfiguredTextAndTakesOnlyItsOwnBufferBack) {
    HostBehaviour behaviour;
    behaviour.systemCallResponse =
        "{\"r\":\"\xc3\xa9\xe6\xbc\xa2\"}"; // UTF-8 survives the registry
    ASSERT_TRUE(SimulatedInstall::SetHostBehaviour(behaviour));
    char* response = nullptr;
    uint32_t responseSize = 0;
    EXPECT_EQ(SystemCall("{\"a\":1}", &response, &responseSize), 0u);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(std::string(response), behaviour.systemCallResponse);
    EXPECT_EQ(responseSize, behaviour.systemCallResponse.size() + 1);
    char notTheHosts = 0;
    EXPECT_EQ(Free(response), 0u);
    EXPECT_EQ(Free(nullptr), 0u);
    EXPECT_EQ(Free(&notTheHosts), 0u);
    EXPECT_EQ(SimulatedInstall::HostJournal(),
              (std::vector<std::string>{"SystemCall 8 {\"a\":1}", "Free buffer", "Free null",
                                        "Free foreign"}));
}

TEST(SimulatedInstallTest, CreateSetsUpTheChosenDoubleAndRemoveTakesEverythingAway) {
    const std::wstring folder = L"C:\\ZephTestBed\\Other place\\";
    SimulatedInstall::Remove();
    ASSERT_TRUE(SimulatedInstall::Create(HostLibraryVariant::WithoutSystemCall, folder));
    wchar_t value[MAX_PATH] = {};
    DWORD size = sizeof(value);
    DWORD type = 0;
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, kProductKey, L"Application Path", RRF_RT_ANY, &type,
                           value, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(std::wstring(value), folder);
    {
        ScopedModule copied(LoadLibraryW((folder + L"zephAgent_64x.dll").c_str()));
        ASSERT_TRUE(copied.IsValid());
        EXPECT_EQ(GetProcAddress(copied.Get(), "zephCnt_SystemCall"), nullptr);
        using VerifyFn = uint32_t (*)(const wchar_t*);
        auto verify = reinterpret_cast<VerifyFn>(reinterpret_cast<void*>(
            GetProcAddress(copied.Get(), "zephCnt_VerifyLoaderProcessSign")));
        verify(L"x");
    }
    EXPECT_EQ(SimulatedInstall::HostJournal(),
              std::vector<std::string>{"VerifyLoaderProcessSign x"});

    SimulatedInstall::Remove();
    EXPECT_NE(RegGetValueW(HKEY_LOCAL_MACHINE, kProductKey, L"Application Path", RRF_RT_ANY,
                           nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(GetFileAttributesW(folder.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(SimulatedInstall::HostJournal(), std::vector<std::string>{});
}

TEST(ZephHostTest, ScriptSkipsCommentsAndBlankLinesAndStopsAtAnUnknownCall) {
    const std::wstring script = TempPath(L"zephhost_script.txt");
    WriteBytes(script, "# a comment\r\n\r\ninit\r\n   \r\ndeinit\r\nbogus x\r\ninit\r\n");
    ProcessResult result = RunProcess(
        {BinPath(L"zephhost.exe"), BinPath(L"zephExt_TarnClient.dll"), L"--script", script});
    DeleteFileW(script.c_str());
    EXPECT_EQ(result.exitCode, 2u);
    EXPECT_EQ(result.output, "zephExt_Init -> 0\nzephExt_Deinit -> 0\nunknown call bogus\n");
}

TEST(ZephHostTest, RequestTextReachesThePlugInByteForByte) {
    const std::string request = "{\"command_id\":\"a \\\"quoted\\\" \\\\ value\", \"x\" : [1, 2]}";
    SimulatedInstall::Remove();
    ASSERT_TRUE(SimulatedInstall::Create());
    LogServer server;
    ASSERT_TRUE(server.Start());
    ProcessResult result = RunProcess(
        {BinPath(L"zephhost.exe"), BinPath(L"zephExt_TarnClient.dll"), L"command", Widen(request)});
    ASSERT_TRUE(server.Sync());
    SimulatedInstall::Remove();
    EXPECT_EQ(result.exitCode, 0u) << result.output;
    const std::wstring logged = L"zephExt_OnCommand - Request: " + Widen(request);
    bool found = false;
    for (const LogRecord& record : server.Records()) {
        const std::wstring& text = record.text;
        found = found || (text.size() >= logged.size() &&
                          text.compare(text.size() - logged.size(), logged.size(), logged) == 0);
    }
    EXPECT_TRUE(found);
}

TEST(LogServerProgramTest, RefusesWhenThePipeIsAlreadyServed) {
    LogServer server;
    ASSERT_TRUE(server.Start());
    ProcessResult result = RunProcess({BinPath(L"logserver.exe")}, 10000);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_EQ(result.output, "log pipe already served\n");
}

TEST(LogServerProgramTest, WritesOneLinePerRecordAndStopsWhenTheStopFileAppears) {
    const std::wstring out = TempPath(L"logserver_records.txt");
    const std::wstring stop = TempPath(L"logserver.stop");
    DeleteFileW(out.c_str());
    ProcessResult result;
    std::thread program([&] {
        result = RunProcess({BinPath(L"logserver.exe"), L"--out", out, L"--stop-file", stop});
    });
    for (int i = 0; i < 200 && !LogPipeServed(); ++i)
        Sleep(50);
    SendDebugLogRecord(1234, 5, 6, 'E', L"src/a.cpp", 12, L"first\nsecond \u00e9");
    const std::string expected = "1234 5 6 E src/a.cpp:12 first\\nsecond \xc3\xa9\n";
    std::string written;
    for (int i = 0; i < 200 && written != expected; ++i) {
        Sleep(50);
        ReadFileBytes(out, written);
    }
    WriteBytes(stop, "");
    program.join();
    DeleteFileW(out.c_str());
    EXPECT_EQ(written, expected);
    EXPECT_EQ(result.output, expected);
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(GetFileAttributesW(stop.c_str()), INVALID_FILE_ATTRIBUTES);
}

} // namespace
