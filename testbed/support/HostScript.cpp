#include "HostScript.h"

ProcessResult RunHost(const std::vector<std::wstring>& arguments, DWORD timeoutMs) {
    std::vector<std::wstring> command = {BinPath(L"zephhost.exe"),
                                         BinPath(L"zephExt_TarnClient.dll")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProcess(command, timeoutMs);
}

std::wstring WriteHostScript(const std::vector<std::string>& calls, const wchar_t* name) {
    std::string script;
    for (const std::string& call : calls)
        script += call + "\n";
    std::wstring path = TempPath(name);
    WriteFileBytes(path, script);
    return path;
}

ProcessResult RunHostScript(const std::vector<std::string>& calls, DWORD timeoutMs) {
    return RunHost({L"--script", WriteHostScript(calls)}, timeoutMs);
}

std::string Command(const std::string& id, const std::string& data) {
    return "command {\"command_id\":\"" + id +
           "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"command_data\":" + data + "}";
}

std::string Service(const std::string& type) {
    return Command("ZEPH_ONCOMMAND_IAGT_SERVICE", "{\"command_type\":\"" + type + "\"}");
}

std::string Install() {
    std::string folder = Narrow(BinDir()); // ends in a backslash, as the host gives it
    std::string escaped;
    for (char c : folder)
        escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return Command("ZEPH_ONCOMMAND_INSTALLATION",
                   "{\"command_type\":\"ZEPH_IAGENT_INSTALL\",\"PkgPath\":\"" + escaped + "\"}");
}

std::string Uninstall() {
    return Command("ZEPH_ONCOMMAND_INSTALLATION", "{\"command_type\":\"ZEPH_IAGENT_UNINSTALL\"}");
}

std::string Policy(int flag) {
    return Command("ZEPH_ONCOMMAND_IAGENT_POLICY",
                   "{\"command_type\":\"ZEPH_IAGENT_ISSUE_POLICY\",\"cfg_flag\":" +
                       std::to_string(flag) + "}");
}

std::string SelfProtection(int service) {
    return "notify {\"notify_id\":\"ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE\",\"product_id\":"
           "\"ZEPH_IPRODUCT_TARN\",\"notify_data\":{\"notify_type\":\"ZEPH_TYPE_SELF_PROTECTION\","
           "\"notify_content\":{\"enable\":{\"service\":" +
           std::to_string(service) + "}}}}";
}

std::string MoveClient() {
    return "notify {\"notify_id\":\"ZEPH_ONNOTIFY_CONTEXT_CHANGE\",\"product_id\":"
           "\"ZEPH_IPRODUCT_TARN\",\"notify_data\":{\"notify_type\":\"ZEPH_TYPE_SERVER_INFO\"}}";
}

std::vector<std::string> EveryQuery() {
    return {
        Query("ZEPH_ONQUERY_CLIENT_STATUS_LOG", "{\"query_type\":\"ZEPH_CLIENT_ALL_STATUS_LOG\"}"),
        Query("ZEPH_ONQUERY_COMMON_SETTINGS"),
        Query("ZEPH_ONQUERY_SERVICE_STATUS"),
        Query("ZEPH_ONQUERY_SELF_PROTECTION"),
    };
}

std::string Query(const std::string& id, const std::string& data) {
    return "query {\"query_id\":\"" + id +
           "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"query_data\":" + data + "}";
}

namespace {

// Undoes the one-line form: a backslash and an "n" were a line end, two backslashes one.
std::string Unescape(const std::string& line) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\' && i + 1 < line.size())
            text += line[++i] == 'n' ? '\n' : line[i];
        else
            text += line[i];
    }
    return text;
}

bool StartsWith(const std::string& line, const char* prefix) {
    return line.rfind(prefix, 0) == 0;
}

} // namespace

