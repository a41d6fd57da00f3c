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
const wchar_t kImageOptions[] =
    L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\";
constexpr DWORD kRunTimeoutMs = 10 * 60 * 1000;

using TextCounts = std::map<std::wstring, unsigned>;

Lines QueryCalls() {
    return {
        Query("ZEPH_ONQUERY_CLIENT_STATUS_LOG", "{\"query_type\":\"ZEPH_CLIENT_ALL_STATUS_LOG\"}"),
        Query("ZEPH_ONQUERY_COMMON_SETTINGS"),
        Query("ZEPH_ONQUERY_SERVICE_STATUS"),
        Query("ZEPH_ONQUERY_SELF_PROTECTION"),
    };
}

// A short and a long valid record, and a file that is not there.
Lines DetectionCalls() {
    return {"parselog " + Narrow(kFolder) + "short.log", "parselog " + Narrow(kFolder) + "long.log",
            "parselog " + Narrow(kFolder) + "missing.log"};
}

// How the concurrent calls compare with a lone caller's.
struct Tally {
    unsigned threads = 0, calls = 0, disturbed = 0, lost = 0, extra = 0, bindings = 0;
};

class ThreadTest : public CommandExportTest {
  protected:
    void SetUp() override {
        CommandExportTest::SetUp();
        ASSERT_TRUE(AgentDouble::Run());
        ASSERT_TRUE(CreateFolderTree(kFolder));
        const std::string shortRecord = kValidDetectionRecord;
        // The long form: six more fields after the 26th, none of them checked.
        std::string longRecord = shortRecord;
        size_t afterField26 = 0;
        for (int comma = 0; comma < 26; ++comma)
            afterField26 = longRecord.find(',', afterField26) + 1;
        longRecord.insert(afterField26, " any, text here, 6e6f7465, , x, -,");
        ASSERT_TRUE(WriteFileBytes(kFolder + L"short.log", shortRecord + "\r\n"));
        ASSERT_TRUE(WriteFileBytes(kFolder + L"long.log", longRecord + "\r\n"));
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
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(kImageOptions) + program).c_str());
        Records(); // only what this run logs
        ConcurrentRun run = RunConcurrentHost(threads, passes, calls, hostCalls, kRunTimeoutMs);
        EXPECT_TRUE(run.completed) << Text(run.hostOutput);
        EXPECT_EQ(run.outcomes.size(), calls.size()) << Text(run.hostOutput);
        run.records = Records();
        return run;
    }

    // The same calls on many threads and one after another on one, compared. A
    // lone caller's records repeat with each pass after the first (which binds
    // and makes the image-options keys), so one pass and two give the count
    // of every text for any number of passes.
    Tally CompareWithALoneCaller(unsigned threads, unsigned passes, const Lines& calls) {
        const unsigned totalPasses = threads * passes;
        ConcurrentRun concurrent = RunConcurrent(threads, passes, calls);
        TextCounts once = CountTexts(RunConcurrent(1, 1, calls).records);
        ConcurrentRun twice = RunConcurrent(1, 2, calls);
        TextCounts expected = CountTexts(twice.records);
        for (auto& [text, count] : expected) {
            EXPECT_GE(count, once[text]) << Narrow(text);
            count = once[text] + (totalPasses - 1) * (count - once[text]);
        }
        Tally tally{threads, totalPasses * unsigned(calls.size())};
        for (size_t line = 0; line < calls.size() && line < concurrent.outcomes.size(); ++line) {
            EXPECT_EQ(twice.outcomes[line].size(), 1u) << calls[line];
            for (const auto& [printed, count] : concurrent.outcomes[line])
                if (!twice.outcomes[line].count(printed)) {
                    tally.disturbed += count;
                    ADD_FAILURE() << count << " x " << calls[line] << " gave\n" << printed;
                }
        }
        TextCounts heard = CountTexts(concurrent.records);
        // A torn record counts as one extra and one lost.
        for (const auto& [text, count] : expected)
            tally.lost += count > heard[text] ? count - heard[text] : 0;
        for (const auto& [text, count] : heard)
            tally.extra += count > expected[text] ? count - expected[text] : 0;
        for (const auto& [text, count] : heard)
            EXPECT_EQ(count, expected[text]) << Narrow(text);
        tally.bindings = heard[kBindingText];
        EXPECT_EQ(expected[kBindingText], 1u);
        return tally;
    }

    static TextCounts CountTexts(const std::vector<LogRecord>& records) {
        TextCounts counts;
        for (const LogRecord& record : records)
            ++counts[record.parsed ? record.text : L"unparsed " + record.raw];
        return counts;
    }

    // The agent installed and stopped, its settings file empty, nothing reported yet.
    static void ResetTheAgent(const AgentDouble::Behaviour& behaviour = {}) {
        AgentDouble::Remove();
        TestBedRegistry::DeleteTree(kAgentKey);
        ASSERT_TRUE(AgentDouble::Install(behaviour));
        MakeConfigFolder();
    }

    // The frames without their time stamps.
    static Lines FramesUnstamped() {
        Lines frames = AgentDouble::ReceivedFrames();
        for (std::string& frame : frames)
            frame.erase(20, 16);
        return frames;
    }

    // The binding's own message: the host library's signature check, once per process.
    static inline const std::wstring kBindingText =
        Widen(P) + L"CheckFileIssuer - Checking whether file (C:\\ZephTestBed\\Corvale\\"
                   L"zephAgent_64x.dll) is signed by issuer (Quorvane, Inc.)";
};

// The widest case, which scripts/threads runs: 8 threads x 179 passes x 7 calls.
TEST_F(ThreadTest, TenThousandQueriesAndDetectionFilesOnEightThreadsFromTheFirstCall) {
    Lines calls = QueryCalls();
    for (const std::string& call : DetectionCalls())
        calls.push_back(call);
    Tally tally = CompareWithALoneCaller(8, 179, calls);
    EXPECT_GE(tally.calls, 10000u);
    EXPECT_EQ(tally.bindings, 1u);
    std::printf("threads: %u threads, %u calls, %u disturbed, %u lost, %u extra, %u bindings\n",
                tally.threads, tally.calls, tally.disturbed, tally.lost, tally.extra,
                tally.bindings);
}

TEST_F(ThreadTest, QueriesBesideTheHostThreadsCommands) {
    // "prereq" binds before the other threads are released, in both runs.
    const Lines commands = {
        "prereq",  Service("ZEPH_TYPE_IAGT_START"), Policy(1), SelfProtection(1), MoveClient(),
        Policy(4), Service("ZEPH_TYPE_IAGT_STOP")};
    const Lines queries = QueryCalls();

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
    Lines aloneFrames = FramesUnstamped();
    Lines aloneRecords;
    for (const LogRecord& record : Records())
        aloneRecords.push_back(Narrow(record.text));

    ResetTheAgent();
    ConcurrentRun run = RunConcurrent(8, 40, queries, commands);
    EXPECT_EQ(Text(run.hostOutput), Text(aloneOutput));
    EXPECT_EQ(FramesUnstamped(), aloneFrames);
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
