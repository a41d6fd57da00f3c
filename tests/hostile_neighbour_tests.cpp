// Neighbours that misbehave: an agent whose answer is garbage, cut off or
// late, a host library whose reboot answer is no JSON, a server whose answer
// is huge, a log server that takes a record and never reads it. Each case ends
// with its result and its log line, never with a crash or an endless wait.
#include "CommandExportFixture.h"
#include "SilentLogServer.h"
#include "StdoutCapture.h"
#include "UtilCommon.h"

#include <chrono>
#include <future>

namespace {

using AgentDouble::PipeAnswer;

// Two tries, each on a fresh connection, for an agent that answers badly; an
// answer that comes late is waited for, however late.
TEST_F(CommandExportTest, SelfProtectionNoticeToAnAgentThatAnswersBadlyOrLate) {
    Lines gaveUp;
    for (int attempt = 1; attempt <= 2; ++attempt) {
        gaveUp.push_back("E getResponseFromServer - FetchData fails: error=109");
        gaveUp.push_back(
            "E SendSelfProtectionStatus - Unable to get self protection status response.");
    }
    gaveUp.push_back("E HandleNotify - Unable to send self protection status. ret=-1");
    struct Case {
        PipeAnswer answer;
        DWORD delayMs;
        uint32_t result;
        size_t frames;
        Lines complaints;
    };
    const Case cases[] = {
        {PipeAnswer::Garbage, 0, 1, 2, gaveUp},
        {PipeAnswer::CutOff, 0, 1, 2, gaveUp},
        {PipeAnswer::Normal, 3000, 0, 1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.answer));
        AgentDouble::Remove(); // a fresh journal of frames
        AgentDouble::Behaviour behaviour;
        behaviour.pipeAnswer = c.answer;
        behaviour.answerDelayMs = c.delayMs;
        ASSERT_TRUE(AgentDouble::Run(behaviour));
        const DWORD start = GetTickCount();
        EXPECT_EQ(Host({SelfProtection(1)}), Lines{Result("zephExt_OnNotify", c.result)});
        EXPECT_GE(GetTickCount() - start, c.delayMs);
        EXPECT_EQ(AgentDouble::ReceivedFrames().size(), c.frames);
        EXPECT_EQ(PluginComplaints(), c.complaints);
    }
}

// The install went through, but the reboot it needs was never confirmed: a
// failed install like any other.
TEST_F(CommandExportTest, InstallThatNeedsARebootFailsOnAHostAnswerThatIsNoJson) {
    AgentDouble::Behaviour rebootNeeded;
    rebootNeeded.installExitCode = 0xFFFFFF92; // -110
    ASSERT_TRUE(AgentDouble::SetBehaviour(rebootNeeded));
    HostBehaviour host;
    host.systemCallResponse = std::string(kDefaultSystemCallResponse) + "}"; // one brace too many
    ASSERT_TRUE(SimulatedInstall::SetHostBehaviour(host));
    EXPECT_EQ(Host({Install()}), Lines{CommandResult(1)});
    EXPECT_EQ(PluginComplaints(),
              (Lines{"E PrepAndLaunchRedirectedChild - Return code is not zero, err=-110",
                     "W InstallTarn - Successfully installed agent, but require a reboot.",
                     "W HandleCommand - Install Tarn agent service successfully but requires a "
                     "reboot.",
                     "E RequestReboot - Requesting a reboot...",
                     "E RequestReboot - Unable to parse response, rapidjosn parsing error: 2\n",
                     "E HandleCommand - Unable to request reboot.",
                     "E HandleCommand - status_error_code: 101",
                     "E HandleCommand - Unable to Install Tarn agent service."}));
}

// 32 MB: the error code, then a long padding string.
std::string HugeAnswer() {
    return R"({"name":"errorCode","value":0,"padding":")" + std::string(32 << 20, 'x') + R"("})";
}

TEST_F(CommandExportTest, HugeServerAnswersAreReadWhole) {
    struct Case {
        const char* name;
        std::string answer;
        bool accepted;
        Lines complaints;
    };
    const Case cases[] = {
        {"32 MB", HugeAnswer(), true, {}},
        {"a million arrays deep",
         std::string(1 << 20, '[') + std::string(1 << 20, ']'),
         false,
         {"E sendNotifyResultToServer - Invalid response format."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(QvsockDouble::AnswerWith(c.answer));
        EXPECT_EQ(sendNotifyResultToServer(1, 0, "cmd"), c.accepted);
        EXPECT_EQ(Complaints(Logged()), c.complaints);
    }

    // Cut short by its last two bytes it is no JSON: the disable's report is
    // lost, and with it the command.
    std::string cutShort = HugeAnswer();
    cutShort.resize(cutShort.size() - 2);
    ASSERT_TRUE(QvsockDouble::AnswerWith(cutShort));
    EXPECT_EQ(Host({Policy(2)}), Lines{CommandResult(1)});
    EXPECT_EQ(PluginComplaints(),
              (Lines{"E talkToTarnServer - Unable to prase response json, error: 11",
                     "E sendNotifyResultToServer - Unable to talk to Tarn Server.",
                     "E handleNotifyFlag - Unable to send NotifyResult. type=1, result=0",
                     "E HandleCommand - Unable to handle notify flag: 2"}));
    EXPECT_FALSE(PathExists(L".\\qvsock_response")) << "deleted once read";
}

// A record within what the server buffers is sent at once; a longer one waits
// for the server to read, without a time-out, and is dropped once the server
// goes away.
TEST(SilentLogServerTest, RecordsWaitOnlyForWhatTheServerCannotBuffer) {
    SilentLogServer roomy(64 * 1024);
    ASSERT_TRUE(roomy.Listening());
    EXPECT_EQ(CaptureStdout([] { EXPECT_EQ(SendLogRecord(L"short"), 1); }), "");
    roomy.GoAway();

    SilentLogServer small(4096);
    ASSERT_TRUE(small.Listening());
    std::string printed = CaptureStdout([&small] {
        std::future<int> sent = std::async(std::launch::async, [] {
            return SendLogRecord(std::wstring(4000, L'x')); // 8 KB
        });
        EXPECT_EQ(sent.wait_for(std::chrono::seconds(2)), std::future_status::timeout)
            << "the write waits while nobody reads";
        small.GoAway();
        EXPECT_EQ(sent.get(), 0);
    });
    EXPECT_EQ(printed, "Pipe send failed!. errno=109\n");
}

} // namespace