ConcurrentRun RunConcurrentHost(unsigned threads, unsigned passes,
                                const std::vector<std::string>& calls,
                                const std::vector<std::string>& hostCalls, DWORD timeoutMs) {
    std::vector<std::wstring> arguments = {L"--threads", std::to_wstring(threads), L"--concurrent",
                                           std::to_wstring(passes),
                                           WriteHostScript(calls, L"threads_calls.txt")};
    if (!hostCalls.empty())
        arguments.push_back(WriteHostScript(hostCalls, L"threads_host.txt"));
    ProcessResult process = RunHost(arguments, timeoutMs);
    ConcurrentRun run;
    for (const std::string& line : SplitLines(process.output)) {
        if (StartsWith(line, "host thread "))
            run.hostThread = std::stoul(line.substr(12));
        else if (StartsWith(line, "outcomes "))
            run.outcomes.emplace_back();
        else if (StartsWith(line, "  ") && !run.outcomes.empty())
            run.outcomes.back()[Unescape(line.substr(line.find(' ', 2) + 1))] +=
                std::stoul(line.substr(2));
        else if (StartsWith(line, "concurrent: "))
            run.completed = !process.timedOut && process.exitCode == 0;
        else
            run.hostOutput.push_back(line);
    }
    return run;
}

std::vector<std::string> QueryAnswers(const std::vector<std::string>& output) {
    std::vector<std::string> answers;
    bool open = false;
    for (const std::string& line : output) {
        if (StartsWith(line, "zephExt_OnQueryData -> ")) {
            answers.emplace_back();
            open = true;
        }
        if (open)
            answers.back() += line + "\n";
        open = open && !StartsWith(line, "zephExt_Free -> ") && line != "response: null";
    }
    return answers;
}

ThreadTally CompareWithLoneRuns(const ConcurrentRun& concurrent, const ConcurrentRun& once,
                                const ConcurrentRun& twice, unsigned threads, unsigned passes,
                                const std::vector<std::string>& calls,
                                const std::wstring& bindingText) {
    const unsigned totalPasses = threads * passes;
    ThreadTally tally;
    tally.threads = threads;
    tally.calls = totalPasses * static_cast<unsigned>(calls.size());
    LogServer::TextCounts first = LogServer::CountTexts(once.records);
    LogServer::TextCounts expected = LogServer::CountTexts(twice.records);
    for (auto& [text, count] : expected) {
        if (count < first[text])
            tally.differences.push_back("a lone caller logs less in two passes: " + Narrow(text));
        count = first[text] + (totalPasses - 1) * (count - first[text]);
    }
    for (size_t line = 0;
         line < calls.size() && line < concurrent.outcomes.size() && line < twice.outcomes.size();
         ++line) {
        if (twice.outcomes[line].size() != 1)
            tally.differences.push_back("a lone caller gets more than one outcome: " + calls[line]);
        for (const auto& [printed, count] : concurrent.outcomes[line])
            if (!twice.outcomes[line].count(printed)) {
                tally.disturbed += count;
                tally.differences.push_back(std::to_string(count) + " x " + calls[line] +
                                            " gave\n" + printed);
            }
    }
    LogServer::TextCounts heard = LogServer::CountTexts(concurrent.records);
    for (const auto& [text, count] : expected)
        tally.lost += count > heard[text] ? count - heard[text] : 0;
    for (const auto& [text, count] : heard) {
        tally.extra += count > expected[text] ? count - expected[text] : 0;
        if (count != expected[text])
            tally.differences.push_back(std::to_string(count) + " records, not " +
                                        std::to_string(expected[text]) + ": " + Narrow(text));
    }
    tally.bindings = heard[bindingText];
    if (expected[bindingText] != 1)
        tally.differences.push_back("a lone caller's binding message is not there once");
    return tally;
}

std::string Summary(const ThreadTally& tally) {
    return "threads: " + std::to_string(tally.threads) + " threads, " +
           std::to_string(tally.calls) + " calls, " + std::to_string(tally.disturbed) +
           " disturbed, " + std::to_string(tally.lost) + " lost, " + std::to_string(tally.extra) +
           " extra, " + std::to_string(tally.bindings) + " bindings";
}
