// The agent's service and pipe for real: the Service Control Manager and a
// message-mode pipe of the Wine prefix, with the agent double on the far end.
#include "AgentControlFixture.h"
#include "ServiceControl.h"
#include "TarnAgentCommands.h"
#include "TarnAgentProtocol.h"

namespace {

using AgentDouble::PipeAnswer;

// The response check on its own, before any pipe.
std::string Response(uint32_t identifier, const std::string& payload, uint32_t type = 0,
                     uint32_t magic = TN_FRAME_MAGIC) {
    std::string frame = BuildCommandFrame(type, identifier, payload);
    memcpy(&frame[0], &magic, sizeof(magic));
    return frame;
}

TEST(ProtocolTest, ResponsesAreJudgedAsTheyArrive) {
    TnFrameHeader header;
    const std::string whole = Response(9, std::string(5000, 'p'));
    // A header split over two messages (20 + 16 bytes), then a long payload.
    EXPECT_EQ(CheckResponse(whole.substr(0, 20), header), ResponseState::NeedMore);
    EXPECT_EQ(CheckResponse(whole.substr(0, 36), header), ResponseState::NeedMore);
    EXPECT_EQ(header.dwIdentifier, 9u);
    EXPECT_EQ(CheckResponse(whole.substr(0, 5035), header), ResponseState::NeedMore);
    EXPECT_EQ(CheckResponse(whole + "extra", header), ResponseState::Complete);
    EXPECT_EQ(CheckResponse(Response(1, "", 0, 0x4E545651), header), ResponseState::BadMagic);
    EXPECT_EQ(CheckResponse(Response(1, "", TNIPCOMMAND_STOP_SERVICE), header),
              ResponseState::NotResponse);
    // A length near the 32-bit limit must not wrap into "complete".
    std::string huge = Response(1, "");
    uint32_t length = 0xFFFFFFF0;
    memcpy(&huge[16], &length, sizeof(length));
    EXPECT_EQ(CheckResponse(huge + std::string(64, 'x'), header), ResponseState::NeedMore);
}

std::string PackagePath() {
    return Narrow(BinPath(L"instupg_Tarn_x64.zip"));
}

TEST_F(AgentControlTest, ResponsesThatDoNotAnswerTheCommandAreRefused) {
    const std::string failed = "E NotifyTarnAgent - notify - get response fails.\n";
    const std::pair<PipeAnswer, std::string> cases[] = {
        {PipeAnswer::WrongMagic, "E getResponseFromServer - Response Magic check fails\n" + failed},
        {PipeAnswer::StopType,
         "E getResponseFromServer - dwCmdType(3) is not TNIPCOMMAND_RESPONSE\n" + failed},
        {PipeAnswer::WrongIdentifier,
         "E NotifyTarnAgent - notify - dwIdentifier(4) != g_CmdId(3)\n"},
        {PipeAnswer::NoAnswer, "E getResponseFromServer - FetchData fails: error=109\n" + failed},
    };
    // One identifier per command across the cases: the counter never goes back.
    uint32_t identifier = 0;
    for (const auto& [answer, complaints] : cases) {
        SCOPED_TRACE(static_cast<int>(answer));
        AgentDouble::Behaviour behaviour;
        behaviour.pipeAnswer = answer;
        ASSERT_TRUE(AgentDouble::Run(behaviour));
        Connect();
        EXPECT_EQ(NotifyTarnAgent(), -1);
        EXPECT_EQ(g_CmdId, ++identifier);
        EXPECT_EQ(Text(Complaints(Logged())), complaints);
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
        ASSERT_TRUE(AgentDouble::Run(behaviour));
        Connect();
        EXPECT_EQ(NotifyTarnAgent(), 0);
        Lines log = Logged();
        EXPECT_EQ(Complaints(log), Lines{});
        std::string response = "D NotifyTarnAgent - get reponse: dwTxRetCode(0), dwDataLength(" +
                               std::to_string(c.payloadBytes) + ")";
        EXPECT_TRUE(Contains(log, response));
        if (c.readLine) { // immediately or asynchronously, as the reply's timing has it
            EXPECT_FALSE(Starting(log, c.readLine).empty()) << c.readLine;
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
    ASSERT_TRUE(AgentDouble::Run(behaviour));
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

// A stop sends nothing to an absent or stopped agent; a start leaves a
// starting service alone and reports what fails.
TEST_F(AgentControlTest, StopAndStartOfAnAgentThatIsNotRunning) {
    EXPECT_EQ(StopTarn(), 0);
    EXPECT_EQ(StartTarn(), ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"E IsTarnServiceStopped - Unalbe to OpenService(TarnAgent): 1060",
                     "E StartTarn - OpenService(TarnAgent) failed (1060)"}));
    ASSERT_TRUE(AgentDouble::Install());
    EXPECT_EQ(StopTarn(), 0);
    EXPECT_EQ(Complaints(Logged()), Lines{"W IsTarnServiceStopped - Service is already stopped or "
                                          "stop pending. Will wait for pending."});
    EXPECT_EQ(g_CmdId, 0u);
    EXPECT_TRUE(AgentDouble::ReceivedFrames().empty());

    AgentDouble::Behaviour slowStart;
    slowStart.startDelayMs = 5000;
    ASSERT_TRUE(AgentDouble::Run(slowStart, SERVICE_START_PENDING));
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
    ASSERT_TRUE(AgentDouble::Install());
    EXPECT_EQ(InstallTarn("C:\\nowhere\\instupg_Tarn_x64.zip"), 0) << "nothing to unpack";
    EXPECT_TRUE(Contains(Logged(), "D InstallTarn - Tarn Agent is already installed."));
    AgentDouble::Remove();

    EXPECT_EQ(InstallTarn("C:\\nowhere\\instupg_Tarn_x64.zip"), -1);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"E DecompressFile - Failed to open zip file: "
                     "C:\\nowhere\\instupg_Tarn_x64.zip, CUnzip return code: -1",
                     "E InstallTarn - Extract zip(C:\\nowhere\\instupg_Tarn_x64.zip) file by "
                     "failed."}));

    // A failed installer leaves its exit code; the reboot it may ask for is
    // the command's to request.
    ASSERT_TRUE(AgentDouble::SetBehaviour({1603}));
    EXPECT_EQ(InstallTarn(PackagePath()), 1603);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"E PrepAndLaunchRedirectedChild - Return code is not zero, err=1603",
                     "E InstallTarn - Unable to complete install command. ret=1603"}));
    EXPECT_EQ(AgentDouble::Journal(), Lines{"install"});
}

TEST_F(AgentControlTest, UninstallKeepsTheFilesWhenDeleteFails) {
    AgentDouble::Behaviour failingDelete;
    failingDelete.deleteExitCode = 7;
    ASSERT_TRUE(AgentDouble::Install(failingDelete));
    EXPECT_EQ(UninstallTarn(), -1);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"E PrepAndLaunchRedirectedChild - Return code is not zero, err=7",
                     "E UninstallTarn - Unable to complete uninstall command. ret=7"}));
    EXPECT_TRUE(PathExists(AgentDouble::kClientFolder));

    // The service went with that "-delete"; the files go on the next uninstall.
    EXPECT_EQ(UninstallTarn(), 0);
    EXPECT_TRUE(Contains(Logged(), "D UninstallTarn - Tarn Agent service not exists."));
    EXPECT_FALSE(PathExists(AgentDouble::kClientFolder));
    EXPECT_EQ(UninstallTarn(), 0) << "nothing left to remove";
}

} // namespace
