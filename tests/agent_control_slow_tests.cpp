// The agent control's give-ups, which take their full time: run once, labelled slow.
#include "AgentControlFixture.h"
#include "ServiceControl.h"
#include "TarnAgentCommands.h"

namespace {

TEST_F(AgentControlTest, StopsThatNeverEndAreGivenUpOn) {
    AgentDouble::Behaviour stuck;
    stuck.stuckStopPending = true;
    stuck.stopDelayMs = 3000; // the wait hint of its frozen stop-pending state
    ASSERT_TRUE(AgentDouble::Run(stuck));
    Connect();

    // The stop command's own wait: 60 s in all, check points or not.
    const DWORD start = GetTickCount();
    EXPECT_EQ(StopTarn(), -1);
    EXPECT_GE(GetTickCount() - start, 60000u);
    EXPECT_EQ(AgentDouble::ReceivedFrames().size(), 1u);
    EXPECT_EQ(Complaints(Logged()),
              Lines{"E StopTarn - Service still not SERVICE_STOPPED, it's kinda too long. "
                    "Something may go wrong."});

    // The general wait: the wait hint without a new check point.
    bool stopped = false;
    EXPECT_EQ(IsTarnServiceStopped(stopped), -1);
    EXPECT_TRUE(stopped);
    EXPECT_EQ(Complaints(Logged()),
              (Lines{"W IsTarnServiceStopped - Service is already stopped or stop pending. Will "
                     "wait for pending.",
                     "E UntilServiceStatusNotEqualTo - Service still in 3(START_PENDING = 2, "
                     "STOP_PENDING = 3), it's kinda too long. Something may go wrong.",
                     "E IsTarnServiceStopped - UntilServiceStatusNotEqualTo(SERVICE_STOP_PENDING) "
                     "failed. nRet=-1"}));
}

} // namespace
