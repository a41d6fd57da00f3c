#pragma once
// Commands and notifications through the real exports: zephhost.exe loads the
// DLL in a fresh process per script, with the agent, host library and HTTP
// library doubles on the far ends.
#include "AgentControlFixture.h"
#include "QvsockDouble.h"

#include <cmath>
#include <cstring>
#include <fstream>

// What the plug-in puts before each text it logs inside zephhost.exe.
inline const std::string P = "[zephExt_TarnClient][zephhost.exe]";
inline const wchar_t kAgentKey[] = L"SOFTWARE\\Quorvane\\TarnAgent";
inline const wchar_t kProductKey[] =
    L"SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion";

// Script lines for zephhost.exe.
inline std::string Command(const std::string& id, const std::string& data) {
    return "command {\"command_id\":\"" + id +
           "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"command_data\":" + data + "}";
}
inline std::string Service(const std::string& type) {
    return Command("ZEPH_ONCOMMAND_IAGT_SERVICE", "{\"command_type\":\"" + type + "\"}");
}
inline std::string Install() {
    std::string folder = Narrow(BinDir()); // ends in a backslash, as the host gives it
    std::string escaped;
    for (char c : folder)
        escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return Command("ZEPH_ONCOMMAND_INSTALLATION",
                   "{\"command_type\":\"ZEPH_IAGENT_INSTALL\",\"PkgPath\":\"" + escaped + "\"}");
}
inline std::string Uninstall() {
    return Command("ZEPH_ONCOMMAND_INSTALLATION", "{\"command_type\":\"ZEPH_IAGENT_UNINSTALL\"}");
}
inline std::string Policy(int flag) {
    return Command("ZEPH_ONCOMMAND_IAGENT_POLICY",
                   "{\"command_type\":\"ZEPH_IAGENT_ISSUE_POLICY\",\"cfg_flag\":" +
                       std::to_string(flag) + "}");
}
inline std::string SelfProtection(int service) {
    return "notify {\"notify_id\":\"ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE\",\"product_id\":"
           "\"ZEPH_IPRODUCT_TARN\",\"notify_data\":{\"notify_type\":\"ZEPH_TYPE_SELF_PROTECTION\","
           "\"notify_content\":{\"enable\":{\"service\":" +
           std::to_string(service) + "}}}}";
}
inline std::string MoveClient() {
    return "notify {\"notify_id\":\"ZEPH_ONNOTIFY_CONTEXT_CHANGE\",\"product_id\":"
           "\"ZEPH_IPRODUCT_TARN\",\"notify_data\":{\"notify_type\":\"ZEPH_TYPE_SERVER_INFO\"}}";
}

// A frame as the agent must see it: magic "NTVQ", type, identifier, payload
// length and payload, stamped with the UTC time of sending.
inline void ExpectFrame(const std::string& frame, uint32_t type, uint32_t identifier,
                        const std::string& payload = std::string()) {
    ASSERT_EQ(frame.size(), 36 + payload.size());
    const uint32_t head[] = {0x5156544E, type, identifier, 0, uint32_t(payload.size())};
    EXPECT_EQ(frame.substr(0, 20), std::string(reinterpret_cast<const char*>(head), 20));
    EXPECT_EQ(frame.substr(36), payload);
    SYSTEMTIME stamp = {};
    memcpy(&stamp, frame.data() + 20, sizeof(stamp));
    ULARGE_INTEGER stampTime = {}, now = {};
    ASSERT_TRUE(SystemTimeToFileTime(&stamp, reinterpret_cast<FILETIME*>(&stampTime)));
    GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&now));
    EXPECT_LT(std::abs(double(now.QuadPart) - double(stampTime.QuadPart)), 5 * 600000000.0);
}

class CommandExportTest : public AgentControlTest {
  protected:
    void SetUp() override {
        AgentControlTest::SetUp();
        QvsockDouble::Remove();
        TestBedRegistry::DeleteTree(kAgentKey);
    }
    void TearDown() override {
        QvsockDouble::Remove();
        TestBedRegistry::DeleteTree(kAgentKey);
        TestBedRegistry::DeleteTree((std::wstring(kProductKey) + L"\\LumenfieldPolicy").c_str());
        AgentControlTest::TearDown();
    }

    // Runs the calls in one zephhost.exe process; answers each export's result
    // ("zephExt_OnCommand -> 0", ...) in order.
    static Lines Host(const Lines& calls) {
        char temp[MAX_PATH];
        GetTempPathA(MAX_PATH, temp);
        std::string script = std::string(temp) + "zephhost_commands.txt";
        std::ofstream file(script, std::ios::binary);
        for (const std::string& call : calls)
            file << call << "\n";
        file.close();
        ProcessResult run =
            RunProcess({BinPath(L"zephhost.exe"), BinPath(L"zephExt_TarnClient.dll"), L"--script",
                        Widen(script)},
                       180000);
        EXPECT_FALSE(run.timedOut);
        Lines results;
        for (const std::string& line : SplitLines(run.output))
            if (line.rfind("zephExt_On", 0) == 0)
                results.push_back(line);
        return results;
    }
    static std::string Result(const char* exportName, uint32_t result) {
        return std::string(exportName) + " -> " + std::to_string(result);
    }
    static std::string CommandResult(uint32_t result) {
        return Result("zephExt_OnCommand", result);
    }
    // What the plug-in logged, without the host's prefix.
    Lines PluginLog() {
        Lines lines;
        for (std::string line : Logged()) {
            size_t prefix = line.find(P);
            if (prefix != std::string::npos)
                line.erase(prefix, P.size());
            lines.push_back(line);
        }
        return lines;
    }
    Lines PluginComplaints() { return Complaints(PluginLog()); }
    // Each of `lines` was logged.
    static void ExpectAmong(const Lines& log, const Lines& lines) {
        for (const std::string& line : lines)
            EXPECT_TRUE(Contains(log, line)) << line << "\nnot among:\n" << Text(log);
    }
    static void MakeConfigFolder() {
        ASSERT_TRUE(CreateFolderTree(std::wstring(AgentDouble::kClientFolder) + L"\\config"));
    }
};
