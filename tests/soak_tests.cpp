// Ten thousand calls of each JSON export and of zephExt_ParseLog in one host
// process, with the agent, HTTP library and log server doubles answering:
// after warm-up the host's private bytes must not grow, its handles only by
// the one key handle per self-protection query that stays open by design,
// and every call must keep giving the result the first ones gave.
#include "CommandExportFixture.h"

#include <atomic>
#include <map>
#include <regex>

namespace {

constexpr unsigned kCalls = 10000;
// A leak of one handle per 2,500 calls, or of 26 bytes per call, shows.
constexpr unsigned long kHandleSlack = 3;
constexpr unsigned long long kPrivateBytesSlack = 256 * 1024;

const std::wstring kFolder = L"C:\\ZephTestBed\\soak\\";

const char kValidRecord[] =
    "f, 0, 1, 00:1A:2B:3C:4D:5E, IP, 00-1A-2B-3C-4D-5F, 00 1A 2B 3C 4D 60, TCP, SYN ACK, "
    "192.168.0.1, 49152, fe80::1, 443, 60, -1, 0, 4294967295, 3, 0x4e6f7465, 0, 100, 7, 12, 0, "
    "0x474554, , 1, 1700000000, 1699999999";

std::string Query(const std::string& id, const std::string& data = "{}") {
    return "query {\"query_id\":\"" + id +
           "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"query_data\":" + data + "}";
}

// Every path a host meets in a day: each query, a start of the running agent,
// a policy that talks to the agent and one that writes its configuration,
// notices to the agent and to the server, a valid and a missing detection
// file, and requests that are not JSON.
std::string SoakScript() {
    const std::string lines[] = {
        Query("ZEPH_ONQUERY_CLIENT_STATUS_LOG", "{\"query_type\":\"ZEPH_CLIENT_ALL_STATUS_LOG\"}"),
        Query("ZEPH_ONQUERY_COMMON_SETTINGS"),
        Query("ZEPH_ONQUERY_SERVICE_STATUS"),
        Query("ZEPH_ONQUERY_SELF_PROTECTION"),
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
    std::string script;
    for (const std::string& line : lines)
        script += line + "\n";
    return script;
}

struct SoakGroup {
    unsigned long handlesBefore = 0, handlesAfter = 0;
    unsigned long long privateBefore = 0, privateAfter = 0;
    std::map<std::string, unsigned> results; // "<export> -> <result>" and its count
};

// Reads zephhost's "--soak" report, one group per call.
std::map<std::string, SoakGroup> ParseSoakReport(const std::string& output) {
    static const std::regex header(
        R"(soak (\w+) x\d+: handles (\d+) -> (\d+), private bytes (\d+) -> (\d+), \d+ ms)");
    static const std::regex result(R"(  (.+) x(\d+))");
    std::map<std::string, SoakGroup> groups;
    SoakGroup* current = nullptr;
    std::smatch match;
    for (const std::string& line : SplitLines(output)) {
        if (std::regex_match(line, match, header)) {
            current = &groups[match[1]];
            current->handlesBefore = std::stoul(match[2]);
            current->handlesAfter = std::stoul(match[3]);
            current->privateBefore = std::stoull(match[4]);
            current->privateAfter = std::stoull(match[5]);
        } else if (current && std::regex_match(line, match, result)) {
            current->results[match[1]] = static_cast<unsigned>(std::stoul(match[2]));
        }
    }
    return groups;
}

class SoakTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(m_logServer.Start()) << "log pipe already served";
        AgentDouble::Remove();
        SimulatedInstall::Remove();
        ASSERT_TRUE(SimulatedInstall::Create());
        ASSERT_TRUE(QvsockDouble::SetBehaviour({}));
        ASSERT_TRUE(AgentDouble::SetBehaviour({}));
        ASSERT_TRUE(AgentDouble::Place());
        ASSERT_EQ(AgentDouble::RunInstall(), 0u);
        ASSERT_TRUE(AgentDouble::Start());
        ASSERT_TRUE(CreateFolderTree(kFolder));
        std::ofstream((kFolder + L"valid.log").c_str(), std::ios::binary) << kValidRecord << "\r\n";
        std::ofstream((kFolder + L"invalid.log").c_str(), std::ios::binary) << "f, 0, 1\r\n";
        std::ofstream((kFolder + L"script.txt").c_str(), std::ios::binary) << SoakScript();
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
    ProcessResult run = RunProcess({BinPath(L"zephhost.exe"), BinPath(L"zephExt_TarnClient.dll"),
                                    L"--soak", std::to_wstring(kCalls), kFolder + L"script.txt"},
                                   20 * 60 * 1000);
    ASSERT_FALSE(run.timedOut);
    ASSERT_EQ(run.exitCode, 0u) << run.output;
    std::map<std::string, SoakGroup> groups = ParseSoakReport(run.output);

    // Each group's requests are taken in turn: 2,000 of each query, 2,500 of
    // each command, ... The invalid detection file is deleted by its first
    // check during warm-up; from then on it cannot be opened.
    const std::map<std::string, std::map<std::string, unsigned>> expected = {
        {"query", {{"zephExt_OnQueryData -> 0", 10000}, {"zephExt_Free -> 0", 10000}}},
        {"command", {{"zephExt_OnCommand -> 0", 7500}, {"zephExt_OnCommand -> 2", 2500}}},
        {"notify", {{"zephExt_OnNotify -> 0", 6667}, {"zephExt_OnNotify -> 2", 3333}}},
        {"parselog",
         {{"zephExt_ParseLog -> 0", 5000},
          {"zephExt_ParseLog -> 4294967295", 5000},
          {"zephExt_Free -> 0", 5000}}},
    };
    ASSERT_EQ(groups.size(), expected.size()) << run.output;
    // The self-protection query closes only the last of its two image-options
    // keys, as it always has: one key handle stays open per call (2,000 here).
    const std::map<std::string, unsigned long> keptOpen = {{"query", kCalls / 5}};
    for (const auto& [call, results] : expected) {
        const SoakGroup& group = groups[call];
        EXPECT_EQ(group.results, results) << call;
        unsigned long kept = keptOpen.count(call) ? keptOpen.at(call) : 0;
        EXPECT_GE(group.handlesAfter, group.handlesBefore + kept) << call;
        EXPECT_LE(group.handlesAfter, group.handlesBefore + kept + kHandleSlack) << call;
        EXPECT_LE(group.privateAfter, group.privateBefore + kPrivateBytesSlack) << call;
    }
    EXPECT_GT(m_records.load(), 4 * kCalls); // the log client kept reaching its server
    std::printf("%s", run.output.c_str());
}

} // namespace
