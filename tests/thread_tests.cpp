// The host's own threads: queries and detection files from many threads at
// once, from the process's very first call on, and beside the host thread's
// commands. A lone caller is the reference: every concurrent call must give an
// outcome a lone caller gets, and the log server must hear exactly the records
// that the same calls made one after another produce, each one whole.
#include "CommandExportFixture.h"

#include <map>
#include <set>

namespace {

const std::wstring kFolder = L"C:\\ZephTestBed\\threads\\";
constexpr DWORD kRunTimeoutMs = 10 * 60 * 1000;

// A short and a long valid record, and a file that is not there.
Lines DetectionCalls() {
    return {"parselog " + Narrow(kFolder) + "short.log", "parselog " + Narrow(kFolder) + "long.log",
            "parselog " + Narrow(kFolder) + "missing.log"};
}

class ThreadTest : public CommandExportTest {
  protected:
    void SetUp() override {
        CommandExportTest::SetUp();
        ASSERT_TRUE(AgentDouble::Run());
        ASSERT_TRUE(CreateFolderTree(kFolder));
        ASSERT_TRUE(
            WriteFileBytes(kFolder + L"short.log", kValidDetectionRecord + std::string("\r\n")));
        ASSERT_TRUE(WriteFileBytes(kFolder + L"long.log", LongDetectionRecord() + "\r\n"));
    }
    void TearDown() override {
        RemoveFolderTree(kFolder);
        CommandExportTest::TearDown();
    }

    // RunConcurrentHost with the records the log server heard meanwhile.
    ConcurrentRun RunConcurrent(unsigned threads, unsigned passes, const Lines& calls,
                                const Lines& hostCalls = {}) {
        // Each run starts where the lone caller started: the image-options keys
        // that the self-protection query makes are not there yet.
        for (const wchar_t* program : {L"TarnAgent.exe", L"hdc.exe"})
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(kImageOptionsKey) + program).c_str());
        Records(); // only what this run logs
        ConcurrentRun run = RunConcurrentHost(threads, passes, calls, hostCalls, kRunTimeoutMs);
        EXPECT_TRUE(run.completed) << Text(run.hostOutput);
        EXPECT_EQ(run.outcomes.size(), calls.size()) << Text(run.hostOutput);
        run.records = Records();
        return run;
    }

    // The calls on `threads` threads against a lone caller's runs of one and two passes.
    ThreadTally CompareWithALoneCaller(unsigned threads, unsigned passes, const Lines& calls) {
        ConcurrentRun concurrent = RunConcurrent(threads, passes, calls);
        ConcurrentRun once = RunConcurrent(1, 1, calls), twice = RunConcurrent(1, 2, calls);
        ThreadTally tally =
            CompareWithLoneRuns(concurrent, once, twice, threads, passes, calls, kBindingText);
        EXPECT_EQ(Text(tally.differences), "");
        return tally;
    }

    // The agent installed and stopped, its settings file empty, nothing reported yet.
    static void ResetTheAgent(const AgentDouble::Behaviour& behaviour = {}) {
        AgentDouble::Remove();
        TestBedRegistry::DeleteTree(kAgentKey);
        ASSERT_TRUE(AgentDouble::Install(behaviour));
        MakeConfigFolder();
    }

    // The binding's own message: the host library's signature check, once per process.
    static inline const std::wstring kBindingText =
        Widen(P) + L"CheckFileIssuer - Checking whether file (C:\\ZephTestBed\\Corvale\\"
                   L"zephAgent_64x.dll) is signed by issuer (Quorvane, Inc.)";
};

// The widest case, which scripts/threads runs: 8 threads x 179 passes x 7 calls.
TEST_F(ThreadTest, TenThousandQueriesAndDetectionFilesOnEightThreadsFromTheFirstCall) {
    Lines calls = EveryQuery();
    for (const std::string& call : DetectionCalls())
        calls.push_back(call);
    ThreadTally tally = CompareWithALoneCaller(8, 179, calls);
    EXPECT_GE(tally.calls, 10000u);
    EXPECT_EQ(tally.bindings, 1u);
    std::printf("%s\n", Summary(tally).c_str());
}

TEST_F(ThreadTest, QueriesBesideTheHostThreadsCommands) {
    // "prereq" binds before the other threads are released, in both runs.
    const Lines commands = {
        "prereq",  Service("ZEPH_TYPE_IAGT_START"), Policy(1), SelfProtection(1), MoveClient(),
        Policy(4), Service("ZEPH_TYPE_IAGT_STOP")};
    const Lines queries = EveryQuery();

    // A lone caller's answers in every state the commands pass through: between
    // any two of them, and while the service starts.
    std::vector<std::set<std::string>> lone(queries.size());
    auto addLoneAnswers = [&](const Lines& script) {
        Lines answers = QueryAnswers(SplitLines(RunHostScript(script).output));
        for (size_t i = 0; i < answers.size(); ++i)
            lone[i % queries.size()].insert(answers[i]);
    };
    AgentDouble::Behaviour slowStart;
    slowStart.startDelayMs = 5000;
    ResetTheAgent(slowStart);
    ASSERT_TRUE(AgentDouble::Start(SERVICE_START_PENDING));
    addLoneAnswers(queries);
    ResetTheAgent();
    Lines interleaved = queries;
    for (const std::string& command : commands) {
        interleaved.push_back(command);
        interleaved.insert(interleaved.end(), queries.begin(), queries.end());
    }
    addLoneAnswers(interleaved);

    // The commands alone: what they print, the frames and the records.
    ResetTheAgent();
    Records();
    Lines aloneOutput = SplitLines(RunHostScript(commands).output);
    Lines aloneFrames = AgentDouble::ReceivedFramesUnstamped();
    Lines aloneRecords;
    for (const LogRecord& record : Records())
        aloneRecords.push_back(Narrow(record.text));

    ResetTheAgent();
    ConcurrentRun run = RunConcurrent(8, 40, queries, commands);
    EXPECT_EQ(Text(run.hostOutput), Text(aloneOutput));
    EXPECT_EQ(AgentDouble::ReceivedFramesUnstamped(), aloneFrames);
    Lines hostRecords;
    for (const LogRecord& record : run.records)
        if (record.threadId == run.hostThread)
            hostRecords.push_back(Narrow(record.text));
    EXPECT_EQ(Text(hostRecords), Text(aloneRecords));
    for (size_t i = 0; i < queries.size() && i < run.outcomes.size(); ++i)
        for (const auto& [printed, count] : run.outcomes[i])
            EXPECT_TRUE(lone[i].count(printed)) << count << " x " << queries[i] << " gave\n"
                                                << printed;
}

} // namespace
