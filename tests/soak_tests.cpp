// Ten thousand calls of each JSON export and of zephExt_ParseLog in one host
// process, queries and detection files from eight threads at once, with the
// agent, HTTP library and log server doubles answering:
// after warm-up the host's private bytes must not grow, its handles only by
// the one key handle per self-protection query that stays open by design,
// and every call must keep giving the result the first ones gave.
#include "CommandExportFixture.h"

#include <atomic>
#include <regex>

namespace {

constexpr unsigned kCalls = 10000;
constexpr unsigned kThreads = 8;
// A leak of one handle per 2,500 calls, or of 26 bytes per call, shows.
constexpr unsigned long kHandleSlack = 3;
constexpr unsigned long long kPrivateBytesSlack = 256 * 1024;

const std::wstring kFolder = L"C:\\ZephTestBed\\soak\\";

// Every path a host meets in a day: each query, a start of the running agent,
// a policy that talks to the agent and one that writes its configuration,
// notices to the agent and to the server, a valid and a missing detection
// file, and requests that are not JSON.
std::vector<std::string> SoakScript() {
    std::vector<std::string> script = EveryQuery();
    std::vector<std::string> others = {
        "query {\"query_id\":",
        Service("ZEPH_TYPE_IAGT_START"),
        Policy(1),
        Policy(4),
        "command [",
        SelfProtection(1),
        MoveClient(),
        "notify {",
        "parselog " + Narrow(kFolder) + "valid.log",
        "parselog " + Narrow(kFolder) + "invalid.log",
    };
    script.insert(script.end(), others.begin(), others.end());
    return script;
}

class SoakTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(m_logServer.Start()) << "log pipe already served";
        AgentDouble::Remove();
        SimulatedInstall::Remove();
        ASSERT_TRUE(SimulatedInstall::Create());
        ASSERT_TRUE(QvsockDouble::SetBehaviour({}));
        ASSERT_TRUE(AgentDouble::Run());
        ASSERT_TRUE(CreateFolderTree(kFolder));
        ASSERT_TRUE(
            WriteFileBytes(kFolder + L"valid.log", kValidDetectionRecord + std::string("\r\n")));
        ASSERT_TRUE(WriteFileBytes(kFolder + L"invalid.log", "f, 0, 1\r\n"));
    }
    void TearDown() override {
        AgentDouble::Remove();
        SimulatedInstall::Remove();
        RemoveFolderTree(kFolder);
    }

    // Counts what the log server heard without keeping it.
    std::atomic<unsigned> m_records{0};
    LogServer m_logServer{[this](const LogRecord&) { ++m_records; }};
};

TEST_F(SoakTest, TenThousandCallsOfEachExportLeakNoHandleAndNoMemory) {
    ProcessResult run = RunHost({L"--threads", std::to_wstring(kThreads), L"--soak",
                                 std::to_wstring(kCalls), WriteHostScript(SoakScript())},
                                20 * 60 * 1000);
    ASSERT_FALSE(run.timedOut);
    ASSERT_EQ(run.exitCode, 0u) << run.output;
    std::printf("%s", run.output.c_str());

    // Each group's requests are taken in turn: 2,000 of each query, 2,500 of
    // each command, ... The invalid detection file is deleted by its first
    // check during warm-up; from then on it cannot be opened. The
    // self-protection query closes only the last of its two image-options
    // keys, as it always has: one key handle stays open per call.
    const struct {
        const char* call;
        unsigned threads;
        unsigned long keptOpen;
        const char* results;
    } groups[] = {
        {"query", kThreads, kCalls / 5,
         "  zephExt_Free -> 0 x10000\n  zephExt_OnQueryData -> 0 x10000\n"},
        {"command", 1, 0, "  zephExt_OnCommand -> 0 x7500\n  zephExt_OnCommand -> 2 x2500\n"},
        {"notify", 1, 0, "  zephExt_OnNotify -> 0 x6667\n  zephExt_OnNotify -> 2 x3333\n"},
        {"parselog", kThreads, 0,
         "  zephExt_Free -> 0 x5000\n  zephExt_ParseLog -> 0 x5000\n"
         "  zephExt_ParseLog -> 4294967295 x5000\n"},
    };
    for (const auto& group : groups) {
        const std::regex report(
            "soak " + std::string(group.call) + R"( x\d+, )" + std::to_string(group.threads) +
            R"( threads: handles (\d+) -> (\d+), private bytes (\d+) -> (\d+), \d+ ms\n)" +
            group.results + "(?!  )");
        std::smatch match;
        ASSERT_TRUE(std::regex_search(run.output, match, report)) << group.call;
        unsigned long handlesBefore = std::stoul(match[1]), handlesAfter = std::stoul(match[2]);
        EXPECT_GE(handlesAfter, handlesBefore + group.keptOpen) << group.call;
        EXPECT_LE(handlesAfter, handlesBefore + group.keptOpen + kHandleSlack) << group.call;
        EXPECT_LE(std::stoull(match[4]), std::stoull(match[3]) + kPrivateBytesSlack) << group.call;
    }
    EXPECT_GT(m_records.load(), 4 * kCalls); // the log client kept reaching its server
}

} // namespace
