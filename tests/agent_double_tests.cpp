// The agent double and AgentDouble: the service-control tests rest on the
// double reaching exactly the states and exit codes they ask for, and on
// Remove leaving nothing behind whatever state the service was left in.
#include "AgentDouble.h"
#include "AgentService.h"
#include "ScopedHandle.h"
#include "TestBed.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::wstring kClientAgent = std::wstring(AgentDouble::kClientFolder) + L"\\TarnAgent.exe";
const std::wstring kClientHdc = std::wstring(AgentDouble::kClientFolder) + L"\\hdc.exe";

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

SERVICE_STATUS_PROCESS Status() {
    SERVICE_STATUS_PROCESS status{};
    ScopedServiceHandle service = AgentService::Open(SERVICE_QUERY_STATUS);
    if (service)
        AgentService::QueryStatus(service.Get(), status);
    return status;
}

// Polls; the state a step asked for can take a moment to show.
bool BecomesState(DWORD state, DWORD timeoutMs) {
    for (DWORD waited = 0; waited < timeoutMs; waited += 50) {
        if (AgentDouble::State() == state)
            return true;
        Sleep(50);
    }
    return AgentDouble::State() == state;
}

DWORD RunDelete() {
    return RunProcess({kClientAgent, L"-delete"}).exitCode;
}

class AgentDoubleTest : public ::testing::Test {
  protected:
    void SetUp() override { AgentDouble::Remove(); }
    void TearDown() override { AgentDouble::Remove(); }

    // Placed, behaviour set and installed: the service exists and is stopped.
    void Install(const AgentDouble::Behaviour& behaviour = {}) {
        ASSERT_TRUE(AgentDouble::SetBehaviour(behaviour));
        ASSERT_TRUE(AgentDouble::Place());
        ASSERT_EQ(AgentDouble::RunInstall(), behaviour.installExitCode);
        ASSERT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED));
    }
};

TEST_F(AgentDoubleTest, InstallCreatesADemandStartServiceForTheQuotedExecutable) {
    Install();
    ScopedServiceHandle service = AgentService::Open(SERVICE_QUERY_CONFIG);
    ASSERT_TRUE(service.IsValid());
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    ASSERT_TRUE(
        QueryServiceConfigW(service.Get(), config, static_cast<DWORD>(buffer.size()), &needed));
    EXPECT_EQ(config->dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
    EXPECT_EQ(config->dwStartType, static_cast<DWORD>(SERVICE_DEMAND_START));
    EXPECT_EQ(std::wstring(config->lpBinaryPathName), L"\"" + kClientAgent + L"\"");
    EXPECT_EQ(AgentDouble::Journal(), std::vector<std::string>{"install"});
}

TEST_F(AgentDoubleTest, InstallerAndUninstallerExitWithTheConfiguredCodes) {
    AgentDouble::Behaviour behaviour;
    behaviour.installExitCode = static_cast<DWORD>(-110);
    behaviour.deleteExitCode = 1603;
    Install(behaviour);
    EXPECT_EQ(AgentDouble::RunInstall(), 0xFFFFFF92u) << "a second install finds the service";
    EXPECT_EQ(RunDelete(), 1603u);
    EXPECT_TRUE(BecomesState(0, 5000)) << "the service is still there";
    EXPECT_EQ(RunDelete(), 1603u) << "a missing service counts as deleted";
    EXPECT_EQ(AgentDouble::Journal(),
              (std::vector<std::string>{"install", "install", "delete", "delete"}));
}

// A slow phase refuses controls and advances its check point until it settles.
void ExpectProgressUntil(DWORD pending, DWORD settled, DWORD waitHint) {
    SERVICE_STATUS_PROCESS first = Status();
    EXPECT_EQ(first.dwCurrentState, pending);
    EXPECT_EQ(first.dwWaitHint, waitHint);
    EXPECT_EQ(first.dwControlsAccepted, 0u);
    Sleep(1200);
    SERVICE_STATUS_PROCESS later = Status();
    EXPECT_EQ(later.dwCurrentState, pending);
    EXPECT_GT(later.dwCheckPoint, first.dwCheckPoint);
    EXPECT_TRUE(BecomesState(settled, 5000));
}

TEST_F(AgentDoubleTest, SlowStartAndSlowStopAdvanceTheirCheckPointsUntilDone) {
    AgentDouble::Behaviour behaviour;
    behaviour.startDelayMs = 2500;
    behaviour.stopDelayMs = 2600;
    Install(behaviour);
    ASSERT_TRUE(AgentDouble::Start(SERVICE_START_PENDING));
    ExpectProgressUntil(SERVICE_START_PENDING, SERVICE_RUNNING, 2500);
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOP_PENDING));
    ExpectProgressUntil(SERVICE_STOP_PENDING, SERVICE_STOPPED, 2600);
}

