// The agent's service and pipe for real: the Service Control Manager and a
// message-mode pipe of the Wine prefix, with the agent double on the far end.
#include "AgentControlFixture.h"
#include "ServiceControl.h"
#include "TarnAgentCommands.h"

namespace {

using AgentDouble::PipeAnswer;
const char kStatusJson[] = R"({"self_protection":{"enabled":true}})";

std::string Le32(uint32_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>((value >> shift) & 0xFF);
    return bytes;
}

// The frame as the agent must see it, up to the timestamp.
std::string ExpectedHead(uint32_t type, uint32_t identifier, size_t payloadLength) {
    return "NTVQ" + Le32(type) + Le32(identifier) + Le32(0) +
           Le32(static_cast<uint32_t>(payloadLength));
}

// Minutes between the frame's UTC stamp and now.
double StampAgeMinutes(const std::string& frame) {
    SYSTEMTIME stamp = {};
    memcpy(&stamp, frame.data() + 20, sizeof(stamp));
    FILETIME stampTime = {};
    FILETIME now = {};
    if (!SystemTimeToFileTime(&stamp, &stampTime))
        return 1e9;
    GetSystemTimeAsFileTime(&now);
    auto ticks = [](const FILETIME& time) {
        return (uint64_t(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    };
    return (double(ticks(now)) - double(ticks(stampTime))) / 600000000.0;
}

void ExpectFrame(const std::string& frame, uint32_t type, uint32_t identifier,
                 const std::string& payload = std::string()) {
    ASSERT_EQ(frame.size(), 36 + payload.size());
    EXPECT_EQ(frame.substr(0, 20), ExpectedHead(type, identifier, payload.size()));
    EXPECT_LT(std::abs(StampAgeMinutes(frame)), 5.0) << "stamped with the UTC time of sending";
    EXPECT_EQ(frame.substr(36), payload);
}

std::string PackagePath() {
    return Narrow(BinPath(L"instupg_Tarn_x64.zip"));
}

TEST_F(AgentControlTest, AgentFromPackageTakesAllFourCommandsAndGoesAgain) {
    ASSERT_EQ(InstallTarn(PackagePath()), 0);
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(AgentDouble::Journal(), Lines{"install"}) << "installed by the unpacked executable";
    Lines installLog = Logged();
    EXPECT_TRUE(
        Contains(installLog, "D InstallTarn - Install Tarn to C:\\ZephTestBed\\iService\\Tarn"));
    EXPECT_TRUE(
        Contains(installLog, "D InstallTarn - Tarn Agent service not exist. Will install..."));

    ASSERT_EQ(StartTarn(), 0);
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_TRUE(Contains(Logged(), "D StartTarn - Service started successfully."));

    Connect();
    EXPECT_EQ(NotifyTarnAgent(), 0);
    EXPECT_EQ(SendSelfProtectionStatus(kStatusJson), 0);
    EXPECT_EQ(ClearDriverConfig(), 0);
    EXPECT_EQ(StopTarn(), 0);
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(g_CmdId, 4u);

    std::vector<std::string> frames = AgentDouble::ReceivedFrames();
    ASSERT_EQ(frames.size(), 4u);
    ExpectFrame(frames[0], 1, 1);
    ExpectFrame(frames[1], 2, 2, kStatusJson);
    ExpectFrame(frames[2], 105, 3);
    ExpectFrame(frames[3], 3, 4);

    Lines commandLog = Logged();
    EXPECT_EQ(Complaints(commandLog), Lines{});
    for (const char* line : {"D NotifyTarnAgent - get reponse: dwTxRetCode(0), dwDataLength(0)",
                             "D SendSelfProtectionStatus - >> SendSelfProtectionStatus",
                             "D ClearDriverConfig - >> ClearDriverConfig",
                             "D TarnAgentPipeClient::SendData - sending 72 bytes\n",
                             "D TarnAgentPipeClient::SendData - 72 bytes were sent\n",
                             "D sendCmdToServer - dwResult: 0"})
        EXPECT_TRUE(Contains(commandLog, line)) << line;

    DeInitTarnPipeClient();
    ASSERT_EQ(UninstallTarn(), 0);
    EXPECT_EQ(AgentDouble::State(), 0u);
    EXPECT_FALSE(ClientFolderExists());
    Lines uninstallLog = Logged();
    EXPECT_TRUE(Contains(uninstallLog, "D DeInitTarnPipeClient - <<"));
    EXPECT_TRUE(
        Contains(uninstallLog, "D UninstallTarn - Tarn Agent service exists. Uninstall..."));
    EXPECT_TRUE(Contains(uninstallLog, "D UninstallTarn - Deleted 5 file(s)."));
}

TEST_F(AgentControlTest, ResponsesThatDoNotAnswerTheCommandAreRefused) {
    struct Case {
        PipeAnswer answer;
        Lines complaints;
    };
    const Case cases[] = {
        {PipeAnswer::WrongMagic,
         {"E getResponseFromServer - Response Magic check fails",
          "E NotifyTarnAgent - notify - get response fails."}},
        {PipeAnswer::StopType,
         {"E getResponseFromServer - dwCmdType(3) is not TNIPCOMMAND_RESPONSE",
          "E NotifyTarnAgent - notify - get response fails."}},
        {PipeAnswer::WrongIdentifier,
         {"E NotifyTarnAgent - notify - dwIdentifier(4) != g_CmdId(3)"}},
        {PipeAnswer::NoAnswer,
         {"E getResponseFromServer - FetchData fails: error=109",
          "E NotifyTarnAgent - notify - get response fails."}},
    };
    // One identifier per command across the cases: the counter never goes back.
    uint32_t identifier = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.answer));
        AgentDouble::Behaviour behaviour;
        behaviour.pipeAnswer = c.answer;
        RunAgent(behaviour);
        Connect();
        EXPECT_EQ(NotifyTarnAgent(), -1);
        EXPECT_EQ(g_CmdId, ++identifier);
        EXPECT_EQ(Complaints(Logged()), c.complaints);
        DeInitTarnPipeClient();
    }
}

