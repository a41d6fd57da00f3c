#pragma once
// The agent control suites' common ground: a simulated parent product, the
// agent double installed and started as each case needs it, log checks.
#include "AgentDouble.h"
#include "LogCapture.h"
#include "TarnAgentPipeClient.h"

#include <algorithm>

// Only what went wrong or was worth a warning.
inline Lines Complaints(const Lines& lines) {
    Lines complaints;
    for (const std::string& line : lines)
        if (line[0] == 'E' || line[0] == 'W')
            complaints.push_back(line);
    return complaints;
}

inline bool ClientFolderExists() {
    return GetFileAttributesW(AgentDouble::kClientFolder) != INVALID_FILE_ATTRIBUTES;
}

inline bool Contains(const Lines& lines, const std::string& wanted) {
    return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

class AgentControlTest : public SimulatedInstallTest {
  protected:
    void SetUp() override {
        AgentDouble::Remove();
        SimulatedInstallTest::SetUp();
    }
    void TearDown() override {
        DeInitTarnPipeClient();
        AgentDouble::Remove();
        SimulatedInstallTest::TearDown();
    }

    // The double installed as a service (not started) with `behaviour`.
    static void InstallAgent(const AgentDouble::Behaviour& behaviour = {}) {
        ASSERT_TRUE(AgentDouble::SetBehaviour(behaviour));
        ASSERT_TRUE(AgentDouble::Place());
        ASSERT_EQ(AgentDouble::RunInstall(), behaviour.installExitCode);
    }
    // The service (re)started with `behaviour`, which it reads as it starts.
    static void RunAgent(const AgentDouble::Behaviour& behaviour, DWORD until = SERVICE_RUNNING) {
        if (AgentDouble::State() == 0) {
            InstallAgent(behaviour);
        } else if (AgentDouble::State() != SERVICE_STOPPED) {
            ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOPPED));
        }
        ASSERT_TRUE(AgentDouble::SetBehaviour(behaviour));
        ASSERT_TRUE(AgentDouble::Start(until));
    }
    void Connect() {
        ASSERT_EQ(InitTarnPipeClient(), 0);
        Logged();
    }
};
