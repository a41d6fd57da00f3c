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

    void Connect() {
        ASSERT_EQ(InitTarnPipeClient(), 0);
        Logged();
    }
};