TEST_F(AgentControlTest, ResponsesInPiecesAreReassembled) {
    struct Case {
        PipeAnswer answer;
        DWORD payloadBytes;
        const char* readLine; // a read step the reply must have taken
    };
    const Case cases[] = {
        {PipeAnswer::SplitHeader, 0, nullptr},
        {PipeAnswer::Normal, 4060, "D TarnAgentPipeClient::Recv - ReadFile: gets 4096 bytes"},
        {PipeAnswer::Normal, 4964,
         "D TarnAgentPipeClient::Recv - ReadFile: ERROR_MORE_DATA, already read 4096 bytes\n"},
        {PipeAnswer::Normal, 4964, "D TarnAgentPipeClient::Recv - ReadFile: gets 904 bytes"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.payloadBytes);
        AgentDouble::Behaviour behaviour;
        behaviour.pipeAnswer = c.answer;
        behaviour.answerPayloadBytes = c.payloadBytes;
        RunAgent(behaviour);
        Connect();
        EXPECT_EQ(NotifyTarnAgent(), 0);
        Lines log = Logged();
        EXPECT_EQ(Complaints(log), Lines{});
        std::string response = "D NotifyTarnAgent - get reponse: dwTxRetCode(0), dwDataLength(" +
                               std::to_string(c.payloadBytes) + ")";
        EXPECT_TRUE(Contains(log, response));
        if (c.readLine) { // immediately or asynchronously, as the reply's timing has it
            EXPECT_TRUE(std::any_of(log.begin(), log.end(), [&](const std::string& line) {
                return line.rfind(c.readLine, 0) == 0;
            })) << c.readLine;
        }
        DeInitTarnPipeClient();
    }
}

