// Commands and notifications through the real exports, one zephhost.exe
// process per script.
#include "CommandExportFixture.h"

namespace {

const std::wstring kIniFile = std::wstring(AgentDouble::kClientFolder) + L"\\config\\tn_agent.ini";

// What the server double hears of one notification: its type, result and command text.
std::string ServerCall(int notifyType, int32_t result, const std::string& commandText) {
    return QvsockDouble::JournalLine(
        "{\"name\":\"NotifyResult\",\"notifyType\":" + std::to_string(notifyType) +
            ",\"result\":" + std::to_string(result) + "}",
        commandText);
}
std::string PolicyResult(const char* action, int32_t statusCode) {
    return ServerCall(action[0] == 'E' ? 0 : 1, statusCode,
                      std::string("ZEPH_ONCOMMAND_IAGENT_POLICY+") + action +
                          "+Result=" + std::to_string(statusCode));
}

DWORD ServiceStatusValue() {
    DWORD value = 0xFFFFFFFF;
    TestBedRegistry::ReadDword(kAgentKey, L"ServiceStatus", value);
    return value;
}

std::string IniEnabled() {
    wchar_t value[16] = {};
    GetPrivateProfileStringW(L"Policy", L"Enabled", L"absent", value, 16, kIniFile.c_str());
    return Narrow(value);
}

TEST_F(CommandExportTest, StartAndStopRecordTheServiceStatus) {
    ASSERT_TRUE(AgentDouble::Install());
    EXPECT_EQ(Host({Service("ZEPH_TYPE_IAGT_START")}), Lines{CommandResult(0)});
    EXPECT_EQ(ServiceStatusValue(), 1u);
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_RUNNING));
    ExpectAmong(PluginLog(), {"D StartTarn - Service started successfully."});

    EXPECT_EQ(Host({Service("ZEPH_TYPE_IAGT_STOP")}), Lines{CommandResult(0)});
    EXPECT_EQ(ServiceStatusValue(), 0u);
    std::vector<std::string> frames = AgentDouble::ReceivedFrames();
    ASSERT_EQ(frames.size(), 1u);
    ExpectFrame(frames[0], 3, 1); // stop
    Logged();

    // A stopped agent serves no pipe: one attempt, no retry, and a failed stop.
    EXPECT_EQ(Host({Service("ZEPH_TYPE_IAGT_STOP")}), Lines{CommandResult(1)});
    Lines log = PluginLog();
    ExpectAmong(log, {"D HandleCommand - Trying send stop Tarn agent command the 1 time(s)...",
                      "E HandleCommand - Unable to init pipe.",
                      "E HandleCommand - Unable to stop Tarn agent service. ret=-1"});
    EXPECT_FALSE(
        Contains(log, "D HandleCommand - Trying send stop Tarn agent command the 2 time(s)..."));
}

// A failing enable right after the install shows the status code the install
// left behind: it is what the server hears.
TEST_F(CommandExportTest, InstallResultsLeaveTheirStatusCode) {
    struct Case {
        DWORD installExitCode;
        uint32_t result;
        bool reboot;
        int32_t statusSent;
    };
    const Case cases[] = {
        {0, 0, false, 201512001},    {0xFFFFFF92, 0, true, 101},
        {0xFFFFFF91, 1, true, 101},  {0xFFFFFF98, 1, false, 112},
        {0xFFFFFF9B, 1, false, 112}, {0xFFFFFF97, 1, false, 201512001},
        {130, 1, false, 130},        {201512009, 1, false, 201512009},
        {1603, 1, false, 201512001},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int32_t>(c.installExitCode));
        AgentDouble::Remove();
        QvsockDouble::ClearJournal();
        SimulatedInstall::ClearHostJournal();
        AgentDouble::Behaviour behaviour;
        behaviour.installExitCode = c.installExitCode;
        behaviour.startExitCode = 1064; // the enable after it fails
        ASSERT_TRUE(AgentDouble::SetBehaviour(behaviour));
        EXPECT_EQ(Host({Install(), Policy(1)}), (Lines{CommandResult(c.result), CommandResult(0)}));
        EXPECT_EQ(AgentDouble::Journal().at(0), "install");
        EXPECT_EQ(!Starting(SimulatedInstall::HostJournal(), "SystemCall").empty(), c.reboot);
        EXPECT_EQ(QvsockDouble::Journal(), Lines{PolicyResult("Enable", c.statusSent)});
        ExpectAmong(PluginLog(), {"D InstallTarn - Install Tarn to C:\\ZephTestBed\\iService\\Tarn",
                                  "D InstallTarn - Tarn Agent service not exist. Will install..."});
    }
}