TEST_F(AgentDoubleTest, StuckStopFreezesItsCheckPointAndRemoveStillCleansUp) {
    AgentDouble::Behaviour behaviour;
    behaviour.stopDelayMs = 1234;
    behaviour.stuckStopPending = true;
    Install(behaviour);
    ASSERT_TRUE(AgentDouble::Start());
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOP_PENDING));
    SERVICE_STATUS_PROCESS first = Status();
    Sleep(1500);
    SERVICE_STATUS_PROCESS later = Status();
    EXPECT_EQ(later.dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
    EXPECT_EQ(later.dwCheckPoint, first.dwCheckPoint);
    EXPECT_EQ(later.dwWaitHint, 1234u);
    EXPECT_EQ(AgentDouble::Journal(),
              (std::vector<std::string>{"install", "service start", "control 1"}));

    AgentDouble::Remove();
    EXPECT_EQ(AgentDouble::State(), 0u);
    EXPECT_FALSE(Exists(AgentDouble::kClientFolder));
}

TEST_F(AgentDoubleTest, RemoveKillsAServiceThatIsStillStarting) {
    AgentDouble::Behaviour behaviour;
    behaviour.startDelayMs = 60000;
    Install(behaviour);
    ASSERT_TRUE(AgentDouble::Start(SERVICE_START_PENDING));
    DWORD start = GetTickCount();
    AgentDouble::Remove();
    EXPECT_LT(GetTickCount() - start, 15000u);
    EXPECT_EQ(AgentDouble::State(), 0u);
}

TEST_F(AgentDoubleTest, DeleteStopsARunningServiceBeforeDeletingIt) {
    Install();
    ASSERT_TRUE(AgentDouble::Start());
    EXPECT_EQ(RunDelete(), 0u);
    EXPECT_TRUE(BecomesState(0, 5000));
    EXPECT_EQ(AgentDouble::Journal(),
              (std::vector<std::string>{"install", "service start", "delete", "control 1",
                                        "service stop"}));
}

TEST_F(AgentDoubleTest, RemoveLeavesNothingBehind) {
    AgentDouble::Behaviour behaviour;
    behaviour.installExitCode = 7;
    Install(behaviour);
    ASSERT_TRUE(AgentDouble::Start());
    AgentDouble::Remove();
    EXPECT_EQ(AgentDouble::State(), 0u);
    EXPECT_FALSE(Exists(AgentDouble::kClientFolder));
    EXPECT_TRUE(AgentDouble::Journal().empty());
    DWORD value = 0;
    EXPECT_FALSE(TestBedRegistry::ReadDword(kAgentBehaviourKey, kInstallExitCodeValue, value));
    // Nothing left: a second call finds nothing to do.
    AgentDouble::Remove();
    EXPECT_EQ(AgentDouble::State(), 0u);
}

// ---- The placed files -------------------------------------------------------

TEST(AgentDoubleFolderTest, ClientFolderIsTheSiblingOfTheSimulatedInstallation) {
    std::wstring install = SimulatedInstall::kFolder; // ends in a backslash
    std::wstring parent = install.substr(0, install.rfind(L'\\', install.size() - 2) + 1);
    EXPECT_EQ(std::wstring(AgentDouble::kClientFolder), parent + L"iService\\Tarn");
}

} // namespace