TEST_F(AgentControlTest, ConnectingNeedsAMessageModePipe) {
    EXPECT_EQ(InitTarnPipeClient(), ERROR_FILE_NOT_FOUND) << "no agent serves the pipe";
    EXPECT_EQ(TarnPipeClient(), nullptr);
    EXPECT_EQ(Logged(), (Lines{"D InitTarnPipeClient - Init IPC.",
                               "D TarnAgentPipeClient::Initial - Initializing Pipe Client: "
                               "name=OIPC_TARNAGENT_PIPE_E1F3674C_98B7_47e4_9A7E_EFE4A7031997\n",
                               "D TarnAgentPipeClient::Initial - CreateFile fails: "
                               "error=ERROR_FILE_NOT_FOUND\n",
                               "E InitTarnPipeClient - TarnAgentPipeClient Init fails: "
                               "error=ERROR_FILE_NOT_FOUND"}));

    AgentDouble::Behaviour behaviour;
    behaviour.bytePipe = true;
    RunAgent(behaviour);
    EXPECT_EQ(InitTarnPipeClient(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(TarnPipeClient(), nullptr);
    Lines log = Logged();
    EXPECT_TRUE(Contains(log, "D TarnAgentPipeClient::Initial - CreateFile succeeds\n"));
    EXPECT_TRUE(Contains(log, "D TarnAgentPipeClient::Initial - Pipe Server seems not to agree to "
                              "use mode (PIPE_READMODE_MESSAGE | PIPE_WAIT)\n"));
    EXPECT_EQ(Complaints(log),
              Lines{"E InitTarnPipeClient - TarnAgentPipeClient Init fails: error=87"});

    DeInitTarnPipeClient(); // without a client: only the stop event to close
    EXPECT_EQ(Logged(), Lines{"D DeInitTarnPipeClient - <<"});
}

TEST_F(AgentControlTest, StopSendsNothingToAStoppedOrAbsentAgent) {
    EXPECT_EQ(StopTarn(), 0);
    EXPECT_EQ(Complaints(Logged()),
              Lines{"E IsTarnServiceStopped - Unalbe to OpenService(TarnAgent): 1060"});
    InstallAgent();
    EXPECT_EQ(StopTarn(), 0);
    EXPECT_EQ(Complaints(Logged()), Lines{"W IsTarnServiceStopped - Service is already stopped or "
                                          "stop pending. Will wait for pending."});
    EXPECT_EQ(g_CmdId, 0u);
    EXPECT_TRUE(AgentDouble::ReceivedFrames().empty());
}

TEST_F(AgentControlTest, StartLeavesAStartingServiceAloneAndReportsWhatFails) {
    EXPECT_EQ(StartTarn(), ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_EQ(Complaints(Logged()), Lines{"E StartTarn - OpenService(TarnAgent) failed (1060)"});

    AgentDouble::Behaviour slowStart;
    slowStart.startDelayMs = 5000;
    RunAgent(slowStart, SERVICE_START_PENDING);
    EXPECT_EQ(StartTarn(), 0);
    EXPECT_EQ(Complaints(Logged()), Lines{"W StartTarn - The service is alreay running. Skip "
                                          "further steps. Current state: 2"});
    ASSERT_TRUE(AgentDouble::Start()); // running: only now does it take a stop
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));

    AgentDouble::Behaviour failingStart;
    failingStart.startDelayMs = 1500; // seen starting, then stopped with its exit code
    failingStart.startExitCode = 1064;
    ASSERT_TRUE(AgentDouble::SetBehaviour(failingStart));
    EXPECT_EQ(StartTarn(), 1064);
    EXPECT_EQ(Complaints(Logged()),
              Lines{"E StartTarn - Service not started.Current State : [1], Exit Code : [1064], "
                    "Check Point : [0], Wait Hint : [0]"});

    ASSERT_TRUE(
        DeleteFileW((std::wstring(AgentDouble::kClientFolder) + L"\\TarnAgent.exe").c_str()));
    EXPECT_EQ(StartTarn(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Complaints(Logged()), Lines{"E StartTarn - Unalbe to StartService()(2)"});
}

TEST_F(AgentControlTest, InstallUnpacksOnlyWhenTheServiceIsMissing) {
    InstallAgent();
    EXPECT_EQ(InstallTarn("C:\\nowhere\\instupg_Tarn_x64.zip"), 0) << "nothing to unpack";
    EXPECT_TRUE(Contains(Logged(), "D InstallTarn - Tarn Agent is already installed."));
    AgentDouble::Remove();

    EXPECT_EQ(InstallTarn("C:\\nowhere\\instupg_Tarn_x64.zip"), -1);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"E DecompressFile - Failed to open zip file: "
                     "C:\\nowhere\\instupg_Tarn_x64.zip, CUnzip return code: -1",
                     "E InstallTarn - Extract zip(C:\\nowhere\\instupg_Tarn_x64.zip) file by "
                     "failed."}));

    struct Case {
        DWORD installExitCode;
        int32_t result;
        Lines complaints;
    };
    const Case cases[] = {
        {0xFFFFFF92,
         -110,
         {"E PrepAndLaunchRedirectedChild - Return code is not zero, err=-110",
          "W InstallTarn - Successfully installed agent, but require a reboot."}},
        {1603,
         1603,
         {"E PrepAndLaunchRedirectedChild - Return code is not zero, err=1603",
          "E InstallTarn - Unable to complete install command. ret=1603"}},
    };
    for (const Case& c : cases) {
        AgentDouble::Remove();
        AgentDouble::Behaviour behaviour;
        behaviour.installExitCode = c.installExitCode;
        ASSERT_TRUE(AgentDouble::SetBehaviour(behaviour));
        EXPECT_EQ(InstallTarn(PackagePath()), c.result);
        EXPECT_EQ(Complaints(Logged()), c.complaints);
        EXPECT_EQ(AgentDouble::Journal(), Lines{"install"});
    }
}

TEST_F(AgentControlTest, UninstallKeepsTheFilesWhenDeleteFails) {
    AgentDouble::Behaviour failingDelete;
    failingDelete.deleteExitCode = 7;
    InstallAgent(failingDelete);
    EXPECT_EQ(UninstallTarn(), -1);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"E PrepAndLaunchRedirectedChild - Return code is not zero, err=7",
                     "E UninstallTarn - Unable to complete uninstall command. ret=7"}));
    EXPECT_TRUE(ClientFolderExists());

    // The service went with that "-delete"; the files go on the next uninstall.
    EXPECT_EQ(UninstallTarn(), 0);
    EXPECT_TRUE(Contains(Logged(), "D UninstallTarn - Tarn Agent service not exists."));
    EXPECT_FALSE(ClientFolderExists());
    EXPECT_EQ(UninstallTarn(), 0) << "nothing left to remove";
}

} // namespace