TEST_F(CommandExportTest, UninstallSwitchesSelfProtectionOffOnlyForARunningAgent) {
    ASSERT_TRUE(AgentDouble::Run());
    EXPECT_EQ(Host({Uninstall()}), Lines{CommandResult(0)});
    std::vector<std::string> frames = AgentDouble::ReceivedFrames();
    ASSERT_EQ(frames.size(), 1u);
    ExpectFrame(frames[0], 2, 1, "{\"service\":0}"); // self-protection status
    EXPECT_EQ(AgentDouble::State(), 0u);
    EXPECT_FALSE(PathExists(AgentDouble::kClientFolder));
    ExpectAmong(PluginLog(), {"D UninstallTarn - Tarn Agent service exists. Uninstall...",
                              "D UninstallTarn - Deleted 3 file(s)."});

    AgentDouble::Remove();
    ASSERT_TRUE(AgentDouble::Install());
    // A read-only file goes with the folder, as the platform's own removal does it.
    const std::wstring locked = std::wstring(AgentDouble::kClientFolder) + L"\\locked.dat";
    ASSERT_TRUE(WriteFileBytes(locked, "read-only"));
    ASSERT_TRUE(SetFileAttributesW(locked.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(Host({Uninstall()}), Lines{CommandResult(0)});
    EXPECT_TRUE(AgentDouble::ReceivedFrames().empty());
    EXPECT_FALSE(PathExists(AgentDouble::kClientFolder));
}

TEST_F(CommandExportTest, PolicyFlagsWithoutARunningAgent) {
    struct Case {
        int flag;
        uint32_t result;
        std::string enabled;
        Lines serverCalls;
    };
    const Case cases[] = {
        {0, 1, "absent", {}},
        {3, 1, "absent", {}},
        {5, 1, "absent", {}},
        {4, 0, "1", {}},                                // ignored, yet written as enabled
        {2, 0, "absent", {PolicyResult("Disable", 0)}}, // no agent: nothing to stop
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flag);
        QvsockDouble::ClearJournal();
        DeleteFileW(kIniFile.c_str());
        MakeConfigFolder();
        EXPECT_EQ(Host({Policy(c.flag)}), Lines{CommandResult(c.result)});
        EXPECT_EQ(IniEnabled(), c.enabled);
        EXPECT_EQ(QvsockDouble::Journal(), c.serverCalls);
        Lines complaints = PluginComplaints();
        if (c.result != 0) {
            EXPECT_EQ(complaints, (Lines{"E handleNotifyFlag - Unknown flag.",
                                         "E HandleCommand - Unable to handle notify flag: " +
                                             std::to_string(c.flag)}));
        }
    }
}

TEST_F(CommandExportTest, EnableAndDisableARunningAgent) {
    ASSERT_TRUE(AgentDouble::Run());
    MakeConfigFolder();
    EXPECT_EQ(Host({Policy(1)}), Lines{CommandResult(0)});
    EXPECT_EQ(ServiceStatusValue(), 1u);
    PluginLog();
    EXPECT_EQ(Host({Policy(1), Policy(2)}), (Lines{CommandResult(0), CommandResult(0)}));
    std::vector<std::string> frames = AgentDouble::ReceivedFrames();
    ASSERT_EQ(frames.size(), 4u);
    // The first process's notify; then notify, clear driver configuration, stop: identifiers 1 to 3
    ExpectFrame(frames[1], 1, 1);
    ExpectFrame(frames[2], 105, 2);
    ExpectFrame(frames[3], 3, 3);
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(ServiceStatusValue(), 0u);
    EXPECT_EQ(IniEnabled(), "0");
    EXPECT_EQ(QvsockDouble::Journal(), Lines{PolicyResult("Disable", 0)})
        << "a successful enable is not sent";
    Lines log = PluginLog();
    ExpectAmong(log, {"D NotifyTarnAgent - get reponse: dwTxRetCode(0), dwDataLength(0)",
                      "D ClearDriverConfig - >> ClearDriverConfig",
                      "D TarnAgentPipeClient::SendData - sending 36 bytes\n",
                      "D TarnAgentPipeClient::SendData - 36 bytes were sent\n",
                      "D sendCmdToServer - dwResult: 0"});
    EXPECT_EQ(Complaints(log), Lines{"W StartTarn - The service is alreay running. Skip "
                                     "further steps. Current state: 4"});
}

TEST_F(CommandExportTest, AFailedDisableIsReportedOrTheCloudPolicyDropped) {
    AgentDouble::Behaviour refusing;
    refusing.answerRetCode = 7; // the agent refuses to clear its driver configuration
    ASSERT_TRUE(AgentDouble::Run(refusing));
    EXPECT_EQ(Host({Policy(2)}), Lines{CommandResult(0)});
    EXPECT_EQ(QvsockDouble::Journal(), Lines{PolicyResult("Disable", 201512002)});
    EXPECT_EQ(
        PluginComplaints(),
        (Lines{"E ClearDriverConfig - clearConfig - return code in ResponseCommand is failed. (7)",
               "E handleNotifyFlag - Fail to clear driver config. ret=7",
               "E ClearDriverConfig - clearConfig - return code in ResponseCommand is failed. (7)",
               "E handleNotifyFlag - Fail to clear driver config. ret=7",
               "E handleNotifyFlag - Unable to clear driver config. ret=7"}));

    // A report that cannot be delivered fails the command.
    QvsockDouble::Behaviour undelivered;
    undelivered.sendResult = 0;
    ASSERT_TRUE(QvsockDouble::SetBehaviour(undelivered));
    EXPECT_EQ(Host({Policy(2)}), Lines{CommandResult(1)});
    ExpectAmong(PluginComplaints(),
                {"E handleNotifyFlag - Unable to send NotifyResult. type=1, result=-1",
                 "E HandleCommand - Unable to handle notify flag: 2"});
    ASSERT_TRUE(QvsockDouble::SetBehaviour({}));

    // Opted in to the cloud console's policy: nothing is sent, its copy goes.
    QvsockDouble::ClearJournal();
    std::wstring policyFile = std::wstring(SimulatedInstall::kFolder) + L"policy.dat";
    ASSERT_TRUE(WriteFileBytes(policyFile, "policy"));
    ASSERT_TRUE(TestBedRegistry::WriteDword(
        (std::wstring(kProductKey) + L"\\LumenfieldPolicy").c_str(), L"LFPolicyOptIn", 1));
    ASSERT_TRUE(TestBedRegistry::WriteText(
        (std::wstring(kProductKey) + L"\\ZEPH\\ZEPH_IPRODUCT_TARN").c_str(), L"PolicyData",
        policyFile));
    EXPECT_EQ(Host({Policy(2)}), Lines{CommandResult(0)});
    EXPECT_TRUE(QvsockDouble::Journal().empty());
    EXPECT_FALSE(PathExists(policyFile));
    std::wstring policyData = L"unread";
    TestBedRegistry::ReadText((std::wstring(kProductKey) + L"\\ZEPH\\ZEPH_IPRODUCT_TARN").c_str(),
                              L"PolicyData", policyData);
    EXPECT_EQ(policyData, L"");
}

TEST_F(CommandExportTest, NotificationsReachTheAgentAndTheServer) {
    ASSERT_TRUE(AgentDouble::Run());
    EXPECT_EQ(Host({SelfProtection(1), MoveClient()}),
              (Lines{Result("zephExt_OnNotify", 0), Result("zephExt_OnNotify", 0)}));
    std::vector<std::string> frames = AgentDouble::ReceivedFrames();
    ASSERT_EQ(frames.size(), 1u);
    ExpectFrame(frames[0], 2, 1, "{\"service\":1}");
    ExpectAmong(PluginLog(), {"D SendSelfProtectionStatus - >> SendSelfProtectionStatus",
                              "D TarnAgentPipeClient::SendData - sending 49 bytes\n"});
    EXPECT_EQ(QvsockDouble::Journal(),
              Lines{ServerCall(3, 0, "ZEPH_ONNOTIFY_CONTEXT_CHANGE+MOVE_CLIENT+Result=0")});
    Logged();

    // A lost server report does not fail the move notice.
    QvsockDouble::Behaviour unreachable;
    unreachable.sendResult = 0;
    ASSERT_TRUE(QvsockDouble::SetBehaviour(unreachable));
    EXPECT_EQ(Host({MoveClient()}), Lines{Result("zephExt_OnNotify", 0)});
    EXPECT_EQ(PluginComplaints(),
              (Lines{"E talkToTarnServer - Unable to send request to server, responseCode(200)",
                     "E sendNotifyResultToServer - Unable to talk to Tarn Server.",
                     "E HandleNotify - Unable to send NotifyResult for move client"}));
}

} // namespace
